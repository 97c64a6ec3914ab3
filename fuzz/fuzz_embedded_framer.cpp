// Embedded-message framing (EmbeddedFramer) of a head's stream, with the least number of
// bytes held, capacity and limit of each network receiver.
//
// Input: one byte picks the receiver, the rest is the stream in receives of input-chosen
// sizes.
#include "fuzz_support.h"
#include "network/EmbeddedFramer.h"
#include "network/EmbeddedInternals.h"
#include "zt_embedded_msg.h"

#include <algorithm>
#include <limits>

namespace {

constexpr std::size_t kAny = std::numeric_limits<std::size_t>::max();

struct Receiver {
    std::size_t minHeld;
    std::size_t capacity;
    std::size_t limit;
};

constexpr Receiver kReceivers[] = {
    // The command exchange, with the reply limit and the whole-log reply's large one.
    {zt::EmbeddedFramer::kMinHeldRequestReply, zt::embedded::kReplyLimit, kAny},
    {zt::EmbeddedFramer::kMinHeldRequestReply, zt::embedded::kLargeReplyLimit, kAny},
    // The command-data and raw data streams.
    {zt::EmbeddedFramer::kMinHeldStream, kAny, zt::embedded::kCommandDataLimit},
    {zt::EmbeddedFramer::kMinHeldStream, kAny, zt::embedded::kRawDataLimit},
    // The UDP client, whose capacity is the caller's buffer: a typical one and a small one.
    {zt::EmbeddedFramer::kMinHeldUdp, 1024, kAny},
    {zt::EmbeddedFramer::kMinHeldUdp, 16, kAny},
    // Small bounds, so that short inputs reach the capacity and limit rules.
    {zt::EmbeddedFramer::kMinHeldRequestReply, 64, kAny},
    {zt::EmbeddedFramer::kMinHeldStream, kAny, 100},
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    FuzzedDataProvider in(data, size);
    const Receiver& r = zt::fuzz::pick(in, kReceivers);
    const auto drain = [&r](zt::EmbeddedFramer& f, std::string& seen) {
        for (;;) {
            const std::size_t held = f.size();
            const char* msg = f.front();
            if (msg == nullptr) {
                zt::fuzz::check(f.size() == held || f.size() == 0, "a drop left bytes behind");
                return f.size() != held;
            }
            const std::size_t full = f.frontSize();
            zt::fuzz::check(full >= ZT_EMBEDDED_MSG_MIN_SIZE && full <= std::min({held, r.capacity, r.limit}) &&
                                held >= r.minHeld && zt_embedded_msg_get_full_size(msg) == static_cast<int>(full),
                            "message cut at another size than its own");
            seen.append(msg, full);
            f.pop();
        }
    };
    zt::fuzz::framingAgrees(in, 64, [&r] { return zt::EmbeddedFramer(r.minHeld, r.capacity, r.limit); }, drain);
    return 0;
}
