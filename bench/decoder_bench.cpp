// Throughput of the stream packet decoder on a byte stream of 4.9 MB extended-header
// packets (type 1280) fed in transfer-sized chunks, against memcpy of the same bytes in
// the same chunks, measured in the same run. After the benchmarks one line per chunk size
// gives the ratio decoder/memcpy of the best repetitions (GB/s in 10^9 bytes), with the
// medians beside. When ZT_BENCH_JSON names a file, the same figures are appended to it,
// one JSON object per line.
#include "bench_reporter.h"
#include "codec/QlensNetProto.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace {

constexpr std::uint32_t kPacketLength = 0x4B0000; // 4,915,200 bytes, one frame
constexpr std::size_t kPackets = 8;               // 39 MB of stream: larger than the caches

void put(unsigned char* at, std::uint64_t value, int width)
{
    for (int i = 0; i < width; ++i)
        at[i] = static_cast<unsigned char>(value >> (8 * i));
}

const std::vector<unsigned char>& stream()
{
    static const std::vector<unsigned char> bytes = [] {
        std::vector<unsigned char> s(kPackets * kPacketLength);
        for (std::size_t i = 0; i < s.size(); ++i)
            s[i] = static_cast<unsigned char>(i * 2654435761u >> 24);
        for (std::size_t k = 0; k < kPackets; ++k) {
            unsigned char* p = s.data() + k * kPacketLength;
            p[0] = 0xAA;
            put(p + 1, kPacketLength, 4);
            put(p + 5, 1280, 2);
            put(p + 64, k, 8);
            put(p + 72, 0xCC00FF55, 4);
            p[kPacketLength - 1] = 0xBB;
        }
        return s;
    }();
    return bytes;
}

void decoder(benchmark::State& state, std::size_t chunk)
{
    const auto& s = stream();
    ztCamera::QlensNetProto d;
    // Like the stream callback, the last packet is kept until the next one replaces it.
    std::shared_ptr<ztCamera::QlensNetCmd> current;
    std::size_t packets = 0;
    for (auto _ : state) {
        for (std::size_t pos = 0; pos < s.size(); pos += chunk) {
            const unsigned char* p = s.data() + pos;
            std::uint64_t left = std::min(chunk, s.size() - pos);
            while (auto packet = d.decode(p, left)) {
                current = std::move(packet);
                ++packets;
            }
        }
        benchmark::DoNotOptimize(current->buffer);
        benchmark::ClobberMemory();
    }
    if (packets != state.iterations() * kPackets || current->bufSize != kPacketLength ||
        std::memcmp(current->buffer, s.data() + (kPackets - 1) * kPacketLength, kPacketLength) != 0)
        state.SkipWithError("the decoder did not hand out every packet intact");
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * s.size()));
}

// The same bytes copied in the same chunks into two packet-sized buffers taken in turn,
// as the decoder fills a new packet while the caller still holds the previous one.
void baseline(benchmark::State& state, std::size_t chunk)
{
    const auto& s = stream();
    std::vector<unsigned char> dst[2] = {std::vector<unsigned char>(kPacketLength),
                                         std::vector<unsigned char>(kPacketLength)};
    for (auto _ : state) {
        for (std::size_t pos = 0; pos < s.size(); pos += chunk) {
            const std::size_t end = std::min(pos + chunk, s.size());
            for (std::size_t at = pos; at < end;) {
                const std::size_t offset = at % kPacketLength;
                const std::size_t n = std::min(end - at, kPacketLength - offset);
                std::memcpy(dst[at / kPacketLength % 2].data() + offset, s.data() + at, n);
                at += n;
            }
        }
        benchmark::DoNotOptimize(dst[0].data());
        benchmark::DoNotOptimize(dst[1].data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * s.size()));
}

struct Chunk {
    const char* label;
    std::size_t bytes;
};
constexpr Chunk kChunks[] = {{"1MiB", 1u << 20}, {"64KiB", 64u << 10}};
constexpr int kRepetitions = 9;

} // namespace

int main(int argc, char** argv)
{
    for (const Chunk& c : kChunks) {
        for (bool isDecoder : {false, true}) {
            const std::string name = std::string(isDecoder ? "decoder/" : "memcpy/") + c.label;
            const std::size_t bytes = c.bytes;
            benchmark::RegisterBenchmark(name.c_str(),
                                         [isDecoder, bytes](benchmark::State& st) {
                                             isDecoder ? decoder(st, bytes) : baseline(st, bytes);
                                         })
                ->Unit(benchmark::kMillisecond)
                ->UseRealTime()
                ->Repetitions(kRepetitions);
        }
    }
    // Repetitions of the decoder and of memcpy run interleaved.
    if (!zt::bench::initializeInterleaved(argc, argv))
        return 1;
    zt::bench::RateCollector reporter("bytes_per_second");
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();

    std::FILE* json = zt::bench::openResults("decoder_bench");
    for (const Chunk& c : kChunks) {
        const std::string decName = std::string("decoder/") + c.label, memName = std::string("memcpy/") + c.label;
        // GB/s in 10^9 bytes.
        const double dec = reporter.best(decName) / 1e9, mem = reporter.best(memName) / 1e9;
        const double decMedian = reporter.median(decName) / 1e9, memMedian = reporter.median(memName) / 1e9;
        if (dec == 0 || mem == 0)
            continue;
        std::printf("decoder_vs_memcpy ratio (%s chunks): %.2f  (best of %zu: decoder %.2f GB/s, memcpy %.2f GB/s;"
                    " medians %.2f / %.2f GB/s, ratio %.2f)\n",
                    c.label, dec / mem, std::min(reporter.count(decName), reporter.count(memName)), dec, mem, decMedian, memMedian, decMedian / memMedian);
        if (json)
            std::fprintf(json,
                         "{\"benchmark\":\"decoder_bench\",\"chunk_bytes\":%zu,\"packet_bytes\":%u,"
                         "\"decoder_GBps\":%.3f,\"memcpy_GBps\":%.3f,\"ratio\":%.3f,"
                         "\"decoder_median_GBps\":%.3f,\"memcpy_median_GBps\":%.3f,\"median_ratio\":%.3f}\n",
                         c.bytes, kPacketLength, dec, mem, dec / mem, decMedian, memMedian, decMedian / memMedian);
    }
    if (json)
        std::fclose(json);
    return reporter.failed() ? 1 : 0;
}
