#include "ztSimModule.h"

#include "module_proxy/ProxyPayload.h"

#include <chrono>

ztSimModule::ztSimModule()
{
    m_state.heartbeat.deviceStatus = ZT_DEVICE_STATUS_ONLINE;
    m_state.heartbeat.deviceCount = 1;
    m_client.registerModuleClientDataCB(&ztSimModule::onRequest, this);
}

ztSimModule::~ztSimModule()
{
    stop();
}

int ztSimModule::start()
{
    return m_client.init();
}

void ztSimModule::stop()
{
    m_client.deInit();
}

ztSimModuleState ztSimModule::state()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_state;
}

void ztSimModule::setState(const ztSimModuleState& state)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_state = state;
}

void ztSimModule::setSilent(bool silent)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_silent = silent;
}

bool ztSimModule::nextRequest(Request& out, int timeoutMs)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    if (!m_arrived.wait_for(lock, std::chrono::milliseconds(timeoutMs), [this] { return !m_requests.empty(); }))
        return false;
    out = std::move(m_requests.front());
    m_requests.pop_front();
    return true;
}

std::size_t ztSimModule::pendingRequests()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_requests.size();
}

void ztSimModule::clearRequests()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_requests.clear();
}

namespace {

using Client = ztModuleProxyClient;
using State = ztSimModuleState;

// Every request the module side answers: its code, the host's name for it and the reply.
struct Answer {
    int code;
    const char* name;
    void (*reply)(Client& c, const State& s, bool ok);
};

// Names of requests the module side leaves unanswered.
struct Unanswered {
    int code;
    const char* name;
};

const Answer kAnswers[] = {
    {0x00001, "sendRegister", [](Client& c, const State&, bool ok) { c.sendRegisterRep(ok); }},
    {0x00002, "sendUnRegister", [](Client& c, const State&, bool ok) { c.sendUnRegisterRep(ok); }},
    {0x10000, "sendStartDevice", [](Client& c, const State&, bool ok) { c.sendDeviceStartRep(ok); }},
    {0x10001, "sendStopDevice", [](Client& c, const State&, bool ok) { c.sendDeviceStopRep(ok); }},
    {0x10002, "heartbeat", [](Client& c, const State& s, bool) { c.sendHeartbeatRep(s.heartbeat); }},
    {0x10004, "sendPreTrigger", [](Client& c, const State&, bool ok) { c.sendPreTriggerRep(ok); }},
    {0x10005, "sendTrigger", [](Client& c, const State&, bool ok) { c.sendTriggerRep(ok); }},
    {0x10006, "setPeriod", [](Client& c, const State&, bool ok) { c.sendSetPeriodRep(ok); }},
    {0x10007, "getCanManualSync", [](Client& c, const State& s, bool) { c.sendGetCanManualSyncRep(s.canManualSync); }},
    {0x10008, "getCanWirelessSync", [](Client& c, const State& s, bool) { c.sendGetCanWirelessSyncRep(s.canWirelessSync); }},
    {0x10009, "setHardwareSyncMode", [](Client& c, const State&, bool ok) { c.sendSetHardwareSyncModeRep(ok); }},
    {0x1000A, "getHardwareSyncMode", [](Client& c, const State& s, bool) { c.sendGetHardwareSyncModeRep(s.hardwareSyncMode != 0); }},
    {0x1000B, "setMaster", [](Client& c, const State&, bool ok) { c.sendSetMasterRep(ok); }},
    {0x1000C, "getIsMaster", [](Client& c, const State& s, bool) { c.sendGetIsMasterRep(s.isMaster); }},
    {0x1000D, "updateSyncStat", [](Client& c, const State&, bool ok) { c.sendUpdateSyncRep(ok); }},
    {0x1000E, "execSync", [](Client& c, const State&, bool ok) { c.sendExecSyncRep(ok); }},
    {0x10010, "grabImage", [](Client& c, const State&, bool ok) { c.sendGrabImageRep(ok); }},
    {0x10011, "startGrabbingImage", [](Client& c, const State&, bool ok) { c.sendStartGrabbingImageRep(ok); }},
    {0x10012, "stopGrabbingImage", [](Client& c, const State&, bool ok) { c.sendStopGrabbingImageRep(ok); }},
    {0x10013, "getFirmwareVersion", [](Client& c, const State& s, bool) { c.sendGetFirmwareVersionRep(s.firmwareVersion); }},
    {0x10014, "getFirmwareVersion2", [](Client& c, const State& s, bool) { c.sendGetFirmwareVersion2Rep(s.firmwareVersion2[0], s.firmwareVersion2[1], s.firmwareVersion2[2]); }},
    {0x10015, "setPlotEnable", [](Client& c, const State&, bool ok) { c.sendSetPlotEnableRep(ok); }},
    {0x10016, "setNeedUpload", [](Client& c, const State&, bool ok) { c.sendSetNeedUploadRep(ok); }},
    {0x10017, "getVentoInfo", [](Client& c, const State& s, bool) { c.sendVentoInfoRep(s.ventoInfo); }},
    {0x10019, "getSystemId", [](Client& c, const State& s, bool) { c.sendGetSystemIdRep(s.systemId); }},
    {0x1001A, "setScanHoleParam", [](Client& c, const State&, bool ok) { c.sendSetScanHoleParamRep(ok); }},
    {0x1002E, "setSystemId", [](Client& c, const State&, bool ok) { c.sendSetSystemIdRep(ok); }},
    {0x20000, "setLedExposure", [](Client& c, const State&, bool ok) { c.sendSetLedExposureRep(ok); }},
    {0x20001, "getLedExposure", [](Client& c, const State& s, bool) { c.sendGetLedExposureRep(s.ledExposure); }},
    {0x20002, "setLZExposure", [](Client& c, const State&, bool ok) { c.sendSetLZExposureRep(ok); }},
    {0x20003, "getLZExposure", [](Client& c, const State& s, bool) { c.sendGetLZExposureRep(s.lzExposure); }},
    {0x20004, "setLightType", [](Client& c, const State&, bool ok) { c.sendSetLightTypeRep(ok); }},
    {0x20005, "getLightType", [](Client& c, const State& s, bool) { c.sendGetLightTypeRep(s.lightType); }},
    {0x20006, "setLZType", [](Client& c, const State&, bool ok) { c.sendSetLZTypeRep(ok); }},
    {0x20007, "getLZType", [](Client& c, const State& s, bool) { c.sendGetLZTypeRep(s.lzType); }},
    {0x20008, "setScanHeadMinDist", [](Client& c, const State&, bool ok) { c.sendSetScanHeadMinDistRep(ok); }},
    {0x20009, "setLZOpen", [](Client& c, const State&, bool ok) { c.sendSetLZOpenRep(ok); }},
    {0x2000A, "setScanMode", [](Client& c, const State&, bool ok) { c.sendSetScanModeRep(ok); }},
    {0x2000B, "getIsBlackObject", [](Client& c, const State& s, bool) { c.sendGetIsBlackObjectRep(s.blackObject); }},
    {0x2000C, "getIsHighLight", [](Client& c, const State& s, bool) { c.sendGetIsHighLightRep(s.highLight); }},
    {0x2000D, "setDeepHole", [](Client& c, const State&, bool ok) { c.sendSetDeepHoleRep(ok); }},
    {0x2000F, "getIsDeepHole", [](Client& c, const State& s, bool) { c.sendGetIsDeepHoleRep(s.deepHole); }},
    {0x20010, "setRangeLevel", [](Client& c, const State&, bool ok) { c.sendSetRangeLevelRep(ok); }},
    {0x20011, "getLZSingleFrameMaxCount", [](Client& c, const State& s, bool) { c.sendGetLZSingleFrameMaxCountRep(s.singleFrameMaxCount); }},
    {0x20012, "getSupportedLight", [](Client& c, const State& s, bool) { c.sendGetSupportedLightRep(s.supportedLight); }},
    {0x20014, "setEnableVoice", [](Client& c, const State&, bool ok) { c.sendSetEnableVoiceRep(ok); }},
    {0x20015, "setLightLevel", [](Client& c, const State&, bool ok) { c.sendSetLightLevelRep(ok); }},
    {0x20016, "setScanDynamicStat", [](Client& c, const State&, bool ok) { c.sendSetScanDynamicStatRep(ok); }},
    {0x20017, "setLZExposureFull", [](Client& c, const State&, bool ok) { c.sendSetLZExposureFullRep(ok); }},
    {0x20018, "setLedExposureFull", [](Client& c, const State&, bool ok) { c.sendSetLedExposureFullRep(ok); }},
    {0x20019, "setScanRange", [](Client& c, const State&, bool ok) { c.sendSetScanRangeRep(ok); }},
    {0x30000, "addObjectMP", [](Client& c, const State&, bool ok) { c.sendAddObjectMPRep(ok); }},
    {0x30001, "resetScanMK", [](Client& c, const State&, bool ok) { c.sendResetScanMKRep(ok); }},
    {0x30002, "setScannerModel", [](Client& c, const State&, bool ok) { c.sendSetScannerModel(ok); }},
    {0x30004, "setScanPosExposure", [](Client& c, const State&, bool ok) { c.sendSetScanPosExposureRep(ok); }},
    {0x40000, "setScannerClbFile", [](Client& c, const State&, bool ok) { c.sendScannerClbFileRep(ok); }},
    {0x50000, "setLPCalibParam", [](Client& c, const State&, bool ok) { c.sendSetLPCalibParamRep(ok); }},
    {0x50001, "doLPNeedleWork", [](Client& c, const State&, bool ok) { c.sendDoLPNeedleWorkRep(ok); }},
    {0x50002, "setLPClbFile", [](Client& c, const State&, bool ok) { c.sendLPClbFileRep(ok); }},
    {0x50003, "setLPCanWork", [](Client& c, const State&, bool ok) { c.sendSetLPCanWorkRep(ok); }},
    {0x50004, "setLPWorkResult", [](Client& c, const State&, bool ok) { c.sendSetLPWorkResultRep(ok); }},
    {0x50005, "setLPModel2Vento", [](Client& c, const State&, bool ok) { c.sendSetLPModelRep(ok); }},
    {0x60000, "setTrackerClbFile", [](Client& c, const State&, bool ok) { c.sendTrackerClbFileRep(ok); }},
    {0x70000, "sendHoleHighAccuracySpaceInfo", [](Client& c, const State&, bool ok) { c.sendSetHoleCfgRep(ok); }},
    {0x70001, "sendCurrent2WorldPose", [](Client& c, const State&, bool ok) { c.sendSetCurr2WorldPoseRep(ok); }},
    {0x70002, "sendTrackPose", [](Client& c, const State&, bool ok) { c.sendSetTrackPose(ok); }},
    {0x70003, "sendEdgePointsInfo", [](Client& c, const State&, bool ok) { c.sendSetEdgeCfgRep(ok); }},
};

const Unanswered kUnanswered[] = {
    {0x20013, "setScannerRangeLevel"},
    {0x30003, "setTrackerRangeLevel"},
};

const Answer* answerTo(int code)
{
    for (const Answer& a : kAnswers)
        if (a.code == code)
            return &a;
    return nullptr;
}

} // namespace

const char* ztSimModule::requestName(int code)
{
    if (const Answer* a = answerTo(code))
        return a->name;
    for (const Unanswered& u : kUnanswered)
        if (u.code == code)
            return u.name;
    return nullptr;
}

void ztSimModule::onRequest(int code, char* data, int length, void* user)
{
    static_cast<ztSimModule*>(user)->handle(code, data, length);
}

void ztSimModule::handle(int code, const char* data, int length)
{
    zt::PayloadReader in(data, length);
    ztSimModuleState s;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_requests.push_back({code, std::vector<char>(data, data + (length > 0 ? length : 0))});
        m_arrived.notify_all();
        if (m_silent)
            return;
        // Setters change the state before the reply goes out.
        switch (code) {
        case 0x10006: m_state.period = in.get<std::int32_t>(); break;
        case 0x10009: m_state.hardwareSyncMode = in.get<std::int32_t>(); break;
        case 0x1000B: m_state.master = in.get<std::int32_t>() != 0; m_state.isMaster = m_state.master ? 1 : 0; break;
        case 0x1002E: m_state.systemId = in.get<std::uint64_t>(); break;
        case 0x20000: m_state.ledExposure = in.get<float>(); break;
        case 0x20002: m_state.lzExposure = in.get<float>(); break;
        case 0x20004: m_state.lightType = in.get<std::int32_t>(); break;
        case 0x20006: m_state.lzType = in.get<std::int32_t>(); break;
        case 0x20009: m_state.lzOpen = in.get<std::int32_t>() != 0; break;
        case 0x2000D: m_state.deepHole = in.get<std::int32_t>() != 0; break;
        default: break;
        }
        s = m_state;
    }
    if (const Answer* a = answerTo(code))
        a->reply(m_client, s, s.replyOk);
}
