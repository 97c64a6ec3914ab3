// Proxy-message framing (ProxyFramer) of a peer's stream, as the module proxy's receivers
// cut it.
//
// Input: one byte picks the receiver, the rest is the stream in receives of input-chosen
// sizes.
#include "foundation/ProxyFramer.h"
#include "fuzz_support.h"
#include "zt_msg.h"

#include <algorithm>

namespace {

struct Receiver {
    std::size_t capacity;
    std::size_t minHeld;
};

// The host's data channel takes any size; its request/reply exchange waits for more than
// a bare header and takes up to 10 MiB; the module's listener up to its query capacity.
// Small capacities reach the rule that a message too large stays at the front.
constexpr Receiver kReceivers[] = {
    {SIZE_MAX, ZT_MSG_HEADER_SIZE}, {0xA00000, ZT_MSG_HEADER_SIZE + 1}, {0xC800000, ZT_MSG_HEADER_SIZE},
    {64, ZT_MSG_HEADER_SIZE},       {40, ZT_MSG_HEADER_SIZE + 1},
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    FuzzedDataProvider in(data, size);
    const Receiver& r = zt::fuzz::pick(in, kReceivers);
    zt::fuzz::framingAgrees(in, 96, [] { return zt::ProxyFramer(); }, [&r](zt::ProxyFramer& f, std::string& seen) {
        while (const _ZT_PROXY_MSG_* msg = f.front(r.capacity, r.minHeld)) {
            const auto full = static_cast<std::size_t>(f.frontSize());
            zt::fuzz::check(zt_msg_get_full_size(msg) == f.frontSize() &&
                                full <= std::min(f.size(), r.capacity) && f.size() >= r.minHeld,
                            "message cut at another size than its own");
            seen.append(reinterpret_cast<const char*>(msg), full);
            f.pop();
        }
        return false;
    });
    return 0;
}
