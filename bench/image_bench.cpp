// Speed of the 16-bit to 8-bit conversion (ztImageAssembler::imageFormat_16To8) on
// 2448 x 1024 frames of 16-bit pixels (5.0 MB), against two loops measured in the same run
// on one thread: the memory-traffic limit (a loop that reads the 16-bit frame and writes
// what the conversion must write, the rewritten source and the 8-bit image, with no
// arithmetic: the conversion cannot be faster) and a plain per-pixel loop of the
// double-precision formula. Each iteration converts fresh copies of a batch of frames
// larger than the caches, since the conversion rewrites its source; only the conversions,
// allocation of the 8-bit images included, are timed. After the benchmarks the lines give
// Gpixel/s (10^9 pixels per second) of the best repetitions and the ratios, with the
// medians beside; the goal is at least 0.8 of the memory-traffic limit. When ZT_BENCH_JSON
// names a file, the same figures are appended to it, one JSON object per line.
#include "bench_reporter.h"
#include "ztImageAssembler.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <vector>

namespace {

constexpr int kRows = 1024;
constexpr int kCols = 2448;
constexpr int kPixels = kRows * kCols;
constexpr int kRepetitions = 9;
// 16 frames of 5 MB: 80 MB of sources, more than the caches hold.
constexpr int kBatch = 16;

// 12-bit sensor values: black, the 0..255 range and the wrap above it all occur.
const std::vector<unsigned short>& frame()
{
    static const std::vector<unsigned short> pixels = [] {
        std::vector<unsigned short> p(kPixels);
        unsigned seed = 12345;
        for (auto& v : p) {
            seed = seed * 1664525u + 1013904223u;
            v = static_cast<unsigned short>(seed >> 20);
        }
        return p;
    }();
    return pixels;
}

// The formula as written, one pixel at a time.
cv::Mat plainLoop(unsigned short* src, int count, int rows, int cols)
{
    cv::Mat image(rows, cols, CV_8UC1);
    unsigned char* out = image.data;
    for (int i = 0; i < count; ++i) {
        int v = src[i];
        if (v < 144)
            v = 144;
        const int r = static_cast<int>((v - 144.0) * 255.0 / 880.0);
        out[i] = static_cast<unsigned char>(r);
        src[i] = static_cast<unsigned short>(r);
    }
    return image;
}

// What the conversion must move, and nothing else: each 16-bit pixel read, its low byte
// written to the 8-bit image and back over the source. Built for the widest vectors the
// processor has, as the conversion is.
__attribute__((target_clones("avx2", "default"))) cv::Mat trafficLimit(unsigned short* src, int count, int rows, int cols)
{
    cv::Mat image(rows, cols, CV_8UC1);
    unsigned char* out = image.data;
    for (int i = 0; i < count; ++i) {
        const auto v = static_cast<unsigned char>(src[i]);
        out[i] = v;
        src[i] = v;
    }
    return image;
}

template <class Convert>
void run(benchmark::State& state, Convert convert, bool checked = true)
{
    const std::vector<unsigned short>& original = frame();
    // A batch of frames larger than the processor's caches, filled before the clock starts
    // and converted in the order they were filled: each conversion reads its frame from
    // memory, as a frame that arrived a while ago is, not from a cache it was just copied to.
    std::vector<std::vector<unsigned short>> batch(kBatch, std::vector<unsigned short>(kPixels));
    std::vector<cv::Mat> images(kBatch);
    for (auto _ : state) {
        for (auto& src : batch)
            std::memcpy(src.data(), original.data(), sizeof(unsigned short) * kPixels);
        const auto start = std::chrono::steady_clock::now();
        for (int i = 0; i < kBatch; ++i)
            images[i] = convert(batch[i].data(), kPixels, kRows, kCols);
        benchmark::DoNotOptimize(images.data());
        benchmark::ClobberMemory();
        state.SetIterationTime(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
    }
    // The conversion and the plain loop must give the formula's results: the bytes and the
    // rewritten source.
    std::vector<unsigned short> expectSrc = original;
    const cv::Mat expect = plainLoop(expectSrc.data(), kPixels, kRows, kCols);
    if (checked && (images.back().total() != static_cast<std::size_t>(kPixels) ||
                    std::memcmp(images.back().data, expect.data, kPixels) != 0 || batch.back() != expectSrc))
        state.SkipWithError("the conversion does not give the formula's results");
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()) * kPixels * kBatch);
}

} // namespace

int main(int argc, char** argv)
{
    ztImageAssembler assembler;
    benchmark::RegisterBenchmark("imageFormat_16To8", [&assembler](benchmark::State& st) {
        run(st, [&assembler](unsigned short* src, int count, int rows, int cols) {
            return assembler.imageFormat_16To8(src, count, rows, cols);
        });
    })->Unit(benchmark::kMillisecond)->UseManualTime()->Repetitions(kRepetitions);
    benchmark::RegisterBenchmark("plain_loop", [](benchmark::State& st) { run(st, plainLoop); })
        ->Unit(benchmark::kMillisecond)
        ->UseManualTime()
        ->Repetitions(kRepetitions);
    benchmark::RegisterBenchmark("memory_traffic_limit", [](benchmark::State& st) { run(st, trafficLimit, false); })
        ->Unit(benchmark::kMillisecond)
        ->UseManualTime()
        ->Repetitions(kRepetitions);
    // Repetitions of the conversion and of the loops run interleaved.
    if (!zt::bench::initializeInterleaved(argc, argv))
        return 1;
    zt::bench::RateCollector reporter("items_per_second");
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();

    const double lut = reporter.best("imageFormat_16To8") / 1e9, plain = reporter.best("plain_loop") / 1e9;
    const double limit = reporter.best("memory_traffic_limit") / 1e9;
    const double lutMedian = reporter.median("imageFormat_16To8") / 1e9, plainMedian = reporter.median("plain_loop") / 1e9;
    const double limitMedian = reporter.median("memory_traffic_limit") / 1e9;
    if (lut == 0 || plain == 0 || limit == 0)
        return 1;
    const std::size_t reps = std::min(reporter.count("imageFormat_16To8"), reporter.count("memory_traffic_limit"));
    std::printf("imageFormat_16To8 (%dx%d frames, best of %zu): %.2f Gpixel/s\n", kCols, kRows, reps, lut);
    std::printf("  memory-traffic limit %.2f Gpixel/s: ratio %.2f (goal >= 0.80: %s); medians %.2f / %.2f, ratio %.2f\n",
                limit, lut / limit, lut / limit >= 0.8 ? "met" : "NOT met", lutMedian, limitMedian,
                lutMedian / limitMedian);
    std::printf("  plain loop of the formula %.2f Gpixel/s: ratio %.2f; medians %.2f / %.2f, ratio %.2f\n", plain,
                lut / plain, lutMedian, plainMedian, lutMedian / plainMedian);
    if (std::FILE* json = zt::bench::openResults("image_bench")) {
        std::fprintf(json,
                     "{\"benchmark\":\"image_bench\",\"rows\":%d,\"cols\":%d,\"convert_Gpixel_per_s\":%.3f,"
                     "\"baseline\":\"memory-traffic limit\",\"baseline_Gpixel_per_s\":%.3f,\"ratio\":%.3f,"
                     "\"plain_loop_Gpixel_per_s\":%.3f,\"plain_loop_ratio\":%.3f,\"convert_median_Gpixel_per_s\":%.3f,"
                     "\"baseline_median_Gpixel_per_s\":%.3f,\"median_ratio\":%.3f}\n",
                     kRows, kCols, lut, limit, lut / limit, plain, lut / plain, lutMedian, limitMedian,
                     lutMedian / limitMedian);
        std::fclose(json);
    }
    return reporter.failed() ? 1 : 0;
}
