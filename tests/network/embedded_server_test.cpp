// ztEmbeddedModuleProxyServer against the simulated network head: coming online over four
// connections, heartbeat and offline, callbacks that call back, the command exchange, and
// the light-pen packets it composes.
#include "host_peer.h"
#include "network/online.h"
#include "support/log_capture.h"

#include <atomic>
#include <functional>

using namespace zt::test;

namespace {

TEST(EmbeddedServer, ComesOnlineOverFourConnectionsInOrderAndBeatsEvery500ms)
{
    LogCapture log(ZTLOG_LEVEL_INFO);
    Online o;
    EXPECT_FALSE(o.server.isConnected());
    EXPECT_EQ(o.server.getCurDeviceAbilityInfo().productType, 31u); // before the head is asked
    o.start();
    for (auto c : {Head::Command, Head::Data, Head::CommandData, Head::LightPen})
        EXPECT_TRUE(o.head.isConnected(c)) << c;
    EXPECT_EQ(o.head.connectionsAccepted(), 4);
    EXPECT_EQ(o.seen.count(ZT_CODE_DEVICE_ONLINE), 1u);
    // The online sequence: the ability record, then SET files 0, 1 and 2, whose replies
    // reach the callback.
    Head::Request r;
    ASSERT_TRUE(o.head.nextCommand(r, 1000));
    EXPECT_EQ(r.type, 345);
    EXPECT_TRUE(r.payload.empty());
    for (std::int32_t i = 0; i < 3; ++i) {
        ASSERT_TRUE(o.head.nextCommand(r, 1000));
        EXPECT_EQ(r.type, 264);
        EXPECT_EQ(r.payload, zt::tools::littleEndian(static_cast<std::uint32_t>(i), 4));
    }
    EXPECT_EQ(o.seen.of(264, 3).size(), 3u);
    const DeviceAbilityInfo ability = o.server.getCurDeviceAbilityInfo();
    EXPECT_EQ(ability.productType, Head::kDefaultProductType);
    EXPECT_EQ(ability.ability5, 5u);
    EXPECT_EQ(ability.ability11, 11u);
    EXPECT_EQ(log.count("ztEmbeddedModuleProxyServer::device SN-0001 online get device ablility info, product type: 42"), 1);
    EXPECT_EQ(log.count("All TCP threads are established,and the device goes online !!!"), 1);
    EXPECT_EQ(o.server.getDeviceSN(), "SN-0001");
    EXPECT_EQ(o.server.getDataPort(), 0);

    // init again with all four up: 0, nothing reconnected, no second online.
    EXPECT_EQ(o.server.init(kIP, kIP, "SN-0001"), 0);
    EXPECT_EQ(o.head.connectionsAccepted(), 4);
    EXPECT_EQ(o.seen.count(ZT_CODE_DEVICE_ONLINE), 1u);

    // A beat every 500 ms on the command-data connection, answered or not. Misses only
    // count in a row: three unanswered (the head decides as it counts), one answered,
    // three more, and the head is still online.
    const auto beats = [&](int n) {
        const int from = o.head.heartbeatsReceived();
        return waitUntil(10000, [&] { return o.head.heartbeatsReceived() >= from + n; });
    };
    ASSERT_TRUE(beats(1)); // just after a beat: a change made now is half a period from the next
    const auto t0 = Clock::now();
    for (int round = 0; round < 2; ++round) {
        o.head.setAnswerHeartbeats(false);
        ASSERT_TRUE(beats(3));
        o.head.setAnswerHeartbeats(true);
        ASSERT_TRUE(beats(1));
    }
    EXPECT_GE(msSince(t0), 8 * 500 - 100);
    EXPECT_LT(msSince(t0), 8 * 500 + 1500 + kSanitizerSlackMs);
    EXPECT_TRUE(o.server.isConnected());
    EXPECT_EQ(o.seen.count(ZT_CODE_DEVICE_OFFLINE), 0u);
}

// A host that calls back into its server from the data callback: a command when the head
// comes online (init's own thread) and on a command-data message (the command processing
// thread), then deInit on the next message, from that thread; then a fresh init.
struct CallingBack {
    ztEmbeddedModuleProxyServer server;
    std::atomic<int> onlineCommand{99}, messageCommand{99};
    DataCalls stopped;
    static void cb(int type, char*, int, void* user)
    {
        auto* self = static_cast<CallingBack*>(user);
        short width = 0, height = 0;
        float exposure = 0;
        if (type == ZT_CODE_DEVICE_ONLINE && self->onlineCommand == 99)
            self->onlineCommand = self->server.getImageSize(&width, &height);
        else if (type == 300)
            self->messageCommand = self->server.getCameraExposure(&exposure);
        else if (type == 301)
            self->server.deInit();
        DataCalls::cb(type, nullptr, 0, &self->stopped);
    }
};

TEST(EmbeddedServer, CallbacksMayCommandAndStopTheirServer)
{
    Head head;
    ASSERT_EQ(head.start(), 0);
    LogCapture log;
    CallingBack c;
    c.server.registerModuleServerDataCB(&CallingBack::cb, &c);
    ASSERT_EQ(c.server.init(kIP, kIP, "SN"), 0);
    EXPECT_EQ(c.onlineCommand, 0);
    ASSERT_GT(head.sendMessage(Head::CommandData, 300, "a", 1), 0);
    ASSERT_EQ(c.stopped.waitCount(300, 1, 3000), 1u);
    EXPECT_EQ(c.messageCommand, 0);

    ASSERT_GT(head.sendMessage(Head::CommandData, 301, "b", 1), 0);
    ASSERT_EQ(c.stopped.waitCount(301, 1, 3000), 1u);
    EXPECT_FALSE(c.server.isConnected());
    EXPECT_EQ(log.count("ztEmbeddedModuleProxyServer: stopped from its own thread; the thread ends by itself\n"), 1);
    EXPECT_EQ(c.server.sendTrigger(), -1);
    // A new init brings the head online again, with new threads.
    c.onlineCommand = 99;
    ASSERT_EQ(c.server.init(kIP, kIP, "SN"), 0);
    EXPECT_EQ(c.onlineCommand, 0);
    EXPECT_EQ(c.server.sendTrigger(), 0);
}

// The star packets for light-pen control and firmware version selection, byte for byte:
// "*", the four characters of the device id (0xFF each when the id is shorter, which is
// logged), the data, then the trailer key 6 7, 0xFF, "#". The builders replace what the
// string held and send nothing; the single steps write at the position given and nowhere else.
TEST(EmbeddedServer, LightPenPacketsByteForByte)
{
    LogCapture log;
    ztEmbeddedModuleProxyServer server;
    const std::string F(1, '\xFF'), eight(8, '\xFF'), noId(4, '\xFF'), trailer = std::string("\x06\x07", 2) + F + "#";
    auto frame = [&](const std::string& id, const std::string& data) { return "*" + id + data + trailer; };
    // The selection leaves its value position 7 alone and writes "0" two further on.
    const std::string select = "\x08\x01" + F + F + "0" + std::string(6, '\xFF');
    using Step = std::function<void(std::string&)>;
    const std::vector<std::pair<Step, std::string>> rows = {
        {[&](std::string& o) { server.packageLPCanWork("AB12", true, o); }, frame("AB12", "\x06\x19" "1" + eight)},
        {[&](std::string& o) { server.packageLPCanWork("ABCDE", false, o); }, frame("ABCD", "\x06\x19" "0" + eight)},
        {[&](std::string& o) { server.packageLPWorkResult("WXYZ", false, o); }, frame("WXYZ", "\x06\x1B" "0" + eight)},
        {[&](std::string& o) { server.packageSelectFirewareVersion("AB12", o); }, frame("AB12", select)},
        {[&](std::string& o) { server.packageLPCanWork("AB1", true, o); }, frame(noId, "\x06\x19" "1" + eight)},
        {[&](std::string& o) { server.packageSelectFirewareVersion("", o); }, frame(noId, select)},
        // The frame for another data length n: n + 12 bytes, trailer at n + 8.
        {[&](std::string& o) { server.dataInitSet("QRST", o, 3); }, "*QRST" + std::string(6, '\xFF') + trailer},
        {[&](std::string& o) { server.setKey(3, o); }, "...\x06\x07......."},
        {[&](std::string& o) { server.selectDeviceParaCMDSet(0, o); }, "\x08\x01.........."},
        {[&](std::string& o) { server.setLPEnabled(false, 2, o); }, "..\x06\x19" "0......."},
        {[&](std::string& o) { server.setLPWorkResult(true, 9, o); }, ".........\x06\x1B" "1"},
    };
    for (const auto& [step, want] : rows) {
        std::string out(want[0] == '*' ? 40 : 12, '.'); // a longer string than each frame, or a blank one
        step(out);
        EXPECT_EQ(out, want);
    }
    EXPECT_EQ(log.texts(), (std::vector<std::string>{"device id error:AB1\r\n", "device id error:\r\n"}));
    EXPECT_EQ(log.lines().back().level, ZTLOG_LEVEL_ERROR);
}

} // namespace
