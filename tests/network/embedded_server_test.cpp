// ztEmbeddedModuleProxyServer against the simulated network head: coming online over four
// connections, heartbeat and offline, the command exchange, and everything the head pushes.
#include "host_peer.h"
#include "support/data_calls.h"
#include "support/destroy_on_offline.h"
#include "support/log_capture.h"
#include "ztEmbeddedModuleProxyServer.h"
#include "ztSimNetworkHead.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

using zt::test::LogCapture;
using Head = ztSimNetworkHead;

namespace {

using Clock = std::chrono::steady_clock;
const char* const kIP = "127.0.0.1";

using Seen = zt::test::DataCalls;

std::string str(const std::vector<char>& v)
{
    return std::string(v.begin(), v.end());
}

// A head and a server brought online against it.
struct Online {
    Head head;
    Seen seen;
    ztEmbeddedModuleProxyServer server;
    int start()
    {
        if (head.start() != 0)
            return -100;
        server.registerModuleServerDataCB(&Seen::cb, &seen);
        return server.init(kIP, kIP, "SN-0001");
    }
};

TEST(EmbeddedServer, ComesOnlineOverFourConnectionsInOrder)
{
    LogCapture log(ZTLOG_LEVEL_INFO);
    Online o;
    EXPECT_FALSE(o.server.isConnected());
    EXPECT_EQ(o.server.getCurDeviceAbilityInfo().productType, 31u); // before the head is asked
    ASSERT_EQ(o.start(), 0);
    EXPECT_TRUE(o.server.isConnected());
    for (auto c : {Head::Command, Head::Data, Head::CommandData, Head::LightPen})
        EXPECT_TRUE(o.head.isConnected(c)) << c;
    EXPECT_EQ(o.head.connectionsAccepted(), 4);
    EXPECT_EQ(o.seen.count(ZT_CODE_DEVICE_ONLINE), 1u);

    // The online sequence: the ability record, then SET files 0, 1 and 2.
    Head::Request r;
    ASSERT_TRUE(o.head.nextCommand(r, 1000));
    EXPECT_EQ(r.type, 345);
    EXPECT_TRUE(r.payload.empty());
    for (std::int32_t i = 0; i < 3; ++i) {
        ASSERT_TRUE(o.head.nextCommand(r, 1000));
        EXPECT_EQ(r.type, 264);
        EXPECT_EQ(str(r.payload), std::string(reinterpret_cast<const char*>(&i), 4));
    }
    const DeviceAbilityInfo ability = o.server.getCurDeviceAbilityInfo();
    EXPECT_EQ(ability.productType, Head::kDefaultProductType);
    EXPECT_EQ(ability.ability5, 5u);
    EXPECT_EQ(ability.ability11, 11u);
    EXPECT_EQ(log.count("ztEmbeddedModuleProxyServer::device SN-0001 online get device ablility info, product type: 42"), 1);
    EXPECT_EQ(log.count("All TCP threads are established,and the device goes online !!!"), 1);
    // The SET file replies reached the callback.
    EXPECT_EQ(o.seen.of(264, 3).size(), 3u);
    EXPECT_EQ(o.server.getDeviceSN(), "SN-0001");
    EXPECT_EQ(o.server.getDataPort(), 0);

    // init again with all four up: 0, nothing reconnected, no second online.
    EXPECT_EQ(o.server.init(kIP, kIP, "SN-0001"), 0);
    EXPECT_EQ(o.head.connectionsAccepted(), 4);
    EXPECT_EQ(o.seen.count(ZT_CODE_DEVICE_ONLINE), 1u);

    // Heartbeats go out every 500 ms on the command-data connection.
    const int before = o.head.heartbeatsReceived();
    std::this_thread::sleep_for(std::chrono::milliseconds(1600));
    const int beats = o.head.heartbeatsReceived() - before;
    EXPECT_GE(beats, 2);
    EXPECT_LE(beats, 4);
    EXPECT_TRUE(o.server.isConnected());
}

TEST(EmbeddedServer, UnansweredThirdConnectionKeepsTheFirstTwo)
{
    Online o;
    o.head.setRefuseChannel(2);
    ASSERT_EQ(o.head.start(), 0);
    o.server.registerModuleServerDataCB(&Seen::cb, &o.seen);
    // The head leaves the third attempt unanswered: the connect times out.
    EXPECT_EQ(o.server.init(kIP, kIP, "SN"), ztEmbeddedModuleProxyServer::kConnectTimeout);
    EXPECT_FALSE(o.server.isConnected());
    EXPECT_TRUE(o.head.waitConnected(Head::Command, 1000));
    EXPECT_TRUE(o.head.isConnected(Head::Data));
    EXPECT_FALSE(o.head.isConnected(Head::CommandData));
    EXPECT_EQ(o.seen.count(ZT_CODE_DEVICE_ONLINE), 0u);

    // A later init connects only the missing two.
    o.head.setRefuseChannel(-1);
    const int accepted = o.head.connectionsAccepted();
    EXPECT_EQ(o.server.init(kIP, kIP, "SN"), 0);
    EXPECT_EQ(o.head.connectionsAccepted(), accepted + 2);
    EXPECT_TRUE(o.server.isConnected());
    EXPECT_EQ(o.seen.count(ZT_CODE_DEVICE_ONLINE), 1u);
}

TEST(EmbeddedServer, SilentHeadGoesOfflineOnceAfterTheFifthMissedBeat)
{
    LogCapture log;
    Online o;
    ASSERT_EQ(o.start(), 0);
    o.head.setAnswerHeartbeats(false);
    const auto silentFrom = Clock::now();
    ASSERT_EQ(o.seen.of(ZT_CODE_DEVICE_OFFLINE, 1, 6000).size(), 1u);
    const auto took = Clock::now() - silentFrom;
    EXPECT_GE(took, std::chrono::milliseconds(2400));
    EXPECT_LT(took, std::chrono::milliseconds(4000));
    EXPECT_FALSE(o.server.isConnected());
    // The log line follows the callback.
    EXPECT_TRUE(log.waitFor("Heartbeat timeout = 127.0.0.1", 1000));
    // The connections were closed and nothing more is raised.
    EXPECT_TRUE(o.head.waitDisconnected(Head::Command, 2000));
    std::this_thread::sleep_for(std::chrono::milliseconds(3000));
    EXPECT_EQ(o.seen.count(ZT_CODE_DEVICE_OFFLINE), 1u);
    EXPECT_EQ(log.count("Heartbeat timeout = 127.0.0.1"), 1);
    EXPECT_EQ(o.server.sendTrigger(), -1);
}

// The owner destroys the server in its offline callback (and would build a new one):
// nothing of the destroyed object is touched afterwards.
TEST(EmbeddedServer, OfflineCallbackMayDestroyTheServer)
{
    Head head;
    ASSERT_EQ(head.start(), 0);
    zt::test::DestroyOnOffline o(std::make_unique<ztEmbeddedModuleProxyServer>());
    ASSERT_EQ(o.server->init(kIP, kIP, "SN-0001"), 0);
    head.setAnswerHeartbeats(false);
    EXPECT_TRUE(o.waitGone(10000));
}

// A host that calls back into its server from the data callback: a command when the head
// comes online (init's own thread) and on a command-data message (the command processing
// thread), then deInit on the next message, from that thread; then a fresh init.
struct CallingBack {
    ztEmbeddedModuleProxyServer server;
    std::atomic<int> onlineCommand{99}, messageCommand{99};
    std::atomic<bool> stopped{false};
    static void cb(int type, char*, int, void* user)
    {
        auto* self = static_cast<CallingBack*>(user);
        short width = 0, height = 0;
        float exposure = 0;
        if (type == ZT_CODE_DEVICE_ONLINE && self->onlineCommand == 99)
            self->onlineCommand = self->server.getImageSize(&width, &height);
        else if (type == 300)
            self->messageCommand = self->server.getCameraExposure(&exposure);
        else if (type == 301) {
            self->server.deInit();
            self->stopped = true;
        }
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
    for (int i = 0; i < 200 && c.messageCommand == 99; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_EQ(c.messageCommand, 0);

    ASSERT_GT(head.sendMessage(Head::CommandData, 301, "b", 1), 0);
    for (int i = 0; i < 300 && !c.stopped; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    ASSERT_TRUE(c.stopped);
    EXPECT_FALSE(c.server.isConnected());
    EXPECT_EQ(log.count("ztEmbeddedModuleProxyServer: stopped from its own thread; the thread ends by itself\n"), 1);
    EXPECT_EQ(c.server.sendTrigger(), -1);

    // A new init brings the head online again, with new threads.
    c.onlineCommand = 99;
    ASSERT_EQ(c.server.init(kIP, kIP, "SN"), 0);
    EXPECT_EQ(c.onlineCommand, 0);
    EXPECT_EQ(c.server.sendTrigger(), 0);
}

// Destroying the server from a data callback on one of its own workers cannot be made
// safe (the worker returns through the freed object): it is reported and stops the
// program, as on the USB link.
TEST(EmbeddedServerDeathTest, DestroyedFromItsOwnWorkerAborts)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            Head head;
            head.start();
            struct Owner {
                std::unique_ptr<ztEmbeddedModuleProxyServer> server = std::make_unique<ztEmbeddedModuleProxyServer>();
                static void cb(int type, char*, int, void* user)
                {
                    if (type == 300)
                        static_cast<Owner*>(user)->server.reset();
                }
            } owner;
            owner.server->registerModuleServerDataCB(&Owner::cb, &owner);
            owner.server->init(kIP, kIP, "SN");
            head.sendMessage(Head::CommandData, 300, "a", 1);
            std::this_thread::sleep_for(std::chrono::seconds(3));
        },
        "ztEmbeddedModuleProxyServer destroyed from its own data callback: not supported");
}

TEST(EmbeddedServer, CommandExchangeReplyRules)
{
    LogCapture log;
    ztEmbeddedModuleProxyServer unconnected;
    EXPECT_EQ(unconnected.sendTrigger(), -1); // no command connection: nothing sent, no log
    EXPECT_EQ(log.lines().size(), 0u);

    Online o;
    ASSERT_EQ(o.start(), 0);
    o.head.clearCommands();
    o.head.setStatusReply(13, -5);
    EXPECT_EQ(o.server.sendTrigger(), -1);
    o.head.setStatusReply(13, 3);
    EXPECT_EQ(o.server.sendTrigger(), 0);
    Head::Request r;
    ASSERT_TRUE(o.head.nextCommand(r, 1000));
    EXPECT_EQ(r.type, 13);
    EXPECT_EQ(str(r.payload), std::string("\x01\x00\x00\x00", 4));
    // A reply of another form, or a status reply without a status, fails.
    o.head.setEchoReply(13, {0, 0, 0, 0});
    EXPECT_EQ(o.server.sendTrigger(), -1);
    o.head.setRawReply(13, Head::message(0, nullptr, 0));
    EXPECT_EQ(o.server.sendTrigger(), -1);
    // No reply: the exchange gives up after 5 s and logs the command's text.
    o.head.setNoReply(13);
    const auto t0 = Clock::now();
    EXPECT_EQ(o.server.sendTrigger(), -1);
    EXPECT_GE(Clock::now() - t0, std::chrono::milliseconds(4900));
    EXPECT_EQ(log.count("ztEmbeddedModuleProxyServer [sendTrigger] zmq_send failed!\r\n"), 1);
    // A late reply does not poison the next command beyond the one it belonged to.
    o.head.setStatusReply(13, 0);
    EXPECT_EQ(o.server.sendTrigger(), 0);

    // A value reply fills the caller's values.
    o.head.setEchoReply(276, Head::valuePayload(0x07030400));
    int v[4] = {-1, -1, -1, -1};
    EXPECT_EQ(o.server.getRKProgramVersion(&v[0], &v[1], &v[2], &v[3]), 0);
    EXPECT_EQ(v[0], 7);
    EXPECT_EQ(v[1], 3);
    EXPECT_EQ(v[2], 4);
    EXPECT_EQ(v[3], 0);
    // The ability record: a non-zero status is returned as it is, type 0 leaves the record.
    DeviceAbilityInfo info{};
    info.productType = 99;
    o.head.setEchoReply(345, {static_cast<char>(0xFD), static_cast<char>(0xFF), static_cast<char>(0xFF),
                              static_cast<char>(0xFF)});
    EXPECT_EQ(o.server.getDeviceAbilityInfo(&info), -3);
    EXPECT_EQ(log.count("ztEmbeddedModuleProxyServer::getDeviceAbilityInfo, reply = -3"), 1);
    o.head.setStatusReply(345, 0);
    EXPECT_EQ(o.server.getDeviceAbilityInfo(&info), 0);
    EXPECT_EQ(info.productType, 99u);
    EXPECT_EQ(log.count("ztEmbeddedModuleProxyServer::getDeviceAbilityInfo, msgType is 0"), 1);
    auto record = Head::defaultAbility();
    record[0] = 0xABC;
    o.head.setEchoReply(345, Head::abilityPayload(record, true));
    EXPECT_EQ(o.server.getDeviceAbilityInfo(&info), 0);
    EXPECT_EQ(info.abilityHeader, 0xABCu);
    EXPECT_EQ(info.productType, Head::kDefaultProductType);
    EXPECT_EQ(info.ability5, 5u);
}

} // namespace
