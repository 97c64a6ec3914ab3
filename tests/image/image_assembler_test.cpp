#include "support/log_capture.h"
#include "ztImageAssembler.h"

#include <gtest/gtest.h>

#include <opencv2/core.hpp>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

// The scaling rule written out one pixel at a time in double precision.
int formula(int v)
{
    if (v < 144)
        v = 144;
    return static_cast<int>((v - 144.0) * 255.0 / 880.0);
}

std::vector<unsigned short> noise(std::size_t n, unsigned seed)
{
    std::vector<unsigned short> v(n);
    for (auto& x : v) {
        seed = seed * 1664525u + 1013904223u;
        x = static_cast<unsigned short>(seed >> 16);
    }
    return v;
}

bool logged(const zt::test::LogCapture& log, const std::string& part)
{
    for (const auto& line : log.lines())
        if (line.level == ZTLOG_LEVEL_ERROR && line.text.find(part) != std::string::npos)
            return true;
    return false;
}

// Builds records byte by byte, little-endian, at an odd address so that nothing in them
// is aligned.
class Record {
public:
    Record() : m_bytes(1, '\0') {}

    Record& head(std::uint64_t timestamp, std::uint16_t width, std::uint16_t height)
    {
        for (int i = 0; i < 64; ++i)
            m_bytes.push_back(static_cast<char>(0x40 + i));
        put(timestamp, 8).put(width, 2).put(height, 2);
        return *this;
    }
    Record& u16(std::uint16_t v) { return put(v, 2); }
    Record& part(int x, int y, int w, int h, unsigned char first)
    {
        put(static_cast<std::uint64_t>(x), 2).put(static_cast<std::uint64_t>(y), 2);
        put(static_cast<std::uint64_t>(w), 2).put(static_cast<std::uint64_t>(h), 2);
        for (int i = 0; i < w * h; ++i)
            m_bytes.push_back(static_cast<char>(first + i));
        return *this;
    }
    char* data() { return m_bytes.data() + 1; }
    // The 16-bit pixel at index i of a full frame.
    std::uint16_t pixel(int i) const
    {
        std::uint16_t v;
        std::memcpy(&v, m_bytes.data() + 1 + 76 + 2 * i, 2);
        return v;
    }

private:
    Record& put(std::uint64_t v, int width)
    {
        for (int i = 0; i < width; ++i)
            m_bytes.push_back(static_cast<char>(v >> (8 * i)));
        return *this;
    }

    std::vector<char> m_bytes;
};

struct Outputs {
    unsigned char* image = nullptr;
    short width = -7;
    short height = -7;
    unsigned long long timestamp = 7;
    char header[64] = {};
};

void expectHead(const Outputs& out, std::uint64_t timestamp, short width, short height)
{
    EXPECT_EQ(out.timestamp, timestamp);
    EXPECT_EQ(out.width, width);
    EXPECT_EQ(out.height, height);
    for (int i = 0; i < 64; ++i)
        ASSERT_EQ(out.header[i], static_cast<char>(0x40 + i)) << "header byte " << i;
}

// Every allocation fails, as when memory runs out.
class FailingAllocator : public cv::MatAllocator {
public:
    cv::UMatData* allocate(int, const int*, int, void*, size_t*, cv::AccessFlag, cv::UMatUsageFlags) const override
    {
        CV_Error(cv::Error::StsNoMem, "no memory in this test");
    }
    bool allocate(cv::UMatData*, cv::AccessFlag, cv::UMatUsageFlags) const override { return false; }
    void deallocate(cv::UMatData*) const override {}
};

} // namespace

TEST(ImageAssembler, ScalesEveryValueExactlyAndRewritesTheSource)
{
    std::vector<unsigned short> src(65536);
    for (int v = 0; v < 65536; ++v)
        src[v] = static_cast<unsigned short>(v);
    ztImageAssembler a;
    const cv::Mat image = a.imageFormat_16To8(src.data(), 65536, 256, 256);
    ASSERT_EQ(image.type(), CV_8UC1);
    ASSERT_EQ(image.rows, 256);
    ASSERT_EQ(image.cols, 256);
    ASSERT_TRUE(image.isContinuous());
    for (int v = 0; v < 65536; ++v) {
        ASSERT_EQ(src[v], formula(v)) << "source rewritten for " << v;
        ASSERT_EQ(image.data[v], static_cast<unsigned char>(formula(v))) << "output byte for " << v;
    }
    // Black below 144, 255 up to 1027, then r keeps growing and the byte wraps.
    const struct {
        int v, r, byte;
    } fixed[] = {{0, 0, 0},       {143, 0, 0},      {144, 0, 0},     {1024, 255, 255},   {1025, 255, 255},
                 {1027, 255, 255}, {1028, 256, 0}, {1200, 306, 50}, {65535, 18948, 4}};
    for (const auto& f : fixed) {
        EXPECT_EQ(src[f.v], f.r) << f.v;
        EXPECT_EQ(image.data[f.v], f.byte) << f.v;
    }
}

TEST(ImageAssembler, ConvertsOnlyCountPixelsAndZeroesTheRest)
{
    ztImageAssembler a;
    // Counts around the converter's 4096-pixel blocks, odd ones included.
    for (int count : {0, 1, 3, 4095, 4096, 4097, 10001}) {
        const int rows = 61, cols = 173; // 10553 pixels
        const std::vector<unsigned short> original = noise(rows * cols, static_cast<unsigned>(count));
        std::vector<unsigned short> src = original;
        const cv::Mat image = a.imageFormat_16To8(src.data(), count, rows, cols);
        ASSERT_EQ(image.rows, rows);
        ASSERT_EQ(image.cols, cols);
        for (int i = 0; i < rows * cols; ++i) {
            if (i < count) {
                ASSERT_EQ(src[i], formula(original[i])) << "count " << count << " pixel " << i;
                ASSERT_EQ(image.data[i], static_cast<unsigned char>(formula(original[i]))) << "count " << count << " pixel " << i;
            } else {
                ASSERT_EQ(src[i], original[i]) << "count " << count << " pixel " << i << " must stay untouched";
                ASSERT_EQ(image.data[i], 0) << "count " << count << " pixel " << i;
            }
        }
    }
    // No pixels at all: a null source is fine.
    const cv::Mat blank = a.imageFormat_16To8(nullptr, 0, 2, 3);
    ASSERT_EQ(blank.total(), 6u);
    EXPECT_EQ(cv::countNonZero(blank), 0);
}

TEST(ImageAssembler, RefusesCountsOutsideTheImage)
{
    ztImageAssembler a;
    std::vector<unsigned short> src(16, 2000);
    const struct {
        unsigned short* src;
        int count, rows, cols;
    } bad[] = {{nullptr, 1, 4, 4}, {src.data(), -1, 4, 4}, {src.data(), 13, 3, 4},
               {src.data(), 0, -1, 4}, {src.data(), 0, 4, -1}};
    for (const auto& b : bad) {
        zt::test::LogCapture log;
        const cv::Mat image = a.imageFormat_16To8(b.src, b.count, b.rows, b.cols);
        EXPECT_TRUE(image.empty()) << b.count << " " << b.rows << " " << b.cols;
        EXPECT_TRUE(logged(log, "ztImageAssembler::[imageFormat_16To8]"));
    }
    EXPECT_EQ(std::count(src.begin(), src.end(), 2000), 16);
}

TEST(ImageAssembler, MergePastesInsideTheImageOnly)
{
    ztImageAssembler a;
    cv::Mat full = cv::Mat::zeros(5, 6, CV_8UC1);
    unsigned char part[] = {1, 2, 3, 4, 5, 6};
    a.MergePart2Complete(&full, part, 2, 1, 3, 2);
    // The block touches the right edge: allowed here.
    a.MergePart2Complete(&full, part, 4, 4, 2, 1);
    // partRows below 1 copies nothing, whatever else is passed.
    a.MergePart2Complete(&full, nullptr, -5, -5, 100, 0);
    const unsigned char expected[5][6] = {
        {0, 0, 0, 0, 0, 0}, {0, 0, 1, 2, 3, 0}, {0, 0, 4, 5, 6, 0}, {0, 0, 0, 0, 0, 0}, {0, 0, 0, 0, 1, 2}};
    for (int r = 0; r < 5; ++r)
        for (int c = 0; c < 6; ++c)
            EXPECT_EQ(full.at<unsigned char>(r, c), expected[r][c]) << r << "," << c;

    const cv::Mat before = full.clone();
    const struct {
        int x, y, w, h;
    } outside[] = {{4, 0, 3, 1}, {0, 4, 1, 2}, {-1, 0, 1, 1}, {0, -1, 1, 1}, {0, 0, -1, 1}, {6, 0, 1, 1}};
    for (const auto& o : outside) {
        zt::test::LogCapture log;
        unsigned char big[8] = {9, 9, 9, 9, 9, 9, 9, 9};
        a.MergePart2Complete(&full, big, o.x, o.y, o.w, o.h);
        EXPECT_TRUE(logged(log, "ztImageAssembler::[MergePart2Complete]")) << o.x << "," << o.y;
    }
    {
        zt::test::LogCapture log;
        a.MergePart2Complete(&full, nullptr, 0, 0, 1, 1);
        EXPECT_TRUE(logged(log, "ztImageAssembler::[MergePart2Complete] null part"));
    }
    EXPECT_EQ(cv::countNonZero(full != before), 0);

    // Images whose rows are not cols bytes apart are refused: a view into a wider image,
    // a 16-bit image, no image.
    cv::Mat wide = cv::Mat::zeros(4, 8, CV_8UC1);
    cv::Mat view = wide(cv::Rect(1, 1, 4, 2));
    cv::Mat deep = cv::Mat::zeros(4, 4, CV_16UC1);
    for (cv::Mat* target : {&view, &deep, static_cast<cv::Mat*>(nullptr)}) {
        zt::test::LogCapture log;
        a.MergePart2Complete(target, part, 0, 0, 2, 2);
        EXPECT_TRUE(logged(log, "ztImageAssembler::[MergePart2Complete] the image is not"));
    }
    EXPECT_EQ(cv::countNonZero(wide), 0);
    EXPECT_EQ(cv::countNonZero(deep), 0);
}

TEST(ImageAssembler, CutoutPastesPartsThatEndInsideTheImage)
{
    const int width = 10, height = 6;
    Record rec;
    rec.head(0x0102030405060708ull, width, height).u16(5);
    rec.part(0, 0, width, 1, 0xA0);      // full width: ends on the right edge, skipped
    rec.part(0, 1, width - 1, 2, 10);    // one short of the edge: pasted
    rec.part(3, 4, 2, 1, 50);            // pasted
    rec.part(5, 5, 1, 1, 0xB0);          // ends on the bottom edge: skipped
    rec.part(8, 3, 1, 1, 60);            // pasted, read after the skipped ones
    ztImageAssembler a;
    Outputs out;
    ASSERT_EQ(a.getCutoutImageData(rec.data(), out.image, &out.width, &out.height, &out.timestamp, out.header), 0);
    expectHead(out, 0x0102030405060708ull, width, height);
    ASSERT_NE(out.image, nullptr);

    unsigned char expected[height][width] = {};
    for (int r = 0; r < 2; ++r)
        for (int c = 0; c < width - 1; ++c)
            expected[1 + r][c] = static_cast<unsigned char>(10 + r * (width - 1) + c);
    expected[4][3] = 50;
    expected[4][4] = 51;
    expected[3][8] = 60;
    for (int r = 0; r < height; ++r)
        for (int c = 0; c < width; ++c)
            EXPECT_EQ(out.image[r * width + c], expected[r][c]) << r << "," << c;
}

TEST(ImageAssembler, CutoutWithoutPartsIsBlack)
{
    const int width = 64, height = 48;
    {
        // Leaves freed memory of the image's size full of non-zero bytes.
        cv::Mat dirty(height, width, CV_8UC1, cv::Scalar(0xFF));
    }
    Record rec;
    rec.head(99, width, height).u16(0);
    ztImageAssembler a;
    Outputs out;
    ASSERT_EQ(a.getCutoutImageData(rec.data(), out.image, &out.width, &out.height, &out.timestamp, out.header), 0);
    expectHead(out, 99, width, height);
    ASSERT_NE(out.image, nullptr);
    EXPECT_EQ(std::count(out.image, out.image + width * height, 0), width * height);
}

TEST(ImageAssembler, FullFrameIsScaledInPlace)
{
    const int width = 5, height = 3;
    const std::uint16_t pixels[] = {0, 143, 144, 1024, 1027, 1028, 1200, 65535, 500, 880, 1, 2, 3, 4000, 999};
    Record rec;
    rec.head(0xFEDCBA9876543210ull, width, height);
    for (std::uint16_t p : pixels)
        rec.u16(p);
    ztImageAssembler a;
    Outputs out;
    ASSERT_EQ(a.getOriImageData(rec.data(), out.image, &out.width, &out.height, &out.timestamp, out.header), 0);
    expectHead(out, 0xFEDCBA9876543210ull, width, height);
    ASSERT_NE(out.image, nullptr);
    for (int i = 0; i < width * height; ++i) {
        EXPECT_EQ(out.image[i], static_cast<unsigned char>(formula(pixels[i]))) << i;
        EXPECT_EQ(rec.pixel(i), formula(pixels[i])) << i;
    }
}

TEST(ImageAssembler, ImageLivesUntilTheNextCallOnTheSameObject)
{
    Record rec;
    rec.head(5, 4, 2);
    for (int i = 0; i < 8; ++i)
        rec.u16(static_cast<std::uint16_t>(144 + 100 * i));
    ztImageAssembler a, b;
    Outputs first;
    ASSERT_EQ(a.getOriImageData(rec.data(), first.image, &first.width, &first.height, &first.timestamp, first.header), 0);
    const std::vector<unsigned char> seen(first.image, first.image + 8);
    EXPECT_EQ(seen[7], formula(844));

    // Another object's calls (and the images they make and free) leave the image alone.
    Record other;
    other.head(6, 3, 3).u16(1).part(0, 0, 2, 2, 200);
    Outputs second;
    for (int i = 0; i < 20; ++i) {
        ASSERT_EQ(b.getCutoutImageData(other.data(), second.image, &second.width, &second.height, &second.timestamp,
                                       second.header),
                  0);
    }
    EXPECT_TRUE(std::equal(seen.begin(), seen.end(), first.image));

    // The next call on the same object hands out its own image.
    ASSERT_EQ(a.getCutoutImageData(other.data(), second.image, &second.width, &second.height, &second.timestamp,
                                   second.header),
              0);
    EXPECT_EQ(second.image[0], 200);
    EXPECT_EQ(second.image[4], 203);
    EXPECT_EQ(second.width, 3);
}

TEST(ImageAssembler, ConcurrentCallsOnOneObject)
{
    // Each thread converts records of its own; they share only the assembler, whose
    // hand-over of the last image must not race.
    ztImageAssembler a;
    std::vector<std::thread> threads;
    std::vector<int> failures(4, 0);
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&a, &failures, t] {
            for (int i = 0; i < 200; ++i) {
                Record rec;
                rec.head(static_cast<std::uint64_t>(t), static_cast<std::uint16_t>(8 + t), 4);
                for (int p = 0; p < (8 + t) * 4; ++p)
                    rec.u16(static_cast<std::uint16_t>(1000 + p));
                Outputs out;
                const int rc = a.getOriImageData(rec.data(), out.image, &out.width, &out.height, &out.timestamp, out.header);
                if (rc != 0 || out.width != 8 + t || out.timestamp != static_cast<unsigned long long>(t) ||
                    rec.pixel(3) != formula(1003))
                    ++failures[t];
            }
        });
    }
    for (auto& th : threads)
        th.join();
    EXPECT_EQ(failures, std::vector<int>(4, 0));
}

TEST(ImageAssembler, AllocationFailureIsReportedNotThrown)
{
    FailingAllocator failing;
    cv::MatAllocator* saved = cv::Mat::getDefaultAllocator();
    cv::Mat::setDefaultAllocator(&failing);
    zt::test::LogCapture log;
    ztImageAssembler a;
    std::vector<unsigned short> src(4, 1200);
    const cv::Mat image = a.imageFormat_16To8(src.data(), 4, 2, 2);

    Record full;
    full.head(1, 2, 2);
    for (int i = 0; i < 4; ++i)
        full.u16(1200);
    Record cut;
    cut.head(1, 2, 2).u16(0);
    Outputs out;
    const int fullResult = a.getOriImageData(full.data(), out.image, &out.width, &out.height, &out.timestamp, out.header);
    const int cutResult = a.getCutoutImageData(cut.data(), out.image, &out.width, &out.height, &out.timestamp, out.header);
    cv::Mat::setDefaultAllocator(saved);

    EXPECT_TRUE(image.empty());
    EXPECT_EQ(fullResult, -1);
    EXPECT_EQ(cutResult, -1);
    EXPECT_EQ(out.image, nullptr);
    EXPECT_EQ(out.width, -7);
    EXPECT_TRUE(logged(log, "ztImageAssembler::[imageFormat_16To8] cannot allocate"));
    EXPECT_TRUE(logged(log, "ztImageAssembler::[getOriImageData] cannot allocate"));
    EXPECT_TRUE(logged(log, "ztImageAssembler::[getCutoutImageData] cannot allocate"));
}

TEST(ImageAssembler, NullRecordOrOutputsFail)
{
    Record rec;
    rec.head(1, 1, 1).u16(0);
    ztImageAssembler a;
    Outputs out;
    zt::test::LogCapture log;
    EXPECT_EQ(a.getOriImageData(nullptr, out.image, &out.width, &out.height, &out.timestamp, out.header), -1);
    EXPECT_EQ(a.getCutoutImageData(rec.data(), out.image, &out.width, &out.height, &out.timestamp, nullptr), -1);
    EXPECT_EQ(out.image, nullptr);
    EXPECT_EQ(out.width, -7);
    EXPECT_EQ(log.count("ztImageAssembler::[getOriImageData] null record or output pointer"), 1);
    EXPECT_EQ(log.count("ztImageAssembler::[getCutoutImageData] null record or output pointer"), 1);
}
