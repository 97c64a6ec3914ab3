#include "ztImageAssembler.h"

#include "platform/zt_log.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <exception>
#include <utility>

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

// r for every 16-bit value, computed once with the double-precision formula so that the
// table gives exactly its results: r = trunc((max(v, 144) - 144.0) * 255.0 / 880.0). The
// 8-bit pixel is r's low byte. r stays below 18949, so 16 bits hold it.
struct ScaleTable {
    std::uint16_t r[65536];

    ScaleTable()
    {
        for (int v = 0; v < 65536; ++v) {
            const int clamped = v < 144 ? 144 : v;
            r[v] = static_cast<std::uint16_t>(static_cast<int>((clamped - 144.0) * 255.0 / 880.0));
        }
    }
};

const std::uint16_t* scaleTable()
{
    static const ScaleTable table; // built on first use; the first use may come from any thread
    return table.r;
}

// Scales count 16-bit pixels at src (any alignment) into the bytes at dst and writes each
// r back over its source pixel.
void scale(unsigned char* src, std::size_t count, unsigned char* dst)
{
    const std::uint16_t* r = scaleTable();
    // The looked-up values go to a small local block first. Nothing else writes there, so
    // the look-ups run back to back instead of waiting behind stores to src and dst (byte
    // pointers that, for the compiler, might point into the table); the block is then
    // copied back and narrowed to bytes with wide vector instructions.
    constexpr std::size_t kBlock = 4096;
    std::uint16_t block[kBlock];
    for (std::size_t done = 0; done < count; done += kBlock) {
        const std::size_t n = std::min(kBlock, count - done);
        unsigned char* from = src + 2 * done;
        for (std::size_t i = 0; i < n; ++i) {
            std::uint16_t v;
            std::memcpy(&v, from + 2 * i, 2);
            block[i] = r[v];
        }
        std::memcpy(from, block, 2 * n);
        unsigned char* to = dst + done;
        for (std::size_t i = 0; i < n; ++i)
            to[i] = static_cast<unsigned char>(block[i]);
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
