// The host's session with a module: connecting, retrying, registering again after the
// module restarts, stale replies, notifications, and the reply checks against a raw
// module written from the wire format alone.
#include "host_peer.h"
#include "support/log_capture.h"
#include "support/module_session.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <mutex>
#include <thread>

using zt::test::Bytes;
using zt::test::LogCapture;
using zt::test::ModuleSession;
using zt::tools::ProxyMessage;
using zt::tools::proxyMessage;
using zt::tools::RawConnection;
using zt::tools::RawListener;

namespace {

using Clock = std::chrono::steady_clock;

TEST(HostSession, WithoutAModuleRequestsFailAndConnectingGoesOnEvery200ms)
{
    ztModuleProxyServer host;
    ASSERT_EQ(host.init("127.0.0.1"), 0);
    int value = 0;
    const auto t = Clock::now();
    EXPECT_EQ(host.sendTrigger(), -1);
    EXPECT_EQ(host.getVentoInfo(&value), -1);
    EXPECT_EQ(host.sendTrackPose(&value, 4), -1);
    EXPECT_EQ(host.sendDeviceOnlineRep(), -1);
    EXPECT_LT(Clock::now() - t, std::chrono::milliseconds(500));
    EXPECT_EQ(host.getDataPort(), 0);
    _ZT_DEVICE_STATUS_ status = ZT_DEVICE_STATUS_ERROR;
    EXPECT_EQ(host.getState(&status), 0);
    EXPECT_EQ(status, ZT_DEVICE_STATUS_ERROR);

    // Only the command port answers: each round connects it, fails on the data port and
    // drops both, so the command port sees a new connection every 200 ms.
    RawListener cmd;
    ASSERT_TRUE(cmd.listen(9479));
    int accepted = 0;
    const auto start = Clock::now();
    while (Clock::now() - start < std::chrono::milliseconds(1100)) {
        RawConnection c;
        if (cmd.accept(c, 100)) {
            ++accepted;
            EXPECT_TRUE(c.peerClosed(1000)); // dropped again in the same round
        }
    }
    EXPECT_GE(accepted, 4);
    EXPECT_LE(accepted, 7);
    host.deInit();
}

TEST(HostSession, ModuleRestartIsRecoveredThroughAFailingHeartbeat)
{
    LogCapture log;
    auto s = std::make_unique<ModuleSession>();
    ASSERT_TRUE(s->start());
    _ZT_HEARTBEAT_INFO_ hb{};
    ASSERT_EQ(s->host.heartbeat(&hb), 0);

    // The module goes away and a new one listens on the same ports.
    s->module.stop();
    ztSimModule second;
    ASSERT_EQ(second.start(), 0);
    hb.deviceCount = 42;
    EXPECT_EQ(s->host.heartbeat(&hb), -1);
    EXPECT_EQ(hb.deviceCount, 42);
    EXPECT_GE(log.count("req-send failed: nret:-1"), 1);
    const auto failedAt = Clock::now();

    // The next round rebuilds both channels and registers again after 2000 ms.
    ztSimModule::Request r;
    ASSERT_TRUE(second.nextRequest(r, 5000));
    EXPECT_EQ(r.code, 1);
    EXPECT_GE(Clock::now() - failedAt, std::chrono::milliseconds(1900));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(s->host.heartbeat(&hb), 0);
    EXPECT_EQ(hb.deviceCount, 1);
    second.stop();
    s->host.deInit();
}

// A host whose data callback calls back into it on its processing thread: a request on
// one notification, deInit on the next; then a new init registers again.
struct HostCallingBack {
    ModuleSession s;
    std::atomic<int> requestResult{99};
    std::atomic<bool> stopped{false};
    std::string version;
    static void cb(int code, char*, int, void* user)
    {
        auto* self = static_cast<HostCallingBack*>(user);
        if (code != 0x40000)
            return;
        if (self->requestResult == 99)
            self->requestResult = self->s.host.getFirmwareVersion(self->version);
        else if (!self->stopped) {
            self->s.host.deInit();
            self->stopped = true;
        }
    }
};

TEST(HostSession, CallbacksMayRequestAndStopTheHost)
{
    LogCapture log;
    HostCallingBack c;
    c.s.host.registerModuleServerDataCB(&HostCallingBack::cb, &c);
    ASSERT_TRUE(c.s.start());
    ASSERT_EQ(c.s.module.client().sendDeviceStatChanged(1, 2), 0);
    for (int i = 0; i < 300 && c.requestResult == 99; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_EQ(c.requestResult, 0);
    EXPECT_EQ(c.version, "ZT-MOD 2.4.1");

    ASSERT_EQ(c.s.module.client().sendDeviceStatChanged(1, 3), 0);
    for (int i = 0; i < 300 && !c.stopped; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    ASSERT_TRUE(c.stopped);
    EXPECT_FALSE(c.s.host.isRegistered());
    EXPECT_EQ(log.count("ztModuleProxyServer: stopped from its own thread; the thread ends by itself\n"), 1);

    ASSERT_EQ(c.s.host.init("127.0.0.1"), 0);
    EXPECT_TRUE(c.s.host.waitRegistered(5000));
}

TEST(HostSession, StaleReplyFailsTheNextRequestOnce)
{
    ModuleSession s;
    ASSERT_TRUE(s.start());
    unsigned char pose[24] = {1, 2, 3};
    // No reply is awaited, but the module answers all the same.
    EXPECT_EQ(s.host.sendTrackPose(pose, sizeof pose), 0);
    ztSimModule::Request r;
    ASSERT_TRUE(s.module.nextRequest(r, 1000));
    EXPECT_EQ(r.code, 0x70002);
    EXPECT_EQ(r.payload.size(), sizeof pose);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(s.host.sendStopDevice(), -1); // takes the pose's reply
    EXPECT_EQ(s.host.sendStopDevice(), 0);
    EXPECT_EQ(s.host.sendStartDevice(ZT_WORK_SCAN), 0);
}

// Records notifications as the host's callback receives them.
struct Notes {
    std::mutex mutex;
    std::vector<std::pair<int, std::vector<char>>> seen;
    ztModuleProxyServer* host = nullptr;
    static void onNote(int code, char* data, int length, void* user)
    {
        auto* self = static_cast<Notes*>(user);
        std::lock_guard<std::mutex> lock(self->mutex);
        self->seen.emplace_back(code, std::vector<char>(data, data + length));
    }
    std::size_t count()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return seen.size();
    }
    bool waitFor(std::size_t n, int ms)
    {
        for (int i = 0; i < ms / 5 && count() < n; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        return count() >= n;
    }
};

TEST(HostSession, NotificationsReachTheCallbackInOrder)
{
    ModuleSession s;
    Notes notes;
    s.host.registerModuleServerDataCB(&Notes::onNote, &notes);
    ASSERT_TRUE(s.start());
    s.module.client().registerModule("scanner-A");
    s.module.client().sendDeviceOn("head", {3, 4});
    s.module.client().sendDeviceOff(std::string(300, 'n'));
    s.module.client().sendDeviceStatChanged(2, 5);
    const unsigned char frame[] = {1, 2, 3, 4};
    EXPECT_EQ(s.module.client().sendDeviceData(0x0102030405060708ull, 9, frame, 4, -1), 0);
    s.module.client().sendDeviceButton('a', 'b');
    s.module.client().sendScanEventRsp(1, 2, {'x', 'y'});
    s.module.client().sendLPPairingInfo("pair", 6);
    lp::_ZT_LP_CONNECT_INFO_ pen{};
    std::strcpy(pen.serial, "LP-1");
    pen.id = 11;
    s.module.client().sendLPRequestList({pen, pen});
    lp::_LIGHTPEN_WARN_INFO_ warn{};
    warn.reason = 3;
    s.module.client().sendLPOfflineWarn(warn);
    unsigned char cal[] = {7, 7};
    s.module.client().sendBarCalibFile("bar", "/b", cal, 2);
    s.module.client().sendLPCalibFile("lp", "/l", cal, 2);
    s.module.client().sendDeviceOpenFailRet(-5);
    s.module.client().unregisterModule();
    ASSERT_TRUE(notes.waitFor(14, 3000)) << notes.count();

    std::lock_guard<std::mutex> lock(notes.mutex);
    const std::vector<std::pair<int, std::vector<char>>> expected = {
        {0x10000, Bytes().text("scanner-A").chars()},
        {0x30000, Bytes().u32(4).text("head").u32(2).i32(3).i32(4).chars()},
        {0x30001, Bytes().u8(44).text(std::string(300, 'n')).chars()}, // 300 mod 256
        {0x40000, Bytes().i32(2).i32(5).chars()},
        {0x40001, Bytes().u64(0x0102030405060708ull).i32(9).i32(-1).u32(4).raw(frame, 4).chars()},
        {0x40002, Bytes().text("ab").chars()},
        {0x40004, Bytes().i32(1).i32(2).i32(2).text("xy").chars()},
        {0x40005, Bytes().i32(6).i32(4).text("pair").chars()},
        {0x40006, Bytes().u32(2).u32(48).zeros(16).raw(&pen, 48).raw(&pen, 48).chars()},
        {0x40007, Bytes().raw(&warn, 68).chars()},
        {0x50000, Bytes().u32(3).text("bar").u32(2).text("/b").u32(2).raw(cal, 2).chars()},
        {0x50001, Bytes().u32(2).text("lp").u32(2).text("/l").u32(2).raw(cal, 2).chars()},
        {0x60001, Bytes().i32(-5).chars()},
        {0x10001, {}},
    };
    ASSERT_EQ(notes.seen.size(), expected.size());
    for (std::size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(notes.seen[i].first, expected[i].first) << "note " << i;
        EXPECT_EQ(notes.seen[i].second, expected[i].second) << "note " << i;
    }
}

// A module played from the wire format: listens on both ports, answers the register and
// then whatever the test says.
struct RawModule {
    RawListener cmdListener, dataListener;
    RawConnection cmd, data;
    ztModuleProxyServer* host = nullptr;
    bool accept(ztModuleProxyServer& h)
    {
        host = &h;
        if (!cmdListener.listen(9479) || !dataListener.listen(11300) || h.init("127.0.0.1") != 0)
            return false;
        return acceptAgain();
    }
    // Takes the host's next pair of connections and answers its register request.
    bool acceptAgain()
    {
        if (!cmdListener.accept(cmd, 3000) || !dataListener.accept(data, 3000))
            return false;
        ProxyMessage m;
        if (!cmd.readMessage(m, 4000) || m.type != 3 || m.subType != 1)
            return false;
        const std::int32_t ok = 1;
        if (!cmd.sendBytes(proxyMessage(4, 1, &ok, 4)))
            return false;
        // The register exchange runs outside the command mutex: a request sent before the
        // host has taken this reply would race it for the replies on the channel.
        return host->waitRegistered(3000);
    }
    // Waits for the next request and answers it with the given message bytes.
    bool answer(std::uint32_t expectSub, const std::vector<char>& reply)
    {
        ProxyMessage m;
        if (!cmd.readMessage(m, 3000) || m.subType != expectSub)
            return false;
        return cmd.sendBytes(reply);
    }
};

// Runs call on a thread of its own while the raw module answers the request with reply.
template <class Call>
int exchange(RawModule& m, std::uint32_t sub, const std::vector<char>& reply, Call&& call)
{
    std::atomic<int> result{99};
    std::thread t([&] { result = call(); });
    EXPECT_TRUE(m.answer(sub, reply)) << std::hex << sub;
    t.join();
    return result.load();
}

TEST(HostSession, RepliesAreCheckedForMagicTypeSubTypeLengthAndStatus)
{
    LogCapture log;
    ztModuleProxyServer host;
    Notes notes;
    host.registerModuleServerDataCB(&Notes::onNote, &notes);
    RawModule m;
    ASSERT_TRUE(m.accept(host));
    auto run = [&](std::uint32_t sub, const std::vector<char>& reply, auto&& call) { return exchange(m, sub, reply, call); };
    const std::int32_t ok = 1, bad = -1;
    auto badMagic = proxyMessage(4, 0x10005, &ok, 4);
    badMagic[0] = 0;
    EXPECT_EQ(run(0x10005, proxyMessage(4, 0x10005, &ok, 4), [&] { return host.sendTrigger(); }), 0);
    EXPECT_EQ(run(0x10005, proxyMessage(4, 0x10005, &bad, 4), [&] { return host.sendTrigger(); }), -1);
    EXPECT_EQ(run(0x10005, badMagic, [&] { return host.sendTrigger(); }), -1);
    EXPECT_EQ(run(0x10005, proxyMessage(2, 0x10005, &ok, 4), [&] { return host.sendTrigger(); }), -1);
    EXPECT_EQ(run(0x10005, proxyMessage(4, 0x10006, &ok, 4), [&] { return host.sendTrigger(); }), -1);
    EXPECT_EQ(run(0x10005, proxyMessage(4, 0x10005, "\1\0\0\0\0", 5), [&] { return host.sendTrigger(); }), -1);
    // An acknowledgement accepts any value.
    EXPECT_EQ(run(0x20004, proxyMessage(4, 0x20004, &bad, 4), [&] { return host.setLightType(1); }), 0);
    // addObjectMP succeeds only on the marker code.
    EXPECT_EQ(run(0x30000, proxyMessage(4, 0x30001, &ok, 4), [&] { return host.addObjectMP(nullptr, 0); }), 0);
    // A bare header is never taken as a reply, even with the right codes.
    EXPECT_EQ(run(0x10001, proxyMessage(4, 0x10001, nullptr, 0), [&] { return host.sendStopDevice(); }), -1);

    // Firmware text: any length above 0; the three numbers read as zero where missing.
    int a = 9, b = 9, c = 9;
    std::int32_t two[2] = {3, 8};
    EXPECT_EQ(run(0x10014, proxyMessage(4, 0x10014, two, 8), [&] { return host.getFirmwareVersion2(&a, &b, &c); }), 0);
    EXPECT_EQ(a, 3);
    EXPECT_EQ(b, 8);
    EXPECT_EQ(c, 0);
    std::string version = "old";
    EXPECT_EQ(run(0x10013, proxyMessage(4, 0x10013, "v9", 2), [&] { return host.getFirmwareVersion(version); }), 0);
    EXPECT_EQ(version, "v9");

    // The failure logs of trigger and period name their methods.
    EXPECT_EQ(log.count("ztModuleProxyServer [sendTrigger] zmq_send failed!\r\n"), 0);
    m.cmd.close(); // the module's command end is gone: exchanges fail
    EXPECT_EQ(host.sendTrigger(), -1);
    EXPECT_EQ(host.setPeriod(5), -1);
    EXPECT_EQ(log.count("ztModuleProxyServer [sendTrigger] zmq_send failed!\r\n"), 1);
    EXPECT_EQ(log.count("ztModuleProxyServer [sendPeriod] zmq_send failed!\r\n"), 1);

    // Three notifications in one segment arrive in order, and bad ones are dropped.
    std::vector<char> segment;
    for (std::int32_t i = 0; i < 3; ++i) {
        auto note = proxyMessage(1, 0x40000 + static_cast<std::uint32_t>(i), &i, 4);
        segment.insert(segment.end(), note.begin(), note.end());
    }
    auto wrongType = proxyMessage(4, 0x40010, nullptr, 0);
    auto wrongMagic = proxyMessage(1, 0x40011, nullptr, 0);
    wrongMagic[1] = 0x11;
    segment.insert(segment.begin(), wrongType.begin(), wrongType.end());
    segment.insert(segment.begin(), wrongMagic.begin(), wrongMagic.end());
    ASSERT_TRUE(m.data.sendBytes(segment));
    ASSERT_TRUE(notes.waitFor(3, 2000));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    {
        std::lock_guard<std::mutex> lock(notes.mutex);
        ASSERT_EQ(notes.seen.size(), 3u);
        for (int i = 0; i < 3; ++i) {
            EXPECT_EQ(notes.seen[i].first, 0x40000 + i);
            EXPECT_EQ(notes.seen[i].second, Bytes().i32(i).chars());
        }
    }

    // Answers go out on the data channel with their sub types and payloads.
    EXPECT_EQ(host.sendSETFileSizeRep(1234), 0);
    EXPECT_EQ(host.sendEnumSETFileRep({"a.set", "bb.set"}), 0);
    EXPECT_EQ(host.sendDeviceOnlineRep(), 0);
    ProxyMessage got;
    ASSERT_TRUE(m.data.readMessage(got, 1000));
    EXPECT_EQ(got.type, 2);
    EXPECT_EQ(got.subType, 0x20002u);
    EXPECT_EQ(got.payload, Bytes().u32(1234).chars());
    ASSERT_TRUE(m.data.readMessage(got, 1000));
    EXPECT_EQ(got.subType, 0x20000u);
    EXPECT_EQ(got.payload, Bytes().i32(2).i32(5).i32(6).text("a.setbb.set").chars());
    ASSERT_TRUE(m.data.readMessage(got, 1000));
    EXPECT_EQ(got.subType, 0x30000u);
    EXPECT_TRUE(got.payload.empty());

    // The module closes: deInit returns once the data receive sees the end.
    m.data.close();
    host.deInit();
}

TEST(HostSession, HeartbeatTakesExactly920BytesAndReleasesOnFailure)
{
    ztModuleProxyServer host;
    RawModule m;
    ASSERT_TRUE(m.accept(host));
    auto run = [&](std::uint32_t sub, const std::vector<char>& reply, auto&& call) { return exchange(m, sub, reply, call); };
    _ZT_HEARTBEAT_INFO_ hb{};
    hb.deviceCount = 77;
    std::vector<char> record(924, 'h');
    // A failed heartbeat leaves the caller's record alone and rebuilds the session.
    EXPECT_EQ(run(0x10002, proxyMessage(4, 0x10002, record.data(), 916), [&] { return host.heartbeat(&hb); }), -1);
    EXPECT_EQ(hb.deviceCount, 77);
    ASSERT_TRUE(m.acceptAgain());
    EXPECT_EQ(run(0x10002, proxyMessage(4, 0x10002, record.data(), 924), [&] { return host.heartbeat(&hb); }), -1);
    EXPECT_EQ(hb.deviceCount, 77);
    ASSERT_TRUE(m.acceptAgain());
    EXPECT_EQ(run(0x10002, proxyMessage(4, 0x10002, record.data(), 920), [&] { return host.heartbeat(&hb); }), 0);
    EXPECT_EQ(hb.deviceCount, 0x68686868);
    m.data.close();
    host.deInit();
}

TEST(HostSession, FailingVentoInfoReleasesTheSessionAndRegistersAgain)
{
    ztModuleProxyServer host;
    RawModule m;
    ASSERT_TRUE(m.accept(host));
    int info = 0;
    std::thread t([&] { EXPECT_EQ(host.getVentoInfo(&info), -1); });
    const std::int32_t v = 3;
    ASSERT_TRUE(m.answer(0x10017, proxyMessage(4, 0x10017, &v, 2))); // too short
    t.join();
    EXPECT_EQ(info, 0);
    // The release closes both channels; new ones follow and register again.
    EXPECT_TRUE(m.cmd.peerClosed(1000));
    EXPECT_TRUE(m.data.peerClosed(1000));
    RawConnection cmd2, data2;
    ASSERT_TRUE(m.cmdListener.accept(cmd2, 2000));
    ASSERT_TRUE(m.dataListener.accept(data2, 2000));
    ProxyMessage reg;
    ASSERT_TRUE(cmd2.readMessage(reg, 3000));
    EXPECT_EQ(reg.subType, 1u);
    data2.close();
    host.deInit();
}

TEST(HostSession, FloodsHugeLengthsAndHalfMessagesFromTheModule)
{
    ztModuleProxyServer host;
    Notes notes;
    host.registerModuleServerDataCB(&Notes::onNote, &notes);
    RawModule m;
    ASSERT_TRUE(m.accept(host));

    // A flood of notifications, written in large chunks: every one arrives, in order.
    constexpr int kCount = 20000;
    std::vector<char> flood;
    for (std::int32_t i = 0; i < kCount; ++i) {
        auto note = proxyMessage(1, 0x40001, &i, 4);
        flood.insert(flood.end(), note.begin(), note.end());
    }
    ASSERT_TRUE(m.data.sendBytes(flood));
    ASSERT_TRUE(notes.waitFor(kCount, 10000)) << notes.count();
    {
        std::lock_guard<std::mutex> lock(notes.mutex);
        for (std::int32_t i = 0; i < kCount; ++i) {
            std::int32_t v = -1;
            std::memcpy(&v, notes.seen[static_cast<std::size_t>(i)].second.data(), 4);
            ASSERT_EQ(v, i);
        }
        notes.seen.clear();
    }

    // A notification that declares 2 GiB is waited for, never delivered, and what follows
    // it is part of it; half a message and a closed connection change nothing.
    auto huge = proxyMessage(1, 0x40002, nullptr, 0);
    const std::int32_t length = 0x7FFFFFF0;
    std::memcpy(huge.data() + 12, &length, 4);
    ASSERT_TRUE(m.data.sendBytes(huge));
    const std::string block(1 << 20, 'x');
    for (int i = 0; i < 8; ++i)
        ASSERT_TRUE(m.data.sendBytes(block.data(), block.size()));
    const auto half = proxyMessage(1, 0x40003, "abc", 3);
    ASSERT_TRUE(m.data.sendBytes(half.data(), 10));
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_EQ(notes.count(), 0u);
    m.data.close();
    m.cmd.close();
    // Requests on the dead command channel fail; deInit returns.
    EXPECT_EQ(host.sendStopDevice(), -1);
    host.deInit();
}

// What a misbehaving module or caller must not do to a session: a notification cut off by
// a lost connection, one larger than any the proxy carries, arguments that cannot be sent,
// and a request that the module stops taking half-way.
TEST(HostSession, CutOffAndOversizeNotificationsRefusedArgumentsAndAShortSend)
{
    LogCapture log;
    ztModuleProxyServer host;
    Notes notes;
    host.registerModuleServerDataCB(&Notes::onNote, &notes);
    EXPECT_FALSE(host.isRegistered());
    RawModule m;
    ASSERT_TRUE(m.accept(host));
    EXPECT_TRUE(host.isRegistered());

    // 400 bytes of a 1016-byte notification, then the connection is lost and made anew:
    // the next notifications arrive whole.
    const std::string body(1000, 'n');
    const auto cut = proxyMessage(1, 0x40001, body.data(), static_cast<int>(body.size()));
    ASSERT_TRUE(m.data.sendBytes(cut.data(), 400));
    std::this_thread::sleep_for(std::chrono::milliseconds(50)); // read by the host's 1 ms receive loop
    m.cmd.close();
    m.data.close();
    host.releaseClientSignal();
    ASSERT_TRUE(m.acceptAgain());
    EXPECT_EQ(log.count("ztModuleProxyServer: 400 bytes of a message cut off by a lost connection discarded\n"), 1);
    // One larger than the 200 MiB a notification may have is skipped as it comes.
    auto oversize = proxyMessage(1, 0x40002, nullptr, 0);
    const std::int32_t length = 0xC800001;
    std::memcpy(oversize.data() + 12, &length, 4);
    ASSERT_TRUE(m.data.sendBytes(oversize));
    const std::string block(1 << 20, 'x');
    for (std::int32_t left = length; left > 0; left -= static_cast<std::int32_t>(block.size()))
        ASSERT_TRUE(m.data.sendBytes(block.data(), std::min<std::size_t>(block.size(), static_cast<std::size_t>(left))));
    for (std::int32_t i = 0; i < 5; ++i)
        ASSERT_TRUE(m.data.sendBytes(proxyMessage(1, 0x40003, &i, 4)));
    ASSERT_TRUE(notes.waitFor(5, 5000));
    EXPECT_EQ(notes.count(), 5u);
    EXPECT_EQ(log.count("proxy message of 209715217 bytes is larger than any this stream carries (209715216): dropped\n"), 1);

    // Arguments that cannot be sent: -1, a line naming the method, nothing on the wire.
    char bytes[8] = {};
    EXPECT_EQ(host.addObjectMP(nullptr, 10), -1);
    EXPECT_EQ(host.setScannerClbFile("n", "p", nullptr, 3), -1);
    EXPECT_EQ(host.sendTrackPose(nullptr, 5), -1);
    EXPECT_EQ(host.sendCurrent2WorldPose(bytes, 0x80000000u), -1);
    EXPECT_EQ(log.count("ztModuleProxyServer::[addObjectMP] no data for a length above 0, nothing sent\n"), 1);
    EXPECT_EQ(log.count("ztModuleProxyServer::[sendTrackPose] no data for a length above 0, nothing sent\n"), 1);
    EXPECT_EQ(log.count("ztModuleProxyServer::[sendCurrent2WorldPose] a payload of 2 GiB or more, nothing sent\n"), 1);
    EXPECT_TRUE(m.cmd.readFor(100).empty());

    // A request that the module stops taking half-way fails at the send time-out, and the
    // session is made anew rather than leaving the rest of it to be read as the next one.
    const std::vector<char> big(64 << 20, 'b');
    const auto t = Clock::now();
    EXPECT_EQ(host.addObjectMP(const_cast<char*>(big.data()), static_cast<unsigned int>(big.size())), -1);
    EXPECT_LT(Clock::now() - t, std::chrono::milliseconds(5000)); // its 2 s send time-out, not the 4 s reply wait after it
    EXPECT_TRUE(log.waitFor("the connection is shut down", 0));
    EXPECT_TRUE(m.cmd.peerClosed(3000));
    ASSERT_TRUE(m.acceptAgain());
    host.deInit();
    EXPECT_FALSE(host.isRegistered());
}

} // namespace
