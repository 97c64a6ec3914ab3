// USB stream path end to end: the emulated head streams 4.9 MB extended-header packets on
// its stream endpoint; ztUsbProxyServer keeps its 32 transfers in flight, decodes, fills
// the frame pool and raises the data callback. The baseline is a bare libusb read loop with
// the same transfers (32 of 64 x streamMaxPacket bytes) through the same emulated device
// in the same run. The program re-runs itself with the emulation's preload when needed.
//
// Then two heads at once: two processes, each with its own emulated head and server (the
// emulation is process-wide), streaming at the same time: aggregate GB/s, CPU seconds per
// GB (server and emulated head together, as for one head) and frames dropped.
//
// Prints frames/s, GB/s and the ratio; appends JSON lines to $ZT_BENCH_JSON if set.
#include "bench_support.h"
#include "ztSimUsbHead.h"
#include "ztUsbProxyServer.h"

#include <libusb.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
constexpr std::size_t kPayload = 4900000;
constexpr std::size_t kFrames = 150;
constexpr unsigned int kStreamMaxPacket = 65536; // 4 MiB transfers
constexpr int kTransfers = 32;

struct Figure {
    double framesPerSecond = 0;
    double gbps = 0;
};

struct Bare {
    std::size_t got = 0;
    std::size_t want = 0;
    int inFlight = 0;
    static void LIBUSB_CALL done(libusb_transfer* t)
    {
        auto* self = static_cast<Bare*>(t->user_data);
        --self->inFlight;
        if (t->status == LIBUSB_TRANSFER_COMPLETED || t->status == LIBUSB_TRANSFER_TIMED_OUT)
            self->got += static_cast<std::size_t>(t->actual_length);
        if (self->got < self->want && libusb_submit_transfer(t) == 0)
            ++self->inFlight;
    }
};

Figure bareLoop(ztSimUsbHead& head, const std::vector<char>& unit)
{
    libusb_context* ctx = nullptr;
    libusb_device_handle* handle = ztSimUsbHead::openEmulated(&ctx);
    if (handle == nullptr) {
        std::fprintf(stderr, "usb_path_bench: cannot open the emulated head\n");
        std::exit(1);
    }
    Bare bare;
    bare.want = unit.size() * kFrames;
    const int length = static_cast<int>(64 * kStreamMaxPacket);
    std::vector<std::vector<unsigned char>> buffers(kTransfers, std::vector<unsigned char>(static_cast<std::size_t>(length)));
    std::vector<libusb_transfer*> transfers;
    head.startStream(unit, kFrames, 0);
    const auto t0 = Clock::now();
    for (int i = 0; i < kTransfers; ++i) {
        libusb_transfer* t = libusb_alloc_transfer(0);
        libusb_fill_bulk_transfer(t, handle, ztSimUsbHead::kStreamIn, buffers[static_cast<std::size_t>(i)].data(), length,
                                  &Bare::done, &bare, 1500);
        if (libusb_submit_transfer(t) == 0)
            ++bare.inFlight;
        transfers.push_back(t);
    }
    while (bare.got < bare.want && Clock::now() - t0 < std::chrono::seconds(60)) {
        timeval tv{0, 100000};
        libusb_handle_events_timeout(ctx, &tv);
    }
    const double secs = std::chrono::duration<double>(Clock::now() - t0).count();
    for (libusb_transfer* t : transfers)
        libusb_cancel_transfer(t);
    while (bare.inFlight > 0) {
        timeval tv{0, 100000};
        libusb_handle_events_timeout(ctx, &tv);
    }
    for (libusb_transfer* t : transfers)
        libusb_free_transfer(t);
    ztSimUsbHead::closeEmulated(handle, ctx);
    head.stopStream();
    return {static_cast<double>(bare.got) / static_cast<double>(unit.size()) / secs, static_cast<double>(bare.got) / secs / 1e9};
}


Figure serverPath(ztSimUsbHead& head, const std::vector<char>& unit, std::size_t& frames)
{
    if (libusb_init(nullptr) != 0)
        std::exit(1);
    libusb_device_handle* handle = libusb_open_device_with_vid_pid(nullptr, ztSimUsbHead::kVendor, ztSimUsbHead::kProduct);
    if (handle == nullptr || libusb_claim_interface(handle, ztSimUsbHead::kInterface) != 0) {
        std::fprintf(stderr, "usb_path_bench: cannot open the emulated head\n");
        std::exit(1);
    }
    const _ZT_USB3_DEVICE_INFO_ info = ztSimUsbHead::deviceInfo(kStreamMaxPacket);
    zt::bench::Delivered delivered;
    Figure f;
    {
        ztUsbProxyServer server(info, handle);
        server.registerModuleServerDataCB(&zt::bench::Delivered::cb, &delivered);
        if (server.init() != 0) {
            std::fprintf(stderr, "usb_path_bench: the server did not come online\n");
            std::exit(1);
        }
        head.startStream(unit, kFrames, 0);
        const auto t0 = Clock::now();
        delivered.waitFor(kFrames, 60);
        const double secs = std::chrono::duration<double>(Clock::now() - t0).count();
        f = {static_cast<double>(delivered.packets) / secs, static_cast<double>(delivered.bytes) / secs / 1e9};
        frames = delivered.packets;
        head.stopStream();
        server.deInit();
    }
    libusb_release_interface(handle, ztSimUsbHead::kInterface);
    libusb_close(handle);
    libusb_exit(nullptr);
    return f;
}

// What one head's process reports to the parent.
struct HeadReport {
    double seconds = 0;
    std::size_t bytes = 0;
    std::size_t frames = 0;
};

// Two processes, each with an emulated head and a server, streaming together; they are
// forked before either starts its head, and go at the same signal.
void twoHeads(const std::vector<char>& unit)
{
    constexpr int kHeads = 2;
    int reports[2];
    if (::pipe(reports) != 0)
        std::exit(1);
    std::vector<zt::bench::ForkedPeer> peers;
    for (int i = 0; i < kHeads; ++i) {
        zt::bench::ForkedPeer peer = zt::bench::forkPeer();
        if (peer.inChild()) {
            ::close(reports[0]);
            ztSimUsbHead head;
            if (head.start() != 0)
                std::_Exit(1);
            zt::bench::tellPeer(peer.ready);
            zt::bench::waitForPeer(peer.go);
            std::size_t frames = 0;
            const Figure f = serverPath(head, unit, frames);
            head.stop();
            const HeadReport r{f.gbps > 0 ? static_cast<double>(frames * unit.size()) / (f.gbps * 1e9) : 0,
                               frames * unit.size(), frames};
            std::_Exit(::write(reports[1], &r, sizeof r) == sizeof r ? 0 : 1);
        }
        peers.push_back(peer);
    }
    ::close(reports[1]);
    for (const auto& peer : peers)
        zt::bench::waitForPeer(peer.ready);
    for (const auto& peer : peers)
        zt::bench::tellPeer(peer.go);
    double seconds = 0;
    std::size_t bytes = 0;
    std::size_t frames = 0;
    HeadReport r;
    for (int i = 0; i < kHeads && ::read(reports[0], &r, sizeof r) == sizeof r; ++i) {
        seconds = std::max(seconds, r.seconds);
        bytes += r.bytes;
        frames += r.frames;
    }
    for (const auto& peer : peers)
        ::waitpid(peer.pid, nullptr, 0);
    rusage children{};
    getrusage(RUSAGE_CHILDREN, &children);
    const double cpu = static_cast<double>(children.ru_utime.tv_sec + children.ru_stime.tv_sec) +
                       static_cast<double>(children.ru_utime.tv_usec + children.ru_stime.tv_usec) / 1e6;
    const double gb = static_cast<double>(bytes) / 1e9;
    const std::size_t dropped = kHeads * kFrames - frames;
    std::printf("  two heads at once, two processes  %5.2f GB/s in all  %5.2f CPU s per GB  %zu frames dropped\n",
                seconds > 0 ? gb / seconds : 0.0, gb > 0 ? cpu / gb : 0.0, dropped);
    if (const char* path = std::getenv("ZT_BENCH_JSON"); path && *path) {
        if (std::FILE* json = std::fopen(path, "a")) {
            std::fprintf(json,
                         "{\"benchmark\":\"usb_path_bench\",\"heads\":2,\"GBps\":%.3f,\"cpu_s_per_GB\":%.3f,"
                         "\"dropped\":%zu}\n",
                         seconds > 0 ? gb / seconds : 0.0, gb > 0 ? cpu / gb : 0.0, dropped);
            std::fclose(json);
        }
    }
}

} // namespace

int main(int, char** argv)
{
    zt::bench::quietLibrary();
    if (!ztSimUsbHead::emulationAvailable())
        return zt::bench::rerunWithUsbEmulation("usb_path_bench", argv);
    ztSimUsbHead head;
    if (head.start() != 0) {
        std::fprintf(stderr, "usb_path_bench: the emulated head does not start\n");
        return 1;
    }
    const std::string payload(kPayload, 'u');
    const std::vector<char> unit = ztSimUsbHead::extendedPacket(1280, 1, payload.data(), payload.size());
    const Figure bare = bareLoop(head, unit);
    std::size_t frames = 0;
    const Figure server = serverPath(head, unit, frames);
    head.stop();
    std::fflush(stdout);

    std::printf("USB stream path, %zu frames of %zu bytes through the emulated head (%d transfers of %u bytes)\n", kFrames,
                unit.size(), kTransfers, 64 * kStreamMaxPacket);
    std::printf("  bare libusb read loop (baseline)  %6.1f frames/s  %5.2f GB/s\n", bare.framesPerSecond, bare.gbps);
    std::printf("  server to the callback            %6.1f frames/s  %5.2f GB/s  ratio %.2f  (%zu of %zu frames)\n",
                server.framesPerSecond, server.gbps, server.gbps / bare.gbps, frames, kFrames);
    if (const char* path = std::getenv("ZT_BENCH_JSON"); path && *path) {
        if (std::FILE* json = std::fopen(path, "a")) {
            std::fprintf(json,
                         "{\"benchmark\":\"usb_path_bench\",\"frame_bytes\":%zu,\"baseline_GBps\":%.3f,"
                         "\"server_GBps\":%.3f,\"server_frames_per_s\":%.1f,\"ratio\":%.3f,\"frames\":%zu}\n",
                         unit.size(), bare.gbps, server.gbps, server.framesPerSecond, server.gbps / bare.gbps, frames);
            std::fclose(json);
        }
    }
    std::fflush(stdout);
    twoHeads(unit);
    return frames == kFrames ? 0 : 1;
}
