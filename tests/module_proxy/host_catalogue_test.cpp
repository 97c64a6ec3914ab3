// The host's request catalogue row by row against the simulated module: each request's
// bytes as the module received them, the module's reply and the host's result. Rows whose
// module reply carries another sub type than the host waits for fail on the host, and so
// do the requests the module does not answer, once the reply window is out.
#include "support/module_session.h"

#include <gtest/gtest.h>

#include <functional>

namespace {

using P = zt::test::Bytes;
using H = ztModuleProxyServer&;

struct Row {
    std::uint32_t code;                // sub type the module's callback sees
    P payload;                         // bytes after the header, as sent
    int expected;                      // the host's result
    std::function<int(H)> call;
    std::function<void()> check = [] {}; // runs after the call
};

TEST(HostCatalogue, EveryRequestOnTheWireWithItsReply)
{
    zt::test::ModuleSession s;
    ASSERT_TRUE(s.start());
    _ZT_HEARTBEAT_INFO_ hb{};
    bool flag = false;
    int value = 5, fw[3] = {};
    float f = 0;
    std::string version;
    unsigned long long id = 0;
    std::vector<int> ids = {4, 5};
    double range[3] = {1.0, 2.0, 3.0}, levels[12][3];
    P levelBytes;
    for (int i = 0; i < 12; ++i)
        for (int j = 0; j < 3; ++j)
            levelBytes.f64(levels[i][j] = i * 10 + j + 0.5);
    unsigned char blob[] = {9, 8, 7, 6, 5}, file[] = {0xCA, 0xFE, 0x01};
    const auto fileBlock = P().u32(5).text("a.clb").u32(10).text("/cal/a.clb").u32(3).raw(file, 3);
    auto is = [](auto& v, auto want) { return [&v, want] { EXPECT_EQ(v, want); }; };
    const std::vector<Row> rows = {
        {0x10000, P().i32(1), 0, [](H h) { return h.sendStartDevice(ZT_WORK_TRACK); }},
        {0x10001, {}, 0, [](H h) { return h.sendStopDevice(); }},
        {0x10002, {}, 0, [&](H h) { return h.heartbeat(&hb); }, [&] { EXPECT_EQ(hb.deviceCount, 1); }},
        {0x10004, {}, 0, [](H h) { return h.sendPreTrigger(); }},
        {0x10005, {}, 0, [](H h) { return h.sendTrigger(); }},
        {0x10006, P().i32(33), 0, [](H h) { return h.setPeriod(33); }, [&] { EXPECT_EQ(s.module.state().period, 33); }},
        {0x10007, {}, 0, [&](H h) { return h.getCanManualSync(&flag); }, is(flag, true)},
        {0x10008, {}, 0, [&](H h) { return h.getCanWirelessSync(&flag); }, is(flag, false)},
        {0x10009, P().i32(2), 0, [](H h) { return h.setHardwareSyncMode(2); }},
        // The getter sends the caller's current value; the module answers with a flag.
        {0x1000A, P().i32(5), 0, [&](H h) { return h.getHardwareSyncMode(&value); }, is(value, 1)},
        {0x1000B, P().i32(1), 0, [](H h) { return h.setMaster(true); }},
        {0x1000C, {}, 0, [&](H h) { return h.getIsMaster(&value); }, is(value, 1)},
        {0x1000D, {}, 0, [](H h) { return h.updateSyncStat(); }},
        {0x1000E, P().i32(1).i32(0), 0, [](H h) { return h.execSync(true, false); }},
        {0x10010, P().i32(3), 0, [](H h) { return h.grabImage(3); }},
        {0x10011, {}, 0, [](H h) { return h.startGrabbingImage(); }},
        {0x10012, {}, 0, [](H h) { return h.stopGrabbingImage(); }},
        {0x10013, {}, 0, [&](H h) { return h.getFirmwareVersion(version); }, is(version, std::string("ZT-MOD 2.4.1"))},
        {0x10014, {}, 0, [&](H h) { return h.getFirmwareVersion2(&fw[0], &fw[1], &fw[2]); },
         [&] { EXPECT_EQ(std::vector<int>(fw, fw + 3), (std::vector<int>{2, 4, 1})); }},
        {0x10015, P().i32(1).i32(0).i32(1).i32(0), 0, [](H h) { return h.setPlotEnable(true, false, true, false); }},
        {0x10016, P().i32(1), 0, [](H h) { return h.setNeedUpload(true); }},
        {0x10017, {}, 0, [&](H h) { return h.getVentoInfo(&value); }, is(value, 7)},
        {0x1001A, P().i32(1).i32(-2).i32(3), 0, [](H h) { return h.setScanHoleParam(1, -2, 3); }},
        {0x1002E, P().u64(0x1122334455667788ull), 0, [](H h) { return h.setSystemId(0x1122334455667788ull); }},
        {0x10019, {}, 0, [&](H h) { return h.getSystemId(&id); }, is(id, 0x1122334455667788ull)},
        {0x20000, P().f32(3.25f), 0, [](H h) { return h.setLedExposure(3.25f); }},
        {0x20001, {}, 0, [&](H h) { return h.getLedExposure(&f); }, is(f, 3.25f)},
        {0x20002, P().f32(4.5f), 0, [](H h) { return h.setLZExposure(4.5f); }},
        {0x20003, {}, 0, [&](H h) { return h.getLZExposure(&f); }, is(f, 4.5f)},
        {0x20004, P().i32(2), 0, [](H h) { return h.setLightType(2); }},
        // Answered with 0x20003: the host, waiting for 0x20005, fails and leaves the output.
        {0x20005, {}, -1, [&](H h) { return value = -99, h.getLightType(&value); }, is(value, -99)},
        // Answered with 0x20005: fails on the host, though the module took it.
        {0x20006, P().i32(3), -1, [](H h) { return h.setLZType(3); }, [&] { EXPECT_EQ(s.module.state().lzType, 3); }},
        {0x20007, {}, 0, [&](H h) { return h.getLZType(&value); }, is(value, 3)},
        {0x20008, P().f32(1.5f), 0, [](H h) { return h.setScanHeadMinDist(1.5f); }},
        {0x20009, P().i32(1), 0, [](H h) { return h.setLZOpen(true); }},
        {0x2000A, P().i32(1).i32(1), 0, [](H h) { return h.setScanMode(true, true); }},
        {0x2000B, {}, 0, [&](H h) { return flag = true, h.getIsBlackObject(&flag); }, is(flag, false)},
        {0x2000C, {}, 0, [&](H h) { return h.getIsHighLight(&flag); }, is(flag, true)},
        // Answered with 0x2000C and 0x2000D: both fail on the host.
        {0x2000D, P().i32(1), -1, [](H h) { return h.setDeepHole(true); }},
        {0x2000F, {}, -1, [&](H h) { return flag = false, h.getIsDeepHole(&flag); }, is(flag, false)},
        {0x20010, P().f32(2.0f), 0, [](H h) { return h.setRangeLevel(2.0f); }},
        {0x20011, {}, 0, [&](H h) { return h.getLZSingleFrameMaxCount(&value); }, is(value, 16)},
        {0x20012, {}, 0, [&](H h) { return h.getSupportedLight(&value); }, is(value, 3)},
        {0x20014, P().i32(0), 0, [](H h) { return h.setEnableVoice(false); }},
        {0x20015, P().i32(4), 0, [](H h) { return h.setLightLevel(4); }},
        {0x20016, P().i32(1).i32(2), 0, [](H h) { return h.setScanDynamicStat(1, 2); }},
        {0x20017, P().f64(1.25), 0, [](H h) { return h.setLZExposureFull(1.25); }},
        {0x20018, P().f64(2.5), 0, [](H h) { return h.setLedExposureFull(2.5); }},
        {0x20019, P().f64(1.0).f64(2.0).f64(3.0), 0, [&](H h) { return h.setScanRange(range); }},
        // The object and marker requests wait for each other's codes, and the module
        // answers each with its own: both fail on the host.
        {0x30000, P().raw(blob, 5), -1, [&](H h) { return h.addObjectMP(blob, 5); }},
        {0x30001, P().raw(blob, 3), -1, [&](H h) { return h.resetScanMK(blob, 3); }},
        {0x30002, P().raw(blob, 5), 0, [&](H h) { return h.setScannerModel(blob, 5); }},
        {0x30004, P().f64(0.5), 0, [](H h) { return h.setScanPosExposure(0.5); }},
        {0x40000, fileBlock, 0, [&](H h) { return h.setScannerClbFile("a.clb", "/cal/a.clb", file, 3); }},
        {0x50000, P().i32(2).f64(0.25), 0, [](H h) { return h.setLPCalibParam(2, 0.25); }},
        {0x50001, {}, 0, [](H h) { return h.doLPNeedleWork(); }},
        {0x50002, fileBlock, 0, [&](H h) { return h.setLPClbFile("a.clb", "/cal/a.clb", file, 3); }},
        // Exactly 20 text bytes: a short text is padded with zeros, a long one cut.
        {0x50003, P().i32(1).text("pen-0001").zeros(12), 0, [](H h) { return h.setLPCanWork(true, "pen-0001"); }},
        {0x50004, P().i32(0).text("ABCDEFGHIJKLMNOPQRST"), 0, [](H h) { return h.setLPWorkResult(false, "ABCDEFGHIJKLMNOPQRSTUVWXY"); }},
        {0x50005, P().f64(1.0).f64(2.0).f64(3.0), 0, [](H h) { return h.setLPModel2Vento({{1.0, 2.0}, {3.0}}); }},
        {0x60000, fileBlock, 0, [&](H h) { return h.setTrackerClbFile("a.clb", "/cal/a.clb", file, 3); }},
        {0x70000, P().raw(blob, 4), 0, [&](H h) { return h.sendHoleHighAccuracySpaceInfo(blob, 4); }},
        {0x70001, P().raw(blob, 2), 0, [&](H h) { return h.sendCurrent2WorldPose(blob, 2); }},
        {0x70003, P().raw(blob, 1), 0, [&](H h) { return h.sendEdgePointsInfo(blob, 1); }},
        {0x00002, {}, 0, [](H h) { return h.sendUnRegister(); }},
        // Not answered by the module: each waits out the reply window.
        {0x20013, levelBytes, -1, [&](H h) { return h.setScannerRangeLevel(levels); }},
        {0x30003, P(levelBytes).i32(2).i32(4).i32(5), -1, [&](H h) { return h.setTrackerRangeLevel(levels, ids); }},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(testing::Message() << std::hex << row.code);
        EXPECT_EQ(row.call(s.host), row.expected);
        ztSimModule::Request seen;
        ASSERT_TRUE(s.module.nextRequest(seen, 1000));
        EXPECT_EQ(seen.code, static_cast<int>(row.code));
        EXPECT_EQ(seen.payload, row.payload.chars());
        row.check();
    }
    EXPECT_EQ(s.module.pendingRequests(), 0u);
}

} // namespace
