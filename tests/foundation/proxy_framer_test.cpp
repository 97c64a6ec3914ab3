#include "foundation/ProxyFramer.h"
#include "support/log_capture.h"
#include "host_peer.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

using zt::ProxyFramer;
using zt::tools::proxyMessage;

namespace {

// Every whole message the framer holds, as "sub:payload" ("!" before a wrong magic).
std::vector<std::string> drain(ProxyFramer& f, std::size_t capacity = 1 << 20)
{
    std::vector<std::string> out;
    while (const _ZT_PROXY_MSG_* m = f.front(capacity)) {
        out.push_back((zt_msg_is_avalible(m) == 0 ? "" : "!") + std::to_string(m->subType) + ":" +
                      std::string(reinterpret_cast<const char*>(m) + 16, static_cast<std::size_t>(m->dataLen)));
        f.pop();
    }
    return out;
}

// Coalesced messages in one stream, cut at every byte: each message comes out whole with
// its last byte, in order. A wrong magic is cut out by its length, not resynchronised on
// (its payload looks like a magic); a header with length -1 is dropped with a warning.
TEST(ProxyFramer, MessagesComeOutWholeInOrderWhereverTheStreamIsCut)
{
    std::vector<char> bad = proxyMessage(3, 5, "\x24\x23\x24\x23", 4);
    bad[0] = 0x00;
    std::vector<char> stream;
    for (const auto& m : {proxyMessage(3, 1, "abc", 3), proxyMessage(3, 2, nullptr, 0), bad, proxyMessage(3, 3, nullptr, -1),
                          proxyMessage(1, 4, "0123456789", 10)})
        stream.insert(stream.end(), m.begin(), m.end());
    const std::vector<std::string> want = {"1:abc", "2:", "!5:\x24\x23\x24\x23", "4:0123456789"};
    for (std::size_t cut = 0; cut <= stream.size(); ++cut) {
        zt::test::LogCapture log;
        ProxyFramer f;
        f.append(stream.data(), cut);
        std::vector<std::string> got = drain(f);
        ASSERT_EQ(got, std::vector<std::string>(want.begin(), want.begin() + static_cast<std::ptrdiff_t>(got.size()))) << cut;
        f.append(stream.data() + cut, stream.size() - cut);
        for (const auto& m : drain(f))
            got.push_back(m);
        ASSERT_EQ(got, want) << "cut at " << cut;
        EXPECT_EQ(f.size(), 0u);
        EXPECT_EQ(log.count("proxy message with data length -1 dropped from the stream\n"), 1);
    }
}

TEST(ProxyFramer, MinimumHeldCapacityAndHugeLengths)
{
    // A bare header is whole for a receiver that needs 16 bytes, not for one that waits
    // for more than 16 held.
    ProxyFramer f;
    const auto bare = proxyMessage(4, 1, nullptr, 0);
    f.append(bare.data(), bare.size());
    EXPECT_NE(f.front(1 << 20, 16), nullptr);
    EXPECT_EQ(f.front(1 << 20, 17), nullptr);
    f.append("x", 1);
    EXPECT_NE(f.front(1 << 20, 17), nullptr);
    f.clear();

    // A message larger than the capacity is never taken and blocks what follows; a huge
    // declared length is waited for, never read beyond what is held.
    const auto big = proxyMessage(3, 1, std::string(100, 'b').data(), 100);
    f.append(big.data(), big.size());
    f.append(bare.data(), bare.size());
    EXPECT_EQ(f.front(115), nullptr);
    EXPECT_EQ(f.frontSize(), 116);
    EXPECT_EQ(drain(f, 116).size(), 2u);
    auto huge = proxyMessage(3, 7, nullptr, 0);
    const std::int32_t length = 0x7FFFFFFF;
    std::memcpy(huge.data() + 12, &length, 4);
    f.append(huge.data(), huge.size());
    EXPECT_EQ(f.front(SIZE_MAX), nullptr);
    EXPECT_EQ(f.frontSize(), 0x7FFFFFFFll + 16);
}

} // namespace
