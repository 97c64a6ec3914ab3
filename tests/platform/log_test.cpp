#include "platform/zt_log.h"
#include "support/log_capture.h"

#include <gtest/gtest.h>

#include <string>

namespace {

// printf formats reach the callback exactly, std::string arguments included; a format
// with too few arguments still leaves its text.
TEST(Logging, PrintfFormatsReachTheCallbackExactly)
{
    zt::test::LogCapture log(ZTLOG_LEVEL_INFO);
    ZTLOG_ERROR("connect timeout, localIP: %s, remoteIP: %s", std::string("10.0.0.1"), "10.0.0.2");
    ZTLOG_WARN("getSETFileSize zt_msg_is_avalible failed[%d][%d][%d]\r\n", -1, 4, 0x20002);
    ZTLOG_INFO("connect failed with error: %ld\n", 10061L);
    ZTLOG_ERROR("value %d and %s", 1); // one argument short
    const auto lines = log.lines();
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[0].level, ZTLOG_LEVEL_ERROR);
    EXPECT_EQ(lines[0].text, "connect timeout, localIP: 10.0.0.1, remoteIP: 10.0.0.2");
    EXPECT_EQ(lines[1].level, ZTLOG_LEVEL_WARN);
    EXPECT_EQ(lines[1].text, "getSETFileSize zt_msg_is_avalible failed[-1][4][131074]\r\n");
    EXPECT_EQ(lines[2].level, ZTLOG_LEVEL_INFO);
    EXPECT_EQ(lines[2].text, "connect failed with error: 10061\n");
    EXPECT_EQ(lines[3].text, "value %d and %s");
}

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
    ASSERT_EQ(log.lines().size(), 1u);
    EXPECT_EQ(log.lines()[0].text, "written 2");

    const char* names[] = {"trace", "debug", "info", "warn", "error", "off"};
    const int levels[] = {ZTLOG_LEVEL_TRACE, ZTLOG_LEVEL_DEBUG, ZTLOG_LEVEL_INFO, ZTLOG_LEVEL_WARN, ZTLOG_LEVEL_ERROR, ZTLOG_LEVEL_OFF};
    for (int i = 0; i < 6; ++i)
        EXPECT_EQ(ztLogParseLevel(names[i]), levels[i]) << names[i];
    EXPECT_EQ(ztLogParseLevel("loud"), -1);
    EXPECT_EQ(ztLogParseLevel(nullptr), -1);
}

TEST(Logging, StandardErrorGetsOneLinePerEvent)
{
#ifdef _WIN32
    GTEST_SKIP() << "GoogleTest captures standard error by replacing its file descriptor, which "
                    "closes the Windows handle the console sink writes to";
#endif
    ztLogSetCallback(nullptr, nullptr);
    ztLogSetLevel(ZTLOG_LEVEL_WARN);
    testing::internal::CaptureStderr();
    ZTLOG_WARN("sendRegister\r\n");
    ZTLOG_INFO("hidden");
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("[warning] [ztProxyProtocol] sendRegister\n"), std::string::npos) << err;
    EXPECT_EQ(err.find('\r'), std::string::npos);
    EXPECT_EQ(err.find("hidden"), std::string::npos);
}

} // namespace
