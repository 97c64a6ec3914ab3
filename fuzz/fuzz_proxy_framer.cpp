// Proxy-message framing of a byte stream from a peer, as the module proxy's receivers cut
// it (ProxyFramer), and the zt_msg getters on each message that comes out.
//
// Input: one byte picks the receiver (capacity and the least number of bytes held), the
// rest is a stream split into receives of input-chosen sizes.
#include "foundation/ProxyFramer.h"
#include "fuzz_support.h"
#include "zt_msg.h"

#include <cstring>
#include <string>

namespace {

struct Receiver {
    std::size_t capacity;
    std::size_t minHeld;
};

// The host's data-channel dispatcher takes any size; the host's request/reply exchange
// waits for more than a bare header and takes up to its 10 MiB reply capacity; the
// module's data listener takes up to its query capacity. Small capacities make the
// "too large, stays at the front" rule reachable.
constexpr Receiver kReceivers[] = {
    {SIZE_MAX, ZT_MSG_HEADER_SIZE}, {0xA00000, ZT_MSG_HEADER_SIZE + 1}, {0xC800000, ZT_MSG_HEADER_SIZE},
    {64, ZT_MSG_HEADER_SIZE},       {40, ZT_MSG_HEADER_SIZE + 1},
};

// Takes every whole message the framer holds, checking each against the size it was cut
// at, and records it with every payload byte read (a cut past the held bytes shows).
bool drain(zt::ProxyFramer& f, const Receiver& r, std::string& seen)
{
    while (const _ZT_PROXY_MSG_* msg = f.front(r.capacity, r.minHeld)) {
        const std::int64_t full = f.frontSize();
        zt::fuzz::check(full >= ZT_MSG_HEADER_SIZE, "message shorter than a header");
        zt::fuzz::check(static_cast<std::uint64_t>(full) <= f.size(), "message larger than what is held");
        zt::fuzz::check(static_cast<std::uint64_t>(full) <= r.capacity, "message larger than the capacity");
        zt::fuzz::check(f.size() >= r.minHeld, "message handed out below the least held");
        void* m = const_cast<_ZT_PROXY_MSG_*>(msg);
        const int dataLen = zt_msg_get_data_len(msg);
        zt::fuzz::check(dataLen >= 0 && dataLen + ZT_MSG_HEADER_SIZE == full, "data length disagrees with the cut");
        zt::fuzz::check(zt_msg_get_full_size(msg) == full, "full size disagrees with the cut");
        zt::fuzz::check(static_cast<char*>(zt_msg_get_data(m)) == static_cast<char*>(m) + ZT_MSG_HEADER_SIZE,
                        "payload not behind the header");
        zt::fuzz::check(zt_msg_is_avalible(msg) == (msg->magic == ZT_MSG_MAGIC ? 0 : -1), "validity disagrees with the magic");
        const int type = zt_msg_get_msg_type(msg);
        const unsigned int sub = zt_msg_get_sub_type(msg);
        seen.append(reinterpret_cast<const char*>(&type), sizeof type);
        seen.append(reinterpret_cast<const char*>(&sub), sizeof sub);
        seen.append(static_cast<const char*>(zt_msg_get_data(m)), static_cast<std::size_t>(dataLen));
        seen += '|';
        f.pop();
    }
    return false;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    zt::fuzz::quietLogs();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    FuzzedDataProvider in(data, size);
    const Receiver& r = kReceivers[in.ConsumeIntegralInRange<std::size_t>(0, std::size(kReceivers) - 1)];
    zt::fuzz::framingAgrees(in, 96, [] { return zt::ProxyFramer(); },
                            [&r](zt::ProxyFramer& f, std::string& seen) { return drain(f, r, seen); });
    return 0;
}
