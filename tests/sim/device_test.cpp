// The simulated device state: requests built byte by byte, replies compared byte by byte.
#include "host_peer.h"
#include "ztSimDevice.h"
#include "ztSimNetworkHead.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using zt::tools::embeddedMessage;
using Bytes = std::vector<char>;

Bytes le(std::uint64_t v, int width)
{
    return zt::tools::littleEndian(v, width);
}

Bytes le32(std::uint32_t v)
{
    return le(v, 4);
}

Bytes le16(int v)
{
    return le(static_cast<std::uint16_t>(v), 2);
}

Bytes f32(float f)
{
    std::uint32_t u = 0;
    std::memcpy(&u, &f, sizeof u);
    return le32(u);
}

Bytes text(const std::string& s, std::size_t width = 0)
{
    Bytes b(s.begin(), s.end());
    if (width > 0)
        b.resize(width, 0);
    return b;
}

Bytes concat(std::initializer_list<Bytes> parts)
{
    return zt::tools::joined(parts);
}

// One length byte, then the text.
Bytes name8(const std::string& s)
{
    return concat({Bytes{static_cast<char>(s.size())}, text(s)});
}

Bytes statusReply(int status)
{
    return embeddedMessage(0, le32(static_cast<std::uint32_t>(status)));
}

// Request type, then the status word and the value.
Bytes valueReply(std::uint16_t type, const Bytes& value, int status = 0)
{
    return embeddedMessage(type, concat({le32(static_cast<std::uint32_t>(status)), value}));
}

Bytes ask(ztSimDevice& d, std::uint16_t type, const Bytes& payload = {})
{
    return d.answer(type, payload.data(), payload.size());
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
        {"gain, an integer", 18, le32(static_cast<std::uint32_t>(-3)), 19, {}, le32(static_cast<std::uint32_t>(-3))},
        {"frame rate, also setPeriod(40)", 16, le32(25), 17, {}, le32(25)},
        {"scan data source", 5, le32(2), 6, {}, le32(2)},
        {"hardware sync mode", 269, le32(1), 270, {}, le32(1)},
        {"master", 260, le32(1), 261, {}, le32(1)},
        {"hardware frame rate", 356, le32(3), 358, {}, le32(3)},
        {"system id, 64 bits", 271, le(id, 8), 272, {}, le(id, 8)},
        {"camera ROI: one-byte name length out, 32-bit back", 11,
         concat({name8("CAM1"), le16(10), le16(-2), le16(640), le16(480)}), 12, {},
         concat({le32(4), text("CAM1"), le16(10), le16(-2), le16(640), le16(480)})},
        {"integer register", 20, concat({name8("Gain"), le32(7)}), 21, name8("Gain"), le32(7)},
        {"enumeration register", 22, concat({name8("TriggerSource"), le32(3)}), 23, name8("TriggerSource"), le32(3)},
        {"wifi", 278, concat({name8("zt-ap"), name8("secret")}), 290, {}, concat({name8("zt-ap"), name8("secret")})},
        {"device register: 4 zero bytes, then the int16 at 8", 774,
         concat({le32(1), le32(0x100), le32(2), Bytes{0x34, 0x12}}), 773, concat({le32(1), le32(0x100), le32(2)}),
         concat({le32(0), Bytes{0x34, 0x12}})},
    };
    ztSimDevice d;
    for (const auto& t : trips) {
        SCOPED_TRACE(t.what);
        const Bytes want = valueReply(t.query, t.value);
        EXPECT_NE(ask(d, t.query, t.queryPayload), want) << "the default already holds the value";
        EXPECT_EQ(ask(d, t.set, t.setPayload), statusReply(0));
        EXPECT_EQ(ask(d, t.query, t.queryPayload), want);
    }
    // The same state through the accessors.
    EXPECT_EQ(d.floatValue(8), 12.5f);
    EXPECT_EQ(static_cast<int>(d.value(19)), -3);
    EXPECT_EQ(d.value(17), 25u);
    EXPECT_EQ(d.value(272), id);
    const ztSimDevice::Roi roi = d.roi();
    EXPECT_EQ(roi.name, "CAM1");
    EXPECT_EQ(roi.y, -2);
    EXPECT_EQ(roi.height, 480);
    EXPECT_EQ(d.registerValue("Gain"), 7u);
    EXPECT_EQ(d.wifi(), std::make_pair(std::string("zt-ap"), std::string("secret")));
    EXPECT_EQ(d.deviceRegister(1, 0x100), 0x1234);
    // A one-byte register write keeps that byte.
    EXPECT_EQ(ask(d, 774, concat({le32(1), le32(0x100), le32(1), Bytes{0x7F, 0x55}})), statusReply(0));
    EXPECT_EQ(d.deviceRegister(1, 0x100), 0x7F);
}

TEST(SimDevice, StructuredRepliesHaveTheirLayouts)
{
    ztSimDevice d;
    struct Case {
        const char* what;
        std::uint16_t type;
        Bytes payload;
        Bytes reply;
    };
    const std::vector<Case> defaults = {
        {"image size 1280 x 1024", 4, {}, valueReply(4, concat({le16(1280), le16(1024)}))},
        {"firmware version 1-2-10-3", 15, {}, valueReply(15, Bytes{3, 10, 2, 1})},
        {"firmware date 20:24:11:15:9:30", 29, {}, valueReply(29, Bytes{15, 11, 24, 20, 30, 9, 0, 0})},
        {"program version", 276, {}, valueReply(276, Bytes{4, 3, 2, 1})},
        {"bandwidth", 257, {}, valueReply(257, le32(1000))},
        {"ability, long form", 345, {},
         embeddedMessage(345, (ztSimNetworkHead::abilityPayload(ztSimNetworkHead::defaultAbility(), true)))},
        {"SET file of any data type", 264, le32(1), valueReply(264, text("simulated head SET file\n"))},
        {"camera serial numbers: count, record length, 32-byte records", 3, {},
         embeddedMessage(3, concat({le32(2), le32(32), text("ZTSIMCAM0", 16), le(9, 8), le(15, 8), text("ZTSIMCAM1", 16),
                             le(9, 8), le(15, 8)}))},
        {"temperatures: status, count byte, unaligned floats", 256, {},
         valueReply(256, concat({Bytes{2}, f32(36.5f), f32(41.0f)}))},
    };
    for (const auto& c : defaults) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(ask(d, c.type, c.payload), c.reply);
    }

    d.setImageSize(640, -1);
    d.setFirmwareDate(0x14190102, 0x0C05);
    d.setFloatValue(14, 2.0f);
    const ztSimDevice::AbilityRecord record{9, 77, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11};
    d.setAbility(record, false);
    d.setStatus(345, -3);
    // The 16th character and beyond are cut.
    d.setCameraSerialNumbers({"A1", "0123456789ABCDEFXYZ"});
    d.setLightpenVersion("2.3.1");
    d.setTemperatures({-4.0f});
    d.setSetFile(2, {'x', 'y'});
    d.setFile(355, {'l', 'o', 'g', '\n'});
    const auto shortAbility = ztSimNetworkHead::abilityPayload(record, false, -3);
    const std::vector<Case> preset = {
        {"image size", 4, {}, valueReply(4, concat({le16(640), le16(-1)}))},
        {"firmware date", 29, {}, valueReply(29, Bytes{2, 1, 0x19, 0x14, 5, 0x0C, 0, 0})},
        {"trigger mode as float bits", 14, {}, valueReply(14, f32(2.0f))},
        {"ability, short form with its status", 345, {}, embeddedMessage(345, (shortAbility))},
        {"camera serial numbers", 3, {},
         embeddedMessage(3, concat({le32(2), le32(32), text("A1", 16), le(2, 8), le(15, 8), text("0123456789ABCDEF"),
                             le(16, 8), le(15, 8)}))},
        {"light-pen version: the asked serial, its length, the version", 344, concat({text("LP-7", 16), le32(4)}),
         valueReply(344, concat({text("LP-7", 16), le32(4), text("2.3.1", 16)}))},
        {"temperatures", 256, {}, valueReply(256, concat({Bytes{1}, f32(-4.0f)}))},
        {"SET file by data type", 264, le32(2), valueReply(264, text("xy"))},
        {"other data types keep the default", 264, le32(0), valueReply(264, text("simulated head SET file\n"))},
        {"whole log", 355, {}, valueReply(355, text("log\n"))},
        {"RGF file", 266, {}, valueReply(266, text("simulated head RGF file\n"))},
        {"sectional log", 258, {}, valueReply(258, text("simulated head sectional log\n"))},
    };
    for (const auto& c : preset) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(ask(d, c.type, c.payload), c.reply);
    }
    EXPECT_EQ(d.ability(), record);
}

TEST(SimDevice, StatusesPreTriggersRefusalsAndBadRequests)
{
    ztSimDevice d;
    // Unknown types and actions: status 0, or the status set for the type.
    EXPECT_EQ(ask(d, 999), statusReply(0));
    d.setStatus(999, 5);
    EXPECT_EQ(ask(d, 999), statusReply(5));
    d.setStatus(999, 0);
    EXPECT_EQ(ask(d, 999), statusReply(0));
    EXPECT_EQ(ask(d, 287), statusReply(0));

    // A pre-trigger gets no reply unless asked for; start and stop do.
    EXPECT_EQ(ask(d, 13, le32(1)), statusReply(0));
    EXPECT_TRUE(ask(d, 13, le32(2)).empty());
    EXPECT_EQ(ask(d, 13, le32(0)), statusReply(0));
    d.setAnswerPreTrigger(true);
    EXPECT_EQ(ask(d, 13, le32(2)), statusReply(0));
    EXPECT_EQ(d.receivedCount(13), 4);
    EXPECT_EQ((d.received(13)), le32(2));

    // A negative status refuses the setting; a query carries its status in the first word.
    d.setStatus(7, -4);
    EXPECT_EQ(ask(d, 7, f32(99.0f)), statusReply(-4));
    EXPECT_EQ(d.floatValue(8), 20.0f);
    d.setStatus(8, 2);
    EXPECT_EQ(ask(d, 8), valueReply(8, f32(20.0f), 2));
    d.setStatus(290, 1);
    EXPECT_EQ(ask(d, 290), valueReply(290, Bytes{0, 0}, 1));

    // Requests too short for their layout: status -1, nothing changes.
    struct Bad {
        const char* what;
        std::uint16_t type;
        Bytes payload;
    };
    const Bad bad[] = {
        {"exposure of two bytes", 9, Bytes{1, 2}},
        {"system id of four bytes", 271, le32(1)},
        {"ROI name longer than the payload", 11, concat({Bytes{10}, text("abc")})},
        {"ROI without its four values", 11, concat({name8("X"), le16(1)})},
        {"wifi without password", 278, name8("ssid")},
        {"wifi password cut short", 278, concat({name8("ssid"), Bytes{5}, text("ab")})},
        {"register write without value", 20, name8("Gain")},
        {"device register data cut short", 774, concat({le32(1), le32(2), le32(100), Bytes{1, 2}})},
        {"device register negative length", 774, concat({le32(1), le32(2), le32(0xFFFFFFFF)})},
        {"drop frame mode of one byte", 291, Bytes{1}},
        {"light-pen version without text block", 344, text("LP")},
        {"SET file without data type", 264, {}},
        {"empty trigger", 13, {}},
    };
    for (const auto& b : bad) {
        SCOPED_TRACE(b.what);
        EXPECT_EQ(ask(d, b.type, b.payload), statusReply(-1));
    }
    EXPECT_EQ(d.floatValue(10), 20.0f);
    EXPECT_EQ(d.value(272), 0u);
    EXPECT_EQ(d.roi().name, "ROI");
    EXPECT_EQ(d.wifi().first, "");
    EXPECT_EQ(d.deviceRegister(1, 2), 0);
    EXPECT_EQ(d.registerValue("Gain"), 0u);
    // A register never written reads 0 with status -1.
    EXPECT_EQ(ask(d, 21, name8("Gain")), valueReply(21, le32(0), -1));

    // Uploads are answered with status and kept: the last one of each type, and a count.
    Bytes firmware(100000);
    for (std::size_t i = 0; i < firmware.size(); ++i)
        firmware[i] = static_cast<char>(i * 7);
    EXPECT_EQ(ask(d, 267, firmware), statusReply(0));
    EXPECT_EQ(ask(d, 263, text("first")), statusReply(0));
    EXPECT_EQ(ask(d, 263, text("second")), statusReply(0));
    EXPECT_EQ((d.received(267)), firmware);
    EXPECT_EQ(d.receivedCount(267), 1);
    EXPECT_EQ((d.received(263)), text("second"));
    EXPECT_EQ(d.receivedCount(263), 2);
    EXPECT_EQ(d.receivedCount(265), 0);
    EXPECT_TRUE(d.received(265).empty());
}

TEST(SimDevice, ConcurrentCallersEachSeeTheirOwnRegister)
{
    ztSimDevice d;
    std::vector<std::thread> threads;
    std::vector<int> mismatches(3, 0);
    for (int t = 0; t < 3; ++t) {
        threads.emplace_back([&d, &mismatches, t] {
            const std::string name = "R" + std::to_string(t);
            for (std::uint32_t k = 0; k < 500; ++k) {
                const std::uint32_t v = k * 3 + static_cast<std::uint32_t>(t);
                if (ask(d, 20, concat({name8(name), le32(v)})) != statusReply(0) ||
                    ask(d, 21, name8(name)) != valueReply(21, le32(v)))
                    ++mismatches[static_cast<std::size_t>(t)];
            }
        });
    }
    for (int k = 0; k < 500; ++k)
        d.setStatus(999, k % 2);
    for (auto& th : threads)
        th.join();
    EXPECT_EQ(mismatches, (std::vector<int>{0, 0, 0}));
    EXPECT_EQ(d.receivedCount(20), 1500);
    EXPECT_EQ(d.registerValue("R2"), 499u * 3 + 2);
}

} // namespace
