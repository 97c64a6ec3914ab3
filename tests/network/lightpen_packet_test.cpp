// The star packets that ztEmbeddedModuleProxyServer composes for light-pen control and
// firmware version selection, byte for byte. The builders send nothing: the server is
// never connected here.
#include "support/log_capture.h"
#include "ztEmbeddedModuleProxyServer.h"

#include <gtest/gtest.h>

#include <initializer_list>
#include <string>
#include <vector>

using zt::test::LogCapture;

namespace {

constexpr char F = static_cast<char>(0xFF);

std::string bytes(std::initializer_list<char> list) { return std::string(list.begin(), list.end()); }

// The device id lines logged so far.
std::vector<LogCapture::Line> idErrors(const LogCapture& log)
{
    std::vector<LogCapture::Line> out;
    for (const auto& l : log.lines())
        if (l.text.find("device id") != std::string::npos)
            out.push_back(l);
    return out;
}

std::string hex(const std::string& s)
{
    static const char* const kDigits = "0123456789abcdef";
    std::string out;
    for (const char c : s) {
        const auto u = static_cast<unsigned char>(c);
        if (!out.empty())
            out += ' ';
        out += kDigits[u >> 4];
        out += kDigits[u & 15];
    }
    return out;
}

// The 20-byte frame of data length 8 around the bytes at 1 to 15: "*", those, the trailer
// key 6 7, 0xFF, "#".
std::string frame(const std::string& middle)
{
    return "*" + middle + bytes({6, 7, F, '#'});
}

TEST(LightPenPackets, BuildersByteForByte)
{
    LogCapture log;
    ztEmbeddedModuleProxyServer server;
    std::string out = "whatever the string held before is replaced";

    server.packageLPCanWork("AB12", true, out);
    EXPECT_EQ(hex(out), hex(bytes({'*', 'A', 'B', '1', '2', 6, 25, '1', F, F, F, F, F, F, F, F, 6, 7, F, '#'})));
    server.packageLPCanWork("AB12", false, out);
    EXPECT_EQ(hex(out), hex(frame(bytes({'A', 'B', '1', '2', 6, 25, '0', F, F, F, F, F, F, F, F}))));

    server.packageLPWorkResult("WXYZ", true, out);
    EXPECT_EQ(hex(out), hex(frame(bytes({'W', 'X', 'Y', 'Z', 6, 27, '1', F, F, F, F, F, F, F, F}))));
    server.packageLPWorkResult("WXYZ", false, out);
    EXPECT_EQ(hex(out), hex(frame(bytes({'W', 'X', 'Y', 'Z', 6, 27, '0', F, F, F, F, F, F, F, F}))));

    // The selection leaves its value position 7 alone and writes "0" two further on.
    server.packageSelectFirewareVersion("AB12", out);
    EXPECT_EQ(hex(out), hex(frame(bytes({'A', 'B', '1', '2', 8, 1, F, F, '0', F, F, F, F, F, F}))));

    // The frame for another data length n: n + 12 bytes, trailer at n + 8.
    out = "x";
    server.dataInitSet("QRST", out, 3);
    EXPECT_EQ(hex(out), hex(bytes({'*', 'Q', 'R', 'S', 'T', F, F, F, F, F, F, 6, 7, F, '#'})));
    server.dataInitSet("QRST", out, 0);
    EXPECT_EQ(hex(out), hex(bytes({'*', 'Q', 'R', 'S', 'T', F, F, F, 6, 7, F, '#'})));

    // The single steps write at the position given and nowhere else.
    const std::string blank(12, '.');
    out = blank;
    server.setKey(3, out);
    EXPECT_EQ(hex(out), hex(bytes({'.', '.', '.', 6, 7, '.', '.', '.', '.', '.', '.', '.'})));
    out = blank;
    server.selectDeviceParaCMDSet(0, out);
    EXPECT_EQ(hex(out), hex(bytes({8, 1, '.', '.', '.', '.', '.', '.', '.', '.', '.', '.'})));
    out = blank;
    server.setLPEnabled(false, 2, out);
    EXPECT_EQ(hex(out), hex(bytes({'.', '.', 6, 25, '0', '.', '.', '.', '.', '.', '.', '.'})));
    out = blank;
    server.setLPWorkResult(true, 9, out);
    EXPECT_EQ(hex(out), hex(bytes({'.', '.', '.', '.', '.', '.', '.', '.', '.', 6, 27, '1'})));

    EXPECT_TRUE(idErrors(log).empty());
}

TEST(LightPenPackets, DeviceIdentifiersOfOtherLengths)
{
    LogCapture log;
    ztEmbeddedModuleProxyServer server;
    std::string out;

    // Only the first four characters count.
    server.packageLPCanWork("ABCDE", true, out);
    EXPECT_EQ(hex(out), hex(frame(bytes({'A', 'B', 'C', 'D', 6, 25, '1', F, F, F, F, F, F, F, F}))));
    EXPECT_TRUE(idErrors(log).empty());

    // A shorter one leaves its positions at 0xFF; the frame is built all the same.
    server.packageLPCanWork("AB1", true, out);
    EXPECT_EQ(hex(out), hex(frame(bytes({F, F, F, F, 6, 25, '1', F, F, F, F, F, F, F, F}))));
    server.packageSelectFirewareVersion("", out);
    EXPECT_EQ(hex(out), hex(frame(bytes({F, F, F, F, 8, 1, F, F, '0', F, F, F, F, F, F}))));

    // The log texts carry their line end.
    const auto lines = idErrors(log);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].text, "device id error:AB1\r\n");
    EXPECT_EQ(lines[0].level, ZTLOG_LEVEL_ERROR);
    EXPECT_EQ(lines[1].text, "device id error:\r\n");
    EXPECT_EQ(lines[1].level, ZTLOG_LEVEL_ERROR);
}

} // namespace
