// The threads and open descriptors of this process, and a runner that repeats a bring-up
// and teardown on several lanes at once, checking after each round that both are as before.
#pragma once

#include "support/fault_scenario.h"

#include <gtest/gtest.h>

#include <barrier>
#include <dirent.h>
#include <memory>
#include <string>
#include <vector>

namespace zt::test {

// What a loaded machine adds to the time bounds of a teardown.
constexpr long kAllowanceMs = 2000 + kSanitizerSlackMs;

struct Census {
    int threads = 0;
    int fds = 0;
    static int entries(const char* dir)
    {
        DIR* d = ::opendir(dir);
        int n = 0;
        while (const dirent* e = ::readdir(d))
            n += e->d_name[0] != '.' ? 1 : 0;
        ::closedir(d);
        return n;
    }
    // The descriptor listing counts its own descriptor, the same each time.
    static Census now() { return {entries("/proc/self/task"), entries("/proc/self/fd")}; }
    bool operator==(const Census&) const = default;
    std::string text() const { return std::to_string(threads) + " threads, " + std::to_string(fds) + " descriptors"; }
};

// Runs iteration(lane, round) on `lanes` threads, `rounds` times, after prepare(lane) on
// each. After each round the counts must come back (within 3 s: a joined thread leaves
// /proc a moment after its join) to those taken before the first.
inline void runRounds(int lanes, int rounds, const std::function<void(int lane, int round)>& iteration,
                      const std::function<bool(int lane)>& prepare = {})
{
    Census baseline;
    int round = -1;
    std::vector<std::string> leaks;
    auto check = [&]() noexcept {
        if (round++ < 0) {
            // Taken once the counts have held still for 200 ms.
            int same = 0;
            for (int i = 0; i < 150 && same < 10; ++i, std::this_thread::sleep_for(std::chrono::milliseconds(20))) {
                const Census c = Census::now();
                same = c == baseline ? same + 1 : 0;
                baseline = c;
            }
            return;
        }
        Census c;
        if (!waitUntil(3000, [&] { return (c = Census::now()) == baseline; }))
            leaks.push_back("round " + std::to_string(round) + ": " + baseline.text() + " -> " + c.text());
    };
    std::barrier sync(lanes, check);
    std::vector<char> prepared(static_cast<std::size_t>(lanes), 1);
    std::vector<std::thread> threads;
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
}

// Even rounds: deInit while the callers still call, after which a call fails at once. Odd
// rounds: the destructor alone, once the callers stopped (nobody may call into an object
// while it is destroyed). Either returns within boundMs.
template <class T, class Call>
void tearDown(int round, std::unique_ptr<T>& object, Traffic& callers, long boundMs, Call call)
{
    if (round % 2 == 0) {
        returnsWithin(boundMs, "deInit under load", [&] { object->deInit(); });
        callers.stop();
        EXPECT_EQ(call(*object), -1);
    } else {
        callers.stop();
        returnsWithin(boundMs, "destructor under load", [&] { object.reset(); });
    }
    object.reset();
}

} // namespace zt::test
