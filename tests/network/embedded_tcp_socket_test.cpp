// The non-blocking TCP socket against a plain loopback peer, in a private namespace.
#include "host_peer.h"
#include "network/EmbeddedTcpSocket.h"
#include "platform/zt_time.h"
#include "support/log_capture.h"
#include "support/tcp_unread.h"

#include <gtest/gtest.h>

#include <thread>

using zt::EmbeddedTcpSocket;
using zt::tools::embeddedMessage;
using zt::tools::joined;

namespace {

const auto kRequest = embeddedMessage(2);

// A connected socket and the accepted peer.
struct Link {
    zt::tools::RawListener listener;
    EmbeddedTcpSocket s;
    zt::tools::RawConnection peer;
    Link()
    {
        EXPECT_TRUE(listener.listen(0));
        EXPECT_EQ(s.create(), 0);
        EXPECT_EQ(s.connect("127.0.0.1", "127.0.0.1", listener.port()), 0);
        EXPECT_EQ(s.isConnected(), 1);
        EXPECT_TRUE(listener.accept(peer, 2000));
    }
};

TEST(EmbeddedTcpSocket, SendnAssemblesSplitRepliesDropsTheRestAndTimesOut)
{
    Link l;
    const auto reply = embeddedMessage(264, std::vector<char>(12, 'r')), next = embeddedMessage(5);
    std::thread answer([&] {
        EXPECT_EQ(l.peer.readBytes(8, 3000), kRequest);
        l.peer.sendBytes(reply.data(), 5);
        EXPECT_TRUE(zt::test::tcpInputTaken());
        // The rest, then the start of a message that is discarded.
        l.peer.sendBytes(joined({std::vector<char>(reply.begin() + 5, reply.end()), std::vector<char>(next.begin(), next.begin() + 6)}));
        EXPECT_EQ(l.peer.readBytes(8, 3000), kRequest);
        l.peer.sendBytes(next);
    });
    std::vector<char> buf(64, 0);
    EXPECT_EQ(l.s.sendn(kRequest.data(), 8, buf.data(), 64), 0);
    EXPECT_EQ(std::vector<char>(buf.begin(), buf.begin() + 20), reply);
    // The next exchange starts from an empty accumulation: the six leftover bytes are gone.
    EXPECT_EQ(l.s.sendn(kRequest.data(), 8, buf.data(), 64), 0);
    EXPECT_EQ(std::vector<char>(buf.begin(), buf.begin() + 8), next);
    answer.join();

    // A reply larger than the capacity stays in the accumulation until the caller's time-out.
    l.peer.sendBytes(reply);
    const auto start = zt::tickMs();
    EXPECT_EQ(l.s.sendn(kRequest.data(), 8, buf.data(), 19, 300), -1);
    EXPECT_GE(zt::tickMs() - start, 300u);
    EXPECT_LT(zt::tickMs() - start, 800u);

    // On the non-blocking socket an idle receive fails at once and clears the flag.
    EXPECT_EQ(l.s.receive(buf.data(), 64), -1);
    EXPECT_EQ(l.s.isConnected(), 0);
}

TEST(EmbeddedTcpSocket, FailuresAndBadInput)
{
    zt::test::LogCapture log;
    EmbeddedTcpSocket s;
    char buf[16] = {};
    EXPECT_EQ(s.connect("127.0.0.1", "127.0.0.1", 1), -1); // no socket yet
    EXPECT_EQ(s.sendn(buf, 8, buf, 16), -1);
    ASSERT_EQ(s.create(), 0);
    EXPECT_EQ(s.connect("not an address", "127.0.0.1", 1), -1);
    EXPECT_TRUE(log.lines().empty());

    // Nothing listens: a refused connect never completes (as on Windows), so it is a
    // connect time-out, known at once; the send of sendn then fails and logs.
    int port = 0;
    {
        zt::tools::RawListener closed;
        ASSERT_TRUE(closed.listen(0));
        port = closed.port();
    }
    EXPECT_EQ(s.connect("127.0.0.1", "127.0.0.1", port), EmbeddedTcpSocket::kConnectTimeout);
    EXPECT_EQ(s.isConnected(), 0);
    EXPECT_EQ(s.sendn(buf, 8, buf, 16), -1);
    ASSERT_EQ(log.lines().size(), 2u);
    EXPECT_EQ(log.lines()[0].text, "connect timeout, localIP: 127.0.0.1, remoteIP: 127.0.0.1");
    EXPECT_EQ(log.lines()[1].text.rfind("sendn: time = ", 0), 0u);
    EXPECT_EQ(log.lines()[1].level, ZTLOG_LEVEL_ERROR);

    EXPECT_EQ(s.sendn(buf, 8, buf, 0), -1);
    EXPECT_EQ(s.send(buf, -1), -1);
    EXPECT_EQ(log.count("EmbeddedTcpSocket::[sendn] null buffer or length below 1\n"), 1);
    EXPECT_EQ(log.count("EmbeddedTcpSocket::[send] null buffer or length below 1\n"), 1);
    s.close();
    EXPECT_EQ(s.socket(), 0);
}

} // namespace
