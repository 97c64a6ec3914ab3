// The simulated network head seen from a host written from the wire format: real sockets
// on loopback, the head's real threads. Runs in a private network namespace, so the
// head's fixed port is free.
#include "sim/raw_host.h"
#include "ztSimNetworkHead.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <chrono>
#include <map>
#include <mutex>
#include <thread>

namespace {

using zt::test::Bytes;
using zt::test::concat;
using zt::test::embedded;
using zt::test::le32;
using zt::test::RawHost;
using Head = ztSimNetworkHead;
using Clock = std::chrono::steady_clock;

constexpr int kPort = 42001;
const Bytes kHeartbeat{0xAA, 0x08, 0x00, 0x00, 0x00, 0x02, 0x00, 0xBB};
const Bytes kStatusZero{0xAA, 0x0C, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0xBB};

long msSince(Clock::time_point t)
{
    return static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t).count());
}

class NetworkHead : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(head.start(), 0); }

    // Opens the four connections one after the other, as a host does.
    std::array<RawHost, 4> connectAll()
    {
        std::array<RawHost, 4> p;
        for (int i = 0; i < 4; ++i) {
            EXPECT_TRUE(p[i].connect(kPort)) << "connection " << i;
            EXPECT_TRUE(head.waitConnected(Head::Channel(i), 2000)) << "channel " << i;
        }
        return p;
    }

    Head head;
};

TEST_F(NetworkHead, ConnectionsTakeChannelsInArrivalOrderAndStartNewSets)
{
    std::mutex m;
    std::vector<std::pair<int, bool>> events;
    head.setConnectionObserver([&](Head::Channel c, bool up, const std::string& peer) {
        std::lock_guard<std::mutex> lock(m);
        events.emplace_back(c, up);
        EXPECT_EQ(peer.rfind("127.0.0.1:", 0), 0u) << peer;
    });
    std::array<RawHost, 4> p;
    for (int i = 0; i < 4; ++i) {
        ASSERT_TRUE(p[i].connect(kPort));
        ASSERT_TRUE(head.waitConnected(Head::Channel(i), 2000)) << i;
        for (int j = i + 1; j < 4; ++j)
            EXPECT_FALSE(head.isConnected(Head::Channel(j)));
    }
    EXPECT_EQ(head.connectionsAccepted(), 4);
    // The roles follow: only the third answers heartbeats, only the first commands.
    ASSERT_TRUE(p[2].send(kHeartbeat));
    EXPECT_EQ(p[2].read(8), kHeartbeat);
    ASSERT_TRUE(p[0].send(embedded(13, le32(1))));
    EXPECT_EQ(p[0].read(12), kStatusZero);
    ASSERT_TRUE(p[1].send(kHeartbeat));
    ASSERT_TRUE(p[3].send(embedded(13, le32(1))));
    EXPECT_TRUE(p[1].quiet(200));
    EXPECT_TRUE(p[3].quiet(0));

    // A host that drops all four and reconnects at once gets the same order again.
    for (auto& c : p)
        c.close();
    for (int i = 0; i < 4; ++i)
        ASSERT_TRUE(p[i].connect(kPort));
    for (int i = 0; i < 4; ++i)
        ASSERT_TRUE(head.waitConnected(Head::Channel(i), 2000));
    ASSERT_TRUE(p[2].send(kHeartbeat));
    EXPECT_EQ(p[2].read(8), kHeartbeat);

    // Reconnecting only the missing ones puts them in their places.
    p[2].close();
    p[3].close();
    ASSERT_TRUE(head.waitDisconnected(Head::CommandData, 2000));
    ASSERT_TRUE(head.waitDisconnected(Head::LightPen, 2000));
    EXPECT_TRUE(head.isConnected(Head::Command));
    ASSERT_TRUE(p[2].connect(kPort));
    ASSERT_TRUE(head.waitConnected(Head::CommandData, 2000));
    ASSERT_TRUE(p[2].send(kHeartbeat));
    EXPECT_EQ(p[2].read(8), kHeartbeat);
    ASSERT_TRUE(p[3].connect(kPort));
    ASSERT_TRUE(head.waitConnected(Head::LightPen, 2000));

    // A fifth connection while all four stand begins a new set: the old four end.
    RawHost fifth;
    ASSERT_TRUE(fifth.connect(kPort));
    for (auto& c : p)
        EXPECT_TRUE(c.closedByHead(2000));
    ASSERT_TRUE(fifth.send(embedded(13, le32(1))));
    EXPECT_EQ(fifth.read(12), kStatusZero);
    EXPECT_EQ(head.connectionsAccepted(), 11);
    EXPECT_TRUE(head.isConnected(Head::Command));
    EXPECT_FALSE(head.isConnected(Head::Data));

    head.stop();
    std::lock_guard<std::mutex> lock(m);
    int ups = 0, downs = 0;
    for (auto& e : events)
        (e.second ? ups : downs)++;
    EXPECT_EQ(ups, 11);
    EXPECT_EQ(downs, 11);
    ASSERT_GE(events.size(), 4u);
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(events[i], std::make_pair(i, true));
}

TEST_F(NetworkHead, CommandsAreCutFromTheStreamAndAnsweredFromTheTable)
{
    auto p = connectAll();
    RawHost& cmd = p[0];
    // Split inside the size field.
    const Bytes trigger = embedded(13, le32(1));
    ASSERT_TRUE(cmd.send(Bytes(trigger.begin(), trigger.begin() + 3)));
    EXPECT_TRUE(cmd.quiet(100));
    ASSERT_TRUE(cmd.send(Bytes(trigger.begin() + 3, trigger.end())));
    EXPECT_EQ(cmd.read(12), kStatusZero);
    Head::Request r;
    ASSERT_TRUE(head.nextCommand(r, 1000));
    EXPECT_EQ(r.type, 13);
    EXPECT_EQ(r.payload, (std::vector<char>{1, 0, 0, 0}));

    head.setStatusReply(13, -5);
    ASSERT_TRUE(cmd.send(trigger));
    EXPECT_EQ(cmd.read(12), (Bytes{0xAA, 0x0C, 0, 0, 0, 0x00, 0x00, 0xFB, 0xFF, 0xFF, 0xFF, 0xBB}));

    // Echo reply: the request's type and the payload as given (status, then 1.5f).
    head.setEchoReply(8, {0, 0, 0, 0, 0x00, 0x00, char(0xC0), 0x3F});
    const Bytes echo{0xAA, 0x10, 0, 0, 0, 0x08, 0x00, 0, 0, 0, 0, 0x00, 0x00, 0xC0, 0x3F, 0xBB};
    // Two requests and the start of a third in one write, the rest of it byte by byte.
    const Bytes query = embedded(8);
    ASSERT_TRUE(cmd.send(concat({trigger, query, Bytes(query.begin(), query.begin() + 6)})));
    EXPECT_EQ(cmd.read(12 + 16), concat({Bytes{0xAA, 0x0C, 0, 0, 0, 0, 0, 0xFB, 0xFF, 0xFF, 0xFF, 0xBB}, echo}));
    for (std::size_t i = 6; i < query.size(); ++i) {
        EXPECT_TRUE(cmd.quiet(i == 6 ? 100 : 0));
        ASSERT_TRUE(cmd.send(&query[i], 1));
    }
    EXPECT_EQ(cmd.read(16), echo);

    head.setNoReply(287);
    ASSERT_TRUE(cmd.send(embedded(287)));
    EXPECT_TRUE(cmd.quiet(300));
    head.setRawReply(15, {1, 2, 3});
    ASSERT_TRUE(cmd.send(embedded(15)));
    EXPECT_EQ(cmd.read(3), (Bytes{1, 2, 3}));
    EXPECT_TRUE(cmd.quiet(200));
    head.setSilent(true);
    ASSERT_TRUE(cmd.send(trigger));
    EXPECT_TRUE(cmd.quiet(300));

    // Every request was recorded in order, the silent one too.
    std::vector<unsigned short> types;
    while (head.nextCommand(r, 100))
        types.push_back(r.type);
    EXPECT_EQ(types, (std::vector<unsigned short>{13, 13, 8, 8, 287, 15, 13}));
    head.setSilent(false);
    head.resetReplies();
    ASSERT_TRUE(cmd.send(trigger));
    EXPECT_EQ(cmd.read(12), kStatusZero);
}

TEST_F(NetworkHead, DefaultRepliesToTheOnlineQueries)
{
    auto p = connectAll();
    // Ability, long form: status 0, byte count 56, 0, header 1, version 1, product type 42,
    // ability2, 3, 4, then 6 to 11, and ability5 last.
    ASSERT_TRUE(p[0].send(embedded(345)));
    Bytes ability{0xAA, 72, 0, 0, 0, 0x59, 0x01};
    for (std::uint32_t w : {0u, 56u, 0u, 1u, 1u, 42u, 2u, 3u, 4u, 6u, 7u, 8u, 9u, 10u, 11u, 5u})
        zt::test::appendLE(ability, w, 4);
    ability.push_back(0xBB);
    EXPECT_EQ(p[0].read(72), ability);

    // SET file, three times as a host asks for it: type 264 echoed, status 0 first.
    for (std::uint32_t kind : {0u, 1u, 2u}) {
        ASSERT_TRUE(p[0].send(embedded(264, le32(kind))));
        const Bytes set = p[0].read(8 + 4 + 24);
        ASSERT_EQ(set.size(), 36u);
        EXPECT_EQ(Bytes(set.begin(), set.begin() + 11), (Bytes{0xAA, 36, 0, 0, 0, 0x08, 0x01, 0, 0, 0, 0}));
        EXPECT_EQ(std::string(set.begin() + 11, set.end() - 1), "simulated head SET file\n");
        EXPECT_EQ(set.back(), 0xBB);
    }
    // Program version: status 0, then the word 0x01020304.
    ASSERT_TRUE(p[0].send(embedded(276)));
    EXPECT_EQ(p[0].read(16), (Bytes{0xAA, 16, 0, 0, 0, 0x14, 0x01, 0, 0, 0, 0, 4, 3, 2, 1, 0xBB}));
    ASSERT_TRUE(p[0].send(embedded(999)));
    EXPECT_EQ(p[0].read(12), kStatusZero);

    // The short form leaves the header out and marks itself with a non-zero second word.
    head.setEchoReply(345, Head::abilityPayload({9, 77, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11}, false, 0));
    ASSERT_TRUE(p[0].send(embedded(345)));
    Bytes shortForm{0xAA, 68, 0, 0, 0, 0x59, 0x01};
    for (std::uint32_t w : {0u, 52u, 1u, 1u, 77u, 2u, 3u, 4u, 6u, 7u, 8u, 9u, 10u, 11u, 5u})
        zt::test::appendLE(shortForm, w, 4);
    shortForm.push_back(0xBB);
    EXPECT_EQ(p[0].read(68), shortForm);
}

TEST_F(NetworkHead, RefusedChannelGoesUnansweredWhileTheOthersStay)
{
    head.setRefuseChannel(2);
    std::array<RawHost, 4> p;
    ASSERT_TRUE(p[0].connect(kPort));
    ASSERT_TRUE(p[1].connect(kPort));
    const auto t0 = Clock::now();
    EXPECT_FALSE(p[2].connect(kPort, 3000));
    EXPECT_EQ(p[2].error(), ETIMEDOUT);
    EXPECT_GE(msSince(t0), 2900);
    EXPECT_TRUE(head.isConnected(Head::Command));
    EXPECT_TRUE(head.isConnected(Head::Data));
    EXPECT_FALSE(head.isConnected(Head::CommandData));
    EXPECT_EQ(head.connectionsAccepted(), 2);
    // The two that stand keep working.
    ASSERT_TRUE(p[0].send(embedded(13, le32(1))));
    EXPECT_EQ(p[0].read(12), kStatusZero);

    // Lifted: the missing two connect and take their places.
    head.setRefuseChannel(-1);
    ASSERT_TRUE(p[2].connect(kPort));
    ASSERT_TRUE(head.waitConnected(Head::CommandData, 2000));
    ASSERT_TRUE(p[3].connect(kPort));
    ASSERT_TRUE(head.waitConnected(Head::LightPen, 2000));
    ASSERT_TRUE(p[2].send(kHeartbeat));
    EXPECT_EQ(p[2].read(8), kHeartbeat);
    EXPECT_EQ(head.connectionsAccepted(), 4);
}

TEST_F(NetworkHead, PushedPacketsHaveTheirExactBytes)
{
    auto p = connectAll();
    Bytes payload(100);
    for (std::size_t i = 0; i < payload.size(); ++i)
        payload[i] = static_cast<unsigned char>(i * 7);
    EXPECT_EQ(head.sendExtendedPacket(Head::Data, 1280, 0x1122334455667788ull, payload.data(), payload.size()), 177);
    const Bytes ext = p[1].read(177);
    ASSERT_EQ(ext.size(), 177u);
    EXPECT_EQ(Bytes(ext.begin(), ext.begin() + 7), (Bytes{0xAA, 177, 0, 0, 0, 0x00, 0x05}));
    EXPECT_EQ(Bytes(ext.begin() + 7, ext.begin() + 64), Bytes(57, 0));
    EXPECT_EQ(Bytes(ext.begin() + 64, ext.begin() + 72), (Bytes{0x88, 0x77, 0x66, 0x55, 0x44, 0x33, 0x22, 0x11}));
    EXPECT_EQ(Bytes(ext.begin() + 72, ext.begin() + 76), (Bytes{0x55, 0xFF, 0x00, 0xCC}));
    EXPECT_EQ(Bytes(ext.begin() + 76, ext.end() - 1), payload);
    EXPECT_EQ(ext.back(), 0xBB);

    // Bad tail and a tag in the wrong byte order, for the host's rejection paths.
    EXPECT_EQ(head.sendExtendedPacket(Head::Data, 512, 1, payload.data(), 83, false, 0x55FF00CC), 160);
    const Bytes bad = p[1].read(160);
    ASSERT_EQ(bad.size(), 160u);
    EXPECT_EQ(Bytes(bad.begin(), bad.begin() + 7), (Bytes{0xAA, 160, 0, 0, 0, 0x00, 0x02}));
    EXPECT_EQ(Bytes(bad.begin() + 72, bad.begin() + 76), (Bytes{0xCC, 0x00, 0xFF, 0x55}));
    EXPECT_EQ(bad.back(), 0xBC);

    EXPECT_EQ(head.sendPlainPacket(Head::Data, 513, payload.data(), 80), 88);
    const Bytes plain = p[1].read(88);
    ASSERT_EQ(plain.size(), 88u);
    EXPECT_EQ(Bytes(plain.begin(), plain.begin() + 7), (Bytes{0xAA, 88, 0, 0, 0, 0x01, 0x02}));
    EXPECT_EQ(Bytes(plain.begin() + 7, plain.end() - 1), Bytes(payload.begin(), payload.begin() + 80));
    EXPECT_EQ(plain.back(), 0xBB);
    EXPECT_EQ(head.sendPlainPacket(Head::Data, 514, payload.data(), 80, false), 88);
    EXPECT_EQ(p[1].read(88).back(), 0xBC);

    EXPECT_EQ(head.sendMessage(Head::CommandData, 2, nullptr, 0), 8);
    EXPECT_EQ(p[2].read(8), kHeartbeat);
    EXPECT_EQ(head.sendBytes(Head::LightPen, "*AB12", 5), 5);
    EXPECT_EQ(p[3].read(5), (Bytes{'*', 'A', 'B', '1', '2'}));

    // What the host sends on the data and light-pen connections is kept as it came.
    ASSERT_TRUE(p[3].send(Bytes{'l', 'p', 0, 1}));
    ASSERT_TRUE(head.waitReceived(Head::LightPen, 4, 2000));
    EXPECT_EQ(head.takeReceived(Head::LightPen), (std::vector<char>{'l', 'p', 0, 1}));
    EXPECT_TRUE(head.takeReceived(Head::LightPen).empty());

    head.closeChannel(Head::LightPen);
    EXPECT_TRUE(p[3].closedByHead(1000));
    EXPECT_FALSE(head.isConnected(Head::LightPen));
    EXPECT_EQ(head.sendMessage(Head::LightPen, 2, nullptr, 0), -1);
    // A write to a connection whose peer went away fails without a signal.
    p[1].close();
    ASSERT_TRUE(head.waitDisconnected(Head::Data, 2000));
    EXPECT_EQ(head.sendBytes(Head::Data, "x", 1), -1);
}

TEST_F(NetworkHead, StreamsDeliverCountTimesTheUnitAtTheAskedRate)
{
    std::vector<char> payload(1000);
    for (std::size_t i = 0; i < payload.size(); ++i)
        payload[i] = static_cast<char>(i);
    const std::vector<char> unit = Head::message(700, payload.data(), payload.size());
    // Started before the data connection exists: it waits for it.
    head.startStream(Head::Data, unit, 500, 0);
    EXPECT_FALSE(head.waitStreamDone(100));
    auto p = connectAll();
    const Bytes got = p[1].read(500 * unit.size(), 5000);
    ASSERT_EQ(got.size(), 500 * unit.size());
    for (std::size_t k = 0; k < 500; ++k)
        ASSERT_TRUE(std::equal(unit.begin(), unit.end(), got.begin() + k * unit.size(),
                               [](char a, unsigned char b) { return static_cast<unsigned char>(a) == b; }))
            << "unit " << k;
    EXPECT_TRUE(head.waitStreamDone(2000));
    EXPECT_EQ(head.streamedBytes(), 500 * unit.size());
    EXPECT_TRUE(p[1].quiet(200));

    // 20 units of 10000 bytes at 400000 bytes/s: the last leaves after 19/40 s.
    const std::vector<char> big(10000, 'z');
    const auto t0 = Clock::now();
    head.startStream(Head::Data, big, 20, 400000);
    EXPECT_EQ(p[1].read(200000, 5000).size(), 200000u);
    EXPECT_GE(msSince(t0), 450);
    EXPECT_LT(msSince(t0), 3000);

    // Without a count it runs until stopped, and stops between units.
    std::atomic<std::size_t> seen{0};
    std::thread reader([&] {
        while (!p[1].quiet(500))
            seen += p[1].read(65536, 100).size();
    });
    head.startStream(Head::Data, unit, 0, 0);
    const auto t1 = Clock::now();
    while (head.streamedBytes() < 100 * unit.size() && msSince(t1) < 5000)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    head.stopStream();
    EXPECT_TRUE(head.waitStreamDone(0));
    reader.join();
    EXPECT_GE(head.streamedBytes(), 100 * unit.size());
    EXPECT_EQ(head.streamedBytes() % unit.size(), 0u);
    EXPECT_EQ(seen.load(), head.streamedBytes());
}

TEST_F(NetworkHead, StopWithBusyConnectionsReturnsPromptlyAndTheHeadStartsAgain)
{
    auto p = connectAll();
    head.setReplyDelay(5000);
    ASSERT_TRUE(p[0].send(embedded(13, le32(1))));
    // A stream that the host never reads: its writes block.
    head.startStream(Head::Data, std::vector<char>(1 << 20, 'x'), 0, 0);
    const auto t0 = Clock::now();
    while (head.streamedBytes() < (1u << 20) && msSince(t0) < 2000)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    const auto t1 = Clock::now();
    head.stop();
    EXPECT_LT(msSince(t1), 1000);
    for (int i : {0, 2, 3})
        EXPECT_TRUE(p[i].closedByHead(1000)) << i;
    for (int i = 0; i < 4; ++i)
        EXPECT_FALSE(head.isConnected(Head::Channel(i)));
    head.stop();

    head.setReplyDelay(0);
    ASSERT_EQ(head.start(), 0);
    RawHost again;
    ASSERT_TRUE(again.connect(kPort));
    ASSERT_TRUE(head.waitConnected(Head::Command, 2000));
    ASSERT_TRUE(again.send(embedded(13, le32(1))));
    EXPECT_EQ(again.read(12), kStatusZero);
}

} // namespace
