// What a network head sends unasked, through the device server's inbound parsing: the data
// connection in packet mode (the second decoder tried first on receives of exactly 100 or
// 160 bytes) and in raw mode, and the command-data connection (a 160-byte receive empties
// what is held). The data callback runs the application's payload parsers.
//
// Input: one byte picks the connection, the rest is split into receives of input-chosen
// sizes.
#include "fuzz_support.h"
#include "network/EmbeddedFramer.h"
#include "network/EmbeddedInternals.h"
#include "codec/QlensNetProto.h"
#include "ztEmbeddedModuleProxyServer.h"

#include <cstdio>
#include <cstring>
#include <limits>
#include <memory>

namespace {

ztEmbeddedModuleProxyServer* g_server = nullptr;

std::size_t at(const char* d, std::size_t offset, std::size_t width)
{
    std::uint32_t v = 0;
    std::memcpy(&v, d + offset, width);
    return v;
}

// The parsers an application may call on a callback's payload, each when the payload
// holds the record it reads.
void onData(int, char* data, int len, void*)
{
    zt::fuzz::check(len >= 0 && (len == 0 || data != nullptr), "callback payload malformed");
    // A copy of exactly the payload, so that a read past it is seen.
    std::vector<char> copy(data, data + len);
    ztEmbeddedModuleProxyServer& s = *g_server;
    char* d = copy.data();
    const std::size_t n = copy.size();
    int code = 0;
    unsigned char c1 = 0, c2 = 0;
    unsigned short s1 = 0, s2 = 0;
    std::vector<float> values(2);
    if (n >= 6)
        s.analysisAlarmInfo(d, &code, &c1, &c2);
    if (n >= 8)
        s.analysisSyncInfo(d, &code, &s1, &s2);
    if (n >= 16)
        s.analysisAngleInfo(d, &code, &values);
    if (n >= 5 && n >= 5 + 4 * at(d, 4, 1))
        s.analysisTempInfo(d, &code, &values);
    const auto count = static_cast<std::int32_t>(n >= 8 ? at(d, 4, 4) : 1);
    if (n >= 8 && (count <= 0 || static_cast<std::size_t>(count) <= (n - 8) / 52)) {
        lp::_ZT_LP_FIND_LIST_ list;
        int first = 0;
        s.analysisLightPenFindList(d, first, list);
    }
    if (n >= 78 && 78 + 42 * at(d, 76, 2) <= n) {
        short w = 0, h = 0;
        unsigned long long stamp = 0;
        char header[64];
        std::vector<std::vector<double>> markers;
        char* next = nullptr;
        s.getMarkerData(d, &w, &h, &stamp, header, markers, &next);
    }
}

enum class Connection { Packets, Raw, CommandData, count };

// Packet mode: every packet a decoder finishes goes to processMsg.
bool feedDecoder(ztCamera::QlensNetProto& decoder, const unsigned char* data, std::uint64_t left)
{
    bool any = false;
    while (left > 0) {
        const std::shared_ptr<ztCamera::QlensNetCmd> packet = decoder.decode(data, left);
        if (!packet)
            break;
        any = true;
        g_server->processMsg(reinterpret_cast<char*>(packet->buffer));
    }
    return any;
}

// A receive size: now and then exactly 100 or 160 bytes, the sizes the data and
// command-data receivers treat apart.
std::size_t receiveSize(FuzzedDataProvider& in)
{
    const auto pick = in.ConsumeIntegral<std::uint8_t>();
    if (pick < 24)
        return 100;
    if (pick < 48)
        return 160;
    return in.ConsumeIntegralInRange<std::size_t>(1, 400);
}

} // namespace

void zt::fuzz::setUp()
{
    // getMarkerData writes a line to standard output for each marker out of range.
    check(std::freopen("/dev/null", "w", stdout) != nullptr, "standard output not redirected");
    g_server = new ztEmbeddedModuleProxyServer;
    g_server->registerModuleServerDataCB(&onData, nullptr);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    FuzzedDataProvider in(data, size);
    const auto connection = static_cast<Connection>(
        in.ConsumeIntegralInRange<int>(0, static_cast<int>(Connection::count) - 1));
    ztCamera::QlensNetProto first;
    ztCamera::QlensNetProto second;
    zt::EmbeddedFramer stream(zt::EmbeddedFramer::kMinHeldStream, std::numeric_limits<std::size_t>::max(),
                              connection == Connection::Raw ? zt::embedded::kRawDataLimit
                                                            : zt::embedded::kCommandDataLimit);
    std::vector<char> message;
    while (in.remaining_bytes() > 0) {
        const std::vector<unsigned char> block = in.ConsumeBytes<unsigned char>(receiveSize(in));
        if (block.empty())
            break;
        const std::uint64_t n = block.size();
        switch (connection) {
        case Connection::Packets:
            if ((n == 100 || n == 160) && feedDecoder(second, block.data(), n))
                break;
            feedDecoder(first, block.data(), n);
            break;
        case Connection::Raw:
            stream.append(block.data(), block.size());
            while (const char* front = stream.front()) {
                g_server->processMsg(const_cast<char*>(front));
                stream.pop();
            }
            break;
        default:
            if (n == 160)
                stream.clear();
            stream.append(block.data(), block.size());
            while (const char* front = stream.front()) {
                message.assign(front, front + stream.frontSize());
                stream.pop();
                g_server->processMsg_Cmd(message.data());
            }
            break;
        }
    }
    return 0;
}
