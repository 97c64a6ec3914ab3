// A USB head's session recorded, then replayed through the emulated head to a fresh
// server: the application sees the same results and the same callbacks, in the same order.
#include "record_app.h"
#include "support/usb_online.h"
#include "ztRecorder.h"
#include "ztSimReplay.h"
#include "ztSimUsbHead.h"
#include "ztUsbProxyServer.h"

#include <gtest/gtest.h>
#include <libusb.h>

#include <cstdio>
#include <functional>
#include <string>
#include <vector>

namespace {

using namespace zt::test;

constexpr std::size_t kFrames = 3;
constexpr std::size_t kFrameBytes = 200000; // several stream transfers per frame

// The application, as on the network link, on a handle of its own; the stream's marker
// packet is of type 512.
Outcome runApplication(ztRecorder* recorder, const std::function<void(int)>& between)
{
    const auto online = [](ztUsbProxyServer& s) {
        const int result = s.init();
        EXPECT_TRUE(waitUntil(3000, [&] { return s.isConnected(); }));
        return result;
    };
    UsbHandle usb;
    EXPECT_TRUE(usb.open());
    return runApplicationOn<ztUsbProxyServer>(online, kFrames, 512, recorder, between, ztSimUsbHead::deviceInfo(),
                                              usb.handle);
}

void liveHead(ztSimUsbHead& head, int phase)
{
    if (phase == 0) {
        std::vector<char> stream;
        for (std::size_t i = 0; i < kFrames; ++i) {
            const std::string body(kFrameBytes, static_cast<char>('a' + i));
            const auto frame = ztSimUsbHead::extendedPacket(1280, 10 + i, body.data(), body.size());
            stream.insert(stream.end(), frame.begin(), frame.end());
        }
        const std::string markers(500, 'm');
        const auto marker = ztSimUsbHead::extendedPacket(512, 99, markers.data(), markers.size());
        stream.insert(stream.end(), marker.begin(), marker.end());
        ASSERT_GT(head.pushStream(stream), 0);
    } else {
        ASSERT_GT(head.pushEvent(ztSimUsbHead::message(300, "alarm", 5)), 0);
        ASSERT_GT(head.pushEvent(ztSimUsbHead::message(301, "sync!", 5)), 0);
    }
}

TEST(UsbRecord, ReplayGivesTheApplicationWhatItSawLive)
{
    const std::string path = tempFile("usb.ztrec");
    ztRecorder::Contents rec;
    std::vector<unsigned short> commands;
    Outcome live;
    {
        ztSimUsbHead head;
        ASSERT_EQ(head.start(), 0);
        live = recordLive(
            path, [&](ztRecorder* r) { return runApplication(r, [&](int phase) { liveHead(head, phase); }); }, rec,
            commands);
    }
    EXPECT_EQ(rec.header.link, ztRecorder::UsbLink);
    EXPECT_EQ(rec.header.serialNumber, ztSimUsbHead::deviceInfo().serialNumber);
    const unsigned char endpoints[5] = {ztSimUsbHead::kStreamIn, ztSimUsbHead::kCtrlIn, ztSimUsbHead::kEventIn,
                                        ztSimUsbHead::kCtrlOut, ztSimUsbHead::kHeartbeatOut};
    EXPECT_TRUE(std::equal(endpoints, endpoints + 5, rec.header.endpoints));
    EXPECT_EQ(bytesIn(rec, ztSimUsbHead::kStreamIn), kFrames * (kFrameBytes + 77) + 500 + 77);
    // The ability query and the SET file of init, then the application's five.
    EXPECT_EQ(commands, (std::vector<unsigned short>{345, 264, 8, 7, 13, 8, 13}));

    ztSimReplay replay;
    ASSERT_EQ(replay.load(path), 0);
    ASSERT_EQ(replay.startUsb(), 0);
    expectSameOutcome(runApplication(nullptr, [](int) {}), live, replay);
    replay.stop();
    std::remove(path.c_str());
}

} // namespace
