// The simulated module's ztModuleProxyClient driven by a raw host peer on the module's
// fixed ports (the test program runs in a network namespace of its own): the requests its
// callback sees, and the file queries with their answers and time-outs, also when the host
// goes away.
#include "host_peer.h"
#include "support/fault_scenario.h"
#include "support/log_capture.h"
#include "support/module_session.h"

#include <gtest/gtest.h>

using namespace zt::test;
using zt::tools::ProxyMessage;
using zt::tools::proxyMessage;
using zt::tools::RawConnection;

namespace {

using Seen = std::pair<int, std::vector<char>>;

// The simulated module, listening, which records each request its callback sees, and a raw
// host on the module's fixed ports.
struct Module {
    ztSimModule sim;
    RawConnection cmd, data;

    Module() { EXPECT_EQ(sim.start(), 0); }

    // The host connects both channels and runs the register exchange; the module has
    // accepted the data connection once a notification reaches it (those sent before go
    // nowhere).
    void connectHost()
    {
        ASSERT_TRUE(data.connect("127.0.0.1", 11300, 3000) && cmd.connect("127.0.0.1", 9479, 3000));
        ASSERT_TRUE(cmd.sendBytes(proxyMessage(3, 1, nullptr, 0)));
        ASSERT_EQ(next(), Seen(1, {}));
        ProxyMessage reply;
        ASSERT_TRUE(cmd.readMessage(reply, 3000) && reply.type == 4 && reply.subType == 1u);
        ASSERT_TRUE(waitUntil(3000, [&] { return sim.client().unregisterModule() == 0 && data.readMessage(reply, 200); }));
        data.readFor(50);
    }
    // The next request the module's callback saw (code -1: none within ms).
    Seen next(int ms = 3000)
    {
        ztSimModule::Request r{-1, {}};
        sim.nextRequest(r, ms);
        return {r.code, r.payload};
    }
};

// Only requests reach the callback, once each and in order, when they come several to a
// segment. (A message split over several reads is the listener's and its framer's own test.)
TEST(ModuleProxyClient, OnlyRequestsReachTheCallbackOnceInOrder)
{
    Module module;
    module.connectHost();
    auto badMagic = proxyMessage(3, 0x10005, "bad", 3);
    badMagic[1] = 0x00;
    std::vector<char> segment;
    for (const auto& m : {proxyMessage(1, 0x10001, "one", 3), proxyMessage(2, 0x10002, "two", 3),
                          proxyMessage(4, 0x10003, "four", 4), badMagic, proxyMessage(3, 0x10006, "\x05\x00\x00\x00", 4),
                          proxyMessage(3, 0x10005, nullptr, 0)})
        segment.insert(segment.end(), m.begin(), m.end());
    ASSERT_TRUE(module.cmd.sendBytes(segment));
    EXPECT_EQ(module.next(), Seen(0x10006, Bytes().i32(5).chars()));
    EXPECT_EQ(module.next(), Seen(0x10005, {}));
    EXPECT_EQ(module.next(100).first, -1);
}

// Runs query on a thread of its own while the raw host answers the module's next query on
// the data channel with reply, after checking its sub type and payload; query's result.
template <class Query>
int answered(Module& module, std::uint32_t sub, const std::vector<char>& request, const std::vector<char>& reply, Query query)
{
    std::atomic<int> result{99};
    std::thread t([&] { result = query(); });
    ProxyMessage q;
    EXPECT_TRUE(module.data.readMessage(q, 3000));
    EXPECT_EQ(std::make_tuple(q.type, q.subType, q.payload), std::make_tuple(1, sub, request));
    EXPECT_TRUE(module.data.sendBytes(reply));
    t.join();
    return result;
}

TEST(ModuleQueries, FileQueriesTakeTheHostsAnswers)
{
    LogCapture log;
    Module module;
    module.connectHost();
    ztModuleProxyClient& m = module.sim.client();
    const auto pair = Bytes().u8(3).u8(2).text("a.s").text("bb").chars();
    auto answer = [](std::uint32_t sub, const std::vector<char>& payload, int type = 2) {
        return proxyMessage(type, sub, payload.data(), static_cast<int>(payload.size()));
    };

    std::vector<std::string> names;
    const auto list = Bytes().i32(2).i32(3).i32(4).text("onetwo!").chars();
    EXPECT_EQ(answered(module, 0x20000, Bytes().text("*.set").chars(), answer(0x20000, list), [&] { return m.enumSETFile("*.set", names); }), 0);
    EXPECT_EQ(names, (std::vector<std::string>{"one", "two!"}));
    // A list that declares more than it holds yields what is there: lengths are read while
    // four bytes remain (3, 50 and "abcd"), the texts from what is left ("ef").
    const auto cut = Bytes().i32(1000000).i32(3).i32(50).text("abcdef").chars();
    EXPECT_EQ(answered(module, 0x20000, {}, answer(0x20000, cut), [&] { return m.enumSETFile("", names); }), 0);
    EXPECT_EQ(names, (std::vector<std::string>{"ef", "", ""}));

    std::string md5;
    EXPECT_EQ(answered(module, 0x20001, pair, answer(0x20001, Bytes().text("d41d8cd9").chars()), [&] { return m.getSETFileMd5("a.s", "bb", md5); }), 0);
    EXPECT_EQ(md5, "d41d8cd9");
    unsigned int size = 7;
    auto sizeQuery = [&] { return m.getSETFileSize("a.s", "bb", &size); };
    EXPECT_EQ(answered(module, 0x20002, pair, answer(0x20002, Bytes().u32(4096).chars()), sizeQuery), 0);
    EXPECT_EQ(size, 4096u);
    // An answer of another length still succeeds and leaves the size alone.
    EXPECT_EQ(answered(module, 0x20002, pair, answer(0x20002, Bytes().u8(1).u8(2).chars()), sizeQuery), 0);
    EXPECT_EQ(size, 4096u);

    // File contents are copied up to the caller's capacity; a capacity of 2 GiB or more is
    // no negative number: at most the answer is copied.
    std::vector<unsigned char> file(8, 0xEE);
    EXPECT_EQ(answered(module, 0x20003, pair, answer(0x20003, Bytes().text("WXYZ").chars()), [&] { return m.getSETFile("a.s", "bb", file.data(), 3); }), 0);
    EXPECT_EQ(std::string(file.begin(), file.end()), "WXY\xEE\xEE\xEE\xEE\xEE");
    EXPECT_EQ(answered(module, 0x20003, pair, answer(0x20003, Bytes().text("WXYZ").chars()), [&] { return m.getSETFile("a.s", "bb", file.data(), 0xFFFFFFFFu); }), 0);
    EXPECT_EQ(std::string(file.begin(), file.end()), "WXYZ\xEE\xEE\xEE\xEE");
    EXPECT_EQ(answered(module, 0x20004, {}, answer(0x20004, Bytes().u32(321).chars()), [&] { return m.getCurBDBFileSize(&size); }), 0);
    EXPECT_EQ(size, 321u);
    EXPECT_EQ(answered(module, 0x20007, {}, answer(0x20007, Bytes().text("bar!").chars()), [&] { return m.getCurBarFile(file.data(), 4); }), 0);
    EXPECT_EQ(std::string(file.begin(), file.begin() + 4), "bar!");

    // A wrong answer fails the query, with the query's own log line where it has one.
    EXPECT_EQ(answered(module, 0x20002, pair, answer(0x20001, Bytes().u32(1).chars()), sizeQuery), -1);
    EXPECT_EQ(log.count("getSETFileSize zt_msg_is_avalible failed[0][2][131073]\r\n"), 1);
    EXPECT_EQ(answered(module, 0x20001, pair, answer(0x20001, {'x'}, 4), [&] { return m.getSETFileMd5("a.s", "bb", md5); }), -1);
    EXPECT_EQ(log.count("getSETFileMd5 zt_msg_is_avalible failed[0][4][131073]\r\n"), 1);
    auto badMagic = answer(0x20004, Bytes().u32(5).chars());
    badMagic[0] = 0x42;
    EXPECT_EQ(answered(module, 0x20004, {}, badMagic, [&] { return m.getCurBDBFileSize(&size); }), -1);
    EXPECT_EQ(size, 321u);
}

TEST(ModuleQueries, TimeOutAndThePreTriggerAnswer)
{
    LogCapture log;
    Module module;
    // Before any query the buffer holds no answer: -1 although the event went out.
    EXPECT_EQ(module.sim.client().sendDevicePreTrigger(5), -1);
    // Nobody answers: a short query gives up after its 1000 ms (the next shortest wait is
    // 5000 ms).
    unsigned int size = 0;
    const auto t = Clock::now();
    EXPECT_EQ(module.sim.client().getCurBarFileSize(&size), -1);
    EXPECT_GE(msSince(t), 1000);
    EXPECT_LT(msSince(t), 3000);

    // The host answers a pre-trigger; that answer is not read by the pre-trigger but by the
    // next query, which then fails on its sub type.
    module.connectHost();
    EXPECT_EQ(module.sim.client().sendDevicePreTrigger(0x1122334455667788ull), -1);
    ProxyMessage pre;
    ASSERT_TRUE(module.data.readMessage(pre, 1000));
    EXPECT_EQ(pre.subType, 0x40003u);
    EXPECT_EQ(pre.payload, Bytes().u64(0x1122334455667788ull).chars());
    ASSERT_TRUE(module.data.sendBytes(proxyMessage(2, 0x40003, nullptr, 0)));
    std::string md5 = "kept";
    EXPECT_EQ(module.sim.client().getSETFileMd5("a", "b", md5), -1);
    EXPECT_EQ(md5, "kept");
    EXPECT_EQ(log.count("getSETFileMd5 zt_msg_is_avalible failed[0][2][262147]\r\n"), 1);
    // Now the buffer holds the host's pre-trigger answer, so the next pre-trigger succeeds.
    EXPECT_EQ(module.sim.client().sendDevicePreTrigger(1), 0);
}

// The host goes away while the module waits for a file size: the query still waits out its
// whole 5000 ms and fails with its log line, though a new host connects and registers
// meanwhile; the new host answers the next query.
TEST(ModuleQueries, HostLostWhileTheModuleWaitsForAFile)
{
    LogCapture log;
    Module module;
    module.connectHost();
    ztModuleProxyServer next;
    next.registerModuleServerDataCB(
        [](int code, char*, int, void* h) {
            if (code == 0x20002)
                static_cast<ztModuleProxyServer*>(h)->sendSETFileSizeRep(4242);
        },
        &next);
    std::thread lose([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        module.cmd.close();
        module.data.close();
        EXPECT_EQ(next.init("127.0.0.1"), 0);
    });
    unsigned int size = 7;
    const auto t = Clock::now();
    EXPECT_EQ(module.sim.client().getSETFileSize("scanner", "set-1", &size), -1);
    const long took = msSince(t);
    lose.join();
    EXPECT_GE(took, 4950);
    EXPECT_LT(took, 5000 + 1000);
    EXPECT_EQ(size, 7u);
    EXPECT_EQ(log.count("getSETFileSize m_data_server->recv failed\r\n"), 1);

    ASSERT_TRUE(next.waitRegistered(8000));
    EXPECT_EQ(module.sim.client().getSETFileSize("scanner", "set-1", &size), 0);
    EXPECT_EQ(size, 4242u);
    module.sim.stop(); // the host's data receive sees the connection close
    next.deInit();
}

} // namespace
