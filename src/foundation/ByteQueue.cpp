#include "ByteQueue.h"

namespace zt {

void ByteQueue::append(const void* data, std::size_t length)
{
    if (length == 0)
        return;
    if (m_begin > 0 && (m_begin >= m_bytes.size() / 2 || m_bytes.size() + length > m_bytes.capacity())) {
        m_bytes.erase(m_bytes.begin(), m_bytes.begin() + static_cast<std::ptrdiff_t>(m_begin));
        m_begin = 0;
    }
    const char* p = static_cast<const char*>(data);
    m_bytes.insert(m_bytes.end(), p, p + length);
}

void ByteQueue::consume(std::size_t length)
{
    if (length >= size()) {
        clear();
        return;
    }
    m_begin += length;
}

void ByteQueue::truncate(std::size_t length)
{
    if (length < size())
        m_bytes.resize(m_begin + length);
}

void ByteQueue::clear()
{
    m_bytes.clear();
    m_begin = 0;
}

} // namespace zt
