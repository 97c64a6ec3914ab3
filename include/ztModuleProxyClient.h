// Device-module side of the module proxy.
//
// Runs inside the device-module process: listens for the host on the command port (9479)
// and the data port (11300), hands each host request (type 3) to the data callback on its
// own thread, sends replies (type 4) on the command channel and notifications (type 1)
// on the data channel.
#ifndef ZT_MODULE_PROXY_CLIENT_H
#define ZT_MODULE_PROXY_CLIENT_H

#include "ztProxyExport.h"
#include "ztProxyTypes.h"
#include "zt_msg.h"

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

class ztScanVentoServer;
namespace zt {
class DataCallback;
class PayloadWriter;
namespace module_proxy {
enum class Rep : unsigned char;
enum class Event : unsigned char;
enum class Query : unsigned char;
} // namespace module_proxy
} // namespace zt

class ZT_PROXY_API ztModuleProxyClient {
public:
    ztModuleProxyClient();
    ~ztModuleProxyClient();
    ztModuleProxyClient(const ztModuleProxyClient&) = delete;
    ztModuleProxyClient& operator=(const ztModuleProxyClient&) = delete;

    // Listens on the data port, then the command port, and starts the command receive
    // thread: 0, or -1 when memory, a listener or the thread cannot be had.
    int init();
    // Ends the thread and both listeners and frees the buffers; init may be called again.
    void deInit();

    // The callback receives each host request as (sub type, payload, payload length, user)
    // on the command receive thread; a later call replaces it.
    void registerModuleClientDataCB(void (*cb)(int, char*, int, void*), void* user);

    // Announces the module by name on the data channel (no answer awaited).
    int registerModule(const std::string& name);
    // Withdraws the announcement.
    int unregisterModule();

    // Replies to the host's requests (command channel). Each returns 0, whether or not a
    // host is connected.
    int sendRegisterRep(bool ok);
    int sendUnRegisterRep(bool ok);
    int sendDeviceStartRep(bool ok);
    int sendDeviceStopRep(bool ok);
    int sendHeartbeatRep(const _ZT_HEARTBEAT_INFO_& info);
    int sendPreTriggerRep(bool ok);
    int sendTriggerRep(bool ok);
    int sendSetPeriodRep(bool ok);
    int sendGetCanManualSyncRep(bool can);
    int sendGetCanWirelessSyncRep(bool can);
    int sendSetHardwareSyncModeRep(bool ok);
    int sendGetHardwareSyncModeRep(bool mode);
    int sendSetMasterRep(bool ok);
    int sendGetIsMasterRep(int master);
    int sendUpdateSyncRep(bool ok);
    int sendExecSyncRep(bool ok);
    int sendGetIsSyncRep(bool sync);
    int sendGrabImageRep(bool ok);
    int sendStartGrabbingImageRep(bool ok);
    int sendStopGrabbingImageRep(bool ok);
    int sendGetFirmwareVersionRep(const std::string& version);
    int sendGetFirmwareVersion2Rep(int major, int minor, int patch);
    int sendSetPlotEnableRep(bool ok);
    int sendSetNeedUploadRep(bool ok);
    int sendVentoInfoRep(int info);
    int sendGetSystemIdRep(unsigned long long id);
    int sendSetScanHoleParamRep(bool ok);
    int sendSetSystemIdRep(bool ok);
    int sendSetLedExposureRep(bool ok);
    int sendGetLedExposureRep(float exposure);
    int sendSetLZExposureRep(bool ok);
    int sendGetLZExposureRep(float exposure);
    int sendGetLightTypeRep(int type);
    int sendSetLightTypeRep(bool ok);
    int sendSetLZTypeRep(bool ok);
    int sendGetLZTypeRep(int type);
    int sendSetScanHeadMinDistRep(bool ok);
    int sendSetLZOpenRep(bool ok);
    int sendSetScanModeRep(bool ok);
    int sendGetIsBlackObjectRep(bool black);
    int sendGetIsHighLightRep(bool high);
    int sendSetDeepHoleRep(bool ok);
    int sendGetIsDeepHoleRep(bool deep);
    int sendSetRangeLevelRep(bool ok);
    int sendGetLZSingleFrameMaxCountRep(int count);
    int sendGetSupportedLightRep(int lights);
    int sendSetEnableVoiceRep(bool ok);
    int sendSetLightLevelRep(bool ok);
    int sendSetScanDynamicStatRep(bool ok);
    int sendSetLZExposureFullRep(bool ok);
    int sendSetLedExposureFullRep(bool ok);
    int sendSetScanRangeRep(bool ok);
    int sendAddObjectMPRep(bool ok);
    int sendResetScanMKRep(bool ok);
    int sendSetScannerModel(bool ok);
    int sendSetScanPosExposureRep(bool ok);
    int sendScannerClbFileRep(bool ok);
    int sendSetLPCalibParamRep(bool ok);
    int sendDoLPNeedleWorkRep(bool ok);
    int sendLPClbFileRep(bool ok);
    int sendSetLPCanWorkRep(bool ok);
    int sendSetLPWorkResultRep(bool ok);
    int sendSetLPModelRep(bool ok);
    int sendTrackerClbFileRep(bool ok);
    int sendSetHoleCfgRep(bool ok);
    int sendSetCurr2WorldPoseRep(bool ok);
    int sendSetTrackPose(bool ok);
    int sendSetEdgeCfgRep(bool ok);

    // Device events and files (data channel; no answer awaited).
    int sendDeviceOn(const std::string& name, std::vector<int> ids);
    // The name's length travels in one byte (modulo 256), followed by all its bytes.
    int sendDeviceOff(const std::string& name);
    int sendDeviceStatChanged(int device, int state);
    // -1 only when the message cannot be allocated; null data sends zeros.
    int sendDeviceData(unsigned long long a, int b, const unsigned char* data, unsigned int length, int d);
    int sendDeviceButton(char a, char b);
    // 0 only when the query reply buffer holds the host's pre-trigger answer, which a
    // file query left there; the answer to this pre-trigger is not waited for.
    int sendDevicePreTrigger(unsigned long long time);
    int sendScanEventRsp(int a, int b, const std::vector<char>& bytes);
    int sendLPPairingInfo(const std::string& text, int n);
    int sendLPRequestList(std::vector<lp::_ZT_LP_CONNECT_INFO_> pens);
    int sendLPOfflineWarn(lp::_LIGHTPEN_WARN_INFO_ warn);
    int sendBarCalibFile(const std::string& name, const std::string& path, void* data, unsigned int length);
    int sendLPCalibFile(const std::string& name, const std::string& path, void* data, unsigned int length);
    int sendDeviceOpenFailRet(int error);

    // File queries to the host (data channel): each waits for the host's answer of the
    // same sub type; 0 with the answer copied out, -1 on time-out or a wrong answer.
    int enumSETFile(const std::string& filter, std::vector<std::string>& names);
    int getSETFileMd5(const std::string& a, const std::string& b, std::string& md5);
    // An answer of another length than 4 still returns 0 and leaves size alone.
    int getSETFileSize(const std::string& a, const std::string& b, unsigned int* size);
    // Copies at most length bytes of the file.
    int getSETFile(const std::string& a, const std::string& b, unsigned char* data, unsigned int length);
    int getCurBDBFileSize(unsigned int* size);
    int getCurBDBFile(unsigned char* data, unsigned int length);
    int getCurBarFileSize(unsigned int* size);
    int getCurBarFile(unsigned char* data, unsigned int length);

private:
    static unsigned int onCMDChannelRecvThread(void* self);
    unsigned int onCMDChannelRecvThreadFunc();
    void processMsg(_ZT_PROXY_MSG_* msg);
    void raiseDataCB(int code, char* data, int length);
    using AnswerFn = std::function<void(const char* data, int length)>;
    static bool refused(const char* method, const zt::PayloadWriter& payload);
    // One type-4 reply on the command channel; always 0.
    int reply(zt::module_proxy::Rep id, const zt::PayloadWriter& payload);
    // One type-1 notification on the data channel: 0, or -1 when it cannot be built.
    int notify(zt::module_proxy::Event id, const zt::PayloadWriter& payload);
    // One file query: sends it and waits for the host's answer, which onAnswer receives.
    int query(zt::module_proxy::Query id, const zt::PayloadWriter& payload, const AnswerFn& onAnswer);

    ztScanVentoServer* m_pDataServer = nullptr;
    ztScanVentoServer* m_pCmdServer = nullptr;
    std::thread m_hCmdRecvThread;
    // A receive thread that stopped the module from its own callback, joined by the next
    // init or the destructor.
    std::vector<std::thread> m_leftThreads;
    std::atomic<bool> m_bStop{false};
    std::mutex m_dataMutex;
    std::mutex m_cmdMutex;
    std::unique_ptr<zt::DataCallback> m_dataCB;
    char* m_pQueryBuf = nullptr;
};

#endif
