// Faults of the network head while the link is busy: a connection closed mid-stream, a head
// that accepts and never answers, garbage inside a stream, replies that come too late, and a
// head that restarts. Each scenario runs with the data stream flowing and commands in flight.
#include "network/online.h"
#include "support/log_capture.h"

#include <future>

using namespace zt::test;

namespace {

// Allowance for a loaded machine on top of a nominal duration.
constexpr long kSlackMs = 3000;
constexpr long kReplyWindowMs = 5000;
const char* const kTriggerFailed = "ztEmbeddedModuleProxyServer [sendTrigger] zmq_send failed!\r\n";

// A trigger sent on a thread of its own; expectTimedOut then checks that it got no reply:
// -1 after its 5 s window, not earlier.
std::future<long> triggerInFlight(ztEmbeddedModuleProxyServer& server)
{
    return std::async(std::launch::async, [&server] {
        const auto t0 = Clock::now();
        return server.sendTrigger() == -1 ? msSince(t0) : -1;
    });
}

void expectTimedOut(std::future<long>& command)
{
    const long took = command.get();
    EXPECT_GE(took, 4900);
    EXPECT_LT(took, kReplyWindowMs + kSlackMs);
}

// Online, with a stream of unit flowing.
void streaming(Online& o, const std::vector<char>& unit)
{
    o.start();
    o.head.startStream(Head::Data, unit, 0, 300000);
    ASSERT_GE(o.seen.waitCount(1280, 10, 3000), 10u);
}

int programVersion(ztEmbeddedModuleProxyServer& server, int* v)
{
    return server.getRKProgramVersion(&v[0], &v[1], &v[2], &v[3]);
}

// deInit: the release pause of 500 ms and a worker round or two.
void expectPromptDeInit(ztEmbeddedModuleProxyServer& server)
{
    const auto t0 = Clock::now();
    server.deInit();
    EXPECT_LT(msSince(t0), 1000 + kSlackMs);
    EXPECT_FALSE(server.isConnected());
}

// Only the heartbeat on the command-data connection decides that the head is gone: closing
// the data and light-pen connections, then the command connection with a command in
// flight, leaves the stream's delivered units, the other commands and the head online.
TEST(NetworkFaults, DataLightPenOrCommandConnectionClosedLeavesTheRestWorking)
{
    LogCapture log;
    Online o;
    const auto unit = streamPacket();
    streaming(o, unit);
    o.head.sendBytes(Head::LightPen, "pen;", 4);
    ASSERT_EQ(o.seen.waitCount(ZT_CODE_LIGHTPEN_DATA, 1, 3000), 1u);
    Traffic traffic;
    auto& triggers = traffic.add([&] { return o.server.sendTrigger() == 0; }, 1);
    const int beatsBefore = o.head.heartbeatsReceived();
    o.head.closeChannel(Head::Data);
    o.head.closeChannel(Head::LightPen);
    // Every unit written whole before the close arrives, nothing after it: the stream
    // waits for a data connection that the host does not open again.
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    const std::size_t units = o.head.streamedBytes() / unit.size();
    EXPECT_EQ(o.seen.waitCount(1280, units, 2000), units);
    // The host learns of the light-pen close from its own sends: the first may still
    // leave, the head's reset fails a later one.
    std::string text = "pen data";
    int sendResult = 0;
    for (int i = 0; i < 3 && sendResult == 0; ++i) {
        sendResult = o.server.sendData(text);
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    EXPECT_EQ(sendResult, -1);
    EXPECT_GE(log.count("ztEmbeddedModuleProxyServer [sendData] zmq_send failed!\r\n"), 1);
    std::string got;
    EXPECT_EQ(o.server.recvOnceData(got), -1);
    traffic.stop();
    EXPECT_GT(triggers.ok, 0);
    EXPECT_EQ(triggers.ok, triggers.calls);

    // The command connection closes under a command: it times out, and so does every
    // later one until a send meets the head's reset and fails at once.
    o.head.clearCommands();
    o.head.setReplyDelay(1000);
    auto first = triggerInFlight(o.server);
    Head::Request r;
    ASSERT_TRUE(o.head.nextCommand(r, 2000));
    EXPECT_EQ(r.type, 13);
    o.head.closeChannel(Head::Command);
    expectTimedOut(first);
    EXPECT_EQ(log.count(kTriggerFailed), 1);
    bool failedAtOnce = false;
    for (int i = 0; i < 3 && !failedAtOnce; ++i) {
        const auto t0 = Clock::now();
        EXPECT_EQ(o.server.sendTrigger(), -1);
        EXPECT_LT(msSince(t0), kReplyWindowMs + kSlackMs);
        failedAtOnce = msSince(t0) < 1000;
    }
    EXPECT_TRUE(failedAtOnce);
    EXPECT_TRUE(log.waitFor("sendn: time = ", 100));

    // All that took longer than the five silent beats that would take the head offline.
    EXPECT_GE(o.head.heartbeatsReceived() - beatsBefore, 5);
    EXPECT_EQ(o.seen.count(1280), units);
    EXPECT_EQ(o.seen.count(ZT_CODE_DEVICE_OFFLINE), 0u);
    EXPECT_EQ(o.seen.count(ZT_CODE_LIGHTPEN_DATA), 1u);
    EXPECT_TRUE(o.server.isConnected());
    for (const auto& p : o.seen.payloads(1280))
        ASSERT_EQ(p, payloadOf(unit));
    // The host still holds all four connections, so init reconnects nothing.
    EXPECT_EQ(o.server.init(kIP, kIP, "SN-F"), 0);
    EXPECT_EQ(o.head.connectionsAccepted(), 4);
    EXPECT_EQ(o.seen.count(ZT_CODE_DEVICE_ONLINE), 1u);
    EXPECT_EQ(o.server.sendTrigger(), -1);
    expectPromptDeInit(o.server);
}

// A head whose heartbeat connection falls silent, or closes, with the stream running and a
// command in flight: offline once, after five missed beats and the 500 ms release; the
// command ends by its own time-out; every connection is closed and nothing more arrives.
TEST(NetworkFaults, SilentOrClosedHeartbeatConnectionTakesTheHeadOfflineOnce)
{
    for (const bool closed : {false, true}) {
        SCOPED_TRACE(closed ? "closed" : "silent");
        LogCapture log;
        Online o;
        streaming(o, streamPacket());
        o.head.setNoReply(13);
        auto pending = triggerInFlight(o.server);
        o.waitForBeat();
        const int before = o.head.heartbeatsReceived();
        const auto t0 = Clock::now();
        if (closed)
            o.head.closeChannel(Head::CommandData);
        else
            o.head.setAnswerHeartbeats(false);

        ASSERT_EQ(o.seen.waitCount(ZT_CODE_DEVICE_OFFLINE, 1, 10000), 1u);
        EXPECT_GE(msSince(t0), closed ? 2400 : 2900);
        EXPECT_LT(msSince(t0), 3000 + kSlackMs);
        EXPECT_FALSE(o.server.isConnected());
        EXPECT_TRUE(log.waitFor("Heartbeat timeout = 127.0.0.1", 1000));
        for (auto c : {Head::Command, Head::Data, Head::CommandData, Head::LightPen})
            EXPECT_TRUE(o.head.waitDisconnected(c, 2000)) << c;
        const std::size_t delivered = o.seen.count(1280);
        const int beats = o.head.heartbeatsReceived() - before;
        EXPECT_TRUE(closed || beats == 5) << beats << " beats unanswered";

        expectTimedOut(pending);
        // Without a command connection a command fails at once and sends nothing.
        o.head.clearCommands();
        const auto c0 = Clock::now();
        EXPECT_EQ(o.server.sendTrigger(), -1);
        EXPECT_LT(msSince(c0), 500);
        Head::Request r;
        EXPECT_FALSE(o.head.nextCommand(r, 200));
        std::this_thread::sleep_for(std::chrono::milliseconds(1000));
        EXPECT_EQ(o.seen.count(ZT_CODE_DEVICE_OFFLINE), 1u);
        EXPECT_EQ(log.count("Heartbeat timeout = 127.0.0.1"), 1);
        EXPECT_EQ(o.head.heartbeatsReceived() - before, beats);
        EXPECT_EQ(o.seen.count(1280), delivered);
        expectPromptDeInit(o.server);
    }
}

// The four connections stand and the heartbeat starts; the ability query gets no reply.
// The heartbeat lapses while it waits (3 s against its 5 s) and releases the connections,
// so the SET file queries then find no command connection; the online callback still
// follows the offline one.
TEST(NetworkFaults, HeadThatAcceptsAndNeverAnswers)
{
    LogCapture log;
    Online o;
    o.head.setSilent(true);
    ASSERT_EQ(o.head.start(), 0);
    o.server.registerModuleServerDataCB(&DataCalls::cb, &o.seen);
    o.head.startStream(Head::Data, streamPacket(), 0, 300000);

    const auto t0 = Clock::now();
    EXPECT_EQ(o.server.init(kIP, kIP, "SN-F"), 0);
    const long took = msSince(t0);
    EXPECT_GE(took, 4900);
    EXPECT_EQ(o.head.connectionsAccepted(), 4);
    EXPECT_EQ(o.seen.order({ZT_CODE_DEVICE_OFFLINE, ZT_CODE_DEVICE_ONLINE}),
              (std::vector<int>{ZT_CODE_DEVICE_OFFLINE, ZT_CODE_DEVICE_ONLINE}));
    EXPECT_FALSE(o.server.isConnected());
    EXPECT_EQ(log.count("ztEmbeddedModuleProxyServer::[getDeviceAbilityInfo] zmq_send failed!"), 1);
    EXPECT_EQ(log.count("Heartbeat timeout = 127.0.0.1"), 1);
    // The ability query came first. On a machine slow enough for the lapse to come after
    // its 5 s, SET file queries follow, each failing by its own window.
    Head::Request r;
    ASSERT_TRUE(o.head.nextCommand(r, 100));
    EXPECT_EQ(r.type, 345);
    int setFileQueries = 0;
    while (o.head.nextCommand(r, 100)) {
        EXPECT_EQ(r.type, 264);
        ++setFileQueries;
    }
    EXPECT_LT(took, (1 + setFileQueries) * kReplyWindowMs + kSlackMs);
    EXPECT_EQ(o.head.heartbeatsReceived(), 5);
    EXPECT_EQ(o.server.getCurDeviceAbilityInfo().productType, 31u);
    // The stream went on while the host listened, and stopped reaching it at the release.
    const std::size_t delivered = o.seen.count(1280);
    EXPECT_GT(delivered, 0u);
    EXPECT_EQ(o.server.sendTrigger(), -1);
    std::this_thread::sleep_for(std::chrono::milliseconds(1000));
    EXPECT_EQ(o.seen.count(ZT_CODE_DEVICE_OFFLINE), 1u);
    EXPECT_EQ(o.seen.count(1280), delivered);
    expectPromptDeInit(o.server);
}

TEST(NetworkFaults, GarbageAndBadTailsInsideAStreamCostOnlyThemselvesWhileCommandsRunSideBySide)
{
    LogCapture log;
    Online o;
    o.start();
    // One unit: a good extended packet, bytes without a tag byte, a packet with a bad tail,
    // a good plain packet, an extended header with a wrong tag (its body is then scanned
    // for a tag byte and skipped), an embedded message of a type the decoder does not
    // take, and a second good extended packet.
    const std::string body(900, 'z'), plainBody(300, 'q');
    std::vector<char> unit;
    for (const auto& part : {Head::extendedPacket(1280, 0x0102, body.data(), body.size()),
                             std::vector<char>{0x01, 0x02, 0x55, 0x66, static_cast<char>(0xBB), 0x00, 0x7F},
                             Head::extendedPacket(1280, 0x0304, body.data(), body.size(), false),
                             Head::plainPacket(513, plainBody.data(), plainBody.size()),
                             Head::extendedPacket(1281, 0x0506, body.data(), body.size(), true, 0x55FF00CC),
                             Head::message(300, "event", 5),
                             Head::extendedPacket(1281, 0x0708, body.data(), body.size())})
        unit.insert(unit.end(), part.begin(), part.end());
    const std::size_t units = 120;
    o.head.startStream(Head::Data, unit, units, 200000);
    // Two callers share the command connection: each gets its own replies.
    int v[4];
    Traffic traffic;
    auto& versions = traffic.add([&] { return programVersion(o.server, v) == 0; }, 1);
    auto& triggers = traffic.add([&] { return o.server.sendTrigger() == 0; }, 1);

    ASSERT_TRUE(o.head.waitStreamDone(15000));
    EXPECT_EQ(o.seen.waitCount(1281, units, 3000), units);
    EXPECT_EQ(o.seen.waitCount(513, units, 1000), units);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    traffic.stop();
    // Exact counts: each good packet once, each bad one logged once and never delivered.
    EXPECT_EQ(o.seen.count(1280), units);
    EXPECT_EQ(o.seen.count(1281), units);
    EXPECT_EQ(o.seen.count(513), units);
    EXPECT_EQ(o.seen.count(300), 0u);
    for (const auto& p : o.seen.payloads(1280))
        ASSERT_EQ(p.substr(57, 8), std::string("\x02\x01\0\0\0\0\0\0", 8));
    EXPECT_EQ(log.count("Decode packet tail error"), static_cast<int>(units));
    EXPECT_EQ(log.count("Packet tail hex dump: 188, msgID: 1280, packLen: 977"), static_cast<int>(units));
    EXPECT_EQ(log.count("Decode packet tag error, tag = 55ff00cc"), static_cast<int>(units));
    EXPECT_GT(versions.ok, 10);
    EXPECT_GT(triggers.ok, 10);
    EXPECT_EQ(versions.ok + triggers.ok, versions.calls + triggers.calls);
    EXPECT_TRUE(o.server.isConnected());
    expectPromptDeInit(o.server);
}

// A reply that comes after its command gave up lies in the command connection; the next
// command takes the first whole message there as its own reply: right if it is of its
// type, a failure (without a failure text) if not.
TEST(NetworkFaults, LateRepliesAreTakenByTheNextCommand)
{
    LogCapture log;
    Online o;
    o.start();
    const std::size_t total = 500;
    o.head.startStream(Head::Data, streamPacket(), total, 150000);
    o.head.setEchoReply(276, Head::valuePayload(0x05060708));
    o.head.setReplyDelay(5600);
    // The head answers each request one after the other; the reply table may change only
    // once it has taken the request the change must not reach.
    const auto headTook = [&](unsigned short type) {
        Head::Request r;
        ASSERT_TRUE(o.head.nextCommand(r, 10000));
        EXPECT_EQ(r.type, type);
    };
    o.head.clearCommands();
    int v[4] = {-1, -1, -1, -1};
    auto t0 = Clock::now();
    EXPECT_EQ(programVersion(o.server, v), -1);
    EXPECT_GE(msSince(t0), 4900);
    EXPECT_EQ(v[0], -1);
    headTook(276);
    // The head answers this one nothing; the late reply arrives while it waits and is
    // taken as its answer, long before its own time-out.
    o.head.setNoReply(276);
    o.head.setReplyDelay(0);
    t0 = Clock::now();
    EXPECT_EQ(programVersion(o.server, v), 0);
    EXPECT_LT(msSince(t0), 2000);
    EXPECT_EQ((std::vector<int>{v[0], v[1], v[2], v[3]}), (std::vector<int>{5, 6, 7, 8}));
    headTook(276);

    // A late status reply answers the version query: a reply of the wrong type fails it
    // at once and writes no values.
    o.head.setStatusReply(13, 0);
    o.head.setReplyDelay(5600);
    EXPECT_EQ(o.server.sendTrigger(), -1);
    EXPECT_EQ(log.count(kTriggerFailed), 1);
    headTook(13);
    o.head.setReplyDelay(0);
    v[0] = -1;
    t0 = Clock::now();
    EXPECT_EQ(programVersion(o.server, v), -1);
    EXPECT_LT(msSince(t0), 2000);
    EXPECT_EQ(v[0], -1);
    headTook(276);
    EXPECT_EQ(log.count("ztEmbeddedModuleProxyServer [getRKProgramVersion] zmq_send failed!\r\n"), 1);

    // Nothing is left behind: the next commands get their own replies, and the stream ran
    // through all of it untouched.
    o.head.resetReplies();
    EXPECT_EQ(programVersion(o.server, v), 0);
    EXPECT_EQ((std::vector<int>{v[0], v[1], v[2], v[3]}), (std::vector<int>{1, 2, 3, 4}));
    EXPECT_EQ(o.server.sendTrigger(), 0);
    ASSERT_TRUE(o.head.waitStreamDone(10000));
    EXPECT_EQ(o.seen.waitCount(1280, total, 3000), total);
    EXPECT_TRUE(o.server.isConnected());
}

TEST(NetworkFaults, HeadRestartThenInitAgainAndANewServer)
{
    LogCapture log;
    Online o;
    const auto unit = streamPacket();
    streaming(o, unit);
    Traffic traffic;
    auto& triggers = traffic.add([&] { return o.server.sendTrigger() == 0; }, 1);
    ASSERT_TRUE(waitUntil(5000, [&] { return triggers.ok > 0; }));

    // The head goes away: every connection closes and the heartbeat lapses once.
    const auto t0 = Clock::now();
    o.head.stop();
    ASSERT_EQ(o.seen.waitCount(ZT_CODE_DEVICE_OFFLINE, 1, 10000), 1u);
    EXPECT_GE(msSince(t0), 2400);
    traffic.stop();
    EXPECT_LT(triggers.ok, triggers.calls);
    EXPECT_FALSE(o.server.isConnected());

    // Back again. init on the same object connects all four and comes online; commands
    // run on the caller's thread and work. The heartbeat thread and the receivers ended
    // with the release and are not started again: no beats reach the head and the stream
    // is not read, so the head is never declared offline again either.
    ASSERT_EQ(o.head.start(), 0);
    o.head.clearCommands();
    o.head.startStream(Head::Data, unit, 0, 300000);
    const std::size_t before = o.seen.count(1280);
    EXPECT_EQ(o.server.init(kIP, kIP, "SN-F"), 0);
    EXPECT_TRUE(o.server.isConnected());
    EXPECT_EQ(o.seen.count(ZT_CODE_DEVICE_ONLINE), 2u);
    Head::Request r;
    ASSERT_TRUE(o.head.nextCommand(r, 1000));
    EXPECT_EQ(r.type, 345);
    EXPECT_EQ(o.server.sendTrigger(), 0);
    const int beats = o.head.heartbeatsReceived();
    std::this_thread::sleep_for(std::chrono::milliseconds(1200));
    EXPECT_EQ(o.head.heartbeatsReceived(), beats);
    EXPECT_EQ(o.seen.count(1280), before);
    EXPECT_EQ(o.seen.count(ZT_CODE_DEVICE_OFFLINE), 1u);
    EXPECT_TRUE(o.server.isConnected());

    // deInit joined the receivers: init on the same object starts them again and the
    // stream is read (the heartbeat thread, which deInit leaves alone, is not restarted);
    // a new server gets working receivers and a heartbeat again.
    ztEmbeddedModuleProxyServer fresh;
    DataCalls seen;
    fresh.registerModuleServerDataCB(&DataCalls::cb, &seen);
    for (auto* s : {&o.server, &fresh}) {
        expectPromptDeInit(o.server);
        for (auto c : {Head::Command, Head::Data, Head::CommandData, Head::LightPen})
            ASSERT_TRUE(o.head.waitDisconnected(c, 2000)) << c;
        ASSERT_EQ(s->init(kIP, kIP, "SN-F"), 0);
        auto& calls = s == &fresh ? seen : o.seen;
        const std::size_t reread = calls.count(1280);
        EXPECT_GE(calls.waitCount(1280, reread + 20, 3000), reread + 20);
        EXPECT_EQ(s->sendTrigger(), 0);
    }
    EXPECT_TRUE(waitUntil(3000, [&] { return o.head.heartbeatsReceived() - beats >= 2; }));
    EXPECT_TRUE(fresh.isConnected());
    EXPECT_EQ(seen.count(ZT_CODE_DEVICE_OFFLINE), 0u);
    expectPromptDeInit(fresh);
}

} // namespace
