#include "record_command.h"

#include "command_run.h"
#include "head_session.h"
#include "stream_view.h"
#include "ztDeviceCommandSet.h"
#include "ztRecorder.h"

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

struct Options {
    bool help = false;
    HeadOptions head;
    std::string out;
    long long seconds = 10;
    long long queueMb = 256;
    StreamStart start = StreamStart::None;
};

bool parse(int argc, char** argv, Options& o, std::string& error)
{
    std::string seconds, queue, start;
    const CommandOptions own{
        false, {}, {{"--out", &o.out}, {"--seconds", &seconds}, {"--queue-mb", &queue}, {"--start", &start}}};
    if (!readCommandOptions("record", argc, argv, o.head, own, o.help, error))
        return false;
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
    if (!parseStreamStart(start, o.start)) {
        error = "record: --start takes trigger or scan, not '" + start + "'";
        return false;
    }
    if (!o.head.resolve("record", "give one source: --local IP --remote IP, or --vid V --pid P", error))
        return false;
    if (o.out.empty()) {
        error = "record: --out FILE is needed";
        return false;
    }
    return true;
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
    if (startOrStop(device, o.start, true) < 0)
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
    HeadWork work;
    work.recorder = &recorder;
    work.online = [&](const OnlineHead& head) { return record(o, head.device, recorder); };
    return finish(recorder, o, runOnHead(o.head, work, nullptr));
}

} // namespace zt::tools
