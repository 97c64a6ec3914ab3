#include "platform/spr_socket.h"
#include "platform/zt_time.h"

#include <gtest/gtest.h>

#include <unistd.h>

namespace {

// A listening socket on a free loopback port, and a client connected to it.
struct Pair {
    zt_socket_t listener = SPR_CreateSocket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    zt_socket_t client = SPR_CreateSocket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    int accepted = -1;
    Pair()
    {
        sockaddr_in addr{};
        zt::sock::makeAddress("127.0.0.1", 0, addr);
        EXPECT_EQ(zt::sock::bindTo(listener, addr), 0);
        socklen_t len = sizeof addr;
        getsockname(listener, reinterpret_cast<sockaddr*>(&addr), &len);
        listen(listener, 4);
        EXPECT_EQ(zt::sock::connectTo(client, addr), 0);
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
