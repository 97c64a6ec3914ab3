// The module-side listener's receive: polling, capacity and time-out rules.
#include "module_proxy/ztScanVentoServer.h"
#include "host_peer.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>
#include <vector>

using zt::tools::proxyMessage;
using zt::tools::RawConnection;

namespace {

using Clock = std::chrono::steady_clock;

long msSince(Clock::time_point t)
{
    return static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t).count());
}

TEST(ScanVentoServer, ReceiveTakesOneMessagePerCallWithinItsTimeOut)
{
    ztScanVentoServer server(0xA00000);
    ASSERT_EQ(server.startThread(0), 0);
    std::vector<char> dst(1 << 16, '\0');

    // Nothing there: -1 after the time-out, no sooner.
    auto t = Clock::now();
    EXPECT_EQ(server.recv(dst.data(), dst.size(), 100), -1);
    EXPECT_GE(msSince(t), 100);
    EXPECT_LT(msSince(t), 400);

    RawConnection a, b;
    ASSERT_TRUE(a.connect("127.0.0.1", server.port(), 2000));
    ASSERT_TRUE(b.connect("127.0.0.1", server.port(), 2000));
    // Bytes of every connection meet in one accumulation, in arrival order.
    ASSERT_TRUE(a.sendBytes(proxyMessage(3, 0x10005, "a", 1)));
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    ASSERT_TRUE(b.sendBytes(proxyMessage(3, 0x10006, "bb", 2)));
    ASSERT_EQ(server.recv(dst.data(), dst.size(), 1000), 0);
    EXPECT_EQ(zt_msg_get_sub_type(dst.data()), 0x10005u);
    EXPECT_EQ(zt_msg_get_full_size(dst.data()), 17);
    ASSERT_EQ(server.recv(dst.data(), dst.size(), 1000), 0);
    EXPECT_EQ(zt_msg_get_sub_type(dst.data()), 0x10006u);

    // A receive already waiting takes a message as soon as its last byte is in, not at
    // the end of a polling period.
    Clock::time_point sentAt;
    std::thread late([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        sentAt = Clock::now();
        a.sendBytes(proxyMessage(3, 0x10007, nullptr, 0));
    });
    ASSERT_EQ(server.recv(dst.data(), dst.size(), 1000), 0);
    const auto takenAt = Clock::now();
    late.join();
    EXPECT_LT(takenAt - sentAt, std::chrono::milliseconds(10));
    EXPECT_EQ(zt_msg_get_sub_type(dst.data()), 0x10007u);
}

TEST(ScanVentoServer, MessageLargerThanTheCapacityBlocksTheStream)
{
    ztScanVentoServer server(0xA00000);
    ASSERT_EQ(server.startThread(0), 0);
    RawConnection peer;
    ASSERT_TRUE(peer.connect("127.0.0.1", server.port(), 2000));
    const std::string payload(100, 'p');
    ASSERT_TRUE(peer.sendBytes(proxyMessage(3, 0x10001, payload.data(), 100)));
    ASSERT_TRUE(peer.sendBytes(proxyMessage(3, 0x10002, nullptr, 0)));
    std::vector<char> dst(200, '\0');
    EXPECT_EQ(server.recv(dst.data(), 115, 200), -1);
    EXPECT_EQ(server.recv(dst.data(), 115, 200), -1); // the small one behind it waits too
    ASSERT_EQ(server.recv(dst.data(), 116, 200), 0);
    EXPECT_EQ(zt_msg_get_sub_type(dst.data()), 0x10001u);
    ASSERT_EQ(server.recv(dst.data(), 116, 200), 0);
    EXPECT_EQ(zt_msg_get_sub_type(dst.data()), 0x10002u);
    EXPECT_EQ(server.recv(nullptr, 116, 50), -1);
}

TEST(ScanVentoServer, FullAccumulationPausesThePeerAndResumesWhenTaken)
{
    // A listener that takes messages of up to 1 MiB holds about that much at most; the
    // rest waits in the socket buffers and then at the peer.
    ztScanVentoServer server(1 << 20);
    ASSERT_EQ(server.startThread(0), 0);
    RawConnection peer;
    ASSERT_TRUE(peer.connect("127.0.0.1", server.port(), 2000));
    constexpr int kCount = 64;
    const std::string payload((512 << 10) - 16, 'm');
    std::vector<char> stream;
    for (int i = 0; i < kCount; ++i) { // 32 MiB in all
        const auto m = proxyMessage(3, static_cast<unsigned>(i), payload.data(), static_cast<int>(payload.size()));
        stream.insert(stream.end(), m.begin(), m.end());
    }
    std::size_t sent = peer.sendFor(stream.data(), stream.size(), 500);
    EXPECT_LT(sent, stream.size() / 2) << "the listener did not hold the peer back";

    std::vector<char> dst(1 << 20, '\0');
    std::thread sender([&] { sent += peer.sendFor(stream.data() + sent, stream.size() - sent, 20000); });
    for (int i = 0; i < kCount; ++i) {
        ASSERT_EQ(server.recv(dst.data(), dst.size(), 5000), 0) << "message " << i;
        ASSERT_EQ(zt_msg_get_sub_type(dst.data()), static_cast<unsigned>(i));
        ASSERT_EQ(zt_msg_get_data_len(dst.data()), static_cast<int>(payload.size()));
    }
    sender.join();
    EXPECT_EQ(sent, stream.size());
}

} // namespace
