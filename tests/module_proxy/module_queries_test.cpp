// The module side's replies, file queries and pre-trigger against a raw host peer.
#include "host_peer.h"
#include "support/log_capture.h"
#include "support/module_session.h"
#include "ztModuleProxyClient.h"

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <thread>

using zt::test::Bytes;
using zt::test::LogCapture;
using zt::tools::ProxyMessage;
using zt::tools::proxyMessage;
using zt::tools::RawConnection;

namespace {

using Clock = std::chrono::steady_clock;

// A module with a raw host connected to both channels.
struct RawHost {
    ztModuleProxyClient module;
    RawConnection cmd, data;
    bool connect()
    {
        if (module.init() != 0 || !data.connect("127.0.0.1", 11300, 3000) || !cmd.connect("127.0.0.1", 9479, 3000))
            return false;
        // Both connections are accepted once a reply sent now reaches the host.
        for (int i = 0; i < 100; ++i) {
            module.sendRegisterRep(true);
            ProxyMessage m;
            if (cmd.readMessage(m, 20))
                return true;
        }
        return false;
    }
};

TEST(ModuleReplies, EveryReplyCarriesItsCodeAndPayload)
{
    RawHost h;
    ASSERT_TRUE(h.connect());
    h.cmd.readFor(50); // any duplicate register replies
    _ZT_HEARTBEAT_INFO_ hb{};
    hb.deviceStatus = 2;
    hb.timestamp = 99;
    ztModuleProxyClient& m = h.module;
    struct Row {
        std::uint32_t sub;
        std::vector<char> payload;
        std::function<int()> send;
    };
    auto yes = Bytes().i32(1).chars();
    auto no = Bytes().i32(0).chars();
    const std::vector<Row> rows = {
        {0x00001, no, [&] { return m.sendRegisterRep(false); }},
        {0x00002, yes, [&] { return m.sendUnRegisterRep(true); }},
        {0x10000, yes, [&] { return m.sendDeviceStartRep(true); }},
        {0x10001, yes, [&] { return m.sendDeviceStopRep(true); }},
        {0x10002, Bytes().raw(&hb, 920).chars(), [&] { return m.sendHeartbeatRep(hb); }},
        {0x10004, yes, [&] { return m.sendPreTriggerRep(true); }},
        {0x10005, yes, [&] { return m.sendTriggerRep(true); }},
        {0x10006, yes, [&] { return m.sendSetPeriodRep(true); }},
        {0x10007, no, [&] { return m.sendGetCanManualSyncRep(false); }},
        {0x10008, yes, [&] { return m.sendGetCanWirelessSyncRep(true); }},
        {0x10009, yes, [&] { return m.sendSetHardwareSyncModeRep(true); }},
        {0x1000A, yes, [&] { return m.sendGetHardwareSyncModeRep(true); }},
        {0x1000B, yes, [&] { return m.sendSetMasterRep(true); }},
        {0x1000C, Bytes().i32(-3).chars(), [&] { return m.sendGetIsMasterRep(-3); }},
        {0x1000D, yes, [&] { return m.sendUpdateSyncRep(true); }},
        {0x1000E, yes, [&] { return m.sendExecSyncRep(true); }},
        {0x1000F, yes, [&] { return m.sendGetIsSyncRep(true); }},
        {0x10010, yes, [&] { return m.sendGrabImageRep(true); }},
        {0x10011, yes, [&] { return m.sendStartGrabbingImageRep(true); }},
        {0x10012, yes, [&] { return m.sendStopGrabbingImageRep(true); }},
        {0x10013, Bytes().text("1.2.3").chars(), [&] { return m.sendGetFirmwareVersionRep("1.2.3"); }},
        {0x10014, Bytes().i32(1).i32(2).i32(3).chars(), [&] { return m.sendGetFirmwareVersion2Rep(1, 2, 3); }},
        {0x10015, yes, [&] { return m.sendSetPlotEnableRep(true); }},
        {0x10016, yes, [&] { return m.sendSetNeedUploadRep(true); }},
        {0x10017, Bytes().i32(12).chars(), [&] { return m.sendVentoInfoRep(12); }},
        {0x10019, Bytes().u64(0xABCDEF0123456789ull).chars(), [&] { return m.sendGetSystemIdRep(0xABCDEF0123456789ull); }},
        {0x1001A, yes, [&] { return m.sendSetScanHoleParamRep(true); }},
        {0x1002E, yes, [&] { return m.sendSetSystemIdRep(true); }},
        {0x20000, yes, [&] { return m.sendSetLedExposureRep(true); }},
        {0x20001, Bytes().f32(0.75f).chars(), [&] { return m.sendGetLedExposureRep(0.75f); }},
        {0x20002, yes, [&] { return m.sendSetLZExposureRep(true); }},
        {0x20003, Bytes().f32(1.25f).chars(), [&] { return m.sendGetLZExposureRep(1.25f); }},
        // These carry codes other than the request's own; hosts expect them so.
        {0x20003, Bytes().i32(4).chars(), [&] { return m.sendGetLightTypeRep(4); }},
        {0x20004, yes, [&] { return m.sendSetLightTypeRep(true); }},
        {0x20005, yes, [&] { return m.sendSetLZTypeRep(true); }},
        {0x20007, Bytes().i32(5).chars(), [&] { return m.sendGetLZTypeRep(5); }},
        {0x20008, yes, [&] { return m.sendSetScanHeadMinDistRep(true); }},
        {0x20009, yes, [&] { return m.sendSetLZOpenRep(true); }},
        {0x2000A, yes, [&] { return m.sendSetScanModeRep(true); }},
        {0x2000B, yes, [&] { return m.sendGetIsBlackObjectRep(true); }},
        {0x2000C, no, [&] { return m.sendGetIsHighLightRep(false); }},
        {0x2000C, yes, [&] { return m.sendSetDeepHoleRep(true); }},
        {0x2000D, yes, [&] { return m.sendGetIsDeepHoleRep(true); }},
        {0x20010, yes, [&] { return m.sendSetRangeLevelRep(true); }},
        {0x20011, Bytes().i32(8).chars(), [&] { return m.sendGetLZSingleFrameMaxCountRep(8); }},
        {0x20012, Bytes().i32(6).chars(), [&] { return m.sendGetSupportedLightRep(6); }},
        {0x20014, yes, [&] { return m.sendSetEnableVoiceRep(true); }},
        {0x20015, yes, [&] { return m.sendSetLightLevelRep(true); }},
        {0x20016, yes, [&] { return m.sendSetScanDynamicStatRep(true); }},
        {0x20017, yes, [&] { return m.sendSetLZExposureFullRep(true); }},
        {0x20018, yes, [&] { return m.sendSetLedExposureFullRep(true); }},
        {0x20019, yes, [&] { return m.sendSetScanRangeRep(true); }},
        {0x30000, yes, [&] { return m.sendAddObjectMPRep(true); }},
        {0x30001, yes, [&] { return m.sendResetScanMKRep(true); }},
        {0x30002, yes, [&] { return m.sendSetScannerModel(true); }},
        {0x30004, yes, [&] { return m.sendSetScanPosExposureRep(true); }},
        {0x40000, yes, [&] { return m.sendScannerClbFileRep(true); }},
        {0x50000, yes, [&] { return m.sendSetLPCalibParamRep(true); }},
        {0x50001, yes, [&] { return m.sendDoLPNeedleWorkRep(true); }},
        {0x50002, yes, [&] { return m.sendLPClbFileRep(true); }},
        {0x50003, yes, [&] { return m.sendSetLPCanWorkRep(true); }},
        {0x50004, yes, [&] { return m.sendSetLPWorkResultRep(true); }},
        {0x50005, yes, [&] { return m.sendSetLPModelRep(true); }},
        {0x60000, yes, [&] { return m.sendTrackerClbFileRep(true); }},
        {0x70000, yes, [&] { return m.sendSetHoleCfgRep(true); }},
        {0x70001, yes, [&] { return m.sendSetCurr2WorldPoseRep(true); }},
        {0x70002, yes, [&] { return m.sendSetTrackPose(true); }},
        {0x70003, yes, [&] { return m.sendSetEdgeCfgRep(true); }},
    };
    for (std::size_t i = 0; i < rows.size(); ++i) {
        EXPECT_EQ(rows[i].send(), 0);
        ProxyMessage got;
        ASSERT_TRUE(h.cmd.readMessage(got, 1000)) << "row " << i;
        EXPECT_EQ(got.magic, 0x2324);
        EXPECT_EQ(got.type, 4);
        EXPECT_EQ(got.subType, rows[i].sub) << "row " << i;
        EXPECT_EQ(got.payload, rows[i].payload) << "row " << i;
    }
    EXPECT_TRUE(h.data.readFor(50).empty()); // nothing on the other channel
}

// Answers the module's next query on the data channel with reply, after checking the
// query's sub type and payload.
void answerQuery(RawConnection& data, std::uint32_t sub, const std::vector<char>& request, const std::vector<char>& reply)
{
    ProxyMessage q;
    ASSERT_TRUE(data.readMessage(q, 3000));
    EXPECT_EQ(q.type, 1);
    EXPECT_EQ(q.subType, sub);
    EXPECT_EQ(q.payload, request);
    ASSERT_TRUE(data.sendBytes(reply));
}

TEST(ModuleQueries, FileQueriesTakeTheHostsAnswers)
{
    LogCapture log;
    RawHost h;
    ASSERT_TRUE(h.connect());
    ztModuleProxyClient& m = h.module;
    const auto pair = Bytes().u8(3).u8(2).text("a.s").text("bb").chars();

    std::vector<std::string> names;
    std::thread t([&] { EXPECT_EQ(m.enumSETFile("*.set", names), 0); });
    const auto list = Bytes().i32(2).i32(3).i32(4).text("onetwo!").chars();
    answerQuery(h.data, 0x20000, Bytes().text("*.set").chars(),
                proxyMessage(2, 0x20000, list.data(), static_cast<int>(list.size())));
    t.join();
    EXPECT_EQ(names, (std::vector<std::string>{"one", "two!"}));
    // A list that declares more than it holds yields what is there.
    const auto cut = Bytes().i32(1000000).i32(3).i32(50).text("abcdef").chars();
    t = std::thread([&] { EXPECT_EQ(m.enumSETFile("", names), 0); });
    answerQuery(h.data, 0x20000, {}, proxyMessage(2, 0x20000, cut.data(), static_cast<int>(cut.size())));
    t.join();
    // Lengths are read while four bytes remain (3, 50 and "abcd"), the texts from what is
    // left ("ef"), and nothing past the end.
    EXPECT_EQ(names, (std::vector<std::string>{"ef", "", ""}));

    std::string md5;
    t = std::thread([&] { EXPECT_EQ(m.getSETFileMd5("a.s", "bb", md5), 0); });
    answerQuery(h.data, 0x20001, pair, proxyMessage(2, 0x20001, "d41d8cd9", 8));
    t.join();
    EXPECT_EQ(md5, "d41d8cd9");

    unsigned int size = 7;
    const std::uint32_t four = 4096;
    t = std::thread([&] { EXPECT_EQ(m.getSETFileSize("a.s", "bb", &size), 0); });
    answerQuery(h.data, 0x20002, pair, proxyMessage(2, 0x20002, &four, 4));
    t.join();
    EXPECT_EQ(size, 4096u);
    // An answer of another length still succeeds and leaves the size alone.
    t = std::thread([&] { EXPECT_EQ(m.getSETFileSize("a.s", "bb", &size), 0); });
    answerQuery(h.data, 0x20002, pair, proxyMessage(2, 0x20002, &four, 2));
    t.join();
    EXPECT_EQ(size, 4096u);

    // File contents are copied up to the caller's capacity.
    unsigned char file[4] = {0, 0, 0, 0};
    t = std::thread([&] { EXPECT_EQ(m.getSETFile("a.s", "bb", file, 3), 0); });
    answerQuery(h.data, 0x20003, pair, proxyMessage(2, 0x20003, "WXYZ", 4));
    t.join();
    EXPECT_EQ(std::string(reinterpret_cast<char*>(file), 4), std::string("WXY\0", 4));
    // A capacity of 2 GiB or more is no negative number: at most the answer is copied.
    std::vector<unsigned char> guarded(8, 0xEE);
    t = std::thread([&] { EXPECT_EQ(m.getSETFile("a.s", "bb", guarded.data(), 0xFFFFFFFFu), 0); });
    answerQuery(h.data, 0x20003, pair, proxyMessage(2, 0x20003, "WXYZ", 4));
    t.join();
    EXPECT_EQ(std::string(guarded.begin(), guarded.end()), std::string("WXYZ\xEE\xEE\xEE\xEE", 8));

    const std::uint32_t bdb = 321;
    t = std::thread([&] { EXPECT_EQ(m.getCurBDBFileSize(&size), 0); });
    answerQuery(h.data, 0x20004, {}, proxyMessage(2, 0x20004, &bdb, 4));
    t.join();
    EXPECT_EQ(size, 321u);
    t = std::thread([&] { EXPECT_EQ(m.getCurBarFile(file, 4), 0); });
    answerQuery(h.data, 0x20007, {}, proxyMessage(2, 0x20007, "bar!", 4));
    t.join();
    EXPECT_EQ(std::string(reinterpret_cast<char*>(file), 4), "bar!");

    // A wrong answer fails the query with the query's own log line.
    t = std::thread([&] { EXPECT_EQ(m.getSETFileSize("a.s", "bb", &size), -1); });
    answerQuery(h.data, 0x20002, pair, proxyMessage(2, 0x20001, &four, 4));
    t.join();
    EXPECT_EQ(log.count("getSETFileSize zt_msg_is_avalible failed[0][2][131073]\r\n"), 1);
    t = std::thread([&] { EXPECT_EQ(m.getSETFileMd5("a.s", "bb", md5), -1); });
    answerQuery(h.data, 0x20001, pair, proxyMessage(4, 0x20001, "x", 1));
    t.join();
    EXPECT_EQ(log.count("getSETFileMd5 zt_msg_is_avalible failed[0][4][131073]\r\n"), 1);
    auto badMagic = proxyMessage(2, 0x20004, &bdb, 4);
    badMagic[0] = 0x42;
    t = std::thread([&] { EXPECT_EQ(m.getCurBDBFileSize(&size), -1); });
    answerQuery(h.data, 0x20004, {}, badMagic);
    t.join();
    EXPECT_EQ(size, 321u);
}

TEST(ModuleQueries, TimeOutsAndThePreTriggerAnswer)
{
    LogCapture log;
    ztModuleProxyClient module;
    ASSERT_EQ(module.init(), 0);
    // Before any query the buffer holds no answer: -1 although the event went out.
    EXPECT_EQ(module.sendDevicePreTrigger(5), -1);

    // Nobody answers: the short queries give up after their wait.
    unsigned int size = 0;
    auto t0 = Clock::now();
    EXPECT_EQ(module.getCurBarFileSize(&size), -1);
    auto waited = Clock::now() - t0;
    EXPECT_GE(waited, std::chrono::milliseconds(1000));
    EXPECT_LT(waited, std::chrono::milliseconds(1500));
    t0 = Clock::now();
    EXPECT_EQ(module.getSETFileSize("a", "b", &size), -1);
    EXPECT_GE(Clock::now() - t0, std::chrono::milliseconds(5000));
    EXPECT_EQ(log.count("getSETFileSize m_data_server->recv failed\r\n"), 1);

    // The host answers a pre-trigger; that answer is not read by the pre-trigger but by
    // the next query, which then fails on its sub type.
    RawConnection data;
    ASSERT_TRUE(data.connect("127.0.0.1", 11300, 3000));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(module.sendDevicePreTrigger(0x1122334455667788ull), -1);
    ProxyMessage pre;
    ASSERT_TRUE(data.readMessage(pre, 1000));
    EXPECT_EQ(pre.type, 1);
    EXPECT_EQ(pre.subType, 0x40003u);
    EXPECT_EQ(pre.payload, Bytes().u64(0x1122334455667788ull).chars());
    ASSERT_TRUE(data.sendBytes(proxyMessage(2, 0x40003, nullptr, 0)));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    std::string md5 = "kept";
    EXPECT_EQ(module.getSETFileMd5("a", "b", md5), -1);
    EXPECT_EQ(md5, "kept");
    EXPECT_EQ(log.count("getSETFileMd5 zt_msg_is_avalible failed[0][2][262147]\r\n"), 1);
    // Now the buffer holds the host's pre-trigger answer, so the next pre-trigger succeeds.
    EXPECT_EQ(module.sendDevicePreTrigger(1), 0);
    module.deInit();
}

} // namespace
