#include "platform/TCPServer.h"
#include "host_peer.h"
#include "support/fault_scenario.h"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>

using zt::tools::RawConnection;

namespace {

// Records what the server's events saw.
class Recorder : public zt::TCPServer {
public:
    Recorder() : zt::TCPServer(true) {}
    ~Recorder() override { stopThread(); }

    std::string received()
    {
        std::lock_guard<std::mutex> lock(m);
        return bytes;
    }
    bool waitFor(std::size_t n, int ms)
    {
        return zt::test::waitUntil(ms, [&] { return received().size() >= n; });
    }
    bool waitConnections(int n)
    {
        return zt::test::waitUntil(2000, [&] { return connectionCount() == n; });
    }
    // Listening, with a peer connected.
    void startWith(RawConnection& peer)
    {
        ASSERT_EQ(startThread(0), 0);
        ASSERT_TRUE(peer.connect("127.0.0.1", port(), 2000));
        ASSERT_TRUE(waitConnections(1));
    }

    std::atomic<int> connects{0};
    std::atomic<int> disconnects{0};
    std::atomic<bool> accept{true};
    using zt::TCPServer::resumeReceive;

protected:
    void onConnect(int, const std::string&) override { ++connects; }
    void onDisconnect(int) override { ++disconnects; }
    void onData(int, std::vector<char>& data) override
    {
        std::lock_guard<std::mutex> lock(m);
        bytes.append(data.data(), data.size());
        data.clear();
    }
    bool canReceive() override { return accept; }

private:
    std::mutex m;
    std::string bytes;
};

// What the peer receives until n bytes are there or two seconds pass.
std::string receive(RawConnection& peer, std::size_t n)
{
    const auto got = peer.readBytes(n, 2000);
    return std::string(got.begin(), got.end());
}

TEST(TCPServer, ReceivesFromEveryConnectionAndSendsToTheNewest)
{
    Recorder server;
    EXPECT_EQ(server.sendMsg("x", 1), -1); // not listening
    RawConnection a;
    server.startWith(a);
    EXPECT_EQ(server.startThread(0), -1); // already listening
    EXPECT_EQ(server.sendMsg("x", 1), 1);
    EXPECT_EQ(receive(a, 1), "x");
    RawConnection b;
    ASSERT_TRUE(b.connect("127.0.0.1", server.port(), 2000));
    ASSERT_TRUE(server.waitConnections(2));
    EXPECT_EQ(server.connects, 2);

    ASSERT_TRUE(a.sendBytes("hello ", 6));
    ASSERT_TRUE(server.waitFor(6, 2000));
    ASSERT_TRUE(b.sendBytes("world", 5));
    ASSERT_TRUE(server.waitFor(11, 2000));
    EXPECT_EQ(server.received(), "hello world");

    EXPECT_EQ(server.sendMsg("reply", 5), 5);
    EXPECT_EQ(server.sendMsg("", 0), 0);
    EXPECT_EQ(receive(b, 5), "reply");
    EXPECT_TRUE(a.readFor(50).empty());
    // The newest connection closes: the one before it is the peer again.
    b.close();
    ASSERT_TRUE(server.waitConnections(1));
    EXPECT_EQ(server.disconnects, 1);
    EXPECT_EQ(server.sendMsg("again", 5), 5);
    EXPECT_EQ(receive(a, 5), "again");
}

// Two senders of 8 MiB at once: each message arrives whole and in one piece; receiving
// paused after a block holds the peer back until resumed.
TEST(TCPServer, LargeWritesArriveWholeAndPausedReceivingWaits)
{
    Recorder server;
    RawConnection peer;
    server.startWith(peer);
    std::string big(8 << 20, '\0');
    for (std::size_t i = 0; i < big.size(); ++i)
        big[i] = static_cast<char>(i * 7);
    std::vector<char> got;
    std::thread reader([&] { got = peer.readBytes(2 * big.size(), 60000); });
    const int size = static_cast<int>(big.size());
    std::thread other([&] { EXPECT_EQ(server.sendMsg(big.data(), size), size); });
    EXPECT_EQ(server.sendMsg(big.data(), size), size);
    other.join();
    reader.join();
    ASSERT_EQ(got.size(), 2 * big.size());
    EXPECT_TRUE(std::equal(big.begin(), big.end(), got.begin()));
    EXPECT_TRUE(std::equal(big.begin(), big.end(), got.begin() + size));

    // The first block is still read (the pause is decided after it), the next waits.
    server.accept = false;
    ASSERT_TRUE(peer.sendBytes("first", 5));
    ASSERT_TRUE(server.waitFor(5, 2000));
    ASSERT_TRUE(peer.sendBytes("second", 6));
    EXPECT_FALSE(server.waitFor(6, 100));
    server.accept = true;
    server.resumeReceive();
    ASSERT_TRUE(server.waitFor(11, 2000));
    EXPECT_EQ(server.received(), "firstsecond");
}

} // namespace
