#include "EmbeddedFramer.h"

#include "platform/zt_log.h"
#include "zt_embedded_msg.h"

#include <algorithm>
#include <cstring>

namespace zt {

namespace {
// Head byte plus the 32-bit size.
constexpr std::size_t kSizeEnd = 5;
} // namespace

EmbeddedFramer::EmbeddedFramer(std::size_t minHeld, std::size_t capacity, std::size_t limit)
    : m_minHeld(std::max(minHeld, kSizeEnd)), m_capacity(capacity), m_limit(limit)
{
}

std::uint32_t EmbeddedFramer::frontSize() const
{
    if (size() < kSizeEnd)
        return 0;
    std::uint32_t full;
    std::memcpy(&full, m_queue.data() + 1, sizeof full);
    return full;
}

const char* EmbeddedFramer::front()
{
    if (size() < m_minHeld)
        return nullptr;
    const std::uint32_t full = frontSize();
    if (full < ZT_EMBEDDED_MSG_MIN_SIZE || full > m_limit) {
        ZTLOG_WARN("embedded message with full size %u: %u bytes dropped from the stream\n", full,
                   static_cast<unsigned int>(size()));
        clear();
        return nullptr;
    }
    if (full > size() || full > m_capacity)
        return nullptr;
    return m_queue.data();
}

void EmbeddedFramer::pop()
{
    const std::uint32_t full = frontSize();
    m_queue.consume(full == 0 ? size() : full);
}

} // namespace zt
