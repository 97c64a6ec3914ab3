#include "support/log_capture.h"
#include "codec/QlensNetProto.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <random>
#include <string>
#include <vector>

using ztCamera::QlensNetCmd;
using ztCamera::QlensNetProto;

namespace {

using Bytes = std::vector<unsigned char>;
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

// Tag, length and type; the rest (up to size bytes) a pattern below 0x80, so that neither
// 0xAA nor 0xBB turns up where the test did not put it.
Bytes header(std::uint16_t type, std::uint32_t length, std::size_t size = 7, unsigned seed = 0)
{
    Bytes b(size);
    for (std::size_t i = 0; i < size; ++i)
        b[i] = static_cast<unsigned char>((i * 13 + seed) & 0x7F);
    b[0] = 0xAA;
    put(b, 1, length, 4);
    put(b, 5, type, 2);
    return b;
}

Bytes extHeader(std::uint16_t type, std::uint32_t length, std::uint32_t tag = 0xCC00FF55, unsigned seed = 0)
{
    Bytes b = header(type, length, 76, seed);
    put(b, 64, 0x0123456789ABCDEFull + seed, 8);
    put(b, 72, tag, 4);
    return b;
}

Bytes plainPacket(std::uint16_t type, std::uint32_t length, unsigned char tail = 0xBB, unsigned seed = 0)
{
    Bytes b = header(type, length, length, seed);
    b[length - 1] = tail;
    return b;
}

Bytes extPacket(std::uint16_t type, std::uint32_t length, unsigned char tail = 0xBB, unsigned seed = 0)
{
    Bytes b = header(type, length, length, seed);
    const Bytes h = extHeader(type, length, 0xCC00FF55, seed);
    std::copy(h.begin(), h.end(), b.begin());
    b[length - 1] = tail;
    return b;
}

Bytes bytesOf(const QlensNetCmd& c)
{
    EXPECT_TRUE(c.owned);
    return Bytes(c.buffer, c.buffer + c.bufSize);
}

// Feeds n bytes in one piece, calling again until nothing more comes out; every byte must
// have been consumed.
void feed(QlensNetProto& d, const unsigned char* data, std::size_t n, std::vector<Bytes>& out, bool plain = false)
{
    const unsigned char* p = data;
    std::uint64_t left = n;
    while (auto packet = plain ? d.decodePlain(p, left) : d.decode(p, left))
        out.push_back(bytesOf(*packet));
    EXPECT_EQ(left, 0u);
    EXPECT_EQ(p, data + n);
}

std::vector<Bytes> decodeAll(QlensNetProto& d, const Bytes& in, std::size_t chunk = SIZE_MAX, bool plain = false)
{
    std::vector<Bytes> out;
    for (std::size_t pos = 0; pos < in.size(); pos += chunk)
        feed(d, in.data() + pos, std::min(chunk, in.size() - pos), out, plain);
    return out;
}

Texts texts(const zt::test::LogCapture& log)
{
    Texts out;
    for (const auto& l : log.lines())
        out.push_back(l.text);
    return out;
}

// The stream decoder's rules applied one byte at a time, written from the wire format
// alone, to compare the decoder with on arbitrary input.
struct Model {
    int state = 0;
    Bytes held;
    std::vector<Bytes> out;
    Texts log;

    static std::uint32_t u32(const Bytes& b, std::size_t at)
    {
        return b[at] | b[at + 1] << 8 | b[at + 2] << 16 | static_cast<std::uint32_t>(b[at + 3]) << 24;
    }
    void restart()
    {
        state = 0;
        held.clear();
    }
    void push(unsigned char c)
    {
        if (state == 0 && held.empty() && c != 0xAA)
            return;
        held.push_back(c);
        const std::uint32_t length = held.size() >= 5 ? u32(held, 1) : 0;
        const unsigned type = held.size() >= 7 ? held[5] | held[6] << 8 : 0;
        if (state == 0 && held.size() == 7) {
            if (type == 512 || type == 1280 || type == 1281)
                state = 1;
            else if ((type == 513 || type == 514) && length >= 88 && length <= 2000000)
                state = 2;
            else
                restart();
        } else if (state == 1 && held.size() == 76) {
            char tag[16];
            std::snprintf(tag, sizeof tag, "%x", u32(held, 72));
            if (length < 160 || length > 0x1E00000) {
                log.push_back("Decode packet len error, len=" + std::to_string(length));
                restart();
            } else if (u32(held, 72) != 0xCC00FF55) {
                log.push_back(std::string("Decode packet tag error, tag = ") + tag);
                restart();
            } else {
                state = 2;
            }
        } else if (state == 2 && held.size() == length) {
            if (c == 0xBB) {
                out.push_back(held);
            } else {
                log.push_back("Decode packet tail error");
                log.push_back("Packet tail hex dump: " + std::to_string(c) + ", msgID: " + std::to_string(type) +
                              ", packLen: " + std::to_string(length));
            }
            restart();
        }
    }
};

} // namespace

TEST(QlensNetProto, GarbageBeforeTagIsDropped)
{
    const Bytes good = extPacket(1280, 200);
    QlensNetProto d;
    const Bytes in = cat({{0x55}, good});
    const unsigned char* p = in.data();
    std::uint64_t left = in.size();
    auto packet = d.decode(p, left);
    ASSERT_TRUE(packet);
    EXPECT_EQ(bytesOf(*packet), good);
    EXPECT_EQ(left, 0u);

    Bytes garbage(5000);
    for (std::size_t i = 0; i < garbage.size(); ++i)
        garbage[i] = static_cast<unsigned char>(i * 31 % 256 == 0xAA ? 0 : i * 31 % 256);
    EXPECT_TRUE(decodeAll(d, garbage, 777).empty());
    EXPECT_EQ(d.index(), 0u);
    EXPECT_EQ(decodeAll(d, cat({garbage, good, garbage, good}), 1000), (std::vector<Bytes>{good, good}));
}

TEST(QlensNetProto, SplitAtEveryByteBoundaryDecodesIdentically)
{
    const Bytes a = extPacket(1280, 240, 0xBB, 3), b = plainPacket(513, 100, 0xBB, 5);
    const Bytes in = cat({a, b});
    for (std::size_t cut = 0; cut <= in.size(); ++cut) {
        QlensNetProto d;
        std::vector<Bytes> out;
        feed(d, in.data(), cut, out);
        EXPECT_EQ(out.size(), (cut >= a.size()) + (cut == in.size())) << "cut " << cut;
        feed(d, in.data() + cut, in.size() - cut, out);
        ASSERT_EQ(out, (std::vector<Bytes>{a, b})) << "cut " << cut;
    }
    QlensNetProto d;
    EXPECT_EQ(decodeAll(d, in, 1), (std::vector<Bytes>{a, b}));
}

TEST(QlensNetProto, CoalescedPacketsComeOutOneByOne)
{
    const Bytes a = extPacket(1281, 300), b = plainPacket(514, 90);
    const Bytes in = cat({a, b});
    QlensNetProto d;
    const unsigned char* p = in.data();
    std::uint64_t left = in.size();
    auto first = d.decode(p, left);
    ASSERT_TRUE(first);
    EXPECT_EQ(bytesOf(*first), a);
    EXPECT_EQ(p, in.data() + a.size());
    EXPECT_EQ(left, b.size());
    auto second = d.decode(p, left);
    ASSERT_TRUE(second);
    EXPECT_EQ(bytesOf(*second), b);
    EXPECT_EQ(left, 0u);
    EXPECT_FALSE(d.decode(p, left));

    // The same from a char buffer, as the network receiver holds it.
    const char* c = reinterpret_cast<const char*>(in.data());
    left = in.size();
    ASSERT_TRUE(d.decode(c, left));
    EXPECT_EQ(c, reinterpret_cast<const char*>(in.data() + a.size()));

    const unsigned char* none = nullptr;
    std::uint64_t zero = 0;
    EXPECT_FALSE(d.decode(none, zero));
    EXPECT_EQ(none, nullptr);
}

TEST(QlensNetProto, ExtendedHeaderLimits)
{
    zt::test::LogCapture log;
    const Bytes good = extPacket(1280, 160);
    QlensNetProto d;
    // 159 is one short: after its 76 header bytes the rest of it is searched for a tag.
    EXPECT_EQ(decodeAll(d, cat({extPacket(1280, 159), good})), (std::vector<Bytes>{good}));
    EXPECT_EQ(decodeAll(d, cat({extHeader(512, 0x1E00001), good, extHeader(1281, 0xFFFFFFFF), good})),
              (std::vector<Bytes>{good, good}));
    // The tag written in the wrong byte order, or left zero.
    EXPECT_EQ(decodeAll(d, cat({extHeader(1280, 200, 0x55FF00CC), extHeader(1280, 200, 0), good})),
              (std::vector<Bytes>{good}));
    EXPECT_EQ(texts(log), (Texts{"Decode packet len error, len=159", "Decode packet len error, len=31457281",
                                 "Decode packet len error, len=4294967295",
                                 "Decode packet tag error, tag = 55ff00cc", "Decode packet tag error, tag = 0"}));

    // The longest packet: its body comes from one small block fed over and over.
    log.clear();
    const Bytes head = extHeader(512, 0x1E00000, 0xCC00FF55, 9);
    std::vector<Bytes> out;
    feed(d, head.data(), head.size(), out);
    EXPECT_EQ(d.state(), 2u);
    EXPECT_EQ(d.index(), 76u);
    const Bytes block(1 << 20, 0x5A);
    std::size_t left = 0x1E00000 - 76 - 1;
    for (; left > 0; left -= std::min(left, block.size()))
        feed(d, block.data(), std::min(left, block.size()), out);
    EXPECT_TRUE(out.empty());
    const unsigned char tail[] = {0xBB};
    const unsigned char* p = tail;
    std::uint64_t one = 1;
    auto packet = d.decode(p, one);
    ASSERT_TRUE(packet);
    ASSERT_EQ(packet->bufSize, 0x1E00000u);
    EXPECT_TRUE(std::equal(head.begin(), head.end(), packet->buffer));
    EXPECT_EQ(std::count(packet->buffer + 76, packet->buffer + 0x1E00000 - 1, 0x5A), 0x1E00000 - 77);
    EXPECT_TRUE(texts(log).empty());
}

TEST(QlensNetProto, OtherHeadersAreSkippedSilently)
{
    zt::test::LogCapture log;
    const Bytes good = extPacket(1280, 170, 0xBB, 1);
    QlensNetProto d;
    // Only the 7 header bytes of a refused plain packet go; the search resumes right after.
    EXPECT_EQ(decodeAll(d, cat({header(513, 87), good})), (std::vector<Bytes>{good}));
    // ...and not inside them: this header's length holds two more tag bytes.
    EXPECT_EQ(decodeAll(d, cat({header(515, 0xAAAA), good})), (std::vector<Bytes>{good}));
    // A heartbeat (type 2), an unknown type and a plain packet one byte too long.
    EXPECT_EQ(decodeAll(d, cat({plainPacket(2, 12), good, plainPacket(515, 100), header(514, 2000001), good})),
              (std::vector<Bytes>{good, good}));
    EXPECT_TRUE(texts(log).empty());

    const Bytes shortest = plainPacket(513, 88), longest = plainPacket(514, 2000000);
    EXPECT_EQ(decodeAll(d, cat({shortest, longest}), 65536), (std::vector<Bytes>{shortest, longest}));
    EXPECT_EQ(d.maxPlainLength(), 2000000u);
}

TEST(QlensNetProto, BadTailDropsPacketAndNextDecodes)
{
    zt::test::LogCapture log;
    const Bytes good = plainPacket(514, 120);
    QlensNetProto d;
    EXPECT_EQ(decodeAll(d, cat({extPacket(1280, 200, 0xBC), good, plainPacket(513, 95, 0x00), good}), 64),
              (std::vector<Bytes>{good, good}));
    EXPECT_EQ(texts(log), (Texts{"Decode packet tail error", "Packet tail hex dump: 188, msgID: 1280, packLen: 200",
                                 "Decode packet tail error", "Packet tail hex dump: 0, msgID: 513, packLen: 95"}));
    EXPECT_FALSE(d.hasPendingPacket());
}

TEST(QlensNetProto, PlainOnlyEntry)
{
    zt::test::LogCapture log;
    const Bytes tiny = plainPacket(1281, 8), anyType = plainPacket(0, 30), noTag = plainPacket(1280, 100);
    QlensNetProto d;
    const Bytes in = cat({tiny, header(7, 7), anyType, header(7, 0xFFFFFFFF), noTag, header(7, 0x5000001), tiny,
                          header(1282, 100), anyType});
    EXPECT_EQ(decodeAll(d, in, 5, true), (std::vector<Bytes>{tiny, anyType, noTag, tiny, anyType}));
    EXPECT_EQ(texts(log), (Texts{"Decode packet len error, len = 7", "Decode packet len error, len = -1",
                                 "Decode packet len error, len = 83886081", "Decode packet type error, type=1282"}));

    // The longest plain packet is taken on (its buffer is reserved, not filled).
    const Bytes longest = header(100, 0x5000000);
    std::vector<Bytes> out;
    feed(d, longest.data(), longest.size(), out, true);
    EXPECT_EQ(d.state(), 2u);
    EXPECT_TRUE(d.hasPendingPacket());
    d.reset();
    EXPECT_EQ(decodeAll(d, tiny, 3, true), (std::vector<Bytes>{tiny}));

    // Handed a stream decoder stopped inside an extended header, it starts afresh.
    log.clear();
    const Bytes ext = extPacket(1280, 200);
    feed(d, ext.data(), 40, out);
    EXPECT_EQ(d.state(), 1u);
    EXPECT_EQ(decodeAll(d, cat({Bytes(5, 1), tiny}), SIZE_MAX, true), (std::vector<Bytes>{tiny}));
    EXPECT_EQ(texts(log), (Texts{"index = 40, size = 13, br = 13"}));
}

TEST(QlensNetProto, PlainHeaderStatus)
{
    zt::test::LogCapture log;
    const Bytes good = plainPacket(1000, 50);
    QlensNetProto d;
    const Bytes in = cat({{1, 2, 3}, good});
    const unsigned char* p = in.data();
    std::uint64_t left = 6;
    EXPECT_EQ(d.decodePlainHeader(p, left), QlensNetProto::kHeaderNeedMore);
    EXPECT_EQ(left, 0u);
    left = in.size() - 6;
    EXPECT_EQ(d.decodePlainHeader(p, left), QlensNetProto::kHeaderAccepted);
    EXPECT_EQ(left, 43u);
    auto packet = d.decodePlain(p, left);
    ASSERT_TRUE(packet);
    EXPECT_EQ(bytesOf(*packet), good);

    const Bytes bad = cat({header(5, 0xFFFFFFFF), header(1282, 50), header(0xFFFF, 8)});
    p = bad.data();
    left = bad.size();
    EXPECT_EQ(d.decodePlainHeader(p, left), QlensNetProto::kHeaderLengthError);
    EXPECT_EQ(left, 14u);
    EXPECT_EQ(d.decodePlainHeader(p, left), QlensNetProto::kHeaderTypeError);
    EXPECT_EQ(d.decodePlainHeader(p, left), QlensNetProto::kHeaderTypeError);
    EXPECT_EQ(left, 0u);
    EXPECT_EQ(d.index(), 0u);
    EXPECT_EQ(texts(log), (Texts{"Decode packet len error, len = 4294967295", "Decode packet type error, type = 1282",
                                 "Decode packet type error, type = 65535"}));
}

TEST(QlensNetProto, ResetMidPacketThenGoodPacket)
{
    const Bytes a = extPacket(1280, 300), good = plainPacket(513, 100);
    QlensNetProto d;
    std::vector<Bytes> out;
    feed(d, a.data(), 150, out);
    EXPECT_TRUE(d.hasPendingPacket());
    d.reset();
    EXPECT_EQ(d.index(), 0u);
    EXPECT_EQ(d.state(), 0u);
    EXPECT_TRUE(d.hasPendingPacket()); // kept until the next packet replaces it
    feed(d, good.data(), good.size(), out);
    EXPECT_EQ(out, (std::vector<Bytes>{good}));
    EXPECT_FALSE(d.hasPendingPacket());

    // Inside the extended header, and left pending when the decoder goes (no leak).
    feed(d, a.data(), 40, out);
    d.reset();
    feed(d, a.data(), a.size(), out);
    EXPECT_EQ(out, (std::vector<Bytes>{good, a}));
    feed(d, a.data(), 100, out);
    d.reset();
}

// Random streams cut into random chunks. Garbage without a 0xAA byte cannot hide a packet,
// so there every good packet must come out; with tags in the garbage and truncated or
// refused packets, packets and log lines must be those of the one-byte-at-a-time model.
TEST(QlensNetProto, RandomStreamsInRandomChunks)
{
    std::mt19937 rng(20240611);
    auto any = [&](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); };
    auto len = [&](int lo, int hi) { return static_cast<std::uint32_t>(any(lo, hi)); };
    for (int round = 0; round < 60; ++round) {
        const bool clean = round % 3 == 0;
        Bytes in;
        std::vector<Bytes> good;
        for (int seg = 0; seg < 60; ++seg) {
            const unsigned seed = static_cast<unsigned>(any(0, 255));
            const int kind = any(0, clean ? 2 : 9);
            Bytes s;
            switch (kind) {
            case 0: s = extPacket(static_cast<std::uint16_t>(any(0, 2) ? 1280 + any(0, 1) : 512), len(160, 500), 0xBB, seed); break;
            case 1: s = plainPacket(static_cast<std::uint16_t>(any(513, 514)), len(88, 300), 0xBB, seed); break;
            case 3: s = extPacket(1281, len(160, 300), static_cast<unsigned char>(any(0, 255))); break;
            case 4: s = extHeader(512, any(0, 1) ? len(100, 159) : 0x1E00000 + len(1, 9)); break;
            case 5: s = extHeader(1280, 300, static_cast<std::uint32_t>(rng())); break;
            case 6: s = header(static_cast<std::uint16_t>(any(0, 1300)), len(0, 3000)); break;
            case 7: s = plainPacket(513, len(88, 200), 0xBB, seed);
                    s.resize(static_cast<std::size_t>(any(1, static_cast<int>(s.size()) - 1))); break;
            default:
                for (int n = any(1, 30); n > 0; --n) {
                    const int c = clean ? any(0, 254) : any(0, 3) ? any(0, 255) : 0xAA;
                    s.push_back(static_cast<unsigned char>(clean && c == 0xAA ? 0xFF : c));
                }
            }
            // Random bytes, tags included, where a packet's payload would be.
            if (any(0, 3) == 0)
                for (std::size_t i = 80; i + 1 < s.size(); ++i)
                    s[i] = static_cast<unsigned char>(any(0, 255));
            if (kind < 2)
                good.push_back(s);
            in.insert(in.end(), s.begin(), s.end());
        }
        Model model;
        for (unsigned char c : in)
            model.push(c);
        ASSERT_GT(model.out.size(), good.size() / 3) << "round " << round;

        zt::test::LogCapture log;
        QlensNetProto d;
        std::vector<Bytes> out;
        for (std::size_t pos = 0; pos < in.size();) {
            const std::size_t n = std::min<std::size_t>(in.size() - pos, static_cast<std::size_t>(any(0, 900)));
            feed(d, in.data() + pos, n, out);
            pos += n;
        }
        if (clean) {
            ASSERT_EQ(out, good) << "round " << round;
        }
        ASSERT_EQ(out, model.out) << "round " << round;
        ASSERT_EQ(texts(log), model.log) << "round " << round;
    }
}

// Packets written into lent blocks: a finished packet is handed out in its block (not
// owned), a packet dropped by a bad tail, replaced after a reset or discarded gives its
// block back, and a packet that is refused a block takes one of its own.
TEST(QlensNetProto, LentStorageHoldsPacketsAndGetsEveryUnusedBlockBack)
{
    struct Storage : ztCamera::PacketStorage {
        unsigned char* lend(std::uint64_t size) override
        {
            sizes.push_back(size);
            if (refuse || lent != nullptr)
                return nullptr;
            lent = block.data();
            return lent;
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

    const Bytes good = extPacket(512, 300, 0xBB, 1);
    const unsigned char* p = good.data();
    std::uint64_t left = good.size();
    std::shared_ptr<QlensNetCmd> packet = d.decode(p, left);
    ASSERT_TRUE(packet);
    EXPECT_EQ(packet->buffer, storage.block.data());
    EXPECT_FALSE(packet->owned);
    EXPECT_EQ(Bytes(packet->buffer, packet->buffer + packet->bufSize), good);
    packet.reset(); // the reader keeps the block: nothing is given back
    EXPECT_EQ(storage.givenBack, 0);
    storage.lent = nullptr;

    EXPECT_TRUE(decodeAll(d, extPacket(512, 300, 0x00, 2)).empty()); // bad tail
    EXPECT_EQ(storage.givenBack, 1);

    // A packet cut short by reset is given back when the next one replaces it.
    const Bytes part = extPacket(1280, 400, 0xBB, 3);
    p = part.data();
    left = 200;
    EXPECT_FALSE(d.decode(p, left));
    d.reset();
    EXPECT_EQ(storage.givenBack, 1);
    const Bytes next = plainPacket(513, 120, 0xBB, 4);
    p = next.data();
    left = next.size();
    packet = d.decode(p, left);
    EXPECT_EQ(storage.givenBack, 2);
    ASSERT_TRUE(packet);
    EXPECT_EQ(packet->buffer, storage.block.data());
    EXPECT_EQ(Bytes(packet->buffer, packet->buffer + packet->bufSize), next);
    storage.lent = nullptr;

    // discardPacket gives a block back at once.
    p = part.data();
    left = 200;
    EXPECT_FALSE(d.decode(p, left));
    d.discardPacket();
    EXPECT_EQ(storage.givenBack, 3);
    EXPECT_EQ(d.state(), 0u);

    // Refused a block, a packet has its own buffer.
    storage.refuse = true;
    p = good.data();
    left = good.size();
    packet = d.decode(p, left);
    ASSERT_TRUE(packet);
    EXPECT_TRUE(packet->owned);
    EXPECT_NE(packet->buffer, storage.block.data());
    EXPECT_EQ(Bytes(packet->buffer, packet->buffer + packet->bufSize), good);
    EXPECT_EQ(storage.sizes, (std::vector<std::uint64_t>{300, 300, 400, 120, 400, 300}));
}
