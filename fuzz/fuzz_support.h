// What the fuzz targets share: a property check that keeps the input, a table row picked
// by the input, and a stream split into receives of input-chosen sizes. Every target links
// fuzz_support.cpp, which turns logging off and runs the target's setUp, if it has one,
// before the first input.
#pragma once

#include <fuzzer/FuzzedDataProvider.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace zt::fuzz {

// Defined by a target with something to make once: runs before libFuzzer starts threads
// of its own (a private network namespace can only be entered before).
[[gnu::weak]] void setUp();

// Stops the run with the reason when a property of the code under test does not hold;
// libFuzzer keeps the input that got here.
inline void check(bool ok, const char* what)
{
    if (!ok) {
        std::fprintf(stderr, "fuzz property broken: %s\n", what);
        std::abort();
    }
}

template <class T, std::size_t N>
const T& pick(FuzzedDataProvider& in, const T (&rows)[N])
{
    return rows[in.ConsumeIntegralInRange<std::size_t>(0, N - 1)];
}

// The rest of the provider's bytes in pieces whose lengths the input picks, as a stream
// arrives in receives of any size. Each piece is a heap copy of its own, so that a read
// past a piece's end is seen by the address sanitizer.
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

// Frames the rest of the input twice with framers from make(): receive by receive, and in
// one piece. drain(framer, seen) takes every whole message out, adds its bytes to seen and
// tells whether the framer dropped what it held. Unless a drop made the outcome depend on
// how much had arrived, where the receives end must not change the messages or the rest.
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
    check(dropped || (a == b && chunked.size() == once.size()), "the receives' boundaries changed the messages");
}

} // namespace zt::fuzz
