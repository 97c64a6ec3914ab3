#include "zt_time.h"

#include <chrono>
#include <thread>

namespace zt {

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
