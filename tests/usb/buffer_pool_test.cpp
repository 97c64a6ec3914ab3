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
    int failOn = 0, requests = 0, freed = 0; // failOn 1-based; 0: never fail
    std::set<void*> live;
    std::vector<void*> order; // buffers in allocation order

    static void* allocate(std::uint64_t size, void* user)
    {
        auto* self = static_cast<TrackingAllocator*>(user);
        EXPECT_EQ(size, 64u);
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
        ++self->freed;
        std::free(data);
    }
    ztPoolDataAllocator seam() { return {&allocate, &release, this}; }
};

// Every free frame; no more than 1000, so that a pool handing out a frame twice ends.
std::vector<ztPoolFrame*> takeAll(ztBufferPool& pool)
{
    std::vector<ztPoolFrame*> taken;
    for (ztPoolFrame* f = pool.getOneFramefromPool(); f != nullptr && taken.size() < 1000; f = pool.getOneFramefromPool())
        taken.push_back(f);
    return taken;
}

} // namespace

TEST(BufferPool, FramesAreTakenLowestFirstAndQueuedFirstInFirstOut)
{
    TrackingAllocator alloc;
    ztBufferPool pool(alloc.seam());
    ASSERT_EQ(pool.initResource(4, 64), 0);
    std::vector<ztPoolFrame*> f = takeAll(pool);
    ASSERT_EQ(f.size(), 4u);
    for (std::size_t i = 0; i < f.size(); ++i) {
        EXPECT_EQ(f[i]->data, alloc.order[i]) << "frames are handed out in allocation order";
        std::memset(f[i]->data, 0x5A, 64); // the whole frame size is writable
    }
    // Back: length cleared, data kept; the lowest in allocation order comes first,
    // whatever the return order.
    f[2]->length = 37;
    pool.returnFrame(f[2]);
    EXPECT_FALSE(f[2]->inUse);
    EXPECT_EQ(f[2]->length, 0u);
    pool.returnFrame(f[3]);
    pool.returnFrame(f[1]);
    EXPECT_EQ(pool.getOneFramefromPool(), f[1]);
    EXPECT_EQ(pool.getOneFramefromPool(), f[2]);
    EXPECT_EQ(f[2]->data[63], 0x5A);
    EXPECT_EQ(pool.getOneFramefromPool(), f[3]);
    EXPECT_EQ(pool.getOneFramefromPool(), nullptr);

    // The ready queue: first in, first out; queued frames stay out of the free set.
    EXPECT_EQ(pool.popReady(), nullptr);
    pool.pushReady(f[0]);
    pool.pushReady(f[1]);
    EXPECT_EQ(pool.popReady(), f[0]);
    pool.pushReady(f[2]);
    pool.pushReady(f[0]);
    for (ztPoolFrame* want : {f[1], f[2], f[0]}) {
        EXPECT_FALSE(pool.isReadyEmpty());
        EXPECT_EQ(pool.popReady(), want);
    }
    EXPECT_TRUE(pool.isReadyEmpty());
    EXPECT_EQ(pool.getOneFramefromPool(), nullptr);
}

TEST(BufferPool, SetUpFailuresAndReplacementFreeEveryBufferOnce)
{
    TrackingAllocator alloc;
    {
        ztBufferPool pool(alloc.seam());
        zt::test::LogCapture log;
        EXPECT_EQ(pool.initResource(0, 64), 0);
        EXPECT_EQ(pool.getOneFramefromPool(), nullptr);
        EXPECT_EQ(pool.initResource(-1, 64), -1);
        EXPECT_EQ(alloc.requests, 0);
        // The third allocation fails: the two before are freed, the pool stays empty.
        alloc.failOn = 3;
        EXPECT_EQ(pool.initResource(10, 64), -1);
        EXPECT_EQ(log.count("ztBufferPool::initResource failed"), 2);
        EXPECT_EQ(alloc.requests, 3);
        EXPECT_EQ(alloc.freed, 2);
        EXPECT_EQ(pool.getOneFramefromPool(), nullptr);

        // A set-up replaces an idle set of frames instead of adding to it...
        ASSERT_EQ(pool.initResource(5, 64), 0);
        ASSERT_EQ(pool.initResource(4, 64), 0);
        EXPECT_EQ(alloc.freed, 7);
        ASSERT_EQ(alloc.live.size(), 4u);
        pool.pushReady(pool.getOneFramefromPool()); // queued
        ztPoolFrame* held = pool.getOneFramefromPool(); // in a caller's hands
        // ...but never frees frames in use: it is refused and the pool stays as it is.
        EXPECT_EQ(pool.initResource(4, 64), -1);
        EXPECT_EQ(log.count("ztBufferPool::initResource frames still in use, the pool is left as it is"), 1);
        EXPECT_EQ(alloc.live.size(), 4u);
        held->data[63] = 1; // still its own
        EXPECT_EQ(takeAll(pool).size(), 2u);
    }
    // Destruction frees the frames wherever they are.
    EXPECT_TRUE(alloc.live.empty());
    EXPECT_EQ(alloc.freed, 11);
}

// Two producers take frames at once and queue them; one consumer takes them off in order
// and gives them back. No frame is ever held by two takers, every message arrives once,
// in its producer's order, with its own bytes, and every frame comes back.
TEST(BufferPool, ConcurrentTakersAndAConsumerShareNoFrameAndLoseNone)
{
    constexpr int kFrames = 4;
    constexpr std::uint32_t kPerProducer = 20000;
    ztBufferPool pool;
    ASSERT_EQ(pool.initResource(kFrames, 16), 0);
    const std::vector<ztPoolFrame*> all = takeAll(pool);
    for (ztPoolFrame* f : all)
        pool.returnFrame(f);
    std::atomic<int> owners[kFrames] = {};
    std::atomic<int> clashes{0};
    std::atomic<bool> stop{false};
    auto producer = [&](std::uint32_t tag) {
        for (std::uint32_t seq = 0; seq < kPerProducer && !stop;) {
            ztPoolFrame* f = pool.getOneFramefromPool();
            if (f == nullptr) {
                std::this_thread::yield();
                continue;
            }
            const auto idx = std::find(all.begin(), all.end(), f) - all.begin();
            clashes += owners[idx].fetch_add(1) != 0 ? 1 : 0;
            const std::uint32_t word[2] = {tag, seq++};
            std::memcpy(f->data, word, sizeof word);
            std::memset(f->data + 8, static_cast<int>(seq & 0xFF), 8);
            f->length = 16;
            owners[idx].fetch_sub(1);
            pool.pushReady(f);
        }
    };
    std::thread a(producer, 0), b(producer, 1);
    std::uint32_t next[2] = {0, 0};
    int bad = 0;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (next[0] + next[1] < 2 * kPerProducer && std::chrono::steady_clock::now() < deadline) {
        ztPoolFrame* f = pool.waitReady(10) ? pool.popReady() : nullptr;
        if (f == nullptr)
            continue;
        std::uint32_t word[2];
        std::memcpy(word, f->data, sizeof word);
        bad += word[0] > 1 || word[1] != next[word[0] & 1] || !f->inUse || f->length != 16 ||
               f->data[15] != static_cast<unsigned char>((word[1] + 1) & 0xFF);
        ++next[word[0] & 1];
        pool.returnFrame(f);
    }
    stop = true;
    a.join();
    b.join();
    EXPECT_EQ(next[0] + next[1], 2 * kPerProducer);
    EXPECT_EQ(bad, 0);
    EXPECT_EQ(clashes, 0);
    EXPECT_TRUE(pool.isReadyEmpty());
    EXPECT_EQ(takeAll(pool).size(), static_cast<std::size_t>(kFrames)); // none lost
}

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
