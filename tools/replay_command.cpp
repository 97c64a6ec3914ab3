#include "replay_command.h"

#include "command_run.h"
#include "net_command.h"
#include "stream_view.h"
#include "ztSimReplay.h"

#include <chrono>
#include <cstdio>
#include <string>
#include <thread>

namespace zt::tools {

namespace {

const char* const kReplayUsage =
    "usage: ztproxy replay FILE [--fast] [--bind IP] [--port N] [--seconds N]\n"
    "\n"
    "Plays a head recorded with ztproxy record: a network recording as a head listening on\n"
    "IP:N (default 127.0.0.1:42001) for an unmodified ztEmbeddedModuleProxyServer. What the\n"
    "head sent unasked goes out in the recorded order and spacing (--fast: at once), each\n"
    "part after the command requests that preceded it in the recording; commands are\n"
    "answered with the recorded replies, matched by type code and request bytes (a request\n"
    "without one gets no reply and a line on standard error); heartbeats are answered as the\n"
    "head answered them. Runs until Ctrl-C (or N seconds), with a progress line.\n"
    "\n"
    "A USB recording plays through the emulated USB head, which lives in the process that\n"
    "uses it: load it in your own program or test with ztSimReplay (ztSimReplay.h, in\n"
    "ztProxySim): replay.load(FILE); replay.startUsb(); then open vendor 0x1d6b, product\n"
    "0x5a01 with libusb for ztUsbProxyServer, with LD_PRELOAD=libumockdev-preload.so.0.\n"
    "\n"
    "options:\n"
    "  --fast          no recorded spacing: each part as soon as its requests arrived\n"
    "  --bind IP       the address to listen on (default 127.0.0.1)\n"
    "  --port N        the port (default 42001)\n"
    "  --seconds N     end after N seconds\n"
    "  -h, --help      show this help\n"
    "\n"
    "exit status: 0 when the replay ran; 1 when the file cannot be read or the address\n"
    "cannot be bound; 2 on a usage error or a USB recording.\n";

constexpr int kRedrawMs = 250;

struct Options {
    bool help = false;
    bool fast = false;
    std::string file;
    std::string bind = "127.0.0.1";
    long long port = ztSimNetworkHead::kDefaultPort;
    long long seconds = 0;
};

bool parse(int argc, char** argv, Options& o, std::string& error)
{
    std::string port, seconds;
    for (int i = 0; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "-h" || arg == "--help") {
            o.help = true;
        } else if (arg == "--fast") {
            o.fast = true;
        } else if (arg == "--bind" || arg == "--port" || arg == "--seconds") {
            if (i + 1 >= argc) {
                error = "replay: " + arg + " needs a value";
                return false;
            }
            (arg == "--bind" ? o.bind : arg == "--port" ? port : seconds) = argv[++i];
        } else if (arg.rfind("--", 0) != 0 && o.file.empty()) {
            o.file = arg;
        } else {
            error = "replay: unknown option or argument '" + arg + "' (see ztproxy replay --help)";
            return false;
        }
    }
    if (o.help)
        return true;
    if (o.file.empty()) {
        error = "replay: which recording? (ztproxy replay FILE)";
        return false;
    }
    if (!isIPv4(o.bind)) {
        error = "replay: --bind needs an IPv4 address, not '" + o.bind + "'";
        return false;
    }
    if (!port.empty() && (!parseCount(port, o.port) || o.port > 65535)) {
        error = "replay: --port needs a port number, not '" + port + "'";
        return false;
    }
    if (!seconds.empty() && !parseCount(seconds, o.seconds)) {
        error = "replay: --seconds needs a whole number above 0, not '" + seconds + "'";
        return false;
    }
    return true;
}

} // namespace

int runReplayCommand(int argc, char** argv)
{
    Options o;
    std::string error;
    if (!parse(argc, argv, o, error))
        return usageError(error);
    if (o.help) {
        std::fputs(kReplayUsage, stdout);
        return 0;
    }
    ztSimReplay replay;
    replay.setLog([](const std::string& line) { std::fprintf(stderr, "\r\033[Kztproxy: replay: %s\n", line.c_str()); });
    if (replay.load(o.file) != 0) {
        std::fprintf(stderr, "ztproxy: cannot read the recording '%s'\n", o.file.c_str());
        return kFailedStatus;
    }
    if (replay.header().link == ztRecorder::UsbLink)
        return usageError("replay: '" + o.file + "' is a USB recording; play it with ztSimReplay in your own "
                          "program (see ztproxy replay --help)");
    catchInterrupts();
    if (replay.startNetwork(o.bind, static_cast<int>(o.port), o.fast) != 0) {
        std::fprintf(stderr, "ztproxy: cannot listen on %s:%lld (in use?)\n", o.bind.c_str(), o.port);
        return kFailedStatus;
    }
    const ztRecorder::Header& h = replay.header();
    std::printf("replay: head %s (product type %u, recorded with library %s) on %s:%lld%s; Ctrl-C ends\n",
                h.serialNumber.c_str(), static_cast<unsigned>(h.ability.productType), h.libraryVersion.c_str(),
                o.bind.c_str(), o.port, o.fast ? ", fast" : "");
    std::fflush(stdout);
    const bool progress = stdoutIsTerminal();
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(o.seconds);
    bool doneSaid = false;
    while (!wasInterrupted() && (o.seconds == 0 || std::chrono::steady_clock::now() < end)) {
        std::this_thread::sleep_for(std::chrono::milliseconds(kRedrawMs));
        const bool done = replay.played() >= replay.steps();
        if (progress)
            std::printf("\r  played %zu of %zu steps, %d requests without a recorded reply   ", replay.played(),
                        replay.steps(), replay.unmatchedCommands());
        if (done && !doneSaid)
            std::printf("%sreplay: everything recorded was played; commands and heartbeats are still answered\n",
                        progress ? "\n" : "");
        doneSaid = doneSaid || done;
        std::fflush(stdout);
    }
    replay.stop();
    std::printf("%sreplay: played %zu of %zu steps, %d requests without a recorded reply\n", progress ? "\n" : "",
                replay.played(), replay.steps(), replay.unmatchedCommands());
    return 0;
}

} // namespace zt::tools
