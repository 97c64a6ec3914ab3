// What the head pushes: command-data messages, the data stream in packet and raw mode,
// light-pen bytes; and the parsers of callback payloads.
#include "support/log_capture.h"
#include "ztEmbeddedModuleProxyServer.h"
#include "ztSimNetworkHead.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

using zt::test::LogCapture;
using Head = ztSimNetworkHead;

namespace {

const char* const kIP = "127.0.0.1";

struct Calls {
    std::mutex mutex;
    std::condition_variable cv;
    std::vector<std::pair<int, std::string>> seen;
    static void cb(int type, char* data, int len, void* user)
    {
        auto* self = static_cast<Calls*>(user);
        std::lock_guard<std::mutex> lock(self->mutex);
        self->seen.emplace_back(type, data == nullptr ? std::string() : std::string(data, static_cast<std::size_t>(len)));
        self->cv.notify_all();
    }
    // Waits until n calls of the types in `types` have arrived; returns them in order.
    std::vector<std::pair<int, std::string>> wait(std::initializer_list<int> types, std::size_t n, int ms = 3000)
    {
        std::unique_lock<std::mutex> lock(mutex);
        std::vector<std::pair<int, std::string>> out;
        cv.wait_for(lock, std::chrono::milliseconds(ms), [&] {
            out.clear();
            for (const auto& c : seen)
                for (int t : types)
                    if (c.first == t)
                        out.push_back(c);
            return out.size() >= n;
        });
        return out;
    }
};

struct Online {
    Head head;
    Calls calls;
    ztEmbeddedModuleProxyServer server;
    void start()
    {
        ASSERT_EQ(head.start(), 0);
        server.registerModuleServerDataCB(&Calls::cb, &calls);
        ASSERT_EQ(server.init(kIP, kIP, "SN"), 0);
    }
};

std::string str(const std::vector<char>& v)
{
    return std::string(v.begin(), v.end());
}

std::string payloadOf(const std::vector<char>& message)
{
    return std::string(message.begin() + 7, message.end() - 1);
}

TEST(EmbeddedInbound, CommandDataMessagesOnePerRoundAndThe160ByteRule)
{
    Online o;
    o.start();
    // Two messages in one write: two callbacks, in order.
    auto a = Head::message(300, "alarm", 5);
    const auto b = Head::message(301, "sync!", 5);
    std::vector<char> both(a);
    both.insert(both.end(), b.begin(), b.end());
    ASSERT_GT(o.head.sendBytes(Head::CommandData, both.data(), both.size()), 0);
    auto got = o.calls.wait({300, 301}, 2);
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[0], std::make_pair(300, std::string("alarm")));
    EXPECT_EQ(got[1], std::make_pair(301, std::string("sync!")));

    // Half a message, then a receive of exactly 160 bytes: the half is thrown away and the
    // eight whole messages of the 160 bytes arrive.
    LogCapture log;
    const auto half = Head::message(302, "0123456789", 10);
    ASSERT_GT(o.head.sendBytes(Head::CommandData, half.data(), 9), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    std::vector<char> block;
    for (int i = 0; i < 8; ++i) {
        const auto m = Head::message(static_cast<unsigned short>(310 + i), "012345678901", 12);
        block.insert(block.end(), m.begin(), m.end());
    }
    ASSERT_EQ(block.size(), 160u);
    ASSERT_EQ(o.head.sendBytes(Head::CommandData, block.data(), block.size()), 160);
    got = o.calls.wait({310, 311, 312, 313, 314, 315, 316, 317}, 8);
    ASSERT_EQ(got.size(), 8u);
    for (int i = 0; i < 8; ++i)
        EXPECT_EQ(got[static_cast<std::size_t>(i)].first, 310 + i);
    EXPECT_EQ(log.count("m_cmdData_tcp_client recv data len = 160, clear m_cmd_vec"), 1);
    // A bad head on this path is dropped without a log.
    auto bad = Head::message(320, "x", 1);
    bad[0] = 0x00;
    o.head.sendBytes(Head::CommandData, bad.data(), bad.size());
    const auto after = Head::message(321, "y", 1);
    o.head.sendBytes(Head::CommandData, after.data(), after.size());
    EXPECT_EQ(o.calls.wait({321}, 1).size(), 1u);
    EXPECT_EQ(o.calls.wait({320}, 1, 50).size(), 0u);
    EXPECT_EQ(log.count("processMsg::package head error"), 0);
}

// Sends the same packets on the data connection and returns what the callback saw.
std::vector<std::pair<int, std::string>> streamPackets(Online& o, const std::vector<std::vector<char>>& packets,
                                                       std::initializer_list<int> types)
{
    std::vector<char> all;
    for (const auto& p : packets)
        all.insert(all.end(), p.begin(), p.end());
    // In pieces of odd sizes, so that packets are split across receives.
    for (std::size_t at = 0; at < all.size(); at += 777) {
        const std::size_t n = std::min<std::size_t>(777, all.size() - at);
        EXPECT_EQ(o.head.sendBytes(Head::Data, all.data() + at, n), static_cast<int>(n));
    }
    return o.calls.wait(types, packets.size());
}

TEST(EmbeddedInbound, PacketModeAndRawModeDeliverTheSameStream)
{
    std::vector<std::vector<char>> packets;
    std::vector<std::string> payloads;
    for (int i = 0; i < 6; ++i) {
        std::string body(200 + 97 * i, static_cast<char>('a' + i));
        packets.push_back(Head::extendedPacket(1280, 1000 + static_cast<unsigned long long>(i), body.data(), body.size()));
        payloads.push_back(payloadOf(packets.back()));
    }
    std::string plainBody(120, 'p');
    packets.push_back(Head::plainPacket(513, plainBody.data(), plainBody.size()));
    payloads.push_back(payloadOf(packets.back()));

    Online o;
    o.start();
    const auto packetMode = streamPackets(o, packets, {1280, 513});
    ASSERT_EQ(packetMode.size(), packets.size());
    for (std::size_t i = 0; i < packets.size(); ++i)
        EXPECT_EQ(packetMode[i].second, payloads[i]) << i;

    // A head of model 7340 streams raw messages: the same bytes, cut out as embedded
    // messages by the processing thread.
    o.head.setEchoReply(276, Head::valuePayload(0x07030400));
    int v[4];
    ASSERT_EQ(o.server.getRKProgramVersion(&v[0], &v[1], &v[2], &v[3]), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(50)); // the receiver switches
    {
        std::lock_guard<std::mutex> lock(o.calls.mutex);
        o.calls.seen.clear();
    }
    const auto rawMode = streamPackets(o, packets, {1280, 513});
    ASSERT_EQ(rawMode.size(), packets.size());
    EXPECT_EQ(rawMode, packetMode);
}

TEST(EmbeddedInbound, DecoderRulesOnTheDataConnection)
{
    LogCapture log;
    Online o;
    o.start();
    // A packet that arrives as one receive of exactly 100 or 160 bytes is delivered once.
    std::string body100(100 - 8, 'h');
    const auto p100 = Head::plainPacket(514, body100.data(), body100.size());
    ASSERT_EQ(p100.size(), 100u);
    o.head.sendBytes(Head::Data, p100.data(), p100.size());
    std::string body160(160 - 77, 'e');
    const auto p160 = Head::extendedPacket(1281, 7, body160.data(), body160.size());
    ASSERT_EQ(p160.size(), 160u);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    o.head.sendBytes(Head::Data, p160.data(), p160.size());
    EXPECT_EQ(o.calls.wait({514, 1281}, 2).size(), 2u);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(o.calls.wait({514, 1281}, 3, 50).size(), 2u);

    // Garbage, a bad tail and a wrong tag cost only themselves; the next packet arrives.
    const char garbage[] = "\x01\x02\x03\x55\x66";
    o.head.sendBytes(Head::Data, garbage, 5);
    std::string body(300, 'z');
    const auto badTail = Head::extendedPacket(1280, 1, body.data(), body.size(), false);
    const auto badTag = Head::extendedPacket(1280, 2, body.data(), body.size(), true, 0x55FF00CC);
    const auto good = Head::extendedPacket(1280, 3, body.data(), body.size());
    for (const auto* p : {&badTail, &badTag, &good})
        o.head.sendBytes(Head::Data, p->data(), p->size());
    const auto got = o.calls.wait({1280}, 1);
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].second, payloadOf(good));
    EXPECT_EQ(log.count("Decode packet tail error"), 1);
    EXPECT_EQ(log.count("Decode packet tag error, tag = 55ff00cc"), 1);

    // resetQlensNetProto drops a packet half received.
    o.server.resetQlensNetProto(); // idle: harmless
    o.head.sendBytes(Head::Data, good.data(), 200);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    o.server.resetQlensNetProto();
    o.head.sendBytes(Head::Data, good.data() + 200, good.size() - 200);
    o.head.sendBytes(Head::Data, good.data(), good.size());
    EXPECT_EQ(o.calls.wait({1280}, 2).size(), 2u);
}

TEST(EmbeddedInbound, LightPenBytesArriveWholeEveryTime)
{
    Online o;
    o.start();
    o.head.sendBytes(Head::LightPen, "pen-a;", 6);
    ASSERT_EQ(o.calls.wait({ZT_CODE_LIGHTPEN_DATA}, 1).size(), 1u);
    o.head.sendBytes(Head::LightPen, "pen-b;", 6);
    const auto got = o.calls.wait({ZT_CODE_LIGHTPEN_DATA}, 2);
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[0].second, "pen-a;");
    EXPECT_EQ(got[1].second, "pen-a;pen-b;");

    // sendData and recvOnceData use the light-pen connection.
    std::string out = "hello pen";
    EXPECT_EQ(o.server.sendData(out), 0);
    ASSERT_TRUE(o.head.waitReceived(Head::LightPen, 9, 1000));
    EXPECT_EQ(str(o.head.takeReceived(Head::LightPen)), "hello pen");
}

TEST(EmbeddedInbound, ProcessMsgAndParsers)
{
    LogCapture log;
    ztEmbeddedModuleProxyServer server;
    Calls calls;
    EXPECT_EQ(server.processMsg(nullptr), -2);
    auto msg = Head::message(500, "abc", 3);
    EXPECT_EQ(server.processMsg(msg.data()), 0); // no callback: consumed
    server.registerModuleServerDataCB(&Calls::cb, &calls);
    EXPECT_EQ(server.processMsg(msg.data()), 0);
    msg[0] = static_cast<char>(0xCC);
    EXPECT_EQ(server.processMsg(msg.data()), 0);
    msg[0] = 0x00;
    EXPECT_EQ(server.processMsg(msg.data()), -1);
    EXPECT_EQ(log.count("processMsg::package head error"), 1);
    server.processMsg_Cmd(msg.data());
    server.processMsg_Cmd(nullptr);
    EXPECT_EQ(log.count("processMsg::package head error"), 1);
    EXPECT_EQ(calls.wait({500}, 2).size(), 2u);

    unsigned char raw[64];
    for (int i = 0; i < 64; ++i)
        raw[i] = static_cast<unsigned char>(i + 1);
    char* d = reinterpret_cast<char*>(raw);
    int code = 0;
    unsigned char a = 0, b = 0;
    server.analysisAlarmInfo(d, &code, &a, &b);
    EXPECT_EQ(code, 0x04030201);
    EXPECT_EQ(a, 5);
    EXPECT_EQ(b, 6);
    unsigned short s1 = 0, s2 = 0;
    server.analysisSyncInfo(d, &code, &s1, &s2);
    EXPECT_EQ(s1, 0x0605);
    EXPECT_EQ(s2, 0x0807);
    std::vector<float> values;
    float f[3] = {1.5f, -2.25f, 3.0f};
    std::memcpy(raw + 4, f, 12);
    server.analysisAngleInfo(d, &code, &values);
    EXPECT_EQ(values, (std::vector<float>{1.5f, -2.25f, 3.0f}));
    raw[4] = 2; // two temperatures at offset 5, unaligned
    std::memcpy(raw + 5, f, 8);
    server.analysisTempInfo(d, &code, &values);
    EXPECT_EQ(values, (std::vector<float>{1.5f, -2.25f}));
    // The find list appends entries without clearing.
    std::vector<char> list(8 + 2 * 52, 0);
    const std::int32_t first = 9, count = 2;
    std::memcpy(list.data(), &first, 4);
    std::memcpy(list.data() + 4, &count, 4);
    list[8] = 'A';
    list[8 + 52] = 'B';
    lp::_ZT_LP_FIND_LIST_ found;
    found.entries.resize(1);
    int firstOut = 0;
    server.analysisLightPenFindList(list.data(), firstOut, found);
    EXPECT_EQ(firstOut, 9);
    EXPECT_EQ(found.count, 2);
    ASSERT_EQ(found.entries.size(), 3u);
    EXPECT_EQ(found.entries[1].bytes[0], 'A');
    EXPECT_EQ(found.entries[2].bytes[0], 'B');
}

TEST(EmbeddedInbound, MarkerRecordsAndTheirWarning)
{
    ztEmbeddedModuleProxyServer server;
    std::vector<char> rec(78 + 3 * 42, 0);
    for (int i = 0; i < 64; ++i)
        rec[static_cast<std::size_t>(i)] = static_cast<char>(i);
    const std::uint64_t stamp = 0x1122334455667788ull;
    const std::uint16_t w = 2048, h = 1536, n = 3;
    std::memcpy(&rec[64], &stamp, 8);
    std::memcpy(&rec[72], &w, 2);
    std::memcpy(&rec[74], &h, 2);
    std::memcpy(&rec[76], &n, 2);
    const double xs[3][2] = {{5119.9, 10.0}, {5120.0, 20.0}, {1.0, -0.5}};
    for (int i = 0; i < 3; ++i) {
        char* m = &rec[78 + 42 * static_cast<std::size_t>(i)];
        const double vals[5] = {xs[i][0], xs[i][1], 1.0 * i, 2.0 * i, 3.0 * i};
        std::memcpy(m, vals, 40);
        m[40] = static_cast<char>(7 + i);
        m[41] = static_cast<char>(0x80 + i);
    }
    short width = 0, height = 0;
    unsigned long long gotStamp = 0;
    char header[64] = {};
    std::vector<std::vector<double>> markers(9);
    char* next = nullptr;
    testing::internal::CaptureStdout();
    EXPECT_EQ(server.getMarkerData(rec.data(), &width, &height, &gotStamp, header, markers, &next), 0);
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(width, 2048);
    EXPECT_EQ(height, 1536);
    EXPECT_EQ(gotStamp, stamp);
    EXPECT_EQ(header[63], 63);
    EXPECT_EQ(next, rec.data() + rec.size());
    ASSERT_EQ(markers.size(), 3u);
    EXPECT_EQ(markers[0], (std::vector<double>{5119.9, 10.0, 0.0, 0.0, 0.0, 7.0, 128.0}));
    EXPECT_EQ(markers[2][1], -0.5);
    // x = 5120.0 and y = -0.5 warn, x = 5119.9 does not; the markers are kept all the same.
    EXPECT_EQ(out, "标记点坐标存在负数！！！！！！！！！！5120 20\n标记点坐标存在负数！！！！！！！！！！1 -0.5\n");
}

TEST(EmbeddedInbound, HostileHeadNeitherCrashesNorWedgesTheServer)
{
    LogCapture log(ZTLOG_LEVEL_OFF);
    Online o;
    o.start();
    // Random bytes without a tag byte on the data connection: all dropped, then a good
    // packet arrives.
    std::vector<char> noise(256 * 1024);
    unsigned int seed = 12345;
    for (char& c : noise) {
        seed = seed * 1103515245u + 12345u;
        c = static_cast<char>((seed >> 16) & 0xFF);
        if (static_cast<unsigned char>(c) == 0xAA)
            c = 0x55;
    }
    o.head.sendBytes(Head::Data, noise.data(), noise.size());
    std::string body(500, 'g');
    const auto good = Head::extendedPacket(1280, 9, body.data(), body.size());
    o.head.sendBytes(Head::Data, good.data(), good.size());
    auto got = o.calls.wait({1280}, 1);
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].second, payloadOf(good));

    // Lengths at and beyond every limit: 159 and 0x1E00001 are refused by their header, a
    // plain packet of 2000001 is skipped, and the next good packet still arrives.
    auto tooShort = Head::extendedPacket(1280, 1, body.data(), 159 - 77);
    auto tooLong = Head::extendedPacket(1280, 1, body.data(), 0);
    const std::uint32_t huge = 0x1E00001;
    std::memcpy(tooLong.data() + 1, &huge, 4);
    auto plainLong = Head::plainPacket(513, body.data(), 100);
    const std::uint32_t plainHuge = 2000001;
    std::memcpy(plainLong.data() + 1, &plainHuge, 4);
    for (const std::vector<char>* p : std::initializer_list<const std::vector<char>*>{&tooShort, &tooLong, &plainLong, &good})
        o.head.sendBytes(Head::Data, p->data(), p->size());
    got = o.calls.wait({1280}, 2);
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[1].second, payloadOf(good));

    // A command-data message that declares 2 GiB is dropped, with whatever arrived with
    // it, as soon as its size is read; the messages after that are read again.
    auto bogus = Head::message(400, "x", 1);
    const std::uint32_t twoGiB = 0x7FFFFFF0;
    std::memcpy(bogus.data() + 1, &twoGiB, 4);
    const auto swallowed = Head::message(401, "lost", 4);
    std::vector<char> both(bogus);
    both.insert(both.end(), swallowed.begin(), swallowed.end());
    o.head.sendBytes(Head::CommandData, both.data(), both.size());
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    const auto next = Head::message(402, "ok", 2);
    o.head.sendBytes(Head::CommandData, next.data(), next.size());
    EXPECT_EQ(o.calls.wait({402}, 1).size(), 1u);
    EXPECT_EQ(o.calls.wait({400, 401}, 1, 10).size(), 0u);

    // Noise on the command connection fails the command it answers, not the server.
    o.head.setRawReply(13, std::vector<char>(noise.begin(), noise.begin() + 64));
    EXPECT_EQ(o.server.sendTrigger(), -1);
    o.head.setStatusReply(13, 0);
    // The garbage may still be on its way; the command after it succeeds again.
    int ok = -1;
    for (int i = 0; i < 3 && ok != 0; ++i)
        ok = o.server.sendTrigger();
    EXPECT_EQ(ok, 0);

    // A packet that never ends, then the connection drops mid-packet: the head stays online
    // by its heartbeats, and deInit returns.
    auto endless = Head::extendedPacket(1280, 1, body.data(), body.size());
    const std::uint32_t big = 0x1E00000;
    std::memcpy(endless.data() + 1, &big, 4);
    o.head.sendBytes(Head::Data, endless.data(), endless.size());
    o.head.closeChannel(Head::Data);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_TRUE(o.server.isConnected());
    o.server.deInit();
    EXPECT_FALSE(o.server.isConnected());
}

} // namespace
