// The shape the fault and teardown tests share: traffic runs on threads of its own
// (requests, streams, queries), the test waits until all of it flows, misbehaves (stops,
// kills or silences one end) and checks how long that took and what the traffic saw.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <future>
#include <list>
#include <string>
#include <memory>
#include <thread>

namespace zt::test {

using Clock = std::chrono::steady_clock;

// What the sanitizers add to a time bound on a loaded machine: they slow every thread
// several times over.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr long kSanitizerSlackMs = 30000;
#else
constexpr long kSanitizerSlackMs = 0;
#endif

inline long msSince(Clock::time_point t)
{
    return static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t).count());
}

// Polls until ok() holds, at most timeoutMs.
template <class F>
bool waitUntil(int timeoutMs, F ok)
{
    const auto t = Clock::now();
    while (!ok()) {
        if (msSince(t) > timeoutMs)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

// Actions that each repeat on a thread of their own, pauseMs apart, until stopped; each
// counts its calls and the calls that returned true.
class Traffic {
public:
    struct Lane {
        std::atomic<int> calls{0};
        std::atomic<int> ok{0};
        std::thread thread;
    };
    ~Traffic() { stop(); }
    Lane& add(std::function<bool()> action, int pauseMs)
    {
        Lane& lane = m_lanes.emplace_back();
        lane.thread = std::thread([this, &lane, action, pauseMs] {
            while (!m_stop) {
                lane.ok += action() ? 1 : 0;
                ++lane.calls;
                std::this_thread::sleep_for(std::chrono::milliseconds(pauseMs));
            }
        });
        return lane;
    }
    // True once every action has been called at least n times.
    bool flowing(int n, int timeoutMs)
    {
        return waitUntil(timeoutMs, [&] {
            for (const Lane& l : m_lanes)
                if (l.calls < n)
                    return false;
            return true;
        });
    }
    void stop()
    {
        m_stop = true;
        for (Lane& l : m_lanes)
            if (l.thread.joinable())
                l.thread.join();
    }

private:
    std::atomic<bool> m_stop{false};
    std::list<Lane> m_lanes;
};

// Runs step on a thread of its own and returns how long it took. A step that has not
// returned within boundMs (a teardown that hangs) would hang the test program too: it
// ends at once instead, naming the step.
inline long returnsWithin(long boundMs, const char* what, const std::function<void()>& step)
{
    auto done = std::make_shared<std::promise<long>>();
    std::future<long> took = done->get_future();
    std::thread([step, done] {
        const auto t = Clock::now();
        step();
        done->set_value(msSince(t));
    }).detach();
    if (took.wait_for(std::chrono::milliseconds(boundMs)) != std::future_status::ready) {
        std::fprintf(stderr, "%s did not return within %ld ms\n", what, boundMs);
        std::fflush(stderr);
        std::_Exit(1);
    }
    return took.get();
}

} // namespace zt::test
