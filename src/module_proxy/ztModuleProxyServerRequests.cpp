// The public requests and answers of ztModuleProxyServer: each one line into the
// catalogue, with its payload and, for getters, where the reply's value goes.
#include "ztModuleProxyServer.h"

#include "ModuleRequests.h"
#include "ProxyPayload.h"
#include "platform/zt_log.h"

#include <cstring>

using zt::PayloadWriter;
using zt::module_proxy::Answer;
using zt::module_proxy::Req;
using zt::module_proxy::requestRow;

namespace {

using P = PayloadWriter;

// Copies the reply's first sizeof(T) bytes into *out.
template <class T>
auto into(T* out)
{
    return [out](const char* data, int) { std::memcpy(out, data, sizeof(T)); };
}

// A 32-bit reply value as a bool.
auto intoBool(bool* out)
{
    return [out](const char* data, int) {
        std::int32_t v;
        std::memcpy(&v, data, sizeof v);
        *out = v != 0;
    };
}

// Output pointers must point somewhere: a null one fails the request before anything is
// sent.
bool outputsGiven(Req id, std::initializer_list<const void*> outputs)
{
    for (const void* p : outputs) {
        if (p == nullptr) {
            ZTLOG_ERROR("ztModuleProxyServer::[%s] null argument\n", requestRow(id).name);
            return false;
        }
    }
    return true;
}

// The raw bytes of a caller's buffer.
P raw(const void* data, unsigned int length)
{
    return P().bytes(data, length);
}

// 12 rows of 3 doubles.
P levels(double (*rows)[3])
{
    P p;
    for (int i = 0; i < 12; ++i)
        p.f64(rows[i][0]).f64(rows[i][1]).f64(rows[i][2]);
    return p;
}

} // namespace

int ztModuleProxyServer::sendRegister()
{
    ZTLOG_INFO("sendRegister\r\n");
    return request(Req::sendRegister, P());
}

int ztModuleProxyServer::sendUnRegister() { return request(Req::sendUnRegister, P()); }
int ztModuleProxyServer::sendStartDevice(_ZT_WORK_BUSINESS_ work) { return request(Req::sendStartDevice, P().i32(work)); }
int ztModuleProxyServer::sendStopDevice() { return request(Req::sendStopDevice, P()); }

int ztModuleProxyServer::heartbeat(_ZT_HEARTBEAT_INFO_* info)
{
    if (!outputsGiven(Req::heartbeat, {info}))
        return -1;
    return request(Req::heartbeat, P(), into(info));
}

int ztModuleProxyServer::sendPreTrigger() { return request(Req::sendPreTrigger, P()); }
int ztModuleProxyServer::sendTrigger() { return request(Req::sendTrigger, P()); }
int ztModuleProxyServer::setPeriod(int period) { return request(Req::setPeriod, P().i32(period)); }

int ztModuleProxyServer::getCanManualSync(bool* can)
{
    return outputsGiven(Req::getCanManualSync, {can}) ? request(Req::getCanManualSync, P(), intoBool(can)) : -1;
}

int ztModuleProxyServer::getCanWirelessSync(bool* can)
{
    return outputsGiven(Req::getCanWirelessSync, {can}) ? request(Req::getCanWirelessSync, P(), intoBool(can)) : -1;
}

int ztModuleProxyServer::setHardwareSyncMode(int mode) { return request(Req::setHardwareSyncMode, P().i32(mode)); }

int ztModuleProxyServer::getHardwareSyncMode(int* mode)
{
    // The request carries the caller's current value.
    return outputsGiven(Req::getHardwareSyncMode, {mode})
               ? request(Req::getHardwareSyncMode, P().i32(*mode), into(mode))
               : -1;
}

int ztModuleProxyServer::setMaster(bool master) { return request(Req::setMaster, P().flag(master)); }

int ztModuleProxyServer::getIsMaster(int* master)
{
    return outputsGiven(Req::getIsMaster, {master}) ? request(Req::getIsMaster, P(), into(master)) : -1;
}

int ztModuleProxyServer::updateSyncStat() { return request(Req::updateSyncStat, P()); }
int ztModuleProxyServer::execSync(bool a, bool b) { return request(Req::execSync, P().flag(a).flag(b)); }
int ztModuleProxyServer::grabImage(int count) { return request(Req::grabImage, P().i32(count)); }
int ztModuleProxyServer::startGrabbingImage() { return request(Req::startGrabbingImage, P()); }
int ztModuleProxyServer::stopGrabbingImage() { return request(Req::stopGrabbingImage, P()); }

int ztModuleProxyServer::getFirmwareVersion(std::string& version)
{
    return request(Req::getFirmwareVersion, P(), [&version](const char* data, int length) {
        version.assign(data, static_cast<std::size_t>(length));
    });
}

int ztModuleProxyServer::getFirmwareVersion2(int* major, int* minor, int* patch)
{
    if (!outputsGiven(Req::getFirmwareVersion2, {major, minor, patch}))
        return -1;
    return request(Req::getFirmwareVersion2, P(), [=](const char* data, int length) {
        // Three values are read whatever the length; missing bytes read as zero.
        std::int32_t v[3] = {0, 0, 0};
        std::memcpy(v, data, static_cast<std::size_t>(length < 12 ? length : 12));
        *major = v[0];
        *minor = v[1];
        *patch = v[2];
    });
}

int ztModuleProxyServer::setPlotEnable(bool a, bool b, bool c, bool d)
{
    return request(Req::setPlotEnable, P().flag(a).flag(b).flag(c).flag(d));
}

int ztModuleProxyServer::setNeedUpload(bool upload) { return request(Req::setNeedUpload, P().flag(upload)); }

int ztModuleProxyServer::getVentoInfo(int* info)
{
    return outputsGiven(Req::getVentoInfo, {info}) ? request(Req::getVentoInfo, P(), into(info)) : -1;
}

int ztModuleProxyServer::getSystemId(unsigned long long* id)
{
    return outputsGiven(Req::getSystemId, {id}) ? request(Req::getSystemId, P(), into(id)) : -1;
}

int ztModuleProxyServer::setScanHoleParam(int a, int b, int c)
{
    return request(Req::setScanHoleParam, P().i32(a).i32(b).i32(c));
}

int ztModuleProxyServer::setSystemId(unsigned long long id) { return request(Req::setSystemId, P().u64(id)); }
int ztModuleProxyServer::setLedExposure(float exposure) { return request(Req::setLedExposure, P().f32(exposure)); }

int ztModuleProxyServer::getLedExposure(float* exposure)
{
    return outputsGiven(Req::getLedExposure, {exposure}) ? request(Req::getLedExposure, P(), into(exposure)) : -1;
}

int ztModuleProxyServer::setLZExposure(float exposure) { return request(Req::setLZExposure, P().f32(exposure)); }

int ztModuleProxyServer::getLZExposure(float* exposure)
{
    return outputsGiven(Req::getLZExposure, {exposure}) ? request(Req::getLZExposure, P(), into(exposure)) : -1;
}

int ztModuleProxyServer::setLightType(int type) { return request(Req::setLightType, P().i32(type)); }

int ztModuleProxyServer::getLightType(int* type)
{
    return outputsGiven(Req::getLightType, {type}) ? request(Req::getLightType, P(), into(type)) : -1;
}

int ztModuleProxyServer::setLZType(int type) { return request(Req::setLZType, P().i32(type)); }

int ztModuleProxyServer::getLZType(int* type)
{
    return outputsGiven(Req::getLZType, {type}) ? request(Req::getLZType, P(), into(type)) : -1;
}

int ztModuleProxyServer::setScanHeadMinDist(float distance) { return request(Req::setScanHeadMinDist, P().f32(distance)); }
int ztModuleProxyServer::setLZOpen(bool open) { return request(Req::setLZOpen, P().flag(open)); }
int ztModuleProxyServer::setScanMode(bool a, bool b) { return request(Req::setScanMode, P().flag(a).flag(b)); }

int ztModuleProxyServer::getIsBlackObject(bool* black)
{
    return outputsGiven(Req::getIsBlackObject, {black}) ? request(Req::getIsBlackObject, P(), intoBool(black)) : -1;
}

int ztModuleProxyServer::getIsHighLight(bool* high)
{
    return outputsGiven(Req::getIsHighLight, {high}) ? request(Req::getIsHighLight, P(), intoBool(high)) : -1;
}

int ztModuleProxyServer::setDeepHole(bool deep) { return request(Req::setDeepHole, P().flag(deep)); }

int ztModuleProxyServer::getIsDeepHole(bool* deep)
{
    return outputsGiven(Req::getIsDeepHole, {deep}) ? request(Req::getIsDeepHole, P(), intoBool(deep)) : -1;
}

int ztModuleProxyServer::setRangeLevel(float level) { return request(Req::setRangeLevel, P().f32(level)); }

int ztModuleProxyServer::getLZSingleFrameMaxCount(int* count)
{
    return outputsGiven(Req::getLZSingleFrameMaxCount, {count})
               ? request(Req::getLZSingleFrameMaxCount, P(), into(count))
               : -1;
}

int ztModuleProxyServer::getSupportedLight(int* lights)
{
    return outputsGiven(Req::getSupportedLight, {lights}) ? request(Req::getSupportedLight, P(), into(lights)) : -1;
}

int ztModuleProxyServer::setScannerRangeLevel(double (*rows)[3])
{
    return outputsGiven(Req::setScannerRangeLevel, {rows}) ? request(Req::setScannerRangeLevel, levels(rows)) : -1;
}

int ztModuleProxyServer::setEnableVoice(bool enable) { return request(Req::setEnableVoice, P().flag(enable)); }
int ztModuleProxyServer::setLightLevel(int level) { return request(Req::setLightLevel, P().i32(level)); }
int ztModuleProxyServer::setScanDynamicStat(int a, int b) { return request(Req::setScanDynamicStat, P().i32(a).i32(b)); }
int ztModuleProxyServer::setLZExposureFull(double exposure) { return request(Req::setLZExposureFull, P().f64(exposure)); }
int ztModuleProxyServer::setLedExposureFull(double exposure) { return request(Req::setLedExposureFull, P().f64(exposure)); }

int ztModuleProxyServer::setScanRange(double* range)
{
    return outputsGiven(Req::setScanRange, {range})
               ? request(Req::setScanRange, P().f64(range[0]).f64(range[1]).f64(range[2]))
               : -1;
}

int ztModuleProxyServer::addObjectMP(void* data, unsigned int length) { return request(Req::addObjectMP, raw(data, length)); }
int ztModuleProxyServer::resetScanMK(void* data, unsigned int length) { return request(Req::resetScanMK, raw(data, length)); }
int ztModuleProxyServer::setScannerModel(void* data, unsigned int length) { return request(Req::setScannerModel, raw(data, length)); }

int ztModuleProxyServer::setTrackerRangeLevel(double (*rows)[3], std::vector<int>& ids)
{
    if (!outputsGiven(Req::setTrackerRangeLevel, {rows}))
        return -1;
    P p = levels(rows);
    p.i32(static_cast<std::int32_t>(ids.size()));
    for (int id : ids)
        p.i32(id);
    return request(Req::setTrackerRangeLevel, p);
}

int ztModuleProxyServer::setScanPosExposure(double exposure) { return request(Req::setScanPosExposure, P().f64(exposure)); }

int ztModuleProxyServer::setScannerClbFile(const std::string& name, const std::string& path, void* data, unsigned int length)
{
    return request(Req::setScannerClbFile, P().fileBlock(name, path, data, length));
}

int ztModuleProxyServer::setLPCalibParam(int index, double value) { return request(Req::setLPCalibParam, P().i32(index).f64(value)); }
int ztModuleProxyServer::doLPNeedleWork() { return request(Req::doLPNeedleWork, P()); }

int ztModuleProxyServer::setLPClbFile(const std::string& name, const std::string& path, void* data, unsigned int length)
{
    return request(Req::setLPClbFile, P().fileBlock(name, path, data, length));
}

int ztModuleProxyServer::setLPCanWork(bool can, const std::string& text)
{
    return request(Req::setLPCanWork, P().flag(can).fixedText(text, 20));
}

int ztModuleProxyServer::setLPWorkResult(bool ok, const std::string& text)
{
    return request(Req::setLPWorkResult, P().flag(ok).fixedText(text, 20));
}

int ztModuleProxyServer::setLPModel2Vento(const std::vector<std::vector<double>>& model)
{
    P p;
    for (const auto& row : model)
        for (double v : row)
            p.f64(v);
    return request(Req::setLPModel2Vento, p);
}

int ztModuleProxyServer::setTrackerClbFile(const std::string& name, const std::string& path, void* data, unsigned int length)
{
    return request(Req::setTrackerClbFile, P().fileBlock(name, path, data, length));
}

int ztModuleProxyServer::sendHoleHighAccuracySpaceInfo(void* data, unsigned int length)
{
    return request(Req::sendHoleHighAccuracySpaceInfo, raw(data, length));
}

int ztModuleProxyServer::sendCurrent2WorldPose(void* data, unsigned int length)
{
    return request(Req::sendCurrent2WorldPose, raw(data, length));
}

int ztModuleProxyServer::sendEdgePointsInfo(void* data, unsigned int length)
{
    return request(Req::sendEdgePointsInfo, raw(data, length));
}

int ztModuleProxyServer::sendRegisterModuleRep(bool ok) { return answer(Answer::sendRegisterModuleRep, P().flag(ok)); }
int ztModuleProxyServer::sendUnRegisterModuleRep(bool ok) { return answer(Answer::sendUnRegisterModuleRep, P().flag(ok)); }

int ztModuleProxyServer::sendEnumSETFileRep(const std::vector<std::string>& names)
{
    P p;
    p.i32(static_cast<std::int32_t>(names.size()));
    for (const auto& n : names)
        p.i32(static_cast<std::int32_t>(n.size()));
    for (const auto& n : names)
        p.text(n);
    return answer(Answer::sendEnumSETFileRep, p);
}

int ztModuleProxyServer::sendSETFileMD5Rep(const std::string& md5) { return answer(Answer::sendSETFileMD5Rep, P().text(md5)); }
int ztModuleProxyServer::sendSETFileSizeRep(unsigned int size) { return answer(Answer::sendSETFileSizeRep, P().u32(size)); }
int ztModuleProxyServer::sendSETFileRep(unsigned char* data, unsigned int length) { return answer(Answer::sendSETFileRep, raw(data, length)); }
int ztModuleProxyServer::sendBDBFileSizeRep(unsigned int size) { return answer(Answer::sendBDBFileSizeRep, P().u32(size)); }
int ztModuleProxyServer::sendBDBFileRep(unsigned char* data, unsigned int length) { return answer(Answer::sendBDBFileRep, raw(data, length)); }
int ztModuleProxyServer::sendBARFileSizeRep(unsigned int size) { return answer(Answer::sendBARFileSizeRep, P().u32(size)); }
int ztModuleProxyServer::sendBARFileRep(unsigned char* data, unsigned int length) { return answer(Answer::sendBARFileRep, raw(data, length)); }
int ztModuleProxyServer::sendDeviceOnlineRep() { return answer(Answer::sendDeviceOnlineRep, P()); }
int ztModuleProxyServer::sendDeviceOfflineRep() { return answer(Answer::sendDeviceOfflineRep, P()); }
int ztModuleProxyServer::sendStatChangedRep() { return answer(Answer::sendStatChangedRep, P()); }
int ztModuleProxyServer::sendDataRep() { return answer(Answer::sendDataRep, P()); }
int ztModuleProxyServer::sendDeviceButtonRep() { return answer(Answer::sendDeviceButtonRep, P()); }
int ztModuleProxyServer::sendPreTriggerRep() { return answer(Answer::sendPreTriggerRep, P()); }
int ztModuleProxyServer::sendScanEventRsp() { return answer(Answer::sendScanEventRsp, P()); }
int ztModuleProxyServer::sendBarCalibFileRep() { return answer(Answer::sendBarCalibFileRep, P()); }
int ztModuleProxyServer::sendLPCalibFileRep() { return answer(Answer::sendLPCalibFileRep, P()); }
