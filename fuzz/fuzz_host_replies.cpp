// The host's judgement of a module's reply to each request of its catalogue, applied to the
// whole message the command channel's exchange cuts (more than a bare header, up to the
// 10 MiB reply capacity), held in a buffer of exactly its size. An accepted reply must be
// the one a module builds for the row and hold what the host then reads.
//
// Input: one byte picks the request, the rest is what the module sends.
#include "foundation/ProxyFramer.h"
#include "fuzz_support.h"
#include "module_proxy/ModuleRequests.h"
#include "ztProxyTypes.h"
#include "zt_msg.h"

#include <cstring>
#include <memory>

namespace {

using zt::module_proxy::Req;

// Payload bytes the host's own code reads from an accepted reply: the status of a Status
// row; what a getter copies out; the whole firmware version text, and up to three int32 of
// its numeric form.
std::size_t bytesRead(Req id, const zt::module_proxy::RequestRow& row, int length)
{
    switch (id) {
    case Req::heartbeat: return sizeof(_ZT_HEARTBEAT_INFO_);
    case Req::getSystemId: return sizeof(unsigned long long);
    case Req::getFirmwareVersion: return static_cast<std::size_t>(length);
    case Req::getFirmwareVersion2: return static_cast<std::size_t>(length < 12 ? length : 12);
    default: return row.result == zt::module_proxy::Result::Ack ? 0 : sizeof(std::int32_t);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const auto id = static_cast<Req>(size < 1 ? 0 : data[0] % static_cast<unsigned>(Req::count));
    // Track poses go out without waiting for a reply.
    if (size < 1 || id == Req::sendTrackPose)
        return 0;
    const zt::module_proxy::RequestRow& row = zt::module_proxy::requestRow(id);
    zt::ProxyFramer held;
    held.append(data + 1, size - 1);
    const _ZT_PROXY_MSG_* msg = held.front(0xA00000, ZT_MSG_HEADER_SIZE + 1);
    if (msg == nullptr)
        return 0; // no whole reply: the exchange fails without judging
    const auto* first = reinterpret_cast<const char*>(msg);
    const std::vector<char> reply(first, first + held.frontSize());
    const int length = zt::module_proxy::acceptedReplyLength(row, reply.data());
    if (length < 0)
        return 0;

    const std::unique_ptr<_ZT_PROXY_MSG_, decltype(&zt_msg_release)> built(
        zt_msg_create(ZT_MSG_TYPE_REPLY, row.replySub, length, reply.data() + ZT_MSG_HEADER_SIZE), &zt_msg_release);
    const auto* expected = reinterpret_cast<const char*>(built.get());
    zt::fuzz::check(static_cast<std::size_t>(length) + ZT_MSG_HEADER_SIZE == reply.size() &&
                        std::memcmp(expected, reply.data(), 2) == 0 &&
                        std::memcmp(expected + 4, reply.data() + 4, reply.size() - 4) == 0,
                    "accepted reply differs from the row's reply");
    zt::fuzz::check(bytesRead(id, row, length) <= static_cast<std::size_t>(length),
                    "the host reads past the accepted payload");
    return 0;
}
