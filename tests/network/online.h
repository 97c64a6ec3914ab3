// A simulated network head and a ztEmbeddedModuleProxyServer brought online against it,
// with everything the server's data callback was given.
#pragma once

#include "support/data_calls.h"
#include "support/fault_scenario.h"
#include "ztEmbeddedModuleProxyServer.h"
#include "ztSimNetworkHead.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace zt::test {

using Head = ztSimNetworkHead;
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
};

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
