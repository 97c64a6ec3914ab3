// A simulated network head and a ztEmbeddedModuleProxyServer brought online against it,
// with everything the server's data callback was given.
#pragma once

#include "support/data_calls.h"
#include "ztEmbeddedModuleProxyServer.h"
#include "ztSimNetworkHead.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

namespace zt::test {

using Head = ztSimNetworkHead;
using Clock = std::chrono::steady_clock;
inline const char* const kIP = "127.0.0.1";

struct Online {
    Head head;
    DataCalls seen;
    ztEmbeddedModuleProxyServer server;
    void start()
    {
        ASSERT_EQ(head.start(), 0);
        server.registerModuleServerDataCB(&DataCalls::cb, &seen);
        ASSERT_EQ(server.init(kIP, kIP, "SN-0001"), 0);
        ASSERT_TRUE(server.isConnected());
    }
    // Returns just after the head received a heartbeat, so that a change made now is
    // half a period away from the next one.
    void waitForBeat()
    {
        const int beats = head.heartbeatsReceived();
        for (int i = 0; i < 2000 && head.heartbeatsReceived() == beats; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
};

inline long long msSince(Clock::time_point t0)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t0).count();
}

// The payload of an embedded message: what the data callback is given for it.
inline std::string payloadOf(const std::vector<char>& message)
{
    return std::string(message.begin() + 7, message.end() - 1);
}

// One extended-header packet of type 1280 with `size` payload bytes of `fill`.
inline std::vector<char> streamPacket(std::size_t size = 1500 - 77, char fill = 'd', unsigned long long stamp = 1)
{
    const std::string body(size, fill);
    return Head::extendedPacket(1280, stamp, body.data(), body.size());
}

} // namespace zt::test
