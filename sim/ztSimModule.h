// A simulated device module: a ztModuleProxyClient whose data callback answers every host
// request with the reply that the module side offers for it, from a settable state.
// Values set by a host request are returned by the matching getter. Requests without a
// reply on the module side (setScannerRangeLevel, setTrackerRangeLevel) go unanswered.
#pragma once

#include "ztModuleProxyClient.h"
#include "ztProxyTypes.h"

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

// What the simulated module reports and what host requests set.
struct ztSimModuleState {
    bool replyOk = true; // the value of every acknowledgement and status reply
    int period = 0;
    bool canManualSync = true;
    bool canWirelessSync = false;
    int hardwareSyncMode = 1;
    bool master = false;
    int isMaster = 0;
    std::string firmwareVersion = "ZT-MOD 2.4.1";
    int firmwareVersion2[3] = {2, 4, 1};
    int ventoInfo = 7;
    unsigned long long systemId = 0x5A54000000000001ull;
    float ledExposure = 1.5f;
    float lzExposure = 2.5f;
    int lightType = 1;
    int lzType = 2;
    bool lzOpen = false;
    bool blackObject = false;
    bool highLight = true;
    bool deepHole = false;
    int singleFrameMaxCount = 16;
    int supportedLight = 3;
    _ZT_HEARTBEAT_INFO_ heartbeat{};
};

class ztSimModule {
public:
    // One request as the module's callback received it.
    struct Request {
        int code;
        std::vector<char> payload;
    };

    ztSimModule();
    ~ztSimModule();
    ztSimModule(const ztSimModule&) = delete;
    ztSimModule& operator=(const ztSimModule&) = delete;

    // Listens on the module ports (0 on success).
    int start();
    void stop();

    ztModuleProxyClient& client() { return m_client; }

    ztSimModuleState state();
    void setState(const ztSimModuleState& state);
    // While silent, requests are recorded but not answered.
    void setSilent(bool silent);

    // The host's name of a request code (heartbeat, setPeriod, ...), or null for a code
    // that is no request.
    static const char* requestName(int code);

    // The next request received, waiting up to timeoutMs; false on time-out.
    bool nextRequest(Request& out, int timeoutMs);
    std::size_t pendingRequests();
    void clearRequests();

private:
    static void onRequest(int code, char* data, int length, void* user);
    void handle(int code, const char* data, int length);

    ztModuleProxyClient m_client;
    std::mutex m_mutex;
    std::condition_variable m_arrived;
    ztSimModuleState m_state;
    bool m_silent = false;
    std::deque<Request> m_requests;
};
