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

TEST(FrameworkAssertion, HandlerSeesEveryCallWithoutItOnlyAFailureWritesOneLine) {
    kiv_test::cout_capture out;
    for (const bool cond : {true, false}) {
        kiv_test::assertion_recorder recorder;
        kiv_assertion_faild(cond, "db!=nullptr", "no database", "a.cpp", 10);
        const auto calls = recorder.take();
        ASSERT_EQ(calls.size(), 1u);
        EXPECT_TRUE(calls[0].cond == cond && calls[0].cond_text == "db!=nullptr" && calls[0].message == "no database" &&
                    calls[0].file == "a.cpp" && calls[0].line == 10);
    }
    EXPECT_EQ(out.str(), "");  // the handler replaces the default output
    for (const bool cond : {true, false}) kiv_assertion_faild(cond, "db!=nullptr", "no database", "a.cpp", 10);
    EXPECT_EQ(out.str(), kiv_test::error_banner + "assertion failed: db!=nullptr - no database at a.cpp:10\n");
    EXPECT_EQ(out.flushes(), 1);
}
