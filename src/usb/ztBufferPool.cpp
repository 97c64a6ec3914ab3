#include "ztBufferPool.h"

#include <chrono>

#include "platform/zt_log.h"

#include <cstdlib>
#include <new>

namespace ztCamera {

namespace {

void* mallocData(std::uint64_t size, void*)
{
    // malloc(0) may return null, which would read as a failure.
    return std::malloc(size != 0 ? static_cast<std::size_t>(size) : 1);
}

void freeData(void* data, void*)
{
    std::free(data);
}

ztPoolDataAllocator withDefaults(ztPoolDataAllocator a)
{
    if (a.allocate == nullptr || a.release == nullptr) {
        a.allocate = &mallocData;
        a.release = &freeData;
    }
    return a;
}

} // namespace

ztBufferPool::ztBufferPool() : ztBufferPool(ztPoolDataAllocator{}) {}

ztBufferPool::ztBufferPool(const ztPoolDataAllocator& allocator) : m_allocator(withDefaults(allocator)) {}

ztBufferPool::~ztBufferPool()
{
    releaseResource();
}

int ztBufferPool::initResource(int count, unsigned long long frameSize)
{
    {
        // A set-up never frees frames that a thread or a transfer still uses: while any is
        // taken or queued, the pool stays as it is.
        std::lock_guard<std::mutex> lock(m_poolMutex);
        for (const ztPoolFrame* frame : m_frames) {
            if (frame->inUse) {
                ZTLOG_ERROR("ztBufferPool::initResource frames still in use, the pool is left as it is");
                return -1;
            }
        }
    }
    releaseResource();
    if (count < 0) {
        ZTLOG_ERROR("ztBufferPool::initResource failed");
        return -1;
    }
    try {
        // Reserved up front so that adding a record below cannot throw.
        m_frames.reserve(static_cast<std::size_t>(count));
    } catch (const std::bad_alloc&) {
        ZTLOG_ERROR("ztBufferPool::initResource failed");
        return -1;
    }
    for (int i = 0; i < count; ++i) {
        auto* frame = new (std::nothrow) ztPoolFrame{};
        if (frame != nullptr) {
            m_frames.push_back(frame);
            frame->data = static_cast<unsigned char*>(m_allocator.allocate(frameSize, m_allocator.user));
        }
        if (frame == nullptr || frame->data == nullptr) {
            ZTLOG_ERROR("ztBufferPool::initResource failed");
            releaseResource();
            return -1;
        }
    }
    return 0;
}

ztPoolFrame* ztBufferPool::getOneFramefromPool()
{
    std::lock_guard<std::mutex> lock(m_poolMutex);
    for (ztPoolFrame* frame : m_frames) {
        if (!frame->inUse) {
            frame->inUse = true;
            return frame;
        }
    }
    return nullptr;
}

void ztBufferPool::returnFrame(ztPoolFrame* frame)
{
    if (frame == nullptr)
        return;
    std::lock_guard<std::mutex> lock(m_poolMutex);
    frame->length = 0;
    frame->inUse = false;
}

void ztBufferPool::pushReady(ztPoolFrame* frame)
{
    if (frame == nullptr)
        return;
    {
        std::lock_guard<std::mutex> lock(m_queueMutex);
        m_ready.push_back(frame);
    }
    m_readyPushed.notify_one();
}

bool ztBufferPool::waitReady(unsigned int timeoutMs)
{
    std::unique_lock<std::mutex> lock(m_queueMutex);
    return m_readyPushed.wait_for(lock, std::chrono::milliseconds(timeoutMs), [this] { return !m_ready.empty(); });
}

bool ztBufferPool::isReadyEmpty()
{
    std::lock_guard<std::mutex> lock(m_queueMutex);
    return m_ready.empty();
}

ztPoolFrame* ztBufferPool::popReady()
{
    std::lock_guard<std::mutex> lock(m_queueMutex);
    // Callers check isReadyEmpty first; an empty queue still yields null, not a bad read.
    if (m_ready.empty())
        return nullptr;
    ztPoolFrame* frame = m_ready.front();
    m_ready.pop_front();
    return frame;
}

void ztBufferPool::releaseResource()
{
    for (ztPoolFrame* frame : m_frames) {
        if (frame->data != nullptr)
            m_allocator.release(frame->data, m_allocator.user);
        delete frame;
    }
    m_frames.clear();
    // The queue only borrowed these frames; drop the pointers now that they are freed.
    m_ready.clear();
}

} // namespace ztCamera
