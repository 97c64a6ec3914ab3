// Runs with ZTPROXY_LOG_LEVEL=error set by the test driver.
#include "ztLog.h"

#include <gtest/gtest.h>

#include <cstdlib>

TEST(Logging, EnvironmentSetsTheStartingLevel)
{
    ASSERT_STREQ(std::getenv("ZTPROXY_LOG_LEVEL"), "error");
    EXPECT_EQ(ztLogGetLevel(), ZTLOG_LEVEL_ERROR);
}
