// The host's request catalogue row by row against the simulated module: each request's
// bytes as the module received them, the module's reply and the host's result. Rows whose
// module reply carries another sub type than the host waits for fail on the host.
#include "support/module_session.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

namespace {

using zt::test::Bytes;
using zt::test::ModuleSession;

struct Row {
    const char* name;
    std::uint32_t code;           // sub type the module's callback sees
    std::vector<unsigned char> payload; // bytes after the header, as sent
    int expected;                 // the host's result
    std::function<int(ztModuleProxyServer&)> call;
    std::function<void()> check = nullptr; // runs after the call
};

void runRows(ModuleSession& s, const std::vector<Row>& rows)
{
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(row.call(s.host), row.expected);
        ztSimModule::Request seen;
        ASSERT_TRUE(s.module.nextRequest(seen, 1000));
        EXPECT_EQ(seen.code, static_cast<int>(row.code));
        EXPECT_EQ(std::vector<unsigned char>(seen.payload.begin(), seen.payload.end()), row.payload);
        if (row.check)
            row.check();
    }
    EXPECT_EQ(s.module.pendingRequests(), 0u);
}

TEST(HostCatalogue, DeviceAndSynchronisation)
{
    ModuleSession s;
    ASSERT_TRUE(s.start());
    _ZT_HEARTBEAT_INFO_ hb{};
    bool flag = false;
    int value = 5;
    int fw[3] = {0, 0, 0};
    std::string version;
    unsigned long long id = 0;
    const std::vector<Row> rows = {
        {"sendStartDevice", 0x10000, Bytes().i32(1), 0, [](auto& h) { return h.sendStartDevice(ZT_WORK_TRACK); }},
        {"sendStopDevice", 0x10001, {}, 0, [](auto& h) { return h.sendStopDevice(); }},
        {"heartbeat", 0x10002, {}, 0, [&](auto& h) { return h.heartbeat(&hb); },
         [&] {
             EXPECT_EQ(hb.deviceStatus, ZT_DEVICE_STATUS_ONLINE);
             EXPECT_EQ(hb.deviceCount, 1);
         }},
        {"sendPreTrigger", 0x10004, {}, 0, [](auto& h) { return h.sendPreTrigger(); }},
        {"sendTrigger", 0x10005, {}, 0, [](auto& h) { return h.sendTrigger(); }},
        {"setPeriod", 0x10006, Bytes().i32(33), 0, [](auto& h) { return h.setPeriod(33); },
         [&] { EXPECT_EQ(s.module.state().period, 33); }},
        {"getCanManualSync", 0x10007, {}, 0, [&](auto& h) { return h.getCanManualSync(&flag); },
         [&] { EXPECT_TRUE(flag); }},
        {"getCanWirelessSync", 0x10008, {}, 0, [&](auto& h) { return h.getCanWirelessSync(&flag); },
         [&] { EXPECT_FALSE(flag); }},
        {"setHardwareSyncMode", 0x10009, Bytes().i32(2), 0, [](auto& h) { return h.setHardwareSyncMode(2); }},
        // The getter sends the caller's current value; the module answers with a flag.
        {"getHardwareSyncMode", 0x1000A, Bytes().i32(5), 0, [&](auto& h) { return h.getHardwareSyncMode(&value); },
         [&] { EXPECT_EQ(value, 1); }},
        {"setMaster", 0x1000B, Bytes().i32(1), 0, [](auto& h) { return h.setMaster(true); }},
        {"getIsMaster", 0x1000C, {}, 0, [&](auto& h) { return h.getIsMaster(&value); }, [&] { EXPECT_EQ(value, 1); }},
        {"updateSyncStat", 0x1000D, {}, 0, [](auto& h) { return h.updateSyncStat(); }},
        {"execSync", 0x1000E, Bytes().i32(1).i32(0), 0, [](auto& h) { return h.execSync(true, false); }},
        {"grabImage", 0x10010, Bytes().i32(3), 0, [](auto& h) { return h.grabImage(3); }},
        {"startGrabbingImage", 0x10011, {}, 0, [](auto& h) { return h.startGrabbingImage(); }},
        {"stopGrabbingImage", 0x10012, {}, 0, [](auto& h) { return h.stopGrabbingImage(); }},
        {"getFirmwareVersion", 0x10013, {}, 0, [&](auto& h) { return h.getFirmwareVersion(version); },
         [&] { EXPECT_EQ(version, "ZT-MOD 2.4.1"); }},
        {"getFirmwareVersion2", 0x10014, {}, 0, [&](auto& h) { return h.getFirmwareVersion2(&fw[0], &fw[1], &fw[2]); },
         [&] {
             EXPECT_EQ(fw[0], 2);
             EXPECT_EQ(fw[1], 4);
             EXPECT_EQ(fw[2], 1);
         }},
        {"setPlotEnable", 0x10015, Bytes().i32(1).i32(0).i32(1).i32(0), 0,
         [](auto& h) { return h.setPlotEnable(true, false, true, false); }},
        {"setNeedUpload", 0x10016, Bytes().i32(1), 0, [](auto& h) { return h.setNeedUpload(true); }},
        {"getVentoInfo", 0x10017, {}, 0, [&](auto& h) { return h.getVentoInfo(&value); }, [&] { EXPECT_EQ(value, 7); }},
        {"setScanHoleParam", 0x1001A, Bytes().i32(1).i32(-2).i32(3), 0, [](auto& h) { return h.setScanHoleParam(1, -2, 3); }},
        {"setSystemId", 0x1002E, Bytes().u64(0x1122334455667788ull), 0,
         [](auto& h) { return h.setSystemId(0x1122334455667788ull); }},
        {"getSystemId", 0x10019, {}, 0, [&](auto& h) { return h.getSystemId(&id); },
         [&] { EXPECT_EQ(id, 0x1122334455667788ull); }},
    };
    runRows(s, rows);
}

TEST(HostCatalogue, LightAndExposure)
{
    ModuleSession s;
    ASSERT_TRUE(s.start());
    float f = 0;
    int value = -99;
    bool flag = true;
    double range[3] = {1.0, 2.0, 3.0};
    const std::vector<Row> rows = {
        {"setLedExposure", 0x20000, Bytes().f32(3.25f), 0, [](auto& h) { return h.setLedExposure(3.25f); }},
        {"getLedExposure", 0x20001, {}, 0, [&](auto& h) { return h.getLedExposure(&f); }, [&] { EXPECT_EQ(f, 3.25f); }},
        {"setLZExposure", 0x20002, Bytes().f32(4.5f), 0, [](auto& h) { return h.setLZExposure(4.5f); }},
        {"getLZExposure", 0x20003, {}, 0, [&](auto& h) { return h.getLZExposure(&f); }, [&] { EXPECT_EQ(f, 4.5f); }},
        {"setLightType", 0x20004, Bytes().i32(2), 0, [](auto& h) { return h.setLightType(2); }},
        // The module answers getLightType with 0x20003: the host, waiting for 0x20005,
        // fails and leaves the output alone.
        {"getLightType", 0x20005, {}, -1, [&](auto& h) { return h.getLightType(&value); },
         [&] { EXPECT_EQ(value, -99); }},
        // setLZType is answered with 0x20005 and fails on the host, though the module took it.
        {"setLZType", 0x20006, Bytes().i32(3), -1, [](auto& h) { return h.setLZType(3); },
         [&] { EXPECT_EQ(s.module.state().lzType, 3); }},
        {"getLZType", 0x20007, {}, 0, [&](auto& h) { return h.getLZType(&value); }, [&] { EXPECT_EQ(value, 3); }},
        {"setScanHeadMinDist", 0x20008, Bytes().f32(1.5f), 0, [](auto& h) { return h.setScanHeadMinDist(1.5f); }},
        {"setLZOpen", 0x20009, Bytes().i32(1), 0, [](auto& h) { return h.setLZOpen(true); }},
        {"setScanMode", 0x2000A, Bytes().i32(1).i32(1), 0, [](auto& h) { return h.setScanMode(true, true); }},
        {"getIsBlackObject", 0x2000B, {}, 0, [&](auto& h) { return h.getIsBlackObject(&flag); }, [&] { EXPECT_FALSE(flag); }},
        {"getIsHighLight", 0x2000C, {}, 0, [&](auto& h) { return h.getIsHighLight(&flag); }, [&] { EXPECT_TRUE(flag); }},
        // Answered with 0x2000C and 0x2000D: both fail on the host.
        {"setDeepHole", 0x2000D, Bytes().i32(1), -1, [](auto& h) { return h.setDeepHole(true); }},
        {"getIsDeepHole", 0x2000F, {}, -1, [&](auto& h) { flag = false; return h.getIsDeepHole(&flag); },
         [&] { EXPECT_FALSE(flag); }},
        {"setRangeLevel", 0x20010, Bytes().f32(2.0f), 0, [](auto& h) { return h.setRangeLevel(2.0f); }},
        {"getLZSingleFrameMaxCount", 0x20011, {}, 0, [&](auto& h) { return h.getLZSingleFrameMaxCount(&value); },
         [&] { EXPECT_EQ(value, 16); }},
        {"getSupportedLight", 0x20012, {}, 0, [&](auto& h) { return h.getSupportedLight(&value); },
         [&] { EXPECT_EQ(value, 3); }},
        {"setEnableVoice", 0x20014, Bytes().i32(0), 0, [](auto& h) { return h.setEnableVoice(false); }},
        {"setLightLevel", 0x20015, Bytes().i32(4), 0, [](auto& h) { return h.setLightLevel(4); }},
        {"setScanDynamicStat", 0x20016, Bytes().i32(1).i32(2), 0, [](auto& h) { return h.setScanDynamicStat(1, 2); }},
        {"setLZExposureFull", 0x20017, Bytes().f64(1.25), 0, [](auto& h) { return h.setLZExposureFull(1.25); }},
        {"setLedExposureFull", 0x20018, Bytes().f64(2.5), 0, [](auto& h) { return h.setLedExposureFull(2.5); }},
        {"setScanRange", 0x20019, Bytes().f64(1.0).f64(2.0).f64(3.0), 0, [&](auto& h) { return h.setScanRange(range); }},
    };
    runRows(s, rows);
}

TEST(HostCatalogue, ObjectsFilesLightPenAndPoses)
{
    ModuleSession s;
    ASSERT_TRUE(s.start());
    unsigned char blob[] = {9, 8, 7, 6, 5};
    unsigned char file[] = {0xCA, 0xFE, 0x01};
    const std::vector<std::vector<double>> model = {{1.0, 2.0}, {3.0}};
    const auto fileBlock = Bytes().u32(5).text("a.clb").u32(10).text("/cal/a.clb").u32(3).raw(file, 3);
    const std::vector<Row> rows = {
        // The object and marker requests wait for each other's codes, and the module answers
        // each with its own: both fail on the host.
        {"addObjectMP", 0x30000, Bytes().raw(blob, 5), -1, [&](auto& h) { return h.addObjectMP(blob, 5); }},
        {"resetScanMK", 0x30001, Bytes().raw(blob, 3), -1, [&](auto& h) { return h.resetScanMK(blob, 3); }},
        {"setScannerModel", 0x30002, Bytes().raw(blob, 5), 0, [&](auto& h) { return h.setScannerModel(blob, 5); }},
        {"setScanPosExposure", 0x30004, Bytes().f64(0.5), 0, [](auto& h) { return h.setScanPosExposure(0.5); }},
        {"setScannerClbFile", 0x40000, fileBlock, 0,
         [&](auto& h) { return h.setScannerClbFile("a.clb", "/cal/a.clb", file, 3); }},
        {"setLPCalibParam", 0x50000, Bytes().i32(2).f64(0.25), 0, [](auto& h) { return h.setLPCalibParam(2, 0.25); }},
        {"doLPNeedleWork", 0x50001, {}, 0, [](auto& h) { return h.doLPNeedleWork(); }},
        {"setLPClbFile", 0x50002, fileBlock, 0, [&](auto& h) { return h.setLPClbFile("a.clb", "/cal/a.clb", file, 3); }},
        // Exactly 20 text bytes: a short text is padded with zeros, a long one cut.
        {"setLPCanWork", 0x50003, Bytes().i32(1).text("pen-0001").zeros(12), 0,
         [](auto& h) { return h.setLPCanWork(true, "pen-0001"); }},
        {"setLPWorkResult", 0x50004, Bytes().i32(0).text("ABCDEFGHIJKLMNOPQRST"), 0,
         [](auto& h) { return h.setLPWorkResult(false, "ABCDEFGHIJKLMNOPQRSTUVWXY"); }},
        {"setLPModel2Vento", 0x50005, Bytes().f64(1.0).f64(2.0).f64(3.0), 0, [&](auto& h) { return h.setLPModel2Vento(model); }},
        {"setTrackerClbFile", 0x60000, fileBlock, 0,
         [&](auto& h) { return h.setTrackerClbFile("a.clb", "/cal/a.clb", file, 3); }},
        {"sendHoleHighAccuracySpaceInfo", 0x70000, Bytes().raw(blob, 4), 0,
         [&](auto& h) { return h.sendHoleHighAccuracySpaceInfo(blob, 4); }},
        {"sendCurrent2WorldPose", 0x70001, Bytes().raw(blob, 2), 0, [&](auto& h) { return h.sendCurrent2WorldPose(blob, 2); }},
        {"sendEdgePointsInfo", 0x70003, Bytes().raw(blob, 1), 0, [&](auto& h) { return h.sendEdgePointsInfo(blob, 1); }},
        {"sendUnRegister", 0x00002, {}, 0, [](auto& h) { return h.sendUnRegister(); }},
    };
    runRows(s, rows);
}

TEST(HostCatalogue, RequestsTheModuleDoesNotAnswerTimeOut)
{
    ModuleSession s;
    ASSERT_TRUE(s.start());
    double levels[12][3];
    Bytes expected;
    for (int i = 0; i < 12; ++i)
        for (int j = 0; j < 3; ++j) {
            levels[i][j] = i * 10 + j + 0.5;
            expected.f64(levels[i][j]);
        }
    std::vector<int> ids = {4, 5};
    Bytes tracker = expected;
    tracker.i32(2).i32(4).i32(5);
    const std::vector<Row> rows = {
        {"setScannerRangeLevel", 0x20013, expected, -1, [&](auto& h) { return h.setScannerRangeLevel(levels); }},
        {"setTrackerRangeLevel", 0x30003, tracker, -1, [&](auto& h) { return h.setTrackerRangeLevel(levels, ids); }},
    };
    const auto start = std::chrono::steady_clock::now();
    runRows(s, rows);
    // Each waits out the 4 s reply window.
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(8000));
}

} // namespace
