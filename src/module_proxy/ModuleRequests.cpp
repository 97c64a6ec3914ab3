#include "ModuleRequests.h"

#include "zt_msg.h"
#include "ztProxyTypes.h"

#include <cstring>

namespace zt::module_proxy {

namespace {

constexpr const char* kReqFailed = "req-send failed: nret:%d";

constexpr RequestRow row(const char* name, std::uint32_t sub, Result result, int replyLength = 4)
{
    return {name, sub, sub, replyLength, result, true, false, nullptr};
}

constexpr RequestRow kRequests[] = {
    // Session exchanges run without the command mutex.
    {"sendRegister", 0x00001, 0x00001, 4, Result::Ack, false, false, nullptr},
    {"sendUnRegister", 0x00002, 0x00002, 4, Result::Ack, false, false, nullptr},
    row("sendStartDevice", 0x10000, Result::Ack),
    row("sendStopDevice", 0x10001, Result::Ack),
    {"heartbeat", 0x10002, 0x10002, 920, Result::Value, true, true, kReqFailed},
    row("sendPreTrigger", 0x10004, Result::Status),
    {"sendTrigger", 0x10005, 0x10005, 4, Result::Status, true, false,
     "ztModuleProxyServer [sendTrigger] zmq_send failed!\r\n"},
    {"setPeriod", 0x10006, 0x10006, 4, Result::Status, true, false,
     "ztModuleProxyServer [sendPeriod] zmq_send failed!\r\n"},
    row("getCanManualSync", 0x10007, Result::Value),
    row("getCanWirelessSync", 0x10008, Result::Value),
    row("setHardwareSyncMode", 0x10009, Result::Status),
    row("getHardwareSyncMode", 0x1000A, Result::Value),
    row("setMaster", 0x1000B, Result::Status),
    row("getIsMaster", 0x1000C, Result::Value),
    row("updateSyncStat", 0x1000D, Result::Status),
    row("execSync", 0x1000E, Result::Status),
    row("grabImage", 0x10010, Result::Status),
    row("startGrabbingImage", 0x10011, Result::Status),
    row("stopGrabbingImage", 0x10012, Result::Status),
    row("getFirmwareVersion", 0x10013, Result::Value, kAnyLength),
    row("getFirmwareVersion2", 0x10014, Result::Value, kAnyLength),
    row("setPlotEnable", 0x10015, Result::Ack),
    row("setNeedUpload", 0x10016, Result::Ack),
    {"getVentoInfo", 0x10017, 0x10017, 4, Result::Value, true, true, kReqFailed},
    row("getSystemId", 0x10019, Result::Value, 8),
    row("setScanHoleParam", 0x1001A, Result::Status),
    row("setSystemId", 0x1002E, Result::Status),
    row("setLedExposure", 0x20000, Result::Status),
    row("getLedExposure", 0x20001, Result::Value),
    row("setLZExposure", 0x20002, Result::Status),
    row("getLZExposure", 0x20003, Result::Value),
    row("setLightType", 0x20004, Result::Ack),
    row("getLightType", 0x20005, Result::Value),
    row("setLZType", 0x20006, Result::Status),
    row("getLZType", 0x20007, Result::Value),
    row("setScanHeadMinDist", 0x20008, Result::Status),
    row("setLZOpen", 0x20009, Result::Status),
    row("setScanMode", 0x2000A, Result::Status),
    row("getIsBlackObject", 0x2000B, Result::Value),
    row("getIsHighLight", 0x2000C, Result::Value),
    row("setDeepHole", 0x2000D, Result::Status),
    row("getIsDeepHole", 0x2000F, Result::Value),
    row("setRangeLevel", 0x20010, Result::Status),
    row("getLZSingleFrameMaxCount", 0x20011, Result::Value),
    row("getSupportedLight", 0x20012, Result::Value),
    row("setScannerRangeLevel", 0x20013, Result::Ack),
    row("setEnableVoice", 0x20014, Result::Ack),
    row("setLightLevel", 0x20015, Result::Ack),
    row("setScanDynamicStat", 0x20016, Result::Ack),
    row("setLZExposureFull", 0x20017, Result::Ack),
    row("setLedExposureFull", 0x20018, Result::Ack),
    row("setScanRange", 0x20019, Result::Ack),
    // The object and marker requests wait for each other's codes, as the module answers.
    {"addObjectMP", 0x30000, 0x30001, 4, Result::Status, true, false, nullptr},
    {"resetScanMK", 0x30001, 0x30000, 4, Result::Status, true, false, nullptr},
    row("setScannerModel", 0x30002, Result::Status),
    row("setTrackerRangeLevel", 0x30003, Result::Ack),
    row("setScanPosExposure", 0x30004, Result::Ack),
    row("setScannerClbFile", 0x40000, Result::Ack),
    row("setLPCalibParam", 0x50000, Result::Ack),
    row("doLPNeedleWork", 0x50001, Result::Ack),
    row("setLPClbFile", 0x50002, Result::Ack),
    row("setLPCanWork", 0x50003, Result::Ack),
    row("setLPWorkResult", 0x50004, Result::Ack),
    row("setLPModel2Vento", 0x50005, Result::Ack),
    row("setTrackerClbFile", 0x60000, Result::Ack),
    row("sendHoleHighAccuracySpaceInfo", 0x70000, Result::Status),
    row("sendCurrent2WorldPose", 0x70001, Result::Status),
    // Sent without the command mutex and without waiting for a reply.
    {"sendTrackPose", 0x70002, 0, 0, Result::Ack, false, false, nullptr},
    row("sendEdgePointsInfo", 0x70003, Result::Status),
};
static_assert(sizeof(kRequests) / sizeof(kRequests[0]) == static_cast<std::size_t>(Req::count),
              "one row per request");

constexpr std::uint32_t kAnswers[] = {
    0x10000, 0x10001, 0x20000, 0x20001, 0x20002, 0x20003, 0x20004, 0x20005, 0x20006, 0x20007,
    0x30000, 0x30001, 0x40000, 0x40001, 0x40002, 0x40003, 0x40004, 0x50000, 0x50001,
};
static_assert(sizeof(kAnswers) / sizeof(kAnswers[0]) == static_cast<std::size_t>(Answer::count),
              "one sub type per answer");

} // namespace

const RequestRow& requestRow(Req id)
{
    return kRequests[static_cast<std::size_t>(id)];
}

int acceptedReplyLength(const RequestRow& row, const void* reply)
{
    const int length = zt_msg_get_data_len(reply);
    const bool lengthOk = row.replyLength == kAnyLength ? length > 0 : length == row.replyLength;
    if (zt_msg_is_avalible(reply) != 0 || zt_msg_get_msg_type(reply) != ZT_MSG_TYPE_REPLY ||
        zt_msg_get_sub_type(reply) != row.replySub || !lengthOk)
        return -1;
    if (row.result == Result::Status) {
        std::int32_t status;
        std::memcpy(&status, zt_msg_get_data(const_cast<void*>(reply)), sizeof status);
        if (status < 0)
            return -1;
    }
    return length;
}

std::uint32_t answerSub(Answer id)
{
    return kAnswers[static_cast<std::size_t>(id)];
}

} // namespace zt::module_proxy
