#include "ztImageAssembler.h"

#include "platform/zt_log.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <exception>
#include <utility>

#if defined(__GNUC__) && defined(__x86_64__)
#include <immintrin.h>
#endif

namespace {

// Record layout.
constexpr std::size_t kHeaderSize = 64;
constexpr std::size_t kTimestampAt = 64;
constexpr std::size_t kWidthAt = 72;
constexpr std::size_t kHeightAt = 74;
constexpr std::size_t kPixelsAt = 76;
constexpr std::size_t kPartCountAt = 76;
constexpr std::size_t kPartsAt = 78;
constexpr std::size_t kPartHeadSize = 8;

// Records come at any alignment; the host byte order is little-endian.
template <class T>
T readAt(const char* record, std::size_t at)
{
    T value;
    std::memcpy(&value, record + at, sizeof(T));
    return value;
}

// Scales count 16-bit pixels at src (any alignment) into the bytes at dst and writes each
// r back over its source pixel, where r = trunc((max(v, 144) - 144.0) * 255.0 / 880.0) and
// the 8-bit pixel is r's low byte.
//
// The same r in 16-bit integers: with x = max(v - 144, 0), r = floor(x * 51 / 176). The
// estimate q = floor(x * 18990 / 2^16) is r or r - 1 (18990 / 2^16 falls short of 51 / 176
// by less than 2^-16 * 0.3, so the estimate is off by less than 0.3); it is r - 1 exactly
// when x * 51 - (q + 1) * 176, which lies within +-176, is below zero. Both products are
// needed only modulo 2^16 for that, so AVX2 code does it sixteen pixels at a time with no
// widening, and the conversion runs near the speed of its memory traffic; processors
// without AVX2 take the same steps one pixel at a time.
constexpr int kEstimate = 18990;

std::uint16_t scaled(std::uint16_t v)
{
    const std::uint32_t x = v > 144 ? v - 144u : 0u;
    const std::uint32_t q1 = ((x * kEstimate) >> 16) + 1;
    return static_cast<std::uint16_t>(static_cast<std::int32_t>(x * 51) < static_cast<std::int32_t>(q1 * 176) ? q1 - 1 : q1);
}

#if defined(__GNUC__) && defined(__x86_64__)
#define ZT_SCALE_AVX2 1
// Sixteen pixels: r as sixteen 16-bit lanes (-1 added where d < 0).
__attribute__((target("avx2"))) inline __m256i scaled16(__m256i v)
{
    const __m256i x = _mm256_subs_epu16(v, _mm256_set1_epi16(144));
    const __m256i q1 =
        _mm256_add_epi16(_mm256_mulhi_epu16(x, _mm256_set1_epi16(static_cast<short>(kEstimate))), _mm256_set1_epi16(1));
    const __m256i d =
        _mm256_sub_epi16(_mm256_mullo_epi16(x, _mm256_set1_epi16(51)), _mm256_mullo_epi16(q1, _mm256_set1_epi16(176)));
    return _mm256_add_epi16(q1, _mm256_srai_epi16(d, 15));
}

// Thirty-two pixels per turn; returns the pixels done.
__attribute__((target("avx2"))) std::size_t scaleAvx2(unsigned char* src, std::size_t count, unsigned char* dst)
{
    const __m256i lowByte = _mm256_set1_epi16(0x00FF);
    std::size_t i = 0;
    for (; i + 32 <= count; i += 32) {
        auto* at = reinterpret_cast<__m256i*>(src + 2 * i);
        const __m256i a = scaled16(_mm256_loadu_si256(at));
        const __m256i b = scaled16(_mm256_loadu_si256(at + 1));
        _mm256_storeu_si256(at, a);
        _mm256_storeu_si256(at + 1, b);
        // The pack works within 128-bit halves; the permute puts the bytes back in order.
        const __m256i bytes = _mm256_packus_epi16(_mm256_and_si256(a, lowByte), _mm256_and_si256(b, lowByte));
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(dst + i), _mm256_permute4x64_epi64(bytes, 0xD8));
    }
    return i;
}
#endif

void scale(unsigned char* src, std::size_t count, unsigned char* dst)
{
    std::size_t i = 0;
#if ZT_SCALE_AVX2
    static const bool avx2 = __builtin_cpu_supports("avx2");
    if (avx2)
        i = scaleAvx2(src, count, dst);
#endif
    for (; i < count; ++i) {
        std::uint16_t v;
        std::memcpy(&v, src + 2 * i, 2);
        const std::uint16_t r = scaled(v);
        std::memcpy(src + 2 * i, &r, 2);
        dst[i] = static_cast<unsigned char>(r);
    }
}

// A new rows x cols image of the first count scaled pixels of src; count <= rows x cols.
cv::Mat scaledImage(unsigned char* src, std::size_t count, int rows, int cols)
{
    cv::Mat image(rows, cols, CV_8UC1);
    scale(src, count, image.data);
    // Pixels that no source pixel fills are 0, not whatever the allocator left.
    if (image.total() > count)
        std::memset(image.data + count, 0, image.total() - count);
    return image;
}

// True (with a log line) when the record or one of the outputs is null.
bool anyNull(const char* method, const char* record, const short* width, const short* height,
             const unsigned long long* timestamp, const char* header)
{
    if (record != nullptr && width != nullptr && height != nullptr && timestamp != nullptr && header != nullptr)
        return false;
    ZTLOG_ERROR("ztImageAssembler::[%s] null record or output pointer", method);
    return true;
}

// The common course of both record conversions: checks the pointers, builds the image
// from the record's width and height with build (allocation failures logged), keeps it as
// the object's last image and fills the caller's outputs from it and the record's head.
template <class Build>
int assemble(const char* method, std::mutex& mutex, cv::Mat& last, char* record, unsigned char*& image, short* width,
             short* height, unsigned long long* timestamp, char* header, Build&& build)
{
    if (anyNull(method, record, width, height, timestamp, header))
        return -1;
    const int w = readAt<std::uint16_t>(record, kWidthAt);
    const int h = readAt<std::uint16_t>(record, kHeightAt);
    cv::Mat made;
    try {
        made = build(w, h);
    } catch (const std::exception& e) {
        ZTLOG_ERROR("ztImageAssembler::[%s] cannot allocate a %dx%d image: %s", method, w, h, e.what());
        return -1;
    }
    {
        std::lock_guard<std::mutex> lock(mutex);
        last = std::move(made);
        image = last.data;
    }
    *width = static_cast<short>(w);
    *height = static_cast<short>(h);
    *timestamp = readAt<std::uint64_t>(record, kTimestampAt);
    std::memcpy(header, record, kHeaderSize);
    return 0;
}

} // namespace

ztImageAssembler::ztImageAssembler() = default;

ztImageAssembler::~ztImageAssembler() = default;

cv::Mat ztImageAssembler::imageFormat_16To8(unsigned short* src, int count, int rows, int cols)
{
    // Counts that do not describe pixels inside the image would read or write past a buffer.
    if (count < 0 || rows < 0 || cols < 0 || static_cast<long long>(count) > static_cast<long long>(rows) * cols ||
        (src == nullptr && count > 0)) {
        ZTLOG_ERROR("ztImageAssembler::[imageFormat_16To8] invalid arguments: src %s, count %d, rows %d, cols %d",
                    src == nullptr ? "null" : "set", count, rows, cols);
        return cv::Mat();
    }
    try {
        return scaledImage(reinterpret_cast<unsigned char*>(src), static_cast<std::size_t>(count), rows, cols);
    } catch (const std::exception& e) {
        ZTLOG_ERROR("ztImageAssembler::[imageFormat_16To8] cannot allocate a %dx%d image: %s", cols, rows, e.what());
        return cv::Mat();
    }
}

void ztImageAssembler::MergePart2Complete(cv::Mat* full, unsigned char* part, int x, int y, int partWidth, int partRows)
{
    if (partRows < 1)
        return;
    // Rows are placed with the image's column count as pitch, which only a continuous
    // 8-bit single-channel image has.
    if (full == nullptr || full->type() != CV_8UC1 || !full->isContinuous()) {
        ZTLOG_ERROR("ztImageAssembler::[MergePart2Complete] the image is not a continuous 8-bit single-channel image");
        return;
    }
    if (part == nullptr) {
        ZTLOG_ERROR("ztImageAssembler::[MergePart2Complete] null part");
        return;
    }
    // A block reaching outside the image would write past its pixels.
    if (x < 0 || y < 0 || partWidth < 0 || static_cast<long long>(x) + partWidth > full->cols ||
        static_cast<long long>(y) + partRows > full->rows) {
        ZTLOG_ERROR("ztImageAssembler::[MergePart2Complete] a %dx%d part at (%d, %d) does not fit the %dx%d image",
                    partWidth, partRows, x, y, full->cols, full->rows);
        return;
    }
    const std::size_t pitch = static_cast<std::size_t>(full->cols);
    for (int row = 0; row < partRows; ++row) {
        std::memcpy(full->data + (static_cast<std::size_t>(y) + row) * pitch + x, part, static_cast<std::size_t>(partWidth));
        part += partWidth;
    }
}

int ztImageAssembler::getOriImageData(char* record, unsigned char*& image, short* width, short* height,
                                      unsigned long long* timestamp, char* header)
{
    return assemble("getOriImageData", m_imageMutex, m_image, record, image, width, height, timestamp, header,
                    [record](int w, int h) {
                        // As imageFormat_16To8(record + 76, w x h, h, w), without its int pixel
                        // count, which 65535 x 65535 would overflow.
                        return scaledImage(reinterpret_cast<unsigned char*>(record + kPixelsAt),
                                           static_cast<std::size_t>(w) * static_cast<std::size_t>(h), h, w);
                    });
}

int ztImageAssembler::getCutoutImageData(char* record, unsigned char*& image, short* width, short* height,
                                         unsigned long long* timestamp, char* header)
{
    return assemble("getCutoutImageData", m_imageMutex, m_image, record, image, width, height, timestamp, header,
                    [this, record](int w, int h) {
                        // Zeroed: pixels that no part covers read as 0.
                        cv::Mat assembled = cv::Mat::zeros(h, w, CV_8UC1);
                        const int parts = readAt<std::uint16_t>(record, kPartCountAt);
                        char* part = record + kPartsAt;
                        for (int i = 0; i < parts; ++i) {
                            const int x = readAt<std::uint16_t>(part, 0);
                            const int y = readAt<std::uint16_t>(part, 2);
                            const int partWidth = readAt<std::uint16_t>(part, 4);
                            const int partRows = readAt<std::uint16_t>(part, 6);
                            // A part is pasted only when it ends strictly inside the image
                            // (which puts its corner inside too); one that reaches the right
                            // or bottom edge exactly is skipped.
                            if (x + partWidth < w && y + partRows < h)
                                MergePart2Complete(&assembled, reinterpret_cast<unsigned char*>(part + kPartHeadSize), x,
                                                   y, partWidth, partRows);
                            part += kPartHeadSize + static_cast<std::size_t>(partWidth) * static_cast<std::size_t>(partRows);
                        }
                        return assembled;
                    });
}
