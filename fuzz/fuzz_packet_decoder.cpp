// The packet decoder of the head's stream (ztCamera::QlensNetProto) in its three entries:
// decode, decodePlain, and decodePlainHeader with decodePlain reading each accepted body.
// Decoded once in input-chosen pieces and once whole, the stream must give the same
// packets, header statuses and log lines; every call consumes up to a packet's end or all.
//
// Input: one byte picks the entry, the rest is the stream.
#include "fuzz_support.h"
#include "codec/QlensNetProto.h"

#include <memory>
#include <string>

using ztCamera::QlensNetCmd;
using ztCamera::QlensNetProto;

namespace {

enum class Entry { Decode, Plain, PlainHeader, count };

struct Result {
    std::vector<std::string> packets;
    std::vector<int> statuses;
    std::vector<std::string> log;
};

// The log lines of the decoding in hand, for comparing the two runs.
std::vector<std::string>* g_log = nullptr;

void onLog(int, const char* text, void*)
{
    if (g_log != nullptr)
        g_log->emplace_back(text);
}

void keep(Result& r, const std::shared_ptr<QlensNetCmd>& packet)
{
    zt::fuzz::check(packet->buffer != nullptr && packet->bufSize >= 8, "packet without bytes");
    const unsigned char* b = packet->buffer;
    zt::fuzz::check(b[0] == QlensNetProto::kTag && b[packet->bufSize - 1] == QlensNetProto::kTail,
                    "packet handed out without its tag and tail");
    std::uint32_t length;
    std::memcpy(&length, b + 1, sizeof length);
    zt::fuzz::check(length == packet->bufSize, "packet size differs from its length field");
    r.packets.emplace_back(reinterpret_cast<const char*>(b), packet->bufSize);
}

// Feeds one piece to the decoder until it is used up.
void feed(QlensNetProto& d, Entry entry, const unsigned char* data, std::uint64_t n, Result& r)
{
    const unsigned char* p = data;
    std::uint64_t left = n;
    while (left > 0) {
        const std::uint64_t before = left;
        std::shared_ptr<QlensNetCmd> packet;
        if (entry == Entry::PlainHeader && d.state() != 2) {
            const int status = d.decodePlainHeader(p, left);
            zt::fuzz::check(status >= QlensNetProto::kHeaderNeedMore && status <= QlensNetProto::kHeaderTypeError,
                            "unknown header status");
            zt::fuzz::check(status != QlensNetProto::kHeaderNeedMore || left == 0, "more needed with input left");
            if (status != QlensNetProto::kHeaderNeedMore)
                r.statuses.push_back(status);
        } else if (entry == Entry::Decode) {
            packet = d.decode(p, left);
            zt::fuzz::check(packet != nullptr || left == 0, "decode stopped without a packet before the end");
        } else if (entry == Entry::PlainHeader) {
            // The body of an accepted header, one byte per call: decodePlain goes on to
            // the next header by itself once a packet ends (with a bad tail, say), and
            // that header must be left to decodePlainHeader.
            std::uint64_t one = 1;
            packet = d.decodePlain(p, one);
            zt::fuzz::check(one == 0, "decodePlain left the body byte");
            --left;
        } else {
            packet = d.decodePlain(p, left);
            zt::fuzz::check(packet != nullptr || left == 0, "decodePlain stopped without a packet before the end");
        }
        zt::fuzz::check(left <= before && p == data + (n - left), "input pointer and count disagree");
        if (packet)
            keep(r, packet);
        else if (left == before)
            zt::fuzz::fail("a call consumed nothing");
    }
}

Result run(Entry entry, const std::vector<std::vector<unsigned char>>& pieces)
{
    Result r;
    g_log = &r.log;
    QlensNetProto d;
    for (const auto& piece : pieces)
        feed(d, entry, piece.data(), piece.size(), r);
    g_log = nullptr;
    return r;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    ztLogSetCallback(&onLog, nullptr);
    ztLogSetLevel(ZTLOG_LEVEL_ERROR);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    FuzzedDataProvider in(data, size);
    const auto entry = static_cast<Entry>(in.ConsumeIntegralInRange<int>(0, static_cast<int>(Entry::count) - 1));
    const auto pieces = zt::fuzz::chunks(in, 300);
    std::vector<std::vector<unsigned char>> whole(1);
    for (const auto& p : pieces)
        whole[0].insert(whole[0].end(), p.begin(), p.end());

    const Result a = run(entry, pieces);
    const Result b = run(entry, whole);
    zt::fuzz::check(a.packets == b.packets, "the pieces' boundaries changed the packets");
    zt::fuzz::check(a.statuses == b.statuses, "the pieces' boundaries changed the header statuses");
    zt::fuzz::check(a.log == b.log, "the pieces' boundaries changed the log lines");
    return 0;
}
