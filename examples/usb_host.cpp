// A minimal host for a USB scanner head: open it with libusb, bring it online, read a
// few values and count the frames it streams.
//
//   usb_host [VENDOR_ID PRODUCT_ID]        (hexadecimal; default 1d6b 5a01)
//
// The endpoint description below is the head's usual layout; `ztproxy usb` reads it from
// the device's descriptors instead.
#include <ztUsbProxyServer.h>

#include <libusb.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

namespace {

std::atomic<int> frames{0};

// Runs on the server's own threads: keep it short and never call a command from here.
void onData(int type, char*, int, void*)
{
    if (type != ZT_CODE_DEVICE_ONLINE && type != ZT_CODE_DEVICE_OFFLINE)
        ++frames;
}

} // namespace

int main(int argc, char** argv)
{
    const auto vendor = static_cast<unsigned short>(std::strtoul(argc > 1 ? argv[1] : "1d6b", nullptr, 16));
    const auto product = static_cast<unsigned short>(std::strtoul(argc > 2 ? argv[2] : "5a01", nullptr, 16));

    // The server works on libusb's default context.
    if (libusb_init(nullptr) != 0)
        return 1;
    libusb_device_handle* handle = libusb_open_device_with_vid_pid(nullptr, vendor, product);
    if (handle == nullptr || libusb_claim_interface(handle, 0) != 0) {
        std::fprintf(stderr, "no USB scanner head %04x:%04x\n", vendor, product);
        if (handle != nullptr)
            libusb_close(handle);
        libusb_exit(nullptr);
        return 1;
    }
    _ZT_USB3_DEVICE_INFO_ info{};
    info.streamInEndpoint = 0x81;
    info.ctrlInEndpoint = 0x82;
    info.eventInEndpoint = 0x83;
    info.ctrlOutEndpoint = 0x01;
    info.heartbeatOutEndpoint = 0x02;
    info.streamMaxPacket = 16384;
    info.ctrlMaxPacket = 16384;
    info.eventMaxPacket = 1024;

    int rc = 0;
    {
        ztUsbProxyServer head(info, handle);
        head.registerModuleServerDataCB(onData, nullptr);
        if (head.init() != 0) {
            std::fprintf(stderr, "the USB head does not come online\n");
            rc = 1;
        } else {
            // Online once the first heartbeat is answered.
            for (int i = 0; i < 40 && !head.isConnected(); ++i)
                std::this_thread::sleep_for(std::chrono::milliseconds(50));
            float exposure = 0;
            // The USB link returns the head's own status word for settings.
            std::printf("setCameraExposure -> %d\n", head.setCameraExposure(2500.0f));
            if (head.getCameraExposure(&exposure) == 0)
                std::printf("exposure %.1f\n", exposure);
            std::string firmware;
            if (head.getFirmwareVersion(firmware) == 0)
                std::printf("firmware %s\n", firmware.c_str());
            std::this_thread::sleep_for(std::chrono::milliseconds(500));
            std::printf("%d frames and events from the head\n", frames.load());
        }
        head.deInit();
    }
    libusb_release_interface(handle, 0);
    libusb_close(handle);
    libusb_exit(nullptr);
    return rc;
}
