// An owner that destroys its device server in the offline callback (283), as a host does
// before it builds a new one, and tells when that has happened. Every call can be recorded
// on the way.
#pragma once

#include "support/data_calls.h"
#include "support/fault_scenario.h"
#include "ztProxyTypes.h"

#include <atomic>
#include <memory>

namespace zt::test {

template <class Server>
struct DestroyOnOffline {
    std::unique_ptr<Server> server;
    DataCalls* record;
    std::atomic<bool> gone{false};

    // Registers the callback on server; the owner brings it online itself.
    explicit DestroyOnOffline(std::unique_ptr<Server> s, DataCalls* recordTo = nullptr)
        : server(std::move(s)), record(recordTo)
    {
        server->registerModuleServerDataCB(&DestroyOnOffline::cb, this);
    }

    static void cb(int type, char* data, int len, void* user)
    {
        auto* self = static_cast<DestroyOnOffline*>(user);
        if (self->record != nullptr)
            DataCalls::cb(type, data, len, self->record);
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
