// The simulated network head seen from a host written from the wire format: a stream that
// waits for its connection and keeps its count and rate. Runs in a private network
// namespace, so the head's fixed port is free.
#include "host_peer.h"
#include "support/fault_scenario.h"
#include "ztSimNetworkHead.h"

#include <gtest/gtest.h>

#include <array>

namespace {

using zt::tools::joined;
using Bytes = std::vector<char>;
using Head = ztSimNetworkHead;
using zt::test::Clock;
using zt::test::msSince;

TEST(NetworkHead, StreamsDeliverCountTimesTheUnitAtTheAskedRate)
{
    Head head;
    ASSERT_EQ(head.start(), 0);
    const Bytes unit = Head::message(700, "unit", 4);
    // Started before the data connection exists: it waits for it.
    head.startStream(Head::Data, unit, 500, 0);
    EXPECT_FALSE(head.waitStreamDone(100));
    // The four connections one after the other, as a host does; the second carries data.
    std::array<zt::tools::RawConnection, 4> p;
    for (int i = 0; i < 4; ++i) {
        ASSERT_TRUE(p[i].connect("127.0.0.1", Head::kDefaultPort, 2000)) << "connection " << i;
        ASSERT_TRUE(head.waitConnected(Head::Channel(i), 2000)) << "channel " << i;
    }
    Bytes all;
    for (int k = 0; k < 500; ++k)
        all = joined({all, unit});
    EXPECT_EQ(p[1].readBytes(all.size(), 5000), all);
    EXPECT_TRUE(head.waitStreamDone(2000));
    EXPECT_EQ(head.streamedBytes(), 500 * unit.size());
    EXPECT_TRUE(p[1].readFor(200).empty());

    // 20 units of 10000 bytes at 400000 bytes/s: the last leaves after 19/40 s.
    const auto t0 = Clock::now();
    head.startStream(Head::Data, Bytes(10000, 'z'), 20, 400000);
    EXPECT_EQ(p[1].readBytes(200000, 5000).size(), 200000u);
    EXPECT_GE(msSince(t0), 450);
    EXPECT_LT(msSince(t0), 3000);

    // Without a count it runs until stopped, and stops between units.
    head.startStream(Head::Data, unit, 0, 0);
    std::atomic<std::size_t> seen{0};
    std::thread reader([&] {
        for (std::size_t n = 1; n > 0; seen += n)
            n = p[1].readFor(300).size();
    });
    EXPECT_TRUE(zt::test::waitUntil(5000, [&] { return head.streamedBytes() >= 100 * unit.size(); }));
    head.stopStream();
    EXPECT_TRUE(head.waitStreamDone(0));
    reader.join();
    EXPECT_GE(head.streamedBytes(), 100 * unit.size());
    EXPECT_EQ(head.streamedBytes() % unit.size(), 0u);
    EXPECT_EQ(seen.load(), head.streamedBytes());
}

} // namespace
