#include "demo.h"

#include "frame_record.h"
#include "stream_view.h"
#include "usb_emulation.h"
#include "usb_open.h"
#include "ztSimUsbHead.h"
#include "ztUsbProxyServer.h"

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <string>
#include <thread>

namespace zt::tools {

namespace {

constexpr unsigned short kWidth = 1280;
constexpr unsigned short kHeight = 1024;
constexpr int kFrames = 100;
// The stamp of the frame that is made into the image.
constexpr unsigned long long kImageStamp = 0x5A17;
constexpr unsigned short kTriggerType = 13;

// What the server's data callback sees; it turns the frame with kImageStamp into the PNG.
struct UsbDelivery {
    ztUsbProxyServer* server = nullptr;
    std::string pngPath;
    std::mutex mutex;
    std::condition_variable cv;
    long long frames = 0;
    long long bytes = 0;
    int offline = 0;
    bool imageDone = false;
    std::string imageError;

    static void cb(int type, char* data, int length, void* user)
    {
        auto* self = static_cast<UsbDelivery*>(user);
        if (type == kFullFrameType) {
            char* record = recordIn(data, length);
            std::string error;
            const bool image = record != nullptr && recordStamp(record) == kImageStamp;
            const bool saved = image && saveRecordAsPng(*self->server, record, self->pngPath, error);
            std::lock_guard<std::mutex> lock(self->mutex);
            ++self->frames;
            self->bytes += length;
            if (image) {
                self->imageDone = true;
                self->imageError = saved ? "" : error;
            }
        } else if (type == ZT_CODE_DEVICE_OFFLINE) {
            std::lock_guard<std::mutex> lock(self->mutex);
            ++self->offline;
        }
        self->cv.notify_all();
    }
};

void show(const char* what, int rc, const std::string& value = "")
{
    std::printf("  %-44s %d%s%s\n", what, rc, value.empty() ? "" : "  ", value.c_str());
}

} // namespace

int runUsbHeadDemo(const std::string& pngPath)
{
    std::printf("== USB head: libusb bulk transfers to an emulated head ==\n");
    ztSimUsbHead head;
    if (head.start() != 0) {
        reportUsbEmulationMissing();
        return 1;
    }
    head.device().setImageSize(static_cast<short>(kWidth), static_cast<short>(kHeight));
    int failures = 0;
    {
        UsbHead usb;
        std::string error;
        if (!usb.open(UsbSelector{ztSimUsbHead::kVendor, ztSimUsbHead::kProduct, ""}, error)) {
            std::fprintf(stderr, "demo: %s\n", error.c_str());
            return 1;
        }
        UsbDelivery got;
        got.pngPath = pngPath;
        ztUsbProxyServer server(usb.info(), usb.handle());
        got.server = &server;
        server.registerModuleServerDataCB(&UsbDelivery::cb, &got);
        const int rc = server.init();
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(2500);
        while (rc == 0 && !server.isConnected() && std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        std::printf("  %-44s %s\n", ("open " + std::string(usb.info().serialNumber) + ", init").c_str(),
                    server.isConnected() ? "ok, device online (284)" : "failed");
        if (!server.isConnected()) {
            server.deInit();
            return 1;
        }
        auto expect = [&](bool ok) { failures += ok ? 0 : 1; };

        int r = server.setCameraExposure(5000);
        show("setCameraExposure(5000)", r);
        expect(r == 0);
        float exposure = 0;
        r = server.getCameraExposure(&exposure);
        show("getCameraExposure", r, std::to_string(exposure).substr(0, 7));
        expect(r == 0 && exposure == 5000);
        r = server.setCameraFrameRate(60);
        show("setCameraFrameRate(60)", r);
        expect(r == 0);
        int fps = 0;
        r = server.getCameraFrameRate(&fps);
        show("getCameraFrameRate", r, std::to_string(fps));
        expect(r == 0 && fps == 60);
        short width = 0;
        short height = 0;
        r = server.getImageSize(&width, &height);
        show("getImageSize", r, std::to_string(width) + " x " + std::to_string(height));
        expect(r == 0 && width == kWidth && height == kHeight);
        std::string firmware;
        r = server.getFirmwareVersion(firmware);
        show("getFirmwareVersion", r, "\"" + firmware + "\"");
        expect(r == 0);
        DeviceAbilityInfo ability{};
        r = server.getDeviceAbilityInfo(&ability);
        show("getDeviceAbilityInfo", r, "product type " + std::to_string(ability.productType));
        expect(r == 0);
        // The USB link hands back the head's status word as it stands.
        head.device().setStatus(kTriggerType, 5);
        r = server.sendTrigger();
        show("sendTrigger (the head answers status 5)", r);
        expect(r == 5);

        // A stream of full-frame records, then the one that becomes the image.
        const std::vector<char> packet = scanPacket(kWidth, kHeight, 1);
        const bool terminal = stdoutIsTerminal();
        ProgressBar bar("stream", kFrames, terminal);
        const UsageMeter meter;
        head.startStream(packet, kFrames, 0);
        long long frames = 0;
        long long bytes = 0;
        for (;;) {
            std::unique_lock<std::mutex> lock(got.mutex);
            got.cv.wait_for(lock, std::chrono::milliseconds(50), [&] { return got.frames >= kFrames; });
            frames = got.frames;
            bytes = got.bytes;
            lock.unlock();
            bar.update(frames);
            if (frames >= kFrames || meter.seconds() > 20)
                break;
        }
        const StreamFigures figures{frames, bytes, meter.seconds(), meter.cpuPercent()};
        bar.finish(frames);
        std::printf("  %-44s %s\n", "stream", figures.text().c_str());
        std::printf("  %-44s %s\n", "", "(CPU: this process, the emulated head included)");
        expect(frames == kFrames);

        head.pushStream(scanPacket(kWidth, kHeight, kImageStamp));
        std::unique_lock<std::mutex> lock(got.mutex);
        const bool done = got.cv.wait_for(lock, std::chrono::seconds(5), [&] { return got.imageDone; });
        if (done && got.imageError.empty())
            std::printf("  %-44s %s (%d x %d, 8 bits)\n", "getOriImageData -> PNG", pngPath.c_str(), kWidth, kHeight);
        else
            std::printf("  %-44s %s\n", "getOriImageData -> PNG",
                        done ? got.imageError.c_str() : "the frame did not arrive");
        expect(done && got.imageError.empty());
        lock.unlock();
        server.deInit();
    }
    head.stop();
    std::printf("  %s\n", failures == 0 ? "USB head: every step went as expected" : "USB head: some steps failed");
    return failures == 0 ? 0 : 1;
}

} // namespace zt::tools
