#include "ProxyFramer.h"

#include "platform/zt_log.h"

#include <cstring>

namespace zt {

namespace {
std::int32_t dataLengthAt(const char* header)
{
    std::int32_t length;
    std::memcpy(&length, header + offsetof(_ZT_PROXY_MSG_, dataLen), sizeof length);
    return length;
}
} // namespace

void ProxyFramer::append(const void* data, std::size_t length)
{
    if (length == 0)
        return;
    // Taken bytes are reclaimed before the buffer would grow, so that popping one message
    // never moves the bytes behind it.
    if (m_begin > 0 && (m_begin >= m_bytes.size() / 2 || m_bytes.size() + length > m_bytes.capacity())) {
        m_bytes.erase(m_bytes.begin(), m_bytes.begin() + static_cast<std::ptrdiff_t>(m_begin));
        m_begin = 0;
    }
    const char* p = static_cast<const char*>(data);
    m_bytes.insert(m_bytes.end(), p, p + length);
}

void ProxyFramer::clear()
{
    m_bytes.clear();
    m_begin = 0;
}

void ProxyFramer::dropBadHeaders()
{
    while (size() >= ZT_MSG_HEADER_SIZE) {
        const std::int32_t length = dataLengthAt(m_bytes.data() + m_begin);
        if (length >= 0)
            return;
        ZTLOG_WARN("proxy message with data length %d dropped from the stream\n", length);
        m_begin += ZT_MSG_HEADER_SIZE;
    }
}

std::int64_t ProxyFramer::frontSize() const
{
    if (size() < ZT_MSG_HEADER_SIZE)
        return -1;
    return static_cast<std::int64_t>(dataLengthAt(m_bytes.data() + m_begin)) + ZT_MSG_HEADER_SIZE;
}

const _ZT_PROXY_MSG_* ProxyFramer::front(std::size_t capacity, std::size_t minHeld)
{
    dropBadHeaders();
    if (size() < minHeld || size() < ZT_MSG_HEADER_SIZE)
        return nullptr;
    const std::int64_t full = frontSize();
    if (full > static_cast<std::int64_t>(size()) || full > static_cast<std::int64_t>(capacity))
        return nullptr;
    return reinterpret_cast<const _ZT_PROXY_MSG_*>(m_bytes.data() + m_begin);
}

void ProxyFramer::pop()
{
    const std::int64_t full = frontSize();
    if (full < 0 || full >= static_cast<std::int64_t>(size())) {
        clear();
        return;
    }
    m_begin += static_cast<std::size_t>(full);
}

} // namespace zt
