// The framework's base object, its reference table and the property map.

#include <gtest/gtest.h>

#include <boost/make_shared.hpp>

#include <sstream>
#include <string>

#include "framework/kiv_object.h"
#include "tests/support/kiv_test_support.h"

TEST(FrameworkObject, PropertiesDestroyAndDescribe) {
    kiv_test::cout_capture out;
    _kiv_object object;
    boost::any value = std::string("untouched");
    EXPECT_FALSE(kiv_property_get(object.properties, "missing", value));
    EXPECT_EQ(boost::any_cast<std::string>(value), "untouched");
    ASSERT_TRUE(kiv_property_get(object.properties, "object-destroyed", value));
    EXPECT_FALSE(boost::any_cast<bool>(value));
    object.destroy("f.cpp", 1);
    ASSERT_TRUE(kiv_property_get(object.properties, "object-destroyed", value));
    EXPECT_TRUE(boost::any_cast<bool>(value));
    const std::lock_guard<std::mutex> held(object.mutex);  // describe() must not take it
    object.describe();
    std::ostringstream address;
    address << static_cast<const void*>(&object);
    EXPECT_EQ(out.str(), "\x1b[0;35m[kiv_object]\x1b[0;0m object at " + address.str() + "\n");
    EXPECT_THROW(object.shared_object(), boost::bad_weak_ptr);
}

TEST(FrameworkObject, RefHoldsOneHandleAndUnrefGivesItBack) {
    const std::size_t before = kiv_object_reffed_count();
    auto object = boost::make_shared<_kiv_object>();
    const boost::weak_ptr<_kiv_object> watch = object;
    EXPECT_EQ(object->shared_object(), object);
    kiv_object_unref_real(object);  // not reffed: left alone
    kiv_object_ref(object), kiv_object_ref(object), kiv_object_ref(nullptr);  // a second ref changes nothing
    EXPECT_TRUE(object->is_reffed());
    EXPECT_EQ(kiv_object_reffed_count(), before + 1);
    object.reset();
    ASSERT_FALSE(watch.expired());  // the framework keeps it alive
    kiv_object_unref_real(watch.lock());
    kiv_object_unref_real(nullptr);
    EXPECT_TRUE(watch.expired());
    EXPECT_EQ(kiv_object_reffed_count(), before);
}
