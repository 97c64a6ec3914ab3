#include "demo.h"

#include "stream_view.h"
#include "ztEmbeddedModuleProxyServer.h"
#include "ztSimNetworkHead.h"

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <string>

namespace zt::tools {

namespace {

// Counts what the head delivers through the server's data callback.
struct Delivery {
    std::mutex mutex;
    std::condition_variable cv;
    int online = 0;
    int offline = 0;
    long long packets = 0;
    long long bytes = 0;
    static void cb(int type, char*, int len, void* user)
    {
        auto* self = static_cast<Delivery*>(user);
        std::lock_guard<std::mutex> lock(self->mutex);
        if (type == ZT_CODE_DEVICE_ONLINE)
            ++self->online;
        else if (type == ZT_CODE_DEVICE_OFFLINE)
            ++self->offline;
        else if (type == 1280) {
            ++self->packets;
            self->bytes += len;
        }
        self->cv.notify_all();
    }
    template <class Pred>
    bool waitUntil(int ms, Pred pred)
    {
        std::unique_lock<std::mutex> lock(mutex);
        return cv.wait_for(lock, std::chrono::milliseconds(ms), pred);
    }
};

} // namespace

int runNetworkHeadDemo()
{
    std::printf("== network head: four connections to a simulated head on loopback ==\n");
    ztSimNetworkHead head("127.0.0.1");
    if (head.start() != 0) {
        std::fprintf(stderr, "demo: the simulated head cannot listen on port 42001 (in use?)\n");
        return 1;
    }
    Delivery got;
    ztEmbeddedModuleProxyServer server;
    server.registerModuleServerDataCB(&Delivery::cb, &got);
    int failures = 0;
    const int rc = server.init("127.0.0.1", "127.0.0.1", "SIM-HEAD-01");
    std::printf("  init                                         %s\n", rc == 0 ? "ok, device online (284)" : "failed");
    failures += rc == 0 ? 0 : 1;
    const DeviceAbilityInfo ability = server.getCurDeviceAbilityInfo();
    std::printf("  ability record                               product type %u\n", ability.productType);
    int v[4] = {0, 0, 0, 0};
    const int version = server.getRKProgramVersion(&v[0], &v[1], &v[2], &v[3]);
    std::printf("  getRKProgramVersion                          %s  %d.%d.%d.%d\n", version == 0 ? "ok" : "failed", v[0],
                v[1], v[2], v[3]);
    failures += version == 0 ? 0 : 1;
    const int trigger = server.sendTrigger();
    std::printf("  sendTrigger                                  %s\n", trigger == 0 ? "ok" : "failed");
    failures += trigger == 0 ? 0 : 1;

    // A burst of image packets on the data connection.
    constexpr int kPackets = 200;
    const std::string image(1 << 20, '\x5a');
    ProgressBar bar("stream", kPackets, stdoutIsTerminal());
    const UsageMeter meter;
    head.startStream(ztSimNetworkHead::Data, ztSimNetworkHead::extendedPacket(1280, 1, image.data(), image.size()),
                     kPackets, 0);
    StreamFigures figures;
    for (;;) {
        const bool all = got.waitUntil(50, [&] { return got.packets >= kPackets; });
        {
            std::lock_guard<std::mutex> lock(got.mutex);
            figures.frames = got.packets;
            figures.bytes = got.bytes;
        }
        bar.update(figures.frames);
        if (all || meter.seconds() > 20)
            break;
    }
    figures.seconds = meter.seconds();
    figures.cpuPercent = meter.cpuPercent();
    bar.finish(figures.frames);
    std::printf("  stream                                       %s\n", figures.text().c_str());
    failures += figures.frames == kPackets ? 0 : 1;

    // The head falls silent: five missed heartbeats later it is offline.
    head.setAnswerHeartbeats(false);
    const bool offline = got.waitUntil(6000, [&] { return got.offline > 0; });
    std::printf("  head silent                                  %s\n",
                offline ? "offline (283) after five missed heartbeats" : "still online?");
    failures += offline ? 0 : 1;
    server.deInit();
    head.stop();
    std::printf("  %s\n", failures == 0 ? "network head: every step went as expected" : "network head: some steps failed");
    return failures == 0 ? 0 : 1;
}

} // namespace zt::tools
