#include "record_command.h"

#include "command_run.h"
#include "net_command.h"
#include "stream_view.h"
#include "ztEmbeddedModuleProxyServer.h"
#include "ztRecorder.h"
#ifdef ZT_WITH_USB
#include "usb_command.h"
#include "usb_open.h"
#include "ztUsbProxyServer.h"
#endif

#include <charconv>
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>

namespace zt::tools {

namespace {

const char* const kRecordUsage =
    "usage: ztproxy record SOURCE --out FILE [--seconds N] [--start trigger|scan] [--queue-mb N]\n"
    "\n"
    "Records a head's session into FILE: every byte on the link in both directions with its\n"
    "connection (network) or endpoint (USB) and a time stamp, every command with its reply\n"
    "and result, and a header with the link, the library version, the head's serial number\n"
    "and ability record. The recording starts before the head is brought online and ends\n"
    "after N seconds or at Ctrl-C; either way the file is complete. A progress line shows\n"
    "the time, the records and bytes written and what was not recorded. Recording never\n"
    "holds the stream up: when the disk falls behind, what does not fit into the queue is\n"
    "counted as not recorded, noted in the file and reported at the end.\n"
    "Play the file back with ztproxy replay.\n"
    "\n"
    "sources:\n"
    "  --local IP --remote IP a network head (port 42001), connecting from IP [--sn SN]\n"
#ifdef ZT_WITH_USB
    "  --vid V --pid P        a USB head by hexadecimal ids [--serial S]\n"
#endif
    "\n"
    "options:\n"
    "  --out FILE             the recording (created or overwritten)\n"
    "  --seconds N            how long to record once the head is online (default 10)\n"
    "  --start trigger|scan   start the head's stream with sendTrigger or setScanStatus(1) once\n"
    "                         it is online, and stop it at the end\n"
    "  --queue-mb N           memory for records waiting for the disk (default 256)\n"
    "  -h, --help             show this help\n"
    "\n"
    "exit status: 0 when the recording ran (also when ended by Ctrl-C); 1 when the file cannot\n"
    "be written; 2 on a usage error; 3 when the head did not come online or the USB device\n"
    "could not be opened.\n";

constexpr int kRedrawMs = 250;

enum class Start { None, Trigger, Scan };

struct Options {
    bool help = false;
    std::string local, remote, sn;
    std::string vid, pid, serial;
    std::string out;
    long long seconds = 10;
    long long queueMb = 256;
    Start start = Start::None;
};

bool parseCount(const std::string& text, long long& value)
{
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    return ec == std::errc() && end == text.data() + text.size() && value > 0;
}

bool parse(int argc, char** argv, Options& o, std::string& error)
{
    std::string seconds, queue, start;
    for (int i = 0; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "-h" || arg == "--help") {
            o.help = true;
            continue;
        }
        std::string* value = arg == "--local"     ? &o.local
                             : arg == "--remote"  ? &o.remote
                             : arg == "--sn"      ? &o.sn
                             : arg == "--vid"     ? &o.vid
                             : arg == "--pid"     ? &o.pid
                             : arg == "--serial"  ? &o.serial
                             : arg == "--out"     ? &o.out
                             : arg == "--seconds" ? &seconds
                             : arg == "--queue-mb" ? &queue
                             : arg == "--start"   ? &start
                                                  : nullptr;
        if (value == nullptr) {
            error = "record: unknown option or argument '" + arg + "' (see ztproxy record --help)";
            return false;
        }
        if (i + 1 >= argc) {
            error = "record: " + arg + " needs a value";
            return false;
        }
        *value = argv[++i];
    }
    if (o.help)
        return true;
    if (!seconds.empty() && !parseCount(seconds, o.seconds)) {
        error = "record: --seconds needs a whole number above 0, not '" + seconds + "'";
        return false;
    }
    if (!queue.empty() && !parseCount(queue, o.queueMb)) {
        error = "record: --queue-mb needs a whole number above 0, not '" + queue + "'";
        return false;
    }
    if (start == "trigger")
        o.start = Start::Trigger;
    else if (start == "scan")
        o.start = Start::Scan;
    else if (!start.empty()) {
        error = "record: --start takes trigger or scan, not '" + start + "'";
        return false;
    }
    const bool net = !o.local.empty() || !o.remote.empty();
    const bool usb = !o.vid.empty() || !o.pid.empty();
    if (net == usb) {
        error = "record: give one source: --local IP --remote IP, or --vid V --pid P";
        return false;
    }
    if (o.out.empty()) {
        error = "record: --out FILE is needed";
        return false;
    }
    return !net || checkHeadAddresses("record", o.local, o.remote, error);
}

int startOrStop(ztDeviceCommandSet& device, Start start, bool on)
{
    return start == Start::Trigger ? (on ? device.sendTrigger() : device.sendStopTrigger())
                                   : device.setScanStatus(on ? 1 : 0);
}

std::string figures(const ztRecorder::Stats& s)
{
    char text[160];
    std::snprintf(text, sizeof text, "%llu records, %.1f MB, not recorded %llu (%.1f MB)", s.records,
                  static_cast<double>(s.bytes) / 1e6, s.notRecorded, static_cast<double>(s.notRecordedBytes) / 1e6);
    return text;
}

// Records for the options' time or until Ctrl-C, with a progress line, then stops the
// server and closes the file.
int record(const Options& o, ztDeviceCommandSet& device, ztRecorder& recorder)
{
    const bool progress = stdoutIsTerminal();
    HeldLog log;
    log.release("", progress ? "\r\033[K" : "");
    if (o.start != Start::None && startOrStop(device, o.start, true) < 0)
        std::fprintf(stderr, "ztproxy: the head did not start its stream (recording goes on)\n");
    const auto begin = std::chrono::steady_clock::now();
    const auto end = begin + std::chrono::seconds(o.seconds);
    while (!wasInterrupted() && std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(std::chrono::milliseconds(kRedrawMs));
        if (!progress)
            continue;
        const double gone = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
        std::printf("\r  recording %.1f s of %lld s: %s   ", gone, o.seconds, figures(recorder.stats()).c_str());
        std::fflush(stdout);
    }
    if (o.start != Start::None)
        startOrStop(device, o.start, false);
    return 0;
}

int finish(ztRecorder& recorder, const Options& o, int status)
{
    recorder.close();
    const ztRecorder::Stats s = recorder.stats();
    if (stdoutIsTerminal())
        std::printf("\n");
    std::printf("record: %s into %s%s\n", figures(s).c_str(), o.out.c_str(),
                wasInterrupted() ? " (interrupted; the file is complete)" : "");
    if (s.notRecorded > 0)
        std::fprintf(stderr, "ztproxy: %llu records (%llu bytes) were not recorded: the disk fell behind\n",
                     s.notRecorded, s.notRecordedBytes);
    return status;
}

int recordNetwork(const Options& o, ztRecorder& recorder)
{
    int status = 0;
    {
        ztEmbeddedModuleProxyServer server;
        server.attachRecorder(&recorder);
        if (!bringNetworkHeadOnline(server, o.local, o.remote, o.sn))
            status = kOfflineStatus;
        else
            status = record(o, server, recorder);
        server.deInit();
        server.attachRecorder(nullptr);
    }
    return finish(recorder, o, status);
}

#ifdef ZT_WITH_USB
int recordUsb(const Options& o, ztRecorder& recorder)
{
    UsbSelector which;
    which.serial = o.serial;
    std::string error;
    if (!parseUsbIds("record", o.vid, o.pid, which, error))
        return usageError(error);
    int status = 0;
    {
        UsbHead usb;
        if (!usb.open(which, error)) {
            std::fprintf(stderr, "ztproxy: %s\n", error.c_str());
            status = kOfflineStatus;
        } else {
            ztUsbProxyServer server(usb.info(), usb.handle());
            server.attachRecorder(&recorder);
            status = bringUsbHeadOnline(server, usb) ? record(o, server, recorder) : kOfflineStatus;
            server.deInit();
            server.attachRecorder(nullptr);
        }
    }
    return finish(recorder, o, status);
}
#endif

} // namespace

int runRecordCommand(int argc, char** argv)
{
    Options o;
    std::string error;
    if (!parse(argc, argv, o, error))
        return usageError(error);
    if (o.help) {
        std::fputs(kRecordUsage, stdout);
        return 0;
    }
    ztRecorder recorder(static_cast<std::size_t>(o.queueMb) << 20);
    if (recorder.open(o.out) != 0) {
        std::fprintf(stderr, "ztproxy: cannot write the recording '%s'\n", o.out.c_str());
        return kFailedStatus;
    }
    catchInterrupts();
#ifdef ZT_WITH_USB
    if (!o.vid.empty() || !o.pid.empty())
        return recordUsb(o, recorder);
#else
    if (!o.vid.empty() || !o.pid.empty())
        return usageError("record: this build has no USB link");
#endif
    return recordNetwork(o, recorder);
}

} // namespace zt::tools
