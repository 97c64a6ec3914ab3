#include "frame_record.h"

#include "ztImageAssembler.h"

#include <opencv2/imgcodecs.hpp>

#include <cstdint>
#include <cstring>

namespace zt::tools {

namespace {

constexpr std::size_t kStampAt = 64;
constexpr std::size_t kWidthAt = 72;
constexpr std::size_t kHeightAt = 74;
// 16-bit values from 144 to 1024 scale to 8-bit 0 to 255.
constexpr unsigned kDark = 144;
constexpr unsigned kSpan = 880;

} // namespace

std::vector<char> gradientRecord(unsigned short width, unsigned short height, unsigned long long stamp)
{
    std::vector<char> record(kRecordHeaderSize + std::size_t{width} * height * 2);
    std::memcpy(record.data() + kStampAt, &stamp, 8);
    std::memcpy(record.data() + kWidthAt, &width, 2);
    std::memcpy(record.data() + kHeightAt, &height, 2);
    const unsigned diagonal = width + height > 2 ? width + height - 2u : 1u;
    char* pixel = record.data() + kRecordHeaderSize;
    for (unsigned y = 0; y < height; ++y)
        for (unsigned x = 0; x < width; ++x, pixel += 2) {
            const bool edge = x == 0 || y == 0 || x + 1 == width || y + 1 == height;
            const auto v = static_cast<std::uint16_t>(edge ? kDark + kSpan : kDark + (x + y) * kSpan / diagonal);
            std::memcpy(pixel, &v, 2);
        }
    return record;
}

char* recordIn(char* data, int length)
{
    if (data == nullptr || length < 0 || static_cast<std::size_t>(length) < kRecordInCallback + kRecordHeaderSize)
        return nullptr;
    char* record = data + kRecordInCallback;
    std::uint16_t width = 0;
    std::uint16_t height = 0;
    std::memcpy(&width, record + kWidthAt, 2);
    std::memcpy(&height, record + kHeightAt, 2);
    const std::size_t need = kRecordInCallback + kRecordHeaderSize + std::size_t{width} * height * 2;
    return width > 0 && height > 0 && static_cast<std::size_t>(length) >= need ? record : nullptr;
}

unsigned long long recordStamp(const char* record)
{
    unsigned long long stamp = 0;
    std::memcpy(&stamp, record + kStampAt, 8);
    return stamp;
}

bool saveRecordAsPng(ztImageAssembler& assembler, char* record, const std::string& path, std::string& error)
{
    unsigned char* pixels = nullptr;
    short width = 0;
    short height = 0;
    unsigned long long stamp = 0;
    char header[64];
    if (assembler.getOriImageData(record, pixels, &width, &height, &stamp, header) != 0 || pixels == nullptr) {
        error = "the frame cannot be scaled to 8 bits";
        return false;
    }
    // The pixels stay valid until this assembler makes its next image; the caller keeps
    // that from happening meanwhile.
    const cv::Mat image(static_cast<unsigned short>(height), static_cast<unsigned short>(width), CV_8UC1, pixels);
    try {
        if (cv::imwrite(path, image))
            return true;
        error = "cannot write " + path;
    } catch (const cv::Exception& e) {
        error = "cannot write " + path + " (" + e.what() + ")";
    }
    return false;
}

} // namespace zt::tools
