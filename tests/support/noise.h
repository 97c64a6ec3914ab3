// Random bytes for a stream decoder to drop: no 0xAA tag byte among them.
#pragma once

#include <cstddef>
#include <vector>

namespace zt::test {

inline std::vector<char> noiseWithoutTag(std::size_t n, unsigned int seed)
{
    std::vector<char> noise(n);
    for (char& c : noise) {
        seed = seed * 1103515245u + 12345u;
        c = static_cast<char>((seed >> 16) & 0xFF);
        if (static_cast<unsigned char>(c) == 0xAA)
            c = 0x55;
    }
    return noise;
}

} // namespace zt::test
