// The public replies, events and file queries of ztModuleProxyClient: each one line into
// the catalogue with its payload, and for queries where the answer goes.
#include "ztModuleProxyClient.h"

#include "ModuleReplies.h"
#include "ProxyPayload.h"
#include "platform/zt_log.h"

#include <algorithm>
#include <cstring>

using zt::module_proxy::Event;
using zt::module_proxy::Query;
using zt::module_proxy::Rep;

namespace {
using P = zt::PayloadWriter;

// Head of a light-pen request list: the entry count and size, then zeros to 24 bytes.
constexpr std::size_t kLPListHeadSize = 24;
} // namespace

int ztModuleProxyClient::sendRegisterRep(bool ok) { return reply(Rep::sendRegisterRep, P().flag(ok)); }
int ztModuleProxyClient::sendUnRegisterRep(bool ok) { return reply(Rep::sendUnRegisterRep, P().flag(ok)); }
int ztModuleProxyClient::sendDeviceStartRep(bool ok) { return reply(Rep::sendDeviceStartRep, P().flag(ok)); }
int ztModuleProxyClient::sendDeviceStopRep(bool ok) { return reply(Rep::sendDeviceStopRep, P().flag(ok)); }
int ztModuleProxyClient::sendHeartbeatRep(const _ZT_HEARTBEAT_INFO_& info) { return reply(Rep::sendHeartbeatRep, P().bytes(&info, sizeof info)); }
int ztModuleProxyClient::sendPreTriggerRep(bool ok) { return reply(Rep::sendPreTriggerRep, P().flag(ok)); }
int ztModuleProxyClient::sendTriggerRep(bool ok) { return reply(Rep::sendTriggerRep, P().flag(ok)); }
int ztModuleProxyClient::sendSetPeriodRep(bool ok) { return reply(Rep::sendSetPeriodRep, P().flag(ok)); }
int ztModuleProxyClient::sendGetCanManualSyncRep(bool can) { return reply(Rep::sendGetCanManualSyncRep, P().flag(can)); }
int ztModuleProxyClient::sendGetCanWirelessSyncRep(bool can) { return reply(Rep::sendGetCanWirelessSyncRep, P().flag(can)); }
int ztModuleProxyClient::sendSetHardwareSyncModeRep(bool ok) { return reply(Rep::sendSetHardwareSyncModeRep, P().flag(ok)); }
int ztModuleProxyClient::sendGetHardwareSyncModeRep(bool mode) { return reply(Rep::sendGetHardwareSyncModeRep, P().flag(mode)); }
int ztModuleProxyClient::sendSetMasterRep(bool ok) { return reply(Rep::sendSetMasterRep, P().flag(ok)); }
int ztModuleProxyClient::sendGetIsMasterRep(int master) { return reply(Rep::sendGetIsMasterRep, P().i32(master)); }
int ztModuleProxyClient::sendUpdateSyncRep(bool ok) { return reply(Rep::sendUpdateSyncRep, P().flag(ok)); }
int ztModuleProxyClient::sendExecSyncRep(bool ok) { return reply(Rep::sendExecSyncRep, P().flag(ok)); }
int ztModuleProxyClient::sendGetIsSyncRep(bool sync) { return reply(Rep::sendGetIsSyncRep, P().flag(sync)); }
int ztModuleProxyClient::sendGrabImageRep(bool ok) { return reply(Rep::sendGrabImageRep, P().flag(ok)); }
int ztModuleProxyClient::sendStartGrabbingImageRep(bool ok) { return reply(Rep::sendStartGrabbingImageRep, P().flag(ok)); }
int ztModuleProxyClient::sendStopGrabbingImageRep(bool ok) { return reply(Rep::sendStopGrabbingImageRep, P().flag(ok)); }
int ztModuleProxyClient::sendGetFirmwareVersionRep(const std::string& version) { return reply(Rep::sendGetFirmwareVersionRep, P().text(version)); }
int ztModuleProxyClient::sendGetFirmwareVersion2Rep(int major, int minor, int patch) { return reply(Rep::sendGetFirmwareVersion2Rep, P().i32(major).i32(minor).i32(patch)); }
int ztModuleProxyClient::sendSetPlotEnableRep(bool ok) { return reply(Rep::sendSetPlotEnableRep, P().flag(ok)); }
int ztModuleProxyClient::sendSetNeedUploadRep(bool ok) { return reply(Rep::sendSetNeedUploadRep, P().flag(ok)); }
int ztModuleProxyClient::sendVentoInfoRep(int info) { return reply(Rep::sendVentoInfoRep, P().i32(info)); }
int ztModuleProxyClient::sendGetSystemIdRep(unsigned long long id) { return reply(Rep::sendGetSystemIdRep, P().u64(id)); }
int ztModuleProxyClient::sendSetScanHoleParamRep(bool ok) { return reply(Rep::sendSetScanHoleParamRep, P().flag(ok)); }
int ztModuleProxyClient::sendSetSystemIdRep(bool ok) { return reply(Rep::sendSetSystemIdRep, P().flag(ok)); }
int ztModuleProxyClient::sendSetLedExposureRep(bool ok) { return reply(Rep::sendSetLedExposureRep, P().flag(ok)); }
int ztModuleProxyClient::sendGetLedExposureRep(float exposure) { return reply(Rep::sendGetLedExposureRep, P().f32(exposure)); }
int ztModuleProxyClient::sendSetLZExposureRep(bool ok) { return reply(Rep::sendSetLZExposureRep, P().flag(ok)); }
int ztModuleProxyClient::sendGetLZExposureRep(float exposure) { return reply(Rep::sendGetLZExposureRep, P().f32(exposure)); }
int ztModuleProxyClient::sendGetLightTypeRep(int type) { return reply(Rep::sendGetLightTypeRep, P().i32(type)); }
int ztModuleProxyClient::sendSetLightTypeRep(bool ok) { return reply(Rep::sendSetLightTypeRep, P().flag(ok)); }
int ztModuleProxyClient::sendSetLZTypeRep(bool ok) { return reply(Rep::sendSetLZTypeRep, P().flag(ok)); }
int ztModuleProxyClient::sendGetLZTypeRep(int type) { return reply(Rep::sendGetLZTypeRep, P().i32(type)); }
int ztModuleProxyClient::sendSetScanHeadMinDistRep(bool ok) { return reply(Rep::sendSetScanHeadMinDistRep, P().flag(ok)); }
int ztModuleProxyClient::sendSetLZOpenRep(bool ok) { return reply(Rep::sendSetLZOpenRep, P().flag(ok)); }
int ztModuleProxyClient::sendSetScanModeRep(bool ok) { return reply(Rep::sendSetScanModeRep, P().flag(ok)); }
int ztModuleProxyClient::sendGetIsBlackObjectRep(bool black) { return reply(Rep::sendGetIsBlackObjectRep, P().flag(black)); }
int ztModuleProxyClient::sendGetIsHighLightRep(bool high) { return reply(Rep::sendGetIsHighLightRep, P().flag(high)); }
int ztModuleProxyClient::sendSetDeepHoleRep(bool ok) { return reply(Rep::sendSetDeepHoleRep, P().flag(ok)); }
int ztModuleProxyClient::sendGetIsDeepHoleRep(bool deep) { return reply(Rep::sendGetIsDeepHoleRep, P().flag(deep)); }
int ztModuleProxyClient::sendSetRangeLevelRep(bool ok) { return reply(Rep::sendSetRangeLevelRep, P().flag(ok)); }
int ztModuleProxyClient::sendGetLZSingleFrameMaxCountRep(int count) { return reply(Rep::sendGetLZSingleFrameMaxCountRep, P().i32(count)); }
int ztModuleProxyClient::sendGetSupportedLightRep(int lights) { return reply(Rep::sendGetSupportedLightRep, P().i32(lights)); }
int ztModuleProxyClient::sendSetEnableVoiceRep(bool ok) { return reply(Rep::sendSetEnableVoiceRep, P().flag(ok)); }
int ztModuleProxyClient::sendSetLightLevelRep(bool ok) { return reply(Rep::sendSetLightLevelRep, P().flag(ok)); }
int ztModuleProxyClient::sendSetScanDynamicStatRep(bool ok) { return reply(Rep::sendSetScanDynamicStatRep, P().flag(ok)); }
int ztModuleProxyClient::sendSetLZExposureFullRep(bool ok) { return reply(Rep::sendSetLZExposureFullRep, P().flag(ok)); }
int ztModuleProxyClient::sendSetLedExposureFullRep(bool ok) { return reply(Rep::sendSetLedExposureFullRep, P().flag(ok)); }
int ztModuleProxyClient::sendSetScanRangeRep(bool ok) { return reply(Rep::sendSetScanRangeRep, P().flag(ok)); }
int ztModuleProxyClient::sendAddObjectMPRep(bool ok) { return reply(Rep::sendAddObjectMPRep, P().flag(ok)); }
int ztModuleProxyClient::sendResetScanMKRep(bool ok) { return reply(Rep::sendResetScanMKRep, P().flag(ok)); }
int ztModuleProxyClient::sendSetScannerModel(bool ok) { return reply(Rep::sendSetScannerModel, P().flag(ok)); }
int ztModuleProxyClient::sendSetScanPosExposureRep(bool ok) { return reply(Rep::sendSetScanPosExposureRep, P().flag(ok)); }
int ztModuleProxyClient::sendScannerClbFileRep(bool ok) { return reply(Rep::sendScannerClbFileRep, P().flag(ok)); }
int ztModuleProxyClient::sendSetLPCalibParamRep(bool ok) { return reply(Rep::sendSetLPCalibParamRep, P().flag(ok)); }
int ztModuleProxyClient::sendDoLPNeedleWorkRep(bool ok) { return reply(Rep::sendDoLPNeedleWorkRep, P().flag(ok)); }
int ztModuleProxyClient::sendLPClbFileRep(bool ok) { return reply(Rep::sendLPClbFileRep, P().flag(ok)); }
int ztModuleProxyClient::sendSetLPCanWorkRep(bool ok) { return reply(Rep::sendSetLPCanWorkRep, P().flag(ok)); }
int ztModuleProxyClient::sendSetLPWorkResultRep(bool ok) { return reply(Rep::sendSetLPWorkResultRep, P().flag(ok)); }
int ztModuleProxyClient::sendSetLPModelRep(bool ok) { return reply(Rep::sendSetLPModelRep, P().flag(ok)); }
int ztModuleProxyClient::sendTrackerClbFileRep(bool ok) { return reply(Rep::sendTrackerClbFileRep, P().flag(ok)); }
int ztModuleProxyClient::sendSetHoleCfgRep(bool ok) { return reply(Rep::sendSetHoleCfgRep, P().flag(ok)); }
int ztModuleProxyClient::sendSetCurr2WorldPoseRep(bool ok) { return reply(Rep::sendSetCurr2WorldPoseRep, P().flag(ok)); }
int ztModuleProxyClient::sendSetTrackPose(bool ok) { return reply(Rep::sendSetTrackPose, P().flag(ok)); }
int ztModuleProxyClient::sendSetEdgeCfgRep(bool ok) { return reply(Rep::sendSetEdgeCfgRep, P().flag(ok)); }

int ztModuleProxyClient::sendDeviceOn(const std::string& name, std::vector<int> ids)
{
    P p;
    p.u32(static_cast<std::uint32_t>(name.size())).text(name).u32(static_cast<std::uint32_t>(ids.size()));
    for (int id : ids)
        p.i32(id);
    notify(Event::sendDeviceOn, p);
    return 0;
}

int ztModuleProxyClient::sendDeviceOff(const std::string& name)
{
    notify(Event::sendDeviceOff, P().u8(static_cast<std::uint8_t>(name.size())).text(name));
    return 0;
}

int ztModuleProxyClient::sendDeviceStatChanged(int device, int state)
{
    notify(Event::sendDeviceStatChanged, P().i32(device).i32(state));
    return 0;
}

int ztModuleProxyClient::sendDeviceData(unsigned long long a, int b, const unsigned char* data, unsigned int length, int d)
{
    return notify(Event::sendDeviceData, P().u64(a).i32(b).i32(d).u32(length).bytes(data, length));
}

int ztModuleProxyClient::sendDeviceButton(char a, char b)
{
    notify(Event::sendDeviceButton, P().u8(static_cast<std::uint8_t>(a)).u8(static_cast<std::uint8_t>(b)));
    return 0;
}

int ztModuleProxyClient::sendScanEventRsp(int a, int b, const std::vector<char>& bytes)
{
    notify(Event::sendScanEventRsp, P().i32(a).i32(b).i32(static_cast<std::int32_t>(bytes.size())).bytes(bytes.data(), bytes.size()));
    return 0;
}

int ztModuleProxyClient::sendLPPairingInfo(const std::string& text, int n)
{
    notify(Event::sendLPPairingInfo, P().i32(n).i32(static_cast<std::int32_t>(text.size())).text(text));
    return 0;
}

int ztModuleProxyClient::sendLPRequestList(std::vector<lp::_ZT_LP_CONNECT_INFO_> pens)
{
    P p;
    p.u32(static_cast<std::uint32_t>(pens.size())).u32(sizeof(lp::_ZT_LP_CONNECT_INFO_)).zeros(kLPListHeadSize - 8);
    for (const auto& pen : pens)
        p.bytes(&pen, sizeof pen);
    notify(Event::sendLPRequestList, p);
    return 0;
}

int ztModuleProxyClient::sendLPOfflineWarn(lp::_LIGHTPEN_WARN_INFO_ warn)
{
    notify(Event::sendLPOfflineWarn, P().bytes(&warn, sizeof warn));
    return 0;
}

int ztModuleProxyClient::sendBarCalibFile(const std::string& name, const std::string& path, void* data, unsigned int length)
{
    return notify(Event::sendBarCalibFile, P().fileBlock(name, path, data, length));
}

int ztModuleProxyClient::sendLPCalibFile(const std::string& name, const std::string& path, void* data, unsigned int length)
{
    return notify(Event::sendLPCalibFile, P().fileBlock(name, path, data, length));
}

int ztModuleProxyClient::sendDeviceOpenFailRet(int error)
{
    notify(Event::sendDeviceOpenFailRet, P().i32(error));
    return 0;
}

int ztModuleProxyClient::enumSETFile(const std::string& filter, std::vector<std::string>& names)
{
    return query(Query::enumSETFile, P().text(filter), [&names](const char* data, int length) {
        // Count, lengths, then the texts; whatever the answer declares, reading stops at
        // its end.
        zt::PayloadReader r(data, length);
        const auto count = r.get<std::int32_t>();
        std::vector<std::int32_t> lengths;
        for (std::int32_t i = 0; i < count && r.left() >= sizeof(std::int32_t); ++i)
            lengths.push_back(r.get<std::int32_t>());
        names.clear();
        for (std::int32_t n : lengths)
            names.push_back(r.text(n > 0 ? static_cast<std::size_t>(n) : 0));
    });
}

int ztModuleProxyClient::getSETFileMd5(const std::string& a, const std::string& b, std::string& md5)
{
    return query(Query::getSETFileMd5, P().namePair(a, b), [&md5](const char* data, int length) {
        md5.assign(data, static_cast<std::size_t>(length > 0 ? length : 0));
    });
}

namespace {
// A null output where the query would write length bytes: logged, and nothing is sent.
bool noOutput(const char* method, const void* out, unsigned int length)
{
    if (out != nullptr || length == 0)
        return false;
    ZTLOG_ERROR("ztModuleProxyClient::[%s] no output buffer, nothing sent\n", method);
    return true;
}

// Copies at most capacity bytes of the answer, and never more than the answer holds
// (compared unsigned: a capacity of 2 GiB or more is no negative number).
auto intoBuffer(unsigned char* out, unsigned int capacity)
{
    return [out, capacity](const char* data, int length) {
        if (out != nullptr && length > 0)
            std::memcpy(out, data, std::min(static_cast<std::size_t>(length), static_cast<std::size_t>(capacity)));
    };
}

// A 32-bit size; a shorter answer reads as zero.
auto intoSize(unsigned int* out)
{
    return [out](const char* data, int length) {
        if (out != nullptr)
            *out = zt::PayloadReader(data, length).get<std::uint32_t>();
    };
}
} // namespace

int ztModuleProxyClient::getSETFileSize(const std::string& a, const std::string& b, unsigned int* size)
{
    if (noOutput("getSETFileSize", size, 1))
        return -1;
    return query(Query::getSETFileSize, P().namePair(a, b), [size](const char* data, int length) {
        if (length == 4 && size != nullptr)
            std::memcpy(size, data, 4);
    });
}


int ztModuleProxyClient::getSETFile(const std::string& a, const std::string& b, unsigned char* data, unsigned int length)
{
    if (noOutput("getSETFile", data, length))
        return -1;
    return query(Query::getSETFile, P().namePair(a, b), intoBuffer(data, length));
}

int ztModuleProxyClient::getCurBDBFileSize(unsigned int* size)
{
    return noOutput("getCurBDBFileSize", size, 1) ? -1 : query(Query::getCurBDBFileSize, P(), intoSize(size));
}

int ztModuleProxyClient::getCurBDBFile(unsigned char* data, unsigned int length)
{
    return noOutput("getCurBDBFile", data, length) ? -1 : query(Query::getCurBDBFile, P(), intoBuffer(data, length));
}

int ztModuleProxyClient::getCurBarFileSize(unsigned int* size)
{
    return noOutput("getCurBarFileSize", size, 1) ? -1 : query(Query::getCurBarFileSize, P(), intoSize(size));
}

int ztModuleProxyClient::getCurBarFile(unsigned char* data, unsigned int length)
{
    return noOutput("getCurBarFile", data, length) ? -1 : query(Query::getCurBarFile, P(), intoBuffer(data, length));
}
