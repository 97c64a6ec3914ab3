// ztModuleProxyClient driven through its public interface by a raw host peer on the
// module's fixed ports (each test program runs in a network namespace of its own).
#include "host_peer.h"
#include "ztModuleProxyClient.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <deque>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>

using zt::tools::ProxyMessage;
using zt::tools::proxyMessage;
using zt::tools::RawConnection;

namespace {

using Clock = std::chrono::steady_clock;

struct Seen {
    int code;
    std::string payload;
    int length;
};

// The module: a client whose callback records each request and answers the session ones.
class Module {
public:
    ztModuleProxyClient client;

    void listen()
    {
        client.registerModuleClientDataCB(&Module::onRequest, this);
        ASSERT_EQ(client.init(), 0);
    }
    bool next(Seen& out, int ms)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        if (!m_cv.wait_for(lock, std::chrono::milliseconds(ms), [&] { return !m_seen.empty(); }))
            return false;
        out = m_seen.front();
        m_seen.pop_front();
        return true;
    }
    std::size_t pending()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_seen.size();
    }
    // A request of this sub type makes the callback stop the module (deInit) before it is
    // recorded.
    std::atomic<int> stopOn{-1};

private:
    static void onRequest(int code, char* data, int length, void* user)
    {
        auto* self = static_cast<Module*>(user);
        if (code == 1)
            self->client.sendRegisterRep(true);
        if (code == self->stopOn)
            self->client.deInit();
        std::lock_guard<std::mutex> lock(self->m_mutex);
        self->m_seen.push_back({code, std::string(data, data + length), length});
        self->m_cv.notify_all();
    }

    std::mutex m_mutex;
    std::condition_variable m_cv;
    std::deque<Seen> m_seen;
};

// Connects the data channel, then the command channel, and runs the register exchange,
// by the end of which the module has accepted both connections.
void connectHost(Module& module, RawConnection& cmd, RawConnection& data)
{
    ASSERT_TRUE(data.connect("127.0.0.1", 11300, 3000));
    ASSERT_TRUE(cmd.connect("127.0.0.1", 9479, 3000));
    ASSERT_TRUE(cmd.sendBytes(proxyMessage(3, 1, nullptr, 0)));
    Seen seen;
    ASSERT_TRUE(module.next(seen, 3000));
    ASSERT_EQ(seen.code, 1);
    ProxyMessage reply;
    ASSERT_TRUE(cmd.readMessage(reply, 3000));
    ASSERT_EQ(reply.type, 4);
    ASSERT_EQ(reply.subType, 1u);
}

std::vector<unsigned char> bytes(const std::vector<char>& v)
{
    return std::vector<unsigned char>(v.begin(), v.end());
}

TEST(ModuleProxyClient, CallbackMayStopTheModuleAndInitStartsAgain)
{
    Module module;
    module.stopOn = 0x10013;
    module.listen();
    RawConnection cmd, data;
    connectHost(module, cmd, data);
    ASSERT_TRUE(cmd.sendBytes(proxyMessage(3, 0x10013, nullptr, 0)));
    Seen seen;
    ASSERT_TRUE(module.next(seen, 3000));
    EXPECT_EQ(seen.code, 0x10013);
    // Stopped from its own receive thread: the host's connections are closed, the ports
    // free, and a new init serves a new host.
    EXPECT_TRUE(cmd.peerClosed(1000));
    EXPECT_TRUE(data.peerClosed(1000));
    module.stopOn = -1;
    module.listen();
    RawConnection cmd2, data2;
    connectHost(module, cmd2, data2);
}

TEST(ModuleProxyClient, OnlyRequestsReachTheCallback)
{
    Module module;
    module.listen();
    RawConnection cmd, data;
    connectHost(module, cmd, data);

    auto badMagic = proxyMessage(3, 0x10005, "bad", 3);
    badMagic[1] = 0x00;
    ASSERT_TRUE(cmd.sendBytes(proxyMessage(1, 0x10001, "one", 3)));
    ASSERT_TRUE(cmd.sendBytes(proxyMessage(2, 0x10002, "two", 3)));
    ASSERT_TRUE(cmd.sendBytes(proxyMessage(4, 0x10003, "four", 4)));
    ASSERT_TRUE(cmd.sendBytes(badMagic));
    const float exposure = 2.5f;
    ASSERT_TRUE(cmd.sendBytes(proxyMessage(3, 0x20002, &exposure, 4)));

    Seen seen;
    ASSERT_TRUE(module.next(seen, 3000));
    EXPECT_EQ(seen.code, 0x20002);
    ASSERT_EQ(seen.length, 4);
    float got = 0;
    std::memcpy(&got, seen.payload.data(), 4);
    EXPECT_EQ(got, 2.5f);
    EXPECT_FALSE(module.next(seen, 200)) << "code " << seen.code;
}

TEST(ModuleProxyClient, CoalescedAndSplitRequestsArriveOnceInOrder)
{
    Module module;
    module.listen();
    RawConnection cmd, data;
    connectHost(module, cmd, data);

    // Two requests in one segment: both handed on, one after the other.
    auto two = proxyMessage(3, 0x10006, "\x05\x00\x00\x00", 4);
    const auto second = proxyMessage(3, 0x10005, nullptr, 0);
    two.insert(two.end(), second.begin(), second.end());
    ASSERT_TRUE(cmd.sendBytes(two));
    Seen a, b;
    ASSERT_TRUE(module.next(a, 3000));
    ASSERT_TRUE(module.next(b, 3000));
    EXPECT_EQ(a.code, 0x10006);
    EXPECT_EQ(a.payload, std::string("\x05\x00\x00\x00", 4));
    EXPECT_EQ(b.code, 0x10005);
    EXPECT_EQ(b.length, 0);

    // A request split over three writes arrives once, after its last byte.
    const std::string text(1000, 'q');
    const auto split = proxyMessage(3, 0x30002, text.data(), static_cast<int>(text.size()));
    ASSERT_TRUE(cmd.sendBytes(split.data(), 10));
    std::this_thread::sleep_for(std::chrono::milliseconds(60));
    ASSERT_TRUE(cmd.sendBytes(split.data() + 10, 500));
    std::this_thread::sleep_for(std::chrono::milliseconds(60));
    EXPECT_EQ(module.pending(), 0u);
    ASSERT_TRUE(cmd.sendBytes(split.data() + 510, split.size() - 510));
    ASSERT_TRUE(module.next(a, 3000));
    EXPECT_EQ(a.code, 0x30002);
    EXPECT_EQ(a.payload, text);
    EXPECT_FALSE(module.next(a, 100));
}

TEST(ModuleProxyClient, WithoutACallbackRequestsAreConsumed)
{
    Module module;
    ASSERT_EQ(module.client.init(), 0); // no callback yet
    RawConnection cmd;
    ASSERT_TRUE(cmd.connect("127.0.0.1", 9479, 3000));
    ASSERT_TRUE(cmd.sendBytes(proxyMessage(3, 0x10005, nullptr, 0)));
    ASSERT_TRUE(cmd.sendBytes(proxyMessage(3, 0x10011, nullptr, 0)));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    module.listen(); // installs the callback; the listeners already run
    ASSERT_TRUE(cmd.sendBytes(proxyMessage(3, 0x10012, nullptr, 0)));
    Seen seen;
    ASSERT_TRUE(module.next(seen, 3000));
    EXPECT_EQ(seen.code, 0x10012);
    EXPECT_FALSE(module.next(seen, 100));
}

TEST(ModuleProxyClient, SendersPutExactBytesOnTheirChannels)
{
    Module module;
    module.listen();
    RawConnection cmd, data;
    connectHost(module, cmd, data);

    EXPECT_EQ(module.client.registerModule("scan"), 0);
    EXPECT_EQ(bytes(data.readFor(100)),
              (std::vector<unsigned char>{0x24, 0x23, 0, 0, 1, 0, 0, 0, 0x00, 0, 1, 0, 4, 0, 0, 0, 's', 'c', 'a', 'n'}));
    EXPECT_EQ(module.client.registerModule(""), 0);
    EXPECT_EQ(bytes(data.readFor(100)),
              (std::vector<unsigned char>{0x24, 0x23, 0, 0, 1, 0, 0, 0, 0x00, 0, 1, 0, 0, 0, 0, 0}));
    EXPECT_EQ(module.client.unregisterModule(), 0);
    EXPECT_EQ(bytes(data.readFor(100)),
              (std::vector<unsigned char>{0x24, 0x23, 0, 0, 1, 0, 0, 0, 0x01, 0, 1, 0, 0, 0, 0, 0}));

    EXPECT_EQ(module.client.sendRegisterRep(false), 0);
    EXPECT_EQ(module.client.sendUnRegisterRep(true), 0);
    EXPECT_EQ(bytes(cmd.readFor(100)),
              (std::vector<unsigned char>{0x24, 0x23, 0, 0, 4, 0, 0, 0, 1, 0, 0, 0, 4, 0, 0, 0, 0, 0, 0, 0,
                                          0x24, 0x23, 0, 0, 4, 0, 0, 0, 2, 0, 0, 0, 4, 0, 0, 0, 1, 0, 0, 0}));
    // Nothing crossed to the other channel.
    EXPECT_TRUE(data.readFor(50).empty());

    // With no host connected the senders still return 0.
    cmd.close();
    data.close();
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(module.client.registerModule("gone"), 0);
    EXPECT_EQ(module.client.sendRegisterRep(true), 0);
}

TEST(ModuleProxyClient, DeInitEndsEverythingAndFreesThePorts)
{
    Module module;
    module.listen();
    RawConnection cmd, data;
    connectHost(module, cmd, data);

    const auto start = Clock::now();
    module.client.deInit();
    // The receive thread notices the stop within its 1000 ms receive.
    EXPECT_LT(Clock::now() - start, std::chrono::milliseconds(1500));
    EXPECT_TRUE(cmd.peerClosed(1000));
    EXPECT_TRUE(data.peerClosed(1000));
    RawConnection refused;
    EXPECT_FALSE(refused.connect("127.0.0.1", 9479, 0));
    module.client.deInit(); // twice is harmless

    // The same object listens again on the same ports and serves a new host.
    module.listen();
    RawConnection cmd2, data2;
    connectHost(module, cmd2, data2);
    ASSERT_TRUE(cmd2.sendBytes(proxyMessage(3, 0x10010, "\x01\x00\x00\x00", 4)));
    Seen seen;
    ASSERT_TRUE(module.next(seen, 3000));
    EXPECT_EQ(seen.code, 0x10010);

    // A second client cannot have the ports while the first holds them.
    ztModuleProxyClient other;
    EXPECT_EQ(other.init(), -1);
}

// Sanitizers keep shadow memory beside every byte the program touches.
#if defined(__SANITIZE_THREAD__)
constexpr long kShadowFactor = 4;
#elif defined(__SANITIZE_ADDRESS__)
constexpr long kShadowFactor = 2;
#else
constexpr long kShadowFactor = 1;
#endif

long residentKiB()
{
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line))
        if (line.rfind("VmRSS:", 0) == 0)
            return std::stol(line.substr(6));
    return -1;
}

TEST(ModuleProxyClient, HostileBytesNeitherCrashNorGrowMemory)
{
    Module module;
    module.listen();
    {
        // Garbage, then a connection dropped in the middle of a message.
        RawConnection cmd;
        ASSERT_TRUE(cmd.connect("127.0.0.1", 9479, 3000));
        std::string garbage(4096, '\0');
        for (std::size_t i = 0; i < garbage.size(); ++i)
            garbage[i] = static_cast<char>((i * 131 + 7) & 0xFF);
        ASSERT_TRUE(cmd.sendBytes(garbage.data(), garbage.size()));
        const auto half = proxyMessage(3, 0x10005, "abcdef", 6);
        ASSERT_TRUE(cmd.sendBytes(half.data(), 11));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    module.client.deInit();

    // A front message that declares 2 GiB is never taken; the module stops reading, so
    // the host cannot push more than about the largest command into its memory.
    module.listen();
    RawConnection cmd;
    ASSERT_TRUE(cmd.connect("127.0.0.1", 9479, 3000));
    auto huge = proxyMessage(3, 0x10005, nullptr, 0);
    const std::int32_t length = 0x7FFFFFF0;
    std::memcpy(huge.data() + 12, &length, 4);
    ASSERT_TRUE(cmd.sendBytes(huge));
    const long before = residentKiB();
    const std::string block(1 << 20, 'x');
    std::size_t sent = 0;
    for (int i = 0; i < 64; ++i) {
        const std::size_t n = cmd.sendFor(block.data(), block.size(), 50);
        sent += n;
        if (n < block.size())
            break;
    }
    EXPECT_LT(sent, 24u << 20) << "the module kept reading past its limit";
    EXPECT_LT(residentKiB() - before, 48 * 1024 * kShadowFactor);
    Seen seen;
    EXPECT_FALSE(module.next(seen, 100));
    cmd.close();
    module.client.deInit();
}

} // namespace
