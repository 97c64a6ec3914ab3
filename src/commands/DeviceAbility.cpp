#include "DeviceAbility.h"

#include "platform/zt_log.h"
#include "zt_embedded_msg.h"

#include <cstdint>
#include <cstring>

namespace zt::commands {

namespace {
std::uint32_t word(const char* p)
{
    std::uint32_t v;
    std::memcpy(&v, p, sizeof v);
    return v;
}
} // namespace

int parseAbility(const char* data, DeviceAbilityInfo* info)
{
    if (data == nullptr || info == nullptr)
        return -1;
    std::size_t base = 8;
    if (word(data + 4) == 0) {
        info->abilityHeader = word(data + 8);
        base = 12;
    }
    if (word(data + base) != 1)
        return 0;
    std::uint32_t* const order[] = {&info->productType, &info->ability2,  &info->ability3, &info->ability4,
                                    &info->ability6,    &info->ability7,  &info->ability8, &info->ability9,
                                    &info->ability10,   &info->ability11, &info->ability5};
    const char* p = data + base + 4;
    for (std::uint32_t* field : order) {
        *field = word(p);
        p += 4;
    }
    return 0;
}

int judgeAbilityReply(const char* reply, DeviceAbilityInfo* info, const char* typeZeroLog)
{
    constexpr unsigned short kAbilityType = 345;
    const unsigned short type = zt_embedded_msg_get_msg_type(reply);
    if (zt_embedded_msg_is_avalible(reply) != 0 || (type != kAbilityType && type != 0))
        return -1;
    // The payload as far as it is read: the status word, then at most three words of form
    // and header, the format version and eleven values; a short reply reads as zeros.
    char body[4 + 60] = {};
    const int length = zt_embedded_msg_get_data_len(reply);
    if (length > 0)
        std::memcpy(body, reply + 7, static_cast<std::size_t>(length < static_cast<int>(sizeof body) ? length : sizeof body));
    std::int32_t status;
    std::memcpy(&status, body, sizeof status);
    if (status != 0) {
        ZTLOG_ERROR("ztEmbeddedModuleProxyServer::getDeviceAbilityInfo, reply = %d", status);
        return status;
    }
    if (type == 0) {
        ZTLOG_WARN(typeZeroLog);
        return 0;
    }
    return parseAbility(body + 4, info);
}

} // namespace zt::commands
