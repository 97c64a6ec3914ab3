#include "host_peer.h"
#include "network/TcpClient.h"
#include "platform/zt_time.h"

#include <gtest/gtest.h>

#ifdef _WIN32
#  ifndef WIN32_LEAN_AND_MEAN
#    define WIN32_LEAN_AND_MEAN
#  endif
#  ifndef NOMINMAX
#    define NOMINMAX
#  endif
#  include <windows.h>
#endif

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <thread>

using namespace testing::internal;
using zt::tools::RawConnection;
using zt::tools::RawListener;

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

TEST(TcpClient, BlocksInOrderConcurrentSendersReconnectOnSendAndTeardownWhileReceiving)
{
    RawListener l;
    ASSERT_TRUE(l.listen(0));
    CaptureStdout();
    auto client = std::make_shared<net::TcpClient>("127.0.0.1", l.port());
    EXPECT_EQ(GetCapturedStdout(), "Connect to server: 127.0.0.1:" + std::to_string(l.port()) + " success!\n");
    Recorder rec(*client);
    RawConnection peer;
    ASSERT_TRUE(l.accept(peer, 2000));
    for (const char* block : {"one", "two"}) {
        peer.sendBytes(block, 3);
        ASSERT_TRUE(rec.waitFor([&] { return !rec.blocks.empty() && rec.blocks.back() == block; }));
    }
    EXPECT_EQ(rec.blocks, (std::vector<std::string>{"one", "two"}));

    // Two senders at once, the echo read back by the receiver: every byte once.
    std::thread echo([&] { peer.sendBytes(peer.readBytes(20000, 5000)); });
    auto sender = [&](char c) {
        for (int i = 0; i < 200; ++i)
            EXPECT_EQ(client->send(std::string(50, c)), 50);
    };
    std::thread a(sender, 'a'), b(sender, 'b');
    a.join();
    b.join();
    echo.join();
    ASSERT_TRUE(rec.waitFor([&] { return rec.bytes == 20006; }));
    EXPECT_EQ(rec.aCount, 10000u);

    // The server closes: reported once; the next send connects again before sending.
    peer.close();
    ASSERT_TRUE(rec.waitFor([&] { return rec.connections.size() == 1; }));
    EXPECT_FALSE(client->isConnected());
    EXPECT_EQ(client->send(std::string("again")), 5);
    ASSERT_TRUE(l.accept(peer, 2000));
    EXPECT_EQ(peer.readBytes(5, 3000), (std::vector<char>{'a', 'g', 'a', 'i', 'n'}));
    EXPECT_TRUE(rec.waitFor([&] { return rec.connections == std::vector<bool>{false, true}; }));
    peer.sendBytes("3", 1);
    EXPECT_TRUE(rec.waitFor([&] { return rec.blocks.back() == "3"; }));
    // Destruction while the receiver waits in a receive that the server never ends.
    const auto start = zt::tickMs();
    client.reset();
    EXPECT_LT(zt::tickMs() - start, 500u);
    EXPECT_EQ(rec.errors, 0);
}

// A connection the server resets is a receive error: reported once through the error
// callback and the log, not as a close.
TEST(TcpClient, ResetConnectionIsAReceiveError)
{
#ifdef _WIN32
    // Wine closes a socket in order even with a zero linger time, so a Windows program run
    // there cannot reset a connection.
    if (GetProcAddress(GetModuleHandleA("ntdll.dll"), "wine_get_version") != nullptr)
        GTEST_SKIP() << "no connection reset from a program under Wine";
#endif
    RawListener listener;
    ASSERT_TRUE(listener.listen(0, 1));
    CaptureStdout();
    auto client = std::make_shared<net::TcpClient>("127.0.0.1", listener.port());
    GetCapturedStdout();
    Recorder rec(*client);
    RawConnection peer;
    ASSERT_TRUE(listener.accept(peer, 3000));
    CaptureStderr();
    peer.abort();
    EXPECT_TRUE(rec.waitFor([&] { return rec.errors == 1; }));
    EXPECT_TRUE(rec.connections.empty());
    client.reset();
    EXPECT_EQ(GetCapturedStderr(), "net::TcpClient: recvThreadFunc:recv error!\n");
    EXPECT_EQ(rec.errors, 1);
}

} // namespace
