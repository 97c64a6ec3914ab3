// Host side of the module proxy.
//
// Connects out to a device module (ztModuleProxyClient) on its command port (9479) and
// data port (11300), registers, and keeps the session: requests (type 3) go out on the
// command channel and wait for the module's reply (type 4); the module's notifications
// and queries (type 1) arrive on the data channel and reach the data callback; the host
// answers them (type 2) on the data channel. Every operation returns 0 on success and -1
// on failure.
#ifndef ZT_MODULE_PROXY_SERVER_H
#define ZT_MODULE_PROXY_SERVER_H

#include "ztProxyExport.h"
#include "ztProxyTypes.h"
#include "zt_msg.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace zt {
class ProxyTcpSocket;
class ProxyFramer;
class DataCallback;
class PayloadWriter;
namespace module_proxy {
enum class Req : unsigned char;
enum class Answer : unsigned char;
} // namespace module_proxy
} // namespace zt

class ZT_PROXY_API ztModuleProxyServer {
public:
    ztModuleProxyServer();
    ~ztModuleProxyServer();
    ztModuleProxyServer(const ztModuleProxyServer&) = delete;
    ztModuleProxyServer& operator=(const ztModuleProxyServer&) = delete;

    // Starts the process, data receive and connect threads; connection attempts to
    // address begin at once and repeat every 200 ms until both channels stand.
    int init(const std::string& address);
    // Ends the three threads (the data receive thread's pending receive is woken by
    // shutting its socket down) and closes both channels.
    void deInit();

    // Whether the session stands: both channels connected and the register exchange
    // answered. Requests sent before that fail with -1.
    bool isRegistered();
    // Waits up to timeoutMs for the session to stand; its state at the end.
    bool waitRegistered(unsigned int timeoutMs);

    // The callback receives each module notification as (sub type, payload, length, user)
    // on the process thread.
    void registerModuleServerDataCB(void (*cb)(int, char*, int, void*), void* user);
    // Asks the connect thread to drop both channels and build the session anew; safe from
    // any thread, a callback included.
    void releaseClientSignal();
    // Shuts down and closes both channels.
    void releaseClient();
    int getDataPort();
    int getState(_ZT_DEVICE_STATUS_* status);

    // Requests (command channel).
    int sendUnRegister();
    int sendStartDevice(_ZT_WORK_BUSINESS_ work);
    int sendStopDevice();
    int heartbeat(_ZT_HEARTBEAT_INFO_* info);
    int sendPreTrigger();
    int sendTrigger();
    int setPeriod(int period);
    int getCanManualSync(bool* can);
    int getCanWirelessSync(bool* can);
    int setHardwareSyncMode(int mode);
    int getHardwareSyncMode(int* mode);
    int setMaster(bool master);
    int getIsMaster(int* master);
    int updateSyncStat();
    int execSync(bool a, bool b);
    int grabImage(int count);
    int startGrabbingImage();
    int stopGrabbingImage();
    int getFirmwareVersion(std::string& version);
    int getFirmwareVersion2(int* major, int* minor, int* patch);
    int setPlotEnable(bool a, bool b, bool c, bool d);
    int setNeedUpload(bool upload);
    int getVentoInfo(int* info);
    int getSystemId(unsigned long long* id);
    int setScanHoleParam(int a, int b, int c);
    int setSystemId(unsigned long long id);
    int setLedExposure(float exposure);
    int getLedExposure(float* exposure);
    int setLZExposure(float exposure);
    int getLZExposure(float* exposure);
    int setLightType(int type);
    int getLightType(int* type);
    int setLZType(int type);
    int getLZType(int* type);
    int setScanHeadMinDist(float distance);
    int setLZOpen(bool open);
    int setScanMode(bool a, bool b);
    int getIsBlackObject(bool* black);
    int getIsHighLight(bool* high);
    int setDeepHole(bool deep);
    int getIsDeepHole(bool* deep);
    int setRangeLevel(float level);
    int getLZSingleFrameMaxCount(int* count);
    int getSupportedLight(int* lights);
    // 12 rows of 3 doubles.
    int setScannerRangeLevel(double (*levels)[3]);
    int setEnableVoice(bool enable);
    int setLightLevel(int level);
    int setScanDynamicStat(int a, int b);
    int setLZExposureFull(double exposure);
    int setLedExposureFull(double exposure);
    // Three doubles.
    int setScanRange(double* range);
    int addObjectMP(void* data, unsigned int length);
    int resetScanMK(void* data, unsigned int length);
    int setScannerModel(void* data, unsigned int length);
    // 12 rows of 3 doubles, then the ids.
    int setTrackerRangeLevel(double (*levels)[3], std::vector<int>& ids);
    int setScanPosExposure(double exposure);
    int setScannerClbFile(const std::string& name, const std::string& path, void* data, unsigned int length);
    int setLPCalibParam(int index, double value);
    int doLPNeedleWork();
    int setLPClbFile(const std::string& name, const std::string& path, void* data, unsigned int length);
    // The flag, then exactly 20 bytes of text (zero-padded when shorter).
    int setLPCanWork(bool can, const std::string& text);
    int setLPWorkResult(bool ok, const std::string& text);
    // The model's doubles, row after row.
    int setLPModel2Vento(const std::vector<std::vector<double>>& model);
    int setTrackerClbFile(const std::string& name, const std::string& path, void* data, unsigned int length);
    int sendHoleHighAccuracySpaceInfo(void* data, unsigned int length);
    int sendCurrent2WorldPose(void* data, unsigned int length);
    // Sent at once, without waiting for a reply.
    int sendTrackPose(void* data, unsigned int length);
    int sendEdgePointsInfo(void* data, unsigned int length);

    // Answers to the module's notifications and queries (data channel).
    int sendRegisterModuleRep(bool ok);
    int sendUnRegisterModuleRep(bool ok);
    int sendEnumSETFileRep(const std::vector<std::string>& names);
    int sendSETFileMD5Rep(const std::string& md5);
    int sendSETFileSizeRep(unsigned int size);
    int sendSETFileRep(unsigned char* data, unsigned int length);
    int sendBDBFileSizeRep(unsigned int size);
    int sendBDBFileRep(unsigned char* data, unsigned int length);
    int sendBARFileSizeRep(unsigned int size);
    int sendBARFileRep(unsigned char* data, unsigned int length);
    int sendDeviceOnlineRep();
    int sendDeviceOfflineRep();
    int sendStatChangedRep();
    int sendDataRep();
    int sendDeviceButtonRep();
    int sendPreTriggerRep();
    int sendScanEventRsp();
    int sendBarCalibFileRep();
    int sendLPCalibFileRep();

private:
    class SocketSlot;
    using ReplyFn = std::function<void(const char* data, int length)>;

    static unsigned int onSocketConnectThread(void* self);
    static unsigned int onDataChannelRecvThread(void* self);
    static unsigned int onProcessThread(void* self);
    unsigned int onSocketConnectThreadFunc();
    unsigned int onDataChannelRecvThreadFunc();
    unsigned int onProcessThreadFunc();

    int sendRegister();
    // Runs one request of the catalogue; onReply receives the reply's payload once the
    // reply passed its checks.
    int request(zt::module_proxy::Req id, const zt::PayloadWriter& payload, const ReplyFn& onReply = nullptr);
    int answer(zt::module_proxy::Answer id, const zt::PayloadWriter& payload);
    void dropSockets();
    void setRegistered(bool registered);
    void processMsg(_ZT_PROXY_MSG_* msg);
    void raiseDataCB(int code, char* data, int length);

    std::string m_address;
    std::unique_ptr<SocketSlot> m_dataSocket;
    std::unique_ptr<SocketSlot> m_cmdSocket;
    std::thread m_hConnectThread;
    std::thread m_hDataRecvThread;
    std::thread m_hProcessThread;
    // Workers that stopped the host from their own callback, joined by the next init or the
    // destructor.
    std::vector<std::thread> m_leftThreads;
    std::atomic<bool> m_bStop{false};
    std::mutex m_cmdMutex;
    std::mutex m_dataMutex;
    char* m_pReplyBuf = nullptr;
    std::mutex m_recvQueueMutex;
    std::unique_ptr<zt::ProxyFramer> m_recvQueue;
    std::unique_ptr<zt::DataCallback> m_dataCB;
    std::atomic<bool> m_bReleaseRequest{false};
    int m_dataPort = 0;
    std::mutex m_registeredMutex;
    std::condition_variable m_registeredChanged;
    bool m_registered = false; // guarded by m_registeredMutex
};

#endif
