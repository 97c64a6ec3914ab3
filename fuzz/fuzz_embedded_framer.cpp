// Embedded-message framing of a byte stream from a head (EmbeddedFramer), with each least
// number of bytes held, capacity and limit that the network receivers use, and the
// zt_embedded_msg getters on each message that comes out.
//
// Input: one byte picks the receiver, the rest is a stream split into receives of
// input-chosen sizes.
#include "fuzz_support.h"
#include "network/EmbeddedFramer.h"
#include "network/EmbeddedInternals.h"
#include "zt_embedded_msg.h"

#include <limits>
#include <string>

namespace {

constexpr std::size_t kAny = std::numeric_limits<std::size_t>::max();

struct Receiver {
    std::size_t minHeld;
    std::size_t capacity;
    std::size_t limit;
};

constexpr Receiver kReceivers[] = {
    // The command exchange: the reply limit, and the large limit of the whole-log reply.
    {zt::EmbeddedFramer::kMinHeldRequestReply, zt::embedded::kReplyLimit, kAny},
    {zt::EmbeddedFramer::kMinHeldRequestReply, zt::embedded::kLargeReplyLimit, kAny},
    // The device server's command-data stream and raw data stream, with their limits.
    {zt::EmbeddedFramer::kMinHeldStream, kAny, zt::embedded::kCommandDataLimit},
    {zt::EmbeddedFramer::kMinHeldStream, kAny, zt::embedded::kRawDataLimit},
    // The UDP client, whose capacity is the caller's buffer: a typical one and a small one.
    {zt::EmbeddedFramer::kMinHeldUdp, 1024, kAny},
    {zt::EmbeddedFramer::kMinHeldUdp, 16, kAny},
    // Small bounds, so that the capacity and limit rules are reached by short inputs.
    {zt::EmbeddedFramer::kMinHeldRequestReply, 64, kAny},
    {zt::EmbeddedFramer::kMinHeldStream, kAny, 100},
};

// Takes every whole message out, checking it and the getters on it as the receivers read
// it; true when a broken size made the framer drop everything it held.
bool drain(zt::EmbeddedFramer& f, const Receiver& r, std::string& seen)
{
    for (;;) {
        const std::size_t held = f.size();
        const char* msg = f.front();
        if (msg == nullptr) {
            zt::fuzz::check(f.size() == held || f.size() == 0, "a drop left bytes behind");
            return f.size() != held;
        }
        const std::uint32_t full = f.frontSize();
        zt::fuzz::check(full >= ZT_EMBEDDED_MSG_MIN_SIZE, "message shorter than its framing");
        zt::fuzz::check(full <= f.size(), "message larger than what is held");
        zt::fuzz::check(full <= r.capacity && full <= r.limit, "message beyond the capacity or limit");
        zt::fuzz::check(f.size() >= r.minHeld, "message handed out below the least held");
        void* m = const_cast<char*>(msg);
        const int dataLen = zt_embedded_msg_get_data_len(msg);
        zt::fuzz::check(dataLen >= 0 && static_cast<std::uint32_t>(dataLen) + 8 == full, "data length disagrees");
        zt::fuzz::check(static_cast<std::uint32_t>(zt_embedded_msg_get_full_size(msg)) == full, "full size disagrees");
        zt::fuzz::check(static_cast<char*>(zt_embedded_msg_get_data(m)) == msg + 7, "payload not at offset 7");
        const auto head = static_cast<unsigned char>(msg[0]);
        zt::fuzz::check((zt_embedded_msg_is_avalible(msg) == 0) == (head == 0xAA || head == 0xCC),
                        "validity disagrees with the head byte");
        const unsigned short type = zt_embedded_msg_get_msg_type(msg);
        seen.append(reinterpret_cast<const char*>(&type), sizeof type);
        seen.append(msg, full);
        seen += '|';
        f.pop();
    }
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
    zt::fuzz::framingAgrees(in, 64, [&r] { return zt::EmbeddedFramer(r.minHeld, r.capacity, r.limit); },
                            [&r](zt::EmbeddedFramer& f, std::string& seen) { return drain(f, r, seen); });
    return 0;
}
