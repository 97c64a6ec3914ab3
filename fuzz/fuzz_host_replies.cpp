// The host's judgement of a module's reply to each request of its catalogue, applied to the
// whole message the command channel's exchange cuts (more than a bare header, up to the
// 10 MiB reply capacity), held in a buffer of exactly its size. An accepted reply must be
// the one a module builds for the row, hold what the host then reads, and stop being
// accepted with another message type, sub type or magic, a negative status on a Status
// row, or one byte less declared on an exact-length row.
//
// Input: one byte picks the request, the rest is what the module sends.
#include "foundation/ProxyFramer.h"
#include "fuzz_support.h"
#include "module_proxy/ModuleRequests.h"
#include "ztProxyTypes.h"
#include "zt_msg.h"

#include <cstring>
#include <memory>
#include <vector>

namespace {

using zt::module_proxy::Req;
using zt::module_proxy::Result;

constexpr std::size_t kReplyCapacity = 0xA00000;

// Bytes of an accepted payload that the host's own code reads: the status of a Status
// row; what a getter copies out (a heartbeat record, a 64-bit system id, a 32-bit value
// otherwise); the whole text of the firmware version, and up to three int32 of its
// numeric form.
std::size_t bytesRead(Req id, const zt::module_proxy::RequestRow& row, int length)
{
    switch (id) {
    case Req::heartbeat: return sizeof(_ZT_HEARTBEAT_INFO_);
    case Req::getSystemId: return sizeof(unsigned long long);
    case Req::getFirmwareVersion: return static_cast<std::size_t>(length);
    case Req::getFirmwareVersion2: return static_cast<std::size_t>(length < 12 ? length : 12);
    default: return row.result == Result::Ack ? 0 : sizeof(std::int32_t);
    }
}

// The judgement of a changed copy of an accepted reply.
int judgeChanged(const zt::module_proxy::RequestRow& row, const std::vector<char>& reply,
                 void (*change)(_ZT_PROXY_MSG_&))
{
    std::vector<char> copy(reply);
    _ZT_PROXY_MSG_ header;
    std::memcpy(&header, copy.data(), sizeof header);
    change(header);
    std::memcpy(copy.data(), &header, sizeof header);
    return zt::module_proxy::acceptedReplyLength(row, copy.data());
}

unsigned g_sink = 0;

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    zt::fuzz::quietLogs();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size < 1)
        return 0;
    const auto id = static_cast<Req>(data[0] % static_cast<unsigned>(Req::count));
    // Track poses go out without waiting for a reply.
    if (id == Req::sendTrackPose)
        return 0;
    const zt::module_proxy::RequestRow& row = zt::module_proxy::requestRow(id);

    zt::ProxyFramer held;
    held.append(data + 1, size - 1);
    const _ZT_PROXY_MSG_* msg = held.front(kReplyCapacity, ZT_MSG_HEADER_SIZE + 1);
    if (msg == nullptr)
        return 0; // no whole reply: the exchange fails without judging
    const auto* first = reinterpret_cast<const char*>(msg);
    const std::vector<char> reply(first, first + held.frontSize());

    const int length = zt::module_proxy::acceptedReplyLength(row, reply.data());
    if (length < 0)
        return 0;

    zt::fuzz::check(static_cast<std::size_t>(length) + ZT_MSG_HEADER_SIZE == reply.size(),
                    "accepted payload is not the reply's payload");
    const char* payload = reply.data() + ZT_MSG_HEADER_SIZE;
    const std::unique_ptr<_ZT_PROXY_MSG_, decltype(&zt_msg_release)> built(
        zt_msg_create(ZT_MSG_TYPE_REPLY, row.replySub, length, payload), &zt_msg_release);
    zt::fuzz::check(built != nullptr, "reply cannot be built");
    const auto* expected = reinterpret_cast<const char*>(built.get());
    zt::fuzz::check(std::memcmp(expected, reply.data(), 2) == 0 &&
                        std::memcmp(expected + 4, reply.data() + 4, reply.size() - 4) == 0,
                    "accepted reply differs from the row's reply");

    // What the caller reads must lie in the payload (the copy's end is the reply's end).
    const std::size_t read = bytesRead(id, row, length);
    zt::fuzz::check(read <= static_cast<std::size_t>(length), "the caller reads past the accepted payload");
    for (std::size_t i = 0; i < read; ++i)
        g_sink += static_cast<unsigned char>(payload[i]);

    zt::fuzz::check(judgeChanged(row, reply, [](_ZT_PROXY_MSG_& h) { h.msgType = ZT_MSG_TYPE_REQUEST; }) < 0,
                    "a reply of another message type accepted");
    zt::fuzz::check(judgeChanged(row, reply, [](_ZT_PROXY_MSG_& h) { h.subType ^= 1; }) < 0,
                    "a reply of another sub type accepted");
    zt::fuzz::check(judgeChanged(row, reply, [](_ZT_PROXY_MSG_& h) { h.magic ^= 0x100; }) < 0,
                    "a reply without the magic accepted");
    // One byte less declared: refused by an exact length, kept by "any length above 0"
    // while one byte is left.
    const int shorter = judgeChanged(row, reply, [](_ZT_PROXY_MSG_& h) { --h.dataLen; });
    if (row.replyLength == zt::module_proxy::kAnyLength)
        zt::fuzz::check(shorter == (length > 1 ? length - 1 : -1), "any-length rule misapplied");
    else
        zt::fuzz::check(shorter < 0, "a reply shorter than the row's length accepted");

    // A negative status fails a Status row only.
    if (length >= 4) {
        std::vector<char> negative(reply);
        const std::int32_t minusOne = -1;
        std::memcpy(negative.data() + ZT_MSG_HEADER_SIZE, &minusOne, sizeof minusOne);
        const int judged = zt::module_proxy::acceptedReplyLength(row, negative.data());
        zt::fuzz::check(row.result == Result::Status ? judged < 0 : judged == length, "result rule misapplied");
    }
    return 0;
}
