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
#include <mutex>
#include <string>
#include <thread>

class ztScanVentoServer;

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

    // Replies to the host's register and unregister requests.
    int sendRegisterRep(bool ok);
    int sendUnRegisterRep(bool ok);

private:
    static unsigned int onCMDChannelRecvThread(void* self);
    unsigned int onCMDChannelRecvThreadFunc();
    void processMsg(_ZT_PROXY_MSG_* msg);
    void raiseDataCB(int code, char* data, int length);
    // Sends one type-4 reply on the command channel; always 0.
    int sendReply(unsigned int subType, const void* payload, int length);

    ztScanVentoServer* m_pDataServer = nullptr;
    ztScanVentoServer* m_pCmdServer = nullptr;
    std::thread m_hCmdRecvThread;
    std::atomic<bool> m_bStop{false};
    std::mutex m_dataMutex;
    std::mutex m_cmdMutex;
    std::mutex m_cbMutex; // guards the callback pair against replacement during a call
    void (*m_pDataCB)(int, char*, int, void*) = nullptr;
    void* m_pUser = nullptr;
    char* m_pQueryBuf = nullptr;
};

#endif
