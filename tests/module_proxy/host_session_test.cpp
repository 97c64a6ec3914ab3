// The host's session with a module: retries, callbacks that call back, notifications, and
// the reply checks against a raw module written from the wire format.
#include "host_peer.h"
#include "support/data_calls.h"
#include "support/fault_scenario.h"
#include "support/log_capture.h"
#include "support/module_session.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>

using namespace zt::test;
using zt::tools::ProxyMessage;
using zt::tools::proxyMessage;
using zt::tools::RawConnection;
using zt::tools::RawListener;

namespace {

TEST(HostSession, WithoutAModuleRequestsFailAndConnectingGoesOnEvery200ms)
{
    ztModuleProxyServer host;
    ASSERT_EQ(host.init("127.0.0.1"), 0);
    int value = 0;
    const auto t = Clock::now();
    EXPECT_EQ(host.sendTrigger(), -1);
    EXPECT_EQ(host.getVentoInfo(&value), -1);
    EXPECT_EQ(host.sendDeviceOnlineRep(), -1);
    EXPECT_LT(msSince(t), 500);
    // Only the command port answers: each round connects it, fails on the data port and
    // drops both, so the command port sees a new connection every 200 ms.
    RawListener cmd;
    ASSERT_TRUE(cmd.listen(9479));
    RawConnection c;
    ASSERT_TRUE(cmd.accept(c, 1000));
    const auto first = Clock::now();
    for (int i = 0; i < 4; ++i) {
        EXPECT_TRUE(c.peerClosed(1000)); // dropped again in the same round
        ASSERT_TRUE(cmd.accept(c, 1000));
    }
    EXPECT_GE(msSince(first), 4 * 200 - 40);
    EXPECT_LT(msSince(first), 4 * 200 + 400);
}

// Records the notifications the host's callback receives; on device state 7 the callback
// makes a request, on state 8 it stops the host, both from the host's own thread.
struct Notes {
    DataCalls calls;
    ztModuleProxyServer* host = nullptr;
    std::atomic<int> requestResult{99};
    std::string version;
    static void cb(int code, char* data, int length, void* user)
    {
        auto* self = static_cast<Notes*>(user);
        const int state = code == 0x40000 && length == 8 ? data[4] : 0;
        if (state == 7)
            self->requestResult = self->host->getFirmwareVersion(self->version);
        if (state == 8)
            self->host->deInit();
        DataCalls::cb(code, data, length, &self->calls);
    }
};

TEST(HostSession, NotificationsInOrderAndCallbacksThatCallBack)
{
    LogCapture log;
    ModuleSession s;
    Notes notes;
    notes.host = &s.host;
    s.host.registerModuleServerDataCB(&Notes::cb, &notes);
    ASSERT_TRUE(s.start());

    // Every notification the module sends, in order, as the host's callback receives it.
    ztModuleProxyClient& m = s.module.client();
    unsigned char frame[] = {1, 2, 3, 4}, cal[] = {7, 7};
    lp::_ZT_LP_CONNECT_INFO_ pen{};
    std::strcpy(pen.serial, "LP-1");
    lp::_LIGHTPEN_WARN_INFO_ warn{};
    warn.reason = 3;
    const std::vector<std::tuple<std::function<int()>, int, Bytes>> rows = {
        {[&] { return m.registerModule("scanner-A"); }, 0x10000, Bytes().text("scanner-A")},
        {[&] { return m.sendDeviceOn("head", {3, 4}); }, 0x30000, Bytes().u32(4).text("head").u32(2).i32(3).i32(4)},
        {[&] { return m.sendDeviceOff(std::string(300, 'n')); }, 0x30001, Bytes().u8(44).text(std::string(300, 'n'))},
        {[&] { return m.sendDeviceStatChanged(2, 7); }, 0x40000, Bytes().i32(2).i32(7)},
        {[&] { return m.sendDeviceData(0x0102030405060708ull, 9, frame, 4, -1); }, 0x40001,
         Bytes().u64(0x0102030405060708ull).i32(9).i32(-1).u32(4).raw(frame, 4)},
        {[&] { return m.sendDeviceButton('a', 'b'); }, 0x40002, Bytes().text("ab")},
        {[&] { return m.sendScanEventRsp(1, 2, {'x', 'y'}); }, 0x40004, Bytes().i32(1).i32(2).i32(2).text("xy")},
        {[&] { return m.sendLPPairingInfo("pair", 6); }, 0x40005, Bytes().i32(6).i32(4).text("pair")},
        {[&] { return m.sendLPRequestList({pen, pen}); }, 0x40006, Bytes().u32(2).u32(48).zeros(16).raw(&pen, 48).raw(&pen, 48)},
        {[&] { return m.sendLPOfflineWarn(warn); }, 0x40007, Bytes().raw(&warn, 68)},
        {[&] { return m.sendBarCalibFile("bar", "/b", cal, 2); }, 0x50000, Bytes().u32(3).text("bar").u32(2).text("/b").u32(2).raw(cal, 2)},
        {[&] { return m.sendLPCalibFile("lp", "/l", cal, 2); }, 0x50001, Bytes().u32(2).text("lp").u32(2).text("/l").u32(2).raw(cal, 2)},
        {[&] { return m.sendDeviceOpenFailRet(-5); }, 0x60001, Bytes().i32(-5)},
        {[&] { return m.unregisterModule(); }, 0x10001, {}},
    };
    std::vector<std::pair<int, std::string>> expected;
    for (const auto& [send, code, payload] : rows) {
        EXPECT_EQ(send(), 0);
        expected.emplace_back(code, payload.str());
    }
    notes.calls.waitCount(0x10001, 1, 5000); // the last one
    EXPECT_EQ(notes.calls.all(), expected);
    // The request the callback made on state 7 had its reply.
    EXPECT_EQ(notes.requestResult, 0);
    EXPECT_EQ(notes.version, "ZT-MOD 2.4.1");

    // deInit from the callback: the thread ends by itself; a new init registers again. A
    // notification that arrives while the callback stops the host is still taken by the
    // receive thread, which deInit waits for. (The callback records state 8 once its
    // deInit has returned.)
    ASSERT_EQ(m.sendDeviceStatChanged(1, 8), 0);
    m.sendDeviceStatChanged(1, 9);
    ASSERT_GE(notes.calls.waitCount(0x40000, 2, 3000), 2u);
    EXPECT_FALSE(s.host.isRegistered());
    EXPECT_EQ(log.count("ztModuleProxyServer: stopped from its own thread; the thread ends by itself\n"), 1);
    ASSERT_EQ(s.host.init("127.0.0.1"), 0);
    EXPECT_TRUE(s.host.waitRegistered(5000));
}

// A module played from the wire format: answers the register, then whatever the test says.
struct RawModule {
    RawListener cmdListener, dataListener;
    RawConnection cmd, data;
    ztModuleProxyServer host;
    LogCapture log;
    // Takes the host's pair of connections and answers its register request.
    bool start()
    {
        ProxyMessage m;
        const std::int32_t ok = 1;
        return cmdListener.listen(9479) && dataListener.listen(11300) && host.init("127.0.0.1") == 0 &&
               cmdListener.accept(cmd, 3000) && dataListener.accept(data, 3000) && cmd.readMessage(m, 4000) &&
               m.type == 3 && m.subType == 1 && cmd.sendBytes(proxyMessage(4, 1, &ok, 4)) && host.waitRegistered(3000);
    }
    // call's result, while the next request (of sub type sub) is answered with reply.
    template <class Call>
    int exchange(std::uint32_t sub, const std::vector<char>& reply, Call call)
    {
        std::atomic<int> result{99};
        std::thread t([&] { result = call(); });
        ProxyMessage m;
        EXPECT_TRUE(cmd.readMessage(m, 3000) && m.subType == sub && cmd.sendBytes(reply)) << std::hex << sub;
        t.join();
        return result;
    }
    ~RawModule()
    {
        // The data receive ends once the module's end closes.
        data.close();
        host.deInit();
    }
};

TEST(HostSession, RepliesAreCheckedForMagicTypeSubTypeLengthStatusAndStaleness)
{
    RawModule m;
    Notes notes;
    m.host.registerModuleServerDataCB(&Notes::cb, &notes);
    ASSERT_TRUE(m.start());
    ztModuleProxyServer& host = m.host;
    auto trigger = [&] { return host.sendTrigger(); };
    const std::int32_t ok = 1, bad = -1;
    auto badMagic = proxyMessage(4, 0x10005, &ok, 4);
    badMagic[0] = 0;
    EXPECT_EQ(m.exchange(0x10005, proxyMessage(4, 0x10005, &ok, 4), trigger), 0);
    EXPECT_EQ(m.exchange(0x10005, proxyMessage(4, 0x10005, &bad, 4), trigger), -1);
    EXPECT_EQ(m.exchange(0x10005, badMagic, trigger), -1);
    EXPECT_EQ(m.exchange(0x10005, proxyMessage(2, 0x10005, &ok, 4), trigger), -1);
    EXPECT_EQ(m.exchange(0x10005, proxyMessage(4, 0x10006, &ok, 4), trigger), -1);
    EXPECT_EQ(m.exchange(0x10005, proxyMessage(4, 0x10005, "\1\0\0\0\0", 5), trigger), -1);
    // An acknowledgement accepts any value; addObjectMP succeeds only on the marker code.
    EXPECT_EQ(m.exchange(0x20004, proxyMessage(4, 0x20004, &bad, 4), [&] { return host.setLightType(1); }), 0);
    EXPECT_EQ(m.exchange(0x30000, proxyMessage(4, 0x30001, &ok, 4), [&] { return host.addObjectMP(nullptr, 0); }), 0);
    // No reply is awaited for a pose; one that comes all the same is taken by the next
    // request, which fails; the one after has its own.
    ProxyMessage req;
    std::int32_t one = 1;
    EXPECT_EQ(host.sendTrackPose(&one, 4), 0);
    ASSERT_TRUE(m.cmd.readMessage(req, 1000) && req.subType == 0x70002 && req.payload == Bytes().i32(1).chars());
    ASSERT_TRUE(m.cmd.sendBytes(proxyMessage(4, 0x70002, &ok, 4)));
    std::thread stale([&] { EXPECT_EQ(host.sendStopDevice(), -1); });
    EXPECT_TRUE(m.cmd.readMessage(req, 3000) && req.subType == 0x10001);
    stale.join();
    EXPECT_EQ(m.exchange(0x10001, proxyMessage(4, 0x10001, &ok, 4), [&] { return host.sendStopDevice(); }), 0);
    // Firmware text: any length above 0 (an empty one, with a byte after it so that it is
    // looked at at once, fails); the three numbers read as zero where missing.
    std::string version = "old";
    auto empty = proxyMessage(4, 0x10013, nullptr, 0);
    empty.push_back('x');
    EXPECT_EQ(m.exchange(0x10013, empty, [&] { return host.getFirmwareVersion(version); }), -1);
    EXPECT_EQ(m.exchange(0x10013, proxyMessage(4, 0x10013, "v9", 2), [&] { return host.getFirmwareVersion(version); }), 0);
    EXPECT_EQ(version, "v9");
    int v[3] = {9, 9, 9};
    const std::int32_t two[2] = {3, 8};
    EXPECT_EQ(m.exchange(0x10014, proxyMessage(4, 0x10014, two, 8), [&] { return host.getFirmwareVersion2(&v[0], &v[1], &v[2]); }), 0);
    EXPECT_EQ(std::vector<int>(v, v + 3), (std::vector<int>{3, 8, 0}));

    // Three notifications in one segment arrive in order; bad ones before them are dropped.
    auto wrongMagic = proxyMessage(1, 0x40011, nullptr, 0);
    wrongMagic[1] = 0x11;
    std::vector<char> segment = wrongMagic;
    for (const auto& note : {proxyMessage(4, 0x40010, nullptr, 0), proxyMessage(1, 0x40000, "a", 1),
                             proxyMessage(1, 0x40001, "bb", 2), proxyMessage(1, 0x40002, nullptr, 0)})
        segment.insert(segment.end(), note.begin(), note.end());
    ASSERT_TRUE(m.data.sendBytes(segment));
    notes.calls.waitCount(0x40002, 1, 5000);
    EXPECT_EQ(notes.calls.all(), (std::vector<std::pair<int, std::string>>{{0x40000, "a"}, {0x40001, "bb"}, {0x40002, ""}}));

    // Answers go out on the data channel with their sub types and payloads.
    const std::vector<std::tuple<std::function<int()>, std::uint32_t, Bytes>> answers = {
        {[&] { return host.sendSETFileSizeRep(1234); }, 0x20002, Bytes().u32(1234)},
        {[&] { return host.sendEnumSETFileRep({"a.set", "bb.set"}); }, 0x20000, Bytes().i32(2).i32(5).i32(6).text("a.setbb.set")},
        {[&] { return host.sendDeviceOnlineRep(); }, 0x30000, {}}};
    for (const auto& [send, sub, payload] : answers) {
        ProxyMessage got;
        EXPECT_EQ(send(), 0);
        ASSERT_TRUE(m.data.readMessage(got, 1000));
        EXPECT_EQ(std::make_tuple(got.type, got.subType, got.payload), std::make_tuple(2, sub, payload.chars()));
    }

    // The module's command end is gone: exchanges fail, trigger and period log under their
    // names (a pose, awaiting no reply, has the connection reset first).
    m.cmd.close();
    EXPECT_EQ(host.sendTrackPose(&one, 4), 0);
    EXPECT_EQ(host.sendTrigger(), -1);
    EXPECT_EQ(host.setPeriod(5), -1);
    EXPECT_EQ(m.log.count("ztModuleProxyServer [sendTrigger] zmq_send failed!\r\n"), 1);
    EXPECT_EQ(m.log.count("ztModuleProxyServer [sendPeriod] zmq_send failed!\r\n"), 1);
}

} // namespace
