// The exported UDP client through the shared library, in a private namespace where
// broadcasts are routed to loopback.
#include "host_peer.h"
#include "sim_socket.h"
#include "support/fault_scenario.h"
#include "support/log_capture.h"
#include "ztScanEmbeddedUDPClient.h"

#include <gtest/gtest.h>

#include <thread>

using zt::tools::embeddedMessage;
using Bytes = std::vector<char>;

namespace {

constexpr unsigned short kDevicePort = 40000;

// The head's socket, bound to any address of the namespace (only loopback exists):
// broadcasts reach no socket bound to 127.0.0.1 alone.
struct Device {
    zt::simnet::Socket fd = zt::simnet::openUdp("0.0.0.0", kDevicePort);
    zt::simnet::Endpoint from{};
    Device() { EXPECT_NE(fd, zt::simnet::kNoSocket); }
    ~Device() { zt::simnet::closeSocket(fd); }
    // One datagram (empty after 2 s without one), its sender in from.
    Bytes receive()
    {
        Bytes b(256);
        zt::simnet::Wait w{fd, zt::simnet::kReadable, 0};
        const long n = zt::simnet::waitFor(&w, 1, 2000) == 1 ? zt::simnet::recvFrom(fd, b.data(), 256, from) : 0;
        b.resize(static_cast<std::size_t>(std::max<long>(n, 0)));
        return b;
    }
    void answer(const Bytes& b) { zt::simnet::sendTo(fd, b.data(), b.size(), {0x7F000001, 32002}); }
};

TEST(UdpClient, EightByteAnswerIsNeverAccepted)
{
    Device device;
    ztScanEmbeddedUDPClient client;
    ASSERT_EQ(client.init(), 0);
    ASSERT_EQ(client.connect("127.0.0.1", kDevicePort), 0);
    std::thread responder([&] {
        device.receive();
        device.answer(embeddedMessage(2));
    });
    const Bytes request = embeddedMessage(0x101);
    unsigned char buf[64];
    const auto start = zt::test::Clock::now();
    EXPECT_EQ(client.sendn(reinterpret_cast<const unsigned char*>(request.data()), 8, buf, sizeof buf), -1);
    EXPECT_GE(zt::test::msSince(start), 4000);
    EXPECT_EQ(client.getConnectIP(), "127.0.0.1"); // it did arrive
    responder.join();
}

} // namespace
