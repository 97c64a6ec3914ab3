// Faults of the USB head while the link is busy: transfers that keep failing, and a stream
// consumer that falls behind. Real libusb against the emulated head.
#include "support/destroy_on_offline.h"
#include "support/log_capture.h"
#include "support/usb_online.h"

#include <gtest/gtest.h>

#include <cerrno>

using namespace zt::test;
using Head = ztSimUsbHead;

namespace {

// Allowance for a loaded machine (parallel tests, sanitizers) on top of a nominal duration.
constexpr long long kSlackMs = 2000;
// The offline declaration: five silent 500 ms heartbeat periods, then the release pause.
constexpr long long kOfflineMs = 3000;

// Lasting errors while a command waits for its reply: the command times out, the heartbeat
// (waiting for the command lock meanwhile) then counts five silent periods, and the owner
// destroys the server in the offline callback.
TEST(UsbFaults, LastingTransferErrorsTakeTheHeadOfflineAfterFiveSilentBeats)
{
    LogCapture log(ZTLOG_LEVEL_INFO);
    UsbOnline o;
    ASSERT_TRUE(o.open());
    DestroyOnOffline<ztUsbProxyServer> owner(std::make_unique<ztUsbProxyServer>(Head::deviceInfo(), o.handle),
                                             &o.calls);
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
    EXPECT_EQ(o.calls.payloads(1280), std::vector<std::string>(65, payloadOf(packet)));
    for (const auto& line : log.lines())
        EXPECT_EQ(line.text.find("xfer_callback_stream"), std::string::npos) << line.text;
}

} // namespace
