// ztUsbProxyServer on real libusb against the emulated USB head: coming online, stopping
// and starting again, the event path through the frame pools, and the control exchange.
#include "support/log_capture.h"
#include "support/usb_online.h"
#include "ztSimNetworkHead.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

using zt::test::Clock;
using zt::test::LogCapture;
using zt::test::msSince;
using zt::test::payloadOf;
using Head = ztSimUsbHead;

namespace {

TEST(UsbServer, ComesOnlineStopsAndStartsAgain)
{
    LogCapture log(ZTLOG_LEVEL_INFO);
    ztUsbProxyServer none(Head::deviceInfo(), nullptr);
    EXPECT_EQ(none.getCurDeviceAbilityInfo().productType, 31u);
    EXPECT_EQ(none.init(), -1);
    EXPECT_EQ(log.count("ztUsbProxyServer::[init] no device handle"), 1);
    none.deInit(); // never ran: nothing to stop, twice
    none.deInit();
    // Commands fail at once, without a word.
    char buffer[64] = {};
    EXPECT_EQ(none.sendCtrlCmd(buffer, 8, buffer, true, 1000), -1);
    EXPECT_EQ(none.sendCtrlCmd_2(buffer, 8, buffer, 64, true, 1000), -1);
    EXPECT_EQ(log.lines().size(), 1u);

    zt::test::UsbOnline o;
    ASSERT_TRUE(o.open());
    // A status reply where the SET file should come fails each try at once; a second
    // after each failure the next one. Heartbeats go unanswered meanwhile, but event
    // transfers that end at their time-out keep the head alive.
    o.head.setStatusReply(264, 0);
    o.head.setAnswerHeartbeats(false);
    auto t0 = Clock::now();
    ASSERT_TRUE(o.startServer());
    EXPECT_GE(msSince(t0), 4900);
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(log.count("ztUsbProxyServer::device ZTSIM0001 get SET file failed, time = " + std::to_string(i)), 1);
    EXPECT_EQ(log.count("ztUsbProxyServer::[getSETFile] receive data error"), 5);
    // The ability query, then five queries of SET file 1.
    Head::Request r;
    ASSERT_TRUE(o.head.nextCommand(r, 0));
    EXPECT_EQ(r.type, 345);
    for (int i = 0; i < 5; ++i) {
        ASSERT_TRUE(o.head.nextCommand(r, 0));
        EXPECT_EQ(r.type, 264);
        EXPECT_EQ(r.payload, std::vector<char>({1, 0, 0, 0}));
    }
    EXPECT_FALSE(o.head.nextCommand(r, 0));
    EXPECT_EQ(o.calls.count(ZT_CODE_DEVICE_OFFLINE), 0u);
    EXPECT_GE(o.head.heartbeatsReceived(), 8); // one every 500 ms meanwhile
    o.server->deInit();
    o.head.setAnswerHeartbeats(true);

    // Answered: the ability record, then SET file 1, handed to the callback before online.
    o.head.resetReplies();
    log.clear();
    ASSERT_TRUE(o.startServer());
    const std::vector<int> firstTwoStarts{ZT_CODE_DEVICE_ONLINE, 264, ZT_CODE_DEVICE_ONLINE};
    EXPECT_EQ(o.calls.order({264, ZT_CODE_DEVICE_ONLINE}), firstTwoStarts);
    EXPECT_EQ(o.server->getCurDeviceAbilityInfo().productType, ztSimNetworkHead::kDefaultProductType);
    EXPECT_EQ(log.count("ztUsbProxyServer::device ZTSIM0001 online get device ablility info, product type: 42"), 1);
    EXPECT_TRUE(log.waitFor("ztUsbProxyServer::all usb comunicate threads are established, the device ZTSIM0001 goes online.", 100));
    EXPECT_EQ(o.head.pendingTransfers(Head::kStreamIn), 32);
    // Connected once a heartbeat period saw an event completion.
    EXPECT_TRUE(o.waitConnected());
    EXPECT_GE(o.head.heartbeatsReceived(), 1);
    // A second init on the running object gives the first one's result and touches nothing.
    EXPECT_EQ(o.server->init(), 0);
    EXPECT_EQ(log.count("ztUsbProxyServer::[init] already running (deInit first for a new start)"), 1);
    EXPECT_EQ(o.calls.count(ZT_CODE_DEVICE_ONLINE), 2u);

    // Once stopping has begun the heartbeat never sets connected again (deInit outlasts
    // its period).
    o.server->releaseClient();
    EXPECT_FALSE(o.server->isConnected());
    o.server->deInit();
    EXPECT_FALSE(o.server->isConnected());
    // init after deInit is a new start: online again, with working threads.
    ASSERT_EQ(o.server->init(), 0);
    EXPECT_EQ(o.calls.count(ZT_CODE_DEVICE_ONLINE), 3u);
    EXPECT_TRUE(o.waitConnected());
}

TEST(UsbServer, EventsOnePerCompletionAndTheirLimits)
{
    LogCapture log;
    zt::test::UsbOnline o;
    ASSERT_TRUE(o.start());
    // Heartbeat answers share the event endpoint and its frames: once a marker pushed after
    // switching them off has arrived, none is left in the way. (Event transfers that time
    // out keep the device alive meanwhile.)
    o.head.setAnswerHeartbeats(false);
    o.head.pushEvent(Head::message(699, nullptr, 0));
    ASSERT_EQ(o.calls.waitCount(699, 1, 3000), 1u);

    // One and a half messages: one callback, the half waits for the next completion.
    const auto a = Head::message(700, "first", 5);
    const auto b = Head::message(701, "second", 6);
    std::vector<char> oneAndHalf(a);
    oneAndHalf.insert(oneAndHalf.end(), b.begin(), b.begin() + 5);
    o.head.pushEvent(oneAndHalf);
    EXPECT_EQ(o.calls.of(700, 1), std::vector<std::string>{"first"});
    o.head.pushEvent(std::vector<char>(b.begin() + 5, b.end()));
    EXPECT_EQ(o.calls.of(701, 1), std::vector<std::string>{"second"});

    // A first message declaring 2 MB: dropped with what is held.
    auto huge = Head::message(702, "x", 1);
    const std::uint32_t twoMB = 2 * 1024 * 1024;
    std::memcpy(huge.data() + 1, &twoMB, 4);
    o.head.pushEvent(huge);
    EXPECT_TRUE(log.waitFor("xfer_callback_event::single frame len 2097152 > buffer vector size 9", 2000));
    o.head.pushEvent(Head::message(703, "after", 5));
    EXPECT_EQ(o.calls.of(703, 1), std::vector<std::string>{"after"});
    EXPECT_EQ(o.calls.count(702), 0u);

    // With the processing held on one event, the 16 frames fill: 4 of 20 are dropped, with
    // a warning each, and the others arrive in order once it goes on.
    o.calls.holdOn(710);
    for (int i = 0; i < 20; ++i)
        o.head.pushEvent(Head::message(710, std::to_string(i % 10).c_str(), 1));
    const char* dropped = "xfer_callback_event::getOneFramefromPool is nullptr";
    EXPECT_TRUE(zt::test::waitUntil(5000, [&] { return log.count(dropped) >= 4; }));
    o.calls.release();
    const auto got = o.calls.of(710, 16);
    ASSERT_EQ(got.size(), 16u);
    for (std::size_t i = 0; i < got.size(); ++i)
        EXPECT_EQ(got[i], std::to_string(i % 10));
    EXPECT_EQ(log.count(dropped), 4);
}

TEST(UsbServer, ControlExchange)
{
    LogCapture log;
    zt::test::UsbOnline o;
    ASSERT_TRUE(o.start());
    zt::test::RawCommand x;

    // A reply split so that its tail byte comes alone completes normally; short pieces
    // before a reply are noise.
    const auto status = Head::statusMessage(7);
    o.head.setRawReply(13, {{0x01, 0x02, 0x03}, std::vector<char>(status.begin(), status.end() - 1), {'\xBB'}});
    ASSERT_EQ(x.run(*o.server, 13, 3000), 0);
    EXPECT_EQ(x.status(), status);

    // Two replies in one transfer: the first is taken, and the second does not pass for
    // the next command's reply: it is emptied first.
    auto two = Head::statusMessage(1);
    const auto second = Head::statusMessage(2);
    two.insert(two.end(), second.begin(), second.end());
    o.head.setRawReply(13, {two});
    ASSERT_EQ(x.run(*o.server, 13, 3000), 0);
    EXPECT_EQ(x.status(), Head::statusMessage(1));
    o.head.setStatusReply(13, 3);
    ASSERT_EQ(x.run(*o.server, 13, 3000), 0);
    EXPECT_EQ(x.status(), Head::statusMessage(3));

    // No reply: the time-out with its log line.
    o.head.setNoReply(13);
    const auto t0 = Clock::now();
    EXPECT_EQ(x.run(*o.server, 13, 200), -1);
    EXPECT_GE(msSince(t0), 200);
    EXPECT_EQ(log.count("ztUsbProxyServer::sendCtrlCmd timeout"), 1);

    // A large reply through the second exchange into the large buffer.
    std::vector<char> big(8 << 20);
    for (std::size_t i = 0; i < big.size(); ++i)
        big[i] = static_cast<char>(i * 13);
    o.head.setEchoReply(410, big);
    std::vector<char> large(0x6400000, 0);
    auto req = Head::message(410, nullptr, 0);
    ASSERT_EQ(o.server->sendCtrlCmd_2(req.data(), 8, large.data(), 0x6400000, true, 20000), 0);
    EXPECT_TRUE(std::equal(big.begin(), big.end(), large.begin() + 7));
    // Limited below its size, the same reply never completes.
    EXPECT_EQ(o.server->sendCtrlCmd_2(req.data(), 8, large.data(), 1 << 20, true, 500), -1);
    EXPECT_EQ(log.count("ztUsbProxyServer::sendCtrlCmd_2 timeout"), 1);

    // sendData puts the bytes on control OUT.
    o.head.clearCommands();
    std::string raw(Head::message(77, "zz", 2).data(), 10);
    EXPECT_EQ(o.server->sendData(raw), 0);
    Head::Request r;
    ASSERT_TRUE(o.head.nextCommand(r, 1000));
    EXPECT_EQ(r.type, 77);
}

} // namespace
