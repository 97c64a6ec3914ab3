// The module-side listener's receive: a full accumulation pauses the peer until messages
// are taken.
#include "module_proxy/ztScanVentoServer.h"
#include "host_peer.h"

#include <gtest/gtest.h>

#include <thread>

using zt::tools::proxyMessage;
using zt::tools::RawConnection;

namespace {

TEST(ScanVentoServer, FullAccumulationPausesThePeerAndResumesWhenTaken)
{
    // A listener that takes messages of up to 1 MiB holds about that much at most; the
    // rest waits in the socket buffers and then at the peer. With messages of 700 KiB,
    // taking one from a full accumulation leaves only part of the next: nothing more
    // comes in unless that take resumes receiving.
    ztScanVentoServer server(1 << 20);
    ASSERT_EQ(server.startThread(0), 0);
    RawConnection peer;
    ASSERT_TRUE(peer.connect("127.0.0.1", server.port(), 2000));
    constexpr int kCount = 48;
    const std::string payload((700 << 10) - 16, 'm');
    std::vector<char> stream;
    for (int i = 0; i < kCount; ++i) { // 33 MiB in all
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
