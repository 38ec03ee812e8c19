// The framework's base object, reference table, property map and assertion function, as the library uses them.

#include <gtest/gtest.h>

#include <boost/make_shared.hpp>

#include "framework/kiv_object.h"
#include "tests/support/kiv_test_support.h"

TEST(FrameworkObject, RefHoldsOneHandleUnrefGivesItBackAndALooseObjectHasNoSharedOwner) {
    const std::size_t before = kiv_object_reffed_count();
    auto object = boost::make_shared<_kiv_object>();
    const boost::weak_ptr<_kiv_object> watch = object;
    EXPECT_EQ(object->shared_object(), object);
    boost::any value;
    ASSERT_TRUE(kiv_property_get(object->properties, "object-destroyed", value));
    EXPECT_FALSE(boost::any_cast<bool>(value));
    kiv_object_unref_real(object);  // not reffed: left alone
    kiv_object_ref(object), kiv_object_ref(object);  // a second ref changes nothing
    EXPECT_TRUE(object->is_reffed());
    EXPECT_EQ(kiv_object_reffed_count(), before + 1);
    object.reset();
    ASSERT_FALSE(watch.expired());  // the framework keeps it alive
    kiv_object_unref_real(watch.lock());
    EXPECT_TRUE(watch.expired());
    EXPECT_EQ(kiv_object_reffed_count(), before);
    _kiv_object loose;
    EXPECT_THROW(loose.shared_object(), boost::bad_weak_ptr);
}

// With a handler installed (the library's tests record every call through one) nothing is written;
// without one, only a failing check writes its line.
TEST(FrameworkAssertion, WithoutHandlerOnlyAFailureWritesOneLine) {
    kiv_test::cout_capture out;
    for (const bool cond : {true, false}) kiv_assertion_faild(cond, "db!=nullptr", "no database", "a.cpp", 10);
    EXPECT_EQ(out.str(), kiv_test::error_banner + "assertion failed: db!=nullptr - no database at a.cpp:10\n");
    EXPECT_EQ(out.flushes(), 1);
}
