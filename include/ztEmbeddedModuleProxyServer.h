// Host-side link to a network scanner head.
//
// init opens four TCP connections to the head's port 42001 (command, data, command-data,
// light-pen, always in this order), starts the receive, processing, heartbeat and
// light-pen threads, reads the head's ability record and SET files and raises callback
// code 284 (online). A heartbeat goes out every 500 ms on the command-data connection;
// five silent periods in a row release the connections and raise 283 (offline).
// Everything the head sends reaches the data callback as (message type, payload, length).
#ifndef ZT_EMBEDDED_MODULE_PROXY_SERVER_H
#define ZT_EMBEDDED_MODULE_PROXY_SERVER_H

#include "ztDeviceCommandSet.h"
#include "ztProxyExport.h"
#include "ztProxyTypes.h"

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace ztCamera {
class QlensNetProto;
}
namespace zt {
class EmbeddedTcpSocket;
class DataCallback;
class ByteQueue;
template <class T>
class SharedSlot;
} // namespace zt

class ZT_PROXY_API ztEmbeddedModuleProxyServer : public ztDeviceCommandSet {
public:
    // Connect time-out result of init. An enumerator rather than a static member: a program
    // that takes the constant by reference links against the Windows DLL too, which does
    // not export class data.
    enum : int { kConnectTimeout = 205 };

    ztEmbeddedModuleProxyServer();
    ~ztEmbeddedModuleProxyServer() override;
    ztEmbeddedModuleProxyServer(const ztEmbeddedModuleProxyServer&) = delete;
    ztEmbeddedModuleProxyServer& operator=(const ztEmbeddedModuleProxyServer&) = delete;

    // Starts the threads and runs the connection procedure on the calling thread: 0 when
    // the head is online or the procedure ran as far as it could, -1 on failure, 205 when
    // a connection timed out. Connections already up are kept; a later init connects only
    // the missing ones.
    int init(const std::string& localIP, const std::string& remoteIP, const std::string& deviceSN);
    void deInit();

    bool isConnected();
    int getDataPort();
    std::string getDeviceSN();
    void setHeartBeatAlive(bool alive);
    // Closes the four connections. The receive and processing threads end with it: only
    // deInit followed by init (or a new object) receives again.
    void releaseClient();
    // The next init releases all connections first.
    void releaseClientSignal();
    int sendHeartbeat();
    // Sends the bytes on the light-pen connection.
    int sendData(std::string& data);
    // One receive on the light-pen connection: the bytes up to the first zero byte.
    int recvOnceData(std::string& out);

    void registerModuleServerDataCB(void (*cb)(int, char*, int, void*), void* user);
    void raiseDataCB(int type, void* data, int len);
    // Raises the callback with a whole embedded message's type and payload: 0, -1 for a
    // bad head (logged), -2 for null.
    int processMsg(char* msg);
    // The same for the command-data path: bad messages are dropped without a log.
    void processMsg_Cmd(char* msg);
    // Discards any partial packet held by the data connection's decoders.
    void resetQlensNetProto();

    // Parsers of callback payloads.
    void analysisAlarmInfo(char* data, int* code, unsigned char* a, unsigned char* b);
    void analysisSyncInfo(char* data, int* code, unsigned short* a, unsigned short* b);
    void analysisAngleInfo(char* data, int* code, std::vector<float>* angles);
    void analysisTempInfo(char* data, int* code, std::vector<float>* temps);
    void analysisLightPenFindList(char* data, int& first, lp::_ZT_LP_FIND_LIST_& list);
    int getMarkerData(char* data, short* width, short* height, unsigned long long* stamp, char* header,
                      std::vector<std::vector<double>>& markers, char** next);

    // Commands only the network head offers (the rest come from ztDeviceCommandSet).
    int switchHardwareFrameRate(int type);
    int getHardwareFrameRateType(int& type);
    int preheatRKWithTrigger(int value);
    // The temperatures arrive through the data callback.
    int getTemp();
    // The RGF file arrives through the data callback.
    int getRGFFile();

    // Light-pen text packets: 20-byte frames "*", four identifier characters, a two-byte
    // key, a value character, reserved 0xFF bytes, the trailer key 6 7, 0xFF and "#".
    // They are only built here; send them with sendData.
    void dataInitSet(const std::string& deviceId, std::string& out, int n);
    void setKey(int pos, std::string& out);
    void selectDeviceParaCMDSet(int pos, std::string& out);
    void setLPEnabled(bool enable, int pos, std::string& out);
    void setLPWorkResult(bool result, int pos, std::string& out);
    void packageLPCanWork(const std::string& deviceId, bool enable, std::string& out);
    void packageLPWorkResult(const std::string& deviceId, bool result, std::string& out);
    void packageSelectFirewareVersion(const std::string& deviceId, std::string& out);

private:
    // The command exchange on the command connection.
    struct CommandLink;
    zt::commands::Link& commandLink() override;
    void describeForRecording(zt::RecorderCore& recorder) override;

    struct Accumulator;
    using Slot = zt::SharedSlot<zt::EmbeddedTcpSocket>;

    // The connection procedure, run by init on the calling thread.
    static unsigned int onSocketConnectThread(void* self);
    unsigned int onSocketConnectThreadFunc();
    static unsigned int onDataChannelRecvThread(void* self);
    static unsigned int onProcessThread(void* self);
    static unsigned int onCommandChannelRecvThread(void* self);
    static unsigned int onCMDProcessThread(void* self);
    static unsigned int onCMDHeartBeatSendThread(void* self);
    static unsigned int onLPProcessThread(void* self);
    unsigned int onDataChannelRecvThreadFunc();
    unsigned int onProcessThreadFunc();
    unsigned int onCommandChannelRecvThreadFunc();
    unsigned int onCMDProcessThreadFunc();
    unsigned int onCMDHeartBeatSendThreadFunc();
    unsigned int onLPProcessThreadFunc();

    // Raises 285 with everything the light-pen connection delivered so far.
    void processMag_LP();
    bool rawMode();
    // Forgets a thread handle so that a new thread may start; the thread itself is joined
    // when the object goes.
    void forgetThread(std::thread& handle);

    std::atomic<bool> m_bConnected{false};
    std::string m_localIP;
    std::string m_remoteIP;
    std::string m_deviceSN;
    std::unique_ptr<Slot> m_cmdTcp;
    std::unique_ptr<Slot> m_dataTcp;
    std::unique_ptr<Slot> m_cmdDataTcp;
    std::unique_ptr<Slot> m_lpTcp;
    std::thread m_hDataRecvThread;
    std::thread m_hProcessThread;
    std::thread m_hCmdDataRecvThread;
    std::thread m_hCmdProcessThread;
    std::thread m_hHeartBeatThread;
    std::thread m_hLPThread;
    std::vector<std::thread> m_forgottenThreads;
    // Workers that stopped the server from their own callback, joined by the next init or
    // the destructor.
    std::vector<std::thread> m_leftThreads;
    std::atomic<bool> m_bStop{false};
    std::atomic<bool> m_bHeartBeatStop{false};
    int m_dataPort = 0;
    std::mutex m_cmdMutex;
    std::mutex m_connectMutex;
    std::unique_ptr<zt::DataCallback> m_dataCB;
    char* m_pCmdReplyBuf = nullptr;
    char* m_pAuxBuf = nullptr;
    std::unique_ptr<Accumulator> m_dataVec;
    std::unique_ptr<Accumulator> m_cmd_vec;
    std::unique_ptr<Accumulator> m_lpVec;
    std::atomic<bool> m_bReleaseRequest{false};
    std::atomic<bool> m_bHeartBeatAlive{false};
    std::atomic<int> m_missedHeartBeats{0};
    int m_lpFrameIndexA = 7;
    int m_lpFrameIndexB = 5;
    std::mutex m_decoderMutex;
    std::unique_ptr<ztCamera::QlensNetProto> m_decoder1;
    std::unique_ptr<ztCamera::QlensNetProto> m_decoder2;
    mutable std::mutex m_modelMutex;
    std::string m_deviceModel;
    std::unique_ptr<CommandLink> m_link;
};

#endif
