#include "support/log_capture.h"
#include "ztImageAssembler.h"

#include <gtest/gtest.h>

#include <opencv2/core.hpp>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace {

// The scaling rule written out one pixel at a time in double precision.
int formula(int v)
{
    return static_cast<int>((std::max(v, 144) - 144.0) * 255.0 / 880.0);
}

// Error lines that contain part.
int logged(const zt::test::LogCapture& log, const std::string& part)
{
    int n = 0;
    for (const auto& line : log.lines())
        n += line.level == ZTLOG_LEVEL_ERROR && line.text.find(part) != std::string::npos;
    return n;
}

// A record built byte by byte, little-endian, at an odd address so that nothing in it is
// aligned: 64 header bytes, timestamp, width, height, then 16-bit pixels or parts.
class Record {
public:
    Record(std::uint64_t timestamp, std::uint16_t width, std::uint16_t height) : m_bytes(1, '\0')
    {
        for (int i = 0; i < 64; ++i)
            m_bytes.push_back(static_cast<char>(0x40 + i));
        put(timestamp, 8).put(width, 2).put(height, 2);
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
enum Kind { Full, Cutout };
int convert(ztImageAssembler& a, Kind kind, Record& rec, Outputs& out)
{
    return kind == Full ? a.getOriImageData(rec.data(), out.image, &out.width, &out.height, &out.timestamp, out.header)
                        : a.getCutoutImageData(rec.data(), out.image, &out.width, &out.height, &out.timestamp, out.header);
}

} // namespace

// Every 16-bit value against the formula (black below 144, 255 up to 1027, then the byte
// wraps), in the image and rewritten into the source: by the vector code in one image, and
// in runs of 31 pixels (shorter than one vector turn) by the one-pixel code. Only count
// pixels are converted: the rest of the image is 0 and of the source untouched.
TEST(ImageAssembler, ScalesExactlyTheCountedPixels)
{
    ztImageAssembler a;
    for (const int run : {65536, 31}) {
        std::vector<unsigned short> src(65536);
        for (int v = 0; v < 65536; ++v)
            src[v] = static_cast<unsigned short>(v);
        for (int start = 0; start < 65536; start += run) {
            const int n = std::min(run, 65536 - start);
            const cv::Mat image = a.imageFormat_16To8(src.data() + start, n, n / 256 + (n < 256), std::min(n, 256));
            ASSERT_EQ(image.type(), CV_8UC1);
            ASSERT_TRUE(image.isContinuous());
            for (int i = 0; i < n; ++i)
                ASSERT_EQ(image.data[i], static_cast<unsigned char>(formula(start + i))) << start + i;
        }
        for (int v = 0; v < 65536; ++v)
            ASSERT_EQ(src[v], formula(v)) << v;
        EXPECT_EQ(std::vector<int>({src[143], src[1027], src[1028], src[65535]}), std::vector<int>({0, 255, 256, 18948}));
    }

    const int rows = 61, cols = 173;
    for (int count : {0, 1, 3, 17, 4097, 10001}) {
        std::vector<unsigned short> original(rows * cols);
        for (std::size_t i = 0; i < original.size(); ++i)
            original[i] = static_cast<unsigned short>((i * 2654435761u + static_cast<unsigned>(count)) >> 13);
        std::vector<unsigned short> part = original;
        const cv::Mat made = a.imageFormat_16To8(part.data(), count, rows, cols);
        ASSERT_EQ(made.size(), cv::Size(cols, rows));
        for (int i = 0; i < rows * cols; ++i) {
            ASSERT_EQ(part[i], i < count ? formula(original[i]) : original[i]) << count << " " << i;
            ASSERT_EQ(made.data[i], i < count ? static_cast<unsigned char>(formula(original[i])) : 0) << count << " " << i;
        }
    }
    EXPECT_EQ(cv::countNonZero(a.imageFormat_16To8(nullptr, 0, 2, 3)), 0);

    // Counts outside the image: an empty image, a line, the source untouched.
    std::vector<unsigned short> four(16, 2000);
    const struct {
        unsigned short* src;
        int count, rows, cols;
    } bad[] = {{nullptr, 1, 4, 4}, {four.data(), -1, 4, 4}, {four.data(), 13, 3, 4}, {four.data(), 0, -1, 4}, {four.data(), 0, 4, -1}};
    zt::test::LogCapture log;
    for (const auto& b : bad)
        EXPECT_TRUE(a.imageFormat_16To8(b.src, b.count, b.rows, b.cols).empty()) << b.count << " " << b.rows << " " << b.cols;
    EXPECT_EQ(logged(log, "ztImageAssembler::[imageFormat_16To8]"), 5);
    EXPECT_EQ(std::count(four.begin(), four.end(), 2000), 16);
}

TEST(ImageAssembler, MergePastesInsideTheImageOnly)
{
    ztImageAssembler a;
    cv::Mat full = cv::Mat::zeros(5, 6, CV_8UC1);
    unsigned char part[] = {1, 2, 3, 4, 5, 6};
    a.MergePart2Complete(&full, part, 2, 1, 3, 2);
    a.MergePart2Complete(&full, part, 4, 4, 2, 1);                // touching the right edge: allowed here
    a.MergePart2Complete(&full, nullptr, -5, -5, 100, 0);         // no rows: nothing, whatever else
    const unsigned char expected[5][6] = {
        {0, 0, 0, 0, 0, 0}, {0, 0, 1, 2, 3, 0}, {0, 0, 4, 5, 6, 0}, {0, 0, 0, 0, 0, 0}, {0, 0, 0, 0, 1, 2}};
    EXPECT_EQ(cv::countNonZero(full != cv::Mat(5, 6, CV_8UC1, const_cast<unsigned char*>(&expected[0][0]))), 0);

    // Parts reaching outside, a null part, and images whose rows are not cols bytes apart
    // (a view into a wider image, 16-bit pixels, none at all) are refused with a line.
    const cv::Mat before = full.clone();
    zt::test::LogCapture log;
    unsigned char nines[8] = {9, 9, 9, 9, 9, 9, 9, 9};
    const struct {
        int x, y, w, h;
    } outside[] = {{4, 0, 3, 1}, {0, 4, 1, 2}, {-1, 0, 1, 1}, {0, -1, 1, 1}, {0, 0, -1, 1}, {6, 0, 1, 1}};
    for (const auto& o : outside)
        a.MergePart2Complete(&full, nines, o.x, o.y, o.w, o.h);
    EXPECT_EQ(logged(log, "ztImageAssembler::[MergePart2Complete] a "), 6);
    a.MergePart2Complete(&full, nullptr, 0, 0, 1, 1);
    EXPECT_EQ(logged(log, "ztImageAssembler::[MergePart2Complete] null part"), 1);
    EXPECT_EQ(cv::countNonZero(full != before), 0);
    cv::Mat wide = cv::Mat::zeros(4, 8, CV_8UC1);
    cv::Mat view = wide(cv::Rect(1, 1, 4, 2));
    cv::Mat deep = cv::Mat::zeros(4, 4, CV_16UC1);
    for (cv::Mat* target : {&view, &deep, static_cast<cv::Mat*>(nullptr)})
        a.MergePart2Complete(target, part, 0, 0, 2, 2);
    EXPECT_EQ(logged(log, "ztImageAssembler::[MergePart2Complete] the image is not"), 3);
    EXPECT_EQ(cv::countNonZero(wide) + cv::countNonZero(deep), 0);
}

// Both record forms: the head copied out, the full frame scaled in place, the cut-out's
// parts pasted when they end strictly inside the image and black elsewhere (even over
// freed memory full of bytes). An image lives until the next call on the same object.
TEST(ImageAssembler, RecordsFullAndCutout)
{
    const std::uint16_t pixels[] = {0, 143, 144, 1024, 1027, 1028, 1200, 65535, 500, 880, 1, 2, 3, 4000, 999};
    Record full(0xFEDCBA9876543210ull, 5, 3);
    for (std::uint16_t p : pixels)
        full.u16(p);
    ztImageAssembler a, b;
    Outputs out;
    ASSERT_EQ(convert(a, Full, full, out), 0);
    EXPECT_EQ(out.timestamp, 0xFEDCBA9876543210ull);
    EXPECT_EQ(out.width * 100 + out.height, 503);
    for (int i = 0; i < 64; ++i)
        ASSERT_EQ(out.header[i], static_cast<char>(0x40 + i)) << i;
    for (int i = 0; i < 15; ++i) {
        EXPECT_EQ(out.image[i], static_cast<unsigned char>(formula(pixels[i]))) << i;
        EXPECT_EQ(full.pixel(i), formula(pixels[i])) << i;
    }
    const std::vector<unsigned char> first(out.image, out.image + 15);

    Record cut(99, 10, 6);
    cut.u16(5).part(0, 0, 10, 1, 0xA0).part(0, 1, 9, 2, 10).part(3, 4, 2, 1, 50).part(5, 5, 1, 1, 0xB0).part(8, 3, 1, 1, 60);
    unsigned char expected[6][10] = {};
    for (int i = 0; i < 18; ++i)
        expected[1 + i / 9][i % 9] = static_cast<unsigned char>(10 + i);
    expected[4][3] = 50;
    expected[4][4] = 51;
    expected[3][8] = 60;
    Record black(98, 64, 48);
    black.u16(0);
    Outputs other;
    for (int i = 0; i < 20; ++i) {
        {
            cv::Mat dirty(48, 64, CV_8UC1, cv::Scalar(0xFF)); // freed memory of the image's size, not zero
        }
        ASSERT_EQ(convert(b, Cutout, black, other), 0);
        ASSERT_EQ(std::count(other.image, other.image + 64 * 48, 0), 64 * 48);
        ASSERT_EQ(convert(b, Cutout, cut, other), 0);
        ASSERT_TRUE(std::equal(other.image, other.image + 60, &expected[0][0]));
    }
    EXPECT_EQ(other.timestamp, 99u);
    EXPECT_EQ(other.width * 100 + other.height, 1006);
    EXPECT_TRUE(std::equal(first.begin(), first.end(), out.image)); // b's calls left a's image alone
    ASSERT_EQ(convert(a, Cutout, cut, out), 0);
    EXPECT_EQ(out.image[10], 10);
    // More than 255 parts, some beyond column 255: the count and the positions are 16 bits.
    Record many(97, 400, 2);
    many.u16(300);
    for (int x = 0; x < 300; ++x)
        many.part(x, 0, 1, 1, static_cast<unsigned char>(x + 1));
    ASSERT_EQ(convert(a, Cutout, many, out), 0);
    for (int x = 0; x < 800; ++x)
        ASSERT_EQ(out.image[x], x < 300 ? static_cast<unsigned char>(x + 1) : 0) << x;

    // A null record or output fails without touching the outputs.
    zt::test::LogCapture log;
    Outputs none;
    EXPECT_EQ(a.getOriImageData(nullptr, none.image, &none.width, &none.height, &none.timestamp, none.header), -1);
    EXPECT_EQ(a.getCutoutImageData(cut.data(), none.image, &none.width, &none.height, &none.timestamp, nullptr), -1);
    EXPECT_EQ(none.image, nullptr);
    EXPECT_EQ(none.width, -7);
    EXPECT_EQ(log.count("ztImageAssembler::[getOriImageData] null record or output pointer"), 1);
    EXPECT_EQ(log.count("ztImageAssembler::[getCutoutImageData] null record or output pointer"), 1);
}
