// Teardown of the USB device server on real libusb against the emulated head: under load
// (frames streaming, commands running from another thread), with the process's threads and
// descriptors counted after each round.
#include "census.h"
#include "ztSimUsbHead.h"
#include "ztUsbProxyServer.h"

#include <gtest/gtest.h>
#include <libusb.h>

using namespace zt::test;
using Head = ztSimUsbHead;

namespace {

// releaseClient waits 500 ms; the libusb event thread then leaves its 1 s event wait and
// lets the transfers still pending drain (their time-out is 1500 ms); the processing
// threads notice their flags within 10 ms.
constexpr long kUsbStopMs = 500 + 1000 + 1500 + 10 + kAllowanceMs;
// A command in flight adds its 3000 ms reply wait: no reply comes once the control
// transfers stop.
constexpr long kCommandWaitMs = 3000;

// Round 0: deInit while commands wait for their replies; round 1: the destructor alone;
// round 2: deInit while control messages that await no reply go out.
TEST(Teardown, UsbServerWithStreamAndCommandsInFlight)
{
    Head head;
    ASSERT_EQ(head.start(), 0);
    ASSERT_EQ(libusb_init(nullptr), 0);
    const std::string body(4096, 'f');
    int commands = 0;
    auto cycle = [&](int, int round) {
        libusb_device_handle* handle = libusb_open_device_with_vid_pid(nullptr, Head::kVendor, Head::kProduct);
        ASSERT_TRUE(handle != nullptr && libusb_claim_interface(handle, Head::kInterface) == 0);
        std::atomic<int> frames{0};
        auto server = std::make_unique<ztUsbProxyServer>(Head::deviceInfo(), handle);
        server->registerModuleServerDataCB(
            [](int type, char*, int, void* f) { *static_cast<std::atomic<int>*>(f) += type == 1280 ? 1 : 0; }, &frames);
        ASSERT_EQ(server->init(), 0);
        head.startStream(Head::extendedPacket(1280, 1, body.data(), body.size()), 0, 5e5);
        Traffic callers;
        int mode = 0;
        std::string text = "teardown";
        auto& cmds = callers.add([&] { return (round == 2 ? server->sendData(text) : server->getTriggerMode(&mode)) == 0; }, 1);
        ASSERT_TRUE(callers.flowing(1, 10000 + kSanitizerSlackMs) && waitUntil(10000 + kSanitizerSlackMs, [&] { return frames >= 5; }));
        auto* raw = server.get();
        tearDown(round, server, callers, kUsbStopMs + (round == 0 ? kCommandWaitMs : 0),
                 [&] { return raw->getTriggerMode(&mode); });
        commands += cmds.ok;
        head.stopStream();
        libusb_release_interface(handle, Head::kInterface);
        libusb_close(handle);
    };
    // The emulator starts threads and descriptors of its own once the device has been used
    // (and keeps them): one round first, so that the counts start from there.
    cycle(0, 1);
    runRounds(1, 3, cycle);
    libusb_exit(nullptr);
    EXPECT_GE(commands, 3);
}

} // namespace
