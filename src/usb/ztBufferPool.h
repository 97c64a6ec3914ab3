// A fixed set of preallocated, equally sized frame buffers and a first-in-first-out queue
// of filled frames, between the USB completion callbacks (which must neither allocate nor
// wait) and the threads that process the frames.
//
// One frame's round: getOneFramefromPool (producer) -> fill data and length -> pushReady
// (producer) -> isReadyEmpty/popReady (consumer) -> process -> returnFrame (consumer).
// Whoever holds a frame touches it without a lock; inUse is the only ownership record.
#pragma once

#include <cstdint>
#include <deque>
#include <condition_variable>
#include <mutex>
#include <vector>

namespace ztCamera {

// One buffer of the pool.
struct ztPoolFrame {
    unsigned char* data;   // frameSize bytes, allocated once by initResource
    std::uint64_t length;  // valid bytes in data
    bool inUse;            // out of the free set: being filled, queued or processed
};

// How the pool gets and gives back the frames' data buffers. The pool uses malloc and free
// unless told otherwise; the one other user is the test that makes an allocation fail on
// purpose and checks that every buffer handed out came back.
struct ztPoolDataAllocator {
    void* (*allocate)(std::uint64_t size, void* user) = nullptr; // null result: failure
    void (*release)(void* data, void* user) = nullptr;
    void* user = nullptr;
};

class ztBufferPool {
public:
    ztBufferPool();
    explicit ztBufferPool(const ztPoolDataAllocator& allocator);
    ~ztBufferPool();

    ztBufferPool(const ztBufferPool&) = delete;
    ztBufferPool& operator=(const ztBufferPool&) = delete;

    // Allocates count frames of frameSize bytes each (records zeroed, data not cleared),
    // replacing any frames from an earlier call. 0 on success, also for count 0; -1 when an
    // allocation fails or count is negative, after logging and freeing everything.
    int initResource(int count, unsigned long long frameSize);

    // The first free frame in allocation order, now marked in use; null when all are in use.
    // Never waits and never allocates.
    ztPoolFrame* getOneFramefromPool();
    // Puts frame back into the free set with length 0; its data buffer is kept.
    void returnFrame(ztPoolFrame* frame);

    // Appends frame to the back of the ready queue.
    void pushReady(ztPoolFrame* frame);
    bool isReadyEmpty();
    // Waits up to timeoutMs for the ready queue to hold a frame; true when it does. Lets
    // an idle consumer sleep until a frame is pushed instead of polling.
    bool waitReady(unsigned int timeoutMs);
    // Removes and returns the front frame of the ready queue; null when it is empty.
    ztPoolFrame* popReady();

    // Frees every frame and its data and forgets the queued ones. Takes no lock: only for
    // when no producer or consumer can touch the pool any more.
    void releaseResource();

private:
    // Declared so that destruction takes down the ready queue, the queue lock, the frame
    // array and the pool lock in that order, after the destructor's releaseResource.
    ztPoolDataAllocator m_allocator;
    std::mutex m_poolMutex; // guards the frames' inUse flags (and length on return)
    std::vector<ztPoolFrame*> m_frames;
    std::mutex m_queueMutex; // guards m_ready; never held together with m_poolMutex
    std::deque<ztPoolFrame*> m_ready;
    std::condition_variable m_readyPushed;
};

} // namespace ztCamera
