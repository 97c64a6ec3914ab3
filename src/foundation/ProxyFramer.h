// Accumulation of stream bytes from which whole proxy messages are cut.
//
// Messages lie back to back with no delimiter; a message's full size (data length + 16)
// comes from its header alone and the magic is never used to resynchronise: a message
// with a wrong magic is cut out by its length like any other and left to the dispatcher.
// A header with a negative data length gives no usable size; its 16 bytes are dropped
// with a warning so that the stream moves on.
#pragma once

#include "ByteQueue.h"
#include "zt_msg.h"

#include <cstddef>
#include <cstdint>

namespace zt {

class ProxyFramer {
public:
    void append(const void* data, std::size_t length);
    // Messages with a full size above limit are dropped with a warning, their bytes
    // skipped as they arrive, so that one oversize message cannot stop the stream.
    void setLimit(std::uint64_t limit) { m_limit = limit; }
    // Bytes held.
    std::size_t size() const { return m_queue.size(); }
    void clear()
    {
        m_queue.clear();
        m_skip = 0;
    }

    // The front message when the accumulation holds at least minHeld bytes (16, or 17 for
    // receivers that wait for more than a bare header), the whole front message has
    // arrived and it is not larger than capacity; null otherwise. The pointer stays valid
    // until the next call that changes the accumulation.
    const _ZT_PROXY_MSG_* front(std::size_t capacity, std::size_t minHeld = ZT_MSG_HEADER_SIZE);
    // Full size of the front message, or -1 while its header is incomplete.
    std::int64_t frontSize() const;
    // Removes the front message (its full size, or everything held if that is less).
    void pop();
    // Drops the bytes behind the last whole message: the start of a message whose rest
    // will never come (its connection was lost). The number of bytes dropped.
    std::size_t dropIncompleteTail();

private:
    void dropBadHeaders();

    ByteQueue m_queue;
    std::uint64_t m_limit = UINT64_MAX;
    std::uint64_t m_skip = 0; // bytes of an oversize message still to come
};

} // namespace zt
