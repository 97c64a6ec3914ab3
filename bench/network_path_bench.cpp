// Network data path end to end: a simulated head streams 4.9 MB extended-header packets on
// its data connection and ztEmbeddedModuleProxyServer delivers them to its data callback,
// in packet mode and in raw mode. The baseline is a plain TCP read loop on loopback taking
// the same bytes in the same run. The head runs in a child process, so the CPU figure is
// the host side's alone. Everything happens inside a private network namespace.
//
// The packet mode runs once more with a recorder attached, writing to a file on this
// machine's disk (in the current folder, removed afterwards): the recording's cost on the
// stream path is its MB/s against the packet mode's without one, and what it recorded.
//
// Prints MB/s and the ratio to the baseline; appends JSON lines to $ZT_BENCH_JSON if set.
#include "netns.h"
#include "ztEmbeddedModuleProxyServer.h"
#include "ztRecorder.h"
#include "ztSimNetworkHead.h"
#include "bench_support.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
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
constexpr std::size_t kCount = 300;
constexpr int kBaselinePort = 42100;
const char* const kIP = "127.0.0.1";

struct Figure {
    double mbps = 0;
    double cpu = 0; // cores used on the receiving side
    ztRecorder::Stats recorded;
};

Figure baseline(const std::vector<char>& unit)
{
    const int listener = ::socket(AF_INET, SOCK_STREAM, 0);
    int one = 1;
    ::setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(kBaselinePort);
    inet_pton(AF_INET, kIP, &addr.sin_addr);
    if (::bind(listener, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || ::listen(listener, 1) != 0) {
        std::perror("network_path_bench: listen");
        std::exit(1);
    }
    const pid_t child = ::fork();
    if (child == 0) {
        const int s = ::socket(AF_INET, SOCK_STREAM, 0);
        if (::connect(s, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0)
            std::_Exit(2);
        for (std::size_t i = 0; i < kCount; ++i)
            for (std::size_t at = 0; at < unit.size();) {
                const ssize_t n = ::send(s, unit.data() + at, unit.size() - at, MSG_NOSIGNAL);
                if (n <= 0)
                    std::_Exit(2);
                at += static_cast<std::size_t>(n);
            }
        ::close(s);
        std::_Exit(0);
    }
    const int s = ::accept(listener, nullptr, nullptr);
    std::vector<char> block(0x10000);
    const std::size_t total = unit.size() * kCount;
    std::size_t got = 0;
    const double cpu0 = zt::bench::cpuSeconds();
    const auto t0 = Clock::now();
    while (got < total) {
        const ssize_t n = ::recv(s, block.data(), block.size(), 0);
        if (n <= 0)
            break;
        got += static_cast<std::size_t>(n);
    }
    const double secs = std::chrono::duration<double>(Clock::now() - t0).count();
    const double cpu = zt::bench::cpuSeconds() - cpu0;
    ::close(s);
    ::close(listener);
    ::waitpid(child, nullptr, 0);
    return {static_cast<double>(got) / secs / 1e6, cpu / secs, {}};
}


Figure endToEnd(const std::vector<char>& unit, bool raw, ztRecorder* recorder = nullptr)
{
    const auto peer = zt::bench::forkPeer();
    if (peer.inChild()) {
        ztSimNetworkHead head(kIP);
        if (raw)
            head.setEchoReply(ztSimNetworkHead::kRKProgramVersionType, ztSimNetworkHead::valuePayload(0x07030400));
        if (head.start() != 0)
            std::_Exit(2);
        zt::bench::tellPeer(peer.ready); // listening
        zt::bench::waitForPeer(peer.go);
        head.startStream(ztSimNetworkHead::Data, unit, kCount, 0);
        zt::bench::waitForPeer(peer.go); // the parent has everything
        head.stop();
        std::_Exit(0);
    }
    zt::bench::waitForPeer(peer.ready);
    zt::bench::Delivered delivered;
    ztEmbeddedModuleProxyServer server;
    server.registerModuleServerDataCB(&zt::bench::Delivered::cb, &delivered);
    if (recorder != nullptr)
        server.attachRecorder(recorder);
    const int rc = server.init(kIP, kIP, "bench");
    if (rc != 0) {
        std::fprintf(stderr, "network_path_bench: the server did not come online (%d)\n", rc);
        std::exit(1);
    }
    if (raw) {
        int v[4];
        server.getRKProgramVersion(&v[0], &v[1], &v[2], &v[3]);
        ::usleep(50000); // the data receiver switches to raw messages
    }
    const double cpu0 = zt::bench::cpuSeconds();
    const auto t0 = Clock::now();
    zt::bench::tellPeer(peer.go);
    const std::size_t bytes = delivered.waitFor(kCount, 60);
    const double secs = std::chrono::duration<double>(Clock::now() - t0).count();
    const double cpu = zt::bench::cpuSeconds() - cpu0;
    zt::bench::tellPeer(peer.go);
    ::waitpid(peer.pid, nullptr, 0);
    server.deInit();
    Figure f{static_cast<double>(bytes) / secs / 1e6, cpu / secs, {}};
    if (recorder != nullptr) {
        server.attachRecorder(nullptr);
        recorder->close();
        f.recorded = recorder->stats();
    }
    if (delivered.packets < kCount)
        std::fprintf(stderr, "network_path_bench: only %zu of %zu packets arrived\n", delivered.packets, kCount);
    return f;
}

} // namespace

int main()
{
    zt::bench::quietLibrary();
    if (!zt::test::enterPrivateNetwork()) {
        std::perror("network_path_bench: private network namespace");
        return 1;
    }
    const std::string payload(kPayload, 'd');
    const std::vector<char> unit =
        ztSimNetworkHead::extendedPacket(1280, 1, payload.data(), payload.size());

    const Figure base = baseline(unit);
    const Figure packet = endToEnd(unit, false);
    const Figure raw = endToEnd(unit, true);
    const char* const recordingPath = "network_path_bench.ztrec";
    ztRecorder recorder;
    if (recorder.open(recordingPath) != 0) {
        std::perror("network_path_bench: recording file");
        return 1;
    }
    const Figure recorded = endToEnd(unit, false, &recorder);
    std::remove(recordingPath);
    const double share = recorded.recorded.bytes + recorded.recorded.notRecordedBytes > 0
                             ? static_cast<double>(recorded.recorded.bytes) /
                                   static_cast<double>(recorded.recorded.bytes + recorded.recorded.notRecordedBytes)
                             : 0;

    std::printf("network data path, %zu packets of %zu bytes over loopback\n", kCount, unit.size());
    std::printf("  plain TCP read loop (baseline)  %8.0f MB/s  %.2f cores\n", base.mbps, base.cpu);
    std::printf("  packet mode to the callback     %8.0f MB/s  %.2f cores  ratio %.2f\n", packet.mbps, packet.cpu,
                packet.mbps / base.mbps);
    std::printf("  raw mode to the callback        %8.0f MB/s  %.2f cores  ratio %.2f\n", raw.mbps, raw.cpu,
                raw.mbps / base.mbps);
    std::printf("  packet mode, recording to disk  %8.0f MB/s  %.2f cores  %.2f of the speed without; %.0f %% of "
                "the bytes recorded (%.0f MB), %llu receives not recorded\n",
                recorded.mbps, recorded.cpu, recorded.mbps / packet.mbps, 100 * share,
                static_cast<double>(recorded.recorded.bytes) / 1e6, recorded.recorded.notRecorded);
    if (const char* path = std::getenv("ZT_BENCH_JSON"); path && *path) {
        if (std::FILE* json = std::fopen(path, "a")) {
            std::fprintf(json,
                         "{\"benchmark\":\"network_path_bench\",\"packet_bytes\":%zu,\"baseline_MBps\":%.0f,"
                         "\"packet_MBps\":%.0f,\"packet_cores\":%.2f,\"packet_ratio\":%.3f,\"raw_MBps\":%.0f,"
                         "\"raw_cores\":%.2f,\"raw_ratio\":%.3f}\n",
                         unit.size(), base.mbps, packet.mbps, packet.cpu, packet.mbps / base.mbps, raw.mbps, raw.cpu,
                         raw.mbps / base.mbps);
            std::fprintf(json,
                         "{\"benchmark\":\"network_path_recording\",\"packet_MBps\":%.0f,\"recording_MBps\":%.0f,"
                         "\"recording_cores\":%.2f,\"recording_ratio\":%.3f,\"recorded_share\":%.3f,"
                         "\"not_recorded\":%llu}\n",
                         packet.mbps, recorded.mbps, recorded.cpu, recorded.mbps / packet.mbps, share,
                         recorded.recorded.notRecorded);
            std::fclose(json);
        }
    }
    return 0;
}
