#include "stream_command.h"

#include "command_run.h"
#include "frame_record.h"
#include "net_command.h"
#include "stream_view.h"
#include "ztEmbeddedModuleProxyServer.h"
#include "ztSimNetworkHead.h"
#ifdef ZT_WITH_USB
#include "usb_command.h"
#include "usb_emulation.h"
#include "usb_open.h"
#include "ztSimUsbHead.h"
#include "ztUsbProxyServer.h"
#endif

#include <sys/stat.h>

#include <charconv>
#include <chrono>
#include <cstdio>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace zt::tools {

namespace {

const char* const kStreamUsage =
    "usage: ztproxy stream SOURCE [--start trigger|scan] [--seconds N] [--save-every N --out DIR]\n"
    "                      [--json]\n"
    "\n"
    "Receives frames from a scanner head for N seconds and counts them: frames, frames/s,\n"
    "MB/s, frames dropped and the time gone of the whole, redrawn on one line while standard\n"
    "output is a terminal (the library's own lines go above it). At the end one summary line\n"
    "(or one JSON object) is printed. Ctrl-C ends early; a head going offline ends the\n"
    "stream with exit status 1.\n"
    "\n"
    "sources:\n"
    "  --sim-net              a simulated network head in this process on 127.0.0.1:42001,\n"
    "                         streaming 100 full frames of 1280 x 1024 pixels a second\n"
#ifdef ZT_WITH_USB
    "  --sim-usb              the emulated USB head in this process, offering the same; each\n"
    "                         64 KB transfer passes through the emulation, which holds it\n"
    "                         to about 40 frames a second on a 2-core machine. It needs\n"
    "                         umockdev's LD_PRELOAD=libumockdev-preload.so.0, which the\n"
    "                         tool sets by running itself again when it is missing\n"
#endif
    "  --local IP --remote IP a network head (port 42001), connecting from IP [--sn SN]\n"
#ifdef ZT_WITH_USB
    "  --vid V --pid P        a USB head by hexadecimal ids [--serial S]\n"
#endif
    "\n"
    "options:\n"
    "  --start trigger|scan   start the head's stream with sendTrigger or setScanStatus(1) once\n"
    "                         it is online, and stop it at the end (sendStopTrigger or\n"
    "                         setScanStatus(0)); by default the tool only listens\n"
    "  --seconds N            how long to receive (default 5)\n"
    "  --save-every N         write every Nth full-frame record (type 1280) as an 8-bit PNG\n"
    "  --out DIR              ... into this existing folder, as frame-NNNNNN.png\n"
    "  --json                 print the summary as one JSON object\n"
    "  -h, --help             show this help\n"
    "\n"
    "Frames dropped are known for the simulated heads only: frames the head sent that never\n"
    "reached the data callback.\n"
    "\n"
    "exit status: 0 when the stream ran (also when ended by Ctrl-C); 1 when the head went\n"
    "offline, the start command failed or an image cannot be written; 2 on a usage error; 3\n"
    "when the head did not come online or the USB device could not be opened.\n";

constexpr int kHeadPort = ztSimNetworkHead::kDefaultPort;
constexpr int kRedrawMs = 250;
// After a simulated stream ends, frames still on their way get this long to arrive.
constexpr int kTailWaitMs = 2000;

enum class Source { None, SimNet, SimUsb, Net, Usb };
enum class Start { None, Trigger, Scan };

struct Options {
    bool help = false;
    bool json = false;
    Source source = Source::None;
    std::string local, remote, sn;
    std::string vid, pid, serial;
    long long seconds = 5;
    long long saveEvery = 0;
    std::string outDir;
    Start start = Start::None;
};

bool parseCount(const std::string& text, long long& value)
{
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    return ec == std::errc() && end == text.data() + text.size() && value > 0;
}


bool parse(int argc, char** argv, Options& o, std::string& error)
{
    std::vector<std::string> sources;
    std::string seconds, saveEvery, start;
    for (int i = 0; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "-h" || arg == "--help") {
            o.help = true;
            continue;
        }
        if (arg == "--json") {
            o.json = true;
            continue;
        }
        if (arg == "--sim-net" || arg == "--sim-usb") {
            sources.push_back(arg);
            continue;
        }
        std::string* value = nullptr;
        if (arg == "--local")
            value = &o.local;
        else if (arg == "--remote")
            value = &o.remote;
        else if (arg == "--sn")
            value = &o.sn;
        else if (arg == "--vid")
            value = &o.vid;
        else if (arg == "--pid")
            value = &o.pid;
        else if (arg == "--serial")
            value = &o.serial;
        else if (arg == "--seconds")
            value = &seconds;
        else if (arg == "--save-every")
            value = &saveEvery;
        else if (arg == "--out")
            value = &o.outDir;
        else if (arg == "--start")
            value = &start;
        if (value == nullptr) {
            error = "stream: unknown option '" + arg + "' (see ztproxy stream --help)";
            return false;
        }
        if (i + 1 >= argc) {
            error = "stream: " + arg + " needs a value";
            return false;
        }
        *value = argv[++i];
    }
    if (o.help)
        return true;
    const bool net = !o.local.empty() || !o.remote.empty() || !o.sn.empty();
    const bool usb = !o.vid.empty() || !o.pid.empty() || !o.serial.empty();
    if (sources.size() + (net ? 1 : 0) + (usb ? 1 : 0) != 1) {
        error = "stream: give one source: --sim-net, --sim-usb, --local IP --remote IP, or --vid V --pid P";
        return false;
    }
    if (!sources.empty()) {
        o.source = sources[0] == "--sim-net" ? Source::SimNet : Source::SimUsb;
    } else if (net) {
        if (!checkHeadAddresses("stream", o.local, o.remote, error))
            return false;
        o.source = Source::Net;
    } else {
        o.source = Source::Usb;
    }
#ifndef ZT_WITH_USB
    if (o.source == Source::SimUsb || o.source == Source::Usb) {
        error = "stream: this build has no USB link";
        return false;
    }
#endif
    if (!seconds.empty() && (!parseCount(seconds, o.seconds) || o.seconds > 86400)) {
        error = "stream: --seconds '" + seconds + "' is not a whole number from 1 to 86400";
        return false;
    }
    if (start == "trigger") {
        o.start = Start::Trigger;
    } else if (start == "scan") {
        o.start = Start::Scan;
    } else if (!start.empty()) {
        error = "stream: --start '" + start + "' is not trigger or scan";
        return false;
    }
    if (!saveEvery.empty() && !parseCount(saveEvery, o.saveEvery)) {
        error = "stream: --save-every '" + saveEvery + "' is not a whole number above 0";
        return false;
    }
    if ((o.saveEvery > 0) != !o.outDir.empty()) {
        error = "stream: --save-every N and --out DIR go together";
        return false;
    }
    struct stat st {};
    if (!o.outDir.empty() && (::stat(o.outDir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode))) {
        error = "stream: --out '" + o.outDir + "' is not an existing folder";
        return false;
    }
    return true;
}

// Counts what the data callback delivers and saves every Nth full-frame record.
struct Receiver {
    Receiver(ztImageAssembler& images, const Options& o) : assembler(images), saveEvery(o.saveEvery), outDir(o.outDir) {}

    ztImageAssembler& assembler;
    const long long saveEvery;
    const std::string outDir;

    std::mutex mutex;
    long long frames = 0;
    long long bytes = 0;
    long long saved = 0;
    std::string saveError;
    bool offline = false;
    // Full-frame records among the type-1280 packets: only they can be saved.
    long long fullFrames = 0;
    long long notRecords = 0;

    static void cb(int type, char* data, int length, void* user)
    {
        auto* self = static_cast<Receiver*>(user);
        if (type == ZT_CODE_DEVICE_OFFLINE) {
            std::lock_guard<std::mutex> lock(self->mutex);
            self->offline = true;
            return;
        }
        if (!isFramePacket(type))
            return;
        std::string error;
        bool wrote = false;
        char* record = type == kFullFrameType ? recordIn(data, length) : nullptr;
        // Only the link's delivering thread counts full frames, so the numbering needs no lock.
        const long long number = record != nullptr ? ++self->fullFrames : 0;
        if (self->saveEvery > 0 && number > 0 && number % self->saveEvery == 0) {
            char name[32];
            std::snprintf(name, sizeof name, "/frame-%06lld.png", number);
            wrote = saveRecordAsPng(self->assembler, record, self->outDir + name, error);
        }
        std::lock_guard<std::mutex> lock(self->mutex);
        self->notRecords += record == nullptr ? 1 : 0;
        ++self->frames;
        self->bytes += length;
        self->saved += wrote ? 1 : 0;
        if (!error.empty() && self->saveError.empty())
            self->saveError = error;
    }

    StreamFigures figures(const UsageMeter& meter)
    {
        std::lock_guard<std::mutex> lock(mutex);
        return {frames, bytes, meter.seconds(), meter.cpuPercent()};
    }

    bool wentOffline()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return offline;
    }
};

// The simulated head's side: how many whole frames it has sent, and ending its stream.
struct SimStream {
    std::function<std::size_t()> sentBytes;
    std::function<void()> stop;
    std::size_t unitSize = 0;
};

// Starts or stops the head's stream as --start asks; the command's result.
int startOrStop(ztDeviceCommandSet& device, Start start, bool on)
{
    switch (start) {
    case Start::Trigger: return on ? device.sendTrigger() : device.sendStopTrigger();
    case Start::Scan: return device.setScanStatus(on ? 1 : 0);
    case Start::None: break;
    }
    return 0;
}

// Receives for the options' time (or until Ctrl-C or the head going offline), prints the
// counters and the summary.
int receive(const Options& o, ztDeviceCommandSet& device, Receiver& receiver, const SimStream* sim)
{
    const bool counters = stdoutIsTerminal() && !o.json;
    // The library's lines go above the counter line instead of into it.
    HeldLog log;
    log.release("", counters ? "\r\033[K" : "");
    if (o.start != Start::None && startOrStop(device, o.start, true) < 0) {
        std::fprintf(stderr, "ztproxy: the head did not start its stream (%s failed)\n",
                     o.start == Start::Trigger ? "sendTrigger" : "setScanStatus(1)");
        return kFailedStatus;
    }
    const UsageMeter meter;
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(o.seconds);
    while (!wasInterrupted() && !receiver.wentOffline() && std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(std::chrono::milliseconds(kRedrawMs));
        if (!counters)
            continue;
        const StreamFigures f = receiver.figures(meter);
        std::printf("\r  %lld frames  %.1f frames/s  %.1f MB/s  dropped %s  %.1f s of %lld s   ", f.frames,
                    f.framesPerSecond(), f.megabytesPerSecond(), sim != nullptr ? "0" : "-", f.seconds, o.seconds);
        std::fflush(stdout);
    }
    const bool offline = receiver.wentOffline();
    if (!offline && o.start != Start::None)
        startOrStop(device, o.start, false);
    StreamFigures figures = receiver.figures(meter);
    long long dropped = -1;
    if (sim != nullptr) {
        sim->stop();
        const auto sent = static_cast<long long>(sim->sentBytes() / sim->unitSize);
        dropped = framesDropped(sent, [&] { return receiver.figures(meter).frames; });
        const StreamFigures all = receiver.figures(meter);
        figures.frames = all.frames;
        figures.bytes = all.bytes;
    }
    if (counters)
        std::printf("\n");
    long long saved = 0;
    long long notRecords = 0;
    std::string saveError;
    {
        std::lock_guard<std::mutex> lock(receiver.mutex);
        saved = receiver.saved;
        saveError = receiver.saveError;
        notRecords = receiver.notRecords;
    }
    const std::string droppedText = dropped < 0 ? (o.json ? "null" : "-") : std::to_string(dropped);
    if (o.json) {
        std::printf("{\"seconds\": %.3f, \"frames\": %lld, \"bytes\": %lld, \"frames_per_second\": %.1f, "
                    "\"megabytes_per_second\": %.1f, \"cpu_percent\": %.0f, \"dropped\": %s, \"saved\": %lld}\n",
                    figures.seconds, figures.frames, figures.bytes, figures.framesPerSecond(),
                    figures.megabytesPerSecond(), figures.cpuPercent, droppedText.c_str(), saved);
    } else {
        std::printf("stream: %s, dropped %s, saved %lld\n", figures.text().c_str(), droppedText.c_str(), saved);
    }
    std::fflush(stdout);
    if (o.saveEvery > 0 && saved == 0 && saveError.empty()) {
        if (figures.frames == 0)
            std::fputs("ztproxy: nothing saved: no packet arrived", stderr);
        else if (notRecords == figures.frames)
            std::fprintf(stderr, "ztproxy: nothing saved: none of the %lld packets was a full-frame record (type %u "
                                 "with a record header)",
                         figures.frames, static_cast<unsigned>(kFullFrameType));
        else
            std::fprintf(stderr, "ztproxy: nothing saved: fewer than %lld full-frame records arrived", o.saveEvery);
        std::fputs(o.start == Start::None ? "; does the head stream without --start trigger?\n" : "\n", stderr);
    }
    if (offline) {
        std::fprintf(stderr, "ztproxy: the head went offline after %.1f s\n", figures.seconds);
        return kFailedStatus;
    }
    if (!saveError.empty()) {
        std::fprintf(stderr, "ztproxy: %s\n", saveError.c_str());
        return kFailedStatus;
    }
    return 0;
}

int streamNetwork(const Options& o)
{
    std::unique_ptr<ztSimNetworkHead> head;
    std::string local = o.local;
    std::string remote = o.remote;
    if (o.source == Source::SimNet) {
        local = remote = "127.0.0.1";
        head = std::make_unique<ztSimNetworkHead>(remote, kHeadPort);
        if (head->start() != 0) {
            std::fprintf(stderr, "ztproxy: the simulated head cannot listen on %s:%d (in use?)\n", remote.c_str(),
                         kHeadPort);
            return kOfflineStatus;
        }
    }
    int status = 0;
    {
        ztEmbeddedModuleProxyServer server;
        Receiver receiver(server, o);
        server.registerModuleServerDataCB(&Receiver::cb, &receiver);
        if (!bringNetworkHeadOnline(server, local, remote, o.sn)) {
            status = kOfflineStatus;
        } else if (head) {
            const std::vector<char> unit = simFramePacket();
            head->startStream(ztSimNetworkHead::Data, unit, 0, static_cast<double>(unit.size()) * kSimFramesPerSecond);
            const SimStream sim{[&] { return head->streamedBytes(); }, [&] { head->stopStream(); }, unit.size()};
            status = receive(o, server, receiver, &sim);
        } else {
            status = receive(o, server, receiver, nullptr);
        }
        server.deInit();
    }
    if (head)
        head->stop();
    return status;
}

#ifdef ZT_WITH_USB
int streamUsb(const Options& o)
{
    UsbSelector which;
    if (o.source == Source::SimUsb) {
        which.vendor = ztSimUsbHead::kVendor;
        which.product = ztSimUsbHead::kProduct;
    } else {
        which.serial = o.serial;
        std::string error;
        if (!parseUsbIds("stream", o.vid, o.pid, which, error))
            return usageError(error);
    }
    std::unique_ptr<ztSimUsbHead> head;
    if (o.source == Source::SimUsb) {
        head = std::make_unique<ztSimUsbHead>();
        if (head->start() != 0) {
            reportUsbEmulationMissing();
            return kOfflineStatus;
        }
    }
    int status = 0;
    {
        UsbHead usb;
        std::string error;
        if (!usb.open(which, error)) {
            std::fprintf(stderr, "ztproxy: %s\n", error.c_str());
            status = kOfflineStatus;
        } else {
            ztUsbProxyServer server(usb.info(), usb.handle());
            Receiver receiver(server, o);
            server.registerModuleServerDataCB(&Receiver::cb, &receiver);
            if (!bringUsbHeadOnline(server, usb)) {
                status = kOfflineStatus;
            } else if (head) {
                const std::vector<char> unit = simFramePacket();
                head->startStream(unit, 0, static_cast<double>(unit.size()) * kSimFramesPerSecond);
                const SimStream sim{[&] { return head->streamedBytes(); }, [&] { head->stopStream(); }, unit.size()};
                status = receive(o, server, receiver, &sim);
            } else {
                status = receive(o, server, receiver, nullptr);
            }
            server.deInit();
        }
    }
    // Every handle on the emulated head is closed by now.
    if (head)
        head->stop();
    return status;
}
#endif

} // namespace

std::vector<char> simFramePacket()
{
    return scanPacket(1280, 1024, 1);
}

bool isFramePacket(int type)
{
    return type == 512 || type == 513 || type == 514 || type == 1280 || type == 1281;
}

long long framesDropped(long long sent, const std::function<long long()>& arrived)
{
    const auto tail = std::chrono::steady_clock::now() + std::chrono::milliseconds(kTailWaitMs);
    long long got = arrived();
    while (got < sent && std::chrono::steady_clock::now() < tail) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        got = arrived();
    }
    return sent > got ? sent - got : 0;
}

int runStreamCommand(int argc, char** argv, char** programArgv)
{
    Options o;
    std::string error;
    if (!parse(argc, argv, o, error))
        return usageError(error);
    if (o.help) {
        std::fputs(kStreamUsage, stdout);
        return 0;
    }
#ifdef ZT_WITH_USB
    if (o.source == Source::SimUsb && !usbEmulationPreloaded())
        return runAgainWithUsbEmulation(programArgv);
    catchInterrupts();
    if (o.source == Source::SimUsb || o.source == Source::Usb)
        return streamUsb(o);
#else
    (void)programArgv;
    catchInterrupts();
#endif
    return streamNetwork(o);
}

} // namespace zt::tools
