#include "network/TcpClient.h"
#include "network/peer.h"
#include "platform/zt_time.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

using namespace zt::test;
using namespace testing::internal;

namespace {

// Records the callbacks of a client and lets the test wait for them.
struct Recorder {
    std::mutex m;
    std::condition_variable cv;
    std::vector<std::string> blocks;
    std::size_t bytes = 0, aCount = 0;
    std::vector<bool> connections;
    int errors = 0;

    explicit Recorder(net::TcpClient& c)
    {
        c.setDataCallback([this](const char* d, size_t n) {
            record([&] {
                blocks.emplace_back(d, n);
                bytes += n;
                aCount += static_cast<std::size_t>(std::count(d, d + n, 'a'));
            });
        });
        c.setConnectionCallback([this](const std::string&, bool up) { record([&] { connections.push_back(up); }); });
        c.setErrorCallback([this](net::TcpClient&) { record([&] { ++errors; }); });
    }
    template <class F>
    void record(F f)
    {
        std::lock_guard<std::mutex> l(m);
        f();
        cv.notify_all();
    }
    template <class Pred>
    bool waitFor(Pred pred)
    {
        std::unique_lock<std::mutex> l(m);
        return cv.wait_for(l, std::chrono::seconds(3), pred);
    }
};

TEST(TcpClient, NoServerParksTheReceiverAndTearsDown)
{
    const unsigned short port = TcpListener().port; // closed again at once
    CaptureStderr();
    auto client = std::make_shared<net::TcpClient>("127.0.0.1", port);
    Recorder rec(*client);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_FALSE(client->isConnected());
    const auto start = zt::tickMs();
    client.reset();
    EXPECT_LT(zt::tickMs() - start, 500u);
    // A receiver that had passed the gate would have logged a receive error.
    EXPECT_EQ(GetCapturedStderr(), "net::TcpClient: Can not connect to server: 127.0.0.1:" + std::to_string(port) + "\n");
    EXPECT_EQ(rec.errors, 0);
}

TEST(TcpClient, BlocksInOrderReconnectOnSendAndTeardownWhileReceiving)
{
    TcpListener l;
    CaptureStdout();
    auto client = std::make_shared<net::TcpClient>("127.0.0.1", l.port);
    EXPECT_EQ(GetCapturedStdout(), "Connect to server: 127.0.0.1:" + std::to_string(l.port) + " success!\n");
    Recorder rec(*client);
    int peer = l.accept();

    sendBytes(peer, Bytes{'o', 'n', 'e'});
    ASSERT_TRUE(rec.waitFor([&] { return rec.blocks.size() == 1; }));
    sendBytes(peer, Bytes{'t', 'w', 'o'});
    ASSERT_TRUE(rec.waitFor([&] { return rec.blocks.size() == 2; }));
    EXPECT_EQ(rec.blocks, (std::vector<std::string>{"one", "two"}));

    // The server closes: reported once; the next send connects again before sending.
    ::close(peer);
    ASSERT_TRUE(rec.waitFor([&] { return rec.connections.size() == 1; }));
    EXPECT_FALSE(client->isConnected());
    EXPECT_EQ(client->send(std::string("again")), 5);
    peer = l.accept();
    EXPECT_EQ(readBytes(peer, 5), (Bytes{'a', 'g', 'a', 'i', 'n'}));
    EXPECT_TRUE(rec.waitFor([&] { return rec.connections == std::vector<bool>{false, true}; }));
    sendBytes(peer, Bytes{'3'});
    EXPECT_TRUE(rec.waitFor([&] { return rec.blocks.back() == "3"; }));

    // Destruction while the receiver waits in a receive that the server never ends.
    const auto start = zt::tickMs();
    client.reset();
    EXPECT_LT(zt::tickMs() - start, 500u);
    EXPECT_EQ(rec.errors, 0);
    ::close(peer);
}

TEST(TcpClient, ConcurrentSendersAndReceiver)
{
    TcpListener l;
    CaptureStdout();
    auto client = std::make_shared<net::TcpClient>("127.0.0.1", l.port);
    GetCapturedStdout();
    Recorder rec(*client);
    const int peer = l.accept();
    std::thread echo([&] { sendBytes(peer, readBytes(peer, 20000)); });
    auto sender = [&](char c) {
        for (int i = 0; i < 200; ++i)
            EXPECT_EQ(client->send(std::string(50, c)), 50);
    };
    std::thread a(sender, 'a'), b(sender, 'b');
    a.join();
    b.join();
    echo.join();
    ASSERT_TRUE(rec.waitFor([&] { return rec.bytes == 20000; }));
    EXPECT_EQ(rec.aCount, 10000u);
    client.reset(); // before the recorder goes
    ::close(peer);
}

} // namespace
