// Pieces shared by the end-to-end benchmarks.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>

namespace zt::bench {

// Counts the packets of one type that a data callback delivers, and their bytes
// (payload and the 8 bytes of message frame).
struct Delivered {
    int type = 1280;
    std::mutex mutex;
    std::condition_variable arrived;
    std::size_t packets = 0;
    std::size_t bytes = 0;

    static void cb(int type, char*, int len, void* user)
    {
        auto* self = static_cast<Delivered*>(user);
        if (type != self->type)
            return;
        std::lock_guard<std::mutex> lock(self->mutex);
        ++self->packets;
        self->bytes += static_cast<std::size_t>(len) + 8;
        self->arrived.notify_all();
    }

    // Waits until count packets have arrived or seconds have passed; the bytes seen.
    std::size_t waitFor(std::size_t count, int seconds)
    {
        std::unique_lock<std::mutex> lock(mutex);
        arrived.wait_for(lock, std::chrono::seconds(seconds), [&] { return packets >= count; });
        return bytes;
    }
};

} // namespace zt::bench
