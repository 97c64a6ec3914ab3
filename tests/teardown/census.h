// What a teardown may leave behind: the threads and open descriptors of this process, and
// a runner that repeats one bring-up and teardown on several lanes at once, checking after
// every round that both counts are back where they started.
#pragma once

#include <gtest/gtest.h>

#include <barrier>
#include <chrono>
#include <cstddef>
#include <dirent.h>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace zt::test {

using Clock = std::chrono::steady_clock;

// What a loaded machine adds to the time bounds of a teardown: the tests run in parallel
// with others, and the sanitizers slow every thread several times over.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr long kAllowanceMs = 10000;
#else
constexpr long kAllowanceMs = 2000;
#endif

inline int countEntries(const char* dir)
{
    DIR* d = ::opendir(dir);
    if (d == nullptr)
        return -1;
    int n = 0;
    while (const dirent* e = ::readdir(d))
        n += e->d_name[0] != '.' ? 1 : 0;
    ::closedir(d);
    return n - (std::string(dir) == "/proc/self/fd" ? 1 : 0); // the listing's own descriptor
}

struct Census {
    int threads = 0;
    int fds = 0;
    static Census now() { return {countEntries("/proc/self/task"), countEntries("/proc/self/fd")}; }
    bool operator==(const Census&) const = default;
};

// A joined thread leaves /proc a moment after the join returns: waits up to timeoutMs for
// the counts to come back to `want`, and returns what was seen last.
inline Census settleTo(const Census& want, int timeoutMs = 1000)
{
    const auto until = Clock::now() + std::chrono::milliseconds(timeoutMs);
    Census c = Census::now();
    while (!(c == want) && Clock::now() < until) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
        c = Census::now();
    }
    return c;
}

// The counts once they have held still for 200 ms (at most 3 s): what a teardown left to
// end by itself in the background (a peer's closing connection, an emulator's cleanup) is
// gone by then.
inline Census steady()
{
    const auto until = Clock::now() + std::chrono::milliseconds(3000);
    Census last = Census::now();
    int same = 0;
    while (same < 10 && Clock::now() < until) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        const Census c = Census::now();
        same = c == last ? same + 1 : 0;
        last = c;
    }
    return last;
}

inline long msSince(Clock::time_point t)
{
    return static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t).count());
}

// Runs iteration(lane, round) on `lanes` threads at once, `rounds` times. Every lane first
// runs prepare(lane) on its own thread. Between rounds all lanes wait while the process's
// threads and descriptors are compared with the counts taken before the first round.
// Returns the longest round in milliseconds.
inline long runRounds(int lanes, int rounds, const std::function<void(int lane, int round)>& iteration,
                      const std::function<bool(int lane)>& prepare = {})
{
    std::mutex mutex;
    Census baseline;
    bool haveBaseline = false;
    std::vector<std::string> leaks;
    long longest = 0;
    auto roundStart = Clock::now();
    int round = -1;
    auto check = [&]() noexcept {
        std::lock_guard<std::mutex> lock(mutex);
        if (!haveBaseline) {
            baseline = steady();
            haveBaseline = true;
        } else {
            longest = std::max(longest, msSince(roundStart));
            const Census c = settleTo(baseline, 3000);
            if (!(c == baseline))
                leaks.push_back("round " + std::to_string(round) + ": threads " + std::to_string(baseline.threads) +
                                " -> " + std::to_string(c.threads) + ", descriptors " + std::to_string(baseline.fds) +
                                " -> " + std::to_string(c.fds));
        }
        ++round;
        roundStart = Clock::now();
    };
    std::barrier sync(lanes, check);
    std::vector<std::thread> threads;
    std::vector<char> prepared(static_cast<std::size_t>(lanes), 1);
    for (int lane = 0; lane < lanes; ++lane)
        threads.emplace_back([&, lane] {
            if (prepare)
                prepared[static_cast<std::size_t>(lane)] = prepare(lane) ? 1 : 0;
            sync.arrive_and_wait();
            for (int r = 0; r < rounds; ++r) {
                if (prepared[static_cast<std::size_t>(lane)])
                    iteration(lane, r);
                sync.arrive_and_wait();
            }
        });
    for (auto& t : threads)
        t.join();
    for (int lane = 0; lane < lanes; ++lane)
        EXPECT_TRUE(prepared[static_cast<std::size_t>(lane)]) << "lane " << lane << " could not be prepared";
    for (const auto& l : leaks)
        ADD_FAILURE() << l;
    return longest;
}

} // namespace zt::test
