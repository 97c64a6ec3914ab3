// What the head pushes: command-data messages, whole receives of the data stream, light-pen
// bytes; and the parsers of callback payloads.
#include "host_peer.h"
#include "network/online.h"
#include "support/log_capture.h"
#include "support/tcp_unread.h"

#include <cstring>

using namespace zt::test;
using zt::tools::joined;
using zt::tools::littleEndian;

namespace {

void send(Head& head, Head::Channel c, const std::vector<char>& bytes)
{
    ASSERT_EQ(head.sendBytes(c, bytes.data(), bytes.size()), static_cast<int>(bytes.size()));
}

TEST(EmbeddedInbound, CommandDataMessagesOnePerRoundAndThe160ByteRule)
{
    LogCapture log;
    Online o;
    o.start();
    // Two messages in one write: two callbacks, in order.
    send(o.head, Head::CommandData, joined({Head::message(300, "alarm", 5), Head::message(301, "sync!", 5)}));
    ASSERT_EQ(o.seen.waitCount(301, 1, 3000), 1u);
    EXPECT_EQ(o.seen.order({300, 301}), (std::vector<int>{300, 301}));
    EXPECT_EQ(o.seen.payloads(300), std::vector<std::string>{"alarm"});

    // Half a message, then a receive of exactly 160 bytes: the half is thrown away and the
    // eight whole messages of the 160 bytes arrive.
    const auto half = Head::message(302, "0123456789", 10);
    o.head.sendBytes(Head::CommandData, half.data(), 9);
    ASSERT_TRUE(tcpInputTaken());
    std::vector<char> block;
    for (unsigned short t = 310; t < 318; ++t)
        block = joined({block, Head::message(t, "012345678901", 12)});
    ASSERT_EQ(block.size(), 160u);
    send(o.head, Head::CommandData, block);
    ASSERT_EQ(o.seen.waitCount(317, 1, 3000), 1u);
    EXPECT_EQ(o.seen.order({302, 310, 311, 312, 313, 314, 315, 316, 317}),
              (std::vector<int>{310, 311, 312, 313, 314, 315, 316, 317}));
    EXPECT_EQ(log.count("m_cmdData_tcp_client recv data len = 160, clear m_cmd_vec"), 1);
    // A bad head on this path is dropped without a log.
    auto bad = Head::message(320, "x", 1);
    bad[0] = 0x00;
    send(o.head, Head::CommandData, joined({bad, Head::message(321, "y", 1)}));
    EXPECT_EQ(o.seen.waitCount(321, 1, 3000), 1u);
    EXPECT_EQ(o.seen.count(320), 0u);
    EXPECT_EQ(log.count("processMsg::package head error"), 0);
}

TEST(EmbeddedInbound, WholeReceivesOf100Or160BytesAndTheDecoderReset)
{
    Online o;
    o.start();
    // A packet that arrives as one receive of exactly 100 or 160 bytes is delivered once.
    const std::string body100(100 - 8, 'h');
    const auto p100 = Head::plainPacket(514, body100.data(), body100.size());
    const auto p160 = streamPacket(160 - 77, 'e');
    ASSERT_EQ(p100.size(), 100u);
    ASSERT_EQ(p160.size(), 160u);
    send(o.head, Head::Data, p100);
    ASSERT_EQ(o.seen.waitCount(514, 1, 3000), 1u);
    send(o.head, Head::Data, p160);
    ASSERT_EQ(o.seen.waitCount(1280, 1, 3000), 1u);

    // resetQlensNetProto drops a packet half received.
    o.server.resetQlensNetProto(); // idle: harmless
    const auto good = streamPacket(300, 'z');
    o.head.sendBytes(Head::Data, good.data(), 200);
    ASSERT_TRUE(tcpInputTaken());
    o.server.resetQlensNetProto();
    o.head.sendBytes(Head::Data, good.data() + 200, good.size() - 200);
    send(o.head, Head::Data, good);
    EXPECT_EQ(o.seen.of(1280, 2), (std::vector<std::string>{payloadOf(p160), payloadOf(good)}));

    // Packets longer than a receive block go straight into the packet being read: they
    // arrive whole, also after a reset that drops one of them half received.
    std::vector<char> big = streamPacket(400000, 'b');
    for (std::size_t i = 77; i + 1 < big.size(); ++i)
        big[i] = static_cast<char>(i * 7);
    o.head.sendBytes(Head::Data, big.data(), 250000);
    ASSERT_TRUE(tcpInputTaken());
    o.server.resetQlensNetProto();
    o.head.sendBytes(Head::Data, big.data() + 250000, big.size() - 250000);
    send(o.head, Head::Data, big);
    send(o.head, Head::Data, big);
    // One receive thread delivers in order: a copy of p100 or p160 would be here by now.
    EXPECT_EQ(o.seen.of(1280, 4), (std::vector<std::string>{payloadOf(p160), payloadOf(good), payloadOf(big), payloadOf(big)}));
    EXPECT_EQ(o.seen.count(514), 1u);
}

TEST(EmbeddedInbound, LightPenBytesArriveWholeEveryTime)
{
    Online o;
    o.start();
    o.head.sendBytes(Head::LightPen, "pen-a;", 6);
    ASSERT_EQ(o.seen.waitCount(ZT_CODE_LIGHTPEN_DATA, 1, 3000), 1u);
    o.head.sendBytes(Head::LightPen, "pen-b;", 6);
    EXPECT_EQ(o.seen.of(ZT_CODE_LIGHTPEN_DATA, 2), (std::vector<std::string>{"pen-a;", "pen-a;pen-b;"}));
    // sendData uses the light-pen connection.
    std::string out = "hello pen";
    EXPECT_EQ(o.server.sendData(out), 0);
    ASSERT_TRUE(o.head.waitReceived(Head::LightPen, 9, 1000));
    const auto got = o.head.takeReceived(Head::LightPen);
    EXPECT_EQ(std::string(got.begin(), got.end()), "hello pen");
}

TEST(EmbeddedInbound, ProcessMsgAndPayloadParsers)
{
    LogCapture log;
    ztEmbeddedModuleProxyServer server;
    DataCalls calls;
    EXPECT_EQ(server.processMsg(nullptr), -2);
    auto msg = Head::message(500, "abc", 3);
    EXPECT_EQ(server.processMsg(msg.data()), 0); // no callback: consumed
    server.registerModuleServerDataCB(&DataCalls::cb, &calls);
    EXPECT_EQ(server.processMsg(msg.data()), 0);
    msg[0] = static_cast<char>(0xCC);
    EXPECT_EQ(server.processMsg(msg.data()), 0);
    msg[0] = 0x00;
    EXPECT_EQ(server.processMsg(msg.data()), -1);
    server.processMsg_Cmd(msg.data());
    server.processMsg_Cmd(nullptr);
    EXPECT_EQ(log.count("processMsg::package head error"), 1);
    EXPECT_EQ(calls.payloads(500), (std::vector<std::string>{"abc", "abc"}));

    // Fields read from where the head puts them, unaligned floats included.
    unsigned char raw[64];
    for (int i = 0; i < 64; ++i)
        raw[i] = static_cast<unsigned char>(i + 1);
    char* d = reinterpret_cast<char*>(raw);
    int code = 0;
    unsigned char a = 0, b = 0;
    server.analysisAlarmInfo(d, &code, &a, &b);
    EXPECT_EQ(std::vector<int>({code, a, b}), std::vector<int>({0x04030201, 5, 6}));
    unsigned short s1 = 0, s2 = 0;
    server.analysisSyncInfo(d, &code, &s1, &s2);
    EXPECT_EQ(std::vector<int>({s1, s2}), std::vector<int>({0x0605, 0x0807}));
    std::vector<float> values;
    const float f[3] = {1.5f, -2.25f, 3.0f};
    std::memcpy(raw + 4, f, 12);
    server.analysisAngleInfo(d, &code, &values);
    EXPECT_EQ(values, (std::vector<float>{1.5f, -2.25f, 3.0f}));
    raw[4] = 2; // two temperatures at offset 5
    std::memcpy(raw + 5, f, 8);
    server.analysisTempInfo(d, &code, &values);
    EXPECT_EQ(values, (std::vector<float>{1.5f, -2.25f}));

    // The find list appends its entries to those the caller's list holds.
    auto list = joined({littleEndian(9, 4), littleEndian(2, 4), std::vector<char>(2 * 52, 0)});
    list[8] = 'A';
    list[8 + 52] = 'B';
    lp::_ZT_LP_FIND_LIST_ found;
    found.entries.resize(1);
    int first = 0;
    server.analysisLightPenFindList(list.data(), first, found);
    EXPECT_EQ(std::vector<int>({first, found.count}), std::vector<int>({9, 2}));
    ASSERT_EQ(found.entries.size(), 3u);
    EXPECT_EQ(std::string({char(found.entries[1].bytes[0]), char(found.entries[2].bytes[0])}), "AB");

    // Marker records: 64 header bytes, stamp, width, height, count, then 42 bytes a marker.
    std::vector<char> rec(78 + 2 * 42, 0);
    rec[63] = 63;
    const std::uint64_t stamp = 0x1122334455667788ull;
    const std::uint16_t sizes[3] = {2048, 1536, 2};
    std::memcpy(&rec[64], &stamp, 8);
    std::memcpy(&rec[72], sizes, 6);
    const double marker[2][5] = {{5119.9, 10.0, 1.0, 2.0, 3.0}, {5120.0, -0.5, 0, 0, 0}};
    for (std::size_t i = 0; i < 2; ++i) {
        std::memcpy(&rec[78 + 42 * i], marker[i], 40);
        rec[78 + 42 * i + 40] = 7;
        rec[78 + 42 * i + 41] = static_cast<char>(0x80);
    }
    short width = 0, height = 0;
    unsigned long long gotStamp = 0;
    char head[64] = {};
    std::vector<std::vector<double>> markers(9);
    char* next = nullptr;
    testing::internal::CaptureStdout();
    EXPECT_EQ(server.getMarkerData(rec.data(), &width, &height, &gotStamp, head, markers, &next), 0);
    // A coordinate of 5120 or more, or below 0, warns; the marker is kept all the same.
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "标记点坐标存在负数！！！！！！！！！！5120 -0.5\n");
    EXPECT_EQ(std::vector<int>({width, height, head[63]}), std::vector<int>({2048, 1536, 63}));
    EXPECT_EQ(gotStamp, stamp);
    EXPECT_EQ(next, rec.data() + rec.size());
    ASSERT_EQ(markers.size(), 2u);
    EXPECT_EQ(markers[0], (std::vector<double>{5119.9, 10.0, 1.0, 2.0, 3.0, 7.0, 128.0}));
    EXPECT_EQ(markers[1][1], -0.5);
}

} // namespace
