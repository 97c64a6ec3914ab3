// The device command set row by row on a real link: each command goes through the link
// object to a simulated head that records the request and answers as the row says. Per row:
// the exact request, the result, the outputs and the log lines; the catalogue's rows also
// answered with a reply of another type, and with an exchange that fails at its send.
//
// Built once per link: ZT_TEST_LINK_NETWORK (ztEmbeddedModuleProxyServer against
// ztSimNetworkHead on port 42001, in a private network namespace) or ZT_TEST_LINK_USB
// (ztUsbProxyServer on real libusb against ztSimUsbHead under the umockdev preload).
#include "host_peer.h"
#include "support/data_calls.h"
#include "support/log_capture.h"
#include "ztDeviceCommandSet.h"
#include "ztEmbeddedModuleProxyServer.h"
#include "ztSimNetworkHead.h"

#ifdef ZT_TEST_LINK_USB
#include "support/usb_online.h"
#endif

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#if defined(ZT_TEST_LINK_NETWORK) == defined(ZT_TEST_LINK_USB)
#error "build with exactly one of ZT_TEST_LINK_NETWORK and ZT_TEST_LINK_USB"
#endif

namespace {

using Bytes = std::vector<char>;
using Cmd = ztDeviceCommandSet;
using NetServer = ztEmbeddedModuleProxyServer;
using zt::test::LogCapture;
#ifdef ZT_TEST_LINK_NETWORK
constexpr bool kNet = true;
using Head = ztSimNetworkHead;
using Server = NetServer;
#else
constexpr bool kNet = false;
using Head = ztSimUsbHead;
using Server = ztUsbProxyServer;
#endif
const std::string kClass = kNet ? "ztEmbeddedModuleProxyServer" : "ztUsbProxyServer";

// Wire bytes, little-endian.
constexpr auto le = zt::tools::littleEndian;
constexpr auto cat = zt::tools::joined;
Bytes i32(std::int32_t v) { return le(static_cast<std::uint32_t>(v), 4); }
Bytes u32(std::uint32_t v) { return le(v, 4); }
Bytes u64(std::uint64_t v) { return le(v, 8); }
Bytes i16(std::int16_t v) { return le(static_cast<std::uint16_t>(v), 2); }
Bytes u8(std::size_t v) { return le(v, 1); }
Bytes f32(float f)
{
    std::uint32_t bits;
    std::memcpy(&bits, &f, sizeof bits);
    return u32(bits);
}
// A text, zero-padded to n bytes when n is given.
Bytes text(const std::string& s, std::size_t n = 0)
{
    Bytes b(s.begin(), s.end());
    b.resize(std::max(n, b.size()), 0);
    return b;
}
// A name: one length byte, then the text.
Bytes named(const std::string& s) { return cat({u8(s.size()), text(s)}); }
// A serial number: 16 bytes of text, then its length.
Bytes textBlock(const std::string& s) { return cat({text(s, 16), u32(static_cast<std::uint32_t>(s.size()))}); }
// A serial-number record of a reply: 16 bytes of text, the 64-bit length, the value 15.
Bytes snRecord(const std::string& s, std::uint64_t length) { return cat({text(s, 16), u64(length), u64(15)}); }
Bytes message(unsigned short type, const Bytes& payload)
{
    return ztSimNetworkHead::message(type, payload.data(), payload.size());
}
std::string hex(const Bytes& b)
{
    std::string s;
    for (const char c : b) {
        char two[4];
        std::snprintf(two, sizeof two, "%s%02x", s.empty() ? "" : " ", static_cast<unsigned char>(c));
        s += two;
    }
    return s;
}

// What a command fills, preset to 0x5A bytes and texts that no row expects.
struct Out {
    struct Fixed {
        int i[4];
        float f;
        unsigned long long u64;
        short s[4];
        int nameLen;
        char name[64];
        char ssid[256];
        char pass[256];
        DeviceAbilityInfo ability;
    } v;
    std::string text = "keep:";
    std::vector<std::string> sns{"old"};
    Out() { std::memset(&v, 0x5A, sizeof v); }
};
std::string dump(const Out& o)
{
    const auto* p = reinterpret_cast<const char*>(&o.v);
    std::string s = hex(Bytes(p, p + sizeof o.v)) + " text=" + o.text + " sns=";
    for (const auto& sn : o.sns)
        s += "[" + sn + "]";
    return s;
}
using Words = std::array<std::uint32_t, 12>;
Words words(const DeviceAbilityInfo& a)
{
    return {a.abilityHeader, a.productType, a.ability2, a.ability3, a.ability4,  a.ability5,
            a.ability6,      a.ability7,    a.ability8, a.ability9, a.ability10, a.ability11};
}
const Words kSentinel = words(Out().v.ability);

// A log line a command must write: level (-1 any) and text (or its start).
struct Expect {
    int level;
    std::string text;
    bool prefix = false;
};
using Lines = std::vector<Expect>;

// The lines of a command's outcome: failure texts, the texts commands log on success, and
// anything naming the method in brackets (not heartbeats or the socket layer's texts).
void expectLines(const LogCapture& log, const std::string& method, const Lines& want)
{
    static const char* const kMarkers[] = {"zmq_send failed", "receive data error", "send cmd failed",
                                           "ztUsbProxyServer::sendCtrlCmd", "READ_REGISTER_VALUE", "get wifi",
                                           "get lightpen version", "getDeviceAbilityInfo,", "reply too short"};
    std::vector<LogCapture::Line> got;
    std::string all;
    for (const auto& l : log.lines()) {
        bool belongs = l.text.find("[" + method + "]") != std::string::npos;
        for (const char* m : kMarkers)
            belongs = belongs || l.text.find(m) != std::string::npos;
        if (belongs) {
            got.push_back(l);
            all += "\n  [" + std::to_string(l.level) + "] \"" + l.text + '"';
        }
    }
    ASSERT_EQ(got.size(), want.size()) << "log lines of " << method << ':' << all;
    for (std::size_t k = 0; k < want.size(); ++k) {
        EXPECT_EQ(want[k].prefix ? got[k].text.substr(0, want[k].text.size()) : got[k].text, want[k].text) << all;
        if (want[k].level >= 0) {
            EXPECT_EQ(got[k].level, want[k].level) << got[k].text;
        }
    }
}

// How the head answers a request.
struct Feed {
    enum Kind { Status, Echo, Raw, None } kind = Status;
    int status = 0;
    Bytes bytes; // Echo: the payload; Raw: the whole message
};
Feed status(int s) { return {Feed::Status, s, {}}; }
Feed echo(Bytes payload) { return {Feed::Echo, 0, std::move(payload)}; }
Feed raw(Bytes whole) { return {Feed::Raw, 0, std::move(whole)}; }
const Feed kNoReply{Feed::None, 0, {}};

using Call = std::function<int(Cmd&, Out&)>;
using Check = std::function<void(const Out&)>;
NetServer& net(Cmd& d) { return dynamic_cast<NetServer&>(d); }
// A writable copy of a text, for the commands that take char*; it lives to the end of the
// call's full expression.
char* w(std::string&& s) { return s.data(); }

// How a row's command differs from the common rule.
enum : unsigned {
    kNoWait = 1,      // neither link waits for a reply: the result is the send's
    kUsbNoWait = 2,   // the USB link sends without waiting
    kUnexamined = 4,  // the reply is not examined: a negative status still succeeds
    kColon = 8,       // the network send-failure text in its "::" form
    kReceiveLog = 16, // the network link logs a reply of another type
    kHandOn = 32,     // the reply goes to the data callback, under the request's type
    kNetOnly = 64,    // a command of the network link only
    kLarge = 128,     // the USB link's large-reply exchange
    kRefused = 256,   // nothing is sent
};

struct Row {
    std::string name; // the method, as its log texts name it
    unsigned short type;
    Bytes payload; // the request's payload, exactly
    Feed feed;
    Call call;
    Check check; // the outputs after the call; none: all untouched
    unsigned flags;
    int result;
    Lines lines; // logged by the call
    std::string sendName; // the name the network send-failure text gives, if not name

    bool has(unsigned f) const { return (flags & f) != 0; }
    bool runs() const { return kNet || !has(kNetOnly); }
    bool waits() const { return !has(kNoWait) && (kNet || !has(kUsbNoWait)); }
    // The send-failure lines.
    Lines sendFailure() const
    {
        if (kNet) {
            const std::string n = sendName.empty() ? name : sendName;
            return {{ZTLOG_LEVEL_ERROR, has(kColon) ? kClass + "::[" + n + "] zmq_send failed!" : kClass + " [" + n + "] zmq_send failed!\r\n"}};
        }
        // The exchange the USB text names; either may serve for hand-on replies.
        const std::string exchange = has(kLarge) ? "sendCtrlCmd_2" : has(kHandOn) ? "" : "sendCtrlCmd";
        return {{-1, exchange.empty() ? kClass + "::sendCtrlCmd" : kClass + "::" + exchange + " libusb_bulk_transfer failed, ret = ", true},
                {ZTLOG_LEVEL_ERROR, kClass + "::[" + name + "] send cmd failed"}};
    }
};

// Setting rows are answered with this status: not 0, so that the USB link's status word
// and the network link's 0 tell apart.
constexpr int kStatus = 7;
Row S(std::string name, unsigned short type, Bytes payload, Call call, unsigned flags = 0, std::string sendName = "")
{
    const bool judged = !(flags & (kNoWait | kUnexamined));
    return {std::move(name), type, std::move(payload), flags & kNoWait ? kNoReply : status(judged ? kStatus : -4),
            std::move(call), nullptr, flags, kNet || !judged ? 0 : kStatus, {}, std::move(sendName)};
}
Row Q(std::string name, unsigned short type, Bytes payload, Bytes reply, Call call, Check check, unsigned flags = 0,
      std::string sendName = "")
{
    return {std::move(name), type, std::move(payload), echo(std::move(reply)), std::move(call), std::move(check), flags, 0, {},
            std::move(sendName)};
}
// A row outside the catalogue's common rule: its own answer, result and lines.
Row X(std::string name, unsigned short type, Bytes payload, Feed feed, Call call, int result, Lines lines, Check check = nullptr,
      unsigned flags = 0)
{
    return {std::move(name), type, std::move(payload), std::move(feed), std::move(call), std::move(check), flags, result, std::move(lines), {}};
}
Row logs(Row r, Lines lines)
{
    r.lines = std::move(lines);
    return r;
}

// A command call and a check of what it filled, for the tables below.
#define CALL(...) [](Cmd& d, [[maybe_unused]] Out& o) { return d.__VA_ARGS__; }
#define NET(...) [](Cmd& d, [[maybe_unused]] Out& o) { return net(d).__VA_ARGS__; }
#define WANT(got, ...) [](const Out& o) { EXPECT_EQ(got, (__VA_ARGS__)); }

// The status word that value replies carry: the getters do not look at it.
const Bytes kIgnoredStatus = i32(9);
Bytes value(const Bytes& v) { return cat({kIgnoredStatus, v}); }
const ztSimNetworkHead::AbilityRecord kRecord{0xA0, 77, 0x102, 0x103, 0x104, 0x105, 0x106, 0x107, 0x108, 0x109, 0x10A, 0x10B};
const char kSetFile[] = "SETFILE\0ab";
using V = std::vector<int>;
using Shorts = std::vector<short>;

const std::vector<Row>& catalogue()
{
    static const std::vector<Row> rows = {
        // Trigger, scan and synchronisation.
        S("sendTrigger", 13, i32(1), CALL(sendTrigger())),
        S("sendStopTrigger", 13, i32(0), CALL(sendStopTrigger())),
        S("sendPreTrigger", 13, i32(2), CALL(sendPreTrigger()), kNoWait | kUnexamined, "sendTrigger"),
        // The word at 4 is a float, truncated toward zero.
        Q("getTriggerMode", 14, {}, value(f32(-2.75f)), CALL(getTriggerMode(&o.v.i[0])), WANT(o.v.i[0], -2)),
        S("setScanStatus", 289, i32(0x11223344), CALL(setScanStatus(0x11223344))),
        S("setScanDataSource", 5, i32(3), CALL(setScanDataSource(3))),
        Q("getScanDataSource", 6, {}, value(i32(0x0A0B0C0D)), CALL(getScanDataSource(&o.v.i[0])), WANT(o.v.i[0], 0x0A0B0C0D)),
        S("execSync", 273, i32(1), CALL(execSync(true, false))),
        S("execSync", 273, i32(0), CALL(execSync(false, true))),
        S("updateSyncStat", 274, {}, CALL(updateSyncStat()), 0, "execSync"),
        S("setHardwareSyncMode", 269, i32(2), CALL(setHardwareSyncMode(2))),
        Q("getHardwareSyncMode", 270, {}, value(i32(-5)), CALL(getHardwareSyncMode(&o.v.i[0])), WANT(o.v.i[0], -5)),
        S("setMaster", 260, i32(1), CALL(setMaster(1))),
        Q("getMaster", 261, {}, value(i32(1)), CALL(getMaster(&o.v.i[0])), WANT(o.v.i[0], 1)),
        S("setSystemId", 271, u64(0x0102030405060708ull), CALL(setSystemId(0x0102030405060708ull))),
        Q("getSystemId", 272, {}, value(u64(0x8877665544332211ull)), CALL(getSystemId(&o.v.u64)), WANT(o.v.u64, 0x8877665544332211ull)),
        Q("getBandWidth", 257, {}, value(i32(1000)), CALL(getBandWidth(&o.v.i[0])), WANT(o.v.i[0], 1000)),

        // Camera, exposure and frame rate. The gain travels as an integer; a period of 8 ms
        // is the frame rate 125, a frame rate of 7 a period of 142 ms.
        S("setCameraExposure", 7, f32(12.5f), CALL(setCameraExposure(12.5f))),
        Q("getCameraExposure", 8, {}, value(f32(0.125f)), CALL(getCameraExposure(&o.v.f)), WANT(o.v.f, 0.125f)),
        S("setLedExposure", 9, f32(3.25f), CALL(setLedExposure(3.25f))),
        Q("getLedExposure", 10, {}, value(f32(2.5f)), CALL(getLedExposure(&o.v.f)), WANT(o.v.f, 2.5f)),
        S("setCameraGain", 18, i32(7), CALL(setCameraGain(7.9f))),
        Q("getCameraGain", 19, {}, value(i32(-12)), CALL(getCameraGain(&o.v.f)), WANT(o.v.f, -12.0f)),
        S("setCameraFrameRate", 16, i32(25), CALL(setCameraFrameRate(25))),
        Q("getCameraFrameRate", 17, {}, value(i32(48)), CALL(getCameraFrameRate(&o.v.i[0])), WANT(o.v.i[0], 48)),
        S("setPeriod", 16, i32(125), CALL(setPeriod(8)), 0, "sendPeriod"),
        Q("getPeriod", 17, {}, value(i32(7)), CALL(getPeriod(&o.v.i[0])), WANT(o.v.i[0], 142)),
        // Only nameLen bytes of a name travel; a name read has a 32-bit length and no
        // terminator added.
        S("setCameraROI", 11, cat({named("cam1"), i16(10), i16(-20), i16(640), i16(480)}),
          CALL(setCameraROI(w("cam1XYZ"), 4, 10, -20, 640, 480))),
        Q("getCameraROI", 12, {}, value(cat({i32(5), text("roi_A"), i16(1), i16(-2), i16(300), i16(400)})),
          CALL(getCameraROI(o.v.name, o.v.nameLen, o.v.s[0], o.v.s[1], o.v.s[2], o.v.s[3])),
          WANT(std::make_tuple(std::string(o.v.name, 6), o.v.nameLen, Shorts(o.v.s, o.v.s + 4)),
               std::make_tuple(std::string("roi_AZ"), 5, Shorts{1, -2, 300, 400}))),
        S("setCameraReverse", 25, cat({named("sensor"), i32(-1)}), CALL(setCameraReverse(w("sensorB"), 6, -1))),
        S("setImageROI", 32, cat({named("img"), i16(1), i16(2), i16(3), i16(4)}), CALL(setImageROI("img", 1, 2, 3, 4)), kColon),
        Q("getImageSize", 4, {}, value(cat({i16(1280), i16(1024)})), CALL(getImageSize(&o.v.s[0], &o.v.s[1])),
          WANT(Shorts(o.v.s, o.v.s + 2), Shorts{1280, 1024})),
        S("resetCamera", 24, {}, CALL(resetCamera())),
        S("setDropFrameRateMode", 291, i16(FRAME_DROP_THIRD), CALL(setDropFrameRateMode(FRAME_DROP_THIRD))),
        S("setLaserTriggerMode", 325, i16(FRAME_DROP_QUARTER), CALL(setLaserTriggerMode(FRAME_DROP_QUARTER))),
        S("setDeviceDropFrame", 297, cat({i16(1), i16(300), i16(-3), i16(4), i16(5), i16(6)}),
          CALL(setDeviceDropFrame(1, 300, -3, 4, 5, 6)), kColon | kReceiveLog),
        // Name, flag, a[0], a[2], b[0], b[2].
        S("setQRBarCenter", 26, cat({named("qr"), u8(1), i16(100), i16(200), i16(-300), i16(400)}),
          CALL(setQRBarCenter(w("qrX"), 2, true, std::array<int, 3>{100, -1, 200}.data(), std::array<int, 3>{-300, -1, 400}.data()))),

        // Light, laser, light pen and housekeeping.
        S("sendLightCMD", 316, i32(5), CALL(sendLightCMD(5))),
        S("sendLazerCMD", 318, cat({i32(0x01020304), u8('L'), i32(-2)}), CALL(sendLazerCMD(0x01020304, 'L', -2))),
        S("enableAlarmVoice", 315, i32(1), CALL(enableAlarmVoice(true))),
        S("sendIsBlackObject", 320, i32(0), CALL(sendIsBlackObject(false))),
        S("setLightPenEnable", 280, i32(1), CALL(setLightPenEnable(true))),
        S("SetLightpenType", 341, i32(4), CALL(SetLightpenType(4))),
        S("sendGetLPFindList", 337, {}, CALL(sendGetLPFindList())),
        S("sendLPSelectInfo", 338, cat({textBlock("LP-SN-42"), i32(3)}), CALL(sendLPSelectInfo("LP-SN-42", 3))),
        logs(Q("getLightpenVersion", 344, textBlock("LP-SN-42"), cat({i32(0), text("LP-777", 16), u32(6), text("V2.3.4", 16)}),
               CALL(getLightpenVersion("LP-SN-42", o.text)), WANT(o.text, "V2.3.4")),
             {{ZTLOG_LEVEL_INFO, "get lightpen version, ret = 0, lightpenSN = LP-777, version = V2.3.4"}}),
        S("preheatRK", 314, i32(60), CALL(preheatRK(60))),
        S("setHybridComputeNum2RK", 352, i32(3), CALL(setHybridComputeNum2RK(3))),
        S("syncTime2Device", 354, text("2024-11-15T09:30:00.000+08:00|01"), CALL(syncTime2Device("2024-11-15T09:30:00.000+08:00|0123456789"))),
        S("rebootDevice", 287, {}, CALL(rebootDevice()), kUnexamined),
        S("redetectNetworkCard30", 374, {}, CALL(redetectNetworkCard30()), kColon),
        // No status word here: count, record length, records; a record's length field says
        // how much of its text counts.
        Q("getCameraSN", 3, {}, cat({i32(2), i32(32), snRecord("SNA-1XYZ", 5), snRecord("SNB-22", 6)}), CALL(getCameraSN(o.sns)),
          WANT(o.sns, std::vector<std::string>{"SNA-1", "SNB-22"})),
        Q("getDeviceAbilityInfo", 345, {}, ztSimNetworkHead::abilityPayload(kRecord, true), CALL(getDeviceAbilityInfo(&o.v.ability)),
          WANT(words(o.v.ability), Words(kRecord)), kColon),
        Q("getFirmwareVersion", 15, {}, value(u32(0x01020A03)), CALL(getFirmwareVersion(o.text)), WANT(o.text, "1-2-10-3")),
        // Appended to what the string held; only the low 16 bits of the second word count.
        Q("getFirmwareDate", 29, {}, value(cat({u32(0x14180B0F), u32(0xABCD091E)})), CALL(getFirmwareDate(o.text)),
          WANT(o.text, "keep:20:24:11:15:9:30")),
        Q("getRKProgramVersion", 276, {}, value(u32(0x0A0B0C0D)), CALL(getRKProgramVersion(&o.v.i[0], &o.v.i[1], &o.v.i[2], &o.v.i[3])),
          WANT(V(o.v.i, o.v.i + 4), V{10, 11, 12, 13})),

        // Registers and network settings. readRegisterValue takes a status reply, or the
        // register's value, which only the log sees.
        S("setIntegerRegisterValue", 20, cat({named("ExposureAuto"), u32(0x80000001u)}),
          CALL(setIntegerRegisterValue("ExposureAuto", 0x80000001u)), 0, "setCameraGain"),
        Q("getIntegerRegisterValue", 21, named("Width"), value(i32(2048)), CALL(getIntegerRegisterValue("Width", &o.v.i[0])),
          WANT(o.v.i[0], 2048)),
        S("setEnumerationRegisterValue", 22, cat({named("PixelFormat"), u32(3)}), CALL(setEnumerationRegisterValue("PixelFormat", 3u)),
          0, "setCameraGain"),
        Q("getEnumerationRegisterValue", 23, named("TriggerMode"), value(i32(1)),
          CALL(getEnumerationRegisterValue("TriggerMode", &o.v.i[0])), WANT(o.v.i[0], 1)),
        S("readRegisterValue", 773, cat({i32(2), u32(0xA0B0), i32(4)}), CALL(readRegisterValue(2, 0xA0B0, 4)), 0, "setCameraGain"),
        logs(Q("readRegisterValue", 773, cat({i32(2), u32(0xA0B0), i32(4)}), cat({i32(0), u32(0xDEADBEEF), i16(0x1234), i16(-1)}),
               CALL(readRegisterValue(2, 0xA0B0, 4)), nullptr, 0, "setCameraGain"),
             {kNet ? Expect{ZTLOG_LEVEL_ERROR, "READ_REGISTER_VALUE:4660"}
                   : Expect{ZTLOG_LEVEL_INFO, "ztUsbProxyServer::readRegisterValue::READ_REGISTER_VALUE: 4660"}}),
        S("setRegisterValue", 774, cat({i32(1), u32(0x10), i32(3), Bytes{1, 2, 3}}), CALL(setRegisterValue(1, 0x10, 3, w("\1\2\3\4"))),
          0, "setCameraGain"),
        S("setWifi", 278, cat({named("lab-net"), named("s3cret")}), CALL(setWifi(w("lab-net-5G"), 7, w("s3cret!!"), 6))),
        // Each text without a terminator, the rest of the buffer untouched.
        logs(Q("getWifi", 290, {}, cat({i32(0), named("lab-net"), named("s3cret")}), CALL(getWifi(o.v.ssid, o.v.pass)),
               WANT(hex(Bytes(o.v.ssid, o.v.ssid + 9)) + "|" + hex(Bytes(o.v.pass, o.v.pass + 8)),
                    hex(cat({text("lab-net"), {0x5A, 0x5A}})) + "|" + hex(cat({text("s3cret"), {0x5A, 0x5A}})))),
             {{ZTLOG_LEVEL_INFO, (kNet ? "" : "ztUsbProxyServer::") + std::string("get wifi, ssid = lab-net, passWord = s3cret")}}),
        S("reconnectWIFI", 296, cat({u32(6), text("office")}), CALL(reconnectWIFI("office")), kColon),

        // Files, firmware and logs: file bytes travel as they are, a zero byte included.
        Q("getSETFile", 264, i32(SET_FILE_DATA_2), cat({i32(0), text("SET file two\n")}), CALL(getSETFile(SET_FILE_DATA_2)), nullptr,
          kHandOn, "sendTrigger"),
        S("sendSETFile", 263, Bytes(kSetFile, kSetFile + 10), CALL(sendSETFile(w(std::string(kSetFile, 10)), 10))),
        S("sendRGFFile", 265, text("RGF-1234"), CALL(sendRGFFile(w("RGF-1234"), 8))),
        // The longest serial number that fits the text block.
        S("getLPSETFile", 340, textBlock("ABCDEFGHIJKLMNO"), CALL(getLPSETFile("ABCDEFGHIJKLMNO"))),
        S("sendLightpenSETFile", 339, text("LPSET"), CALL(sendLightpenSETFile(w("LPSET"), 5))),
        S("updateFirmware", 267, text("FIRMWARE-IMG"), CALL(updateFirmware(w("FIRMWARE-IMG"), 12)), kUnexamined | kUsbNoWait,
          "update firmware"),
        Q("getSectionalLog", 258, {}, cat({i32(0), text("part of the log")}), CALL(getSectionalLog()), nullptr, kHandOn | kReceiveLog),
        Q("getAllLog", 355, {}, cat({i32(0), text("the whole log")}), CALL(getAllLog()), nullptr, kHandOn | kReceiveLog | kLarge),

        // The network link's own commands.
        S("switchHardwareFrameRate", 356, i32(2), NET(switchHardwareFrameRate(2)), kNetOnly),
        Q("getHardwareFrameRateType", 358, {}, cat({i32(0), i32(3)}), NET(getHardwareFrameRateType(o.v.i[0])), WANT(o.v.i[0], 3), kNetOnly),
        S("preheatRKWithTrigger", 313, i32(30), NET(preheatRKWithTrigger(30)), kNetOnly),
        Q("getTemp", 256, {}, cat({i32(1), u8(2), f32(36.5f), f32(41.0f)}), NET(getTemp()), nullptr, kNetOnly | kHandOn),
        Q("getRGFFile", 266, {}, cat({i32(0), text("RGF body")}), NET(getRGFFile()), nullptr, kNetOnly | kHandOn, "sendTrigger"),
    };
    return rows;
}

Check abilityIs(Words want)
{
    return [want](const Out& o) { EXPECT_EQ(words(o.v.ability), want); };
}
// A reply too short for what is read from it: -1, one line, outputs untouched. The USB link
// reads a short reply on into the cleared head of its reply buffer (the message's tail
// byte, then zeros); only a read past the buffer fails there.
// There a query succeeds as usual, with the lines usbLines.
Row tooShort(std::string name, unsigned short type, Bytes request, Bytes reply, Call call, Check usbCheck = [](const Out&) {},
             Lines usbLines = {}, bool pastBuffer = false)
{
    const bool fails = kNet || pastBuffer;
    Lines lines = fails ? Lines{{ZTLOG_LEVEL_ERROR, kClass + "::[" + name + "] reply too short"}} : usbLines;
    return X(name, type, std::move(request), echo(std::move(reply)), std::move(call), fails ? -1 : 0, lines,
             fails ? nullptr : std::move(usbCheck), type == 358 ? unsigned{kNetOnly} : 0u);
}
// Arguments that cannot be encoded: -1, an error line naming the class and the method,
// and nothing sent.
Row refused(const std::string& name, Call call)
{
    return X(name, 0, {}, kNoReply, std::move(call), -1, {{ZTLOG_LEVEL_ERROR, kClass + "::[" + name + "] ", true}}, nullptr, kRefused);
}

// Replies and arguments beyond the catalogue's common rule.
std::vector<Row> edges()
{
    const Lines none;
    Bytes longTwo = ztSimNetworkHead::abilityPayload(kRecord, true), shortTwo = ztSimNetworkHead::abilityPayload(kRecord, false);
    std::memcpy(&longTwo[16], u32(2).data(), 4); // status, byte count, form word, header, version
    std::memcpy(&shortTwo[12], u32(2).data(), 4);
    Words shortWords(kRecord), headerOnly = kSentinel;
    shortWords[0] = kSentinel[0];
    headerOnly[0] = kRecord[0];
    const std::string sixteen(16, 'S');
    std::vector<Row> rows = {
        // A period of 40 ms travels as the frame rate 25, as setCameraFrameRate(25) does.
        X("setPeriod", 16, i32(25), status(0), CALL(setPeriod(40)), 0, none),
        // The status word: the USB link returns it, the network link 0 or -1.
        X("sendTrigger", 13, i32(1), status(5), CALL(sendTrigger()), kNet ? 0 : 5, none),
        X("sendTrigger", 13, i32(1), status(-3), CALL(sendTrigger()), kNet ? -1 : -3, none),
        X("sendTrigger", 13, i32(1), status(0), CALL(sendTrigger()), 0, none),
        // A reply of type 0 to a query fails, although its payload holds a value; Wi-Fi
        // settings count only with status 0.
        X("getCameraFrameRate", 17, {}, raw(message(0, cat({i32(0), i32(25)}))), CALL(getCameraFrameRate(&o.v.i[0])), -1,
          kNet ? none : Lines{{-1, "ztUsbProxyServer::[getCameraFrameRate] receive data error"}}),
        X("getWifi", 290, {}, echo(cat({i32(2), named("lab-net"), named("s3cret")})), CALL(getWifi(o.v.ssid, o.v.pass)), -1,
          {{-1, kClass + "::get wifi reply = 2"}}),
        // The ability record: the short form without its header; format version 2, of which
        // only the long form's header is read; the head's status, and a bare status reply.
        X("getDeviceAbilityInfo", 345, {}, echo(ztSimNetworkHead::abilityPayload(kRecord, false)), CALL(getDeviceAbilityInfo(&o.v.ability)),
          0, none, abilityIs(shortWords)),
        X("getDeviceAbilityInfo", 345, {}, echo(longTwo), CALL(getDeviceAbilityInfo(&o.v.ability)), 0, none, abilityIs(headerOnly)),
        X("getDeviceAbilityInfo", 345, {}, echo(shortTwo), CALL(getDeviceAbilityInfo(&o.v.ability)), 0, none),
        X("getDeviceAbilityInfo", 345, {}, echo(ztSimNetworkHead::abilityPayload(kRecord, true, -3)),
          CALL(getDeviceAbilityInfo(&o.v.ability)), -3, {{ZTLOG_LEVEL_ERROR, "ztEmbeddedModuleProxyServer::getDeviceAbilityInfo, reply = -3"}}),
        X("getDeviceAbilityInfo", 345, {}, status(0), CALL(getDeviceAbilityInfo(&o.v.ability)), 0,
          {{ZTLOG_LEVEL_WARN, kClass + "::getDeviceAbilityInfo, msgType is 0"}}),
        X("getDeviceAbilityInfo", 345, {}, status(5), CALL(getDeviceAbilityInfo(&o.v.ability)), 5,
          {{ZTLOG_LEVEL_ERROR, "ztEmbeddedModuleProxyServer::getDeviceAbilityInfo, reply = 5"}}),
        // Version bytes are unsigned; no serial numbers empty the list; a light-pen status
        // other than 0 fails without the version line, as a frame-rate type does.
        X("getFirmwareVersion", 15, {}, echo(value(u32(0xFF000764))), CALL(getFirmwareVersion(o.text)), 0, none,
          WANT(o.text, "255-0-7-100")),
        X("getRKProgramVersion", 276, {}, echo(value(u32(0xFE01807F))),
          CALL(getRKProgramVersion(&o.v.i[0], &o.v.i[1], &o.v.i[2], &o.v.i[3])), 0, none, WANT(V(o.v.i, o.v.i + 4), V{254, 1, 128, 127})),
        X("getCameraSN", 3, {}, echo(cat({i32(0), i32(32)})), CALL(getCameraSN(o.sns)), 0, none, WANT(o.sns.size(), 0u)),
        X("getLightpenVersion", 344, textBlock("PEN-0042"), echo(cat({i32(1), text("PEN-0042", 16), u32(8), text("LP9", 16)})),
          CALL(getLightpenVersion("PEN-0042", o.text)), -1, none),
        X("getHardwareFrameRateType", 358, {}, echo(cat({i32(1), i32(3)})), NET(getHardwareFrameRateType(o.v.i[0])), -1, none,
          nullptr, kNetOnly),

        tooShort("getCameraExposure", 8, {}, i32(0), CALL(getCameraExposure(&o.v.f)), [](const Out& o) {
            const std::uint32_t tailThenZeros = 0xBB;
            EXPECT_EQ(std::memcmp(&o.v.f, &tailThenZeros, 4), 0);
        }),
        tooShort("getTriggerMode", 14, {}, cat({i32(0), Bytes{1, 2}}), CALL(getTriggerMode(&o.v.i[0]))),
        tooShort("getSystemId", 272, {}, cat({i32(0), u32(1)}), CALL(getSystemId(&o.v.u64))),
        tooShort("getImageSize", 4, {}, cat({i32(0), i16(5)}), CALL(getImageSize(&o.v.s[0], &o.v.s[1]))),
        tooShort("getCameraROI", 12, {}, cat({i32(0), i32(50), text("roi_A"), i16(1), i16(2), i16(3), i16(4)}),
                 CALL(getCameraROI(o.v.name, o.v.nameLen, o.v.s[0], o.v.s[1], o.v.s[2], o.v.s[3]))),
        tooShort("getCameraROI", 12, {}, cat({i32(0), i32(5), text("roi_A"), i16(1), i16(2)}),
                 CALL(getCameraROI(o.v.name, o.v.nameLen, o.v.s[0], o.v.s[1], o.v.s[2], o.v.s[3]))),
        tooShort("getCameraSN", 3, {}, cat({i32(3), i32(32), snRecord("A", 1), snRecord("B", 1)}), CALL(getCameraSN(o.sns))),
        tooShort("getCameraSN", 3, {}, cat({i32(0x10000000), i32(32), snRecord("A", 1)}), CALL(getCameraSN(o.sns)),
                 [](const Out&) {}, {}, true),
        tooShort("getWifi", 290, {}, cat({i32(0), u8(40), text("lab-n")}), CALL(getWifi(o.v.ssid, o.v.pass)), [](const Out&) {},
                 {{ZTLOG_LEVEL_INFO, "ztUsbProxyServer::get wifi, ssid = lab-n", true}}),
        tooShort("getWifi", 290, {}, cat({i32(0), named("lab-net"), u8(200), text("s3")}), CALL(getWifi(o.v.ssid, o.v.pass)),
                 [](const Out&) {}, {{ZTLOG_LEVEL_INFO, "ztUsbProxyServer::get wifi, ssid = lab-net, passWord = s3", true}}),
        tooShort("getFirmwareVersion", 15, {}, i32(0), CALL(getFirmwareVersion(o.text))),
        tooShort("getFirmwareDate", 29, {}, cat({i32(0), u32(0x14180B0F)}), CALL(getFirmwareDate(o.text))),
        tooShort("getRKProgramVersion", 276, {}, i32(0), CALL(getRKProgramVersion(&o.v.i[0], &o.v.i[1], &o.v.i[2], &o.v.i[3]))),
        tooShort("getLightpenVersion", 344, textBlock("PEN"), cat({i32(0), text("PEN", 16), u32(3), text("LP1")}),
                 CALL(getLightpenVersion("PEN", o.text)), [](const Out&) {},
                 {{ZTLOG_LEVEL_INFO, "get lightpen version, ret = 0, lightpenSN = PEN, version = LP1", true}}),
        tooShort("getIntegerRegisterValue", 21, named("Width"), i32(0), CALL(getIntegerRegisterValue("Width", &o.v.i[0]))),
        tooShort("getHardwareFrameRateType", 358, {}, i32(0), NET(getHardwareFrameRateType(o.v.i[0]))),

        refused("setPeriod", CALL(setPeriod(0))),
        refused("syncTime2Device", CALL(syncTime2Device(std::string(31, '1')))),
        refused("sendLPSelectInfo", CALL(sendLPSelectInfo(std::string(16, 'S'), 1))),
        refused("getLPSETFile", CALL(getLPSETFile(std::string(16, 'S')))),
        refused("getLightpenVersion", CALL(getLightpenVersion(std::string(16, 'S'), o.text))),
        refused("setCameraROI", CALL(setCameraROI(w("cam1"), -1, 1, 2, 3, 4))),
        refused("setCameraROI", CALL(setCameraROI(nullptr, 4, 1, 2, 3, 4))),
        refused("setCameraReverse", CALL(setCameraReverse(w("cam1"), -2, 1))),
        refused("setQRBarCenter", CALL(setQRBarCenter(w("cam1"), -1, true, o.v.i, o.v.i))),
        refused("setQRBarCenter", CALL(setQRBarCenter(w("cam1"), 4, true, nullptr, o.v.i))),
        refused("setWifi", CALL(setWifi(w("net"), -1, w("pwd"), 3))),
        refused("setWifi", CALL(setWifi(w("net"), 3, w("pwd"), -1))),
        refused("setRegisterValue", CALL(setRegisterValue(1, 2, -1, w("data")))),
        refused("sendSETFile", CALL(sendSETFile(nullptr, 16))),
        refused("getCameraExposure", CALL(getCameraExposure(nullptr))),
        refused("getWifi", CALL(getWifi(nullptr, o.v.pass))),
    };
    // The drop-frame values travel whole, whatever the second one is: large and negative
    // values are not copied beyond the scratch buffer, and a value of 1 or 0 leaves zeros
    // where the scratch buffer is not written (a large value sent before must not show).
    for (const short second : {600, -5, 2, 1, 0})
        rows.insert(rows.begin(), X("setDeviceDropFrame", 297, cat({i16(7), i16(second), i16(8), i16(9), i16(10), i16(11)}), status(0),
                                    [second](Cmd& d, Out&) { return d.setDeviceDropFrame(7, second, 8, 9, 10, 11); }, 0, none));
    return rows;
}

// The link under test, online against its simulated head.
#ifdef ZT_TEST_LINK_NETWORK
struct Online {
    Head head;
    zt::test::DataCalls calls;
    std::unique_ptr<Server> server;

    bool start() { return head.start() == 0 && startServer(); }
    bool startServer()
    {
        server = std::make_unique<Server>();
        server->registerModuleServerDataCB(&zt::test::DataCalls::cb, &calls);
        return server->init("127.0.0.1", "127.0.0.1", "SN-CATALOGUE") == 0 && server->isConnected();
    }
    // Makes every later exchange fail at its send: the head closes the command connection.
    // The first request after that still leaves the host and is answered with a reset;
    // from then on each send fails at once. The pre-trigger, which waits for nothing,
    // carries that first request.
    bool breakExchanges()
    {
        head.closeChannel(Head::Command);
        for (int k = 0; k < 100; ++k) {
            if (server->sendPreTrigger() == -1)
                return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        return false;
    }
    // A new server object, online over four new connections.
    bool restore()
    {
        server.reset();
        for (const auto c : {Head::Command, Head::Data, Head::CommandData, Head::LightPen})
            if (!head.waitDisconnected(c, 5000))
                return false;
        return startServer();
    }
};
#else
struct Online : zt::test::UsbOnline {
    // Unplugged, the device fails every transfer on the open handle at once; plugged back
    // in, a new handle and a new server object come online.
    bool breakExchanges()
    {
        head.unplug();
        return head.isUnplugged();
    }
    bool restore()
    {
        close();
        head.replug();
        return openHandle() && startServer();
    }
};
#endif

void feed(Head& head, unsigned short type, const Feed& f)
{
    switch (f.kind) {
    case Feed::Status: head.setStatusReply(type, f.status); break;
    case Feed::Echo: head.setEchoReply(type, f.bytes); break;
    case Feed::Raw: head.setRawReply(type, {f.bytes}); break;
    case Feed::None: head.setNoReply(type); break;
    }
}

// One link per test program, brought online by the first test and shared by the rest.
class DeviceCommands : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        s_link = new Online;
        s_online = s_link->start();
    }
    static void TearDownTestSuite() { delete s_link; }
    void SetUp() override { ASSERT_TRUE(s_online) << "the link did not come online"; }

    // Runs a row against its answer: the request, the result, the outputs, the lines and the
    // reply handed on.
    static void run(const Row& row)
    {
        Online& link = *s_link;
        SCOPED_TRACE(row.name + ", type " + std::to_string(row.type));
        if (!row.has(kRefused)) {
            link.head.resetReplies();
            link.head.clearCommands();
        }
        feed(link.head, row.type, row.waits() ? row.feed : kNoReply);
        const std::size_t handedBefore = link.calls.count(row.type);
        LogCapture log(ZTLOG_LEVEL_INFO);
        Out out;
        EXPECT_EQ(row.call(*link.server, out), row.result);
        if (!row.has(kRefused))
            expectRequest(row.type, row.payload);
        if (row.check) {
            row.check(out);
        } else {
            EXPECT_EQ(dump(out), dump(Out()));
        }
        expectLines(log, row.name, row.lines);
        if (row.has(kHandOn)) {
            const auto handed = link.calls.of(row.type, handedBefore + 1, 1000);
            ASSERT_EQ(handed.size(), handedBefore + 1);
            EXPECT_EQ(hex(Bytes(handed.back().begin(), handed.back().end())), hex(row.feed.bytes));
        }
    }
    // The next request the head recorded must be exactly this one, and none may follow.
    static void expectRequest(unsigned short type, const Bytes& payload)
    {
        Head::Request got;
        ASSERT_TRUE(s_link->head.nextCommand(got, 2000)) << "no request arrived (type " << type << " expected)";
        EXPECT_EQ(got.type, type);
        EXPECT_EQ(hex(got.payload), hex(payload)) << "payload of type " << got.type;
        EXPECT_FALSE(s_link->head.nextCommand(got, 0)) << "a further request of type " << got.type;
    }

    static inline Online* s_link = nullptr;
    static inline bool s_online = false;
};

TEST_F(DeviceCommands, EveryCatalogueRowOnTheWireWithItsResultsAndFailures)
{
    for (const Row& row : catalogue())
        if (row.runs())
            run(row);

    // A reply of a type that no command expects. The USB link logs its receive error; the
    // network link stays silent but for the commands that say otherwise.
    for (const Row& row : catalogue()) {
        if (!row.runs())
            continue;
        const bool judged = !row.has(kNoWait | kUnexamined);
        Lines lines;
        if (judged && (!kNet || row.has(kReceiveLog)))
            lines.push_back({-1, kClass + "::[" + row.name + "] receive data error"});
        run(X(row.name, row.type, row.payload, raw(message(999, Bytes(64, 0))), row.call, judged ? -1 : 0, lines,
              judged ? nullptr : Check([](const Out&) {}), row.flags & (kNoWait | kUsbNoWait)));
    }
    EXPECT_EQ(s_link->calls.count(999), 0u) << "a reply of the wrong type was handed on";

    // Every exchange fails at its send: -1, the row's send failure text, no outputs.
    ASSERT_TRUE(s_link->breakExchanges()) << "the link's sends keep succeeding";
    for (const Row& row : catalogue()) {
        if (!row.runs())
            continue;
        SCOPED_TRACE("send failure: " + row.name + ", type " + std::to_string(row.type));
        LogCapture log(ZTLOG_LEVEL_INFO);
        Out out;
        EXPECT_EQ(row.call(*s_link->server, out), -1);
        EXPECT_EQ(dump(out), dump(Out()));
        expectLines(log, row.name, row.sendFailure());
    }
    s_online = s_link->restore();
    ASSERT_TRUE(s_online) << "the link did not come back online";
}

TEST_F(DeviceCommands, EdgeCasesShortRepliesAndRefusedArguments)
{
    // The ability record read while coming online is the head's default, long form.
    Cmd& d = *s_link->server;
    EXPECT_EQ(words(d.getCurDeviceAbilityInfo()), Words(ztSimNetworkHead::defaultAbility()));
    Out parsed;
    const Bytes longForm = ztSimNetworkHead::abilityPayload(kRecord, true);
    EXPECT_EQ(d.parseDeviceAblityInfo(nullptr, &parsed.v.ability), -1);
    EXPECT_EQ(d.parseDeviceAblityInfo(longForm.data() + 4, nullptr), -1);
    EXPECT_EQ(words(parsed.v.ability), kSentinel);
    EXPECT_EQ(d.parseDeviceAblityInfo(longForm.data() + 4, &parsed.v.ability), 0);
    EXPECT_EQ(words(parsed.v.ability), Words(kRecord));

    for (const Row& row : edges())
        if (row.runs())
            run(row);
    Head::Request sent;
    EXPECT_FALSE(s_link->head.nextCommand(sent, 300)) << "a refused request of type " << sent.type << " was sent";
}

} // namespace
