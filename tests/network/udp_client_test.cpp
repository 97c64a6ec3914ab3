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
const Bytes kRequest = embeddedMessage(0x101);

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

struct Client : ztScanEmbeddedUDPClient {
    Client()
    {
        EXPECT_EQ(init(), 0);
        EXPECT_EQ(connect("127.0.0.1", kDevicePort), 0);
    }
};

Bytes head(const unsigned char* buf, std::size_t n)
{
    return Bytes(buf, buf + n);
}

TEST(UdpClient, BroadcastExchangeReceiveAndCopies)
{
    Device device;
    Client client;
    EXPECT_FALSE(client.IsConnected());
    EXPECT_EQ(client.getBindIP(), "127.0.0.1");

    const Bytes reply = embeddedMessage(0x101, Bytes(8, 'd'));
    std::thread responder([&] {
        EXPECT_EQ(device.receive(), kRequest);
        EXPECT_EQ(device.from.port, 32002);
        device.answer(reply);
    });
    unsigned char buf[64] = {};
    EXPECT_EQ(client.sendn(reinterpret_cast<const unsigned char*>(kRequest.data()), 8, buf, sizeof buf), 0);
    responder.join();
    EXPECT_EQ(head(buf, reply.size()), reply);
    EXPECT_EQ(client.getConnectIP(), "127.0.0.1");

    // recv takes only more than 12 bytes held: a 12-byte message alone never counts. A
    // receive that gets nothing forgets the connect address (a loaded machine may need a
    // second one to get past the message), and gives up after about 30 ms.
    device.answer(embeddedMessage(9, Bytes(4, 'x')));
    EXPECT_EQ(client.recv(buf, sizeof buf), -1);
    for (int i = 0; i < 5 && !client.getConnectIP().empty(); ++i)
        EXPECT_EQ(client.recv(buf, sizeof buf), -1);
    EXPECT_EQ(client.getConnectIP(), "");
    const auto start = zt::test::Clock::now();
    EXPECT_EQ(client.recv(buf, sizeof buf), -1);
    EXPECT_GE(zt::test::msSince(start), 30);
    EXPECT_LT(zt::test::msSince(start), 1000);

    // Copies share the socket: a copy sends from the same bound port, and a deInit
    // through one copy closes it for all.
    ztScanEmbeddedUDPClient copy(client), assigned;
    assigned = client;
    EXPECT_EQ(assigned.getBindIP(), "127.0.0.1");
    const auto* request = reinterpret_cast<const unsigned char*>(kRequest.data());
    EXPECT_EQ(copy.send(request, 8), 8);
    EXPECT_EQ(device.receive(), kRequest);
    EXPECT_EQ(device.from.port, 32002);
    assigned.deInit();
    EXPECT_EQ(assigned.send(request, 8), -1);
    EXPECT_EQ(client.send(request, 8), -1);
}

TEST(UdpClient, EightByteAnswerIsNeverAccepted)
{
    Device device;
    Client client;
    std::thread responder([&] {
        device.receive();
        device.answer(embeddedMessage(2));
    });
    unsigned char buf[64];
    const auto start = zt::test::Clock::now();
    EXPECT_EQ(client.sendn(reinterpret_cast<const unsigned char*>(kRequest.data()), 8, buf, sizeof buf), -1);
    EXPECT_GE(zt::test::msSince(start), 4000);
    EXPECT_EQ(client.getConnectIP(), "127.0.0.1"); // it did arrive
    responder.join();
}

TEST(UdpClient, WithoutSocketAndBadInput)
{
    zt::test::LogCapture log;
    ztScanEmbeddedUDPClient client;
    unsigned char buf[16] = {};
    EXPECT_EQ(client.connect("127.0.0.1", kDevicePort), -1);
    EXPECT_EQ(client.sendn(buf, 8, buf, 16), -1);
    EXPECT_TRUE(log.lines().empty());

    ASSERT_EQ(client.init(), 0);
    // No destination yet (port 0): the send fails.
    EXPECT_EQ(client.sendn(buf, 8, buf, 16), -1);
    ASSERT_EQ(log.lines().size(), 1u);
    EXPECT_EQ(log.lines()[0].text.rfind("sendn:time = ", 0), 0u);
    EXPECT_EQ(client.recv(buf, 0), -1);
    EXPECT_EQ(log.count("ztScanEmbeddedUDPClient::[recv] null buffer or length out of range\n"), 1);
    client.deInit();
}

} // namespace
