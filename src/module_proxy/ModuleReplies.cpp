#include "ModuleReplies.h"

#include <cstddef>

namespace zt::module_proxy {

namespace {

constexpr NamedSub kReplies[] = {
    {"sendRegisterRep", 0x00001},
    {"sendUnRegisterRep", 0x00002},
    {"sendDeviceStartRep", 0x10000},
    {"sendDeviceStopRep", 0x10001},
    {"sendHeartbeatRep", 0x10002},
    {"sendPreTriggerRep", 0x10004},
    {"sendTriggerRep", 0x10005},
    {"sendSetPeriodRep", 0x10006},
    {"sendGetCanManualSyncRep", 0x10007},
    {"sendGetCanWirelessSyncRep", 0x10008},
    {"sendSetHardwareSyncModeRep", 0x10009},
    {"sendGetHardwareSyncModeRep", 0x1000A},
    {"sendSetMasterRep", 0x1000B},
    {"sendGetIsMasterRep", 0x1000C},
    {"sendUpdateSyncRep", 0x1000D},
    {"sendExecSyncRep", 0x1000E},
    {"sendGetIsSyncRep", 0x1000F},
    {"sendGrabImageRep", 0x10010},
    {"sendStartGrabbingImageRep", 0x10011},
    {"sendStopGrabbingImageRep", 0x10012},
    {"sendGetFirmwareVersionRep", 0x10013},
    {"sendGetFirmwareVersion2Rep", 0x10014},
    {"sendSetPlotEnableRep", 0x10015},
    {"sendSetNeedUploadRep", 0x10016},
    {"sendVentoInfoRep", 0x10017},
    {"sendGetSystemIdRep", 0x10019},
    {"sendSetScanHoleParamRep", 0x1001A},
    {"sendSetSystemIdRep", 0x1002E},
    {"sendSetLedExposureRep", 0x20000},
    {"sendGetLedExposureRep", 0x20001},
    {"sendSetLZExposureRep", 0x20002},
    {"sendGetLZExposureRep", 0x20003},
    {"sendGetLightTypeRep", 0x20003},
    {"sendSetLightTypeRep", 0x20004},
    {"sendSetLZTypeRep", 0x20005},
    {"sendGetLZTypeRep", 0x20007},
    {"sendSetScanHeadMinDistRep", 0x20008},
    {"sendSetLZOpenRep", 0x20009},
    {"sendSetScanModeRep", 0x2000A},
    {"sendGetIsBlackObjectRep", 0x2000B},
    {"sendGetIsHighLightRep", 0x2000C},
    {"sendSetDeepHoleRep", 0x2000C},
    {"sendGetIsDeepHoleRep", 0x2000D},
    {"sendSetRangeLevelRep", 0x20010},
    {"sendGetLZSingleFrameMaxCountRep", 0x20011},
    {"sendGetSupportedLightRep", 0x20012},
    {"sendSetEnableVoiceRep", 0x20014},
    {"sendSetLightLevelRep", 0x20015},
    {"sendSetScanDynamicStatRep", 0x20016},
    {"sendSetLZExposureFullRep", 0x20017},
    {"sendSetLedExposureFullRep", 0x20018},
    {"sendSetScanRangeRep", 0x20019},
    {"sendAddObjectMPRep", 0x30000},
    {"sendResetScanMKRep", 0x30001},
    {"sendSetScannerModel", 0x30002},
    {"sendSetScanPosExposureRep", 0x30004},
    {"sendScannerClbFileRep", 0x40000},
    {"sendSetLPCalibParamRep", 0x50000},
    {"sendDoLPNeedleWorkRep", 0x50001},
    {"sendLPClbFileRep", 0x50002},
    {"sendSetLPCanWorkRep", 0x50003},
    {"sendSetLPWorkResultRep", 0x50004},
    {"sendSetLPModelRep", 0x50005},
    {"sendTrackerClbFileRep", 0x60000},
    {"sendSetHoleCfgRep", 0x70000},
    {"sendSetCurr2WorldPoseRep", 0x70001},
    {"sendSetTrackPose", 0x70002},
    {"sendSetEdgeCfgRep", 0x70003},
};
static_assert(sizeof(kReplies) / sizeof(kReplies[0]) == static_cast<std::size_t>(Rep::count), "one row per reply");

constexpr NamedSub kEvents[] = {
    {"sendDeviceOn", 0x30000},
    {"sendDeviceOff", 0x30001},
    {"sendDeviceStatChanged", 0x40000},
    {"sendDeviceData", 0x40001},
    {"sendDeviceButton", 0x40002},
    {"sendDevicePreTrigger", 0x40003},
    {"sendScanEventRsp", 0x40004},
    {"sendLPPairingInfo", 0x40005},
    {"sendLPRequestList", 0x40006},
    {"sendLPOfflineWarn", 0x40007},
    {"sendBarCalibFile", 0x50000},
    {"sendLPCalibFile", 0x50001},
    {"sendDeviceOpenFailRet", 0x60001},
};
static_assert(sizeof(kEvents) / sizeof(kEvents[0]) == static_cast<std::size_t>(Event::count), "one row per event");

constexpr QueryRow kQueries[] = {
    {"enumSETFile", 0x20000, 300000, false},
    {"getSETFileMd5", 0x20001, 5000, true},
    {"getSETFileSize", 0x20002, 5000, true},
    {"getSETFile", 0x20003, 300000, false},
    {"getCurBDBFileSize", 0x20004, 1000, false},
    {"getCurBDBFile", 0x20005, 1000, false},
    {"getCurBarFileSize", 0x20006, 1000, false},
    {"getCurBarFile", 0x20007, 1000, false},
};
static_assert(sizeof(kQueries) / sizeof(kQueries[0]) == static_cast<std::size_t>(Query::count), "one row per query");

} // namespace

const NamedSub& replyRow(Rep id)
{
    return kReplies[static_cast<std::size_t>(id)];
}

const NamedSub& eventRow(Event id)
{
    return kEvents[static_cast<std::size_t>(id)];
}

const QueryRow& queryRow(Query id)
{
    return kQueries[static_cast<std::size_t>(id)];
}

} // namespace zt::module_proxy
