// The framework's assertion function and its handler hook.

#include <gtest/gtest.h>

#include "framework/kiv_assertion.h"
#include "tests/support/kiv_test_support.h"

TEST(FrameworkAssertion, HandlerSeesEveryCallWithoutItOnlyAFailureWritesOneLine) {
    kiv_test::cout_capture out;
    {
        kiv_test::assertion_recorder recorder;
        kiv_assertion_faild(true, "db!=nullptr", "no database", "a.cpp", 10);
        kiv_assertion_faild(false, "stmt==nullptr", "statement left", "b.cpp", 20);
        const auto calls = recorder.take();
        ASSERT_EQ(calls.size(), 2u);
        EXPECT_TRUE(calls[0].cond && calls[0].cond_text == "db!=nullptr" && calls[0].message == "no database" &&
                    calls[0].file == "a.cpp" && calls[0].line == 10);
        EXPECT_TRUE(!calls[1].cond && calls[1].cond_text == "stmt==nullptr" && calls[1].message == "statement left" &&
                    calls[1].file == "b.cpp" && calls[1].line == 20);
    }
    EXPECT_EQ(out.str(), "");  // the handler replaces the default output
    kiv_assertion_faild(true, "db!=nullptr", "no database", "a.cpp", 10);
    kiv_assertion_faild(false, "db!=nullptr", "no database", "a.cpp", 10);
    EXPECT_EQ(out.str(), kiv_test::error_banner + "assertion failed: db!=nullptr - no database at a.cpp:10\n");
    EXPECT_EQ(out.flushes(), 1);
}
