// The device command set row by row on a real link: every command of the catalogue goes
// through the link object to a simulated head, which records the request; the head's
// reply is set per row. For each row the test checks the exact request (type and payload
// bytes), the result, the outputs and the log lines, then the same row with a reply of the
// wrong type and with an exchange that fails at its send.
//
// The same source is built once per link: ZT_TEST_LINK_NETWORK (ztEmbeddedModuleProxyServer
// against ztSimNetworkHead on port 42001, in a private network namespace) or
// ZT_TEST_LINK_USB (ztUsbProxyServer on real libusb against ztSimUsbHead under the
// umockdev preload). Each test program brings its link online once and shares it.
#include "support/log_capture.h"
#include "ztDeviceCommandSet.h"
#include "ztEmbeddedModuleProxyServer.h"
#include "ztSimNetworkHead.h"

#ifdef ZT_TEST_LINK_USB
#include "ztSimUsbHead.h"
#include "ztUsbProxyServer.h"

#include <libusb.h>
#endif

#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <functional>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#if defined(ZT_TEST_LINK_NETWORK) == defined(ZT_TEST_LINK_USB)
#error "build with exactly one of ZT_TEST_LINK_NETWORK and ZT_TEST_LINK_USB"
#endif

using zt::test::LogCapture;

namespace {

using Clock = std::chrono::steady_clock;
using Bytes = std::vector<char>;
using Cmd = ztDeviceCommandSet;
using NetServer = ztEmbeddedModuleProxyServer;

// ---------------------------------------------------------------------------------------
// Wire bytes

Bytes le(std::uint64_t v, int n)
{
    Bytes b;
    for (int i = 0; i < n; ++i)
        b.push_back(static_cast<char>((v >> (8 * i)) & 0xFF));
    return b;
}
Bytes i32(std::int32_t v) { return le(static_cast<std::uint32_t>(v), 4); }
Bytes u32(std::uint32_t v) { return le(v, 4); }
Bytes u64(std::uint64_t v) { return le(v, 8); }
Bytes i16(std::int16_t v) { return le(static_cast<std::uint16_t>(v), 2); }
Bytes u8(std::size_t v) { return Bytes{static_cast<char>(v & 0xFF)}; }
Bytes f32(float f)
{
    std::uint32_t bits;
    std::memcpy(&bits, &f, sizeof bits);
    return u32(bits);
}
Bytes text(const std::string& s) { return Bytes(s.begin(), s.end()); }
Bytes zeros(std::size_t n) { return Bytes(n, 0); }
Bytes cat(std::initializer_list<Bytes> parts)
{
    Bytes out;
    for (const Bytes& p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}
// A text in a field of n bytes, zero-padded.
Bytes padded(const std::string& s, std::size_t n)
{
    Bytes b = text(s);
    b.resize(n, 0);
    return b;
}
// A name as commands send it: one length byte, then the text.
Bytes named(const std::string& s) { return cat({u8(s.size()), text(s)}); }
// A serial number as commands send it: 16 bytes of text, zero-padded, then its length.
Bytes textBlock(const std::string& s) { return cat({padded(s, 16), u32(static_cast<std::uint32_t>(s.size()))}); }
// A serial-number record of a reply: 16 bytes of text, the 64-bit length, the value 15.
Bytes snRecord(const std::string& s, std::uint64_t length) { return cat({padded(s, 16), u64(length), u64(15)}); }
// An embedded message, the same on both links.
Bytes message(unsigned short type, const Bytes& payload)
{
    return ztSimNetworkHead::message(type, payload.data(), payload.size());
}

std::string hex(const Bytes& b)
{
    static const char* const kDigits = "0123456789abcdef";
    std::string s;
    for (const char c : b) {
        const auto u = static_cast<unsigned char>(c);
        if (!s.empty())
            s += ' ';
        s += kDigits[u >> 4];
        s += kDigits[u & 15];
    }
    return s;
}
std::string hex(const std::string& s) { return hex(Bytes(s.begin(), s.end())); }

// ---------------------------------------------------------------------------------------
// What a command fills, preset to values that no row expects

struct Out {
    int i[4] = {-77, -77, -77, -77};
    float f = -77.5f;
    unsigned long long u64 = 0x7777;
    short s[4] = {-77, -77, -77, -77};
    char name[64];
    int nameLen = -77;
    std::string text = "keep:";
    std::vector<std::string> sns{"old"};
    DeviceAbilityInfo ability;
    char ssid[256] = {};
    char pass[256] = {};

    Out()
    {
        std::memset(name, '#', sizeof name);
        std::memset(&ability, 0x5A, sizeof ability);
    }
};

// The twelve words of a record in record order.
std::array<std::uint32_t, 12> words(const DeviceAbilityInfo& a)
{
    return {a.abilityHeader, a.productType, a.ability2, a.ability3, a.ability4,  a.ability5,
            a.ability6,      a.ability7,    a.ability8, a.ability9, a.ability10, a.ability11};
}

std::string dump(const Out& o)
{
    std::ostringstream s;
    s << "i=" << o.i[0] << ',' << o.i[1] << ',' << o.i[2] << ',' << o.i[3] << " f=" << o.f << " u64=" << o.u64
      << " s=" << o.s[0] << ',' << o.s[1] << ',' << o.s[2] << ',' << o.s[3] << " nameLen=" << o.nameLen
      << " name=" << hex(Bytes(o.name, o.name + sizeof o.name)) << " text=" << o.text << " sns=";
    for (const auto& sn : o.sns)
        s << '[' << sn << ']';
    s << " ability=";
    for (const std::uint32_t w : words(o.ability))
        s << w << ',';
    s << " ssid=" << hex(Bytes(o.ssid, o.ssid + sizeof o.ssid)) << " pass=" << hex(Bytes(o.pass, o.pass + sizeof o.pass));
    return s.str();
}
const std::string& untouched()
{
    static const std::string kDump = dump(Out());
    return kDump;
}

// ---------------------------------------------------------------------------------------
// Log lines

struct Expect {
    int level; // -1: any level
    std::string text;
    bool prefix = false; // text is the start of the line
};

// Lines that belong to a command's outcome: failure texts, the texts commands log on
// success, and anything naming the method in brackets. Other lines (heartbeats, the
// socket layer's own texts) are not the catalogue's business.
bool belongs(const std::string& line, const std::string& method)
{
    static const char* const kMarkers[] = {"zmq_send failed",   "receive data error",   "send cmd failed",
                                           "ztUsbProxyServer::sendCtrlCmd", "READ_REGISTER_VALUE", "get wifi",
                                           "get lightpen version", "getDeviceAbilityInfo,", "reply too short"};
    for (const char* m : kMarkers)
        if (line.find(m) != std::string::npos)
            return true;
    return line.find("[" + method + "]") != std::string::npos;
}

void expectLines(const LogCapture& log, const std::string& method, const std::vector<Expect>& want)
{
    std::vector<LogCapture::Line> got;
    for (const auto& l : log.lines())
        if (belongs(l.text, method))
            got.push_back(l);
    std::ostringstream all;
    for (const auto& l : got)
        all << "\n  [" << l.level << "] " << hex(l.text) << "  \"" << l.text << '"';
    ASSERT_EQ(got.size(), want.size()) << "log lines of " << method << ':' << all.str();
    for (std::size_t k = 0; k < want.size(); ++k) {
        const Expect& w = want[k];
        if (w.prefix) {
            EXPECT_EQ(got[k].text.substr(0, w.text.size()), w.text) << all.str();
        } else {
            EXPECT_EQ(got[k].text, w.text) << all.str();
        }
        if (w.level >= 0) {
            EXPECT_EQ(got[k].level, w.level) << got[k].text;
        }
    }
}

// ---------------------------------------------------------------------------------------
// The catalogue

// How the head answers a row's request.
struct Feed {
    enum Kind { Status, Echo, Raw, None } kind = Status;
    int status = 0;
    Bytes bytes; // Echo: the payload; Raw: the whole message

    static Feed withStatus(int s) { return {Status, s, {}}; }
    static Feed echo(Bytes payload) { return {Echo, 0, std::move(payload)}; }
    static Feed raw(Bytes whole) { return {Raw, 0, std::move(whole)}; }
    static Feed none() { return {None, 0, {}}; }
};

// The status that setting rows are answered with: not 0, so that the USB link's status
// word and the network link's 0 tell apart.
constexpr int kStatus = 7;

using CommonCall = std::function<int(Cmd&, Out&)>;
using NetCall = std::function<int(NetServer&, Out&)>;
using Check = std::function<void(const Out&)>;

struct Row {
    std::string name;   // the method, as its log texts name it
    CommonCall call;    // a command of both links
    NetCall netCall;    // a command of the network link only
    unsigned short type = 0;
    Bytes payload;      // the request's payload, exactly
    Feed feed;
    int netResult = 0;
    int usbResult = 0;
    // Whether the link waits for a reply (a reply the link does not read would be taken
    // for the next command's), and whether a reply of the wrong type fails the command.
    bool netWaits = true, usbWaits = true;
    bool netExamines = true, usbExamines = true;
    Check check;        // the outputs after success
    int handedOn = -1;  // the reply reaches the data callback under this type
    std::vector<Expect> netLines, usbLines; // logged on success
    // Network failure texts: the name in the brackets when it is another method's, the
    // "::" form, the text logged for a reply of the wrong type.
    std::string netSendName;
    bool netColonForm = false;
    std::string netWrongTypeLine;
    // The USB exchange, as its failure text names it; empty where either may serve.
    std::string usbExchange = "sendCtrlCmd";
};

Row setting(std::string name, unsigned short type, Bytes payload, CommonCall call)
{
    Row r;
    r.name = std::move(name);
    r.call = std::move(call);
    r.type = type;
    r.payload = std::move(payload);
    r.feed = Feed::withStatus(kStatus);
    r.netResult = 0;
    r.usbResult = kStatus;
    return r;
}

Row query(std::string name, unsigned short type, Bytes payload, Bytes reply, CommonCall call, Check check)
{
    Row r;
    r.name = std::move(name);
    r.call = std::move(call);
    r.type = type;
    r.payload = std::move(payload);
    r.feed = Feed::echo(std::move(reply));
    r.check = std::move(check);
    return r;
}

Row netSetting(std::string name, unsigned short type, Bytes payload, NetCall call)
{
    Row r = setting(std::move(name), type, std::move(payload), nullptr);
    r.netCall = std::move(call);
    return r;
}

Row netQuery(std::string name, unsigned short type, Bytes reply, NetCall call, Check check)
{
    Row r = query(std::move(name), type, {}, std::move(reply), nullptr, std::move(check));
    r.netCall = std::move(call);
    return r;
}

// The status word that value replies carry: the getters do not look at it.
const Bytes kIgnoredStatus = i32(9);

const std::string kTime40 = "2024-11-15T09:30:00.000+08:00|0123456789"; // 40 bytes
const char kSetFile[] = "SETFILE\0ab";

std::vector<Row> catalogue()
{
    std::vector<Row> rows;
    auto add = [&rows](Row r) -> Row& {
        rows.push_back(std::move(r));
        return rows.back();
    };

    // Trigger, scan and synchronisation.
    add(setting("sendTrigger", 13, i32(1), [](Cmd& d, Out&) { return d.sendTrigger(); }));
    add(setting("sendStopTrigger", 13, i32(0), [](Cmd& d, Out&) { return d.sendStopTrigger(); }));
    {
        Row& r = add(setting("sendPreTrigger", 13, i32(2), [](Cmd& d, Out&) { return d.sendPreTrigger(); }));
        r.feed = Feed::none();
        r.netWaits = r.usbWaits = false;
        r.netExamines = r.usbExamines = false;
        r.netResult = r.usbResult = 0;
        r.netSendName = "sendTrigger";
    }
    // The word at 4 is a float, truncated toward zero.
    add(query("getTriggerMode", 14, {}, cat({kIgnoredStatus, f32(-2.75f)}),
              [](Cmd& d, Out& o) { return d.getTriggerMode(&o.i[0]); }, [](const Out& o) { EXPECT_EQ(o.i[0], -2); }));
    add(setting("setScanStatus", 289, i32(0x11223344), [](Cmd& d, Out&) { return d.setScanStatus(0x11223344); }));
    add(setting("setScanDataSource", 5, i32(3), [](Cmd& d, Out&) { return d.setScanDataSource(3); }));
    add(query("getScanDataSource", 6, {}, cat({kIgnoredStatus, i32(0x0A0B0C0D)}),
              [](Cmd& d, Out& o) { return d.getScanDataSource(&o.i[0]); },
              [](const Out& o) { EXPECT_EQ(o.i[0], 0x0A0B0C0D); }));
    add(setting("execSync", 273, i32(1), [](Cmd& d, Out&) { return d.execSync(true, false); }));
    add(setting("execSync", 273, i32(0), [](Cmd& d, Out&) { return d.execSync(false, true); }));
    add(setting("updateSyncStat", 274, {}, [](Cmd& d, Out&) { return d.updateSyncStat(); })).netSendName = "execSync";
    add(setting("setHardwareSyncMode", 269, i32(2), [](Cmd& d, Out&) { return d.setHardwareSyncMode(2); }));
    add(query("getHardwareSyncMode", 270, {}, cat({kIgnoredStatus, i32(-5)}),
              [](Cmd& d, Out& o) { return d.getHardwareSyncMode(&o.i[0]); }, [](const Out& o) { EXPECT_EQ(o.i[0], -5); }));
    add(setting("setMaster", 260, i32(1), [](Cmd& d, Out&) { return d.setMaster(1); }));
    add(query("getMaster", 261, {}, cat({kIgnoredStatus, i32(1)}), [](Cmd& d, Out& o) { return d.getMaster(&o.i[0]); },
              [](const Out& o) { EXPECT_EQ(o.i[0], 1); }));
    add(setting("setSystemId", 271, u64(0x0102030405060708ull),
                [](Cmd& d, Out&) { return d.setSystemId(0x0102030405060708ull); }));
    add(query("getSystemId", 272, {}, cat({kIgnoredStatus, u64(0x8877665544332211ull)}),
              [](Cmd& d, Out& o) { return d.getSystemId(&o.u64); },
              [](const Out& o) { EXPECT_EQ(o.u64, 0x8877665544332211ull); }));
    add(query("getBandWidth", 257, {}, cat({kIgnoredStatus, i32(1000)}),
              [](Cmd& d, Out& o) { return d.getBandWidth(&o.i[0]); }, [](const Out& o) { EXPECT_EQ(o.i[0], 1000); }));

    // Camera, exposure and frame rate.
    add(setting("setCameraExposure", 7, f32(12.5f), [](Cmd& d, Out&) { return d.setCameraExposure(12.5f); }));
    add(query("getCameraExposure", 8, {}, cat({kIgnoredStatus, f32(0.125f)}),
              [](Cmd& d, Out& o) { return d.getCameraExposure(&o.f); }, [](const Out& o) { EXPECT_EQ(o.f, 0.125f); }));
    add(setting("setLedExposure", 9, f32(3.25f), [](Cmd& d, Out&) { return d.setLedExposure(3.25f); }));
    add(query("getLedExposure", 10, {}, cat({kIgnoredStatus, f32(2.5f)}),
              [](Cmd& d, Out& o) { return d.getLedExposure(&o.f); }, [](const Out& o) { EXPECT_EQ(o.f, 2.5f); }));
    // The gain travels as an integer.
    add(setting("setCameraGain", 18, i32(7), [](Cmd& d, Out&) { return d.setCameraGain(7.9f); }));
    add(query("getCameraGain", 19, {}, cat({kIgnoredStatus, i32(-12)}),
              [](Cmd& d, Out& o) { return d.getCameraGain(&o.f); }, [](const Out& o) { EXPECT_EQ(o.f, -12.0f); }));
    add(setting("setCameraFrameRate", 16, i32(25), [](Cmd& d, Out&) { return d.setCameraFrameRate(25); }));
    add(query("getCameraFrameRate", 17, {}, cat({kIgnoredStatus, i32(48)}),
              [](Cmd& d, Out& o) { return d.getCameraFrameRate(&o.i[0]); }, [](const Out& o) { EXPECT_EQ(o.i[0], 48); }));
    // A period of 8 ms is the frame rate 125; a frame rate of 7 is a period of 142 ms.
    add(setting("setPeriod", 16, i32(125), [](Cmd& d, Out&) { return d.setPeriod(8); })).netSendName = "sendPeriod";
    add(query("getPeriod", 17, {}, cat({kIgnoredStatus, i32(7)}), [](Cmd& d, Out& o) { return d.getPeriod(&o.i[0]); },
              [](const Out& o) { EXPECT_EQ(o.i[0], 142); }));
    // Only nameLen bytes of the name travel.
    add(setting("setCameraROI", 11, cat({named("cam1"), i16(10), i16(-20), i16(640), i16(480)}), [](Cmd& d, Out&) {
        char name[] = "cam1XYZ";
        return d.setCameraROI(name, 4, 10, -20, 640, 480);
    }));
    // The reply's name length is 32-bit; no terminator is added to the name.
    add(query("getCameraROI", 12, {},
              cat({kIgnoredStatus, i32(5), text("roi_A"), i16(1), i16(-2), i16(300), i16(400)}),
              [](Cmd& d, Out& o) { return d.getCameraROI(o.name, o.nameLen, o.s[0], o.s[1], o.s[2], o.s[3]); },
              [](const Out& o) {
                  EXPECT_EQ(o.nameLen, 5);
                  EXPECT_EQ(std::string(o.name, 6), "roi_A#");
                  EXPECT_EQ(o.s[0], 1);
                  EXPECT_EQ(o.s[1], -2);
                  EXPECT_EQ(o.s[2], 300);
                  EXPECT_EQ(o.s[3], 400);
              }));
    add(setting("setCameraReverse", 25, cat({named("sensor"), i32(-1)}), [](Cmd& d, Out&) {
        char name[] = "sensorB";
        return d.setCameraReverse(name, 6, -1);
    }));
    add(setting("setImageROI", 32, cat({named("img"), i16(1), i16(2), i16(3), i16(4)}),
                [](Cmd& d, Out&) { return d.setImageROI("img", 1, 2, 3, 4); }))
        .netColonForm = true;
    add(query("getImageSize", 4, {}, cat({kIgnoredStatus, i16(1280), i16(1024)}),
              [](Cmd& d, Out& o) { return d.getImageSize(&o.s[0], &o.s[1]); },
              [](const Out& o) {
                  EXPECT_EQ(o.s[0], 1280);
                  EXPECT_EQ(o.s[1], 1024);
              }));
    add(setting("resetCamera", 24, {}, [](Cmd& d, Out&) { return d.resetCamera(); }));
    add(setting("setDropFrameRateMode", 291, i16(FRAME_DROP_THIRD),
                [](Cmd& d, Out&) { return d.setDropFrameRateMode(FRAME_DROP_THIRD); }));
    add(setting("setLaserTriggerMode", 325, i16(FRAME_DROP_QUARTER),
                [](Cmd& d, Out&) { return d.setLaserTriggerMode(FRAME_DROP_QUARTER); }));
    {
        Row& r = add(setting("setDeviceDropFrame", 297, cat({i16(1), i16(300), i16(-3), i16(4), i16(5), i16(6)}),
                             [](Cmd& d, Out&) { return d.setDeviceDropFrame(1, 300, -3, 4, 5, 6); }));
        r.netColonForm = true;
        r.netWrongTypeLine = "ztEmbeddedModuleProxyServer::[setDeviceDropFrame] receive data error";
    }
    // Name, flag, a[0], a[2], b[0], b[2].
    add(setting("setQRBarCenter", 26, cat({named("qr"), u8(1), i16(100), i16(200), i16(-300), i16(400)}),
                [](Cmd& d, Out&) {
                    char name[] = "qrX";
                    int a[3] = {100, -1, 200};
                    int b[3] = {-300, -1, 400};
                    return d.setQRBarCenter(name, 2, true, a, b);
                }));

    // Light, laser, light pen and housekeeping.
    add(setting("sendLightCMD", 316, i32(5), [](Cmd& d, Out&) { return d.sendLightCMD(5); }));
    add(setting("sendLazerCMD", 318, cat({i32(0x01020304), u8('L'), i32(-2)}),
                [](Cmd& d, Out&) { return d.sendLazerCMD(0x01020304, 'L', -2); }));
    add(setting("enableAlarmVoice", 315, i32(1), [](Cmd& d, Out&) { return d.enableAlarmVoice(true); }));
    add(setting("sendIsBlackObject", 320, i32(0), [](Cmd& d, Out&) { return d.sendIsBlackObject(false); }));
    add(setting("setLightPenEnable", 280, i32(1), [](Cmd& d, Out&) { return d.setLightPenEnable(true); }));
    add(setting("SetLightpenType", 341, i32(4), [](Cmd& d, Out&) { return d.SetLightpenType(4); }));
    add(setting("sendGetLPFindList", 337, {}, [](Cmd& d, Out&) { return d.sendGetLPFindList(); }));
    add(setting("sendLPSelectInfo", 338, cat({textBlock("LP-SN-42"), i32(3)}),
                [](Cmd& d, Out&) { return d.sendLPSelectInfo("LP-SN-42", 3); }));
    {
        Row& r = add(query("getLightpenVersion", 344, textBlock("LP-SN-42"),
                           cat({i32(0), padded("LP-777", 16), u32(6), padded("V2.3.4", 16)}),
                           [](Cmd& d, Out& o) { return d.getLightpenVersion("LP-SN-42", o.text); },
                           [](const Out& o) { EXPECT_EQ(o.text, "V2.3.4"); }));
        r.netLines = r.usbLines = {{ZTLOG_LEVEL_INFO, "get lightpen version, ret = 0, lightpenSN = LP-777, version = V2.3.4"}};
    }
    add(setting("preheatRK", 314, i32(60), [](Cmd& d, Out&) { return d.preheatRK(60); }));
    add(setting("setHybridComputeNum2RK", 352, i32(3), [](Cmd& d, Out&) { return d.setHybridComputeNum2RK(3); }));
    add(setting("syncTime2Device", 354, text(kTime40.substr(0, 32)),
                [](Cmd& d, Out&) { return d.syncTime2Device(kTime40); }));
    {
        // The reply is not examined: a negative status still succeeds.
        Row& r = add(setting("rebootDevice", 287, {}, [](Cmd& d, Out&) { return d.rebootDevice(); }));
        r.feed = Feed::withStatus(-4);
        r.netResult = r.usbResult = 0;
        r.netExamines = r.usbExamines = false;
    }
    add(setting("redetectNetworkCard30", 374, {}, [](Cmd& d, Out&) { return d.redetectNetworkCard30(); }))
        .netColonForm = true;
    // No status word in this reply: count, record length, records; each record's length
    // field says how much of its text counts.
    add(query("getCameraSN", 3, {}, cat({i32(2), i32(32), snRecord("SNA-1XYZ", 5), snRecord("SNB-22", 6)}),
              [](Cmd& d, Out& o) { return d.getCameraSN(o.sns); },
              [](const Out& o) { EXPECT_EQ(o.sns, (std::vector<std::string>{"SNA-1", "SNB-22"})); }));
    {
        const ztSimNetworkHead::AbilityRecord record{0xA0, 77, 0x102, 0x103, 0x104, 0x105,
                                                     0x106, 0x107, 0x108, 0x109, 0x10A, 0x10B};
        add(query("getDeviceAbilityInfo", 345, {}, ztSimNetworkHead::abilityPayload(record, true),
                  [](Cmd& d, Out& o) { return d.getDeviceAbilityInfo(&o.ability); },
                  [record](const Out& o) { EXPECT_EQ(words(o.ability), record); }))
            .netColonForm = true;
    }
    add(query("getFirmwareVersion", 15, {}, cat({kIgnoredStatus, u32(0x01020A03)}),
              [](Cmd& d, Out& o) { return d.getFirmwareVersion(o.text); },
              [](const Out& o) { EXPECT_EQ(o.text, "1-2-10-3"); }));
    // Appended to what the string held; only the low 16 bits of the second word count.
    add(query("getFirmwareDate", 29, {}, cat({kIgnoredStatus, u32(0x14180B0F), u32(0xABCD091E)}),
              [](Cmd& d, Out& o) { return d.getFirmwareDate(o.text); },
              [](const Out& o) { EXPECT_EQ(o.text, "keep:20:24:11:15:9:30"); }));
    add(query("getRKProgramVersion", 276, {}, cat({kIgnoredStatus, u32(0x0A0B0C0D)}),
              [](Cmd& d, Out& o) { return d.getRKProgramVersion(&o.i[0], &o.i[1], &o.i[2], &o.i[3]); },
              [](const Out& o) {
                  EXPECT_EQ(o.i[0], 10);
                  EXPECT_EQ(o.i[1], 11);
                  EXPECT_EQ(o.i[2], 12);
                  EXPECT_EQ(o.i[3], 13);
              }));

    // Registers and network settings.
    add(setting("setIntegerRegisterValue", 20, cat({named("ExposureAuto"), u32(0x80000001u)}), [](Cmd& d, Out&) {
        const unsigned int value = 0x80000001u;
        return d.setIntegerRegisterValue("ExposureAuto", value);
    })).netSendName = "setCameraGain";
    add(query("getIntegerRegisterValue", 21, named("Width"), cat({kIgnoredStatus, i32(2048)}),
              [](Cmd& d, Out& o) { return d.getIntegerRegisterValue("Width", &o.i[0]); },
              [](const Out& o) { EXPECT_EQ(o.i[0], 2048); }));
    add(setting("setEnumerationRegisterValue", 22, cat({named("PixelFormat"), u32(3)}), [](Cmd& d, Out&) {
        const unsigned int value = 3;
        return d.setEnumerationRegisterValue("PixelFormat", value);
    })).netSendName = "setCameraGain";
    add(query("getEnumerationRegisterValue", 23, named("TriggerMode"), cat({kIgnoredStatus, i32(1)}),
              [](Cmd& d, Out& o) { return d.getEnumerationRegisterValue("TriggerMode", &o.i[0]); },
              [](const Out& o) { EXPECT_EQ(o.i[0], 1); }));
    // Two reply forms: a status reply, or the register's value, which only the log sees.
    add(setting("readRegisterValue", 773, cat({i32(2), u32(0xA0B0), i32(4)}),
                [](Cmd& d, Out&) { return d.readRegisterValue(2, 0xA0B0, 4); }))
        .netSendName = "setCameraGain";
    {
        Row& r = add(setting("readRegisterValue", 773, cat({i32(2), u32(0xA0B0), i32(4)}),
                             [](Cmd& d, Out&) { return d.readRegisterValue(2, 0xA0B0, 4); }));
        r.feed = Feed::echo(cat({i32(0), u32(0xDEADBEEF), i16(0x1234), i16(-1)}));
        r.netResult = r.usbResult = 0;
        r.netSendName = "setCameraGain";
        r.netLines = {{ZTLOG_LEVEL_ERROR, "READ_REGISTER_VALUE:4660"}};
        r.usbLines = {{ZTLOG_LEVEL_INFO, "ztUsbProxyServer::readRegisterValue::READ_REGISTER_VALUE: 4660"}};
    }
    add(setting("setRegisterValue", 774, cat({i32(1), u32(0x10), i32(3), Bytes{1, 2, 3}}), [](Cmd& d, Out&) {
        char data[] = {1, 2, 3, 4};
        return d.setRegisterValue(1, 0x10, 3, data);
    })).netSendName = "setCameraGain";
    add(setting("setWifi", 278, cat({named("lab-net"), named("s3cret")}), [](Cmd& d, Out&) {
        char ssid[] = "lab-net-5G";
        char pass[] = "s3cret!!";
        return d.setWifi(ssid, 7, pass, 6);
    }));
    {
        Row& r = add(query("getWifi", 290, {}, cat({i32(0), named("lab-net"), named("s3cret")}),
                           [](Cmd& d, Out& o) { return d.getWifi(o.ssid, o.pass); },
                           [](const Out& o) {
                               EXPECT_EQ(hex(Bytes(o.ssid, o.ssid + 9)), hex(padded("lab-net", 9)));
                               EXPECT_EQ(hex(Bytes(o.pass, o.pass + 8)), hex(padded("s3cret", 8)));
                           }));
        r.netLines = {{ZTLOG_LEVEL_INFO, "get wifi, ssid = lab-net, passWord = s3cret"}};
        r.usbLines = {{ZTLOG_LEVEL_INFO, "ztUsbProxyServer::get wifi, ssid = lab-net, passWord = s3cret"}};
    }
    add(setting("reconnectWIFI", 296, cat({u32(6), text("office")}), [](Cmd& d, Out&) { return d.reconnectWIFI("office"); }))
        .netColonForm = true;

    // Files, firmware and logs.
    {
        Row& r = add(query("getSETFile", 264, i32(SET_FILE_DATA_2), cat({i32(0), text("SET file two\n")}),
                           [](Cmd& d, Out&) { return d.getSETFile(SET_FILE_DATA_2); }, nullptr));
        r.handedOn = 264;
        r.netSendName = "sendTrigger";
        r.usbExchange.clear();
    }
    // The file's bytes as they are, a zero byte included.
    add(setting("sendSETFile", 263, Bytes(kSetFile, kSetFile + 10), [](Cmd& d, Out&) {
        char data[sizeof kSetFile];
        std::memcpy(data, kSetFile, sizeof kSetFile);
        return d.sendSETFile(data, 10);
    }));
    add(setting("sendRGFFile", 265, text("RGF-1234"), [](Cmd& d, Out&) {
        char data[] = "RGF-1234";
        return d.sendRGFFile(data, 8);
    }));
    // The longest serial number that fits the text block.
    add(setting("getLPSETFile", 340, textBlock("ABCDEFGHIJKLMNO"), [](Cmd& d, Out&) { return d.getLPSETFile("ABCDEFGHIJKLMNO"); }));
    add(setting("sendLightpenSETFile", 339, text("LPSET"), [](Cmd& d, Out&) {
        char data[] = "LPSET";
        return d.sendLightpenSETFile(data, 5);
    }));
    {
        // Network: the exchange must succeed, its reply is not examined. USB: sent without
        // waiting.
        Row& r = add(setting("updateFirmware", 267, text("FIRMWARE-IMG"), [](Cmd& d, Out&) {
            char data[] = "FIRMWARE-IMG";
            return d.updateFirmware(data, 12);
        }));
        r.feed = Feed::withStatus(-4);
        r.netResult = r.usbResult = 0;
        r.usbWaits = false;
        r.netExamines = r.usbExamines = false;
        r.netSendName = "update firmware";
    }
    {
        Row& r = add(query("getSectionalLog", 258, {}, cat({i32(0), text("part of the log")}),
                           [](Cmd& d, Out&) { return d.getSectionalLog(); }, nullptr));
        r.handedOn = 258;
        r.netWrongTypeLine = "ztEmbeddedModuleProxyServer::[getSectionalLog] receive data error";
        r.usbExchange.clear();
    }
    {
        Row& r = add(query("getAllLog", 355, {}, cat({i32(0), text("the whole log")}),
                           [](Cmd& d, Out&) { return d.getAllLog(); }, nullptr));
        r.handedOn = 355;
        r.netWrongTypeLine = "ztEmbeddedModuleProxyServer::[getAllLog] receive data error";
        r.usbExchange = "sendCtrlCmd_2";
    }

    // The network link's own commands.
    add(netSetting("switchHardwareFrameRate", 356, i32(2), [](NetServer& s, Out&) { return s.switchHardwareFrameRate(2); }));
    add(netQuery("getHardwareFrameRateType", 358, cat({i32(0), i32(3)}),
                 [](NetServer& s, Out& o) { return s.getHardwareFrameRateType(o.i[0]); },
                 [](const Out& o) { EXPECT_EQ(o.i[0], 3); }));
    add(netSetting("preheatRKWithTrigger", 313, i32(30), [](NetServer& s, Out&) { return s.preheatRKWithTrigger(30); }));
    add(netQuery("getTemp", 256, cat({i32(1), u8(2), f32(36.5f), f32(41.0f)}), [](NetServer& s, Out&) { return s.getTemp(); },
                 nullptr))
        .handedOn = 256;
    {
        Row& r = add(netQuery("getRGFFile", 266, cat({i32(0), text("RGF body")}), [](NetServer& s, Out&) { return s.getRGFFile(); },
                              nullptr));
        r.handedOn = 266;
        r.netSendName = "sendTrigger";
    }
    return rows;
}

std::string netSendFailure(const Row& row)
{
    const std::string& name = row.netSendName.empty() ? row.name : row.netSendName;
    if (row.netColonForm)
        return "ztEmbeddedModuleProxyServer::[" + name + "] zmq_send failed!";
    return "ztEmbeddedModuleProxyServer [" + name + "] zmq_send failed!\r\n";
}

// ---------------------------------------------------------------------------------------
// The links

// Everything a link's data callback saw.
class Calls {
public:
    static void cb(int type, char* data, int len, void* user)
    {
        auto* self = static_cast<Calls*>(user);
        std::lock_guard<std::mutex> lock(self->m_mutex);
        self->m_seen.emplace_back(type, data == nullptr ? Bytes() : Bytes(data, data + len));
        self->m_cv.notify_all();
    }
    void clear()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_seen.clear();
    }
    // Calls of this type, once at least `atLeast` of them came or timeoutMs passed.
    std::vector<Bytes> of(int type, std::size_t atLeast, int timeoutMs)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        std::vector<Bytes> out;
        m_cv.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] {
            out.clear();
            for (const auto& c : m_seen)
                if (c.first == type)
                    out.push_back(c.second);
            return out.size() >= atLeast;
        });
        return out;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_cv;
    std::vector<std::pair<int, Bytes>> m_seen;
};

// A request as the head recorded it.
struct Wire {
    unsigned short type = 0;
    Bytes payload;
};

// What both links do with their simulated head: set its replies, read the requests it
// recorded, and count the callbacks the server raises.
template <class HeadT>
class SimulatedHead {
public:
    using Head = HeadT;
    Calls& calls() { return m_calls; }
    void resetReplies() { m_head.resetReplies(); }
    void feed(unsigned short type, const Feed& f)
    {
        switch (f.kind) {
        case Feed::Status:
            m_head.setStatusReply(type, f.status);
            break;
        case Feed::Echo:
            m_head.setEchoReply(type, f.bytes);
            break;
        case Feed::Raw:
            m_head.setRawReply(type, {f.bytes});
            break;
        case Feed::None:
            m_head.setNoReply(type);
            break;
        }
    }
    bool nextCommand(Wire& out, int timeoutMs)
    {
        typename Head::Request r;
        if (!m_head.nextCommand(r, timeoutMs))
            return false;
        out.type = r.type;
        out.payload = std::move(r.payload);
        return true;
    }
    void clearCommands() { m_head.clearCommands(); }

protected:
    Calls m_calls;
    Head m_head;
};

#ifdef ZT_TEST_LINK_NETWORK
// ztEmbeddedModuleProxyServer online against the simulated network head on loopback.
class NetworkLink : public SimulatedHead<ztSimNetworkHead> {
public:
    static constexpr bool kNetwork = true;
    static constexpr const char* kClass = "ztEmbeddedModuleProxyServer";
    using Server = ztEmbeddedModuleProxyServer;

    // An empty text once online, else what went wrong.
    std::string start()
    {
        if (m_head.start() != 0)
            return "the simulated head cannot listen on 127.0.0.1:42001";
        return connect();
    }
    Server& server() { return *m_server; }
    Cmd& commands() { return *m_server; }
    static bool runs(const Row&) { return true; }
    int call(const Row& row, Out& out) { return row.call ? row.call(*m_server, out) : row.netCall(*m_server, out); }


    // Makes every later exchange fail at its send: the head closes the command connection.
    // The first request after that still leaves the host, and the head's end answers it
    // with a reset; from then on each send fails at once. The pre-trigger, which waits
    // for nothing, carries that first request.
    bool breakExchanges()
    {
        m_head.closeChannel(Head::Command);
        for (int k = 0; k < 100; ++k) {
            if (m_server->sendPreTrigger() == -1)
                return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        return false;
    }
    // A new server object, online over four new connections.
    std::string restore()
    {
        m_server.reset();
        for (const auto c : {Head::Command, Head::Data, Head::CommandData, Head::LightPen})
            if (!m_head.waitDisconnected(c, 5000))
                return "the head still holds channel " + std::to_string(c);
        return connect();
    }

private:
    std::string connect()
    {
        m_server = std::make_unique<Server>();
        m_server->registerModuleServerDataCB(&Calls::cb, &m_calls);
        const int rc = m_server->init("127.0.0.1", "127.0.0.1", "SN-CATALOGUE");
        if (rc != 0 || !m_server->isConnected())
            return "init returned " + std::to_string(rc);
        return {};
    }

    std::unique_ptr<Server> m_server;
};
using Links = ::testing::Types<NetworkLink>;
#endif

#ifdef ZT_TEST_LINK_USB
// ztUsbProxyServer online on libusb's default context against the emulated USB head.
class UsbLink : public SimulatedHead<ztSimUsbHead> {
public:
    static constexpr bool kNetwork = false;
    static constexpr const char* kClass = "ztUsbProxyServer";
    using Server = ztUsbProxyServer;

    ~UsbLink()
    {
        disconnect();
        m_head.stop();
    }
    std::string start()
    {
        if (m_head.start() != 0)
            return "the emulated USB head cannot start";
        return connect();
    }
    Server& server() { return *m_server; }
    Cmd& commands() { return *m_server; }
    static bool runs(const Row& row) { return static_cast<bool>(row.call); }
    int call(const Row& row, Out& out) { return row.call(*m_server, out); }


    // Unplugged, the device fails every transfer on the open handle at once.
    bool breakExchanges()
    {
        m_head.unplug();
        return m_head.isUnplugged();
    }
    // Plugged back in: a new handle and a new server object, online.
    std::string restore()
    {
        disconnect();
        m_head.replug();
        return connect();
    }

private:
    std::string connect()
    {
        if (libusb_init(nullptr) != 0)
            return "libusb_init failed";
        m_libusb = true;
        m_handle = libusb_open_device_with_vid_pid(nullptr, Head::kVendor, Head::kProduct);
        if (m_handle == nullptr)
            return "the emulated head cannot be opened";
        if (libusb_claim_interface(m_handle, Head::kInterface) != 0)
            return "the emulated head's interface cannot be claimed";
        m_server = std::make_unique<Server>(Head::deviceInfo(), m_handle);
        m_server->registerModuleServerDataCB(&Calls::cb, &m_calls);
        const int rc = m_server->init();
        return rc == 0 ? std::string() : "init returned " + std::to_string(rc);
    }
    void disconnect()
    {
        if (m_server) {
            m_server->deInit();
            m_server.reset();
        }
        if (m_handle != nullptr) {
            libusb_release_interface(m_handle, Head::kInterface);
            libusb_close(m_handle);
            m_handle = nullptr;
        }
        if (m_libusb) {
            libusb_exit(nullptr);
            m_libusb = false;
        }
    }

    bool m_libusb = false;
    libusb_device_handle* m_handle = nullptr;
    std::unique_ptr<Server> m_server;
};
using Links = ::testing::Types<UsbLink>;
#endif

struct LinkName {
    template <class L>
    static std::string GetName(int)
    {
        return L::kNetwork ? "Network" : "Usb";
    }
};

// One link per test program, brought online by the first test and shared by the rest.
template <class L>
class DeviceCommands : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        s_link = new L;
        s_problem = s_link->start();
    }
    static void TearDownTestSuite()
    {
        delete s_link;
        s_link = nullptr;
    }
    void SetUp() override
    {
        ASSERT_TRUE(s_problem.empty()) << s_problem;
        link().resetReplies();
        link().clearCommands();
        link().calls().clear();
    }
    static L& link() { return *s_link; }
    static void restoreLink() { s_problem = s_link->restore(); }
    static bool problem() { return !s_problem.empty(); }

    // The next request the head recorded must be exactly this one, and no other follows.
    static void expectRequest(unsigned short type, const Bytes& payload, bool only = true)
    {
        Wire got;
        ASSERT_TRUE(link().nextCommand(got, 2000)) << "no request arrived (type " << type << " expected)";
        EXPECT_EQ(got.type, type);
        EXPECT_EQ(hex(got.payload), hex(payload)) << "payload of type " << got.type;
        if (only) {
            EXPECT_FALSE(link().nextCommand(got, 0)) << "a further request of type " << got.type;
        }
    }
    // Nothing at all reached the head.
    static void expectNothingSent(int waitMs)
    {
        Wire got;
        EXPECT_FALSE(link().nextCommand(got, waitMs)) << "a request of type " << got.type << " was sent";
    }
    static int result(const Row& row) { return L::kNetwork ? row.netResult : row.usbResult; }

    static inline L* s_link = nullptr;
    static inline std::string s_problem;
};

TYPED_TEST_SUITE(DeviceCommands, Links, LinkName);

TYPED_TEST(DeviceCommands, EveryCatalogueRowOnTheWireWithItsResultsAndFailures)
{
    using L = TypeParam;
    using T = TestFixture;
    L& link = T::link();
    const std::vector<Row> rows = catalogue();

    // The request, the result, the outputs, the lines logged and the replies handed on.
    for (const Row& row : rows) {
        if (!L::runs(row))
            continue;
        SCOPED_TRACE("success: " + row.name + ", type " + std::to_string(row.type));
        link.resetReplies();
        link.clearCommands();
        link.calls().clear();
        link.feed(row.type, (L::kNetwork ? row.netWaits : row.usbWaits) ? row.feed : Feed::none());
        LogCapture log(ZTLOG_LEVEL_INFO);
        Out out;
        EXPECT_EQ(link.call(row, out), T::result(row));
        T::expectRequest(row.type, row.payload);
        if (row.check) {
            row.check(out);
        } else {
            EXPECT_EQ(dump(out), untouched());
        }
        expectLines(log, row.name, L::kNetwork ? row.netLines : row.usbLines);
        if (row.handedOn >= 0) {
            const auto handed = link.calls().of(row.handedOn, 1, 1000);
            ASSERT_EQ(handed.size(), 1u);
            EXPECT_EQ(hex(handed[0]), hex(row.feed.bytes));
        }
    }

    // A reply of a type that no command expects. The USB link logs its receive error;
    // the network link stays silent but for the commands that say otherwise.
    const Bytes wrong = message(999, zeros(64));
    for (const Row& row : rows) {
        if (!L::runs(row))
            continue;
        SCOPED_TRACE("wrong reply type: " + row.name + ", type " + std::to_string(row.type));
        const bool waits = L::kNetwork ? row.netWaits : row.usbWaits;
        const bool examines = L::kNetwork ? row.netExamines : row.usbExamines;
        link.resetReplies();
        link.clearCommands();
        link.calls().clear();
        link.feed(row.type, waits ? Feed::raw(wrong) : Feed::none());
        LogCapture log(ZTLOG_LEVEL_INFO);
        Out out;
        const int rc = link.call(row, out);
        T::expectRequest(row.type, row.payload);
        std::vector<Expect> lines;
        if (examines) {
            EXPECT_EQ(rc, -1);
            EXPECT_EQ(dump(out), untouched());
            if (!L::kNetwork)
                lines.push_back({-1, "ztUsbProxyServer::[" + row.name + "] receive data error"});
            else if (!row.netWrongTypeLine.empty())
                lines.push_back({-1, row.netWrongTypeLine});
            EXPECT_TRUE(link.calls().of(999, 1, 0).empty()) << "a reply of the wrong type was handed on";
        } else {
            EXPECT_EQ(rc, 0);
        }
        expectLines(log, row.name, lines);
    }

    // Every exchange fails at its send: -1, the row's send failure text, no outputs.
    const bool broken = link.breakExchanges();
    EXPECT_TRUE(broken) << "the link's sends keep succeeding";
    for (const Row& row : rows) {
        if (!broken || !L::runs(row))
            continue;
        SCOPED_TRACE("send failure: " + row.name + ", type " + std::to_string(row.type));
        link.resetReplies();
        LogCapture log(ZTLOG_LEVEL_INFO);
        Out out;
        EXPECT_EQ(link.call(row, out), -1);
        EXPECT_EQ(dump(out), untouched());
        if (L::kNetwork) {
            expectLines(log, row.name, {{ZTLOG_LEVEL_ERROR, netSendFailure(row)}});
        } else {
            const std::string transfer = row.usbExchange.empty()
                                             ? "ztUsbProxyServer::sendCtrlCmd"
                                             : "ztUsbProxyServer::" + row.usbExchange + " libusb_bulk_transfer failed, ret = ";
            expectLines(log, row.name,
                        {{-1, transfer, true}, {ZTLOG_LEVEL_ERROR, "ztUsbProxyServer::[" + row.name + "] send cmd failed"}});
        }
    }
    T::restoreLink();
    ASSERT_FALSE(T::problem()) << "the link did not come back online";
}

TYPED_TEST(DeviceCommands, EdgeCasesOfTheCatalogue)
{
    using L = TypeParam;
    using T = TestFixture;
    L& link = T::link();
    Cmd& d = link.commands();

    // A period of 40 ms travels as the frame rate 25, in the very message of
    // setCameraFrameRate(25).
    EXPECT_EQ(d.setPeriod(40), 0);
    EXPECT_EQ(d.setCameraFrameRate(25), 0);
    Wire period, rate;
    ASSERT_TRUE(link.nextCommand(period, 2000));
    ASSERT_TRUE(link.nextCommand(rate, 2000));
    EXPECT_EQ(period.type, 16);
    EXPECT_EQ(hex(period.payload), hex(i32(25)));
    EXPECT_EQ(rate.type, period.type);
    EXPECT_EQ(hex(rate.payload), hex(period.payload));

    // A frame rate of 30 is a period of 33 ms.
    link.feed(17, Feed::echo(cat({i32(0), i32(30)})));
    int ms = -1;
    EXPECT_EQ(d.getPeriod(&ms), 0);
    EXPECT_EQ(ms, 33);
    T::expectRequest(17, {});

    // The pre-trigger is done once it is sent, even if the head never answers.
    link.feed(13, Feed::none());
    const auto t0 = Clock::now();
    EXPECT_EQ(d.sendPreTrigger(), 0);
    EXPECT_LT(Clock::now() - t0, std::chrono::milliseconds(1000));
    T::expectRequest(13, i32(2));

    // The status word: the USB link returns it, the network link 0 or -1.
    link.feed(13, Feed::withStatus(5));
    EXPECT_EQ(d.sendTrigger(), L::kNetwork ? 0 : 5);
    T::expectRequest(13, i32(1));
    link.feed(13, Feed::withStatus(-3));
    EXPECT_EQ(d.sendTrigger(), L::kNetwork ? -1 : -3);
    T::expectRequest(13, i32(1));
    link.feed(260, Feed::withStatus(-3));
    EXPECT_EQ(d.setMaster(0), L::kNetwork ? -1 : -3);
    T::expectRequest(260, i32(0));
    link.feed(260, Feed::withStatus(0));
    EXPECT_EQ(d.setMaster(0), 0);
    T::expectRequest(260, i32(0));

    // Only the first argument of execSync travels.
    EXPECT_EQ(d.execSync(true, false), 0);
    EXPECT_EQ(d.execSync(true, true), 0);
    T::expectRequest(273, i32(1), false);
    T::expectRequest(273, i32(1));

    // A reply of type 0 to a query fails, although its payload holds a value.
    {
        LogCapture log(ZTLOG_LEVEL_INFO);
        link.feed(17, Feed::raw(message(0, cat({i32(0), i32(25)}))));
        int fps = -9;
        EXPECT_EQ(d.getCameraFrameRate(&fps), -1);
        EXPECT_EQ(fps, -9);
        link.feed(8, Feed::raw(message(0, cat({i32(0), f32(1.5f)}))));
        float exposure = -9.0f;
        EXPECT_EQ(d.getCameraExposure(&exposure), -1);
        EXPECT_EQ(exposure, -9.0f);
        std::vector<Expect> lines;
        if (!L::kNetwork)
            lines = {{-1, "ztUsbProxyServer::[getCameraFrameRate] receive data error"},
                     {-1, "ztUsbProxyServer::[getCameraExposure] receive data error"}};
        expectLines(log, "getCamera", lines);
        T::expectRequest(17, {}, false);
        T::expectRequest(8, {});
    }

    // The drop-frame values travel whole, whatever the second one is: large and negative
    // values are not copied beyond the scratch buffer, and a value of 1 or 0 leaves zeros
    // where the scratch buffer is not written (a large value sent before must not show
    // through).
    for (const short second : {600, -5, 2, 1, 0}) {
        SCOPED_TRACE("setDeviceDropFrame second argument " + std::to_string(second));
        EXPECT_EQ(d.setDeviceDropFrame(7, second, 8, 9, 10, 11), 0);
        T::expectRequest(297, cat({i16(7), i16(second), i16(8), i16(9), i16(10), i16(11)}));
    }

    // Wi-Fi settings count only with status 0.
    {
        LogCapture log(ZTLOG_LEVEL_INFO);
        link.feed(290, Feed::echo(cat({i32(2), named("lab-net"), named("s3cret")})));
        Out out;
        EXPECT_EQ(d.getWifi(out.ssid, out.pass), -1);
        EXPECT_EQ(dump(out), untouched());
        expectLines(log, "getWifi", {{-1, std::string(L::kClass) + "::get wifi reply = 2"}});
        T::expectRequest(290, {});
    }

    if constexpr (L::kNetwork) {
        // The frame rate type counts only with status 0.
        link.feed(358, Feed::echo(cat({i32(1), i32(3)})));
        int frameRateType = -9;
        EXPECT_EQ(link.server().getHardwareFrameRateType(frameRateType), -1);
        EXPECT_EQ(frameRateType, -9);
        T::expectRequest(358, {});
    }
}

TYPED_TEST(DeviceCommands, AbilityAndVersionReplies)
{
    using L = TypeParam;
    using T = TestFixture;
    L& link = T::link();
    Cmd& d = link.commands();
    const std::string cls = L::kClass;
    LogCapture log(ZTLOG_LEVEL_INFO);
    using Words = std::array<std::uint32_t, 12>;
    const Words sentinel{0x5A5A5A5A, 0x5A5A5A5A, 0x5A5A5A5A, 0x5A5A5A5A, 0x5A5A5A5A, 0x5A5A5A5A,
                         0x5A5A5A5A, 0x5A5A5A5A, 0x5A5A5A5A, 0x5A5A5A5A, 0x5A5A5A5A, 0x5A5A5A5A};

    // The record read while coming online: the head's default, long form.
    const auto online = ztSimNetworkHead::defaultAbility();
    EXPECT_EQ(words(d.getCurDeviceAbilityInfo()), Words(online));

    const ztSimNetworkHead::AbilityRecord record{0xA0, 77, 0x102, 0x103, 0x104, 0x105,
                                                 0x106, 0x107, 0x108, 0x109, 0x10A, 0x10B};
    {
        SCOPED_TRACE("short form");
        Out o;
        link.feed(345, Feed::echo(ztSimNetworkHead::abilityPayload(record, false)));
        EXPECT_EQ(d.getDeviceAbilityInfo(&o.ability), 0);
        Words want(record);
        want[0] = 0x5A5A5A5A; // the header does not travel
        EXPECT_EQ(words(o.ability), want);
    }
    {
        SCOPED_TRACE("format version 2");
        Bytes longForm = ztSimNetworkHead::abilityPayload(record, true);
        Bytes shortForm = ztSimNetworkHead::abilityPayload(record, false);
        // Status, byte count, form word (0 long, 1 short), [header], version.
        const Bytes two = u32(2);
        std::copy(two.begin(), two.end(), longForm.begin() + 16);
        std::copy(two.begin(), two.end(), shortForm.begin() + 12);
        Out o;
        link.feed(345, Feed::echo(longForm));
        EXPECT_EQ(d.getDeviceAbilityInfo(&o.ability), 0);
        Words want = sentinel;
        want[0] = record[0]; // the long form's header is read before the version
        EXPECT_EQ(words(o.ability), want);
        Out s;
        link.feed(345, Feed::echo(shortForm));
        EXPECT_EQ(d.getDeviceAbilityInfo(&s.ability), 0);
        EXPECT_EQ(words(s.ability), sentinel);
    }
    {
        SCOPED_TRACE("status");
        log.clear();
        Out o;
        link.feed(345, Feed::echo(ztSimNetworkHead::abilityPayload(record, true, -3)));
        EXPECT_EQ(d.getDeviceAbilityInfo(&o.ability), -3);
        EXPECT_EQ(words(o.ability), sentinel);
        link.feed(345, Feed::withStatus(0));
        EXPECT_EQ(d.getDeviceAbilityInfo(&o.ability), 0);
        EXPECT_EQ(words(o.ability), sentinel);
        link.feed(345, Feed::withStatus(5));
        EXPECT_EQ(d.getDeviceAbilityInfo(&o.ability), 5);
        EXPECT_EQ(words(o.ability), sentinel);
        expectLines(log, "getDeviceAbilityInfo",
                    {{ZTLOG_LEVEL_ERROR, "ztEmbeddedModuleProxyServer::getDeviceAbilityInfo, reply = -3"},
                     {ZTLOG_LEVEL_WARN, cls + "::getDeviceAbilityInfo, msgType is 0"},
                     {ZTLOG_LEVEL_ERROR, "ztEmbeddedModuleProxyServer::getDeviceAbilityInfo, reply = 5"}});
    }
    {
        SCOPED_TRACE("parseDeviceAblityInfo");
        const Bytes payload = ztSimNetworkHead::abilityPayload(record, true);
        Out o;
        EXPECT_EQ(d.parseDeviceAblityInfo(nullptr, &o.ability), -1);
        EXPECT_EQ(d.parseDeviceAblityInfo(payload.data() + 4, nullptr), -1);
        EXPECT_EQ(words(o.ability), sentinel);
        EXPECT_EQ(d.parseDeviceAblityInfo(payload.data() + 4, &o.ability), 0);
        EXPECT_EQ(words(o.ability), Words(record));
    }
    {
        SCOPED_TRACE("firmware version and date");
        std::string version = "keep";
        link.feed(15, Feed::echo(cat({i32(0), u32(0)})));
        EXPECT_EQ(d.getFirmwareVersion(version), 0);
        EXPECT_EQ(version, "0-0-0-0");
        link.feed(15, Feed::echo(cat({i32(0), u32(0xFF000764)})));
        EXPECT_EQ(d.getFirmwareVersion(version), 0);
        EXPECT_EQ(version, "255-0-7-100");
        std::string date = "built ";
        link.feed(29, Feed::echo(cat({i32(0), u32(0x14180B0F), u32(0x0000091E)})));
        EXPECT_EQ(d.getFirmwareDate(date), 0);
        EXPECT_EQ(date, "built 20:24:11:15:9:30");
        EXPECT_EQ(d.getFirmwareDate(date), 0);
        EXPECT_EQ(date, "built 20:24:11:15:9:3020:24:11:15:9:30");
    }
    {
        SCOPED_TRACE("camera serial numbers");
        std::vector<std::string> sns{"a", "b", "c"};
        link.feed(3, Feed::echo(cat({i32(2), i32(32), snRecord("CAM-0001", 8), snRecord("XY-42ZZZZ", 5)})));
        EXPECT_EQ(d.getCameraSN(sns), 0);
        EXPECT_EQ(sns, (std::vector<std::string>{"CAM-0001", "XY-42"}));
        link.feed(3, Feed::echo(cat({i32(0), i32(32)})));
        EXPECT_EQ(d.getCameraSN(sns), 0);
        EXPECT_TRUE(sns.empty());
    }
    {
        SCOPED_TRACE("light-pen version");
        log.clear();
        link.clearCommands();
        std::string version = "old";
        link.feed(344, Feed::echo(cat({i32(0), padded("PEN-0042", 16), u32(8), padded("LP1.0.7", 16)})));
        EXPECT_EQ(d.getLightpenVersion("PEN-0042", version), 0);
        EXPECT_EQ(version, "LP1.0.7");
        T::expectRequest(344, textBlock("PEN-0042"));
        expectLines(log, "getLightpenVersion",
                    {{ZTLOG_LEVEL_INFO, "get lightpen version, ret = 0, lightpenSN = PEN-0042, version = LP1.0.7"}});
        // A status other than 0 fails, without the version line.
        log.clear();
        link.feed(344, Feed::echo(cat({i32(1), padded("PEN-0042", 16), u32(8), padded("LP9", 16)})));
        EXPECT_EQ(d.getLightpenVersion("PEN-0042", version), -1);
        EXPECT_EQ(version, "LP1.0.7");
        EXPECT_FALSE(log.waitFor("get lightpen version", 0));
    }
    {
        SCOPED_TRACE("controller program version");
        int v[4] = {-1, -1, -1, -1};
        link.feed(276, Feed::echo(cat({i32(0), u32(0xFE01807F)})));
        EXPECT_EQ(d.getRKProgramVersion(&v[0], &v[1], &v[2], &v[3]), 0);
        EXPECT_EQ(v[0], 254);
        EXPECT_EQ(v[1], 1);
        EXPECT_EQ(v[2], 128);
        EXPECT_EQ(v[3], 127);
    }
}

TYPED_TEST(DeviceCommands, ShortRepliesAndRefusedArguments)
{
    using L = TypeParam;
    using T = TestFixture;
    L& link = T::link();
    Cmd& d = link.commands();
    const std::string cls = L::kClass;

    // Replies too short for what is read from them: -1, one line, outputs untouched.
    struct Short {
        std::string method;
        unsigned short type;
        Bytes payload;
        CommonCall call;
    };
    const std::vector<Short> shorts = {
        {"getCameraExposure", 8, i32(0), [](Cmd& c, Out& o) { return c.getCameraExposure(&o.f); }},
        {"getTriggerMode", 14, cat({i32(0), Bytes{1, 2}}), [](Cmd& c, Out& o) { return c.getTriggerMode(&o.i[0]); }},
        {"getSystemId", 272, cat({i32(0), u32(1)}), [](Cmd& c, Out& o) { return c.getSystemId(&o.u64); }},
        {"getImageSize", 4, cat({i32(0), i16(5)}), [](Cmd& c, Out& o) { return c.getImageSize(&o.s[0], &o.s[1]); }},
        {"getCameraROI", 12, cat({i32(0), i32(50), text("roi_A"), i16(1), i16(2), i16(3), i16(4)}),
         [](Cmd& c, Out& o) { return c.getCameraROI(o.name, o.nameLen, o.s[0], o.s[1], o.s[2], o.s[3]); }},
        {"getCameraROI", 12, cat({i32(0), i32(5), text("roi_A"), i16(1), i16(2)}),
         [](Cmd& c, Out& o) { return c.getCameraROI(o.name, o.nameLen, o.s[0], o.s[1], o.s[2], o.s[3]); }},
        {"getCameraSN", 3, cat({i32(3), i32(32), snRecord("A", 1), snRecord("B", 1)}),
         [](Cmd& c, Out& o) { return c.getCameraSN(o.sns); }},
        {"getCameraSN", 3, cat({i32(0x10000000), i32(32), snRecord("A", 1)}),
         [](Cmd& c, Out& o) { return c.getCameraSN(o.sns); }},
        {"getWifi", 290, cat({i32(0), u8(40), text("lab-n")}), [](Cmd& c, Out& o) { return c.getWifi(o.ssid, o.pass); }},
        {"getWifi", 290, cat({i32(0), named("lab-net"), u8(200), text("s3")}),
         [](Cmd& c, Out& o) { return c.getWifi(o.ssid, o.pass); }},
        {"getFirmwareVersion", 15, i32(0), [](Cmd& c, Out& o) { return c.getFirmwareVersion(o.text); }},
        {"getFirmwareDate", 29, cat({i32(0), u32(0x14180B0F)}), [](Cmd& c, Out& o) { return c.getFirmwareDate(o.text); }},
        {"getRKProgramVersion", 276, i32(0),
         [](Cmd& c, Out& o) { return c.getRKProgramVersion(&o.i[0], &o.i[1], &o.i[2], &o.i[3]); }},
        {"getLightpenVersion", 344, cat({i32(0), padded("PEN", 16), u32(3), text("LP1")}),
         [](Cmd& c, Out& o) { return c.getLightpenVersion("PEN", o.text); }},
        {"getIntegerRegisterValue", 21, i32(0), [](Cmd& c, Out& o) { return c.getIntegerRegisterValue("Width", &o.i[0]); }},
    };
    for (const Short& s : shorts) {
        SCOPED_TRACE("short reply: " + s.method + " with " + hex(s.payload));
        link.clearCommands();
        link.feed(s.type, Feed::echo(s.payload));
        LogCapture log(ZTLOG_LEVEL_INFO);
        Out out;
        // The USB link reads a short reply on into the cleared head of its reply buffer (the
        // message's tail byte, then zeros); only a read past the buffer fails there (a count
        // of 2^28 serial numbers).
        const bool pastBuffer = s.payload.size() > 4 && s.payload[3] == 0x10;
        if (L::kNetwork || pastBuffer) {
            EXPECT_EQ(s.call(d, out), -1);
            EXPECT_EQ(dump(out), untouched());
            expectLines(log, s.method, {{ZTLOG_LEVEL_ERROR, cls + "::[" + s.method + "] reply too short"}});
        } else {
            EXPECT_EQ(s.call(d, out), 0);
            EXPECT_EQ(log.count(cls + "::[" + s.method + "] reply too short"), 0);
            if (s.method == "getCameraExposure") {
                // The message's tail byte 0xBB, then the cleared zeros.
                const std::uint32_t bits = 0xBB;
                float read;
                std::memcpy(&read, &bits, 4);
                EXPECT_EQ(out.f, read);
            }
        }
        Wire got;
        EXPECT_TRUE(link.nextCommand(got, 2000));
        EXPECT_EQ(got.type, s.type);
    }
    if constexpr (L::kNetwork) {
        LogCapture log(ZTLOG_LEVEL_INFO);
        link.feed(358, Feed::echo(i32(0)));
        int frameRateType = -9;
        EXPECT_EQ(link.server().getHardwareFrameRateType(frameRateType), -1);
        EXPECT_EQ(frameRateType, -9);
        expectLines(log, "getHardwareFrameRateType",
                    {{ZTLOG_LEVEL_ERROR, "ztEmbeddedModuleProxyServer::[getHardwareFrameRateType] reply too short"}});
    }

    // Arguments that cannot be encoded: -1, an error line naming the class and the method,
    // and nothing sent.
    link.clearCommands();
    char name[] = "cam1";
    char ssid[] = "net";
    char pass[] = "pwd";
    char data[] = "data";
    int a[3] = {1, 2, 3};
    int b[3] = {4, 5, 6};
    std::string version = "keep";
    const std::string sixteen(16, 'S');
    const std::vector<std::pair<std::string, std::function<int()>>> refused = {
        {"setPeriod", [&] { return d.setPeriod(0); }},
        {"syncTime2Device", [&] { return d.syncTime2Device(std::string(31, '1')); }},
        {"sendLPSelectInfo", [&] { return d.sendLPSelectInfo(sixteen, 1); }},
        {"getLPSETFile", [&] { return d.getLPSETFile(sixteen); }},
        {"getLightpenVersion", [&] { return d.getLightpenVersion(sixteen, version); }},
        {"setCameraROI", [&] { return d.setCameraROI(name, -1, 1, 2, 3, 4); }},
        {"setCameraROI", [&] { return d.setCameraROI(nullptr, 4, 1, 2, 3, 4); }},
        {"setCameraReverse", [&] { return d.setCameraReverse(name, -2, 1); }},
        {"setQRBarCenter", [&] { return d.setQRBarCenter(name, -1, true, a, b); }},
        {"setQRBarCenter", [&] { return d.setQRBarCenter(name, 4, true, nullptr, b); }},
        {"setWifi", [&] { return d.setWifi(ssid, -1, pass, 3); }},
        {"setWifi", [&] { return d.setWifi(ssid, 3, pass, -1); }},
        {"setRegisterValue", [&] { return d.setRegisterValue(1, 2, -1, data); }},
        {"sendSETFile", [&] { return d.sendSETFile(nullptr, 16); }},
        {"getCameraExposure", [&] { return d.getCameraExposure(nullptr); }},
        {"getWifi", [&] { return d.getWifi(nullptr, pass); }},
    };
    for (const auto& [method, call] : refused) {
        SCOPED_TRACE("refused: " + method);
        LogCapture log(ZTLOG_LEVEL_INFO);
        EXPECT_EQ(call(), -1);
        int naming = 0;
        for (const auto& l : log.lines())
            naming += l.level == ZTLOG_LEVEL_ERROR && l.text.find(cls) != std::string::npos &&
                     l.text.find(method) != std::string::npos;
        EXPECT_EQ(naming, 1) << "one error line naming " << cls << " and " << method;
    }
    EXPECT_EQ(version, "keep");
    T::expectNothingSent(300);
}

} // namespace
