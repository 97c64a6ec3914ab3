// Accumulation of stream bytes from which whole embedded messages are cut.
//
// Messages lie back to back with no delimiter; the 32-bit little-endian full size at
// offset 1 of the front message says where it ends. The head byte is never used to
// resynchronise: a message with a wrong head is cut out by its size like any other and
// left to the receiver. A size below 8 bytes cannot be a message (cutting it would never
// advance, or underflow); everything held so far is dropped with a warning instead.
#pragma once

#include "foundation/ByteQueue.h"

#include <cstddef>
#include <cstdint>
#include <limits>

namespace zt {

class EmbeddedFramer {
public:
    // The least number of bytes held before the front message is looked at, as each
    // receiver asks for it: more than 7 in the TCP request/reply loop, at least 12 in the
    // device server's stream processors, more than 12 in the UDP client.
    static constexpr std::size_t kMinHeldRequestReply = 8;
    static constexpr std::size_t kMinHeldStream = 12;
    static constexpr std::size_t kMinHeldUdp = 13;

    // minHeld: see above (below 5 it acts as 5, the bytes needed to read the size).
    // capacity: the largest full size handed out; a larger message is never cut and
    // stays at the front.
    // limit: a message declaring more than this can only be a broken stream; what is held
    // is then dropped with a warning, as for a size below 8, so that a stream that never
    // completes its front message cannot grow without bound.
    explicit EmbeddedFramer(std::size_t minHeld,
                            std::size_t capacity = std::numeric_limits<std::size_t>::max(),
                            std::size_t limit = std::numeric_limits<std::size_t>::max());

    void append(const void* data, std::size_t length) { m_queue.append(data, length); }
    // Bytes held.
    std::size_t size() const { return m_queue.size(); }
    void clear() { m_queue.clear(); }

    // The front message when at least minHeld bytes are held, all of the front message
    // has arrived and it is not larger than the capacity; null otherwise. Its length is
    // frontSize(). The pointer stays valid until the next call that changes the
    // accumulation.
    const char* front();
    // Full size field of the front message, or 0 while fewer than 5 bytes are held.
    std::uint32_t frontSize() const;
    // Removes the front message (its full size, or everything held if that is less).
    void pop();

private:
    ByteQueue m_queue;
    std::size_t m_minHeld;
    std::size_t m_capacity;
    std::size_t m_limit;
};

} // namespace zt
