#include "stream_command.h"

#include "command_run.h"
#include "frame_record.h"
#include "head_session.h"
#include "stream_view.h"
#include "ztDeviceCommandSet.h"
#include "ztImageAssembler.h"

#include <sys/stat.h>

#include <chrono>
#include <cstdio>
#include <mutex>
#include <string>
#include <thread>

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

constexpr int kRedrawMs = 250;

struct Options {
    bool help = false;
    bool json = false;
    HeadOptions head;
    long long seconds = 5;
    long long saveEvery = 0;
    std::string outDir;
    StreamStart start = StreamStart::None;
};

bool parse(int argc, char** argv, Options& o, std::string& error)
{
    std::string seconds, saveEvery, start;
    const CommandOptions own{true,
                             {{"--json", &o.json}},
                             {{"--seconds", &seconds}, {"--save-every", &saveEvery}, {"--out", &o.outDir},
                              {"--start", &start}}};
    if (!readCommandOptions("stream", argc, argv, o.head, own, o.help, error))
        return false;
    if (o.help)
        return true;
    if (!o.head.resolve("stream", "give one source: --sim-net, --sim-usb, --local IP --remote IP, or --vid V --pid P",
                        error))
        return false;
    if (!seconds.empty() && (!parseCount(seconds, o.seconds) || o.seconds > 86400)) {
        error = "stream: --seconds '" + seconds + "' is not a whole number from 1 to 86400";
        return false;
    }
    if (!parseStreamStart(start, o.start)) {
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
    explicit Receiver(const Options& o) : saveEvery(o.saveEvery), outDir(o.outDir) {}

    ztImageAssembler assembler;
    const long long saveEvery;
    const std::string outDir;
    FrameCount count;

    std::mutex mutex;
    long long saved = 0;
    std::string saveError;
    // Full-frame records among the type-1280 packets: only they can be saved.
    long long fullFrames = 0;
    long long notRecords = 0;

    static void cb(int type, char* data, int length, void* user)
    {
        auto* self = static_cast<Receiver*>(user);
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
        // A frame is counted together with what became of it.
        std::lock_guard<std::mutex> lock(self->mutex);
        self->count.add(type, length);
        if (!isFramePacket(type))
            return;
        self->notRecords += record == nullptr ? 1 : 0;
        self->saved += wrote ? 1 : 0;
        if (!error.empty() && self->saveError.empty())
            self->saveError = error;
    }

    StreamFigures figures(const UsageMeter& meter)
    {
        const FrameCount::Totals t = count.totals();
        return {t.frames, t.bytes, meter.seconds(), meter.cpuPercent()};
    }

    bool wentOffline() { return count.totals().offlineEvents > 0; }
};

// Receives for the options' time (or until Ctrl-C or the head going offline), prints the
// counters and the summary.
int receive(const Options& o, ztDeviceCommandSet& device, Receiver& receiver, const SimStream* sim)
{
    if (sim != nullptr)
        sim->start();
    const bool counters = stdoutIsTerminal() && !o.json;
    // The library's lines go above the counter line instead of into it.
    HeldLog log;
    log.release("", counters ? "\r\033[K" : "");
    if (startOrStop(device, o.start, true) < 0) {
        std::fprintf(stderr, "ztproxy: the head did not start its stream (%s failed)\n",
                     o.start == StreamStart::Trigger ? "sendTrigger" : "setScanStatus(1)");
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
    if (!offline)
        startOrStop(device, o.start, false);
    StreamFigures figures = receiver.figures(meter);
    long long dropped = -1;
    if (sim != nullptr) {
        dropped = sim->stopAndCountDropped([&] { return receiver.figures(meter).frames; });
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
        std::fputs(o.start == StreamStart::None ? "; does the head stream without --start trigger?\n" : "\n", stderr);
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

} // namespace

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
    Receiver receiver(o);
    HeadWork work;
    work.onData = &Receiver::cb;
    work.user = &receiver;
    work.online = [&](const OnlineHead& head) { return receive(o, head.device, receiver, head.sim); };
    return runOnHead(o.head, work, programArgv);
}

} // namespace zt::tools
