// The head's packet decoder (ztCamera::QlensNetProto) in its three entries: decode,
// decodePlain, and decodePlainHeader with decodePlain reading each accepted body. Decoded
// in input-chosen pieces and whole, the stream must give the same packets and header
// statuses; every call consumes up to a packet's end or all it is given.
//
// Input: one byte picks the entry, the rest is the stream.
#include "codec/QlensNetProto.h"
#include "fuzz_support.h"

#include <memory>
#include <string>

using ztCamera::QlensNetProto;

namespace {

enum class Entry { Decode, Plain, PlainHeader, count };

// Each packet's bytes and each header status, in order.
std::vector<std::string> decodeAll(Entry entry, const std::vector<std::vector<unsigned char>>& pieces)
{
    std::vector<std::string> out;
    QlensNetProto d;
    for (const auto& piece : pieces) {
        const unsigned char* p = piece.data();
        std::uint64_t left = piece.size();
        while (left > 0) {
            const std::uint64_t before = left;
            std::shared_ptr<ztCamera::QlensNetCmd> packet;
            if (entry == Entry::Decode) {
                packet = d.decode(p, left);
            } else if (entry == Entry::Plain) {
                packet = d.decodePlain(p, left);
            } else if (d.state() != 2) {
                const int status = d.decodePlainHeader(p, left);
                if (status != QlensNetProto::kHeaderNeedMore)
                    out.push_back(std::to_string(status));
            } else {
                // The body one byte a call: once a packet ends, decodePlain would go on to
                // the next header by itself, and that header is decodePlainHeader's.
                std::uint64_t one = 1;
                packet = d.decodePlain(p, one);
                left -= 1 - one;
            }
            zt::fuzz::check(p == piece.data() + (piece.size() - left) && left < before, "a call consumed nothing");
            zt::fuzz::check(packet != nullptr || left == 0 || entry == Entry::PlainHeader,
                            "stopped without a packet before the end");
            if (packet)
                out.emplace_back(reinterpret_cast<const char*>(packet->buffer), packet->bufSize);
        }
    }
    return out;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    FuzzedDataProvider in(data, size);
    const auto entry = static_cast<Entry>(in.ConsumeIntegralInRange<int>(0, static_cast<int>(Entry::count) - 1));
    const auto pieces = zt::fuzz::chunks(in, 300);
    std::vector<std::vector<unsigned char>> whole(1);
    for (const auto& p : pieces)
        whole[0].insert(whole[0].end(), p.begin(), p.end());
    zt::fuzz::check(decodeAll(entry, pieces) == decodeAll(entry, whole), "the pieces' boundaries changed the packets");
    return 0;
}
