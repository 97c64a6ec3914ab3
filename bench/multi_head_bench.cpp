// Several network heads at once: 1, 2, 4 and 8 simulated heads, each on its own loopback
// address (127.0.0.10, .11, ...) inside a private network namespace, each with its own
// ztEmbeddedModuleProxyServer in this process, all streaming 4.9 MB packets as fast as
// they go. The heads run in a child process, so the CPU figure is the host side's alone.
//
// For each count: aggregate MB/s, CPU seconds per GB delivered, packets dropped (sent and
// never delivered), and the threads and resident memory each head adds to the process.
// Cost grows linearly when CPU per GB stays flat and threads and memory per head stay the
// same. Appends JSON lines to $ZT_BENCH_JSON if set.
#include "bench_support.h"
#include "netns.h"
#include "ztEmbeddedModuleProxyServer.h"
#include "ztSimNetworkHead.h"

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
constexpr std::size_t kPayload = 4900000;
constexpr std::size_t kPacketsPerHead = 120;
constexpr int kCounts[] = {1, 2, 4, 8};

std::string addressOf(int head)
{
    return "127.0.0." + std::to_string(10 + head);
}

// Threads and resident kilobytes of this process.
std::pair<int, long> census()
{
    std::ifstream status("/proc/self/status");
    std::string key;
    int threads = 0;
    long rssKb = 0;
    while (status >> key) {
        if (key == "Threads:")
            status >> threads;
        else if (key == "VmRSS:")
            status >> rssKb;
    }
    return {threads, rssKb};
}

struct Row {
    int heads = 0;
    double mbps = 0;
    double cpuPerGB = 0;
    std::size_t dropped = 0;
    double threadsPerHead = 0;
    double rssMiBPerHead = 0;
};

Row run(int heads, const std::vector<char>& unit)
{
    const auto peer = zt::bench::forkPeer();
    if (peer.inChild()) {
        std::vector<std::unique_ptr<ztSimNetworkHead>> sims;
        for (int i = 0; i < heads; ++i) {
            sims.push_back(std::make_unique<ztSimNetworkHead>(addressOf(i)));
            if (sims.back()->start() != 0)
                std::_Exit(2);
        }
        zt::bench::tellPeer(peer.ready); // every head listens
        zt::bench::waitForPeer(peer.go);
        for (auto& s : sims)
            s->startStream(ztSimNetworkHead::Data, unit, kPacketsPerHead, 0);
        zt::bench::waitForPeer(peer.go); // the parent has what it waited for
        for (auto& s : sims)
            s->stop();
        std::_Exit(0);
    }
    zt::bench::waitForPeer(peer.ready);

    const auto [threads0, rss0] = census();
    std::vector<std::unique_ptr<zt::bench::Delivered>> delivered;
    std::vector<std::unique_ptr<ztEmbeddedModuleProxyServer>> servers;
    for (int i = 0; i < heads; ++i) {
        delivered.push_back(std::make_unique<zt::bench::Delivered>());
        servers.push_back(std::make_unique<ztEmbeddedModuleProxyServer>());
        servers.back()->registerModuleServerDataCB(&zt::bench::Delivered::cb, delivered.back().get());
        if (servers.back()->init(addressOf(i), addressOf(i), "bench-" + std::to_string(i)) != 0) {
            std::fprintf(stderr, "multi_head_bench: head %d did not come online\n", i);
            std::exit(1);
        }
    }
    const double cpu0 = zt::bench::cpuSeconds();
    const auto t0 = Clock::now();
    zt::bench::tellPeer(peer.go);
    std::size_t bytes = 0;
    std::size_t packets = 0;
    for (auto& d : delivered) {
        bytes += d->waitFor(kPacketsPerHead, 120);
        std::lock_guard<std::mutex> lock(d->mutex);
        packets += d->packets;
    }
    const double secs = std::chrono::duration<double>(Clock::now() - t0).count();
    const double cpu = zt::bench::cpuSeconds() - cpu0;
    const auto [threads1, rss1] = census();
    zt::bench::tellPeer(peer.go);
    ::waitpid(peer.pid, nullptr, 0);
    for (auto& s : servers)
        s->deInit();
    Row row;
    row.heads = heads;
    row.mbps = static_cast<double>(bytes) / secs / 1e6;
    row.cpuPerGB = cpu / (static_cast<double>(bytes) / 1e9);
    row.dropped = kPacketsPerHead * static_cast<std::size_t>(heads) - packets;
    row.threadsPerHead = static_cast<double>(threads1 - threads0) / heads;
    row.rssMiBPerHead = static_cast<double>(rss1 - rss0) / 1024.0 / heads;
    return row;
}

} // namespace

int main()
{
    if (!zt::test::enterPrivateNetwork()) {
        std::perror("multi_head_bench: private network namespace");
        return 1;
    }
    // Figures only: the library's lines (a head going quiet at the end, say) stay out.
    zt::bench::quietLibrary();
    const std::string payload(kPayload, 'd');
    const std::vector<char> unit = ztSimNetworkHead::extendedPacket(1280, 1, payload.data(), payload.size());

    std::printf("several network heads at once, %zu packets of %zu bytes from each\n", kPacketsPerHead, unit.size());
    std::printf("  heads   MB/s in all   CPU s per GB   dropped   threads per head   MiB per head\n");
    std::FILE* json = nullptr;
    if (const char* path = std::getenv("ZT_BENCH_JSON"); path && *path)
        json = std::fopen(path, "a");
    for (const int heads : kCounts) {
        const Row r = run(heads, unit);
        std::printf("  %5d   %11.0f   %12.3f   %7zu   %16.1f   %12.1f\n", r.heads, r.mbps, r.cpuPerGB, r.dropped,
                    r.threadsPerHead, r.rssMiBPerHead);
        std::fflush(stdout);
        if (json)
            std::fprintf(json,
                         "{\"benchmark\":\"multi_head_bench\",\"heads\":%d,\"MBps\":%.0f,\"cpu_s_per_GB\":%.3f,"
                         "\"dropped\":%zu,\"threads_per_head\":%.1f,\"rss_MiB_per_head\":%.1f}\n",
                         r.heads, r.mbps, r.cpuPerGB, r.dropped, r.threadsPerHead, r.rssMiBPerHead);
    }
    if (json)
        std::fclose(json);
    return 0;
}
