#include "host/fwk/Assert.h"

#include <gtest/gtest.h>

namespace {

int checkPositive(int x) {
   OVK_ASSERT(x > 0);
   return x;
}

TEST(AssertDeathTest, PrintsTheAssertedExpression) {
   EXPECT_EQ(checkPositive(1), 1);
   EXPECT_DEATH(checkPositive(0), "AssertTest.cpp:[0-9]+: int .*checkPositive\\(int\\): Assertion `x > 0' failed\\.");
}

TEST(AssertDeathTest, PrintsTheGivenText) {
   EXPECT_DEATH(OVK_ASSERT_MSG(false, "Must override in derived class"),
                "Assertion `Must override in derived class' failed\\.");
   EXPECT_DEATH(OVK_FATAL("false"), "Assertion `false' failed\\.");
}

} // namespace
