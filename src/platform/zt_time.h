// Millisecond ticks and sleeps.
#pragma once

#include <cstdint>

namespace zt {

// Milliseconds of a monotonic clock. The 32-bit form wraps like a Windows tick count and
// is used where a loop compares tick differences; the 64-bit form never wraps.
std::uint32_t tickCount();
std::uint64_t tickMs();

// Milliseconds elapsed since start, a 32-bit tick count, across one wrap of the counter.
inline std::uint32_t ticksSince(std::uint32_t start)
{
    return tickCount() - start;
}

// Holds the system timer at 1 ms resolution while it lives. The library's threads poll
// with sleeps of 1 to 15 ms, which a stock Windows timer would stretch to its 15.6 ms
// tick; each library thread holds one, and the resolution is given back when the last
// one ends. Elsewhere sleeps are already this fine and only the count is kept.
class FineTimer {
public:
    FineTimer();
    ~FineTimer();
    FineTimer(const FineTimer&) = delete;
    FineTimer& operator=(const FineTimer&) = delete;

    // How many holders there are now.
    static int holders();
};

} // namespace zt

void SPR_Sleep(unsigned int ms);
