// Command round trip and idle cost of an online device server, on one link per run:
//   command_bench net   network head link against the simulated head, in a private network
//                       namespace of its own (the head's port is fixed)
//   command_bench usb   USB link through the emulated head (re-runs itself with the
//                       emulation's preload when needed)
//
// Round trip: the median and p99 of getCameraExposure, against the floor that the link's
// reply polling sets (the first look at the reply comes one poll period after the send: 5 ms
// on the network link, 10 ms on the USB link). Idle: CPU share of one core and resident
// memory of the process (server and simulated head together) while the server sits online.
// Appends a JSON line to $ZT_BENCH_JSON if set.
#include "bench_support.h"
#include "netns.h"
#include "ztEmbeddedModuleProxyServer.h"
#include "ztSimNetworkHead.h"
#if ZT_BENCH_WITH_USB
#include "ztSimUsbHead.h"
#include "ztUsbProxyServer.h"

#include <libusb.h>
#endif

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kRoundTrips = 100;
constexpr int kIdleSeconds = 5;

struct Figures {
    double medianMs = 0;
    double p99Ms = 0;
    double floorMs = 0;
    double idleCpuPercent = 0;
    double residentMiB = 0;
    int failures = 0;
};

double cpuSeconds()
{
    rusage u{};
    getrusage(RUSAGE_SELF, &u);
    return static_cast<double>(u.ru_utime.tv_sec + u.ru_stime.tv_sec) +
           static_cast<double>(u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e6;
}

double residentMiB()
{
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line))
        if (line.rfind("VmRSS:", 0) == 0)
            return std::strtod(line.c_str() + 6, nullptr) / 1024.0;
    return 0;
}

void measure(ztDeviceCommandSet& server, Figures& f)
{
    std::vector<double> ms;
    for (int i = 0; i < kRoundTrips; ++i) {
        float exposure = 0;
        const auto t0 = Clock::now();
        if (server.getCameraExposure(&exposure) != 0)
            ++f.failures;
        ms.push_back(std::chrono::duration<double, std::milli>(Clock::now() - t0).count());
    }
    std::sort(ms.begin(), ms.end());
    f.medianMs = ms[ms.size() / 2];
    f.p99Ms = ms[ms.size() * 99 / 100];
    // Idle: nothing but heartbeats for a while.
    const double cpu0 = cpuSeconds();
    const auto t0 = Clock::now();
    std::this_thread::sleep_for(std::chrono::seconds(kIdleSeconds));
    const double secs = std::chrono::duration<double>(Clock::now() - t0).count();
    f.idleCpuPercent = (cpuSeconds() - cpu0) / secs * 100.0;
    f.residentMiB = residentMiB();
}

int network(Figures& f)
{
    if (!zt::test::enterPrivateNetwork()) {
        std::perror("command_bench: private network namespace");
        return 1;
    }
    ztSimNetworkHead head;
    if (head.start() != 0)
        return 1;
    ztEmbeddedModuleProxyServer server;
    if (server.init("127.0.0.1", "127.0.0.1", "bench") != 0 || !server.isConnected()) {
        std::fprintf(stderr, "command_bench: the network head did not come online\n");
        return 1;
    }
    f.floorMs = 5;
    measure(server, f);
    server.deInit();
    return 0;
}

#if ZT_BENCH_WITH_USB
int usb(char** argv, Figures& f)
{
    if (!ztSimUsbHead::emulationAvailable())
        return zt::bench::rerunWithUsbEmulation("command_bench", argv);
    ztSimUsbHead head;
    // The server works on libusb's default context.
    libusb_device_handle* handle = nullptr;
    if (head.start() != 0 || libusb_init(nullptr) != 0 ||
        (handle = libusb_open_device_with_vid_pid(nullptr, ztSimUsbHead::kVendor, ztSimUsbHead::kProduct)) == nullptr ||
        libusb_claim_interface(handle, ztSimUsbHead::kInterface) != 0) {
        std::fprintf(stderr, "command_bench: the emulated head does not start\n");
        return 1;
    }
    int rc = 0;
    {
        ztUsbProxyServer server(ztSimUsbHead::deviceInfo(), handle);
        // The link counts as connected once the first heartbeat is answered.
        const int rcInit = server.init();
        for (int i = 0; i < 40 && rcInit == 0 && !server.isConnected(); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        if (rcInit != 0 || !server.isConnected()) {
            std::fprintf(stderr, "command_bench: the USB head did not come online\n");
            rc = 1;
        } else {
            f.floorMs = 10;
            measure(server, f);
        }
        server.deInit();
    }
    libusb_release_interface(handle, ztSimUsbHead::kInterface);
    libusb_close(handle);
    libusb_exit(nullptr);
    head.stop();
    return rc;
}
#endif

} // namespace

int main(int argc, char** argv)
{
    const std::string link = argc > 1 ? argv[1] : "";
    Figures f;
    int rc = 1;
    if (link == "net")
        rc = network(f);
#if ZT_BENCH_WITH_USB
    else if (link == "usb")
        rc = usb(argv, f);
#endif
    else {
        std::fprintf(stderr, "usage: command_bench net|usb\n");
        return 2;
    }
    if (rc != 0)
        return rc;
    std::printf("%s link, %d getCameraExposure round trips\n", link.c_str(), kRoundTrips);
    std::printf("  round trip   median %6.2f ms  p99 %6.2f ms  polling floor %.0f ms  ratio %.2f  (%d failed)\n",
                f.medianMs, f.p99Ms, f.floorMs, f.medianMs / f.floorMs, f.failures);
    std::printf("  online, idle %5.2f %% of one core  %6.1f MiB resident (server and simulated head)\n",
                f.idleCpuPercent, f.residentMiB);
    if (const char* path = std::getenv("ZT_BENCH_JSON"); path && *path) {
        if (std::FILE* json = std::fopen(path, "a")) {
            std::fprintf(json,
                         "{\"benchmark\":\"command_bench\",\"link\":\"%s\",\"median_ms\":%.3f,\"p99_ms\":%.3f,"
                         "\"floor_ms\":%.0f,\"ratio\":%.3f,\"failures\":%d,\"idle_cpu_percent\":%.3f,"
                         "\"resident_MiB\":%.1f}\n",
                         link.c_str(), f.medianMs, f.p99Ms, f.floorMs, f.medianMs / f.floorMs, f.failures,
                         f.idleCpuPercent, f.residentMiB);
            std::fclose(json);
        }
    }
    return f.failures == 0 ? 0 : 1;
}
