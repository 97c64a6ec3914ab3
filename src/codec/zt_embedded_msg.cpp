#include "zt_embedded_msg.h"

#include "platform/zt_log.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

constexpr std::size_t kSizeOffset = 1;
constexpr std::size_t kTypeOffset = 5;
constexpr std::size_t kDataOffset = 7;

std::uint32_t fullSizeOf(const void* msg)
{
    std::uint32_t size;
    std::memcpy(&size, static_cast<const char*>(msg) + kSizeOffset, sizeof size);
    return size;
}

} // namespace

extern "C" {

void* zt_embedded_msg_create(unsigned int size, unsigned short msgType, const void* data)
{
    if (size == 0)
        return nullptr;
    // Below 8 bytes there is no room for head, size, type and tail, and copying size - 8
    // payload bytes would run far past the block.
    if (size < ZT_EMBEDDED_MSG_MIN_SIZE) {
        ZTLOG_ERROR("zt_embedded_msg_create: size %u is below the 8 bytes of an empty message\n", size);
        return nullptr;
    }
    auto* msg = static_cast<unsigned char*>(std::malloc(size));
    if (msg == nullptr)
        return nullptr;
    msg[0] = ZT_EMBEDDED_MSG_HEAD;
    const std::uint32_t full = size;
    std::memcpy(msg + kSizeOffset, &full, sizeof full);
    std::memcpy(msg + kTypeOffset, &msgType, sizeof msgType);
    if (data != nullptr) {
        std::memcpy(msg + kDataOffset, data, size - ZT_EMBEDDED_MSG_MIN_SIZE);
        msg[size - 1] = ZT_EMBEDDED_MSG_TAIL;
    } else {
        // Without data the tail goes to offset 7, right after the type, whatever the size;
        // the payload is zeros rather than stale heap bytes.
        std::memset(msg + kDataOffset, 0, size - kDataOffset);
        msg[kDataOffset] = ZT_EMBEDDED_MSG_TAIL;
    }
    return msg;
}

int zt_embedded_msg_is_avalible(const void* msg)
{
    if (msg == nullptr)
        return -1;
    const unsigned char head = *static_cast<const unsigned char*>(msg);
    return head == ZT_EMBEDDED_MSG_HEAD || head == ZT_EMBEDDED_MSG_HEAD_ALT ? 0 : -1;
}

unsigned short zt_embedded_msg_get_msg_type(const void* msg)
{
    if (msg == nullptr)
        return 0;
    unsigned short type;
    std::memcpy(&type, static_cast<const char*>(msg) + kTypeOffset, sizeof type);
    return type;
}

void* zt_embedded_msg_get_data(void* msg)
{
    return msg == nullptr ? nullptr : static_cast<char*>(msg) + kDataOffset;
}

int zt_embedded_msg_get_data_len(const void* msg)
{
    if (msg == nullptr)
        return 0;
    // Unsigned arithmetic, then the int of the same bits: a size field below 8 gives a
    // negative length without signed overflow.
    return static_cast<int>(fullSizeOf(msg) - ZT_EMBEDDED_MSG_MIN_SIZE);
}

int zt_embedded_msg_get_full_size(const void* msg)
{
    return msg == nullptr ? 0 : static_cast<int>(fullSizeOf(msg));
}

void zt_embedded_msg_release(void* msg)
{
    std::free(msg);
}

} // extern "C"
