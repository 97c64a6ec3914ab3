#include "platform/zt_log.h"
#include "support/log_capture.h"

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(Logging, LevelsFilterAndHaveNames)
{
    zt::test::LogCapture log(ZTLOG_LEVEL_WARN);
    EXPECT_EQ(ztLogGetLevel(), ZTLOG_LEVEL_WARN);
    ZTLOG_INFO("not written %d", 1);
    ZTLOG_WARN("written %d", 2);
    ztLogSetLevel(ZTLOG_LEVEL_OFF);
    ZTLOG_ERROR("not written either");
    ztLogSetLevel(42); // ignored
    EXPECT_EQ(ztLogGetLevel(), ZTLOG_LEVEL_OFF);
    EXPECT_EQ(log.texts(), std::vector<std::string>{"written 2"});

    const char* names[] = {"trace", "debug", "info", "warn", "error", "off"};
    const int levels[] = {ZTLOG_LEVEL_TRACE, ZTLOG_LEVEL_DEBUG, ZTLOG_LEVEL_INFO, ZTLOG_LEVEL_WARN, ZTLOG_LEVEL_ERROR, ZTLOG_LEVEL_OFF};
    for (int i = 0; i < 6; ++i)
        EXPECT_EQ(ztLogParseLevel(names[i]), levels[i]) << names[i];
    EXPECT_EQ(ztLogParseLevel("loud"), -1);
    EXPECT_EQ(ztLogParseLevel(nullptr), -1);
}

} // namespace
