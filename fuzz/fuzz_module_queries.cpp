// The module side's file queries and pre-trigger check against answers from an untrusted
// host: a ztModuleProxyClient and a raw host peer on loopback, in a private network
// namespace of this process (the module listens on its fixed ports). Each run the host
// sends one whole answer, then the module asks its query and parses what it got.
//
// Input: one byte picks the query, then the answer's header choices and the output
// buffer's size; the rest is the answer's payload.
#include "fuzz_support.h"
#include "host_peer.h"
#include "module_proxy/ModuleReplies.h"
#include "netns.h"
#include "ztModuleProxyClient.h"
#include "zt_msg.h"

#include <string>

namespace {

using zt::module_proxy::Query;
using zt::module_proxy::queryRow;

struct Session {
    ztModuleProxyClient module;
    zt::tools::RawConnection cmd;
    zt::tools::RawConnection data;
};

Session* g_session = nullptr;

} // namespace

// The module up in a namespace of its own, with both host connections accepted.
void zt::fuzz::setUp()
{
    check(zt::test::enterPrivateNetwork(), "no private network namespace (unshare)");
    auto* s = g_session = new Session;
    check(s->module.init() == 0 && s->data.connect("127.0.0.1", 11300, 3000) && s->cmd.connect("127.0.0.1", 9479, 3000),
          "module session not up");
    // Both connections are accepted once a reply sent now reaches the host.
    bool accepted = false;
    for (int i = 0; i < 100 && !accepted; ++i) {
        s->module.sendRegisterRep(true);
        zt::tools::ProxyMessage m;
        accepted = s->cmd.readMessage(m, 20);
    }
    check(accepted, "module never accepted the host");
}

namespace {

constexpr int kQueries = static_cast<int>(Query::count) + 1; // and the pre-trigger check

std::uint32_t subOf(int which)
{
    if (which == static_cast<int>(Query::count))
        return zt::module_proxy::eventRow(zt::module_proxy::Event::sendDevicePreTrigger).sub;
    return queryRow(static_cast<Query>(which)).sub;
}

int ask(ztModuleProxyClient& m, int which, std::vector<unsigned char>& out)
{
    std::vector<std::string> names;
    std::string md5;
    unsigned int size = 0;
    switch (which) {
    case 0: return m.enumSETFile("*.set", names);
    case 1: return m.getSETFileMd5("a", "b", md5);
    case 2: return m.getSETFileSize("a", "b", &size);
    case 3: return m.getSETFile("a", "b", out.data(), static_cast<unsigned int>(out.size()));
    case 4: return m.getCurBDBFileSize(&size);
    case 5: return m.getCurBDBFile(out.data(), static_cast<unsigned int>(out.size()));
    case 6: return m.getCurBarFileSize(&size);
    case 7: return m.getCurBarFile(out.data(), static_cast<unsigned int>(out.size()));
    default: return m.sendDevicePreTrigger(1234);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size)
{
    FuzzedDataProvider in(bytes, size);
    const int which = in.ConsumeIntegralInRange<int>(0, kQueries - 1);
    const auto header = in.ConsumeIntegral<std::uint8_t>();
    // Mostly the answer the query waits for; now and then another type, sub type or magic.
    const std::int32_t type = (header & 3) != 0 ? ZT_MSG_TYPE_ANSWER : in.ConsumeIntegralInRange<std::int32_t>(0, 5);
    const std::uint32_t sub = (header & 12) != 0 ? subOf(which) : in.ConsumeIntegral<std::uint32_t>();
    std::vector<unsigned char> out(in.ConsumeIntegralInRange<std::size_t>(0, 64));
    const std::vector<char> payload = in.ConsumeRemainingBytes<char>();
    std::vector<char> answer =
        zt::tools::proxyMessage(type, sub, payload.data(), static_cast<std::int32_t>(payload.size()));
    if ((header & 0xF0) == 0)
        answer[0] ^= 0x5A;

    Session& s = *g_session;
    // The pre-trigger check looks at what the last query's receive left; it receives nothing.
    zt::fuzz::check(which == static_cast<int>(Query::count) || s.data.sendBytes(answer), "host connection lost");
    const int result = ask(s.module, which, out);
    zt::fuzz::check(result == 0 || result == -1, "query result other than 0 or -1");
    // The module's notification of this query (or pre-trigger) on the data channel.
    zt::tools::ProxyMessage sent;
    zt::fuzz::check(s.data.readMessage(sent, 3000), "module sent no notification");
    return 0;
}
