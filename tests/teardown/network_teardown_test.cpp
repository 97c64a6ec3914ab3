// Teardown of the classes that own threads and talk over TCP, under load on parallel lanes
// (the module proxy's in network namespaces of their own, its ports being fixed; the device
// server's on loopback addresses of their own), and with a peer that says nothing.
#include "census.h"
#include "host_peer.h"
#include "support/log_capture.h"
#include "support/netns.h"
#include "ztEmbeddedModuleProxyServer.h"
#include "ztModuleProxyClient.h"
#include "ztModuleProxyServer.h"
#include "ztSimModule.h"
#include "ztSimNetworkHead.h"

#include <gtest/gtest.h>

#include <memory>

using namespace zt::test;
using zt::tools::ProxyMessage;
using zt::tools::proxyMessage;
using zt::tools::RawConnection;
using zt::tools::RawListener;

namespace {

constexpr int kLanes = 6;
constexpr int kRounds = 2;

void count(int, char*, int, void* n)
{
    ++*static_cast<std::atomic<int>*>(n);
}

// The host stops its process thread within 1 ms, its connect thread within one 200 ms
// round and its data receive at once (its socket is shut down).
TEST(Teardown, ModuleProxyServerWithNotificationsAndRequestsInFlight)
{
    std::atomic<int> answered{0};
    runRounds(kLanes, kRounds, [&](int, int round) {
        ztSimModule module;
        ASSERT_EQ(module.start(), 0);
        std::atomic<int> notes{0};
        auto host = std::make_unique<ztModuleProxyServer>();
        host->registerModuleServerDataCB(&count, &notes);
        ASSERT_EQ(host->init("127.0.0.1"), 0);
        ASSERT_TRUE(host->waitRegistered(6000));
        Traffic stream, callers;
        int state = 0;
        stream.add([&] { return module.client().sendDeviceStatChanged(1, ++state) == 0; }, 2);
        auto& requests = callers.add([&] { return host->sendTrigger() == 0; }, 5);
        ASSERT_TRUE(callers.flowing(3, 10000) && waitUntil(10000, [&] { return notes >= 20; }));
        tearDown(round, host, callers, 200 + kAllowanceMs, [](auto& h) { return h.sendTrigger(); });
        answered += requests.ok;
    }, [](int) { return enterThreadNetwork(); });
    EXPECT_GE(answered, kLanes * kRounds * 3);
}

// The device server's receivers notice the stop within a 500 ms round, release waits 500 ms,
// and a command in flight polls out its 5000 ms reply window; without one, the destructor
// joins the heartbeat and light-pen threads within one more heartbeat period.
TEST(Teardown, EmbeddedServerWithStreamAndCommandsInFlight)
{
    std::atomic<int> commands{0};
    runRounds(kLanes, kRounds, [&](int lane, int round) {
        const std::string ip = "127.0.0." + std::to_string(lane + 1);
        ztSimNetworkHead head(ip);
        ASSERT_EQ(head.start(), 0);
        std::atomic<int> frames{0};
        auto server = std::make_unique<ztEmbeddedModuleProxyServer>();
        server->registerModuleServerDataCB(&count, &frames);
        ASSERT_EQ(server->init(ip, ip, "SN-TEARDOWN"), 0);
        const char body[256] = {};
        head.startStream(ztSimNetworkHead::Data, ztSimNetworkHead::extendedPacket(1280, 7, body, sizeof body), 0, 2e6);
        Traffic callers;
        int mode = 0;
        auto& cmds = callers.add([&] { return server->getTriggerMode(&mode) == 0; }, 2);
        ASSERT_TRUE(callers.flowing(3, 10000) && waitUntil(10000, [&] { return frames >= 20; }));
        const long bound = (round % 2 == 0 ? 500 + 500 + 5000 : 500 + 500 + 500) + kAllowanceMs;
        tearDown(round, server, callers, bound, [&](auto& s) { return s.isConnected() ? 0 : s.getTriggerMode(&mode); });
        commands += cmds.ok;
        head.stopStream();
    });
    EXPECT_GE(commands, kLanes * kRounds * 3);
}

// The host with a module that took both connections, answered the register request and
// has said nothing since. (The module side with a silent host: ModuleProxyClient's tests.)
TEST(SilentPeer, ModuleProxyHost)
{
    RawListener command, data;
    ASSERT_TRUE(command.listen(ZT_MODULE_CMD_PORT) && data.listen(ZT_MODULE_DATA_PORT));
    ztModuleProxyServer host;
    ASSERT_EQ(host.init("127.0.0.1"), 0);
    RawConnection hostCommand, hostData;
    ASSERT_TRUE(command.accept(hostCommand, 3000) && data.accept(hostData, 3000));
    ProxyMessage reg;
    ASSERT_TRUE(hostCommand.readMessage(reg, 5000));
    const int value = 1;
    ASSERT_TRUE(hostCommand.sendBytes(proxyMessage(4, reg.subType, &value, 4)));
    ASSERT_TRUE(host.waitRegistered(2000));
    // The process and connect threads notice the stop within a round (1 ms, 200 ms); the
    // data receive once its socket is shut down.
    returnsWithin(200 + kAllowanceMs, "ztModuleProxyServer::deInit with a silent module", [&] { host.deInit(); });
    EXPECT_TRUE(hostData.peerClosed(1000));
}

// A module whose host stopped reading, while one thread streams device data and another
// waits for a file: teardown neither waits for the host nor deadlocks with the senders;
// without teardown, a send the host never takes gives up after 3 s and drops the
// connection, so that no half message can follow.
TEST(SilentPeer, ModuleWithAHostThatStopsReading)
{
    LogCapture log;
    auto module = std::make_unique<ztModuleProxyClient>();
    ASSERT_EQ(module->init(), 0);
    RawConnection data;
    ASSERT_TRUE(data.connect("127.0.0.1", ZT_MODULE_DATA_PORT, 3000));
    ProxyMessage note; // the module has taken the connection once a notification reaches it
    ASSERT_TRUE(waitUntil(2000, [&] { return module->registerModule("") == 0 && data.readMessage(note, 20); }));
    const std::vector<unsigned char> block(1 << 20, 0x5A);
    std::atomic<int> sent{0};
    auto stream = [&] {
        for (int i = 0; i < 64; ++i, ++sent)
            module->sendDeviceData(1, 2, block.data(), static_cast<unsigned int>(block.size()), 3);
    };
    std::thread streaming(stream);
    // Sends stop going through once the host's queue and the socket buffers are full.
    for (int last = -1; last != sent; std::this_thread::sleep_for(std::chrono::milliseconds(300)))
        last = sent;
    ASSERT_LT(sent, 64);
    unsigned char file[16];
    std::atomic<int> query{1};
    std::thread waiting([&] { query = module->getSETFile("a", "b", file, sizeof file); });
    returnsWithin(kAllowanceMs, "ztModuleProxyClient::deInit with a stalled host and senders waiting",
                  [&] { module->deInit(); });
    streaming.join();
    waiting.join();
    EXPECT_EQ(query, -1);

    ASSERT_EQ(module->init(), 0);
    RawConnection again;
    ASSERT_TRUE(again.connect("127.0.0.1", ZT_MODULE_DATA_PORT, 3000));
    sent = 0;
    returnsWithin(3000 + kAllowanceMs, "64 sends of 1 MiB to a host that does not read", stream);
    EXPECT_EQ(log.count("TCPServer::sendMsg: the peer took no data for 3000 ms, its connection is closed\n"), 1);
    EXPECT_TRUE(again.peerClosed(1000));
}

} // namespace
