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

} // namespace zt

void SPR_Sleep(unsigned int ms);
