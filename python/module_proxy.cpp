// The module proxy: the host side (ztModuleProxyServer) and the device-module side
// (ztModuleProxyClient), with their requests, replies, events and file queries.
#include "binding.h"

#include "ztModuleProxyClient.h"
#include "ztModuleProxyServer.h"

#include <pybind11/stl.h>

#include <array>
#include <cstring>
#include <tuple>

namespace ztpy {

namespace {

using Host = ztModuleProxyServer;
using Client = ztModuleProxyClient;

// Bytes that a command hands back (a file's contents), as bytes rather than str.
struct Bytes {
    std::string data;
};

py::object toPython(const Bytes& value)
{
    return py::bytes(value.data);
}

namespace host_adapter {

#define ZT_PY_BYTES_REQUEST(method)                                                                                    \
    int method(Host& h, std::string data)                                                                              \
    {                                                                                                                  \
        return h.method(data.data(), static_cast<unsigned int>(data.size()));                                          \
    }
ZT_PY_BYTES_REQUEST(addObjectMP)
ZT_PY_BYTES_REQUEST(resetScanMK)
ZT_PY_BYTES_REQUEST(setScannerModel)
ZT_PY_BYTES_REQUEST(sendHoleHighAccuracySpaceInfo)
ZT_PY_BYTES_REQUEST(sendCurrent2WorldPose)
ZT_PY_BYTES_REQUEST(sendTrackPose)
ZT_PY_BYTES_REQUEST(sendEdgePointsInfo)
#undef ZT_PY_BYTES_REQUEST

#define ZT_PY_FILE_REQUEST(method)                                                                                     \
    int method(Host& h, std::string name, std::string path, std::string data)                                          \
    {                                                                                                                  \
        return h.method(name, path, data.data(), static_cast<unsigned int>(data.size()));                              \
    }
ZT_PY_FILE_REQUEST(setScannerClbFile)
ZT_PY_FILE_REQUEST(setLPClbFile)
ZT_PY_FILE_REQUEST(setTrackerClbFile)
#undef ZT_PY_FILE_REQUEST

#define ZT_PY_BYTES_ANSWER(method)                                                                                     \
    int method(Host& h, std::string data)                                                                              \
    {                                                                                                                  \
        return h.method(reinterpret_cast<unsigned char*>(data.data()), static_cast<unsigned int>(data.size()));        \
    }
ZT_PY_BYTES_ANSWER(sendSETFileRep)
ZT_PY_BYTES_ANSWER(sendBDBFileRep)
ZT_PY_BYTES_ANSWER(sendBARFileRep)
#undef ZT_PY_BYTES_ANSWER

int setScanRange(Host& h, std::array<double, 3> range)
{
    return h.setScanRange(range.data());
}

using Levels = std::array<std::array<double, 3>, 12>;

int setScannerRangeLevel(Host& h, Levels levels)
{
    double rows[12][3];
    std::memcpy(rows, levels.data(), sizeof rows);
    return h.setScannerRangeLevel(rows);
}

int setTrackerRangeLevel(Host& h, Levels levels, std::vector<int> ids)
{
    double rows[12][3];
    std::memcpy(rows, levels.data(), sizeof rows);
    return h.setTrackerRangeLevel(rows, ids);
}

} // namespace host_adapter

namespace client_adapter {

int sendDeviceData(Client& c, unsigned long long a, int b, std::string data, int d)
{
    return c.sendDeviceData(a, b, reinterpret_cast<const unsigned char*>(data.data()),
                            static_cast<unsigned int>(data.size()), d);
}

int sendScanEventRsp(Client& c, int a, int b, std::string bytes)
{
    return c.sendScanEventRsp(a, b, std::vector<char>(bytes.begin(), bytes.end()));
}

template <std::size_t N>
void copyText(char (&to)[N], const std::string& from)
{
    std::memset(to, 0, N);
    std::memcpy(to, from.data(), std::min(from.size(), N));
}

// Each pen as (serial, id, signal, state, battery).
int sendLPRequestList(Client& c, std::vector<std::tuple<std::string, int, int, int, int>> pens)
{
    std::vector<lp::_ZT_LP_CONNECT_INFO_> list;
    for (const auto& [serial, id, signal, state, battery] : pens) {
        lp::_ZT_LP_CONNECT_INFO_ pen{};
        copyText(pen.serial, serial);
        pen.id = id;
        pen.signal = signal;
        pen.state = state;
        pen.battery = battery;
        list.push_back(pen);
    }
    return c.sendLPRequestList(list);
}

int sendLPOfflineWarn(Client& c, std::string serial, int id, int reason, std::string message)
{
    lp::_LIGHTPEN_WARN_INFO_ warn{};
    copyText(warn.serial, serial);
    warn.id = id;
    warn.reason = reason;
    copyText(warn.message, message);
    return c.sendLPOfflineWarn(warn);
}

int sendBarCalibFile(Client& c, std::string name, std::string path, std::string data)
{
    return c.sendBarCalibFile(name, path, data.data(), static_cast<unsigned int>(data.size()));
}

int sendLPCalibFile(Client& c, std::string name, std::string path, std::string data)
{
    return c.sendLPCalibFile(name, path, data.data(), static_cast<unsigned int>(data.size()));
}

// At most length bytes of the file.
int getSETFile(Client& c, std::string a, std::string b, unsigned int length, Bytes& file)
{
    file.data.assign(length, '\0');
    return c.getSETFile(a, b, reinterpret_cast<unsigned char*>(file.data.data()), length);
}

int getCurBDBFile(Client& c, unsigned int length, Bytes& file)
{
    file.data.assign(length, '\0');
    return c.getCurBDBFile(reinterpret_cast<unsigned char*>(file.data.data()), length);
}

int getCurBarFile(Client& c, unsigned int length, Bytes& file)
{
    file.data.assign(length, '\0');
    return c.getCurBarFile(reinterpret_cast<unsigned char*>(file.data.data()), length);
}

} // namespace client_adapter

void bindHost(py::module_& m)
{
    using W = Owned<Host>;
    OwnedClass<Host> c(m, "ztModuleProxyServer",
                       "Host side of the module proxy: connects to a device module's ports 9479 and 11300.");
    c.def(py::init([] { return new W(std::make_unique<Host>()); }));
    addOwnedBasics<Host>(c, "registerModuleServerDataCB", &Host::registerModuleServerDataCB);
    c.def(
         "deInit",
         [](W& w) {
             const auto use = w.use();
             Host& host = *use;
             py::gil_scoped_release release;
             host.deInit();
         })
        .def("isRegistered", [](W& w) { return w.use()->isRegistered(); })
        .def(
            "waitRegistered",
            [](W& w, unsigned int timeoutMs) {
                const auto use = w.use();
                Host& host = *use;
                py::gil_scoped_release release;
                return host.waitRegistered(timeoutMs);
            },
            py::arg("timeout_ms"))
        .def("releaseClientSignal", [](W& w) { w.use()->releaseClientSignal(); })
        .def("releaseClient", [](W& w) {
            const auto use = w.use();
            Host& host = *use;
            py::gil_scoped_release release;
            host.releaseClient();
        })
        .def("getDataPort", [](W& w) { return w.use()->getDataPort(); });
    static_assert(sizeof(host_adapter::Levels) == sizeof(double[12][3]), "twelve rows of three doubles");
    ZT_PY_COMMAND(c, Host, init, "address");
    ZT_PY_COMMAND(c, Host, getState);
    // Requests.
    ZT_PY_COMMAND(c, Host, sendUnRegister);
    ZT_PY_COMMAND(c, Host, sendStartDevice, "work");
    ZT_PY_COMMAND(c, Host, sendStopDevice);
    ZT_PY_COMMAND(c, Host, heartbeat);
    ZT_PY_COMMAND(c, Host, sendPreTrigger);
    ZT_PY_COMMAND(c, Host, sendTrigger);
    ZT_PY_COMMAND(c, Host, setPeriod, "period");
    ZT_PY_COMMAND(c, Host, getCanManualSync);
    ZT_PY_COMMAND(c, Host, getCanWirelessSync);
    ZT_PY_COMMAND(c, Host, setHardwareSyncMode, "mode");
    ZT_PY_COMMAND(c, Host, getHardwareSyncMode);
    ZT_PY_COMMAND(c, Host, setMaster, "master");
    ZT_PY_COMMAND(c, Host, getIsMaster);
    ZT_PY_COMMAND(c, Host, updateSyncStat);
    ZT_PY_COMMAND(c, Host, execSync, "a", "b");
    ZT_PY_COMMAND(c, Host, grabImage, "count");
    ZT_PY_COMMAND(c, Host, startGrabbingImage);
    ZT_PY_COMMAND(c, Host, stopGrabbingImage);
    ZT_PY_COMMAND(c, Host, getFirmwareVersion);
    ZT_PY_COMMAND(c, Host, getFirmwareVersion2);
    ZT_PY_COMMAND(c, Host, setPlotEnable, "a", "b", "c", "d");
    ZT_PY_COMMAND(c, Host, setNeedUpload, "upload");
    ZT_PY_COMMAND(c, Host, getVentoInfo);
    ZT_PY_COMMAND(c, Host, getSystemId);
    ZT_PY_COMMAND(c, Host, setScanHoleParam, "a", "b", "c");
    ZT_PY_COMMAND(c, Host, setSystemId, "system_id");
    ZT_PY_COMMAND(c, Host, setLedExposure, "exposure");
    ZT_PY_COMMAND(c, Host, getLedExposure);
    ZT_PY_COMMAND(c, Host, setLZExposure, "exposure");
    ZT_PY_COMMAND(c, Host, getLZExposure);
    ZT_PY_COMMAND(c, Host, setLightType, "type");
    ZT_PY_COMMAND(c, Host, getLightType);
    ZT_PY_COMMAND(c, Host, setLZType, "type");
    ZT_PY_COMMAND(c, Host, getLZType);
    ZT_PY_COMMAND(c, Host, setScanHeadMinDist, "distance");
    ZT_PY_COMMAND(c, Host, setLZOpen, "open");
    ZT_PY_COMMAND(c, Host, setScanMode, "a", "b");
    ZT_PY_COMMAND(c, Host, getIsBlackObject);
    ZT_PY_COMMAND(c, Host, getIsHighLight);
    ZT_PY_COMMAND(c, Host, setDeepHole, "deep");
    ZT_PY_COMMAND(c, Host, getIsDeepHole);
    ZT_PY_COMMAND(c, Host, setRangeLevel, "level");
    ZT_PY_COMMAND(c, Host, getLZSingleFrameMaxCount);
    ZT_PY_COMMAND(c, Host, getSupportedLight);
    ZT_PY_COMMAND(c, host_adapter, setScannerRangeLevel, "levels");
    ZT_PY_COMMAND(c, Host, setEnableVoice, "enable");
    ZT_PY_COMMAND(c, Host, setLightLevel, "level");
    ZT_PY_COMMAND(c, Host, setScanDynamicStat, "a", "b");
    ZT_PY_COMMAND(c, Host, setLZExposureFull, "exposure");
    ZT_PY_COMMAND(c, Host, setLedExposureFull, "exposure");
    ZT_PY_COMMAND(c, host_adapter, setScanRange, "range");
    ZT_PY_COMMAND(c, host_adapter, addObjectMP, "data");
    ZT_PY_COMMAND(c, host_adapter, resetScanMK, "data");
    ZT_PY_COMMAND(c, host_adapter, setScannerModel, "data");
    ZT_PY_COMMAND(c, host_adapter, setTrackerRangeLevel, "levels", "ids");
    ZT_PY_COMMAND(c, Host, setScanPosExposure, "exposure");
    ZT_PY_COMMAND(c, host_adapter, setScannerClbFile, "name", "path", "data");
    ZT_PY_COMMAND(c, Host, setLPCalibParam, "index", "value");
    ZT_PY_COMMAND(c, Host, doLPNeedleWork);
    ZT_PY_COMMAND(c, host_adapter, setLPClbFile, "name", "path", "data");
    ZT_PY_COMMAND(c, Host, setLPCanWork, "can", "text");
    ZT_PY_COMMAND(c, Host, setLPWorkResult, "ok", "text");
    ZT_PY_COMMAND(c, Host, setLPModel2Vento, "model");
    ZT_PY_COMMAND(c, host_adapter, setTrackerClbFile, "name", "path", "data");
    ZT_PY_COMMAND(c, host_adapter, sendHoleHighAccuracySpaceInfo, "data");
    ZT_PY_COMMAND(c, host_adapter, sendCurrent2WorldPose, "data");
    ZT_PY_COMMAND(c, host_adapter, sendTrackPose, "data");
    ZT_PY_COMMAND(c, host_adapter, sendEdgePointsInfo, "data");
    // Answers to the module's notifications and queries.
    ZT_PY_COMMAND(c, Host, sendRegisterModuleRep, "ok");
    ZT_PY_COMMAND(c, Host, sendUnRegisterModuleRep, "ok");
    ZT_PY_COMMAND(c, Host, sendEnumSETFileRep, "names");
    ZT_PY_COMMAND(c, Host, sendSETFileMD5Rep, "md5");
    ZT_PY_COMMAND(c, Host, sendSETFileSizeRep, "size");
    ZT_PY_COMMAND(c, host_adapter, sendSETFileRep, "data");
    ZT_PY_COMMAND(c, Host, sendBDBFileSizeRep, "size");
    ZT_PY_COMMAND(c, host_adapter, sendBDBFileRep, "data");
    ZT_PY_COMMAND(c, Host, sendBARFileSizeRep, "size");
    ZT_PY_COMMAND(c, host_adapter, sendBARFileRep, "data");
    ZT_PY_COMMAND(c, Host, sendDeviceOnlineRep);
    ZT_PY_COMMAND(c, Host, sendDeviceOfflineRep);
    ZT_PY_COMMAND(c, Host, sendStatChangedRep);
    ZT_PY_COMMAND(c, Host, sendDataRep);
    ZT_PY_COMMAND(c, Host, sendDeviceButtonRep);
    ZT_PY_COMMAND(c, Host, sendPreTriggerRep);
    ZT_PY_COMMAND(c, Host, sendScanEventRsp);
    ZT_PY_COMMAND(c, Host, sendBarCalibFileRep);
    ZT_PY_COMMAND(c, Host, sendLPCalibFileRep);
}

void bindClient(py::module_& m)
{
    using W = Owned<Client>;
    OwnedClass<Client> c(m, "ztModuleProxyClient",
                         "Device-module side of the module proxy: listens on ports 9479 and 11300 for the host.");
    c.def(py::init([] { return new W(std::make_unique<Client>()); }));
    addOwnedBasics<Client>(c, "registerModuleClientDataCB", &Client::registerModuleClientDataCB);
    c.def("deInit", [](W& w) {
        const auto use = w.use();
        Client& client = *use;
        py::gil_scoped_release release;
        client.deInit();
    });
    ZT_PY_COMMAND(c, Client, init);
    ZT_PY_COMMAND(c, Client, registerModule, "name");
    ZT_PY_COMMAND(c, Client, unregisterModule);
    // Replies to the host's requests.
    ZT_PY_COMMAND(c, Client, sendRegisterRep, "ok");
    ZT_PY_COMMAND(c, Client, sendUnRegisterRep, "ok");
    ZT_PY_COMMAND(c, Client, sendDeviceStartRep, "ok");
    ZT_PY_COMMAND(c, Client, sendDeviceStopRep, "ok");
    ZT_PY_COMMAND(c, Client, sendHeartbeatRep, "info");
    ZT_PY_COMMAND(c, Client, sendPreTriggerRep, "ok");
    ZT_PY_COMMAND(c, Client, sendTriggerRep, "ok");
    ZT_PY_COMMAND(c, Client, sendSetPeriodRep, "ok");
    ZT_PY_COMMAND(c, Client, sendGetCanManualSyncRep, "can");
    ZT_PY_COMMAND(c, Client, sendGetCanWirelessSyncRep, "can");
    ZT_PY_COMMAND(c, Client, sendSetHardwareSyncModeRep, "ok");
    ZT_PY_COMMAND(c, Client, sendGetHardwareSyncModeRep, "mode");
    ZT_PY_COMMAND(c, Client, sendSetMasterRep, "ok");
    ZT_PY_COMMAND(c, Client, sendGetIsMasterRep, "master");
    ZT_PY_COMMAND(c, Client, sendUpdateSyncRep, "ok");
    ZT_PY_COMMAND(c, Client, sendExecSyncRep, "ok");
    ZT_PY_COMMAND(c, Client, sendGetIsSyncRep, "sync");
    ZT_PY_COMMAND(c, Client, sendGrabImageRep, "ok");
    ZT_PY_COMMAND(c, Client, sendStartGrabbingImageRep, "ok");
    ZT_PY_COMMAND(c, Client, sendStopGrabbingImageRep, "ok");
    ZT_PY_COMMAND(c, Client, sendGetFirmwareVersionRep, "version");
    ZT_PY_COMMAND(c, Client, sendGetFirmwareVersion2Rep, "major", "minor", "patch");
    ZT_PY_COMMAND(c, Client, sendSetPlotEnableRep, "ok");
    ZT_PY_COMMAND(c, Client, sendSetNeedUploadRep, "ok");
    ZT_PY_COMMAND(c, Client, sendVentoInfoRep, "info");
    ZT_PY_COMMAND(c, Client, sendGetSystemIdRep, "system_id");
    ZT_PY_COMMAND(c, Client, sendSetScanHoleParamRep, "ok");
    ZT_PY_COMMAND(c, Client, sendSetSystemIdRep, "ok");
    ZT_PY_COMMAND(c, Client, sendSetLedExposureRep, "ok");
    ZT_PY_COMMAND(c, Client, sendGetLedExposureRep, "exposure");
    ZT_PY_COMMAND(c, Client, sendSetLZExposureRep, "ok");
    ZT_PY_COMMAND(c, Client, sendGetLZExposureRep, "exposure");
    ZT_PY_COMMAND(c, Client, sendGetLightTypeRep, "type");
    ZT_PY_COMMAND(c, Client, sendSetLightTypeRep, "ok");
    ZT_PY_COMMAND(c, Client, sendSetLZTypeRep, "ok");
    ZT_PY_COMMAND(c, Client, sendGetLZTypeRep, "type");
    ZT_PY_COMMAND(c, Client, sendSetScanHeadMinDistRep, "ok");
    ZT_PY_COMMAND(c, Client, sendSetLZOpenRep, "ok");
    ZT_PY_COMMAND(c, Client, sendSetScanModeRep, "ok");
    ZT_PY_COMMAND(c, Client, sendGetIsBlackObjectRep, "black");
    ZT_PY_COMMAND(c, Client, sendGetIsHighLightRep, "high");
    ZT_PY_COMMAND(c, Client, sendSetDeepHoleRep, "ok");
    ZT_PY_COMMAND(c, Client, sendGetIsDeepHoleRep, "deep");
    ZT_PY_COMMAND(c, Client, sendSetRangeLevelRep, "ok");
    ZT_PY_COMMAND(c, Client, sendGetLZSingleFrameMaxCountRep, "count");
    ZT_PY_COMMAND(c, Client, sendGetSupportedLightRep, "lights");
    ZT_PY_COMMAND(c, Client, sendSetEnableVoiceRep, "ok");
    ZT_PY_COMMAND(c, Client, sendSetLightLevelRep, "ok");
    ZT_PY_COMMAND(c, Client, sendSetScanDynamicStatRep, "ok");
    ZT_PY_COMMAND(c, Client, sendSetLZExposureFullRep, "ok");
    ZT_PY_COMMAND(c, Client, sendSetLedExposureFullRep, "ok");
    ZT_PY_COMMAND(c, Client, sendSetScanRangeRep, "ok");
    ZT_PY_COMMAND(c, Client, sendAddObjectMPRep, "ok");
    ZT_PY_COMMAND(c, Client, sendResetScanMKRep, "ok");
    ZT_PY_COMMAND(c, Client, sendSetScannerModel, "ok");
    ZT_PY_COMMAND(c, Client, sendSetScanPosExposureRep, "ok");
    ZT_PY_COMMAND(c, Client, sendScannerClbFileRep, "ok");
    ZT_PY_COMMAND(c, Client, sendSetLPCalibParamRep, "ok");
    ZT_PY_COMMAND(c, Client, sendDoLPNeedleWorkRep, "ok");
    ZT_PY_COMMAND(c, Client, sendLPClbFileRep, "ok");
    ZT_PY_COMMAND(c, Client, sendSetLPCanWorkRep, "ok");
    ZT_PY_COMMAND(c, Client, sendSetLPWorkResultRep, "ok");
    ZT_PY_COMMAND(c, Client, sendSetLPModelRep, "ok");
    ZT_PY_COMMAND(c, Client, sendTrackerClbFileRep, "ok");
    ZT_PY_COMMAND(c, Client, sendSetHoleCfgRep, "ok");
    ZT_PY_COMMAND(c, Client, sendSetCurr2WorldPoseRep, "ok");
    ZT_PY_COMMAND(c, Client, sendSetTrackPose, "ok");
    ZT_PY_COMMAND(c, Client, sendSetEdgeCfgRep, "ok");
    // Device events and files.
    ZT_PY_COMMAND(c, Client, sendDeviceOn, "name", "ids");
    ZT_PY_COMMAND(c, Client, sendDeviceOff, "name");
    ZT_PY_COMMAND(c, Client, sendDeviceStatChanged, "device", "state");
    ZT_PY_COMMAND(c, client_adapter, sendDeviceData, "a", "b", "data", "d");
    ZT_PY_COMMAND(c, Client, sendDeviceButton, "a", "b");
    ZT_PY_COMMAND(c, Client, sendDevicePreTrigger, "time");
    ZT_PY_COMMAND(c, client_adapter, sendScanEventRsp, "a", "b", "data");
    ZT_PY_COMMAND(c, Client, sendLPPairingInfo, "text", "n");
    ZT_PY_COMMAND(c, client_adapter, sendLPRequestList, "pens");
    ZT_PY_COMMAND(c, client_adapter, sendLPOfflineWarn, "serial", "id", "reason", "message");
    ZT_PY_COMMAND(c, client_adapter, sendBarCalibFile, "name", "path", "data");
    ZT_PY_COMMAND(c, client_adapter, sendLPCalibFile, "name", "path", "data");
    ZT_PY_COMMAND(c, Client, sendDeviceOpenFailRet, "error");
    // File queries to the host.
    ZT_PY_COMMAND(c, Client, enumSETFile, "filter");
    ZT_PY_COMMAND(c, Client, getSETFileMd5, "a", "b");
    ZT_PY_COMMAND(c, Client, getSETFileSize, "a", "b");
    ZT_PY_COMMAND(c, client_adapter, getSETFile, "a", "b", "length");
    ZT_PY_COMMAND(c, Client, getCurBDBFileSize);
    ZT_PY_COMMAND(c, client_adapter, getCurBDBFile, "length");
    ZT_PY_COMMAND(c, Client, getCurBarFileSize);
    ZT_PY_COMMAND(c, client_adapter, getCurBarFile, "length");
}

} // namespace

void bindModuleProxy(py::module_& m)
{
    bindHost(m);
    bindClient(m);
}

} // namespace ztpy
