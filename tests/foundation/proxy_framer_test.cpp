#include "foundation/ProxyFramer.h"
#include "support/log_capture.h"
#include "host_peer.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

using zt::ProxyFramer;
using zt::tools::proxyMessage;

namespace {

std::string payloadOf(const _ZT_PROXY_MSG_* m)
{
    return std::string(reinterpret_cast<const char*>(m) + 16, static_cast<std::size_t>(m->dataLen));
}

TEST(ProxyFramer, CoalescedMessagesComeOutInOrder)
{
    ProxyFramer f;
    auto a = proxyMessage(3, 0x10005, "abc", 3);
    auto b = proxyMessage(3, 0x10006, "defgh", 5);
    auto c = proxyMessage(3, 0x10007, nullptr, 0);
    std::vector<char> all;
    for (const auto* m : {&a, &b, &c})
        all.insert(all.end(), m->begin(), m->end());
    f.append(all.data(), all.size());

    const _ZT_PROXY_MSG_* m = f.front(1 << 20);
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(zt_msg_get_sub_type(m), 0x10005u);
    EXPECT_EQ(payloadOf(m), "abc");
    f.pop();
    m = f.front(1 << 20);
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(zt_msg_get_sub_type(m), 0x10006u);
    EXPECT_EQ(payloadOf(m), "defgh");
    f.pop();
    m = f.front(1 << 20);
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(zt_msg_get_sub_type(m), 0x10007u);
    f.pop();
    EXPECT_EQ(f.size(), 0u);
    EXPECT_EQ(f.front(1 << 20), nullptr);
}

TEST(ProxyFramer, SplitMessageIsWholeOnlyWithItsLastByte)
{
    ProxyFramer f;
    const auto msg = proxyMessage(1, 0x40001, "0123456789", 10);
    // Byte by byte: nothing until the last byte, then exactly one message.
    for (std::size_t i = 0; i + 1 < msg.size(); ++i) {
        f.append(&msg[i], 1);
        ASSERT_EQ(f.front(1 << 20), nullptr) << "after byte " << i;
    }
    f.append(&msg.back(), 1);
    const _ZT_PROXY_MSG_* m = f.front(1 << 20);
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(payloadOf(m), "0123456789");
    f.pop();
    EXPECT_EQ(f.front(1 << 20), nullptr);

    // A message followed by the first half of the next: the first comes out, the second
    // waits, and the rest of it completes it.
    const auto next = proxyMessage(1, 0x40002, "xyz", 3);
    std::vector<char> chunk(msg);
    chunk.insert(chunk.end(), next.begin(), next.begin() + 9);
    f.append(chunk.data(), chunk.size());
    ASSERT_NE(f.front(1 << 20), nullptr);
    f.pop();
    EXPECT_EQ(f.front(1 << 20), nullptr);
    EXPECT_EQ(f.size(), 9u);
    f.append(next.data() + 9, next.size() - 9);
    m = f.front(1 << 20);
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(payloadOf(m), "xyz");
}

TEST(ProxyFramer, WrongMagicIsCutOutByItsLengthNotResynchronised)
{
    ProxyFramer f;
    auto bad = proxyMessage(3, 0x10005, "\x24\x23\x24\x23", 4); // payload looks like a magic
    bad[0] = 0x00;
    const auto good = proxyMessage(3, 0x10006, "ok", 2);
    f.append(bad.data(), bad.size());
    f.append(good.data(), good.size());
    const _ZT_PROXY_MSG_* m = f.front(1 << 20);
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(zt_msg_is_avalible(m), -1);
    EXPECT_EQ(zt_msg_get_sub_type(m), 0x10005u);
    f.pop();
    m = f.front(1 << 20);
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(zt_msg_is_avalible(m), 0);
    EXPECT_EQ(payloadOf(m), "ok");
}

TEST(ProxyFramer, MinimumHeldAndCapacity)
{
    ProxyFramer f;
    const auto bare = proxyMessage(4, 0x00001, nullptr, 0);
    f.append(bare.data(), bare.size());
    // A bare 16-byte header is whole for a receiver that needs 16 bytes...
    EXPECT_NE(f.front(1 << 20, 16), nullptr);
    // ...but not for one that waits for more than 16 bytes held.
    EXPECT_EQ(f.front(1 << 20, 17), nullptr);
    // With another byte behind it, the same header is taken by both.
    f.append("x", 1);
    EXPECT_NE(f.front(1 << 20, 17), nullptr);
    f.clear();

    // A message larger than the capacity is never taken and blocks what follows.
    const auto big = proxyMessage(3, 0x10001, std::string(100, 'b').data(), 100);
    const auto small = proxyMessage(3, 0x10002, "s", 1);
    f.append(big.data(), big.size());
    f.append(small.data(), small.size());
    EXPECT_EQ(f.front(115), nullptr);
    EXPECT_EQ(f.frontSize(), 116);
    EXPECT_NE(f.front(116), nullptr);
    EXPECT_NE(f.front(SIZE_MAX), nullptr); // no limit at all
}

TEST(ProxyFramer, NegativeLengthHeaderIsDroppedWithAWarning)
{
    zt::test::LogCapture log;
    ProxyFramer f;
    const auto broken = proxyMessage(3, 0x10005, nullptr, -1);
    const auto good = proxyMessage(3, 0x10006, "g", 1);
    f.append(broken.data(), broken.size());
    f.append(good.data(), good.size());
    const _ZT_PROXY_MSG_* m = f.front(1 << 20);
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(zt_msg_get_sub_type(m), 0x10006u);
    EXPECT_EQ(log.count("proxy message with data length -1 dropped from the stream\n"), 1);

    // A huge declared length is waited for, never read beyond what is held.
    f.clear();
    auto huge = proxyMessage(3, 0x10007, nullptr, 0);
    const std::int32_t length = 0x7FFFFFFF;
    std::memcpy(huge.data() + 12, &length, 4);
    f.append(huge.data(), huge.size());
    EXPECT_EQ(f.front(SIZE_MAX), nullptr);
    EXPECT_EQ(f.frontSize(), 0x7FFFFFFFll + 16);
}

} // namespace
