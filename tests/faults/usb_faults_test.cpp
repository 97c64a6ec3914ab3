// Faults of the USB head while the link is busy: transfers completing with errors, the
// device vanishing and coming back, replies that arrive after their command gave up, and a
// stream consumer that falls behind. Real libusb against the emulated head.
#include "support/destroy_on_offline.h"
#include "support/log_capture.h"
#include "support/usb_online.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <future>

using namespace zt::test;
using Head = ztSimUsbHead;

namespace {

// Allowance for a loaded machine (parallel tests, sanitizers) on top of a nominal duration.
constexpr long long kSlackMs = 2000;
// The offline declaration: five silent 500 ms heartbeat periods, then the release pause.
constexpr long long kOfflineMs = 3000;

// Every frame delivered is the unit; how many there are.
std::size_t unitsDelivered(UsbOnline& o, const std::vector<char>& unit)
{
    const auto got = o.calls.payloads(1280);
    for (const auto& p : got)
        EXPECT_EQ(p, payloadOf(unit));
    return got.size();
}

// libusb hands completions to whichever thread handles events: a command's or the
// heartbeat's synchronous transfer runs stream completions, even while the receive thread
// is still submitting its transfers (the stream already runs when init asks its first
// query). Bursts of failing transfers carry nothing and are resubmitted at once.
TEST(UsbFaults, StreamAndCommandsThroughTransferErrorBursts)
{
    LogCapture log;
    UsbOnline o;
    ASSERT_TRUE(o.open());
    // Slow enough that what waits during a burst fits in the 64 stream frames.
    const auto unit = streamPacket(50000);
    o.head.startStream(unit, 0, 2e6);
    ASSERT_TRUE(o.startServer());
    RawCommand x;
    for (int i = 0; i < 2000 && (i < 10 || o.calls.count(1280) < 10); ++i) {
        o.head.setStatusReply(13, i);
        ASSERT_EQ(x.run(*o.server, 13, 3000), 0);
        ASSERT_EQ(x.status(), Head::statusMessage(i));
    }
    ASSERT_GE(o.calls.waitCount(1280, 5, 5000), 5u);

    const int errors[2] = {EPROTO, EPIPE};
    for (int i = 0; i < 2; ++i) {
        // No reply is set, so that none can come late for the next command.
        o.head.setNoReply(13);
        o.head.failTransfers(true, errors[i]);
        const std::size_t handed = o.head.streamedBytes();
        o.head.pushEvent(Head::message(static_cast<unsigned short>(730 + i), "ev", 2));
        const auto t0 = Clock::now();
        EXPECT_EQ(x.run(*o.server, 13, 400), -1);
        EXPECT_GE(msSince(t0), 400);
        EXPECT_EQ(log.count("ztUsbProxyServer::sendCtrlCmd timeout"), i + 1);
        // No stream bytes, control reply or event were taken while the errors lasted.
        EXPECT_EQ(o.head.streamedBytes(), handed);
        EXPECT_EQ(o.calls.count(730 + i), 0u);
        // Every transfer was resubmitted: once the errors stop, what waited arrives.
        o.head.failTransfers(false);
        EXPECT_EQ(o.calls.waitCount(730 + i, 1, 3000), 1u);
        EXPECT_TRUE(waitUntil(3000, [&] { return o.head.streamedBytes() > handed; }));
        o.head.setStatusReply(13, 40 + i);
        ASSERT_EQ(x.run(*o.server, 13, 3000), 0);
        EXPECT_EQ(x.status(), Head::statusMessage(40 + i));
    }
    // Nothing lost or doubled: the whole units the head handed out, once each.
    o.head.stopStream();
    const std::size_t units = o.head.streamedBytes() / unit.size();
    EXPECT_EQ(o.calls.waitCount(1280, units, 5000), units);
    EXPECT_EQ(unitsDelivered(o, unit), units);
    // Short bursts never reach the five silent heartbeat periods.
    EXPECT_EQ(o.calls.count(ZT_CODE_DEVICE_OFFLINE), 0u);
    EXPECT_TRUE(o.server->isConnected());
    // The release pause, then the receive thread notices the stop flags when its event
    // wait (at most 1 s) returns, and drains.
    const auto t0 = Clock::now();
    o.server->deInit();
    EXPECT_LT(msSince(t0), 1500 + kSlackMs);
}

// Lasting errors while a command waits for its reply: the command times out, the heartbeat
// (waiting for the command lock meanwhile) then counts five silent periods, and the owner
// destroys the server in the offline callback.
TEST(UsbFaults, LastingTransferErrorsTakeTheHeadOfflineAfterFiveSilentBeats)
{
    LogCapture log(ZTLOG_LEVEL_INFO);
    UsbOnline o;
    ASSERT_TRUE(o.open());
    DestroyOnOffline<ztUsbProxyServer> owner(std::make_unique<ztUsbProxyServer>(Head::deviceInfo(), o.handle));
    struct Both {
        DataCalls* calls;
        DestroyOnOffline<ztUsbProxyServer>* owner;
    } both{&o.calls, &owner};
    owner.server->registerModuleServerDataCB(
        [](int type, char* data, int length, void* user) {
            auto* b = static_cast<Both*>(user);
            DataCalls::cb(type, data, length, b->calls);
            DestroyOnOffline<ztUsbProxyServer>::cb(type, data, length, b->owner);
        },
        &both);
    ASSERT_EQ(owner.server->init(), 0);
    o.head.startStream(streamPacket(50000), 0, 4e6);
    ASSERT_GE(o.calls.waitCount(1280, 5, 5000), 5u);

    // The errors begin just after a heartbeat answer arrived: its period counts as alive,
    // every later one is silent.
    const std::size_t answers = o.calls.count(Head::kHeartbeatType); // raised as events
    ASSERT_GT(o.calls.waitCount(Head::kHeartbeatType, answers + 1, 3000), answers);
    o.head.failTransfers(true, EPROTO);
    const int beats = o.head.heartbeatsReceived();
    auto t0 = Clock::now();
    EXPECT_EQ(owner.server->sendTrigger(), -1);
    EXPECT_GE(msSince(t0), 2990);
    EXPECT_LT(msSince(t0), 3000 + kSlackMs);
    EXPECT_EQ(o.calls.count(ZT_CODE_DEVICE_OFFLINE), 0u);
    // Counted in beats: failing transfers resubmitted at once keep libusb's event
    // handling busy, which stretches each period on a loaded machine.
    t0 = Clock::now();
    ASSERT_TRUE(owner.waitGone(15000));
    EXPECT_GE(msSince(t0), kOfflineMs - 100);
    EXPECT_EQ(o.head.heartbeatsReceived() - beats, 5);
    EXPECT_EQ(o.calls.count(ZT_CODE_DEVICE_OFFLINE), 1u);
    EXPECT_TRUE(log.waitFor("ztUsbProxyServer::heartbeat timeout, usbdevice sn : ZTSIM0001", 1000));
    EXPECT_EQ(log.count("ztUsbProxyServer::sendCtrlCmd timeout"), 1);
    EXPECT_EQ(log.count("ztUsbProxyServer::[sendTrigger] send cmd failed"), 1);
    // No transfer is resubmitted any more: every loop drains and ends.
    for (const char* stop : {"usb event receive loop stop", "usb stream receive loop stop", "usb control receive loop stop"})
        EXPECT_EQ(log.count(stop), 1) << stop;
    for (unsigned char ep : {Head::kStreamIn, Head::kCtrlIn, Head::kEventIn})
        EXPECT_EQ(o.head.pendingTransfers(ep), 0) << int(ep);
    EXPECT_EQ(log.count("ztUsbProxyServer::heartbeat timeout, usbdevice sn : ZTSIM0001"), 1);
}

TEST(UsbFaults, DeviceVanishesWhileStreamingAndCommandingThenANewServerOnTheReplug)
{
    LogCapture log(ZTLOG_LEVEL_INFO);
    UsbOnline o;
    ASSERT_TRUE(o.start());
    ASSERT_TRUE(o.waitConnected());
    const auto unit = streamPacket(50000);
    o.head.startStream(unit, 0, 4e6);
    ASSERT_GE(o.calls.waitCount(1280, 5, 5000), 5u);
    std::atomic<bool> stop{false};
    std::atomic<int> ok{0}, failed{0};
    std::thread commands([&] {
        while (!stop) {
            (o.server->sendTrigger() == 0 ? ok : failed)++;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    });
    // A slow (sanitizer) build on a loaded machine may see a command time out first.
    EXPECT_TRUE(waitUntil(10000, [&] { return ok > 0; }));

    const auto t0 = Clock::now();
    o.head.unplug();
    ASSERT_EQ(o.calls.waitCount(ZT_CODE_DEVICE_OFFLINE, 1, 10000), 1u);
    EXPECT_GE(msSince(t0), kOfflineMs - 600); // the first period may end at once
    EXPECT_LT(msSince(t0), kOfflineMs + kSlackMs);
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
    for (int i = 0; i < 2; ++i) { // twice is harmless
        const auto t1 = Clock::now();
        o.server->deInit();
        EXPECT_LT(msSince(t1), 500 + kSlackMs);
    }
    const std::size_t delivered = o.calls.count(1280);
    EXPECT_EQ(o.calls.count(ZT_CODE_DEVICE_OFFLINE), 1u);

    // There is no reconnect inside a server: the owner opens the device again and builds
    // a new one, which comes online and streams.
    o.close();
    o.head.replug();
    ASSERT_TRUE(o.openHandle());
    ASSERT_TRUE(o.startServer());
    EXPECT_EQ(o.calls.count(ZT_CODE_DEVICE_ONLINE), 2u);
    EXPECT_GE(o.calls.waitCount(1280, delivered + 10, 5000), delivered + 10);
    EXPECT_EQ(o.server->sendTrigger(), 0);
    EXPECT_TRUE(o.waitConnected());
    EXPECT_GE(unitsDelivered(o, unit), delivered + 10);
}

// A reply that arrives after its command gave up is the first whole message the next
// command finds, when it comes in after that command emptied the control buffer.
TEST(UsbFaults, StaleRepliesAndTheNextCommand)
{
    LogCapture log;
    UsbOnline o;
    ASSERT_TRUE(o.start());
    ASSERT_TRUE(o.waitConnected());
    o.head.startStream(streamPacket(20000), 0, 2e6);
    RawCommand x;
    short w = 0, h = 0;
    auto getSize = [&] { return o.server->getImageSize(&w, &h); };
    // No reply is left in the head for the host once a command is answered with its own
    // status: replies leave in the order of their requests.
    int tag = 900;
    auto flush = [&] {
        for (int i = 0; i < 10; ++i, ++tag) {
            o.head.setStatusReply(13, tag);
            if (x.run(*o.server, 13, 3000) == 0 && x.status() == Head::statusMessage(tag))
                return;
        }
        ADD_FAILURE() << "the head still holds replies";
    };
    // A command times out while control IN fails, so its reply waits in the head; the
    // next command's reply is set, and control IN delivers again once that command's
    // request is out.
    auto nextWhileHeld = [&](unsigned short staleType) {
        flush();
        o.head.failTransfers(true, EPROTO);
        EXPECT_EQ(x.run(*o.server, staleType, 300), -1);
        o.head.setEchoReply(4, {0, 0, 0, 0, 0, 4, 0, 3}); // 1024 x 768
        o.head.clearCommands();
        const auto t0 = Clock::now();
        auto query = std::async(std::launch::async, getSize);
        Head::Request r;
        EXPECT_TRUE(o.head.nextCommand(r, 10000));
        EXPECT_EQ(r.type, 4);
        o.head.failTransfers(false);
        const int result = query.get();
        EXPECT_LT(msSince(t0), 3000 + kSlackMs);
        return result;
    };

    // A late reply of the expected type passes for the next command's own; a late status
    // reply fails a query: wrong type.
    o.head.setEchoReply(4, {0, 0, 0, 0, '\x80', 2, '\xE0', 1}); // 640 x 480
    EXPECT_EQ(nextWhileHeld(4), 0);
    EXPECT_EQ(w * 10000 + h, 640 * 10000 + 480);
    flush();
    EXPECT_EQ(getSize(), 0);
    EXPECT_EQ(w * 10000 + h, 1024 * 10000 + 768);
    w = h = 0;
    EXPECT_EQ(nextWhileHeld(13), -1);
    EXPECT_EQ(log.count("ztUsbProxyServer::[getImageSize] receive data error"), 1);
    EXPECT_EQ(w, 0);
    flush();
    EXPECT_EQ(getSize(), 0);
    EXPECT_EQ(w, 1024);
    EXPECT_EQ(log.count("ztUsbProxyServer::sendCtrlCmd timeout"), 2);
    EXPECT_EQ(o.calls.count(ZT_CODE_DEVICE_OFFLINE), 0u);
    EXPECT_TRUE(o.server->isConnected());
}

// The stream consumer is held in its callback for longer than the heartbeat allows a
// silent device; commands, events and the heartbeat go on meanwhile. The 64 stream
// frames fill and the rest is dropped without a word.
TEST(UsbFaults, FullStreamPoolStallsNeitherCommandsNorEventsNorTheHeartbeat)
{
    LogCapture log;
    UsbOnline o;
    ASSERT_TRUE(o.start());
    ASSERT_TRUE(o.waitConnected());
    o.calls.holdOn(1280);
    const auto packet = streamPacket(1000);
    for (int i = 0; i < 100; ++i)
        o.head.pushStream(packet);

    RawCommand x;
    const auto t0 = Clock::now();
    for (int i = 0; msSince(t0) < kOfflineMs; ++i) {
        o.head.setStatusReply(13, 50 + i);
        ASSERT_EQ(x.run(*o.server, 13, 3000), 0);
        EXPECT_EQ(x.status(), Head::statusMessage(50 + i));
        o.head.pushEvent(Head::message(static_cast<unsigned short>(740 + i), "e", 1));
        EXPECT_EQ(o.calls.waitCount(740 + i, 1, 2000), 1u);
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
    EXPECT_TRUE(o.server->isConnected());
    EXPECT_EQ(o.calls.count(ZT_CODE_DEVICE_OFFLINE), 0u);
    EXPECT_EQ(o.head.queuedStreamBytes(), 0u);
    // Every transfer back in flight: all completions with the packets have been handled.
    ASSERT_TRUE(o.head.waitPending(Head::kStreamIn, 32, 5000));

    o.calls.release();
    // The frame in the callback and the 63 queued behind it.
    EXPECT_EQ(o.calls.waitCount(1280, 64, 3000), 64u);
    o.head.pushStream(packet);
    EXPECT_EQ(o.calls.waitCount(1280, 65, 3000), 65u);
    EXPECT_EQ(unitsDelivered(o, packet), 65u);
    for (const auto& line : log.lines())
        EXPECT_EQ(line.text.find("xfer_callback_stream"), std::string::npos) << line.text;
}

} // namespace
