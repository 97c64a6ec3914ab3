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

// The application, as on the network link; the stream's marker packet is of type 512.
Outcome runApplication(libusb_device_handle* handle, ztRecorder* recorder, const std::function<void(int)>& between)
{
    const auto online = [](ztUsbProxyServer& s) {
        const int result = s.init();
        EXPECT_TRUE(waitUntil(3000, [&] { return s.isConnected(); }));
        return result;
    };
    return runApplicationOn<ztUsbProxyServer>(online, kFrames, 512, recorder, between,
                                                      ztSimUsbHead::deviceInfo(), handle);
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
    Outcome live;
    {
        ztSimUsbHead head;
        ASSERT_EQ(head.start(), 0);
        ztRecorder recorder;
        ASSERT_EQ(recorder.open(path), 0);
        {
            UsbHandle usb;
            ASSERT_TRUE(usb.open());
            live = runApplication(usb.handle, &recorder, [&](int phase) { liveHead(head, phase); });
        }
        recorder.close();
        EXPECT_EQ(recorder.stats().notRecorded, 0u);
        head.stop();
    }
    EXPECT_EQ(live.results, (std::vector<int>{0, 0, 0, 0, 0, 0}));
    EXPECT_NE(live.before, 2500.0f);
    EXPECT_EQ(live.exposure, 2500.0f);

    ztRecorder::Contents rec;
    ASSERT_EQ(ztRecorder::load(path, rec), 0);
    EXPECT_EQ(rec.header.link, ztRecorder::UsbLink);
    EXPECT_EQ(rec.header.serialNumber, ztSimUsbHead::deviceInfo().serialNumber);
    EXPECT_TRUE(rec.header.abilityKnown);
    const unsigned char endpoints[5] = {ztSimUsbHead::kStreamIn, ztSimUsbHead::kCtrlIn, ztSimUsbHead::kEventIn,
                                        ztSimUsbHead::kCtrlOut, ztSimUsbHead::kHeartbeatOut};
    EXPECT_TRUE(std::equal(endpoints, endpoints + 5, rec.header.endpoints));
    std::size_t streamBytes = 0;
    int commands = 0;
    for (const auto& r : rec.records) {
        if (r.kind == ztRecorder::BytesIn && r.channel == ztSimUsbHead::kStreamIn)
            streamBytes += r.bytes.size();
        commands += r.kind == ztRecorder::Command ? 1 : 0;
    }
    EXPECT_EQ(streamBytes, kFrames * (kFrameBytes + 77) + 500 + 77);
    // The ability query and the SET file of init, then the application's five.
    EXPECT_EQ(commands, 7);

    ztSimReplay replay;
    ASSERT_EQ(replay.load(path), 0);
    ASSERT_EQ(replay.startUsb(), 0);
    Outcome again;
    {
        UsbHandle usb;
        ASSERT_TRUE(usb.open());
        again = runApplication(usb.handle, nullptr, [](int) {});
    }
    EXPECT_TRUE(replay.waitDone(5000));
    replay.stop();
    expectSameOutcome(again, live);
    EXPECT_EQ(replay.unmatchedCommands(), 0);
    std::remove(path.c_str());
}

} // namespace
