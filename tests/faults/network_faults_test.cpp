// Faults of the network head while the link is busy: a head that accepts and never answers,
// garbage inside a stream while commands run, and a head that restarts.
#include "network/online.h"
#include "support/log_capture.h"

using namespace zt::test;

namespace {

// Allowance for a loaded machine on top of a nominal duration.
constexpr long kSlackMs = 3000;
constexpr long kReplyWindowMs = 5000;

// deInit: the release pause of 500 ms and a worker round or two.
void expectPromptDeInit(ztEmbeddedModuleProxyServer& server)
{
    const auto t0 = Clock::now();
    server.deInit();
    EXPECT_LT(msSince(t0), 1000 + kSlackMs);
    EXPECT_FALSE(server.isConnected());
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
    auto& versions = traffic.add([&] { return o.server.getRKProgramVersion(&v[0], &v[1], &v[2], &v[3]) == 0; }, 1);
    auto& triggers = traffic.add([&] { return o.server.sendTrigger() == 0; }, 1);

    ASSERT_TRUE(o.head.waitStreamDone(15000));
    EXPECT_EQ(o.seen.waitCount(1281, units, 3000), units); // the last packet of each unit
    EXPECT_TRUE(traffic.flowing(11, 5000));
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

TEST(NetworkFaults, HeadRestartThenInitAgainAndANewServer)
{
    LogCapture log;
    Online o;
    const auto unit = streamPacket();
    o.start();
    o.head.startStream(Head::Data, unit, 0, 300000);
    ASSERT_GE(o.seen.waitCount(1280, 10, 3000), 10u);
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
