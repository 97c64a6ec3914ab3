// The module side's catalogue: the sub type of every reply to a host request, of every
// notification, and of every file query with its wait. The reply codes are the wire
// contract as hosts expect it, including the codes that differ from the request's own
// (getLightType, setLZType, setDeepHole, getIsDeepHole, addObjectMP, resetScanMK).
#pragma once

#include <cstdint>

namespace zt::module_proxy {

enum class Rep : unsigned char {
    sendRegisterRep,
    sendUnRegisterRep,
    sendDeviceStartRep,
    sendDeviceStopRep,
    sendHeartbeatRep,
    sendPreTriggerRep,
    sendTriggerRep,
    sendSetPeriodRep,
    sendGetCanManualSyncRep,
    sendGetCanWirelessSyncRep,
    sendSetHardwareSyncModeRep,
    sendGetHardwareSyncModeRep,
    sendSetMasterRep,
    sendGetIsMasterRep,
    sendUpdateSyncRep,
    sendExecSyncRep,
    sendGetIsSyncRep,
    sendGrabImageRep,
    sendStartGrabbingImageRep,
    sendStopGrabbingImageRep,
    sendGetFirmwareVersionRep,
    sendGetFirmwareVersion2Rep,
    sendSetPlotEnableRep,
    sendSetNeedUploadRep,
    sendVentoInfoRep,
    sendGetSystemIdRep,
    sendSetScanHoleParamRep,
    sendSetSystemIdRep,
    sendSetLedExposureRep,
    sendGetLedExposureRep,
    sendSetLZExposureRep,
    sendGetLZExposureRep,
    sendGetLightTypeRep,
    sendSetLightTypeRep,
    sendSetLZTypeRep,
    sendGetLZTypeRep,
    sendSetScanHeadMinDistRep,
    sendSetLZOpenRep,
    sendSetScanModeRep,
    sendGetIsBlackObjectRep,
    sendGetIsHighLightRep,
    sendSetDeepHoleRep,
    sendGetIsDeepHoleRep,
    sendSetRangeLevelRep,
    sendGetLZSingleFrameMaxCountRep,
    sendGetSupportedLightRep,
    sendSetEnableVoiceRep,
    sendSetLightLevelRep,
    sendSetScanDynamicStatRep,
    sendSetLZExposureFullRep,
    sendSetLedExposureFullRep,
    sendSetScanRangeRep,
    sendAddObjectMPRep,
    sendResetScanMKRep,
    sendSetScannerModel,
    sendSetScanPosExposureRep,
    sendScannerClbFileRep,
    sendSetLPCalibParamRep,
    sendDoLPNeedleWorkRep,
    sendLPClbFileRep,
    sendSetLPCanWorkRep,
    sendSetLPWorkResultRep,
    sendSetLPModelRep,
    sendTrackerClbFileRep,
    sendSetHoleCfgRep,
    sendSetCurr2WorldPoseRep,
    sendSetTrackPose,
    sendSetEdgeCfgRep,
    count
};

enum class Event : unsigned char {
    sendDeviceOn,
    sendDeviceOff,
    sendDeviceStatChanged,
    sendDeviceData,
    sendDeviceButton,
    sendDevicePreTrigger,
    sendScanEventRsp,
    sendLPPairingInfo,
    sendLPRequestList,
    sendLPOfflineWarn,
    sendBarCalibFile,
    sendLPCalibFile,
    sendDeviceOpenFailRet,
    count
};

enum class Query : unsigned char {
    enumSETFile,
    getSETFileMd5,
    getSETFileSize,
    getSETFile,
    getCurBDBFileSize,
    getCurBDBFile,
    getCurBarFileSize,
    getCurBarFile,
    count
};

struct NamedSub {
    const char* name;
    std::uint32_t sub;
};

struct QueryRow {
    const char* name;
    std::uint32_t sub;
    unsigned int waitMs;
    bool logsFailures; // logs a failed receive and a wrong answer under its own name
};

const NamedSub& replyRow(Rep id);
const NamedSub& eventRow(Event id);
const QueryRow& queryRow(Query id);

} // namespace zt::module_proxy
