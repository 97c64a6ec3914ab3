#include "platform/spr_socket.h"
#include "platform/zt_time.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace {

// A listening socket on a free loopback port, and a client connected to it.
struct Pair {
    zt_socket_t listener = SPR_CreateSocket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    zt_socket_t client = SPR_CreateSocket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    int accepted = -1;
    sockaddr_in addr{};
    explicit Pair(bool nonBlocking = false)
    {
        zt::sock::makeAddress("127.0.0.1", 0, addr);
        EXPECT_EQ(zt::sock::bindTo(listener, addr), 0);
        socklen_t len = sizeof addr;
        getsockname(listener, reinterpret_cast<sockaddr*>(&addr), &len);
        listen(listener, 4);
        EXPECT_EQ(SPR_SetNonBlock(client, nonBlocking ? 1 : 0), 0);
        if (zt::sock::connectTo(client, addr) != 0) {
            EXPECT_TRUE(nonBlocking && zt::sock::isConnectPending(zt::sock::lastError()));
        }
        accepted = accept(listener, nullptr, nullptr);
        EXPECT_GT(accepted, 0);
    }
    ~Pair()
    {
        SPR_CloseSocket(client, 0);
        SPR_CloseSocket(listener, 0);
        if (accepted > 0)
            close(accepted);
    }
};

TEST(Sockets, HandlesAreNeverZeroAndAddressesAndOptions)
{
    // With standard input closed, descriptor 0 is the first free one; the socket layer
    // must not hand it out, since 0 means "no socket" to its callers.
    const int saved = dup(0);
    close(0);
    const zt_socket_t s = SPR_CreateSocket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    EXPECT_GT(s, 0);
    EXPECT_EQ(fcntl(0, F_GETFD), -1); // 0 was given back
    dup2(saved, 0);
    close(saved);
    SPR_CloseSocket(s, 0);
    EXPECT_EQ(SPR_CreateSocket(-1, SOCK_STREAM, 0), 0);

    sockaddr_in addr{};
    EXPECT_TRUE(zt::sock::makeAddress("192.0.2.17", 42001, addr));
    EXPECT_EQ(ntohs(addr.sin_port), 42001);
    EXPECT_EQ(zt::sock::addressText(addr), "192.0.2.17");
    EXPECT_FALSE(zt::sock::makeAddress("not an address", 1, addr));
    EXPECT_FALSE(zt::sock::makeAddress("300.1.1.1", 1, addr));
    const zt_socket_t u = SPR_CreateSocket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
    EXPECT_EQ(zt::sock::setBroadcast(u, true), 0);
    int value = 0;
    socklen_t len = sizeof value;
    getsockopt(u, SOL_SOCKET, SO_BROADCAST, &value, &len);
    EXPECT_EQ(value, 1);
    SPR_CloseSocket(u, 0);
    EXPECT_EQ(zt::sock::setNoDelay(u, true), -1); // closed
    EXPECT_FALSE(zt::sock::errorText(EINVAL).empty());

    // A non-blocking connect completes; a receive with nothing there returns at once.
    Pair p(true);
    EXPECT_EQ(zt::sock::waitConnected(p.client, 3, 0), 1);
    char buf[4];
    const auto start = zt::tickMs();
    EXPECT_EQ(zt::sock::recvOnce(p.client, buf, sizeof buf), -1);
    EXPECT_LT(zt::tickMs() - start, 1000u);
    EXPECT_EQ(SPR_SetNonBlock(p.client, 0), 0);
    EXPECT_EQ(fcntl(p.client, F_GETFL) & O_NONBLOCK, 0);
}

TEST(Sockets, SendReceiveTimeOutShutDownAndAClosedPeer)
{
    Pair p;
    EXPECT_EQ(zt::sock::sendOnce(p.client, "ping", 4), 4);
    char buf[8] = {};
    EXPECT_EQ(zt::sock::recvOnce(p.accepted, buf, sizeof buf), 4);
    EXPECT_STREQ(buf, "ping");

    // An idle receive gives up after about the time set; and so does a tick count sleep.
    ASSERT_EQ(zt::sock::setRecvTimeout(p.accepted, 100), 0);
    const auto start = zt::tickMs();
    const auto ticks = zt::tickCount();
    EXPECT_EQ(zt::sock::recvOnce(p.accepted, buf, sizeof buf), -1);
    EXPECT_GE(zt::tickMs() - start, 90u);
    EXPECT_LT(zt::tickMs() - start, 1000u);
    EXPECT_GE(zt::ticksSince(ticks), 90u);
    SPR_Sleep(30);
    EXPECT_GE(zt::tickMs() - start, 120u);
    EXPECT_EQ(zt::sock::setSendTimeout(p.client, 3000), 0);

    // Shutting down both directions: the peer sees the end of the stream.
    EXPECT_EQ(SPR_ShutDown(p.client, 2), 0);
    EXPECT_EQ(zt::sock::recvOnce(p.accepted, buf, sizeof buf), 0);
    EXPECT_EQ(SPR_ShutDown(p.client, 7), -1);
    // A send after its own shutdown fails (EPIPE) without raising SIGPIPE.
    EXPECT_EQ(zt::sock::sendOnce(p.client, "x", 1), -1);

    // Sending to a peer that reset the connection fails, and raises no SIGPIPE.
    Pair q;
    ASSERT_EQ(SPR_CloseSocket(q.accepted, 1), 0); // reset at once
    q.accepted = -1;
    int rc = 0;
    char block[4096] = {};
    for (int i = 0; i < 100 && rc >= 0; ++i)
        rc = zt::sock::sendOnce(q.client, block, sizeof block);
    EXPECT_EQ(rc, -1);
}

} // namespace
