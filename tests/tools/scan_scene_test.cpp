// The scene the simulated heads stream, scaled to 8 bits as an application sees it.
#include "frame_record.h"
#include "ztImageAssembler.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>
#include <vector>

namespace {

// Laser cores at full brightness, white marker dots in black rings, a dark floor under
// most of the picture, and across the middle row the lines over the dome closer together
// than over the floor.
TEST(ScanScene, LinesBendOverTheDomeAndMarkersShow)
{
    const int w = 1280, h = 1024, total = w * h;
    std::vector<char> record = zt::tools::scanRecord(w, h, 1);
    ztImageAssembler assembler;
    unsigned char* pixels = nullptr;
    short width = 0, height = 0;
    unsigned long long stamp = 0;
    char header[64];
    ASSERT_EQ(assembler.getOriImageData(record.data(), pixels, &width, &height, &stamp, header), 0);
    ASSERT_EQ(width * height, total);
    std::vector<int> count(256, 0);
    for (int i = 0; i < total; ++i)
        ++count[pixels[i]];
    EXPECT_GT(count[255], total / 200);
    EXPECT_LT(count[255], total / 10);
    EXPECT_GT(count[235], 3000);
    EXPECT_GT(count[6], 3000);
    EXPECT_GT(std::accumulate(count.begin(), count.begin() + 40, 0), total * 4 / 10);

    const unsigned char* mid = pixels + static_cast<std::ptrdiff_t>(h / 2) * w;
    std::vector<int> starts;
    for (int x = 1; x < w; ++x)
        if (mid[x] == 255 && mid[x - 1] != 255)
            starts.push_back(x);
    ASSERT_GE(starts.size(), 6u);
    std::vector<int> gaps(starts.size());
    std::adjacent_difference(starts.begin(), starts.end(), gaps.begin());
    gaps.erase(gaps.begin());
    EXPECT_LT(*std::min_element(gaps.begin(), gaps.end()) * 10, *std::max_element(gaps.begin(), gaps.end()) * 8);
}

} // namespace
