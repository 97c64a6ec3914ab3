// Pieces shared by the micro benchmarks: interleaved repetitions and a console reporter
// that keeps one rate of every repetition, for the ratio lines printed after the run.
#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace zt::bench {

// Initialises Google Benchmark with the repetitions of all benchmarks interleaved, so
// that load on a shared machine falls on each of them alike; a flag on the command line
// still overrides this. False when the command line holds a flag it does not know.
inline bool initializeInterleaved(int argc, char** argv)
{
    std::vector<char*> args(argv, argv + argc);
    static char interleave[] = "--benchmark_enable_random_interleaving=true";
    args.insert(args.begin() + 1, interleave);
    int count = static_cast<int>(args.size());
    benchmark::Initialize(&count, args.data());
    return !benchmark::ReportUnrecognizedArguments(count, args.data());
}

// Prints as usual and keeps the named rate counter (bytes_per_second, items_per_second)
// of every repetition by benchmark name.
class RateCollector : public benchmark::ConsoleReporter {
public:
    explicit RateCollector(std::string counter) : m_counter(std::move(counter)) {}

    void ReportRuns(const std::vector<Run>& runs) override
    {
        for (const auto& r : runs) {
            if (r.run_type != Run::RT_Iteration)
                continue;
            auto rate = r.counters.find(m_counter);
            if (r.error_occurred || rate == r.counters.end())
                m_failed = true;
            else
                m_rates[r.run_name.function_name].push_back(rate->second.value);
        }
        ConsoleReporter::ReportRuns(runs);
    }
    // The best and the median repetition, per second; 0 when there was none. Other load
    // on the machine only ever slows a run, so the best is the least disturbed.
    double best(const std::string& name) const { return pick(name, false); }
    double median(const std::string& name) const { return pick(name, true); }
    std::size_t count(const std::string& name) const
    {
        auto found = m_rates.find(name);
        return found == m_rates.end() ? 0 : found->second.size();
    }
    bool failed() const { return m_failed; }

private:
    double pick(const std::string& name, bool median) const
    {
        auto found = m_rates.find(name);
        if (found == m_rates.end() || found->second.empty())
            return 0;
        std::vector<double> v = found->second;
        std::sort(v.begin(), v.end());
        return median ? v[v.size() / 2] : v.back();
    }

    std::string m_counter;
    std::map<std::string, std::vector<double>> m_rates;
    bool m_failed = false;
};

// The file named by ZT_BENCH_JSON, opened for appending one JSON object per line; null
// when the variable is unset or the file cannot be opened (then with a message).
inline std::FILE* openResults(const char* program)
{
    const char* path = std::getenv("ZT_BENCH_JSON");
    if (path == nullptr || *path == '\0')
        return nullptr;
    std::FILE* file = std::fopen(path, "a");
    if (file == nullptr)
        std::fprintf(stderr, "%s: cannot open %s\n", program, path);
    return file;
}

} // namespace zt::bench
