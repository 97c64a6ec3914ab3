#include "zt_msg.h"

#include <cstdlib>
#include <cstring>

extern "C" {

_ZT_PROXY_MSG_* zt_msg_create(int msgType, unsigned int subType, int dataLen, const void* data)
{
    if (msgType == 0)
        return nullptr;
    // A negative length is stored as given; only the header is allocated for it.
    const std::size_t payload = dataLen > 0 ? static_cast<std::size_t>(dataLen) : 0;
    auto* msg = static_cast<_ZT_PROXY_MSG_*>(std::malloc(ZT_MSG_HEADER_SIZE + payload));
    if (msg == nullptr)
        return nullptr;
    msg->msgType = msgType;
    msg->magic = ZT_MSG_MAGIC;
    // The reserved bytes are never read; zeros keep the wire free of stale heap bytes.
    msg->reserved[0] = 0;
    msg->reserved[1] = 0;
    msg->subType = subType;
    msg->dataLen = dataLen;
    if (dataLen > 0 && data != nullptr)
        std::memcpy(reinterpret_cast<char*>(msg) + ZT_MSG_HEADER_SIZE, data, payload);
    return msg;
}

int zt_msg_is_avalible(const void* msg)
{
    if (msg == nullptr)
        return -1;
    return static_cast<const _ZT_PROXY_MSG_*>(msg)->magic == ZT_MSG_MAGIC ? 0 : -1;
}

int zt_msg_get_msg_type(const void* msg)
{
    return msg == nullptr ? 0 : static_cast<const _ZT_PROXY_MSG_*>(msg)->msgType;
}

unsigned int zt_msg_get_sub_type(const void* msg)
{
    return msg == nullptr ? 0 : static_cast<const _ZT_PROXY_MSG_*>(msg)->subType;
}

void* zt_msg_get_data(void* msg)
{
    return msg == nullptr ? nullptr : static_cast<char*>(msg) + ZT_MSG_HEADER_SIZE;
}

int zt_msg_get_data_len(const void* msg)
{
    return msg == nullptr ? 0 : static_cast<const _ZT_PROXY_MSG_*>(msg)->dataLen;
}

int zt_msg_get_full_size(const void* msg)
{
    if (msg == nullptr)
        return 0;
    // Computed without signed overflow for lengths near the top of the int range.
    return static_cast<int>(static_cast<unsigned int>(static_cast<const _ZT_PROXY_MSG_*>(msg)->dataLen) +
                            ZT_MSG_HEADER_SIZE);
}

void zt_msg_release(void* msg)
{
    std::free(msg);
}

} // extern "C"
