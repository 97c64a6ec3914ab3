#include "network/EmbeddedFramer.h"
#include "network/peer.h"
#include "support/log_capture.h"

#include <gtest/gtest.h>

using zt::EmbeddedFramer;
using zt::test::Bytes;
using zt::test::embedded;

namespace {

// The front message's bytes, popped; empty when there is none.
Bytes take(EmbeddedFramer& f)
{
    const char* m = f.front();
    Bytes out = m ? Bytes(m, m + f.frontSize()) : Bytes();
    if (m)
        f.pop();
    return out;
}

TEST(EmbeddedFramer, CoalescedAndSplitMessages)
{
    const Bytes a = embedded(2, ""), b = embedded(264, "abcd"), c = embedded(7, "0123456789AB", 0x11);
    Bytes all = a;
    all.insert(all.end(), b.begin(), b.end());
    all.insert(all.end(), c.begin(), c.end());

    EmbeddedFramer f(EmbeddedFramer::kMinHeldRequestReply);
    f.append(all.data(), all.size());
    EXPECT_EQ(take(f), a);
    EXPECT_EQ(take(f), b);
    EXPECT_EQ(take(f), c); // a wrong head is cut out by its size like any other
    EXPECT_EQ(f.size(), 0u);

    // Byte by byte: each message comes out with its last byte and not before.
    std::vector<std::size_t> ends;
    for (std::size_t i = 0; i < all.size(); ++i) {
        f.append(&all[i], 1);
        if (!take(f).empty())
            ends.push_back(i + 1);
    }
    EXPECT_EQ(ends, (std::vector<std::size_t>{8, 20, 40}));
}

TEST(EmbeddedFramer, MinimumHeldAndCapacity)
{
    const Bytes eight = embedded(2, ""), tail(5, 0x55);
    EmbeddedFramer udp(EmbeddedFramer::kMinHeldUdp), stream(EmbeddedFramer::kMinHeldStream);
    for (auto* f : {&udp, &stream}) {
        f->append(eight.data(), 8);
        EXPECT_EQ(f->front(), nullptr);
        f->append(tail.data(), 4);
    }
    EXPECT_EQ(udp.front(), nullptr); // 12 held: not more than 12
    EXPECT_EQ(take(stream), eight);  // 12 held: at least 12
    udp.append(tail.data(), 1);
    EXPECT_EQ(take(udp), eight);

    const Bytes twenty = embedded(3, "0123456789AB");
    EmbeddedFramer tight(8, 19), exact(8, 20);
    tight.append(twenty.data(), twenty.size());
    exact.append(twenty.data(), twenty.size());
    EXPECT_EQ(tight.front(), nullptr);
    EXPECT_EQ(tight.size(), 20u); // kept, never cut
    EXPECT_EQ(take(exact), twenty);
}

TEST(EmbeddedFramer, SizeBelowEightDropsWhatIsHeld)
{
    zt::test::LogCapture log;
    EmbeddedFramer f(8);
    for (unsigned char size : {0, 7}) {
        const Bytes bad{0xAA, size, 0, 0, 0, 1, 0, 0xBB, 1, 2, 3};
        f.append(bad.data(), bad.size());
        EXPECT_EQ(f.front(), nullptr);
        EXPECT_EQ(f.size(), 0u);
    }
    EXPECT_EQ(log.count("embedded message with full size 0: 11 bytes dropped from the stream\n"), 1);
    EXPECT_EQ(log.count("embedded message with full size 7: 11 bytes dropped from the stream\n"), 1);
    const Bytes good = embedded(9, "ok");
    f.append(good.data(), good.size());
    EXPECT_EQ(take(f), good);
}

} // namespace
