#include "DeviceAbility.h"

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

} // namespace zt::commands
