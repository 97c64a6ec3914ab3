#include "ProxyFramer.h"

#include "platform/zt_log.h"

#include <algorithm>
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
    const std::size_t skipped = static_cast<std::size_t>(std::min<std::uint64_t>(m_skip, length));
    m_skip -= skipped;
    m_queue.append(static_cast<const char*>(data) + skipped, length - skipped);
}

void ProxyFramer::dropBadHeaders()
{
    while (size() >= ZT_MSG_HEADER_SIZE) {
        const std::int32_t length = dataLengthAt(m_queue.data());
        if (length < 0) {
            ZTLOG_WARN("proxy message with data length %d dropped from the stream\n", length);
            m_queue.consume(ZT_MSG_HEADER_SIZE);
            continue;
        }
        const std::uint64_t full = static_cast<std::uint64_t>(length) + ZT_MSG_HEADER_SIZE;
        if (full <= m_limit)
            return;
        ZTLOG_WARN("proxy message of %llu bytes is larger than any this stream carries (%llu): dropped\n",
                   static_cast<unsigned long long>(full), static_cast<unsigned long long>(m_limit));
        const std::size_t held = std::min<std::size_t>(size(), static_cast<std::size_t>(full));
        m_skip = full - held;
        m_queue.consume(held);
    }
}

std::int64_t ProxyFramer::frontSize() const
{
    if (size() < ZT_MSG_HEADER_SIZE)
        return -1;
    return static_cast<std::int64_t>(dataLengthAt(m_queue.data())) + ZT_MSG_HEADER_SIZE;
}

const _ZT_PROXY_MSG_* ProxyFramer::front(std::size_t capacity, std::size_t minHeld)
{
    dropBadHeaders();
    if (size() < minHeld || size() < ZT_MSG_HEADER_SIZE)
        return nullptr;
    // Negative lengths were dropped above, so the full size is at least a header.
    const auto full = static_cast<std::uint64_t>(frontSize());
    if (full > size() || full > capacity)
        return nullptr;
    return reinterpret_cast<const _ZT_PROXY_MSG_*>(m_queue.data());
}

std::size_t ProxyFramer::dropIncompleteTail()
{
    const std::size_t held = size();
    std::size_t whole = 0; // bytes of the whole messages at the front
    while (held - whole >= ZT_MSG_HEADER_SIZE) {
        // A negative length stands for its header alone, as front() drops it.
        const std::int32_t length = dataLengthAt(m_queue.data() + whole);
        const std::uint64_t full = static_cast<std::uint64_t>(length < 0 ? 0 : length) + ZT_MSG_HEADER_SIZE;
        if (full > held - whole)
            break;
        whole += static_cast<std::size_t>(full);
    }
    m_queue.truncate(whole);
    return held - whole;
}

void ProxyFramer::pop()
{
    const std::int64_t full = frontSize();
    m_queue.consume(full < 0 ? size() : static_cast<std::size_t>(full));
}

} // namespace zt
