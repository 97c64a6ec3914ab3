// An owner that destroys its device server in the offline callback (283), as a host does
// before it builds a new one, and tells when that has happened.
#pragma once

#include "support/fault_scenario.h"
#include "ztProxyTypes.h"

#include <atomic>
#include <memory>

namespace zt::test {

template <class Server>
struct DestroyOnOffline {
    std::unique_ptr<Server> server;
    std::atomic<bool> gone{false};

    // Registers the callback on server; the owner brings it online itself.
    explicit DestroyOnOffline(std::unique_ptr<Server> s) : server(std::move(s))
    {
        server->registerModuleServerDataCB(&DestroyOnOffline::cb, this);
    }

    static void cb(int type, char*, int, void* user)
    {
        auto* self = static_cast<DestroyOnOffline*>(user);
        if (type == ZT_CODE_DEVICE_OFFLINE) {
            self->server.reset();
            self->gone = true;
        }
    }

    bool waitGone(int timeoutMs)
    {
        return waitUntil(timeoutMs, [&] { return gone.load(); });
    }
};

} // namespace zt::test
