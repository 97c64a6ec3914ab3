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
    ztModuleProxyClient& c = m_client;
    const bool ok = s.replyOk;
    switch (code) {
    case 0x00001: c.sendRegisterRep(ok); break;
    case 0x00002: c.sendUnRegisterRep(ok); break;
    case 0x10000: c.sendDeviceStartRep(ok); break;
    case 0x10001: c.sendDeviceStopRep(ok); break;
    case 0x10002: c.sendHeartbeatRep(s.heartbeat); break;
    case 0x10004: c.sendPreTriggerRep(ok); break;
    case 0x10005: c.sendTriggerRep(ok); break;
    case 0x10006: c.sendSetPeriodRep(ok); break;
    case 0x10007: c.sendGetCanManualSyncRep(s.canManualSync); break;
    case 0x10008: c.sendGetCanWirelessSyncRep(s.canWirelessSync); break;
    case 0x10009: c.sendSetHardwareSyncModeRep(ok); break;
    case 0x1000A: c.sendGetHardwareSyncModeRep(s.hardwareSyncMode != 0); break;
    case 0x1000B: c.sendSetMasterRep(ok); break;
    case 0x1000C: c.sendGetIsMasterRep(s.isMaster); break;
    case 0x1000D: c.sendUpdateSyncRep(ok); break;
    case 0x1000E: c.sendExecSyncRep(ok); break;
    case 0x10010: c.sendGrabImageRep(ok); break;
    case 0x10011: c.sendStartGrabbingImageRep(ok); break;
    case 0x10012: c.sendStopGrabbingImageRep(ok); break;
    case 0x10013: c.sendGetFirmwareVersionRep(s.firmwareVersion); break;
    case 0x10014: c.sendGetFirmwareVersion2Rep(s.firmwareVersion2[0], s.firmwareVersion2[1], s.firmwareVersion2[2]); break;
    case 0x10015: c.sendSetPlotEnableRep(ok); break;
    case 0x10016: c.sendSetNeedUploadRep(ok); break;
    case 0x10017: c.sendVentoInfoRep(s.ventoInfo); break;
    case 0x10019: c.sendGetSystemIdRep(s.systemId); break;
    case 0x1001A: c.sendSetScanHoleParamRep(ok); break;
    case 0x1002E: c.sendSetSystemIdRep(ok); break;
    case 0x20000: c.sendSetLedExposureRep(ok); break;
    case 0x20001: c.sendGetLedExposureRep(s.ledExposure); break;
    case 0x20002: c.sendSetLZExposureRep(ok); break;
    case 0x20003: c.sendGetLZExposureRep(s.lzExposure); break;
    case 0x20004: c.sendSetLightTypeRep(ok); break;
    case 0x20005: c.sendGetLightTypeRep(s.lightType); break;
    case 0x20006: c.sendSetLZTypeRep(ok); break;
    case 0x20007: c.sendGetLZTypeRep(s.lzType); break;
    case 0x20008: c.sendSetScanHeadMinDistRep(ok); break;
    case 0x20009: c.sendSetLZOpenRep(ok); break;
    case 0x2000A: c.sendSetScanModeRep(ok); break;
    case 0x2000B: c.sendGetIsBlackObjectRep(s.blackObject); break;
    case 0x2000C: c.sendGetIsHighLightRep(s.highLight); break;
    case 0x2000D: c.sendSetDeepHoleRep(ok); break;
    case 0x2000F: c.sendGetIsDeepHoleRep(s.deepHole); break;
    case 0x20010: c.sendSetRangeLevelRep(ok); break;
    case 0x20011: c.sendGetLZSingleFrameMaxCountRep(s.singleFrameMaxCount); break;
    case 0x20012: c.sendGetSupportedLightRep(s.supportedLight); break;
    case 0x20014: c.sendSetEnableVoiceRep(ok); break;
    case 0x20015: c.sendSetLightLevelRep(ok); break;
    case 0x20016: c.sendSetScanDynamicStatRep(ok); break;
    case 0x20017: c.sendSetLZExposureFullRep(ok); break;
    case 0x20018: c.sendSetLedExposureFullRep(ok); break;
    case 0x20019: c.sendSetScanRangeRep(ok); break;
    case 0x30000: c.sendAddObjectMPRep(ok); break;
    case 0x30001: c.sendResetScanMKRep(ok); break;
    case 0x30002: c.sendSetScannerModel(ok); break;
    case 0x30004: c.sendSetScanPosExposureRep(ok); break;
    case 0x40000: c.sendScannerClbFileRep(ok); break;
    case 0x50000: c.sendSetLPCalibParamRep(ok); break;
    case 0x50001: c.sendDoLPNeedleWorkRep(ok); break;
    case 0x50002: c.sendLPClbFileRep(ok); break;
    case 0x50003: c.sendSetLPCanWorkRep(ok); break;
    case 0x50004: c.sendSetLPWorkResultRep(ok); break;
    case 0x50005: c.sendSetLPModelRep(ok); break;
    case 0x60000: c.sendTrackerClbFileRep(ok); break;
    case 0x70000: c.sendSetHoleCfgRep(ok); break;
    case 0x70001: c.sendSetCurr2WorldPoseRep(ok); break;
    case 0x70002: c.sendSetTrackPose(ok); break;
    case 0x70003: c.sendSetEdgeCfgRep(ok); break;
    default: break; // no reply on the module side
    }
}
