#include "frame_record.h"

#include "ztImageAssembler.h"
#include "ztSimNetworkHead.h"

#ifdef ZT_TOOL_PNG
#include <opencv2/imgcodecs.hpp>
#endif

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <utility>

namespace zt::tools {

namespace {

constexpr std::size_t kStampAt = 64;
constexpr std::size_t kWidthAt = 72;
constexpr std::size_t kHeightAt = 74;

// The 16-bit value that the 16-to-8 conversion, which maps 144 to 1024 onto 0 to 255 and
// keeps the low byte of anything above, turns into this 8-bit level exactly.
std::uint16_t levelTo16(unsigned level)
{
    return static_cast<std::uint16_t>(144 + (level * 176 + 50) / 51);
}

// What a scanner head's camera sees: a dark floor under a lit dome, circular reference
// markers on the floor, and a fan of laser lines that run straight over the floor and
// bend sideways where they cross the dome, by as much as the surface stands above the
// floor. Coordinates are in units of the shorter side, so any size looks the same.
class ScanScene {
public:
    ScanScene(unsigned width, unsigned height)
        : m_unit(static_cast<float>(std::min(width, height))), m_cx(0.52f * static_cast<float>(width) / m_unit),
          m_cy(0.56f), m_radius(0.3f)
    {
        // Markers on a jittered grid, left out where the dome would cover them.
        std::uint32_t seed = 12345;
        auto jitter = [&seed]() {
            seed = seed * 1664525u + 1013904223u;
            return static_cast<float>(seed >> 8) / 16777216.0f - 0.5f;
        };
        const float w = static_cast<float>(width) / m_unit;
        for (float y = 0.08f; y < 1.0f; y += 0.16f)
            for (float x = 0.08f; x < w; x += 0.16f) {
                const float mx = x + 0.06f * jitter();
                const float my = y + 0.06f * jitter();
                if (std::hypot(mx - m_cx, my - m_cy) > m_radius + 0.04f)
                    m_markers.push_back({mx, my});
            }
    }

    // The 8-bit level of the pixel at (x, y), markers left out.
    unsigned level(unsigned px, unsigned py) const
    {
        const float x = (static_cast<float>(px) + 0.5f) / m_unit;
        const float y = (static_cast<float>(py) + 0.5f) / m_unit;
        // Floor: dim, brighter towards the light at the top left.
        float v = 34.0f - 14.0f * (x + y) / 2.0f;
        // The dome: a height field z over the disc, shaded by its normal against the light.
        const float dx = (x - m_cx) / m_radius;
        const float dy = (y - m_cy) / m_radius;
        const float d2 = dx * dx + dy * dy;
        float z = 0;
        if (d2 < 1.0f) {
            const float nz = std::sqrt(1.0f - d2);
            z = m_radius * nz;
            const float lit = (-0.5f * dx - 0.6f * dy + 0.62f * nz);
            v = 28.0f + 120.0f * std::max(0.0f, lit);
        }
        // Laser lines, slightly slanted, pushed sideways by the height of the surface.
        const float along = x - 0.12f * y - 0.25f * z;
        const float nearest = std::round(along / kLineSpacing) * kLineSpacing;
        const float off = (along - nearest) * m_unit;
        if (nearest > 0.0f && nearest < static_cast<float>(kLines + 1) * kLineSpacing && std::fabs(off) < 5.0f)
            v += 255.0f * std::exp(-off * off / 2.0f);
        return static_cast<unsigned>(std::clamp(v, 0.0f, 255.0f));
    }

    // Paints the markers over the levels of a width x height image, one box round each, so
    // that the cost does not grow with their number per pixel.
    void paintMarkers(std::vector<unsigned char>& levels, unsigned width, unsigned height) const
    {
        const int ring = static_cast<int>(kMarkerRing);
        for (const auto& [mx, my] : m_markers) {
            const int cx = static_cast<int>(mx * m_unit);
            const int cy = static_cast<int>(my * m_unit);
            for (int y = std::max(cy - ring, 0); y <= std::min(cy + ring, static_cast<int>(height) - 1); ++y)
                for (int x = std::max(cx - ring, 0); x <= std::min(cx + ring, static_cast<int>(width) - 1); ++x) {
                    const float ex = static_cast<float>(x) + 0.5f - mx * m_unit;
                    const float ey = static_cast<float>(y) + 0.5f - my * m_unit;
                    const float r2 = ex * ex + ey * ey;
                    unsigned char& v = levels[static_cast<std::size_t>(y) * width + static_cast<std::size_t>(x)];
                    if (r2 < kMarkerDot * kMarkerDot)
                        v = 235;
                    else if (r2 < kMarkerRing * kMarkerRing)
                        v = 6;
                }
        }
    }

private:
    // Radii in pixels of a marker's white dot and of the black ring round it.
    static constexpr float kMarkerDot = 6.0f;
    static constexpr float kMarkerRing = 10.0f;
    static constexpr int kLines = 9;
    static constexpr float kLineSpacing = 0.125f;

    float m_unit;
    float m_cx, m_cy, m_radius;
    std::vector<std::pair<float, float>> m_markers;
};

} // namespace

std::vector<char> scanRecord(unsigned short width, unsigned short height, unsigned long long stamp)
{
    std::vector<char> record(kRecordHeaderSize + std::size_t{width} * height * 2);
    std::memcpy(record.data() + kStampAt, &stamp, 8);
    std::memcpy(record.data() + kWidthAt, &width, 2);
    std::memcpy(record.data() + kHeightAt, &height, 2);
    const ScanScene scene(width, height);
    std::vector<unsigned char> levels(std::size_t{width} * height);
    for (unsigned y = 0; y < height; ++y)
        for (unsigned x = 0; x < width; ++x)
            levels[std::size_t{y} * width + x] = static_cast<unsigned char>(scene.level(x, y));
    scene.paintMarkers(levels, width, height);
    char* pixel = record.data() + kRecordHeaderSize;
    for (const unsigned char level : levels) {
        const std::uint16_t v = levelTo16(level);
        std::memcpy(pixel, &v, 2);
        pixel += 2;
    }
    return record;
}

std::vector<char> scanPacket(unsigned short width, unsigned short height, unsigned long long stamp)
{
    const std::vector<char> record = scanRecord(width, height, stamp);
    return ztSimNetworkHead::extendedPacket(kFullFrameType, stamp, record.data(), record.size());
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
#ifdef ZT_TOOL_PNG
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
#else
    error = "cannot write " + path + ": this build has no PNG writer (OpenCV's image codecs)";
#endif
    return false;
}

} // namespace zt::tools
