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

} // namespace
