#include "platform/TCPServer.h"
#include "host_peer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
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
        std::unique_lock<std::mutex> lock(m);
        return cv.wait_for(lock, std::chrono::milliseconds(ms), [&] { return bytes.size() >= n; });
    }
    bool waitConnections(int n, int ms)
    {
        for (int i = 0; i < ms; ++i) {
            if (connectionCount() == n)
                return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return false;
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
        cv.notify_all();
    }
    bool canReceive() override { return accept; }

private:
    std::mutex m;
    std::condition_variable cv;
    std::string bytes;
};

TEST(TCPServer, ReceivesFromEveryConnectionAndSendsToTheNewest)
{
    Recorder server;
    ASSERT_EQ(server.startThread(0), 0);
    const int port = server.port();
    ASSERT_GT(port, 0);
    EXPECT_EQ(server.sendMsg("x", 1), -1); // nobody to send to
    EXPECT_EQ(server.startThread(0), -1);  // already listening

    RawConnection a;
    RawConnection b;
    ASSERT_TRUE(a.connect("127.0.0.1", port, 2000));
    ASSERT_TRUE(server.waitConnections(1, 2000));
    ASSERT_TRUE(b.connect("127.0.0.1", port, 2000));
    ASSERT_TRUE(server.waitConnections(2, 2000));
    EXPECT_EQ(server.connects, 2);

    ASSERT_TRUE(a.sendBytes("hello ", 6));
    ASSERT_TRUE(server.waitFor(6, 2000));
    ASSERT_TRUE(b.sendBytes("world", 5));
    ASSERT_TRUE(server.waitFor(11, 2000));
    EXPECT_EQ(server.received(), "hello world");

    EXPECT_EQ(server.sendMsg("reply", 5), 5);
    EXPECT_EQ(server.sendMsg("", 0), 0);
    const auto atB = b.readFor(100);
    EXPECT_EQ(std::string(atB.begin(), atB.end()), "reply");
    EXPECT_TRUE(a.readFor(50).empty());

    // The newest connection closes: the one before it is the peer again.
    b.close();
    ASSERT_TRUE(server.waitConnections(1, 2000));
    EXPECT_EQ(server.disconnects, 1);
    EXPECT_EQ(server.sendMsg("again", 5), 5);
    const auto atA = a.readFor(100);
    EXPECT_EQ(std::string(atA.begin(), atA.end()), "again");
}

TEST(TCPServer, LargeWritesArriveWholeAndInOrder)
{
    Recorder server;
    ASSERT_EQ(server.startThread(0), 0);
    RawConnection peer;
    ASSERT_TRUE(peer.connect("127.0.0.1", server.port(), 2000));
    ASSERT_TRUE(server.waitConnections(1, 2000));
    std::string big(8 << 20, '\0');
    for (std::size_t i = 0; i < big.size(); ++i)
        big[i] = static_cast<char>(i * 7);
    std::vector<char> got;
    std::thread reader([&] {
        while (got.size() < 2 * big.size()) {
            auto part = peer.readFor(20);
            got.insert(got.end(), part.begin(), part.end());
            if (part.empty() && !peer.isOpen())
                break;
        }
    });
    // Two writers at once: each message stays whole.
    std::thread other([&] { EXPECT_EQ(server.sendMsg(big.data(), static_cast<int>(big.size())), static_cast<int>(big.size())); });
    EXPECT_EQ(server.sendMsg(big.data(), static_cast<int>(big.size())), static_cast<int>(big.size()));
    other.join();
    reader.join();
    ASSERT_EQ(got.size(), 2 * big.size());
    EXPECT_TRUE(std::equal(big.begin(), big.end(), got.begin()));
    EXPECT_TRUE(std::equal(big.begin(), big.end(), got.begin() + static_cast<std::ptrdiff_t>(big.size())));
}

TEST(TCPServer, PausedReceivingHoldsThePeerBackUntilResumed)
{
    Recorder server;
    ASSERT_EQ(server.startThread(0), 0);
    RawConnection peer;
    ASSERT_TRUE(peer.connect("127.0.0.1", server.port(), 2000));
    ASSERT_TRUE(server.waitConnections(1, 2000));
    server.accept = false;
    // The first block is still read (the pause is decided after it), the next waits.
    ASSERT_TRUE(peer.sendBytes("first", 5));
    ASSERT_TRUE(server.waitFor(5, 2000));
    ASSERT_TRUE(peer.sendBytes("second", 6));
    EXPECT_FALSE(server.waitFor(6, 200));
    server.accept = true;
    server.resumeReceive();
    ASSERT_TRUE(server.waitFor(11, 2000));
    EXPECT_EQ(server.received(), "firstsecond");
}

TEST(TCPServer, StopClosesConnectionsAndFreesThePortAtOnce)
{
    Recorder server;
    ASSERT_EQ(server.startThread(0), 0);
    const int port = server.port();
    RawConnection peer;
    ASSERT_TRUE(peer.connect("127.0.0.1", port, 2000));
    ASSERT_TRUE(server.waitConnections(1, 2000));
    ASSERT_TRUE(peer.sendBytes("x", 1));
    ASSERT_TRUE(server.waitFor(1, 2000));

    // A sender blocked on a peer that never reads is released by the stop.
    std::atomic<int> blocked{1};
    std::thread sender([&] {
        std::string big(64 << 20, 'z');
        blocked = server.sendMsg(big.data(), static_cast<int>(big.size()));
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    server.stopThread();
    sender.join();
    EXPECT_EQ(blocked, -1);
    EXPECT_TRUE(peer.peerClosed(2000));
    EXPECT_EQ(server.port(), 0);
    EXPECT_EQ(server.sendMsg("x", 1), -1);

    // The same port can be listened on again straight away.
    Recorder again;
    ASSERT_EQ(again.startThread(port), 0);
    RawConnection second;
    EXPECT_TRUE(second.connect("127.0.0.1", port, 2000));

    // A port in use is refused.
    Recorder clash;
    EXPECT_EQ(clash.startThread(port), -1);
}

} // namespace
