// Faults of the USB head while the link is busy: transfers completing with errors, the
// device vanishing and coming back, replies that arrive after their command gave up, and a
// stream consumer that falls behind. Real libusb against the emulated head.
#include "support/data_calls.h"
#include "support/log_capture.h"
#include "ztSimUsbHead.h"
#include "ztUsbProxyServer.h"

#include <gtest/gtest.h>
#include <libusb.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

using zt::test::LogCapture;
using Head = ztSimUsbHead;

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
// Allowance on top of a nominal duration for a loaded machine (parallel tests,
// sanitizers); bounds then still tell a time-out from a wedge.
constexpr long long kSlackMs = 3000;
// The offline declaration: five silent 500 ms heartbeat periods, then the release pause.
constexpr long long kOfflineMs = 3000;

long long msSince(Clock::time_point t0)
{
    return std::chrono::duration_cast<milliseconds>(Clock::now() - t0).count();
}

using Calls = zt::test::DataCalls;

// The emulated head, opened on libusb's default context (the one the server drives), with a
// server online on it.
struct Online {
    Head head;
    Calls calls;
    libusb_device_handle* handle = nullptr;
    std::unique_ptr<ztUsbProxyServer> server;
    bool libusbUp = false;

    void open()
    {
        ASSERT_EQ(head.start(), 0);
        ASSERT_EQ(libusb_init(nullptr), 0);
        libusbUp = true;
        handle = libusb_open_device_with_vid_pid(nullptr, Head::kVendor, Head::kProduct);
        ASSERT_NE(handle, nullptr);
        ASSERT_EQ(libusb_claim_interface(handle, Head::kInterface), 0);
    }
    void start()
    {
        open();
        if (testing::Test::HasFatalFailure())
            return;
        server = std::make_unique<ztUsbProxyServer>(Head::deviceInfo(), handle);
        server->registerModuleServerDataCB(&Calls::cb, &calls);
        ASSERT_EQ(server->init(), 0);
    }
    // Ends the server and closes the handle (a handle of an unplugged device included).
    void close()
    {
        if (server)
            server->deInit();
        server.reset();
        if (handle != nullptr) {
            libusb_release_interface(handle, Head::kInterface);
            libusb_close(handle);
            handle = nullptr;
        }
    }
    bool waitConnected(int timeoutMs)
    {
        const auto t0 = Clock::now();
        while (!server->isConnected() && msSince(t0) < timeoutMs)
            std::this_thread::sleep_for(milliseconds(20));
        return server->isConnected();
    }
    ~Online()
    {
        calls.release();
        close();
        if (libusbUp)
            libusb_exit(nullptr);
        head.stop();
    }
};

// A command run on its own thread, with its result and how long it took.
struct InFlight {
    std::atomic<int> result{1};
    std::atomic<long long> tookMs{-1};
    Clock::time_point endedAt; // read after join
    std::thread thread;
    explicit InFlight(std::function<int()> command)
        : thread([this, command] {
              const auto t0 = Clock::now();
              result = command();
              endedAt = Clock::now();
              tookMs = std::chrono::duration_cast<milliseconds>(endedAt - t0).count();
          })
    {
    }
    ~InFlight()
    {
        if (thread.joinable())
            thread.join();
    }
    void join() { thread.join(); }
};

// A raw exchange through the server's control path with its own reply buffer.
struct Exchange {
    std::vector<char> reply = std::vector<char>(4096, 0);
    int run(ztUsbProxyServer& server, unsigned short type, int timeoutMs)
    {
        std::fill(reply.begin(), reply.end(), 0);
        auto req = Head::message(type, "\x01\x00\x00\x00", 4);
        return server.sendCtrlCmd(req.data(), static_cast<int>(req.size()), reply.data(), true, timeoutMs);
    }
    std::vector<char> status() const { return std::vector<char>(reply.begin(), reply.begin() + 12); }
};

std::vector<char> streamPacket(std::size_t bodySize, unsigned long long stamp = 1)
{
    const std::string body(bodySize, 'u');
    return Head::extendedPacket(1280, stamp, body.data(), body.size());
}

std::string payloadOf(const std::vector<char>& message)
{
    return std::string(message.begin() + 7, message.end() - 1);
}

// A getImageSize reply payload: status word, then width and height as 16-bit values.
std::vector<char> imageSize(short width, short height)
{
    std::vector<char> p(8, 0);
    std::memcpy(&p[4], &width, 2);
    std::memcpy(&p[6], &height, 2);
    return p;
}

TEST(UsbFaults, TransferErrorBurstsWhileStreamingAndCommanding)
{
    LogCapture log;
    Online o;
    o.start();
    ASSERT_TRUE(o.waitConnected(2000));
    const auto unit = streamPacket(100000);
    const std::size_t total = 150;
    o.head.startStream(unit, total, 2e6);
    ASSERT_GE(o.calls.waitCount(1280, 5, 5000), 5u);

    Exchange x;
    const int errors[2] = {EPROTO, EPIPE};
    for (int i = 0; i < 2; ++i) {
        // The head answers this command nothing, so that no late reply can pass for the
        // next command's (what a late reply does is its own scenario below).
        o.head.setNoReply(13);
        o.head.failTransfers(true, errors[i]);
        std::this_thread::sleep_for(milliseconds(100));
        // An error completion carries nothing: no stream bytes, no control reply, no
        // event are taken while the errors last.
        const std::size_t handed = o.head.streamedBytes();
        const auto t0 = Clock::now();
        EXPECT_EQ(x.run(*o.server, 13, 400), -1);
        EXPECT_GE(msSince(t0), 400);
        EXPECT_EQ(log.count("ztUsbProxyServer::sendCtrlCmd timeout"), i + 1);
        const auto event = Head::message(static_cast<unsigned short>(730 + i), "ev", 2);
        o.head.pushEvent(event);
        std::this_thread::sleep_for(milliseconds(100));
        EXPECT_EQ(o.head.streamedBytes(), handed);
        EXPECT_EQ(o.calls.count(730 + i), 0u);

        // Every transfer was resubmitted: once the errors stop, what waited arrives.
        o.head.failTransfers(false);
        EXPECT_EQ(o.calls.waitCount(730 + i, 1, 3000), 1u);
        const auto t1 = Clock::now();
        while (o.head.streamedBytes() == handed && msSince(t1) < 3000)
            std::this_thread::sleep_for(milliseconds(10));
        EXPECT_GT(o.head.streamedBytes(), handed);
        o.head.setStatusReply(13, 40 + i);
        ASSERT_EQ(x.run(*o.server, 13, 3000), 0);
        EXPECT_EQ(x.status(), Head::statusMessage(40 + i));
    }

    // Data that waited is not lost or doubled: the stream arrives whole, in its count.
    ASSERT_TRUE(o.head.waitStreamDone(20000));
    EXPECT_EQ(o.calls.waitCount(1280, total, 5000), total);
    std::this_thread::sleep_for(milliseconds(200));
    const auto got = o.calls.payloads(1280);
    EXPECT_EQ(got.size(), total);
    for (const auto& p : got)
        ASSERT_EQ(p, payloadOf(unit));
    // Short bursts never reach the five silent heartbeat periods.
    EXPECT_EQ(o.calls.count(ZT_CODE_DEVICE_OFFLINE), 0u);
    EXPECT_TRUE(o.server->isConnected());
}

// libusb hands completions to whichever thread handles events: a command's or the
// heartbeat's synchronous transfer runs stream completions, even while the receive thread
// is still submitting and counting transfers (stream data already waits when init starts
// and asks its first query). No packet is lost or doubled, and deInit still finds every
// transfer back.
TEST(UsbFaults, StreamCompletionsOnCommandThreads)
{
    Online o;
    o.open();
    ASSERT_FALSE(HasFatalFailure());
    const auto unit = streamPacket(20000);
    const std::size_t total = 600;
    o.head.startStream(unit, total, 4e6);
    o.server = std::make_unique<ztUsbProxyServer>(Head::deviceInfo(), o.handle);
    o.server->registerModuleServerDataCB(&Calls::cb, &o.calls);
    ASSERT_EQ(o.server->init(), 0);
    Exchange x;
    int ok = 0;
    for (int i = 0; i < 2000 && (i < 30 || !o.head.waitStreamDone(0)); ++i) {
        o.head.setStatusReply(13, i);
        ASSERT_EQ(x.run(*o.server, 13, 3000), 0);
        ASSERT_EQ(x.status(), Head::statusMessage(i));
        ++ok;
    }
    EXPECT_GT(ok, 0);
    ASSERT_TRUE(o.head.waitStreamDone(10000));
    EXPECT_EQ(o.calls.waitCount(1280, total, 5000), total);
    std::this_thread::sleep_for(milliseconds(100));
    EXPECT_EQ(o.calls.count(1280), total);
    // Back-to-back commands may keep the heartbeat waiting for the command lock, but the
    // head is never given up.
    EXPECT_EQ(o.calls.count(ZT_CODE_DEVICE_OFFLINE), 0u);
    // The release pause, then the receive thread notices the stop flags when its event
    // wait (at most 1 s) returns, and drains.
    const auto t0 = Clock::now();
    o.server->deInit();
    EXPECT_LT(msSince(t0), 1500 + kSlackMs);
}

TEST(UsbFaults, LastingTransferErrorsTakeTheHeadOffline)
{
    LogCapture log(ZTLOG_LEVEL_INFO);
    Online o;
    o.start();
    ASSERT_TRUE(o.waitConnected(2000));
    o.head.startStream(streamPacket(50000), 0, 4e6);
    ASSERT_GE(o.calls.waitCount(1280, 5, 5000), 5u);
    o.head.setNoReply(13);
    o.head.clearCommands();
    InFlight trigger([&] { return o.server->sendTrigger(); });
    Head::Request r;
    ASSERT_TRUE(o.head.nextCommand(r, 10000));
    EXPECT_EQ(r.type, 13);

    o.head.failTransfers(true, EPROTO);
    // The command in flight ends by its time-out. It holds the command lock all along, and
    // the heartbeat waits for that lock to send its beat: the silent periods are counted
    // from the command's end.
    trigger.join();
    EXPECT_EQ(trigger.result, -1);
    EXPECT_GE(trigger.tookMs, 2900);
    EXPECT_LT(trigger.tookMs, 3000 + 1500 + kSlackMs); // its send may take up to 1500 ms too
    EXPECT_EQ(o.calls.count(ZT_CODE_DEVICE_OFFLINE), 0u);
    ASSERT_EQ(o.calls.waitCount(ZT_CODE_DEVICE_OFFLINE, 1, 10000), 1u);
    // The first period after the command may still count as alive (events completed
    // before the errors began); then five silent periods and the release pause.
    const auto offlineAfter = std::chrono::duration_cast<milliseconds>(Clock::now() - trigger.endedAt).count();
    EXPECT_GE(offlineAfter, 2400);
    EXPECT_LT(offlineAfter, 500 + kOfflineMs + kSlackMs);
    EXPECT_FALSE(o.server->isConnected());
    EXPECT_TRUE(log.waitFor("ztUsbProxyServer::heartbeat timeout, usbdevice sn : ZTSIM0001", 1000));
    EXPECT_EQ(log.count("ztUsbProxyServer::sendCtrlCmd timeout"), 1);
    EXPECT_EQ(log.count("ztUsbProxyServer::[sendTrigger] send cmd failed"), 1);
    // No transfer is resubmitted any more: the event loop drains and ends.
    EXPECT_TRUE(log.waitFor("usb event receive loop stop", 3000));
    EXPECT_EQ(log.count("usb stream receive loop stop"), 1);
    EXPECT_EQ(log.count("usb control receive loop stop"), 1);
    const std::size_t delivered = o.calls.count(1280);
    o.head.failTransfers(false);
    std::this_thread::sleep_for(milliseconds(1000));
    EXPECT_EQ(o.calls.count(1280), delivered);
    EXPECT_EQ(o.calls.count(ZT_CODE_DEVICE_OFFLINE), 1u);
    EXPECT_EQ(log.count("ztUsbProxyServer::heartbeat timeout, usbdevice sn : ZTSIM0001"), 1);

    auto t1 = Clock::now();
    o.server->deInit();
    EXPECT_LT(msSince(t1), 500 + kSlackMs);
    t1 = Clock::now();
    o.server->deInit();
    EXPECT_LT(msSince(t1), 500 + kSlackMs);
}

TEST(UsbFaults, DeviceVanishesWhileStreamingAndCommandingThenANewServerOnTheReplug)
{
    LogCapture log(ZTLOG_LEVEL_INFO);
    Online o;
    o.start();
    ASSERT_TRUE(o.waitConnected(2000));
    const auto unit = streamPacket(50000);
    o.head.startStream(unit, 0, 4e6);
    ASSERT_GE(o.calls.waitCount(1280, 5, 5000), 5u);
    std::atomic<bool> stop{false};
    std::atomic<int> ok{0}, failed{0};
    std::thread commands([&] {
        while (!stop) {
            (o.server->sendTrigger() == 0 ? ok : failed)++;
            std::this_thread::sleep_for(milliseconds(10));
        }
    });
    // Up to 10 s for the first success: a slow (sanitizer) build on a loaded machine may
    // see a command or two time out before one gets through.
    for (int i = 0; i < 1000 && ok == 0; ++i)
        std::this_thread::sleep_for(milliseconds(10));
    EXPECT_GT(ok, 0);

    const auto t0 = Clock::now();
    o.head.unplug();
    ASSERT_EQ(o.calls.waitCount(ZT_CODE_DEVICE_OFFLINE, 1, 10000), 1u);
    const long long offlineAfter = msSince(t0);
    EXPECT_GE(offlineAfter, 2400);
    EXPECT_LT(offlineAfter, kOfflineMs + kSlackMs);
    stop = true;
    commands.join();
    EXPECT_GT(failed, 0);
    // Commands and heartbeats fail at their send: libusb reports no device (-4).
    EXPECT_GE(log.count("ztUsbProxyServer::sendCtrlCmd libusb_bulk_transfer failed, ret = -4"), 1);
    EXPECT_GE(log.count("ztUsbProxyServer::[sendTrigger] send cmd failed"), 1);
    EXPECT_GE(log.count("ztUsbProxyServer::[sendHeartbeat] libusb_bulk_transfer failed, ret = -1"), 1);
    EXPECT_GE(log.count("ztUsbProxyServer::send heartbeat failed, device ZTSIM0001"), 1);
    EXPECT_TRUE(log.waitFor("usb event receive loop stop", 3000));
    EXPECT_EQ(log.count("usb stream receive loop stop"), 1);
    EXPECT_EQ(log.count("usb control receive loop stop"), 1);

    const std::size_t delivered = o.calls.count(1280);
    std::this_thread::sleep_for(milliseconds(1000));
    EXPECT_EQ(o.calls.count(ZT_CODE_DEVICE_OFFLINE), 1u);
    EXPECT_EQ(o.calls.count(1280), delivered);
    auto t1 = Clock::now();
    o.server->deInit();
    EXPECT_LT(msSince(t1), 500 + kSlackMs);
    t1 = Clock::now();
    o.server->deInit();
    EXPECT_LT(msSince(t1), 500 + kSlackMs);

    // There is no reconnect inside a server: the owner opens the device again and builds
    // a new one, which comes online and streams.
    o.close();
    o.head.replug();
    o.handle = libusb_open_device_with_vid_pid(nullptr, Head::kVendor, Head::kProduct);
    ASSERT_NE(o.handle, nullptr);
    ASSERT_EQ(libusb_claim_interface(o.handle, Head::kInterface), 0);
    o.server = std::make_unique<ztUsbProxyServer>(Head::deviceInfo(), o.handle);
    o.server->registerModuleServerDataCB(&Calls::cb, &o.calls);
    ASSERT_EQ(o.server->init(), 0);
    EXPECT_EQ(o.calls.count(ZT_CODE_DEVICE_ONLINE), 2u);
    EXPECT_GE(o.calls.waitCount(1280, delivered + 10, 5000), delivered + 10);
    EXPECT_EQ(o.server->sendTrigger(), 0);
    EXPECT_TRUE(o.waitConnected(2000));
    for (const auto& p : o.calls.payloads(1280))
        ASSERT_EQ(p, payloadOf(unit));
}

// A reply that arrives after its command gave up is the first whole message the next
// command finds, when it comes in after that command emptied the control buffer.
TEST(UsbFaults, StaleRepliesAndTheNextCommand)
{
    LogCapture log;
    Online o;
    o.start();
    ASSERT_TRUE(o.waitConnected(2000));
    o.head.startStream(streamPacket(20000), 0, 2e6);
    Exchange x;
    short w = 0, h = 0;
    // A command's reply may reach the host after the command returned (it took an
    // earlier one): let control IN hand out whatever is queued before the next phase.
    auto settle = [&] {
        std::this_thread::sleep_for(milliseconds(200));
        EXPECT_TRUE(o.head.waitPending(Head::kCtrlIn, 1, 2000));
    };
    auto getSize = [&] { return o.server->getImageSize(&w, &h); };
    // A command times out while control IN fails, so its reply waits in the head; the
    // next command's reply is set, and control IN delivers again once that command's
    // request is out.
    auto nextWhileHeld = [&](unsigned short staleType) {
        settle();
        o.head.failTransfers(true, EPROTO);
        EXPECT_EQ(x.run(*o.server, staleType, 300), -1);
        o.head.setEchoReply(4, imageSize(1024, 768));
        o.head.clearCommands();
        auto query = std::make_unique<InFlight>(getSize);
        Head::Request r;
        EXPECT_TRUE(o.head.nextCommand(r, 10000));
        EXPECT_EQ(r.type, 4);
        o.head.failTransfers(false);
        query->join();
        return query;
    };

    // A late reply of the expected type passes for the next command's own.
    o.head.setEchoReply(4, imageSize(640, 480));
    auto query = nextWhileHeld(4);
    EXPECT_EQ(query->result, 0);
    EXPECT_LT(query->tookMs, 3000 + 1500 + kSlackMs);
    EXPECT_EQ(w, 640);
    EXPECT_EQ(h, 480);
    // Its own reply came after it and is emptied by the command after.
    settle();
    EXPECT_EQ(getSize(), 0);
    EXPECT_EQ(w, 1024);
    EXPECT_EQ(h, 768);

    // A late status reply fails a query: wrong type.
    w = h = 0;
    query = nextWhileHeld(13);
    EXPECT_EQ(query->result, -1);
    EXPECT_LT(query->tookMs, 3000 + 1500 + kSlackMs);
    EXPECT_EQ(log.count("ztUsbProxyServer::[getImageSize] receive data error"), 1);
    EXPECT_EQ(w, 0);
    settle();
    EXPECT_EQ(getSize(), 0);
    EXPECT_EQ(w, 1024);
    EXPECT_EQ(log.count("ztUsbProxyServer::sendCtrlCmd timeout"), 2);
    EXPECT_EQ(o.calls.count(ZT_CODE_DEVICE_OFFLINE), 0u);
    EXPECT_TRUE(o.server->isConnected());
}

TEST(UsbFaults, FullStreamPoolStallsNeitherCommandsNorEventsNorTheHeartbeat)
{
    LogCapture log;
    Online o;
    o.start();
    ASSERT_TRUE(o.waitConnected(2000));
    o.calls.holdOn(1280);
    const auto packet = streamPacket(1000);
    for (int i = 0; i < 100; ++i)
        o.head.pushStream(packet);

    // The stream consumer is held in its callback for longer than the heartbeat allows
    // a silent device; commands, events and the heartbeat go on meanwhile.
    Exchange x;
    const auto t0 = Clock::now();
    for (int i = 0; msSince(t0) < 3000; ++i) {
        o.head.setStatusReply(13, 50 + i);
        ASSERT_EQ(x.run(*o.server, 13, 3000), 0);
        EXPECT_EQ(x.status(), Head::statusMessage(50 + i));
        o.head.pushEvent(Head::message(static_cast<unsigned short>(740 + i), "e", 1));
        EXPECT_EQ(o.calls.waitCount(740 + i, 1, 2000), 1u);
        std::this_thread::sleep_for(milliseconds(200));
    }
    EXPECT_TRUE(o.server->isConnected());
    EXPECT_EQ(o.calls.count(ZT_CODE_DEVICE_OFFLINE), 0u);
    EXPECT_EQ(o.head.queuedStreamBytes(), 0u);
    ASSERT_TRUE(o.head.waitPending(Head::kStreamIn, 32, 5000));

    o.calls.release();
    // The frame in the callback and the 63 queued behind it; the rest were dropped.
    EXPECT_EQ(o.calls.waitCount(1280, 64, 3000), 64u);
    std::this_thread::sleep_for(milliseconds(200));
    EXPECT_EQ(o.calls.count(1280), 64u);
    o.head.pushStream(packet);
    EXPECT_EQ(o.calls.waitCount(1280, 65, 3000), 65u);
}

} // namespace
