#include "support/log_capture.h"
#include "codec/QlensNetProto.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

using ztCamera::QlensNetCmd;
using ztCamera::QlensNetProto;

namespace {

using Bytes = std::vector<unsigned char>;
using Packets = std::vector<Bytes>;
using Texts = std::vector<std::string>;

void put(Bytes& b, std::size_t at, std::uint64_t value, int width)
{
    for (int i = 0; i < width; ++i)
        b[at + i] = static_cast<unsigned char>(value >> (8 * i));
}

Bytes cat(std::initializer_list<Bytes> parts)
{
    Bytes out;
    for (const auto& p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}

// Tag, length and type; the rest of size bytes a pattern below 0x80, so that neither 0xAA
// nor 0xBB turns up where the test did not put it. An extended header (76 bytes) carries
// a stamp and the tag at 72.
Bytes header(std::uint16_t type, std::uint32_t length, std::size_t size = 7, unsigned seed = 0, bool extended = false,
             std::uint32_t tag = 0xCC00FF55)
{
    Bytes b(size);
    for (std::size_t i = 0; i < size; ++i)
        b[i] = static_cast<unsigned char>((i * 13 + seed) & 0x7F);
    b[0] = 0xAA;
    put(b, 1, length, 4);
    put(b, 5, type, 2);
    if (extended) {
        put(b, 64, 0x0123456789ABCDEFull + seed, 8);
        put(b, 72, tag, 4);
    }
    return b;
}
Bytes extHeader(std::uint16_t type, std::uint32_t length, std::uint32_t tag = 0xCC00FF55)
{
    return header(type, length, 76, 0, true, tag);
}
Bytes packet(std::uint16_t type, std::uint32_t length, bool extended, unsigned char tail = 0xBB, unsigned seed = 0)
{
    Bytes b = header(type, length, length, seed, extended);
    b[length - 1] = tail;
    return b;
}

// Feeds n bytes in one piece, calling again while packets come out; every byte must be
// consumed.
void feed(QlensNetProto& d, const unsigned char* data, std::size_t n, Packets& out, bool plain = false)
{
    const unsigned char* p = data;
    std::uint64_t left = n;
    while (auto packet = plain ? d.decodePlain(p, left) : d.decode(p, left)) {
        EXPECT_TRUE(packet->owned);
        out.emplace_back(packet->buffer, packet->buffer + packet->bufSize);
    }
    EXPECT_EQ(left, 0u);
    EXPECT_EQ(p, data + n);
}
// The stream in pieces of the given sizes, cycled (0: a random size up to 900).
Packets decodeAll(QlensNetProto& d, const Bytes& in, const std::vector<std::size_t>& pieces = {SIZE_MAX},
                  bool plain = false)
{
    std::mt19937 rng(7);
    Packets out;
    for (std::size_t pos = 0, k = 0; pos < in.size(); ++k) {
        std::size_t n = pieces[k % pieces.size()];
        n = std::min(in.size() - pos, n == 0 ? std::uniform_int_distribution<std::size_t>(0, 900)(rng) : n);
        feed(d, in.data() + pos, n, out, plain);
        pos += n;
    }
    return out;
}

} // namespace

// Every limit of the stream entry next to the value just past it, among garbage that holds
// tags, in pieces of every kind: exactly the good packets come out, with a line for each
// refused length, tag and tail.
TEST(QlensNetProto, LimitsAndGarbageInPiecesOfAnySize)
{
    const Bytes ext = packet(1280, 160, true, 0xBB, 1);
    const Bytes good[] = {ext, packet(1281, 300, true), packet(512, 200, true), packet(513, 88, false), packet(514, 89, false)};
    const Bytes in = cat({{0x55, 0x01}, good[0], extHeader(1280, 159), good[1], extHeader(512, 0x1E00001),
                          extHeader(1281, 0xFFFFFFFF), good[2], extHeader(1280, 200, 0x55FF00CC), extHeader(1280, 200, 0),
                          header(513, 87), good[3], header(515, 0xAAAA), packet(2, 12, false), packet(515, 100, false),
                          header(514, 2000001), packet(1280, 200, true, 0xBC), packet(513, 95, false, 0x00), good[4]});
    const Texts lines = {"Decode packet len error, len=159", "Decode packet len error, len=31457281",
                         "Decode packet len error, len=4294967295", "Decode packet tag error, tag = 55ff00cc",
                         "Decode packet tag error, tag = 0", "Decode packet tail error",
                         "Packet tail hex dump: 188, msgID: 1280, packLen: 200", "Decode packet tail error",
                         "Packet tail hex dump: 0, msgID: 513, packLen: 95"};
    for (const std::vector<std::size_t>& pieces :
         std::vector<std::vector<std::size_t>>{{SIZE_MAX}, {1}, {5, 64}, {0}, {76, 7, 1000, 3}}) {
        SCOPED_TRACE("pieces of " + std::to_string(pieces[0]));
        zt::test::LogCapture log;
        QlensNetProto d;
        EXPECT_EQ(decodeAll(d, in, pieces), Packets(std::begin(good), std::end(good)));
        EXPECT_EQ(log.texts(), lines);
        EXPECT_EQ(d.index(), 0u);
    }

    const unsigned char* none = nullptr;
    std::uint64_t zero = 0;
    QlensNetProto d;
    EXPECT_FALSE(d.decode(none, zero));

    // The longest packets are taken on (their buffers reserved), one byte more is not.
    zt::test::LogCapture log;
    Packets out;
    const std::pair<Bytes, unsigned> heads[] = {
        {extHeader(512, 0x1E00000), 2}, {extHeader(512, 0x1E00001), 0}, {header(514, 2000000), 2}, {header(513, 2000001), 0}};
    for (const auto& [head, state] : heads) {
        feed(d, head.data(), head.size(), out);
        EXPECT_EQ(d.state(), state);
        d.reset();
    }
    EXPECT_EQ(log.texts(), (Texts{"Decode packet len error, len=31457281"}));
    EXPECT_TRUE(out.empty());
}

// The plain entries: any type below 1282 and lengths 8 to 0x5000000, with their own texts;
// decodePlainHeader reports each header, decodePlain reads the body it accepted.
TEST(QlensNetProto, PlainEntriesAndHeaderStatus)
{
    zt::test::LogCapture log;
    const Bytes tiny = packet(1281, 8, false), anyType = packet(0, 30, false), noTag = packet(1280, 100, false);
    QlensNetProto d;
    const Bytes in = cat({tiny, header(7, 7), anyType, header(7, 0xFFFFFFFF), noTag, header(7, 0x5000001), tiny,
                          header(1282, 100), anyType});
    EXPECT_EQ(decodeAll(d, in, {5}, true), (Packets{tiny, anyType, noTag, tiny, anyType}));
    EXPECT_EQ(log.texts(), (Texts{"Decode packet len error, len = 7", "Decode packet len error, len = -1",
                                 "Decode packet len error, len = 83886081", "Decode packet type error, type=1282"}));
    // The longest plain packet is taken on (its buffer is reserved, not filled).
    const Bytes longest = header(100, 0x5000000);
    Packets out;
    feed(d, longest.data(), longest.size(), out, true);
    EXPECT_EQ(d.state(), 2u);
    d.reset();
    // Handed a stream decoder stopped inside an extended header, it starts afresh.
    log.clear();
    const Bytes ext = packet(1280, 200, true);
    feed(d, ext.data(), 40, out);
    EXPECT_EQ(decodeAll(d, cat({Bytes(5, 1), tiny}), {SIZE_MAX}, true), (Packets{tiny}));
    EXPECT_EQ(log.texts(), (Texts{"index = 40, size = 13, br = 13"}));

    log.clear();
    const Bytes good = packet(1000, 50, false);
    const Bytes headers = cat({{1, 2, 3}, good, header(5, 0xFFFFFFFF), header(1282, 50), header(0xFFFF, 8)});
    const unsigned char* p = headers.data();
    std::uint64_t left = 6;
    EXPECT_EQ(d.decodePlainHeader(p, left), QlensNetProto::kHeaderNeedMore);
    left = headers.size() - 6;
    EXPECT_EQ(d.decodePlainHeader(p, left), QlensNetProto::kHeaderAccepted);
    const auto body = d.decodePlain(p, left);
    ASSERT_TRUE(body);
    EXPECT_EQ(Bytes(body->buffer, body->buffer + body->bufSize), good);
    EXPECT_EQ(d.decodePlainHeader(p, left), QlensNetProto::kHeaderLengthError);
    EXPECT_EQ(left, 14u);
    EXPECT_EQ(d.decodePlainHeader(p, left), QlensNetProto::kHeaderTypeError);
    EXPECT_EQ(d.decodePlainHeader(p, left), QlensNetProto::kHeaderTypeError);
    EXPECT_EQ(left, 0u);
    EXPECT_EQ(log.texts(), (Texts{"Decode packet len error, len = 4294967295", "Decode packet type error, type = 1282",
                                 "Decode packet type error, type = 65535"}));
}

// Packets written into lent blocks: a finished packet is handed out in its block (its
// reader's from then on), a packet dropped by a bad tail, replaced after a reset or
// discarded gives its block back, and a packet refused a block takes one of its own.
TEST(QlensNetProto, ResetAndLentStorage)
{
    struct Storage : ztCamera::PacketStorage {
        unsigned char* lend(std::uint64_t size) override
        {
            sizes.push_back(size);
            return refuse || lent != nullptr ? nullptr : (lent = block.data());
        }
        void giveBack(unsigned char* b) override
        {
            EXPECT_EQ(b, lent);
            lent = nullptr;
            ++givenBack;
        }
        Bytes block = Bytes(4096);
        unsigned char* lent = nullptr;
        bool refuse = false;
        int givenBack = 0;
        std::vector<std::uint64_t> sizes;
    } storage;
    QlensNetProto d;
    d.setPacketStorage(&storage);
    auto decode = [&d](const Bytes& b, std::size_t n) {
        const unsigned char* p = b.data();
        std::uint64_t left = n;
        return d.decode(p, left);
    };

    const Bytes good = packet(512, 300, true, 0xBB, 1), part = packet(1280, 400, true, 0xBB, 3);
    std::shared_ptr<QlensNetCmd> taken = decode(good, good.size());
    ASSERT_TRUE(taken);
    EXPECT_FALSE(taken->owned);
    EXPECT_EQ(taken->buffer, storage.block.data());
    EXPECT_EQ(Bytes(taken->buffer, taken->buffer + taken->bufSize), good);
    taken.reset(); // the reader keeps the block: nothing is given back
    EXPECT_EQ(storage.givenBack, 0);
    storage.lent = nullptr;

    EXPECT_FALSE(decode(packet(512, 300, true, 0x00, 2), 300)); // bad tail
    EXPECT_EQ(storage.givenBack, 1);
    // Cut short by a reset (in the body or the extended header), the packet is kept until
    // the next one replaces it.
    EXPECT_FALSE(decode(part, 200));
    EXPECT_TRUE(d.hasPendingPacket());
    d.reset();
    EXPECT_EQ(d.index(), 0u);
    EXPECT_EQ(d.state(), 0u);
    EXPECT_TRUE(d.hasPendingPacket());
    EXPECT_EQ(storage.givenBack, 1);
    const Bytes next = packet(513, 120, false, 0xBB, 4);
    taken = decode(next, next.size());
    EXPECT_EQ(storage.givenBack, 2);
    ASSERT_TRUE(taken);
    EXPECT_FALSE(d.hasPendingPacket());
    EXPECT_EQ(Bytes(taken->buffer, taken->buffer + taken->bufSize), next);
    storage.lent = nullptr;
    EXPECT_FALSE(decode(part, 40));
    d.reset();
    taken = decode(part, part.size());
    ASSERT_TRUE(taken);
    EXPECT_EQ(Bytes(taken->buffer, taken->buffer + taken->bufSize), part);
    storage.lent = nullptr;
    // discardPacket gives a block back at once.
    EXPECT_FALSE(decode(part, 200));
    d.discardPacket();
    EXPECT_EQ(storage.givenBack, 3);
    EXPECT_EQ(d.state(), 0u);
    // Refused a block, a packet has its own buffer.
    storage.refuse = true;
    taken = decode(good, good.size());
    ASSERT_TRUE(taken);
    EXPECT_TRUE(taken->owned);
    EXPECT_EQ(Bytes(taken->buffer, taken->buffer + taken->bufSize), good);
    EXPECT_EQ(storage.sizes, (std::vector<std::uint64_t>{300, 300, 400, 120, 400, 400, 300}));
    EXPECT_FALSE(decode(part, 200)); // left pending when the decoder goes
}
