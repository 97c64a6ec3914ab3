// The non-blocking TCP socket against plain loopback peers, in a private namespace.
#include "network/EmbeddedTcpSocket.h"
#include "network/peer.h"
#include "platform/zt_time.h"
#include "support/log_capture.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

using zt::EmbeddedTcpSocket;
using namespace zt::test;

namespace {

const Bytes kRequest = embedded(2, "");

// A connected socket and the accepted peer.
struct Link {
    TcpListener listener;
    EmbeddedTcpSocket s;
    int peer = -1;
    Link()
    {
        EXPECT_EQ(s.create(), 0);
        EXPECT_EQ(s.connect("127.0.0.1", "127.0.0.1", listener.port), 0);
        EXPECT_EQ(s.isConnected(), 1);
        peer = listener.accept();
    }
    ~Link() { ::close(peer); }
};

TEST(EmbeddedTcpSocket, SendnAssemblesSplitRepliesAndDropsTheRest)
{
    Link l;
    const Bytes reply = embedded(264, "0123456789AB"), next = embedded(5, "");
    std::thread answer([&] {
        EXPECT_EQ(readBytes(l.peer, 8), kRequest);
        sendBytes(l.peer, Bytes(reply.begin(), reply.begin() + 5));
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        Bytes rest(reply.begin() + 5, reply.end());
        rest.insert(rest.end(), next.begin(), next.begin() + 6); // start of a message, discarded
        sendBytes(l.peer, rest);
        EXPECT_EQ(readBytes(l.peer, 8), kRequest);
        sendBytes(l.peer, next);
    });
    Bytes buf(64, 0);
    EXPECT_EQ(l.s.sendn(kRequest.data(), 8, buf.data(), 64), 0);
    EXPECT_EQ(Bytes(buf.begin(), buf.begin() + 20), reply);
    // The next exchange starts from an empty accumulation: the six leftover bytes are gone.
    EXPECT_EQ(l.s.sendn(kRequest.data(), 8, buf.data(), 64), 0);
    EXPECT_EQ(Bytes(buf.begin(), buf.begin() + 8), next);
    answer.join();

    // On the non-blocking socket an idle receive fails at once and clears the flag.
    EXPECT_EQ(l.s.receive(buf.data(), 64), -1);
    EXPECT_EQ(l.s.isConnected(), 0);
}

// A reply larger than the capacity stays in the accumulation until the time-out.
void expectOversizedReplyTimesOut(unsigned int timeoutMs, bool fixedWindow)
{
    Link l;
    sendBytes(l.peer, embedded(3, "0123456789AB"));
    Bytes buf(19);
    const auto start = zt::tickMs();
    EXPECT_EQ(fixedWindow ? l.s.sendn(kRequest.data(), 8, buf.data(), 19)
                          : l.s.sendn(kRequest.data(), 8, buf.data(), 19, timeoutMs),
              -1);
    const auto took = zt::tickMs() - start;
    EXPECT_GE(took, timeoutMs);
    EXPECT_LT(took, timeoutMs + 500);
}

TEST(EmbeddedTcpSocket, OversizedReplyTimesOutAfterTheCallersTimeout)
{
    expectOversizedReplyTimesOut(300, false);
}

TEST(EmbeddedTcpSocket, OversizedReplyTimesOutAfterFiveSeconds)
{
    expectOversizedReplyTimesOut(EmbeddedTcpSocket::kReplyWindowMs, true);
}

TEST(EmbeddedTcpSocket, ConnectToSilentPeerTimesOut)
{
    // Backlog 0, never accepted: once one connection waits in the queue, the kernel drops
    // further connection requests without an answer.
    TcpListener l(0);
    EmbeddedTcpSocket queued;
    queued.create();
    ASSERT_EQ(queued.connect("127.0.0.1", "127.0.0.1", l.port), 0);
    LogCapture log;
    EmbeddedTcpSocket s;
    ASSERT_EQ(s.create(), 0);
    const auto start = zt::tickMs();
    EXPECT_EQ(s.connect("127.0.0.2", "127.0.0.1", l.port), EmbeddedTcpSocket::kConnectTimeout);
    const auto took = zt::tickMs() - start;
    EXPECT_GE(took, 2990u);
    EXPECT_LT(took, 3500u);
    EXPECT_EQ(log.count("connect timeout, localIP: 127.0.0.2, remoteIP: 127.0.0.1"), 1);
}

TEST(EmbeddedTcpSocket, FailuresAndBadInput)
{
    LogCapture log;
    EmbeddedTcpSocket s;
    char buf[16] = {};
    EXPECT_EQ(s.connect("127.0.0.1", "127.0.0.1", 1), -1);
    EXPECT_EQ(s.send(buf, 8), -1);
    EXPECT_EQ(s.receive(buf, 8), -1);
    EXPECT_EQ(s.sendn(buf, 8, buf, 16), -1);
    ASSERT_EQ(s.create(), 0);
    EXPECT_EQ(s.connect("not an address", "127.0.0.1", 1), -1);
    EXPECT_TRUE(log.lines().empty());

    // Nothing listens: a refused connect never completes (as on Windows), so it is a
    // connect time-out, known at once; the send of sendn then fails and logs.
    unsigned short port = TcpListener().port;
    EXPECT_EQ(s.connect("127.0.0.1", "127.0.0.1", port), EmbeddedTcpSocket::kConnectTimeout);
    EXPECT_EQ(s.isConnected(), 0);
    EXPECT_EQ(s.sendn(buf, 8, buf, 16), -1);
    ASSERT_EQ(log.lines().size(), 2u);
    EXPECT_EQ(log.lines()[0].text, "connect timeout, localIP: 127.0.0.1, remoteIP: 127.0.0.1");
    EXPECT_EQ(log.lines()[1].text.rfind("sendn: time = ", 0), 0u);
    EXPECT_EQ(log.lines()[1].level, ZTLOG_LEVEL_ERROR);

    EXPECT_EQ(s.sendn(nullptr, 8, buf, 16), -1);
    EXPECT_EQ(s.sendn(buf, 8, buf, 0), -1);
    EXPECT_EQ(s.send(buf, -1), -1);
    EXPECT_EQ(log.count("EmbeddedTcpSocket::[sendn] null buffer or length below 1\n"), 2);
    EXPECT_EQ(log.count("EmbeddedTcpSocket::[send] null buffer or length below 1\n"), 1);
    s.close();
    EXPECT_EQ(s.socket(), 0);
}

} // namespace
