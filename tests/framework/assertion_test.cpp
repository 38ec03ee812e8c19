// The framework's assertion function and its handler hook.

#include <gtest/gtest.h>

#include "framework/kiv_assertion.h"
#include "tests/support/kiv_test_support.h"

TEST(FrameworkAssertion, HandlerReceivesHoldingAndFailingCalls) {
    kiv_test::cout_capture out;
    {
        kiv_test::assertion_recorder recorder;
        kiv_assertion_faild(true, "db!=nullptr", "no database", "a.cpp", 10);
        kiv_assertion_faild(false, "stmt==nullptr", "statement left", "b.cpp", 20);
        const auto calls = recorder.take();
        ASSERT_EQ(calls.size(), 2u);
        EXPECT_TRUE(calls[0].cond);
        EXPECT_EQ(calls[0].cond_text, "db!=nullptr");
        EXPECT_EQ(calls[0].message, "no database");
        EXPECT_EQ(calls[0].file, "a.cpp");
        EXPECT_EQ(calls[0].line, 10);
        EXPECT_FALSE(calls[1].cond);
        EXPECT_EQ(calls[1].cond_text, "stmt==nullptr");
        EXPECT_EQ(calls[1].message, "statement left");
        EXPECT_EQ(calls[1].file, "b.cpp");
        EXPECT_EQ(calls[1].line, 20);
    }
    EXPECT_EQ(out.str(), "");  // the handler replaces the default output
}

TEST(FrameworkAssertion, WithoutHandlerOnlyAFailingCallWritesOneErrorLine) {
    kiv_test::cout_capture out;
    kiv_assertion_faild(true, "db!=nullptr", "no database", "a.cpp", 10);
    EXPECT_EQ(out.str(), "");
    kiv_assertion_faild(false, "db!=nullptr", "no database", "a.cpp", 10);
    const std::string line = out.str();
    ASSERT_EQ(line.rfind(kiv_test::error_banner, 0), 0u) << line;
    EXPECT_EQ(line,
              kiv_test::error_banner + "assertion failed: db!=nullptr - no database at a.cpp:10\n");
    EXPECT_EQ(out.flushes(), 1);
}
