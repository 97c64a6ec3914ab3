// Pieces shared by the fuzz targets.
#pragma once

#include "ztLog.h"

#include <fuzzer/FuzzedDataProvider.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
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

// Frames the rest of the input, split into receives of input-chosen sizes, once receive by
// receive and once in one piece. drain(framer, seen) takes every whole message out, adds
// what it saw to seen and tells whether the framer dropped what it held. Unless a drop made
// the outcome depend on how much had arrived, where the receives end must not change the
// messages or the bytes left.
template <class Make, class Drain>
void framingAgrees(FuzzedDataProvider& in, std::size_t maxChunk, Make make, Drain drain)
{
    auto chunked = make();
    auto once = make();
    std::string a, b;
    bool dropped = false;
    std::vector<unsigned char> whole;
    for (const auto& p : chunks(in, maxChunk)) {
        chunked.append(p.data(), p.size());
        dropped = drain(chunked, a) || dropped;
        whole.insert(whole.end(), p.begin(), p.end());
    }
    once.append(whole.data(), whole.size());
    dropped = drain(once, b) || dropped;
    if (!dropped) {
        check(a == b, "the receives' boundaries changed the messages");
        check(chunked.size() == once.size(), "the receives' boundaries changed what is left");
    }
}

} // namespace zt::fuzz
