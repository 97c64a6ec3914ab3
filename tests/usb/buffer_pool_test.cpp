#include "support/fault_scenario.h"
#include "usb/ztBufferPool.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

using ztCamera::ztBufferPool;
using ztCamera::ztPoolDataAllocator;
using ztCamera::ztPoolFrame;

// A consumer waiting for the ready queue wakes as soon as a frame is queued, not at the
// end of its wait: frames handed over one at a time each arrive well within it.
TEST(BufferPool, AQueuedFrameWakesAWaitingConsumer)
{
    using namespace zt::test;
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
        waitUntil(5000, [&] { return taken > i; });
        late += msSince(t0) > 1500 ? 1 : 0;
    }
    stop = true;
    pool.pushReady(frame);
    consumer.join();
    EXPECT_EQ(late, 0) << "a queued frame waited for the end of the consumer's wait";
    EXPECT_GE(taken, 200);
}
