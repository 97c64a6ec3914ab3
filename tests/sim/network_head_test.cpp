// The simulated network head seen from a host written from the wire format: real sockets
// on loopback, the head's real threads. Runs in a private network namespace, so the
// head's fixed port is free.
#include "host_peer.h"
#include "support/fault_scenario.h"
#include "ztSimNetworkHead.h"

#include <gtest/gtest.h>

#include <array>

namespace {

using zt::tools::bytes;
using zt::tools::embeddedMessage;
using zt::tools::joined;
using zt::tools::littleEndian;
using Bytes = std::vector<char>;
using Head = ztSimNetworkHead;
using zt::test::Clock;
using zt::test::msSince;

constexpr int kPort = Head::kDefaultPort;
const Bytes kHeartbeat = bytes({0xAA, 0x08, 0, 0, 0, 0x02, 0x00, 0xBB});
const Bytes kTrigger = embeddedMessage(13, littleEndian(1, 4));

Bytes statusReply(int status)
{
    return embeddedMessage(0, littleEndian(static_cast<std::uint32_t>(status), 4));
}

// A host connection; quiet() is true when nothing arrives within ms.
struct Host : zt::tools::RawConnection {
    bool connect() { return RawConnection::connect("127.0.0.1", kPort, 2000); }
    Bytes read(std::size_t n) { return readBytes(n, 3000); }
    bool quiet(int ms) { return readFor(ms).empty(); }
};

class NetworkHead : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(head.start(), 0); }
    // Opens the four connections one after the other, as a host does.
    void connectAll()
    {
        for (int i = 0; i < 4; ++i) {
            ASSERT_TRUE(p[i].connect()) << "connection " << i;
            ASSERT_TRUE(head.waitConnected(Head::Channel(i), 2000)) << "channel " << i;
        }
    }
    Head head;
    std::array<Host, 4> p;
};

TEST_F(NetworkHead, ConnectionsTakeChannelsInArrivalOrderAndStartNewSets)
{
    for (int i = 0; i < 4; ++i) {
        ASSERT_TRUE(p[i].connect());
        ASSERT_TRUE(head.waitConnected(Head::Channel(i), 2000)) << i;
        for (int j = i + 1; j < 4; ++j)
            EXPECT_FALSE(head.isConnected(Head::Channel(j)));
    }
    // The roles follow: only the third answers heartbeats, only the first commands.
    ASSERT_TRUE(p[2].sendBytes(kHeartbeat));
    EXPECT_EQ(p[2].read(8), kHeartbeat);
    ASSERT_TRUE(p[0].sendBytes(kTrigger));
    EXPECT_EQ(p[0].read(12), statusReply(0));
    ASSERT_TRUE(p[1].sendBytes(kHeartbeat));
    ASSERT_TRUE(p[3].sendBytes(kTrigger));
    EXPECT_TRUE(p[1].quiet(200));
    EXPECT_TRUE(p[3].quiet(0));

    // Reconnecting only the missing ones puts them in their places.
    p[2].close();
    p[3].close();
    ASSERT_TRUE(head.waitDisconnected(Head::CommandData, 2000));
    ASSERT_TRUE(head.waitDisconnected(Head::LightPen, 2000));
    EXPECT_TRUE(head.isConnected(Head::Command));
    ASSERT_TRUE(p[2].connect());
    ASSERT_TRUE(head.waitConnected(Head::CommandData, 2000));
    ASSERT_TRUE(p[2].sendBytes(kHeartbeat));
    EXPECT_EQ(p[2].read(8), kHeartbeat);
    ASSERT_TRUE(p[3].connect());
    ASSERT_TRUE(head.waitConnected(Head::LightPen, 2000));

    // A fifth connection while all four stand begins a new set: the old four end.
    Host fifth;
    ASSERT_TRUE(fifth.connect());
    for (auto& c : p)
        EXPECT_TRUE(c.peerClosed(2000));
    ASSERT_TRUE(fifth.sendBytes(kTrigger));
    EXPECT_EQ(fifth.read(12), statusReply(0));
    EXPECT_EQ(head.connectionsAccepted(), 7);
    EXPECT_FALSE(head.isConnected(Head::Data));

}

TEST_F(NetworkHead, CommandsAreCutFromTheStreamAndAnsweredFromTheTableOrTheDevice)
{
    connectAll();
    Host& cmd = p[0];
    // Split inside the size field.
    ASSERT_TRUE(cmd.sendBytes(kTrigger.data(), 3));
    EXPECT_TRUE(cmd.quiet(100));
    ASSERT_TRUE(cmd.sendBytes(kTrigger.data() + 3, kTrigger.size() - 3));
    EXPECT_EQ(cmd.read(12), statusReply(0));
    Head::Request r;
    ASSERT_TRUE(head.nextCommand(r, 1000));
    EXPECT_EQ(r.type, 13);
    EXPECT_EQ(r.payload, littleEndian(1, 4));

    head.setStatusReply(13, -5);
    // Echo reply: the request's type and the payload as given (status, then 1.5f).
    head.setEchoReply(8, {0, 0, 0, 0, 0x00, 0x00, char(0xC0), 0x3F});
    const Bytes echo = bytes({0xAA, 0x10, 0, 0, 0, 0x08, 0x00, 0, 0, 0, 0, 0x00, 0x00, 0xC0, 0x3F, 0xBB});
    // Two requests and the start of a third in one write, the rest of it byte by byte.
    const Bytes query = embeddedMessage(8);
    ASSERT_TRUE(cmd.sendBytes(joined({kTrigger, query, Bytes(query.begin(), query.begin() + 6)})));
    EXPECT_EQ(cmd.read(12 + 16), joined({statusReply(-5), echo}));
    for (std::size_t i = 6; i < query.size(); ++i) {
        EXPECT_TRUE(cmd.quiet(i == 6 ? 100 : 0));
        ASSERT_TRUE(cmd.sendBytes(&query[i], 1));
    }
    EXPECT_EQ(cmd.read(16), echo);

    head.setNoReply(287);
    ASSERT_TRUE(cmd.sendBytes(embeddedMessage(287)));
    EXPECT_TRUE(cmd.quiet(300));
    // A silent head records its requests but keeps them from the device.
    head.setSilent(true);
    ASSERT_TRUE(cmd.sendBytes(embeddedMessage(16, littleEndian(50, 4))));
    EXPECT_TRUE(cmd.quiet(300));
    head.setSilent(false);
    std::vector<unsigned short> types;
    while (head.nextCommand(r, 100))
        types.push_back(r.type);
    EXPECT_EQ(types, (std::vector<unsigned short>{13, 8, 8, 287, 16}));

    // Without a table entry the device answers and keeps the setting.
    head.resetReplies();
    ASSERT_TRUE(cmd.sendBytes(embeddedMessage(16, littleEndian(25, 4))));
    EXPECT_EQ(cmd.read(12), statusReply(0));
    EXPECT_EQ(head.device().value(17), 25u);
    // The table overrides the device until it is emptied.
    head.setStatusReply(17, -2);
    ASSERT_TRUE(cmd.sendBytes(embeddedMessage(17)));
    EXPECT_EQ(cmd.read(12), statusReply(-2));
    head.resetReplies();
    // No reply to a pre-trigger: the next bytes are the answer to the next request.
    ASSERT_TRUE(cmd.sendBytes(embeddedMessage(13, littleEndian(2, 4))));
    EXPECT_TRUE(cmd.quiet(200));
    ASSERT_TRUE(cmd.sendBytes(embeddedMessage(17)));
    EXPECT_EQ(cmd.read(16), embeddedMessage(17, joined({littleEndian(0, 4), littleEndian(25, 4)})));
}

TEST_F(NetworkHead, PushedPacketsHaveTheirExactBytesAndHostBytesAreKept)
{
    connectAll();
    Bytes payload(100);
    for (std::size_t i = 0; i < payload.size(); ++i)
        payload[i] = static_cast<char>(i * 7);
    EXPECT_EQ(head.sendExtendedPacket(Head::Data, 1280, 0x1122334455667788ull, payload.data(), payload.size()), 177);
    EXPECT_EQ(p[1].read(177), joined({bytes({0xAA, 177, 0, 0, 0, 0x00, 0x05}), Bytes(57, 0),
                                      littleEndian(0x1122334455667788ull, 8), bytes({0x55, 0xFF, 0x00, 0xCC}),
                                      payload, bytes({0xBB})}));
    EXPECT_EQ(head.sendMessage(Head::CommandData, 2, nullptr, 0), 8);
    EXPECT_EQ(p[2].read(8), kHeartbeat);
    EXPECT_EQ(head.sendBytes(Head::LightPen, "*AB12", 5), 5);
    EXPECT_EQ(p[3].read(5), bytes({'*', 'A', 'B', '1', '2'}));

    // What the host sends on the data and light-pen connections is kept as it came.
    ASSERT_TRUE(p[3].sendBytes(joined({bytes({'l', 'p', 0, 1}), kHeartbeat})));
    ASSERT_TRUE(head.waitReceived(Head::LightPen, 12, 2000));
    EXPECT_EQ(head.takeReceived(Head::LightPen), joined({bytes({'l', 'p', 0, 1}), kHeartbeat}));
    EXPECT_TRUE(p[3].quiet(100));

    head.closeChannel(Head::LightPen);
    EXPECT_TRUE(p[3].peerClosed(1000));
    EXPECT_FALSE(head.isConnected(Head::LightPen));
    EXPECT_EQ(head.sendMessage(Head::LightPen, 2, nullptr, 0), -1);
    // A write to a connection whose peer went away fails without a signal.
    p[1].close();
    ASSERT_TRUE(head.waitDisconnected(Head::Data, 2000));
    EXPECT_EQ(head.sendBytes(Head::Data, "x", 1), -1);
}

TEST_F(NetworkHead, StreamsDeliverCountTimesTheUnitAtTheAskedRate)
{
    const Bytes unit = Head::message(700, "unit", 4);
    // Started before the data connection exists: it waits for it.
    head.startStream(Head::Data, unit, 500, 0);
    EXPECT_FALSE(head.waitStreamDone(100));
    connectAll();
    Bytes all;
    for (int k = 0; k < 500; ++k)
        all = joined({all, unit});
    EXPECT_EQ(p[1].readBytes(all.size(), 5000), all);
    EXPECT_TRUE(head.waitStreamDone(2000));
    EXPECT_EQ(head.streamedBytes(), 500 * unit.size());
    EXPECT_TRUE(p[1].quiet(200));

    // 20 units of 10000 bytes at 400000 bytes/s: the last leaves after 19/40 s.
    const auto t0 = Clock::now();
    head.startStream(Head::Data, Bytes(10000, 'z'), 20, 400000);
    EXPECT_EQ(p[1].readBytes(200000, 5000).size(), 200000u);
    EXPECT_GE(msSince(t0), 450);
    EXPECT_LT(msSince(t0), 3000);

    // Without a count it runs until stopped, and stops between units.
    head.startStream(Head::Data, unit, 0, 0);
    std::atomic<std::size_t> seen{0};
    std::thread reader([&] {
        for (std::size_t n = 1; n > 0; seen += n)
            n = p[1].readFor(300).size();
    });
    EXPECT_TRUE(zt::test::waitUntil(5000, [&] { return head.streamedBytes() >= 100 * unit.size(); }));
    head.stopStream();
    EXPECT_TRUE(head.waitStreamDone(0));
    reader.join();
    EXPECT_GE(head.streamedBytes(), 100 * unit.size());
    EXPECT_EQ(head.streamedBytes() % unit.size(), 0u);
    EXPECT_EQ(seen.load(), head.streamedBytes());
}

TEST_F(NetworkHead, StopWithBusyConnectionsReturnsPromptlyAndTheHeadStartsAgain)
{
    connectAll();
    head.setReplyDelay(5000);
    ASSERT_TRUE(p[0].sendBytes(kTrigger));
    // A stream that the host never reads: its writes block.
    head.startStream(Head::Data, Bytes(1 << 20, 'x'), 0, 0);
    EXPECT_TRUE(zt::test::waitUntil(2000, [&] { return head.streamedBytes() >= (1u << 20); }));
    std::this_thread::sleep_for(std::chrono::milliseconds(200)); // the next write blocks
    const auto t1 = Clock::now();
    head.stop();
    EXPECT_LT(msSince(t1), 1000);
    for (int i : {0, 2, 3})
        EXPECT_TRUE(p[i].peerClosed(1000)) << i;
    for (int i = 0; i < 4; ++i)
        EXPECT_FALSE(head.isConnected(Head::Channel(i)));
    head.stop();

    head.setReplyDelay(0);
    ASSERT_EQ(head.start(), 0);
    Host again;
    ASSERT_TRUE(again.connect());
    ASSERT_TRUE(head.waitConnected(Head::Command, 2000));
    ASSERT_TRUE(again.sendBytes(kTrigger));
    EXPECT_EQ(again.read(12), statusReply(0));
}

} // namespace
