// Command round trip and idle cost of an online server, on one link per run:
//   command_bench net      network head link against the simulated head, in a private
//                          network namespace of its own (the head's port is fixed)
//   command_bench usb      USB link through the emulated head (re-runs itself with the
//                          emulation's preload when needed)
//   command_bench module   module proxy host against the simulated module on loopback
//
// Round trip: the median and p99 of getCameraExposure (getFirmwareVersion for the module
// proxy host) against its goal, beside a plain TCP request and reply of the same size on
// loopback measured in the same run. Idle: CPU share of one core and resident memory of the
// process (server and simulated end together) while the server sits online.
// Appends a JSON line to $ZT_BENCH_JSON if set.
#include "bench_support.h"
#include "netns.h"
#include "ztEmbeddedModuleProxyServer.h"
#include "ztModuleProxyServer.h"
#include "ztSimModule.h"
#include "ztSimNetworkHead.h"
#if ZT_BENCH_WITH_USB
#include "ztSimUsbHead.h"
#include "ztUsbProxyServer.h"

#include <libusb.h>
#endif

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
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
    double goalMs = 0;
    double plainTcpMs = 0; // median of a plain TCP request and reply on loopback
    double idleCpuPercent = 0;
    double residentMiB = 0;
    int failures = 0;
};

double residentMiB()
{
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line))
        if (line.rfind("VmRSS:", 0) == 0)
            return std::strtod(line.c_str() + 6, nullptr) / 1024.0;
    return 0;
}

double median(std::vector<double>& ms)
{
    std::sort(ms.begin(), ms.end());
    return ms[ms.size() / 2];
}

// The same-run baseline: a 23-byte request and a 27-byte reply between two threads over
// loopback TCP, with no framing, no checks and no library.
double plainTcpRoundTripMs()
{
    const int listener = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    if (::bind(listener, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || ::listen(listener, 1) != 0 ||
        ::getsockname(listener, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
        std::perror("command_bench: loopback listener");
        std::exit(1);
    }
    std::thread echo([listener] {
        const int peer = ::accept(listener, nullptr, nullptr);
        char buf[64];
        for (int i = 0; i < kRoundTrips; ++i)
            if (::recv(peer, buf, 23, MSG_WAITALL) != 23 || ::send(peer, buf, 27, 0) != 27)
                break;
        ::close(peer);
    });
    const int s = ::socket(AF_INET, SOCK_STREAM, 0);
    const int one = 1;
    ::setsockopt(s, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    std::vector<double> ms;
    if (::connect(s, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0) {
        char buf[64] = {};
        for (int i = 0; i < kRoundTrips; ++i) {
            const auto t0 = Clock::now();
            if (::send(s, buf, 23, 0) != 23 || ::recv(s, buf, 27, MSG_WAITALL) != 27)
                break;
            ms.push_back(std::chrono::duration<double, std::milli>(Clock::now() - t0).count());
        }
    }
    ::close(s);
    echo.join();
    ::close(listener);
    return ms.empty() ? 0 : median(ms);
}

void measure(const std::function<int()>& roundTrip, Figures& f)
{
    std::vector<double> ms;
    for (int i = 0; i < kRoundTrips; ++i) {
        const auto t0 = Clock::now();
        if (roundTrip() != 0)
            ++f.failures;
        ms.push_back(std::chrono::duration<double, std::milli>(Clock::now() - t0).count());
    }
    f.medianMs = median(ms);
    f.p99Ms = ms[ms.size() * 99 / 100];
    f.plainTcpMs = plainTcpRoundTripMs();
    // Idle: nothing but heartbeats for a while.
    const double cpu0 = zt::bench::cpuSeconds();
    const auto t0 = Clock::now();
    std::this_thread::sleep_for(std::chrono::seconds(kIdleSeconds));
    const double secs = std::chrono::duration<double>(Clock::now() - t0).count();
    f.idleCpuPercent = (zt::bench::cpuSeconds() - cpu0) / secs * 100.0;
    f.residentMiB = residentMiB();
}

void measureExposure(ztDeviceCommandSet& server, Figures& f)
{
    measure(
        [&server] {
            float exposure = 0;
            return server.getCameraExposure(&exposure);
        },
        f);
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
    f.goalMs = 0.5;
    measureExposure(server, f);
    server.deInit();
    return 0;
}

int module(Figures& f)
{
    ztSimModule module;
    ztModuleProxyServer host;
    if (module.start() != 0 || host.init("127.0.0.1") != 0) {
        std::fprintf(stderr, "command_bench: the module proxy host did not start\n");
        return 1;
    }
    // The host registers with the module first; requests follow once that is answered.
    ztSimModule::Request r;
    if (!module.nextRequest(r, 5000) || r.code != 1) {
        std::fprintf(stderr, "command_bench: the module was not registered\n");
        return 1;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    f.goalMs = 0.5;
    std::string version;
    measure([&] { return host.getFirmwareVersion(version); }, f);
    module.stop();
    host.deInit();
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
            f.goalMs = 1.0;
            measureExposure(server, f);
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
    zt::bench::quietLibrary();
    const std::string link = argc > 1 ? argv[1] : "";
    Figures f;
    int rc = 1;
    if (link == "net")
        rc = network(f);
    else if (link == "module")
        rc = module(f);
#if ZT_BENCH_WITH_USB
    else if (link == "usb")
        rc = usb(argv, f);
#endif
    else {
        std::fprintf(stderr, "usage: command_bench net|usb|module\n");
        return 2;
    }
    if (rc != 0)
        return rc;
    const bool met = f.medianMs <= f.goalMs && f.failures == 0;
    std::printf("%s link, %d round trips\n", link.c_str(), kRoundTrips);
    std::printf("  round trip   median %6.3f ms  p99 %6.3f ms  goal <= %.1f ms: %s  (%d failed)\n", f.medianMs,
                f.p99Ms, f.goalMs, met ? "met" : "NOT met", f.failures);
    std::printf("  plain TCP request and reply on loopback, same run: median %6.3f ms (ratio %.1f)\n",
                f.plainTcpMs, f.plainTcpMs > 0 ? f.medianMs / f.plainTcpMs : 0.0);
    std::printf("  online, idle %5.2f %% of one core  %6.1f MiB resident (server and simulated end)\n",
                f.idleCpuPercent, f.residentMiB);
    if (const char* path = std::getenv("ZT_BENCH_JSON"); path && *path) {
        if (std::FILE* json = std::fopen(path, "a")) {
            std::fprintf(json,
                         "{\"benchmark\":\"command_bench\",\"link\":\"%s\",\"median_ms\":%.3f,\"p99_ms\":%.3f,"
                         "\"goal_ms\":%.1f,\"baseline\":\"plain TCP round trip\",\"baseline_ms\":%.3f,"
                         "\"ratio\":%.3f,\"failures\":%d,\"idle_cpu_percent\":%.3f,\"resident_MiB\":%.1f}\n",
                         link.c_str(), f.medianMs, f.p99Ms, f.goalMs, f.plainTcpMs,
                         f.plainTcpMs > 0 ? f.medianMs / f.plainTcpMs : 0.0, f.failures, f.idleCpuPercent,
                         f.residentMiB);
            std::fclose(json);
        }
    }
    return f.failures == 0 ? 0 : 1;
}
