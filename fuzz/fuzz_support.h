// Pieces shared by the fuzz targets.
#pragma once

#include "ztLog.h"

#include <fuzzer/FuzzedDataProvider.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

namespace zt::fuzz {

// Logging off: the targets feed bad input on purpose, and formatting the lines would
// cost more than the parsing they follow.
inline void quietLogs()
{
    ztLogSetLevel(ZTLOG_LEVEL_OFF);
}

// Stops the run with the reason when a property of the code under test does not hold;
// libFuzzer keeps the input that got here.
[[noreturn]] inline void fail(const char* what)
{
    std::fprintf(stderr, "fuzz property broken: %s\n", what);
    std::abort();
}

inline void check(bool ok, const char* what)
{
    if (!ok)
        fail(what);
}

// Splits the rest of the provider's bytes into pieces whose lengths the input picks, as
// a stream arrives in receives of any size. Each piece comes back as a heap copy of its
// own, so that a read past a piece's end is seen by the address sanitizer.
inline std::vector<std::vector<unsigned char>> chunks(FuzzedDataProvider& in, std::size_t maxChunk)
{
    std::vector<std::vector<unsigned char>> out;
    while (in.remaining_bytes() > 0) {
        const std::size_t n = in.ConsumeIntegralInRange<std::size_t>(1, maxChunk);
        out.push_back(in.ConsumeBytes<unsigned char>(n));
        if (out.back().empty())
            out.pop_back();
    }
    return out;
}

} // namespace zt::fuzz
