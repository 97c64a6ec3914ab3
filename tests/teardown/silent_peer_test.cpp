// Teardown while the far end stays connected and says nothing: each class returns from
// deInit (or its destructor) within the bound its own stop sequence implies.
#include "census.h"
#include "host_peer.h"
#include "support/log_capture.h"
#include "ztEmbeddedModuleProxyServer.h"
#include "ztModuleProxyClient.h"
#include "ztModuleProxyServer.h"
#include "ztProxyTypes.h"
#include "ztSimNetworkHead.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <memory>
#include <thread>

using zt::test::Clock;
using zt::test::kAllowanceMs;
using zt::test::msSince;
using zt::tools::ProxyMessage;
using zt::tools::RawConnection;
using zt::tools::RawListener;

namespace {

// Runs stop on a thread of its own and fails when it has not returned within boundMs. A
// teardown that hangs would hang the test program too: it ends at once instead.
void expectReturnsWithin(long boundMs, const char* what, const std::function<void()>& stop)
{
    auto done = std::make_shared<std::promise<long>>();
    std::future<long> took = done->get_future();
    std::thread([stop, done] {
        const auto t = Clock::now();
        stop();
        done->set_value(msSince(t));
    }).detach();
    if (took.wait_for(std::chrono::milliseconds(boundMs)) != std::future_status::ready) {
        std::fprintf(stderr, "%s did not return within %ld ms\n", what, boundMs);
        std::fflush(stderr);
        std::_Exit(1);
    }
    std::printf("%s returned in %ld ms (bound %ld ms)\n", what, took.get(), boundMs);
}

} // namespace

// The host with a module that took both connections, answered the register request and
// has said nothing since; the module side with a host that connected and sends nothing.
TEST(SilentPeer, ModuleProxyBothEnds)
{
    RawListener command;
    RawListener data;
    ASSERT_TRUE(command.listen(ZT_MODULE_CMD_PORT));
    ASSERT_TRUE(data.listen(ZT_MODULE_DATA_PORT));
    auto host = std::make_unique<ztModuleProxyServer>();
    ASSERT_EQ(host->init("127.0.0.1"), 0);
    RawConnection hostCommand;
    RawConnection hostData;
    ASSERT_TRUE(command.accept(hostCommand, 3000));
    ASSERT_TRUE(data.accept(hostData, 3000));
    ProxyMessage reg;
    ASSERT_TRUE(hostCommand.readMessage(reg, 5000));
    ASSERT_EQ(reg.subType, 1u);
    const int value = 1;
    ASSERT_TRUE(hostCommand.sendBytes(zt::tools::proxyMessage(4, 1, &value, 4)));
    // The process and connect threads notice the stop within a round (1 ms, 200 ms); the
    // data receive thread once its socket is shut down.
    expectReturnsWithin(200 + kAllowanceMs, "ztModuleProxyServer::deInit with a silent module", [&] { host->deInit(); });
    EXPECT_TRUE(hostData.peerClosed(1000));
    host.reset();
    command.close();
    data.close();

    auto module = std::make_unique<ztModuleProxyClient>();
    ASSERT_EQ(module->init(), 0);
    RawConnection peerCommand;
    RawConnection peerData;
    ASSERT_TRUE(peerCommand.connect("127.0.0.1", ZT_MODULE_CMD_PORT, 3000));
    ASSERT_TRUE(peerData.connect("127.0.0.1", ZT_MODULE_DATA_PORT, 3000));
    // The command receive waits 1 s at a time.
    expectReturnsWithin(1000 + kAllowanceMs, "ztModuleProxyClient destructor with a silent host",
                        [&] { module.reset(); });
}

// A module whose host connected, then stopped reading (its receive queue full, or the
// process suspended), while one thread streams device data and another waits for a file:
// teardown neither waits for the host nor deadlocks with the senders, and a send that
// the host never takes gives up after 3 s.
TEST(SilentPeer, ModuleWithAHostThatStopsReading)
{
    zt::test::LogCapture log;
    auto module = std::make_unique<ztModuleProxyClient>();
    ASSERT_EQ(module->init(), 0);
    RawConnection command;
    RawConnection data;
    ASSERT_TRUE(data.connect("127.0.0.1", ZT_MODULE_DATA_PORT, 3000));
    ASSERT_TRUE(command.connect("127.0.0.1", ZT_MODULE_CMD_PORT, 3000));
    ProxyMessage accepted;
    for (int i = 0; i < 100 && !command.readMessage(accepted, 20); ++i)
        module->sendRegisterRep(true);
    const std::vector<unsigned char> block(1 << 20, 0x5A);
    auto stream = [&](std::atomic<int>& sent) {
        for (int i = 0; i < 64; ++i, ++sent)
            module->sendDeviceData(1, 2, block.data(), static_cast<unsigned int>(block.size()), 3);
    };
    // Until the host's queue and the socket buffers are full, then held there.
    std::atomic<int> sent{0};
    std::thread first(stream, std::ref(sent));
    for (int last = -1; last != sent; std::this_thread::sleep_for(std::chrono::milliseconds(300)))
        last = sent;
    ASSERT_LT(sent, 64);
    unsigned char file[16];
    std::atomic<int> query{1};
    std::thread waiting([&] { query = module->getSETFile("a", "b", file, sizeof file); });
    expectReturnsWithin(kAllowanceMs, "ztModuleProxyClient::deInit with a stalled host and senders waiting",
                        [&] { module->deInit(); });
    first.join();
    waiting.join();
    EXPECT_EQ(query, -1);

    // Without teardown, the send that the host does not take fails after 3 s and the
    // connection goes, so that no half message can follow.
    module = std::make_unique<ztModuleProxyClient>();
    ASSERT_EQ(module->init(), 0);
    RawConnection again;
    ASSERT_TRUE(again.connect("127.0.0.1", ZT_MODULE_DATA_PORT, 3000));
    std::atomic<int> more{0};
    expectReturnsWithin(3000 + kAllowanceMs, "64 sends of 1 MiB to a host that does not read", [&] { stream(more); });
    EXPECT_EQ(log.count("TCPServer::sendMsg: the peer took no data for 3000 ms, its connection is closed\n"), 1);
    EXPECT_TRUE(again.peerClosed(1000));
}

// A network head that came online, then fell silent on all four connections.
TEST(SilentPeer, NetworkHead)
{
    ztSimNetworkHead head("127.0.0.1");
    ASSERT_EQ(head.start(), 0);
    auto server = std::make_unique<ztEmbeddedModuleProxyServer>();
    ASSERT_EQ(server->init("127.0.0.1", "127.0.0.1", "SN-SILENT"), 0);
    ASSERT_TRUE(server->isConnected());
    head.setSilent(true);
    // The release pause (500 ms), then the receive threads' 3 s socket waits at most.
    expectReturnsWithin(500 + 3000 + kAllowanceMs, "ztEmbeddedModuleProxyServer::deInit with a silent head",
                        [&] { server->deInit(); });
    server.reset();
    head.stop();
}
