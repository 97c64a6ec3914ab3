// ztUsbProxyServer on real libusb against the emulated USB head: online and offline, the
// event and stream paths through the frame pools, and the control exchange.
#include "support/data_calls.h"
#include "support/destroy_on_offline.h"
#include "support/log_capture.h"
#include "ztSimNetworkHead.h"
#include "ztSimUsbHead.h"
#include "ztUsbProxyServer.h"

#include <gtest/gtest.h>
#include <libusb.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

using zt::test::LogCapture;
using Head = ztSimUsbHead;

namespace {

using Clock = std::chrono::steady_clock;

using Calls = zt::test::DataCalls;

// The emulated head opened on libusb's default context, as the server expects.
struct Device {
    Head head;
    libusb_device_handle* handle = nullptr;
    bool open()
    {
        if (head.start() != 0 || libusb_init(nullptr) != 0)
            return false;
        handle = libusb_open_device_with_vid_pid(nullptr, Head::kVendor, Head::kProduct);
        return handle != nullptr && libusb_claim_interface(handle, Head::kInterface) == 0;
    }
    ~Device()
    {
        if (handle != nullptr) {
            libusb_release_interface(handle, Head::kInterface);
            libusb_close(handle);
        }
        libusb_exit(nullptr);
        head.stop();
    }
};

// A device with a server online on it, its callback recorded in calls.
struct Online {
    Device d;
    Calls calls;
    std::unique_ptr<ztUsbProxyServer> server;
    void start()
    {
        ASSERT_TRUE(d.open());
        server = std::make_unique<ztUsbProxyServer>(Head::deviceInfo(), d.handle);
        server->registerModuleServerDataCB(&Calls::cb, &calls);
        ASSERT_EQ(server->init(), 0);
    }
    ~Online()
    {
        if (server)
            server->deInit();
        server.reset();
    }
};

std::string payloadOf(const std::vector<char>& message)
{
    return std::string(message.begin() + 7, message.end() - 1);
}

TEST(UsbServer, OnlineSequenceTriesTheSETFileFiveTimes)
{
    LogCapture log(ZTLOG_LEVEL_INFO);
    Device d;
    ASSERT_TRUE(d.open());
    // A status reply where the SET file should come fails each try at once.
    d.head.setStatusReply(264, 0);
    ztUsbProxyServer server(Head::deviceInfo(), d.handle);
    const auto t0 = Clock::now();
    ASSERT_EQ(server.init(), 0);
    EXPECT_GE(Clock::now() - t0, std::chrono::milliseconds(4900)); // a second after each failure
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(log.count("ztUsbProxyServer::device ZTSIM0001 get SET file failed, time = " + std::to_string(i)), 1);
    EXPECT_EQ(log.count("ztUsbProxyServer::[getSETFile] receive data error"), 5);
    int setFileRequests = 0;
    Head::Request r;
    while (d.head.nextCommand(r, 100))
        setFileRequests += r.type == 264 ? 1 : 0;
    EXPECT_EQ(setFileRequests, 5);
    server.deInit();
}

// An application calling back into the library: a command from inside the data callback
// (on init's own thread), a second init, init without a device, and a stop that the
// heartbeat must not undo.
TEST(UsbServer, CallingBackASecondInitNoHandleAndStopping)
{
    LogCapture log;
    {
        ztUsbProxyServer none(Head::deviceInfo(), nullptr);
        EXPECT_EQ(none.init(), -1);
        EXPECT_EQ(log.count("ztUsbProxyServer::[init] no device handle"), 1);
    }
    Device d;
    ASSERT_TRUE(d.open());
    struct Nested {
        ztUsbProxyServer* server = nullptr;
        std::atomic<int> result{99};
        std::atomic<int> shortest{1 << 30};
        std::atomic<int> online{0};
        short width = 0;
        short height = 0;
    } n;
    ztUsbProxyServer server(Head::deviceInfo(), d.handle);
    n.server = &server;
    server.registerModuleServerDataCB(
        [](int type, char*, int length, void* user) {
            auto* n = static_cast<Nested*>(user);
            n->shortest = std::min(n->shortest.load(), length);
            n->online += type == ZT_CODE_DEVICE_ONLINE ? 1 : 0;
            // The SET file that init fetches is handed on here, on init's thread.
            if (type == 264 && n->result == 99)
                n->result = n->server->getImageSize(&n->width, &n->height);
        },
        &n);
    const auto t = Clock::now();
    ASSERT_EQ(server.init(), 0);
    EXPECT_LT(Clock::now() - t, std::chrono::milliseconds(3000));
    EXPECT_EQ(n.result, 0);
    EXPECT_EQ(n.width, 1280);
    // A second init on the running object gives the first one's result and touches nothing.
    EXPECT_EQ(server.init(), 0);
    EXPECT_EQ(log.count("ztUsbProxyServer::[init] already running (deInit first for a new start)"), 1);
    EXPECT_EQ(n.online, 1);
    // A reply of 7 bytes handed on: the callback is told 0 bytes, not -1.
    d.head.setRawReply(258, {{'\xAA', 7, 0, 0, 0, 2, 1, '\xBB'}});
    server.getSectionalLog();
    EXPECT_EQ(n.shortest, 0);

    // Once stopping has begun, the heartbeat never sets connected again.
    for (int i = 0; i < 40 && !server.isConnected(); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    ASSERT_TRUE(server.isConnected());
    server.releaseClient();
    EXPECT_FALSE(server.isConnected());
    std::this_thread::sleep_for(std::chrono::milliseconds(1200)); // two heartbeat periods
    EXPECT_FALSE(server.isConnected());
    server.deInit();
    EXPECT_FALSE(server.isConnected());
    // init after deInit is a new start: online again, with working threads.
    ASSERT_EQ(server.init(), 0);
    EXPECT_EQ(n.online, 2);
    for (int i = 0; i < 40 && !server.isConnected(); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_TRUE(server.isConnected());
    // deInit from a frame's callback is refused: the frame goes back to a pool that stays.
    server.registerModuleServerDataCB(
        [](int type, char*, int, void* user) {
            if (type == 1280)
                static_cast<ztUsbProxyServer*>(user)->deInit();
        },
        &server);
    const std::string body(4096, 'f');
    d.head.startStream(Head::extendedPacket(1280, 1, body.data(), body.size()), 3, 0);
    EXPECT_TRUE(log.waitFor("ztUsbProxyServer::[deInit] called from the data callback of a frame: refused", 3000));
    server.deInit();

    // The owner destroys the server in its offline callback, as a host does to build a new
    // one: nothing of the destroyed object is touched afterwards.
    zt::test::DestroyOnOffline o(std::make_unique<ztUsbProxyServer>(Head::deviceInfo(), d.handle));
    ASSERT_EQ(o.server->init(), 0);
    d.head.unplug();
    EXPECT_TRUE(o.waitGone(10000));
}

TEST(UsbServer, OnlineThenOfflineWhenTheDeviceVanishes)
{
    LogCapture log(ZTLOG_LEVEL_INFO);
    Device d;
    ASSERT_TRUE(d.open());
    Calls calls;
    {
        ztUsbProxyServer server(Head::deviceInfo(), d.handle);
        server.registerModuleServerDataCB(&Calls::cb, &calls);
        EXPECT_EQ(server.getCurDeviceAbilityInfo().productType, 31u);
        ASSERT_EQ(server.init(), 0);
        EXPECT_EQ(calls.of(ZT_CODE_DEVICE_ONLINE, 1).size(), 1u);
        Head::Request r;
        ASSERT_TRUE(d.head.nextCommand(r, 1000));
        EXPECT_EQ(r.type, 345);
        ASSERT_TRUE(d.head.nextCommand(r, 1000));
        EXPECT_EQ(r.type, 264);
        EXPECT_EQ(std::string(r.payload.begin(), r.payload.end()), std::string("\x01\x00\x00\x00", 4));
        EXPECT_EQ(server.getCurDeviceAbilityInfo().productType, ztSimNetworkHead::kDefaultProductType);
        EXPECT_EQ(calls.of(264, 1).size(), 1u); // the SET file reached the callback
        EXPECT_EQ(log.count("ztUsbProxyServer::device ZTSIM0001 online get device ablility info, product type: 42"), 1);
        EXPECT_TRUE(log.waitFor("ztUsbProxyServer::all usb comunicate threads are established, the device ZTSIM0001 goes online.", 100));
        EXPECT_EQ(d.head.pendingTransfers(Head::kStreamIn), 32);
        // The heartbeat thread declares the device connected once an event completes.
        for (int i = 0; i < 40 && !server.isConnected(); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        EXPECT_TRUE(server.isConnected());
        EXPECT_GE(d.head.heartbeatsReceived(), 1);

        // Unplugged: every transfer ends with "no device", the heartbeat lapses.
        const auto t0 = Clock::now();
        d.head.unplug();
        EXPECT_EQ(calls.of(ZT_CODE_DEVICE_OFFLINE, 1, 6000).size(), 1u);
        EXPECT_GE(Clock::now() - t0, std::chrono::milliseconds(2400));
        EXPECT_FALSE(server.isConnected());
        EXPECT_TRUE(log.waitFor("ztUsbProxyServer::heartbeat timeout, usbdevice sn : ZTSIM0001", 1000));
        EXPECT_TRUE(log.waitFor("usb event receive loop stop", 5000));
        std::this_thread::sleep_for(std::chrono::milliseconds(1000));
        EXPECT_EQ(calls.of(ZT_CODE_DEVICE_OFFLINE, 2, 10).size(), 1u);
        server.deInit();
        server.deInit(); // twice is harmless
    }
}

TEST(UsbServer, EventsOnePerCompletionAndTheirLimits)
{
    LogCapture log;
    Online o;
    o.start();

    // Heartbeat answers arrive on the event endpoint too; keep them out of the way while
    // a message is split across completions. (Event transfers that time out keep the
    // device alive meanwhile.)
    o.d.head.setAnswerHeartbeats(false);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    // One and a half messages: one callback, the half waits for the next completion.
    const auto a = Head::message(700, "first", 5);
    const auto b = Head::message(701, "second", 6);
    std::vector<char> oneAndHalf(a);
    oneAndHalf.insert(oneAndHalf.end(), b.begin(), b.begin() + 5);
    o.d.head.pushEvent(oneAndHalf);
    EXPECT_EQ(o.calls.of(700, 1), std::vector<std::string>{"first"});
    EXPECT_TRUE(o.calls.of(701, 1, 200).empty());
    o.d.head.pushEvent(std::vector<char>(b.begin() + 5, b.end()));
    EXPECT_EQ(o.calls.of(701, 1), std::vector<std::string>{"second"});

    // A first message declaring 2 MB: dropped with the buffer.
    auto huge = Head::message(702, "x", 1);
    const std::uint32_t twoMB = 2 * 1024 * 1024;
    std::memcpy(huge.data() + 1, &twoMB, 4);
    o.d.head.pushEvent(huge);
    EXPECT_TRUE(log.waitFor("xfer_callback_event::single frame len 2097152 > buffer vector size 9", 2000));
    o.d.head.pushEvent(Head::message(703, "after", 5));
    EXPECT_EQ(o.calls.of(703, 1), std::vector<std::string>{"after"});

    // With the processing held on one event, the 16 frames fill and the next is dropped.
    o.calls.holdOn(710);
    for (int i = 0; i < 20; ++i)
        o.d.head.pushEvent(Head::message(710, "e", 1));
    EXPECT_TRUE(log.waitFor("xfer_callback_event::getOneFramefromPool is nullptr", 5000));
    o.calls.release();
    EXPECT_GE(o.calls.of(710, 16).size(), 16u);
}

TEST(UsbServer, StreamPacketsSplitAcrossTransfersArriveWholeAndInOrder)
{
    Online o;
    o.start();
    std::vector<char> stream;
    std::vector<std::string> expected;
    for (int i = 0; i < 12; ++i) {
        std::string body(300000 + 12345 * i, static_cast<char>('A' + i));
        const auto p = Head::extendedPacket(1280, static_cast<unsigned long long>(i), body.data(), body.size());
        stream.insert(stream.end(), p.begin(), p.end());
        expected.push_back(payloadOf(p));
    }
    // Garbage before the first packet is skipped by the decoder.
    o.d.head.pushStream(std::vector<char>{0x01, 0x02, 0x55});
    for (std::size_t at = 0; at < stream.size(); at += 777777)
        o.d.head.pushStream(std::vector<char>(stream.begin() + static_cast<std::ptrdiff_t>(at),
                                            stream.begin() + static_cast<std::ptrdiff_t>(std::min(stream.size(), at + 777777))));
    EXPECT_EQ(o.calls.of(1280, 12, 10000), expected);
}

TEST(UsbServer, ControlExchange)
{
    LogCapture log;
    Online o;
    o.start();
    std::vector<char> reply(0xA00000, 0);
    auto send = [&](unsigned short type, int timeoutMs) {
        auto req = Head::message(type, "\x01\x00\x00\x00", 4);
        return o.server->sendCtrlCmd(req.data(), static_cast<int>(req.size()), reply.data(), true, timeoutMs);
    };
    auto replyBytes = [&]() { return std::vector<char>(reply.begin(), reply.begin() + 12); };

    // A reply split so that its tail byte comes alone completes normally.
    const auto status = Head::statusMessage(7);
    o.d.head.setRawReply(13, {std::vector<char>(status.begin(), status.end() - 1), std::vector<char>{static_cast<char>(0xBB)}});
    ASSERT_EQ(send(13, 3000), 0);
    EXPECT_EQ(replyBytes(), status);

    // Two replies in one transfer: the first is taken.
    auto two = Head::statusMessage(1);
    const auto second = Head::statusMessage(2);
    two.insert(two.end(), second.begin(), second.end());
    o.d.head.setRawReply(13, {two});
    ASSERT_EQ(send(13, 3000), 0);
    EXPECT_EQ(replyBytes(), Head::statusMessage(1));
    // ...and the second does not pass for the next command's reply: it is emptied first.
    o.d.head.setStatusReply(13, 3);
    ASSERT_EQ(send(13, 3000), 0);
    EXPECT_EQ(replyBytes(), Head::statusMessage(3));

    // Unsolicited control bytes already buffered are discarded before the next command.
    o.d.head.pushControl(Head::statusMessage(-9));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    ASSERT_EQ(send(13, 3000), 0);
    EXPECT_EQ(replyBytes(), Head::statusMessage(3));

    // No reply: the time-out with its log line.
    o.d.head.setNoReply(13);
    const auto t0 = Clock::now();
    EXPECT_EQ(send(13, 200), -1);
    EXPECT_GE(Clock::now() - t0, std::chrono::milliseconds(200));
    EXPECT_EQ(log.count("ztUsbProxyServer::sendCtrlCmd timeout"), 1);

    // A large reply through the second exchange into the large buffer.
    std::vector<char> big(8 << 20);
    for (std::size_t i = 0; i < big.size(); ++i)
        big[i] = static_cast<char>(i * 13);
    o.d.head.setEchoReply(410, big);
    std::vector<char> large(0x6400000, 0);
    auto req = Head::message(410, nullptr, 0);
    ASSERT_EQ(o.server->sendCtrlCmd_2(req.data(), 8, large.data(), 0x6400000, true, 20000), 0);
    EXPECT_EQ(std::string(large.begin() + 7, large.begin() + 7 + static_cast<std::ptrdiff_t>(big.size())),
              std::string(big.begin(), big.end()));
    // Limited below its size, the same reply never completes.
    EXPECT_EQ(o.server->sendCtrlCmd_2(req.data(), 8, large.data(), 1 << 20, true, 500), -1);
    EXPECT_EQ(log.count("ztUsbProxyServer::sendCtrlCmd_2 timeout"), 1);

    // sendData puts the bytes on control OUT.
    o.d.head.clearCommands();
    std::string raw(reinterpret_cast<const char*>(Head::message(77, "zz", 2).data()), 10);
    EXPECT_EQ(o.server->sendData(raw), 0);
    Head::Request r;
    ASSERT_TRUE(o.d.head.nextCommand(r, 1000));
    EXPECT_EQ(r.type, 77);

    // Without a device handle: -1 at once, no log.
    log.clear();
    ztUsbProxyServer none(Head::deviceInfo(), nullptr);
    EXPECT_EQ(none.sendCtrlCmd(req.data(), 8, reply.data(), true, 1000), -1);
    EXPECT_EQ(none.sendCtrlCmd_2(req.data(), 8, reply.data(), 100, true, 1000), -1);
    EXPECT_TRUE(log.lines().empty());
    none.deInit();
}

TEST(UsbServer, FullStreamPoolDropsSilentlyAndResumes)
{
    LogCapture log;
    Online o;
    o.start();
    o.calls.holdOn(1280);
    // The first packet holds the processing thread; 64 frames fill, the rest are dropped.
    std::string body(1000, 'p');
    const auto packet = Head::extendedPacket(1280, 1, body.data(), body.size());
    for (int i = 0; i < 100; ++i)
        o.d.head.pushStream(packet);
    const auto t0 = Clock::now();
    while (o.d.head.queuedStreamBytes() > 0 && Clock::now() - t0 < std::chrono::seconds(5))
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    // Every transfer back in flight: all completions with the packets have been handled.
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    ASSERT_TRUE(o.d.head.waitPending(Head::kStreamIn, 32, 5000));
    o.calls.release();
    // 64 frames in all: the one being processed and 63 queued behind it.
    EXPECT_EQ(o.calls.of(1280, 64).size(), 64u);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_EQ(o.calls.of(1280, 65, 10).size(), 64u);
    // Processing goes on with the next packets.
    o.d.head.pushStream(Head::extendedPacket(1281, 2, body.data(), body.size()));
    EXPECT_EQ(o.calls.of(1281, 1).size(), 1u);
    // Dropping for want of a frame leaves no log line.
    for (const auto& line : log.lines())
        EXPECT_EQ(line.text.find("xfer_callback_stream"), std::string::npos) << line.text;
}

TEST(UsbServer, UnplugWhileStreamingEndsEverything)
{
    Device d;
    ASSERT_TRUE(d.open());
    Calls calls;
    {
        ztUsbProxyServer server(Head::deviceInfo(), d.handle);
        server.registerModuleServerDataCB(&Calls::cb, &calls);
        ASSERT_EQ(server.init(), 0);
        std::string body(1 << 20, 's');
        d.head.startStream(Head::extendedPacket(1280, 1, body.data(), body.size()), 0, 0);
        ASSERT_GE(calls.of(1280, 10).size(), 10u);
        d.head.unplug();
        EXPECT_EQ(calls.of(ZT_CODE_DEVICE_OFFLINE, 1, 6000).size(), 1u);
        const auto t0 = Clock::now();
        server.deInit();
        EXPECT_LT(Clock::now() - t0, std::chrono::seconds(5));
    }
    // A server that never ran, or whose init was not called, stops cleanly too.
    ztUsbProxyServer idle(Head::deviceInfo(), nullptr);
    idle.deInit();
    idle.deInit();
}

TEST(UsbServer, UntrustedBytesOnEveryEndpoint)
{
    LogCapture log(ZTLOG_LEVEL_WARN);
    Online o;
    o.start();

    // A flood of events: each is either delivered, in order, or dropped with the pool's
    // warning when more than the 16 event frames wait for the processing thread.
    o.d.head.setAnswerHeartbeats(false);
    for (int i = 0; i < 50; ++i)
        o.d.head.pushEvent(Head::message(720, std::to_string(i % 10).c_str(), 1));
    const auto settled = Clock::now() + std::chrono::seconds(10);
    std::size_t delivered = 0;
    int dropped = 0;
    while (Clock::now() < settled) {
        delivered = o.calls.of(720, 50, 100).size();
        dropped = log.count("xfer_callback_event::getOneFramefromPool is nullptr");
        if (delivered + static_cast<std::size_t>(dropped) >= 50)
            break;
    }
    EXPECT_EQ(delivered + static_cast<std::size_t>(dropped), 50u);
    EXPECT_GE(delivered, 16u);

    // Random bytes (without a tag byte) and headers at and beyond the decoder's limits on
    // the stream; the next good packet still arrives.
    std::vector<char> noise(300000);
    unsigned int seed = 99;
    for (char& c : noise) {
        seed = seed * 1103515245u + 12345u;
        c = static_cast<char>((seed >> 16) & 0xFF);
        if (static_cast<unsigned char>(c) == 0xAA)
            c = 0x11;
    }
    o.d.head.pushStream(noise);
    std::string body(2000, 'b');
    auto tooLong = Head::extendedPacket(1280, 1, body.data(), body.size());
    const std::uint32_t huge = 0x1E00001;
    std::memcpy(tooLong.data() + 1, &huge, 4);
    o.d.head.pushStream(tooLong);
    const auto good = Head::extendedPacket(1280, 2, body.data(), body.size());
    o.d.head.pushStream(good);
    EXPECT_EQ(o.calls.of(1280, 1), std::vector<std::string>{payloadOf(good)});

    // Short control pieces are noise: a reply after them is still found whole.
    std::vector<char> reply(4096, 0);
    const auto status = Head::statusMessage(5);
    o.d.head.setRawReply(13, {std::vector<char>{0x01, 0x02, 0x03}, status});
    auto req = Head::message(13, nullptr, 0);
    ASSERT_EQ(o.server->sendCtrlCmd(req.data(), 8, reply.data(), true, 3000), 0);
    EXPECT_EQ(std::vector<char>(reply.begin(), reply.begin() + 12), status);
}

} // namespace
