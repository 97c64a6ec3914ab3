// What a network head sends unasked, through the device server's inbound parsing: the data
// connection in packet mode (the second decoder tried first on receives of exactly 100 or
// 160 bytes) and in raw mode, and the command-data connection (a 160-byte receive empties
// what is held). The data callback runs every payload parser an application may call on a
// copy of exactly the payload, whenever the payload holds what that parser reads.
//
// Input: one byte picks the connection, the rest is split into receives of input-chosen
// sizes.
#include "fuzz_support.h"
#include "network/EmbeddedFramer.h"
#include "network/EmbeddedInternals.h"
#include "codec/QlensNetProto.h"
#include "ztEmbeddedModuleProxyServer.h"

#include <cstdio>
#include <limits>
#include <memory>

namespace {

ztEmbeddedModuleProxyServer* g_server = nullptr;

std::int32_t i32At(const std::vector<char>& p, std::size_t offset)
{
    std::int32_t v;
    std::memcpy(&v, p.data() + offset, sizeof v);
    return v;
}

// The parsers on one callback payload, each only when the payload holds its record.
void parseAll(const std::vector<char>& copy)
{
    ztEmbeddedModuleProxyServer& s = *g_server;
    char* d = const_cast<char*>(copy.data());
    const std::size_t len = copy.size();
    int code = 0;
    if (len >= 6) {
        unsigned char a = 0, b = 0;
        s.analysisAlarmInfo(d, &code, &a, &b);
        zt::fuzz::check(code == i32At(copy, 0) && a == static_cast<unsigned char>(d[4]), "alarm fields misread");
    }
    if (len >= 8) {
        unsigned short a = 0, b = 0;
        s.analysisSyncInfo(d, &code, &a, &b);
    }
    if (len >= 16) {
        std::vector<float> angles;
        s.analysisAngleInfo(d, &code, &angles);
        zt::fuzz::check(angles.size() == 3, "not three angles");
    }
    if (len >= 5 && len >= 5 + 4 * static_cast<std::size_t>(static_cast<unsigned char>(d[4]))) {
        std::vector<float> temps(2);
        s.analysisTempInfo(d, &code, &temps);
        zt::fuzz::check(temps.size() == static_cast<unsigned char>(d[4]), "temperature count misread");
    }
    if (len >= 8) {
        const std::int32_t count = i32At(copy, 4);
        if (count <= 0 || static_cast<std::size_t>(count) <= (len - 8) / 52) {
            lp::_ZT_LP_FIND_LIST_ list;
            list.entries.resize(1);
            int first = 0;
            s.analysisLightPenFindList(d, first, list);
            zt::fuzz::check(list.count == count, "find-list count misread");
            zt::fuzz::check(list.entries.size() == 1 + static_cast<std::size_t>(count > 0 ? count : 0),
                            "find-list entries not appended one per count");
        }
    }
    if (len >= 78) {
        std::uint16_t count;
        std::memcpy(&count, d + 76, sizeof count);
        if (78 + 42 * static_cast<std::size_t>(count) <= len) {
            short w = 0, h = 0;
            unsigned long long stamp = 0;
            char header[64];
            std::vector<std::vector<double>> markers(3);
            char* next = nullptr;
            zt::fuzz::check(s.getMarkerData(d, &w, &h, &stamp, header, markers, &next) == 0, "marker record refused");
            zt::fuzz::check(markers.size() == count && next == d + 78 + 42 * static_cast<std::size_t>(count),
                            "marker record misread");
        }
    }
}

void onData(int, char* data, int len, void*)
{
    zt::fuzz::check(len >= 0 && (len == 0 || data != nullptr), "callback payload malformed");
    // A copy of exactly the payload, so that a read past it is seen.
    parseAll(std::vector<char>(data, data + len));
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
        zt::fuzz::check(g_server->processMsg(reinterpret_cast<char*>(packet->buffer)) == 0,
                        "a decoded packet refused");
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

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    zt::fuzz::quietLogs();
    // getMarkerData writes a line to standard output for each marker out of range.
    if (std::freopen("/dev/null", "w", stdout) == nullptr)
        zt::fuzz::fail("standard output cannot be redirected");
    g_server = new ztEmbeddedModuleProxyServer;
    g_server->registerModuleServerDataCB(&onData, nullptr);
    return 0;
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
