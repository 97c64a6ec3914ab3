// The simulated device state: requests built byte by byte, replies compared byte by byte.
#include "host_peer.h"
#include "ztSimDevice.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

using zt::tools::embeddedMessage;
using zt::tools::joined;
using Bytes = std::vector<char>;

Bytes le(std::uint64_t v, int width = 4)
{
    return zt::tools::littleEndian(v, width);
}

Bytes le16(int v)
{
    return le(static_cast<std::uint16_t>(v), 2);
}

Bytes f32(float f)
{
    std::uint32_t u = 0;
    std::memcpy(&u, &f, sizeof u);
    return le(u);
}

// The text, zero-padded to width when one is given.
Bytes text(const std::string& s, std::size_t width = 0)
{
    Bytes b(s.begin(), s.end());
    b.resize(std::max(width, s.size()), 0);
    return b;
}

// One length byte, then the text.
Bytes name8(const std::string& s)
{
    return joined({Bytes{static_cast<char>(s.size())}, text(s)});
}

Bytes words(std::initializer_list<std::uint32_t> ws)
{
    Bytes b;
    for (std::uint32_t w : ws)
        b = joined({b, le(w)});
    return b;
}

Bytes statusReply(int status)
{
    return embeddedMessage(0, le(static_cast<std::uint32_t>(status)));
}

// Request type, then the status word and the value.
Bytes valueReply(std::uint16_t type, const Bytes& value, int status = 0)
{
    return embeddedMessage(type, joined({le(static_cast<std::uint32_t>(status)), value}));
}

Bytes ask(ztSimDevice& d, std::uint16_t type, const Bytes& payload = {})
{
    return d.answer(type, payload.data(), payload.size());
}

struct Case {
    const char* what;
    std::uint16_t type;
    Bytes payload;
    Bytes reply;
};

void expectReplies(ztSimDevice& d, const std::vector<Case>& cases)
{
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(ask(d, c.type, c.payload), c.reply);
    }
}

TEST(SimDevice, SettingsAreAnsweredWithStatusAndReadBackByTheirQueries)
{
    struct RoundTrip {
        const char* what;
        std::uint16_t set;
        Bytes setPayload;
        std::uint16_t query;
        Bytes queryPayload;
        Bytes value; // what the query reports from payload offset 4
    };
    const std::uint64_t id = 0x5A5400000000BEEFull;
    const RoundTrip trips[] = {
        {"exposure", 7, f32(12.5f), 8, {}, f32(12.5f)},
        {"LED exposure", 9, f32(3.25f), 10, {}, f32(3.25f)},
        {"gain, an integer", 18, le(static_cast<std::uint32_t>(-3)), 19, {}, le(static_cast<std::uint32_t>(-3))},
        {"frame rate, also setPeriod(40)", 16, le(25), 17, {}, le(25)},
        {"hardware frame rate", 356, le(3), 358, {}, le(3)},
        {"system id, 64 bits", 271, le(id, 8), 272, {}, le(id, 8)},
        {"camera ROI: one-byte name length out, 32-bit back", 11,
         joined({name8("CAM1"), le16(10), le16(-2), le16(640), le16(480)}), 12, {},
         joined({le(4), text("CAM1"), le16(10), le16(-2), le16(640), le16(480)})},
        {"enumeration register", 22, joined({name8("TriggerSource"), le(3)}), 23, name8("TriggerSource"), le(3)},
        {"wifi", 278, joined({name8("zt-ap"), name8("secret")}), 290, {}, joined({name8("zt-ap"), name8("secret")})},
        {"device register: 4 zero bytes, then the int16 at 8", 774,
         joined({le(1), le(0x100), le(2), Bytes{0x34, 0x12}}), 773, joined({le(1), le(0x100), le(2)}),
         joined({le(0), Bytes{0x34, 0x12}})},
    };
    ztSimDevice d;
    for (const auto& t : trips) {
        SCOPED_TRACE(t.what);
        const Bytes want = valueReply(t.query, t.value);
        EXPECT_NE(ask(d, t.query, t.queryPayload), want) << "the default already holds the value";
        EXPECT_EQ(ask(d, t.set, t.setPayload), statusReply(0));
        EXPECT_EQ(ask(d, t.query, t.queryPayload), want);
    }
    // The same state through the accessors the tests read.
    EXPECT_EQ(d.floatValue(8), 12.5f);
    EXPECT_EQ(d.value(272), id);
    EXPECT_EQ(d.roi().y, -2);
    EXPECT_EQ(d.wifi(), std::make_pair(std::string("zt-ap"), std::string("secret")));
    // A one-byte register write keeps that byte.
    EXPECT_EQ(ask(d, 774, joined({le(1), le(0x100), le(1), Bytes{0x7F, 0x55}})), statusReply(0));
    EXPECT_EQ(d.deviceRegister(1, 0x100), 0x7F);
}

// Replies whose layout no host test reads whole. The short ability form leaves the header
// out and marks itself with a non-zero third word; ability5 comes last.
TEST(SimDevice, StructuredRepliesHaveTheirLayouts)
{
    ztSimDevice d;
    const auto serials = [](const Bytes& a, int aLength, const Bytes& b, int bLength) {
        return embeddedMessage(3, joined({le(2), le(32), a, le(aLength, 8), le(15, 8), b, le(bLength, 8), le(15, 8)}));
    };
    expectReplies(d, {
        {"firmware date 20:24:11:15:9:30", 29, {}, valueReply(29, Bytes{15, 11, 24, 20, 30, 9, 0, 0})},
        {"camera serial numbers: count, record length, 32-byte records", 3, {},
         serials(text("ZTSIMCAM0", 16), 9, text("ZTSIMCAM1", 16), 9)},
    });
    d.setFirmwareDate(0x14190102, 0x0C05);
    d.setAbility({9, 77, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11}, false);
    d.setStatus(345, -3);
    d.setCameraSerialNumbers({"A1", "0123456789ABCDEFXYZ"}); // cut at 16 characters
    d.setLightpenVersion("2.3.1");
    d.setSetFile(2, {'x', 'y'});
    expectReplies(d, {
        {"firmware date", 29, {}, valueReply(29, Bytes{2, 1, 0x19, 0x14, 5, 0x0C, 0, 0})},
        {"ability, short form with its status", 345, {},
         embeddedMessage(345, words({0xFFFFFFFD, 52, 1, 1, 77, 2, 3, 4, 6, 7, 8, 9, 10, 11, 5}))},
        {"camera serial numbers", 3, {}, serials(text("A1", 16), 2, text("0123456789ABCDEF"), 16)},
        {"light-pen version: the asked serial, its length, the version", 344, joined({text("LP-7", 16), le(4)}),
         valueReply(344, joined({text("LP-7", 16), le(4), text("2.3.1", 16)}))},
        {"SET file by data type", 264, le(2), valueReply(264, text("xy"))},
        {"other data types keep the default", 264, le(0), valueReply(264, text("simulated head SET file\n"))},
    });
}

TEST(SimDevice, StatusesPreTriggersRefusalsAndBadRequests)
{
    ztSimDevice d;
    // Unknown types and actions: status 0, or the status set for the type.
    EXPECT_EQ(ask(d, 999), statusReply(0));
    d.setStatus(999, 5);
    EXPECT_EQ(ask(d, 999), statusReply(5));

    // A pre-trigger gets no reply unless asked for; start and stop do.
    EXPECT_EQ(ask(d, 13, le(1)), statusReply(0));
    EXPECT_TRUE(ask(d, 13, le(2)).empty());
    EXPECT_EQ(ask(d, 13, le(0)), statusReply(0));
    d.setAnswerPreTrigger(true);
    EXPECT_EQ(ask(d, 13, le(2)), statusReply(0));
    EXPECT_EQ(d.receivedCount(13), 4);

    // A negative status refuses the setting; a query carries its status in the first word.
    d.setStatus(7, -4);
    EXPECT_EQ(ask(d, 7, f32(99.0f)), statusReply(-4));
    EXPECT_EQ(d.floatValue(8), 20.0f);
    d.setStatus(8, 2);
    EXPECT_EQ(ask(d, 8), valueReply(8, f32(20.0f), 2));

    // Requests too short for their layout: status -1, nothing changes.
    const std::vector<Case> bad = {
        {"exposure of two bytes", 9, Bytes{1, 2}, {}},
        {"system id of four bytes", 271, le(1), {}},
        {"ROI name longer than the payload", 11, joined({Bytes{10}, text("abc")}), {}},
        {"ROI without its four values", 11, joined({name8("X"), le16(1)}), {}},
        {"wifi password cut short", 278, joined({name8("ssid"), Bytes{5}, text("ab")}), {}},
        {"register write without value", 20, name8("Gain"), {}},
        {"device register data cut short", 774, joined({le(1), le(2), le(100), Bytes{1, 2}}), {}},
        {"device register negative length", 774, joined({le(1), le(2), le(0xFFFFFFFF)}), {}},
        {"light-pen version without text block", 344, text("LP"), {}},
        {"SET file without data type", 264, {}, {}},
        {"empty trigger", 13, {}, {}},
    };
    for (const auto& b : bad) {
        SCOPED_TRACE(b.what);
        EXPECT_EQ(ask(d, b.type, b.payload), statusReply(-1));
    }
    EXPECT_EQ(d.floatValue(10), 20.0f);
    EXPECT_EQ(d.value(272), 0u);
    EXPECT_EQ(d.roi().name, "ROI");
    EXPECT_EQ(d.deviceRegister(1, 2), 0);
    // A register never written reads 0 with status -1.
    EXPECT_EQ(ask(d, 21, name8("Gain")), valueReply(21, le(0), -1));

    // Uploads are answered with status and kept: the last one of each type, and a count.
    Bytes firmware(100000);
    for (std::size_t i = 0; i < firmware.size(); ++i)
        firmware[i] = static_cast<char>(i * 7);
    EXPECT_EQ(ask(d, 267, firmware), statusReply(0));
    EXPECT_EQ(ask(d, 263, text("first")), statusReply(0));
    EXPECT_EQ(ask(d, 263, text("second")), statusReply(0));
    EXPECT_EQ(d.received(267), firmware);
    EXPECT_EQ(d.received(263), text("second"));
    EXPECT_EQ(d.receivedCount(263), 2);
    EXPECT_TRUE(d.received(265).empty());
}

} // namespace
