// The framework's base object, its reference table and the property map.

#include <gtest/gtest.h>

#include <boost/make_shared.hpp>

#include <chrono>
#include <future>
#include <sstream>
#include <string>

#include "framework/kiv_object.h"
#include "tests/support/kiv_test_support.h"

TEST(FrameworkObject, StartsNotDestroyedAndDestroyMarksIt) {
    _kiv_object object;
    boost::any value;
    ASSERT_TRUE(kiv_property_get(object.properties, "object-destroyed", value));
    EXPECT_FALSE(boost::any_cast<bool>(value));
    object.destroy("f.cpp", 1);
    ASSERT_TRUE(kiv_property_get(object.properties, "object-destroyed", value));
    EXPECT_TRUE(boost::any_cast<bool>(value));
    EXPECT_EQ(object.type_tag(), "[kiv_object]");
}

TEST(FrameworkObject, PropertyGetLeavesValueAloneWhenKeyIsMissing) {
    std::map<std::string, boost::any> properties{{"n", 5}};
    boost::any value = std::string("untouched");
    EXPECT_FALSE(kiv_property_get(properties, "missing", value));
    EXPECT_EQ(boost::any_cast<std::string>(value), "untouched");
    EXPECT_TRUE(kiv_property_get(properties, "n", value));
    EXPECT_EQ(boost::any_cast<int>(value), 5);
}

TEST(FrameworkObject, RefHoldsOneHandleAndUnrefGivesItBack) {
    const std::size_t before = kiv_object_reffed_count();
    auto object = boost::make_shared<_kiv_object>();
    boost::weak_ptr<_kiv_object> watch = object;
    EXPECT_FALSE(object->is_reffed());
    kiv_object_unref_real(object);  // not reffed: left alone
    EXPECT_EQ(kiv_object_reffed_count(), before);
    kiv_object_ref(object);
    kiv_object_ref(object);  // a second ref changes nothing
    EXPECT_TRUE(object->is_reffed());
    EXPECT_EQ(kiv_object_reffed_count(), before + 1);
    EXPECT_EQ(object.use_count(), 2);
    object.reset();
    ASSERT_FALSE(watch.expired());  // the framework keeps it alive
    kiv_object_unref_real(watch.lock());
    EXPECT_TRUE(watch.expired());
    EXPECT_EQ(kiv_object_reffed_count(), before);
    kiv_object_ref(nullptr);
    kiv_object_unref_real(nullptr);
    EXPECT_EQ(kiv_object_reffed_count(), before);
}

TEST(FrameworkObject, SharedObjectSharesOwnershipOrThrowsBadWeakPtr) {
    _kiv_object unowned;
    EXPECT_THROW(unowned.shared_object(), boost::bad_weak_ptr);
    auto owned = boost::make_shared<_kiv_object>();
    boost::shared_ptr<_kiv_object> again = owned->shared_object();
    EXPECT_EQ(again, owned);
    EXPECT_EQ(owned.use_count(), 2);
}

TEST(FrameworkObject, DescribeWritesOneLineWithoutTakingTheMutex) {
    kiv_test::cout_capture out;
    _kiv_object object;
    std::unique_lock<std::mutex> held(object.mutex);
    auto described = std::async(std::launch::async, [&] { object.describe(); });
    const bool returned = described.wait_for(std::chrono::seconds(30)) == std::future_status::ready;
    held.unlock();
    described.wait();
    ASSERT_TRUE(returned) << "describe() waits for the object mutex";
    std::ostringstream address;
    address << static_cast<const void*>(&object);
    EXPECT_EQ(out.str(), "\x1b[0;35m[kiv_object]\x1b[0;0m object at " + address.str() + "\n");
}
