// The host's request catalogue: every type-3 request with the sub type it sends, the
// reply it waits for and how the reply decides the result. One exchange in
// ztModuleProxyServer runs every row.
#pragma once

#include <cstdint>

namespace zt::module_proxy {

enum class Result : std::uint8_t {
    Ack,    // any 4-byte reply value succeeds
    Status, // the reply's int32 status must be 0 or more
    Value,  // the reply's payload is handed to the caller
};

// Reply length rule: an exact length, or any length above 0.
constexpr int kAnyLength = -1;

struct RequestRow {
    const char* name;        // method name, for logs
    std::uint32_t sub;       // sub type sent
    std::uint32_t replySub;  // sub type the reply must carry
    int replyLength;         // exact data length of the reply, or kAnyLength
    Result result;
    bool locked;             // exchanged under the command mutex
    bool releaseOnFailure;   // a failure asks the connect thread to rebuild the session
    const char* failLog;     // logged with the exchange's result when the exchange fails
};

enum class Req : unsigned char {
    sendRegister,
    sendUnRegister,
    sendStartDevice,
    sendStopDevice,
    heartbeat,
    sendPreTrigger,
    sendTrigger,
    setPeriod,
    getCanManualSync,
    getCanWirelessSync,
    setHardwareSyncMode,
    getHardwareSyncMode,
    setMaster,
    getIsMaster,
    updateSyncStat,
    execSync,
    grabImage,
    startGrabbingImage,
    stopGrabbingImage,
    getFirmwareVersion,
    getFirmwareVersion2,
    setPlotEnable,
    setNeedUpload,
    getVentoInfo,
    getSystemId,
    setScanHoleParam,
    setSystemId,
    setLedExposure,
    getLedExposure,
    setLZExposure,
    getLZExposure,
    setLightType,
    getLightType,
    setLZType,
    getLZType,
    setScanHeadMinDist,
    setLZOpen,
    setScanMode,
    getIsBlackObject,
    getIsHighLight,
    setDeepHole,
    getIsDeepHole,
    setRangeLevel,
    getLZSingleFrameMaxCount,
    getSupportedLight,
    setScannerRangeLevel,
    setEnableVoice,
    setLightLevel,
    setScanDynamicStat,
    setLZExposureFull,
    setLedExposureFull,
    setScanRange,
    addObjectMP,
    resetScanMK,
    setScannerModel,
    setTrackerRangeLevel,
    setScanPosExposure,
    setScannerClbFile,
    setLPCalibParam,
    doLPNeedleWork,
    setLPClbFile,
    setLPCanWork,
    setLPWorkResult,
    setLPModel2Vento,
    setTrackerClbFile,
    sendHoleHighAccuracySpaceInfo,
    sendCurrent2WorldPose,
    sendTrackPose,
    sendEdgePointsInfo,
    count
};

const RequestRow& requestRow(Req id);

// Judges a whole reply message against its request's row: it must carry the proxy
// magic, type 4 (reply), the row's reply sub type and a data length the row allows, and
// on a Status row an int32 status of 0 or more at the front of its data. The data length
// when the reply is accepted, -1 when it is not.
int acceptedReplyLength(const RequestRow& row, const void* reply);

// Type-2 answers of the host on the data channel.
enum class Answer : unsigned char {
    sendRegisterModuleRep,
    sendUnRegisterModuleRep,
    sendEnumSETFileRep,
    sendSETFileMD5Rep,
    sendSETFileSizeRep,
    sendSETFileRep,
    sendBDBFileSizeRep,
    sendBDBFileRep,
    sendBARFileSizeRep,
    sendBARFileRep,
    sendDeviceOnlineRep,
    sendDeviceOfflineRep,
    sendStatChangedRep,
    sendDataRep,
    sendDeviceButtonRep,
    sendPreTriggerRep,
    sendScanEventRsp,
    sendBarCalibFileRep,
    sendLPCalibFileRep,
    count
};

std::uint32_t answerSub(Answer id);

} // namespace zt::module_proxy
