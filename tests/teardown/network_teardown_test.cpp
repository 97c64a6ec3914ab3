// Teardown under load of every class that owns threads and talks over TCP: each one is
// brought up against its simulated peer, data streams and requests run from other
// threads, and then deInit (or the destructor alone) must return within the time its
// threads need to notice the stop, leaving no thread and no descriptor behind. Repeated
// 100 times per class, on parallel lanes: the module proxy lanes each in a network
// namespace of their own (the module ports are fixed), the device server lanes each on a
// loopback address of their own.
#include "census.h"
#include "support/netns.h"
#include "host_peer.h"
#include "TThreadC.h"
#include "ztEmbeddedModuleProxyServer.h"
#include "ztModuleProxyClient.h"
#include "ztModuleProxyServer.h"
#include "ztSimModule.h"
#include "ztSimNetworkHead.h"

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <memory>
#include <thread>

using zt::test::Clock;
using zt::test::kAllowanceMs;
using zt::test::msSince;
using zt::test::runRounds;
using zt::tools::proxyMessage;
using zt::tools::RawConnection;

namespace {

constexpr int kLanes = 10;
constexpr int kRounds = 10; // kLanes x kRounds = 100 teardowns per class

// A thread repeating one action until stopped, with a short pause between calls.
class Repeater {
public:
    template <class F>
    Repeater(F f, int pauseMs)
        : m_thread([this, f, pauseMs] {
              while (!m_stop) {
                  f();
                  ++m_calls;
                  std::this_thread::sleep_for(std::chrono::milliseconds(pauseMs));
              }
          })
    {
    }
    ~Repeater() { stop(); }
    void stop()
    {
        m_stop = true;
        if (m_thread.joinable())
            m_thread.join();
    }
    int calls() const { return m_calls; }

private:
    std::atomic<bool> m_stop{false};
    std::atomic<int> m_calls{0};
    std::thread m_thread;
};

struct Counter {
    std::atomic<int> n{0};
    static void cb(int, char*, int, void* user) { ++static_cast<Counter*>(user)->n; }
    bool waitFor(int atLeast, int timeoutMs)
    {
        const auto t = Clock::now();
        while (n < atLeast && msSince(t) < timeoutMs)
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        return n >= atLeast;
    }
};

// Longest deInit or destructor seen per class, reported at the end of each test.
struct Longest {
    std::atomic<long> ms{0};
    void note(long v)
    {
        long cur = ms;
        while (v > cur && !ms.compare_exchange_weak(cur, v)) {
        }
    }
};

TEST(Teardown, ThreadObjectsJoinedOrKilledMidWork)
{
    struct Worker : TThreadC<void> {
        std::atomic<bool> stop{false};
        std::atomic<long> rounds{0};
        void Run() override
        {
            while (!stop) {
                ++rounds;
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        }
    };
    Longest joined;
    Longest killed;
    runRounds(kLanes, kRounds, [&](int, int round) {
        Worker w[4];
        void* handles[4] = {};
        for (int i = 0; i < 4; ++i) {
            void** out = &handles[i];
            ASSERT_EQ(w[i].Create(out, false, 0, false, false), 0);
        }
        for (auto& x : w)
            while (x.rounds < 2)
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
        const auto t = Clock::now();
        if (round % 2 == 0) {
            // Told to stop: each notices within its 1 ms round.
            for (auto& x : w)
                x.stop = true;
            for (void* h : handles)
                EXPECT_EQ(TThreadC<void>::Join(h), 0);
            joined.note(msSince(t));
        } else {
            // Killed in the middle of its work, then joined.
            for (void* h : handles)
                EXPECT_EQ(TThreadC<void>::Kill(h), 0);
            for (void* h : handles)
                EXPECT_EQ(TThreadC<void>::Join(h), 0);
            killed.note(msSince(t));
        }
    });
    EXPECT_LT(joined.ms, 500);
    EXPECT_LT(killed.ms, 500);
    std::printf("TThreadC: longest join %ld ms, longest kill and join %ld ms\n", joined.ms.load(), killed.ms.load());
}

// The host side stops its process thread within 1 ms, its connect thread within one
// 200 ms round and its data receive thread at the next notification, which the module
// sends every 2 ms; the sockets go once the request exchange in flight has its reply,
// which the module sends at once.
constexpr long kHostStopMs = 200 + kAllowanceMs;

TEST(Teardown, ModuleProxyServerWithNotificationsAndRequestsInFlight)
{
    Longest deInit;
    Longest destroy;
    std::atomic<int> answered{0};
    runRounds(
        kLanes, kRounds,
        [&](int, int round) {
            ztSimModule module;
            ASSERT_EQ(module.start(), 0);
            Counter notes;
            auto host = std::make_unique<ztModuleProxyServer>();
            host->registerModuleServerDataCB(&Counter::cb, &notes);
            ASSERT_EQ(host->init("127.0.0.1"), 0);
            ztSimModule::Request r;
            ASSERT_TRUE(module.nextRequest(r, 5000));
            ASSERT_EQ(r.code, 1);
            // The register reply must reach the host before the first request goes out.
            std::this_thread::sleep_for(std::chrono::milliseconds(100));

            int state = 0;
            Repeater stream([&] { module.client().sendDeviceStatChanged(1, ++state); }, 2);
            ASSERT_TRUE(notes.waitFor(20, 10000));
            auto requests = std::make_unique<Repeater>([&] { answered += host->sendTrigger() == 0 ? 1 : 0; }, 5);
            while (requests->calls() < 3)
                std::this_thread::sleep_for(std::chrono::milliseconds(2));

            const auto t = Clock::now();
            if (round % 2 == 0) {
                host->deInit();
                deInit.note(msSince(t));
                EXPECT_LT(msSince(t), kHostStopMs);
                // Requests after deInit fail at once.
                requests->stop();
                EXPECT_EQ(host->sendTrigger(), -1);
                host.reset();
            } else {
                // Nobody may call into an object while it is destroyed: the requests stop
                // first, the notifications keep coming.
                requests->stop();
                const auto d = Clock::now();
                host.reset();
                destroy.note(msSince(d));
                EXPECT_LT(msSince(d), kHostStopMs);
            }
            stream.stop();
        },
        [](int) { return zt::test::enterThreadNetwork(); });
    EXPECT_GT(answered, 100);
    std::printf("ztModuleProxyServer: longest deInit %ld ms, longest destructor %ld ms, %d requests answered\n",
                deInit.ms.load(), destroy.ms.load(), answered.load());
}

// The module side stops its command receive thread within one receive (1000 ms and a
// 15 ms poll) and a 5 ms round; the data listener goes once the file query in progress
// (which may have started during that wait) has had its answer or its 1000 ms. The
// listeners close their connections at once.
constexpr long kModuleStopMs = 1000 + 15 + 5 + 1000 + 15 + kAllowanceMs;

TEST(Teardown, ModuleProxyClientWithRequestsNotificationsAndQueriesInFlight)
{
    Longest deInit;
    Longest destroy;
    std::atomic<int> replies{0};
    runRounds(
        kLanes, kRounds,
        [&](int, int round) {
            auto module = std::make_unique<ztModuleProxyClient>();
            module->registerModuleClientDataCB(
                [](int code, char*, int, void* user) {
                    auto* m = static_cast<ztModuleProxyClient*>(user);
                    code == 1 ? m->sendRegisterRep(true) : m->sendTriggerRep(true);
                },
                module.get());
            ASSERT_EQ(module->init(), 0);
            RawConnection cmd;
            RawConnection data;
            ASSERT_TRUE(cmd.connect("127.0.0.1", 9479, 2000));
            ASSERT_TRUE(data.connect("127.0.0.1", 11300, 2000));

            // The host side: a request every 2 ms, each reply read; notifications and
            // queries drained.
            const auto trigger = proxyMessage(3, 0x10005, nullptr, 0);
            std::atomic<int> got{0};
            Repeater host(
                [&] {
                    zt::tools::ProxyMessage m;
                    if (cmd.sendBytes(trigger) && cmd.readMessage(m, 50) && m.type == 4 && m.subType == 0x10005)
                        ++got;
                },
                5);
            Repeater drain([&] { data.readFor(5); }, 0);
            int state = 0;
            Repeater stream([&] { module->sendDeviceStatChanged(2, ++state); }, 2);
            unsigned int size = 0;
            Repeater query([&] { module->getCurBarFileSize(&size); }, 20);
            while (got < 3 || query.calls() < 1)
                std::this_thread::sleep_for(std::chrono::milliseconds(2));
            // A query is waiting for its answer now.
            std::this_thread::sleep_for(std::chrono::milliseconds(10));

            const auto t = Clock::now();
            if (round % 2 == 0) {
                module->deInit();
                deInit.note(msSince(t));
                EXPECT_LT(msSince(t), kModuleStopMs);
                // The host sees both connections end.
                EXPECT_TRUE(data.peerClosed(1000));
                stream.stop();
                query.stop();
                module.reset();
            } else {
                stream.stop();
                query.stop();
                const auto d = Clock::now();
                module.reset();
                destroy.note(msSince(d));
                EXPECT_LT(msSince(d), kModuleStopMs);
            }
            host.stop();
            replies += got;
        },
        [](int) { return zt::test::enterThreadNetwork(); });
    EXPECT_GT(replies, 100);
    std::printf("ztModuleProxyClient: longest deInit %ld ms, longest destructor %ld ms, %d replies\n",
                deInit.ms.load(), destroy.ms.load(), replies.load());
}

// The device server's receive threads notice the stop within their rounds (the data
// receive at the next streamed packet, the command-data receive at the next heartbeat
// answer, at most 500 ms), then release waits its 500 ms, and the buffers go once a
// command in flight has ended: its connection is gone by then, so it polls out its whole
// 5000 ms reply window. The heartbeat and light-pen threads are left to end by
// themselves; the destructor joins them after at most one 500 ms heartbeat period.
constexpr long kDeviceStopMs = 500 + 500 + 5000 + kAllowanceMs;
constexpr long kDeviceDestroyMs = 500 + 500 + 500 + kAllowanceMs;

TEST(Teardown, EmbeddedServerWithStreamAndCommandsInFlight)
{
    Longest deInit;
    Longest destroy;
    std::atomic<int> commands{0};
    runRounds(kLanes, kRounds, [&](int lane, int round) {
        const std::string ip = "127.0.0." + std::to_string(lane + 1);
        ztSimNetworkHead head(ip);
        ASSERT_EQ(head.start(), 0);
        Counter frames;
        auto server = std::make_unique<ztEmbeddedModuleProxyServer>();
        server->registerModuleServerDataCB(&Counter::cb, &frames);
        ASSERT_EQ(server->init(ip, ip, "SN-TEARDOWN"), 0);
        ASSERT_TRUE(server->isConnected());
        const char body[256] = {};
        head.startStream(ztSimNetworkHead::Data, ztSimNetworkHead::extendedPacket(1280, 7, body, sizeof body), 0, 2e6);
        ASSERT_TRUE(frames.waitFor(20, 10000));
        int mode = 0;
        auto cmds = std::make_unique<Repeater>([&] { commands += server->getTriggerMode(&mode) == 0 ? 1 : 0; }, 2);
        while (cmds->calls() < 3)
            std::this_thread::sleep_for(std::chrono::milliseconds(2));

        const auto t = Clock::now();
        if (round % 2 == 0) {
            server->deInit();
            deInit.note(msSince(t));
            EXPECT_LT(msSince(t), kDeviceStopMs);
            EXPECT_FALSE(server->isConnected());
            cmds->stop();
            EXPECT_EQ(server->getTriggerMode(&mode), -1);
            server.reset();
        } else {
            cmds->stop();
            const auto d = Clock::now();
            server.reset();
            destroy.note(msSince(d));
            EXPECT_LT(msSince(d), kDeviceDestroyMs);
        }
        head.stopStream();
        head.stop();
    });
    EXPECT_GT(commands, 100);
    std::printf("ztEmbeddedModuleProxyServer: longest deInit %ld ms, longest destructor %ld ms, %d commands\n",
                deInit.ms.load(), destroy.ms.load(), commands.load());
}

} // namespace
