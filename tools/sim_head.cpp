#include "sim_head.h"

#include "frame_record.h"
#include "net_command.h"
#include "sim_presets.h"
#include "ztSimNetworkHead.h"

#include <atomic>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace zt::tools {

namespace {

const char* const kSimHeadUsage =
    "usage: ztproxy sim head [--bind IP] [--port N] [--stream-rate MBPS [--stream-on trigger]\n"
    "                        [--full-frames]] [--set NAME=VALUE] [--status NAME=CODE]\n"
    "                        [--no-reply NAME] [--delay MS]\n"
    "\n"
    "Runs a simulated network scanner head until interrupted. A host opens four TCP\n"
    "connections to it, in the order command, data, command-data and light-pen; the head\n"
    "answers heartbeats and every device command from a state that settings change and\n"
    "queries report, and prints one line per connection and per command, with the command's\n"
    "type code, payload size and name (\"command 19, 0 payload bytes (getCameraGain)\").\n"
    "\n"
    "options:\n"
    "  --bind IP           IPv4 address to listen on (default 127.0.0.1)\n"
    "  --port N            port to listen on (default 42001)\n"
    "  --stream-rate MBPS  once all four connections stand, stream extended-header packets\n"
    "                      of type 1280 (262144 bytes each) on the data connection at MBPS\n"
    "                      megabytes (10^6 bytes) per second; 0 streams as fast as the host\n"
    "                      reads\n"
    "  --stream-on trigger stream only between a trigger (sendTrigger, or setScanStatus 1)\n"
    "                      and its stop (sendStopTrigger, or setScanStatus 0)\n"
    "  --full-frames       stream full-frame records of 1280 x 1024 16-bit pixels instead,\n"
    "                      which ztproxy stream --save-every can save as images\n"
    "  -h, --help          show this help\n"
    "\n"
    "presets (the replies a host's code should cope with):\n";

std::atomic<bool> g_stop{false};
extern "C" void onHeadSignal(int)
{
    g_stop = true;
}

int bad(const std::string& message)
{
    std::fprintf(stderr, "ztproxy: %s (see ztproxy sim head --help)\n", message.c_str());
    return 2;
}

const char* channelName(ztSimNetworkHead::Channel c)
{
    switch (c) {
    case ztSimNetworkHead::Command: return "command";
    case ztSimNetworkHead::Data: return "data";
    case ztSimNetworkHead::CommandData: return "command-data";
    case ztSimNetworkHead::LightPen: return "light-pen";
    }
    return "?";
}

constexpr std::size_t kStreamUnit = 262144;
constexpr unsigned short kStreamType = 1280;
constexpr unsigned short kTriggerType = 13;
constexpr unsigned short kScanStatusType = 289;

// 1 for a command that starts the stream, 0 for one that stops it, -1 for any other.
int triggerOf(const ztSimNetworkHead::Request& r)
{
    if ((r.type != kTriggerType && r.type != kScanStatusType) || r.payload.size() < 4)
        return -1;
    int value = 0;
    std::memcpy(&value, r.payload.data(), sizeof value);
    return value != 0 ? 1 : 0;
}

std::vector<char> streamUnit(bool fullFrames)
{
    if (fullFrames)
        return scanPacket(1280, 1024, 1);
    std::vector<char> payload(kStreamUnit - ztSimNetworkHead::kExtendedHeaderSize - 1);
    for (std::size_t k = 0; k < payload.size(); ++k)
        payload[k] = static_cast<char>(k & 0xFF);
    return ztSimNetworkHead::extendedPacket(kStreamType, 0, payload.data(), payload.size());
}

} // namespace

int runSimHead(int argc, char** argv)
{
    std::string bind = "127.0.0.1";
    int port = ztSimNetworkHead::kDefaultPort;
    double rate = -1; // no stream
    bool onTrigger = false;
    bool fullFrames = false;
    SimPresets presets;
    for (int i = 0; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "-h" || arg == "--help") {
            std::fputs(kSimHeadUsage, stdout);
            printSimPresetHelp(stdout);
            return 0;
        }
        if (arg == "--full-frames") {
            fullFrames = true;
            continue;
        }
        const bool preset = isSimPresetOption(arg);
        const bool takesValue =
            preset || arg == "--bind" || arg == "--port" || arg == "--stream-rate" || arg == "--stream-on";
        if (!takesValue)
            return bad("sim head: unknown argument '" + arg + "'");
        if (i + 1 >= argc)
            return bad("sim head: " + arg + " needs a value");
        const std::string value = argv[++i];
        char* end = nullptr;
        errno = 0;
        if (std::string error; preset) {
            if (!parseSimPreset("sim head", arg, value, presets, error))
                return bad(error);
        } else if (arg == "--bind") {
            if (!isIPv4(value))
                return bad("sim head: '" + value + "' is not an IPv4 address");
            bind = value;
        } else if (arg == "--port") {
            const long p = std::strtol(value.c_str(), &end, 10);
            if (value.empty() || *end != '\0' || errno != 0 || p < 1 || p > 65535)
                return bad("sim head: port '" + value + "' is not a number from 1 to 65535");
            port = static_cast<int>(p);
        } else if (arg == "--stream-on") {
            if (value != "trigger")
                return bad("sim head: --stream-on '" + value + "' is not trigger");
            onTrigger = true;
        } else {
            const double r = std::strtod(value.c_str(), &end);
            if (value.empty() || *end != '\0' || errno != 0 || !std::isfinite(r) || r < 0)
                return bad("sim head: stream rate '" + value + "' is not a number of MB/s from 0 up");
            rate = r;
        }
    }
    if (rate < 0 && (onTrigger || fullFrames))
        return bad("sim head: --stream-on and --full-frames shape a stream: give --stream-rate too");

    std::signal(SIGINT, onHeadSignal);
    std::signal(SIGTERM, onHeadSignal);
    ztSimNetworkHead head(bind, port);
    applySimPresets(presets, head);
    head.setConnectionObserver([](ztSimNetworkHead::Channel c, bool connected, const std::string& peer) {
        if (connected)
            std::printf("%s connection from %s\n", channelName(c), peer.c_str());
        else
            std::printf("%s connection from %s closed\n", channelName(c), peer.c_str());
        std::fflush(stdout);
    });
    if (head.start() != 0) {
        std::fprintf(stderr, "ztproxy: the simulated head cannot listen on %s:%d (in use?)\n", bind.c_str(), port);
        return 1;
    }
    for (const std::string& line : describeSimPresets(presets))
        std::printf("preset: %s\n", line.c_str());
    std::printf("simulated head listening on %s:%d; Ctrl-C stops it\n", bind.c_str(), head.port());
    std::fflush(stdout);

    const std::vector<char> unit = rate >= 0 ? streamUnit(fullFrames) : std::vector<char>{};
    bool streaming = false;
    bool triggered = false;
    while (!g_stop) {
        ztSimNetworkHead::Request r;
        if (head.nextCommand(r, 200)) {
            std::printf("command %u, %zu payload bytes (%s)\n", static_cast<unsigned>(r.type), r.payload.size(),
                        commandNamesText(r.type).c_str());
            std::fflush(stdout);
            if (const int t = triggerOf(r); t >= 0)
                triggered = t == 1;
        }
        const bool connected = head.isConnected(ztSimNetworkHead::Command) &&
                               head.isConnected(ztSimNetworkHead::Data) &&
                               head.isConnected(ztSimNetworkHead::CommandData) &&
                               head.isConnected(ztSimNetworkHead::LightPen);
        const bool wanted = rate >= 0 && connected && (!onTrigger || triggered);
        if (wanted && !streaming) {
            head.startStream(ztSimNetworkHead::Data, unit, 0, rate * 1e6);
            streaming = true;
            if (rate > 0)
                std::printf("streaming %zu-byte packets of type %u on the data connection at %g MB/s\n", unit.size(),
                            static_cast<unsigned>(kStreamType), rate);
            else
                std::printf("streaming %zu-byte packets of type %u on the data connection as fast as it goes\n",
                            unit.size(), static_cast<unsigned>(kStreamType));
            std::fflush(stdout);
        } else if (!wanted && streaming && onTrigger) {
            head.stopStream();
            streaming = false;
            std::printf("stream stopped\n");
            std::fflush(stdout);
        }
    }
    head.stopStream();
    const std::size_t streamed = head.streamedBytes();
    head.stop();
    if (rate >= 0)
        std::printf("streamed %zu bytes\n", streamed);
    std::printf("stopped\n");
    return 0;
}

} // namespace zt::tools
