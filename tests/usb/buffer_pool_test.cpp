#include "support/log_capture.h"
#include "usb/ztBufferPool.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

using ztCamera::ztBufferPool;
using ztCamera::ztPoolDataAllocator;
using ztCamera::ztPoolFrame;

// A consumer waiting for the ready queue wakes as soon as a frame is queued, not at the
// end of its wait: frames handed over one at a time each arrive well within it.
TEST(BufferPool, AQueuedFrameWakesAWaitingConsumer)
{
    using Clock = std::chrono::steady_clock;
    ztBufferPool pool;
    ASSERT_EQ(pool.initResource(1, 16), 0);
    ztPoolFrame* frame = pool.getOneFramefromPool();
    std::atomic<int> taken{0};
    std::atomic<bool> stop{false};
    std::thread consumer([&] {
        while (!stop)
            taken += pool.waitReady(3000) && pool.popReady() != nullptr ? 1 : 0;
    });
    int late = 0;
    for (int i = 0; i < 200 && late == 0; ++i) {
        const auto t0 = Clock::now();
        pool.pushReady(frame);
        while (taken == i && Clock::now() - t0 < std::chrono::seconds(5))
            std::this_thread::yield();
        late += Clock::now() - t0 > std::chrono::milliseconds(1500) ? 1 : 0;
    }
    stop = true;
    pool.pushReady(frame);
    consumer.join();
    EXPECT_EQ(late, 0) << "a queued frame waited for the end of the consumer's wait";
    EXPECT_GE(taken, 200);
}
