#include "host_peer.h"
#include "network/EmbeddedFramer.h"
#include "support/log_capture.h"

#include <gtest/gtest.h>

using zt::EmbeddedFramer;
using zt::tools::bytes;
using zt::tools::embeddedMessage;
using zt::tools::joined;

namespace {

// The front message's bytes, popped; empty when there is none.
std::vector<char> take(EmbeddedFramer& f)
{
    const char* m = f.front();
    std::vector<char> out = m ? std::vector<char>(m, m + f.frontSize()) : std::vector<char>();
    if (m)
        f.pop();
    return out;
}

TEST(EmbeddedFramer, CoalescedAndSplitMessages)
{
    const auto a = embeddedMessage(2), b = embeddedMessage(264, bytes({1, 2, 3, 4}));
    const auto c = embeddedMessage(7, std::vector<char>(12, 'c'), 0x11); // a wrong head is cut out by its size
    const auto all = joined({a, b, c});
    EmbeddedFramer f(EmbeddedFramer::kMinHeldRequestReply);
    f.append(all.data(), all.size());
    EXPECT_EQ(take(f), a);
    EXPECT_EQ(take(f), b);
    EXPECT_EQ(take(f), c);
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

TEST(EmbeddedFramer, MinimumHeldCapacityAndBadSizes)
{
    const auto eight = embeddedMessage(2), tail = std::vector<char>(5, 0x55);
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

    const auto twenty = embeddedMessage(3, std::vector<char>(12, 't'));
    EmbeddedFramer tight(8, 19), exact(8, 20);
    tight.append(twenty.data(), twenty.size());
    exact.append(twenty.data(), twenty.size());
    EXPECT_EQ(tight.front(), nullptr);
    EXPECT_EQ(tight.size(), 20u); // kept, never cut
    EXPECT_EQ(take(exact), twenty);

    // A size field below 8 drops everything held, with one warning.
    zt::test::LogCapture log;
    EmbeddedFramer f(8);
    for (int size : {0, 7}) {
        const auto bad = bytes({0xAA, size, 0, 0, 0, 1, 0, 0xBB, 1, 2, 3});
        f.append(bad.data(), bad.size());
        EXPECT_EQ(f.front(), nullptr);
        EXPECT_EQ(f.size(), 0u);
        EXPECT_EQ(log.count("embedded message with full size " + std::to_string(size) +
                            ": 11 bytes dropped from the stream\n"),
                  1);
    }
    f.append(twenty.data(), twenty.size());
    EXPECT_EQ(take(f), twenty);
}

} // namespace
