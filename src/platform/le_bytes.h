// Little-endian numbers in byte buffers, as the wire formats and the recording file hold
// them.
#pragma once

#include <cstdint>

namespace zt {

// The low `bytes` bytes of v at p, lowest first.
inline void putLE(void* p, std::uint64_t v, int bytes)
{
    auto* b = static_cast<unsigned char*>(p);
    for (int i = 0; i < bytes; ++i)
        b[i] = static_cast<unsigned char>((v >> (8 * i)) & 0xFF);
}

// The number in the `bytes` bytes at p, lowest first.
inline std::uint64_t getLE(const void* p, int bytes)
{
    const auto* b = static_cast<const unsigned char*>(p);
    std::uint64_t v = 0;
    for (int i = bytes - 1; i >= 0; --i)
        v = (v << 8) | b[i];
    return v;
}

inline std::uint16_t getU16(const void* p)
{
    return static_cast<std::uint16_t>(getLE(p, 2));
}

inline std::uint32_t getU32(const void* p)
{
    return static_cast<std::uint32_t>(getLE(p, 4));
}

} // namespace zt
