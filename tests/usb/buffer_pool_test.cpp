#include "support/log_capture.h"
#include "usb/ztBufferPool.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <set>
#include <thread>
#include <vector>

using ztCamera::ztBufferPool;
using ztCamera::ztPoolDataAllocator;
using ztCamera::ztPoolFrame;

namespace {

// Real malloc and free underneath; records every buffer and fails the failOn-th request.
struct TrackingAllocator {
    int failOn = 0; // 1-based; 0: never fail
    int requests = 0;
    std::vector<std::uint64_t> sizes;
    std::set<void*> live;
    std::vector<void*> order; // buffers in allocation order
    std::vector<void*> freed; // in order; malloc may hand an address out again

    static void* allocate(std::uint64_t size, void* user)
    {
        auto* self = static_cast<TrackingAllocator*>(user);
        self->sizes.push_back(size);
        if (++self->requests == self->failOn)
            return nullptr;
        void* p = std::malloc(size);
        self->live.insert(p);
        self->order.push_back(p);
        return p;
    }
    static void release(void* data, void* user)
    {
        auto* self = static_cast<TrackingAllocator*>(user);
        EXPECT_EQ(self->live.erase(data), 1u) << "freed a buffer the pool never got";
        self->freed.push_back(data);
        std::free(data);
    }
    ztPoolDataAllocator seam() { return {&allocate, &release, this}; }
};

std::vector<ztPoolFrame*> takeAll(ztBufferPool& pool)
{
    std::vector<ztPoolFrame*> taken;
    while (ztPoolFrame* f = pool.getOneFramefromPool())
        taken.push_back(f);
    return taken;
}

} // namespace

TEST(BufferPool, TakesFirstFreeFrameInOrderAndReturnsNullWhenExhausted)
{
    TrackingAllocator alloc;
    ztBufferPool pool(alloc.seam());
    ASSERT_EQ(pool.initResource(4, 64), 0);
    std::vector<ztPoolFrame*> f = takeAll(pool);
    ASSERT_EQ(f.size(), 4u);
    for (std::size_t i = 0; i < f.size(); ++i)
        EXPECT_EQ(f[i]->data, alloc.order[i]) << "frames are handed out in allocation order";
    for (ztPoolFrame* frame : f) {
        EXPECT_TRUE(frame->inUse);
        EXPECT_EQ(frame->length, 0u);
        std::memset(frame->data, 0x5A, 64); // the whole frame size is writable
    }
    EXPECT_EQ(pool.getOneFramefromPool(), nullptr);

    // One frame back: exactly that frame, data kept, length cleared.
    unsigned char* data2 = f[2]->data;
    f[2]->length = 37;
    pool.returnFrame(f[2]);
    EXPECT_FALSE(f[2]->inUse);
    EXPECT_EQ(f[2]->length, 0u);
    ASSERT_EQ(pool.getOneFramefromPool(), f[2]);
    EXPECT_EQ(f[2]->data, data2);
    EXPECT_EQ(f[2]->data[63], 0x5A);
    EXPECT_EQ(pool.getOneFramefromPool(), nullptr);

    // Several back: the lowest in allocation order comes first, whatever the return order.
    pool.returnFrame(f[3]);
    pool.returnFrame(f[1]);
    pool.returnFrame(f[2]);
    EXPECT_EQ(pool.getOneFramefromPool(), f[1]);
    EXPECT_EQ(pool.getOneFramefromPool(), f[2]);
    EXPECT_EQ(pool.getOneFramefromPool(), f[3]);
    EXPECT_EQ(pool.getOneFramefromPool(), nullptr);
}

TEST(BufferPool, ReadyQueueIsFirstInFirstOut)
{
    ztBufferPool pool;
    ASSERT_EQ(pool.initResource(3, 8), 0);
    EXPECT_TRUE(pool.isReadyEmpty());
    EXPECT_EQ(pool.popReady(), nullptr);
    ztPoolFrame* a = pool.getOneFramefromPool();
    ztPoolFrame* b = pool.getOneFramefromPool();
    ztPoolFrame* c = pool.getOneFramefromPool();
    pool.pushReady(a);
    pool.pushReady(b);
    EXPECT_FALSE(pool.isReadyEmpty());
    EXPECT_EQ(pool.popReady(), a);
    pool.pushReady(c);
    pool.pushReady(a);
    EXPECT_EQ(pool.popReady(), b);
    EXPECT_EQ(pool.popReady(), c);
    EXPECT_FALSE(pool.isReadyEmpty());
    EXPECT_EQ(pool.popReady(), a);
    EXPECT_TRUE(pool.isReadyEmpty());
    EXPECT_EQ(pool.popReady(), nullptr);
    // Queued frames stay out of the free set until returned.
    EXPECT_EQ(pool.getOneFramefromPool(), nullptr);
}

TEST(BufferPool, CountZeroAllocatesNothingAndNegativeCountFails)
{
    TrackingAllocator alloc;
    ztBufferPool pool(alloc.seam());
    EXPECT_EQ(pool.initResource(0, 4096), 0);
    EXPECT_EQ(alloc.requests, 0);
    EXPECT_EQ(pool.getOneFramefromPool(), nullptr);
    EXPECT_TRUE(pool.isReadyEmpty());

    zt::test::LogCapture log;
    EXPECT_EQ(pool.initResource(-1, 4096), -1);
    EXPECT_EQ(log.count("ztBufferPool::initResource failed"), 1);
    EXPECT_EQ(alloc.requests, 0);
}

TEST(BufferPool, FailedAllocationFreesEverythingAndLogs)
{
    TrackingAllocator alloc;
    alloc.failOn = 3;
    {
        ztBufferPool pool(alloc.seam());
        zt::test::LogCapture log;
        EXPECT_EQ(pool.initResource(10, 0x4B0400), -1);
        EXPECT_EQ(log.count("ztBufferPool::initResource failed"), 1);
        for (const auto& line : log.lines())
            EXPECT_EQ(line.level, ZTLOG_LEVEL_ERROR);
        EXPECT_EQ(alloc.requests, 3); // stops at the failure
        EXPECT_EQ(alloc.sizes, std::vector<std::uint64_t>(3, 0x4B0400));
        EXPECT_TRUE(alloc.live.empty());
        EXPECT_EQ(alloc.freed.size(), 2u);
        EXPECT_EQ(pool.getOneFramefromPool(), nullptr);

        // The same pool can be set up again once memory is there.
        alloc.failOn = 0;
        ASSERT_EQ(pool.initResource(10, 16), 0);
        EXPECT_EQ(takeAll(pool).size(), 10u);
        EXPECT_EQ(alloc.live.size(), 10u);
    }
    EXPECT_TRUE(alloc.live.empty());
}

TEST(BufferPool, ReinitReplacesIdleFramesOnlyAndDestructionFreesThemWhereverTheyAre)
{
    TrackingAllocator alloc;
    {
        ztBufferPool pool(alloc.seam());
        ASSERT_EQ(pool.initResource(5, 32), 0);
        std::set<void*> first = alloc.live;
        // A second set-up replaces an idle set of frames instead of adding to it.
        ASSERT_EQ(pool.initResource(4, 32), 0);
        EXPECT_EQ(std::set<void*>(alloc.freed.begin(), alloc.freed.end()), first);
        EXPECT_EQ(alloc.freed.size(), 5u);
        ASSERT_EQ(alloc.live.size(), 4u);
        pool.pushReady(pool.getOneFramefromPool());   // queued
        ztPoolFrame* held = pool.getOneFramefromPool(); // in a caller's hands
        // ... but never frees frames in use: it is refused and the pool stays as it is.
        zt::test::LogCapture log;
        EXPECT_EQ(pool.initResource(4, 32), -1);
        EXPECT_EQ(log.count("ztBufferPool::initResource frames still in use, the pool is left as it is"), 1);
        EXPECT_EQ(alloc.live.size(), 4u);
        held->data[31] = 1; // still its own
    }
    EXPECT_TRUE(alloc.live.empty());
    EXPECT_EQ(alloc.freed.size(), 9u);
}

// One producer and one consumer through a pool much smaller than the number of messages:
// every message arrives once, in order, with its own bytes, and every frame comes back.
TEST(BufferPool, ProducerConsumerDeliversEveryFrameOnceInOrder)
{
    constexpr int kFrames = 8;
    constexpr std::uint32_t kMessages = 20000;
    constexpr std::uint64_t kFrameSize = 64;
    ztBufferPool pool;
    ASSERT_EQ(pool.initResource(kFrames, kFrameSize), 0);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    std::atomic<bool> timedOut{false};
    auto expired = [&] {
        if (std::chrono::steady_clock::now() < deadline)
            return false;
        timedOut = true;
        return true;
    };

    std::thread producer([&] {
        for (std::uint32_t seq = 0; seq < kMessages && !expired();) {
            ztPoolFrame* f = pool.getOneFramefromPool();
            if (f == nullptr) {
                std::this_thread::yield();
                continue;
            }
            const std::uint64_t len = 4 + seq % (kFrameSize - 4);
            std::memset(f->data, static_cast<int>(seq & 0xFF), len);
            std::memcpy(f->data, &seq, sizeof seq);
            f->length = len;
            pool.pushReady(f);
            ++seq;
        }
    });

    std::uint32_t received = 0;
    int badOrder = 0, badBytes = 0, notOwned = 0, nullPops = 0;
    std::set<ztPoolFrame*> seen;
    while (received < kMessages && !expired()) {
        if (pool.isReadyEmpty()) {
            std::this_thread::yield();
            continue;
        }
        ztPoolFrame* f = pool.popReady();
        if (f == nullptr) { // only this thread pops, so a non-empty queue cannot run dry
            ++nullPops;
            break;
        }
        seen.insert(f);
        std::uint32_t seq;
        std::memcpy(&seq, f->data, sizeof seq);
        badOrder += seq != received;
        badBytes += f->length != 4 + seq % (kFrameSize - 4) ||
                    (f->length > 4 && f->data[f->length - 1] != (seq & 0xFF));
        notOwned += !f->inUse;
        pool.returnFrame(f);
        ++received;
    }
    producer.join();

    EXPECT_FALSE(timedOut);
    EXPECT_EQ(received, kMessages);
    EXPECT_EQ(nullPops, 0);
    EXPECT_EQ(badOrder, 0);
    EXPECT_EQ(badBytes, 0);
    EXPECT_EQ(notOwned, 0);
    EXPECT_LE(seen.size(), static_cast<std::size_t>(kFrames));
    EXPECT_TRUE(pool.isReadyEmpty());
    EXPECT_EQ(takeAll(pool).size(), static_cast<std::size_t>(kFrames)); // none lost
}

// Several threads taking and returning at once never hold the same frame together.
TEST(BufferPool, ConcurrentTakersNeverShareAFrame)
{
    constexpr int kFrames = 4;
    constexpr int kThreads = 4;
    constexpr int kRounds = 5000;
    ztBufferPool pool;
    ASSERT_EQ(pool.initResource(kFrames, 16), 0);
    std::vector<ztPoolFrame*> all = takeAll(pool);
    for (ztPoolFrame* f : all)
        pool.returnFrame(f);

    std::atomic<int> owners[kFrames] = {};
    std::atomic<int> clashes{0}, taken{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < kRounds; ++i) {
                ztPoolFrame* f = pool.getOneFramefromPool();
                if (f == nullptr)
                    continue;
                const int idx = static_cast<int>(std::find(all.begin(), all.end(), f) - all.begin());
                if (owners[idx].fetch_add(1) != 0)
                    ++clashes;
                ++taken;
                std::this_thread::yield();
                owners[idx].fetch_sub(1);
                pool.returnFrame(f);
            }
        });
    }
    for (auto& th : threads)
        th.join();
    EXPECT_EQ(clashes, 0);
    EXPECT_GT(taken, 0);
    EXPECT_EQ(takeAll(pool).size(), static_cast<std::size_t>(kFrames));
}
