#include "DeviceAbility.h"

#include "platform/zt_log.h"

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

int judgeAbilityReply(const ReplyView& reply, DeviceAbilityInfo* info, const char* className)
{
    if (!reply.covers(4))
        return reply.tooShort();
    const std::int32_t status = reply.i32(0);
    if (status != 0) {
        ZTLOG_ERROR("ztEmbeddedModuleProxyServer::getDeviceAbilityInfo, reply = %d", status);
        return status;
    }
    if (reply.type() == 0) {
        ZTLOG_WARN("%s::getDeviceAbilityInfo, msgType is 0", className);
        return 0;
    }
    // Status, form word, the header in the long form, the format version, eleven values.
    const bool longForm = reply.covers(12) && reply.u32(8) == 0;
    const int base = 4 + (longForm ? 12 : 8);
    if (!reply.covers(base + 4))
        return reply.tooShort();
    if (reply.u32(base) == 1 && !reply.covers(base + 4 + 44))
        return reply.tooShort();
    return parseAbility(reply.payload() + 4, info);
}

} // namespace zt::commands
