// A growable byte accumulation with cheap removal from the front: the receive buffer
// under every stream framer of the library. Taken bytes are reclaimed only when the
// buffer would grow, so removing one message never moves the bytes behind it.
#pragma once

#include <cstddef>
#include <vector>

namespace zt {

class ByteQueue {
public:
    void append(const void* data, std::size_t length);
    const char* data() const { return m_bytes.data() + m_begin; }
    char* data() { return m_bytes.data() + m_begin; }
    std::size_t size() const { return m_bytes.size() - m_begin; }
    bool empty() const { return size() == 0; }
    // Removes length bytes from the front (everything when length is not less than size).
    void consume(std::size_t length);
    // Keeps the first length bytes and drops the rest (nothing when length is not less
    // than size).
    void truncate(std::size_t length);
    void clear();

private:
    std::vector<char> m_bytes;
    std::size_t m_begin = 0;
};

} // namespace zt
