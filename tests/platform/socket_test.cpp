#include "platform/spr_socket.h"
#include "platform/zt_time.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace {

// A listening socket on a free loopback port.
struct Listener {
    zt_socket_t s = SPR_CreateSocket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    sockaddr_in addr{};
    explicit Listener(int backlog = 4)
    {
        zt::sock::makeAddress("127.0.0.1", 0, addr);
        EXPECT_EQ(zt::sock::bindTo(s, addr), 0);
        socklen_t len = sizeof addr;
        getsockname(s, reinterpret_cast<sockaddr*>(&addr), &len);
        listen(s, backlog);
    }
    ~Listener() { SPR_CloseSocket(s, 0); }
};

TEST(Sockets, HandlesAreNeverZero)
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
}

TEST(Sockets, ConnectSendReceiveAndShutdown)
{
    Listener l;
    const zt_socket_t c = SPR_CreateSocket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    ASSERT_EQ(zt::sock::connectTo(c, l.addr), 0);
    const int a = accept(l.s, nullptr, nullptr);
    ASSERT_GT(a, 0);
    EXPECT_EQ(zt::sock::sendOnce(c, "ping", 4), 4);
    char buf[8] = {};
    EXPECT_EQ(zt::sock::recvOnce(a, buf, sizeof buf), 4);
    EXPECT_STREQ(buf, "ping");

    // Receive time-out: an idle receive gives up after about the time set.
    ASSERT_EQ(zt::sock::setRecvTimeout(a, 100), 0);
    const auto start = zt::tickMs();
    EXPECT_EQ(zt::sock::recvOnce(a, buf, sizeof buf), -1);
    const auto waited = zt::tickMs() - start;
    EXPECT_GE(waited, 90u);
    EXPECT_LT(waited, 1000u);
    EXPECT_EQ(zt::sock::setSendTimeout(c, 3000), 0);

    // Shutting down both directions: the peer sees the end of the stream.
    EXPECT_EQ(SPR_ShutDown(c, 2), 0);
    EXPECT_EQ(zt::sock::recvOnce(a, buf, sizeof buf), 0);
    EXPECT_EQ(SPR_ShutDown(c, 7), -1);
    SPR_CloseSocket(c, 0);
    close(a);
}

TEST(Sockets, SendingToAClosedPeerFailsWithoutASignal)
{
    Listener l;
    const zt_socket_t c = SPR_CreateSocket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    ASSERT_EQ(zt::sock::connectTo(c, l.addr), 0);
    const int a = accept(l.s, nullptr, nullptr);
    ASSERT_EQ(SPR_CloseSocket(a, 1), 0); // reset at once
    int rc = 0;
    char block[4096] = {};
    for (int i = 0; i < 100 && rc >= 0; ++i)
        rc = zt::sock::sendOnce(c, block, sizeof block);
    EXPECT_EQ(rc, -1); // and the process is still here: no SIGPIPE
    SPR_CloseSocket(c, 0);
}

TEST(Sockets, NonBlockingConnectAndWritability)
{
    Listener l;
    const zt_socket_t c = SPR_CreateSocket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    ASSERT_EQ(SPR_SetNonBlock(c, 1), 0);
    EXPECT_NE(fcntl(c, F_GETFL) & O_NONBLOCK, 0);
    sockaddr_in local{};
    zt::sock::makeAddress("127.0.0.1", 0, local);
    EXPECT_EQ(zt::sock::bindTo(c, local), 0);
    if (zt::sock::connectTo(c, l.addr) != 0) {
        EXPECT_TRUE(zt::sock::isConnectPending(zt::sock::lastError()));
    }
    EXPECT_EQ(zt::sock::waitConnected(c, 3, 0), 1);
    // A non-blocking receive with nothing there returns at once.
    char buf[4];
    const auto start = zt::tickMs();
    EXPECT_EQ(zt::sock::recvOnce(c, buf, sizeof buf), -1);
    EXPECT_LT(zt::tickMs() - start, 50u);
    EXPECT_EQ(SPR_SetNonBlock(c, 0), 0);
    EXPECT_EQ(fcntl(c, F_GETFL) & O_NONBLOCK, 0);
    SPR_CloseSocket(c, 0);
}

TEST(Sockets, AddressesAndOptions)
{
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
}

TEST(Ticks, CountAndSleep)
{
    const auto t0 = zt::tickCount();
    const auto m0 = zt::tickMs();
    SPR_Sleep(30);
    EXPECT_GE(zt::ticksSince(t0), 29u);
    EXPECT_GE(zt::tickMs() - m0, 29u);
    EXPECT_LT(zt::tickMs() - m0, 1000u);
}

} // namespace
