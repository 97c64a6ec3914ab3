// The simulated device state: requests built byte by byte, replies compared byte by byte.
#include "host_peer.h"
#include "ztSimDevice.h"

#include <gtest/gtest.h>

#include <cstring>
#include <tuple>

namespace {

using zt::tools::embeddedMessage;
using zt::tools::joined;
using Bytes = std::vector<char>;

Bytes le(std::uint64_t v, int width = 4)
{
    return zt::tools::littleEndian(v, width);
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
    const std::vector<std::tuple<const char*, std::uint16_t, Bytes>> bad = {
        {"exposure of two bytes", 9, Bytes{1, 2}},
        {"system id of four bytes", 271, le(1)},
        {"ROI name longer than the payload", 11, joined({Bytes{10}, text("abc")})},
        {"ROI without its four values", 11, joined({name8("X"), le(1, 2)})},
        {"wifi password cut short", 278, joined({name8("ssid"), Bytes{5}, text("ab")})},
        {"register write without value", 20, name8("Gain")},
        {"device register data cut short", 774, joined({le(1), le(2), le(100), Bytes{1, 2}})},
        {"device register negative length", 774, joined({le(1), le(2), le(0xFFFFFFFF)})},
        {"light-pen version without text block", 344, text("LP")},
        {"SET file without data type", 264, {}},
        {"empty trigger", 13, {}},
    };
    for (const auto& [what, type, payload] : bad) {
        SCOPED_TRACE(what);
        EXPECT_EQ(ask(d, type, payload), statusReply(-1));
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
