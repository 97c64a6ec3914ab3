#include "zt_time.h"

#include <chrono>
#include <mutex>
#include <thread>

#ifdef _WIN32
#  ifndef WIN32_LEAN_AND_MEAN
#    define WIN32_LEAN_AND_MEAN
#  endif
#  include <windows.h>
#  include <timeapi.h>
#endif

namespace zt {

namespace {
std::mutex g_fineTimerMutex;
int g_fineTimerHolders = 0;
} // namespace

FineTimer::FineTimer()
{
    std::lock_guard<std::mutex> lock(g_fineTimerMutex);
#ifdef _WIN32
    if (g_fineTimerHolders == 0)
        timeBeginPeriod(1);
#endif
    ++g_fineTimerHolders;
}

FineTimer::~FineTimer()
{
    std::lock_guard<std::mutex> lock(g_fineTimerMutex);
#ifdef _WIN32
    if (g_fineTimerHolders == 1)
        timeEndPeriod(1);
#endif
    --g_fineTimerHolders;
}

int FineTimer::holders()
{
    std::lock_guard<std::mutex> lock(g_fineTimerMutex);
    return g_fineTimerHolders;
}

std::uint64_t tickMs()
{
    using namespace std::chrono;
    return static_cast<std::uint64_t>(duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count());
}

std::uint32_t tickCount()
{
    return static_cast<std::uint32_t>(tickMs());
}

} // namespace zt

void SPR_Sleep(unsigned int ms)
{
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}
