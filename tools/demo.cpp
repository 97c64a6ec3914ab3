#include "demo.h"

#include "host_peer.h"

#include "ztModuleProxyClient.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <deque>
#include <mutex>
#include <string>

namespace zt::tools {

namespace {

constexpr const char* kLoopback = "127.0.0.1";
constexpr int kWaitMs = 3000;

// What the module's data callback saw, handed from the module's thread to the demo.
struct Request {
    int code;
    std::vector<char> payload;
};

struct ModuleSide {
    ztModuleProxyClient client;
    std::mutex mutex;
    std::condition_variable arrived;
    std::deque<Request> requests;

    static void onRequest(int code, char* data, int length, void* user)
    {
        auto* self = static_cast<ModuleSide*>(user);
        // The module answers the session requests from inside its callback.
        if (code == 0x00001)
            self->client.sendRegisterRep(true);
        else if (code == 0x00002)
            self->client.sendUnRegisterRep(true);
        std::lock_guard<std::mutex> lock(self->mutex);
        self->requests.push_back({code, std::vector<char>(data, data + (length > 0 ? length : 0))});
        self->arrived.notify_all();
    }

    bool next(Request& out, int timeoutMs)
    {
        std::unique_lock<std::mutex> lock(mutex);
        if (!arrived.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] { return !requests.empty(); }))
            return false;
        out = std::move(requests.front());
        requests.pop_front();
        return true;
    }
};

bool check(bool ok, const char* what)
{
    if (!ok)
        std::fprintf(stderr, "demo: %s\n", what);
    return ok;
}

void showReply(const ProxyMessage& m)
{
    std::int32_t value = 0;
    if (m.payload.size() >= 4)
        std::memcpy(&value, m.payload.data(), 4);
    std::printf("  host   <- reply   type %d sub 0x%05X len %zu value %d\n", m.type, m.subType, m.payload.size(), value);
}

// Sends one request and waits for the module's callback to see it.
bool request(RawConnection& cmd, ModuleSide& module, std::uint32_t sub, const void* payload, int length,
             const char* what, Request& seen)
{
    std::printf("  host   -> request type 3 sub 0x%05X len %d  (%s)\n", sub, length, what);
    if (!check(cmd.sendBytes(proxyMessage(3, sub, payload, length)), "cannot send on the command channel"))
        return false;
    if (!check(module.next(seen, kWaitMs) && seen.code == static_cast<int>(sub),
               "the module's callback did not receive the request"))
        return false;
    std::printf("  module    callback code 0x%05X with %zu payload bytes\n", seen.code, seen.payload.size());
    return true;
}

} // namespace

int runModuleProxyDemo()
{
    std::printf("== module proxy: a device module and a host on loopback ==\n");
    ModuleSide module;
    module.client.registerModuleClientDataCB(&ModuleSide::onRequest, &module);
    if (module.client.init() != 0) {
        std::fprintf(stderr, "demo: the module cannot listen on ports 11300 and 9479 (in use?)\n");
        return 1;
    }
    std::printf("  module    listening: data channel on 11300, command channel on 9479\n");

    RawConnection cmd;
    RawConnection data;
    if (!check(cmd.connect(kLoopback, 9479, kWaitMs) && data.connect(kLoopback, 11300, kWaitMs),
               "the host cannot connect to the module"))
        return 1;
    std::printf("  host      connected both channels\n");

    Request seen;
    ProxyMessage m;
    if (!request(cmd, module, 0x00001, nullptr, 0, "register", seen))
        return 1;
    if (!check(cmd.readMessage(m, kWaitMs) && m.type == 4 && m.subType == 0x00001 && m.payload.size() == 4,
               "no register reply"))
        return 1;
    showReply(m);
    std::printf("  register exchange complete\n");

    // The module announces itself on the data channel, which the host accepted by now.
    std::printf("  module    registerModule(\"demo-scanner\")\n");
    module.client.registerModule("demo-scanner");
    if (!check(data.readMessage(m, kWaitMs), "no announcement on the data channel"))
        return 1;
    std::printf("  host   <- notify  type %d sub 0x%05X name \"%.*s\"\n", m.type, m.subType,
                static_cast<int>(m.payload.size()), m.payload.data());

    const float exposure = 12.5f;
    if (!request(cmd, module, 0x20002, &exposure, sizeof exposure, "setLZExposure 12.5", seen))
        return 1;
    float got = 0;
    std::memcpy(&got, seen.payload.data(), sizeof got);
    std::printf("  module    exposure value %.1f\n", static_cast<double>(got));

    // A notification type and a bad magic on the command channel are dropped silently;
    // the trigger request behind them still arrives.
    std::printf("  host   -> type 1 sub 0x10005 and a message with a bad magic (both dropped)\n");
    auto badMagic = proxyMessage(3, 0x10005, nullptr, 0);
    badMagic[0] = 0x00;
    cmd.sendBytes(proxyMessage(1, 0x10005, nullptr, 0));
    cmd.sendBytes(badMagic);
    if (!request(cmd, module, 0x10005, nullptr, 0, "sendTrigger", seen))
        return 1;

    if (!request(cmd, module, 0x00002, nullptr, 0, "unregister", seen))
        return 1;
    if (!check(cmd.readMessage(m, kWaitMs) && m.type == 4 && m.subType == 0x00002, "no unregister reply"))
        return 1;
    showReply(m);

    module.client.deInit();
    std::printf("  module    stopped; 4 requests delivered, 2 replies sent, 2 messages dropped\n");
    return 0;
}

} // namespace zt::tools
