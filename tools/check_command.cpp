#include "check_command.h"

#include "command_run.h"
#include "command_values.h"
#include "device_commands.h"
#include "head_session.h"
#include "sim_presets.h"
#include "stream_view.h"

#include <chrono>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

namespace zt::tools {

namespace {

const char* const kCheckUsage =
    "usage: ztproxy check SOURCE [--seconds N] [--json]\n"
    "\n"
    "Tells whether a head works: brings it online, runs every query of the command set (the\n"
    "commands that change nothing on the head: getters, versions, serial numbers, the\n"
    "ability record, temperatures), listens to its stream for N seconds and prints a table:\n"
    "each query with its result, the time it took and its value; then the frames received\n"
    "and dropped, and the times the head went offline. A failed query is marked FAILED and\n"
    "named again at the end.\n"
    "\n"
    "sources:\n"
    "  --sim-net              a simulated network head in this process on 127.0.0.1:42001,\n"
    "                         which streams 100 full frames a second while the tool listens\n"
#ifdef ZT_WITH_USB
    "  --sim-usb              the emulated USB head in this process, streaming the same (it\n"
    "                         needs umockdev's preload, which the tool sets by running\n"
    "                         itself again)\n"
#endif
    "  --local IP --remote IP a network head (port 42001), connecting from IP [--sn SN]\n"
#ifdef ZT_WITH_USB
    "  --vid V --pid P        a USB head by hexadecimal ids [--serial S]\n"
#endif
    "\n"
    "options:\n"
    "  --seconds N            how long to listen to the stream (default 3); a real head\n"
    "                         streams only if it was started otherwise: check sends nothing\n"
    "                         that starts it\n"
    "  --json                 print the whole as one JSON object\n"
    "  -h, --help             show this help\n"
    "\n"
    "presets of the simulated heads (--sim-net; --sim-usb without --delay), to see how\n"
    "failures look:\n";

const char* const kCheckStatus =
    "\n"
    "exit status: 0 when every query answered, no frame of a simulated head was dropped and\n"
    "the head stayed online; 1 otherwise; 2 on a usage error; 3 when the head did not come\n"
    "online or the USB device could not be opened; 130 when interrupted.\n";

constexpr long long kDefaultSeconds = 3;

struct Options {
    bool help = false;
    bool json = false;
    HeadOptions head;
    long long seconds = kDefaultSeconds;
    SimPresets presets;
    bool anyPreset = false;
};

bool parse(int argc, char** argv, Options& o, std::string& error)
{
    std::string seconds;
    CommandOptions own{true, {{"--json", &o.json}}, {{"--seconds", &seconds}}};
    own.isOther = &isSimPresetOption;
    own.takeOther = [&](const std::string& option, const std::string& value, std::string& why) {
        o.anyPreset = true;
        return parseSimPreset("check", option, value, o.presets, why);
    };
    if (!readCommandOptions("check", argc, argv, o.head, own, o.help, error))
        return false;
    if (o.help)
        return true;
    if (!o.head.resolve("check", "give one head: --sim-net, --sim-usb, --local IP --remote IP, or --vid V --pid P",
                        error))
        return false;
    const HeadSource source = o.head.source;
    if (o.anyPreset && source != HeadSource::SimNet && source != HeadSource::SimUsb) {
        error = "check: --set, --status, --no-reply and --delay shape a simulated head: give --sim-net or --sim-usb";
        return false;
    }
    if (source == HeadSource::SimUsb && o.presets.delayMs >= 0) {
        error = "check: --delay: the emulated USB head does not delay its replies (--sim-net does)";
        return false;
    }
    std::string why;
    int n = 0;
    if (!seconds.empty() && (!parseArgument(seconds, n, why) || n < 1 || n > 3600)) {
        error = "check: --seconds '" + seconds + "' is not a whole number from 1 to 3600";
        return false;
    }
    if (!seconds.empty())
        o.seconds = n;
    return true;
}

// The data callback of the check: replies the queries hand over go to the command
// runner; frames and offline events are counted.
struct Watcher {
    CommandRunner runner;
    FrameCount count;

    static void cb(int type, char* data, int length, void* user)
    {
        auto* self = static_cast<Watcher*>(user);
        CommandRunner::onData(type, data, length, &self->runner);
        self->count.add(type, length);
    }
};

struct Row {
    std::string command;
    int result;
    double ms;
    std::vector<OutputValue> outputs;
    bool failed() const { return resultStatus(result) != 0; }
};

struct Report {
    std::vector<Row> rows;
    StreamFigures stream;
    long long dropped = -1; // unknown for a real head
    int offlineEvents = 0;
};

void runQueries(DeviceLink link, const CommandTarget& target, Watcher& watcher, Report& report)
{
    for (const std::string& name : queryCommands(link)) {
        if (wasInterrupted())
            return;
        PreparedCommand command;
        std::string error;
        prepareDeviceCommand(link, {name}, command, error); // a query takes no argument: it always prepares
        std::vector<OutputValue> outputs;
        const auto begin = std::chrono::steady_clock::now();
        const int result = watcher.runner.collect(command, target, outputs);
        const std::chrono::duration<double, std::milli> took = std::chrono::steady_clock::now() - begin;
        report.rows.push_back({name, result, took.count(), std::move(outputs)});
    }
}

void listen(long long seconds, Watcher& watcher, const SimStream* sim, Report& report)
{
    // Replies to the queries are no frames, but a real head may already be streaming.
    const FrameCount::Totals before = watcher.count.totals();
    if (sim != nullptr)
        sim->start();
    const UsageMeter meter;
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (!wasInterrupted() && std::chrono::steady_clock::now() < end)
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    const double listened = meter.seconds();
    const double cpu = meter.cpuPercent();
    if (sim != nullptr)
        report.dropped = sim->stopAndCountDropped([&] { return watcher.count.totals().frames - before.frames; });
    const FrameCount::Totals after = watcher.count.totals();
    report.stream = {after.frames - before.frames, after.bytes - before.bytes, listened, cpu};
    report.offlineEvents = after.offlineEvents;
}

std::vector<std::string> failures(const Report& report)
{
    std::vector<std::string> failed;
    for (const Row& row : report.rows)
        if (row.failed())
            failed.push_back(row.command);
    return failed;
}

std::string joined(const std::vector<std::string>& words)
{
    std::string text;
    for (const std::string& w : words)
        text += (text.empty() ? "" : ", ") + w;
    return text;
}

void printPlain(const Report& report)
{
    std::printf("%-26s %7s %10s  %s\n", "command", "result", "time", "value");
    for (const Row& row : report.rows) {
        std::string value;
        for (const OutputValue& o : row.outputs)
            value += (value.empty() ? "" : "  ") + o.name + "=" + o.text;
        if (row.failed())
            value = "FAILED";
        std::printf("%-26s %7d %7.1f ms  %s\n", row.command.c_str(), row.result, row.ms, value.c_str());
    }
    const std::string dropped = report.dropped < 0 ? "- (known for simulated heads only)" : std::to_string(report.dropped);
    std::printf("stream: %s\n", report.stream.text().c_str());
    std::printf("frames received %lld, dropped %s\n", report.stream.frames, dropped.c_str());
    std::printf("offline events: %d\n", report.offlineEvents);
    const std::vector<std::string> failed = failures(report);
    const std::string named = failed.empty() ? "" : " (" + joined(failed) + ")";
    std::printf("queries: %zu answered, %zu failed%s\n", report.rows.size() - failed.size(), failed.size(),
                named.c_str());
}

void printJson(const char* link, const Report& report, bool ok)
{
    std::string json = std::string("{\"link\":\"") + link + "\",\"commands\":[";
    for (std::size_t i = 0; i < report.rows.size(); ++i) {
        const Row& row = report.rows[i];
        char ms[32];
        std::snprintf(ms, sizeof ms, "%.3f", row.ms);
        json += std::string(i > 0 ? "," : "") + "{\"command\":" + jsonString(row.command) +
                ",\"result\":" + std::to_string(row.result) + ",\"ok\":" + (row.failed() ? "false" : "true") +
                ",\"ms\":" + ms + ",\"values\":{";
        for (std::size_t k = 0; k < row.outputs.size(); ++k)
            json += (k > 0 ? "," : "") + jsonString(row.outputs[k].name) + ":" + row.outputs[k].json;
        json += "}}";
    }
    const StreamFigures& s = report.stream;
    char stream[256];
    std::snprintf(stream, sizeof stream,
                  "{\"seconds\":%.3f,\"frames\":%lld,\"bytes\":%lld,\"frames_per_second\":%.1f,"
                  "\"megabytes_per_second\":%.1f,\"dropped\":%s}",
                  s.seconds, s.frames, s.bytes, s.framesPerSecond(), s.megabytesPerSecond(),
                  report.dropped < 0 ? "null" : std::to_string(report.dropped).c_str());
    json += std::string("],\"stream\":") + stream + ",\"offline_events\":" + std::to_string(report.offlineEvents) +
            ",\"failed\":[";
    const std::vector<std::string> failed = failures(report);
    for (std::size_t i = 0; i < failed.size(); ++i)
        json += (i > 0 ? "," : "") + jsonString(failed[i]);
    json += std::string("],\"ok\":") + (ok ? "true" : "false") + "}\n";
    std::fputs(json.c_str(), stdout);
}

// Runs the check on a head that is online and prints it; the exit status.
int check(const Options& o, const OnlineHead& head, Watcher& watcher)
{
    const DeviceLink link = head.link;
    Report report;
    runQueries(link, head.target, watcher, report);
    if (!wasInterrupted())
        listen(o.seconds, watcher, head.sim, report);
    if (wasInterrupted())
        return reportInterrupted();
    const std::vector<std::string> failed = failures(report);
    const bool ok = failed.empty() && report.offlineEvents == 0 && report.dropped <= 0;
    const char* linkName = link == DeviceLink::Network ? "network" : "usb";
    if (o.json)
        printJson(linkName, report, ok);
    else
        printPlain(report);
    std::fflush(stdout);
    if (!failed.empty())
        std::fprintf(stderr, "ztproxy: check: %zu of %zu queries failed: %s\n", failed.size(), report.rows.size(),
                     joined(failed).c_str());
    if (report.offlineEvents > 0)
        std::fprintf(stderr, "ztproxy: check: the head went offline %d times\n", report.offlineEvents);
    if (report.dropped > 0)
        std::fprintf(stderr, "ztproxy: check: %lld frames of the simulated head were dropped\n", report.dropped);
    return ok ? 0 : kFailedStatus;
}

} // namespace

int runCheckCommand(int argc, char** argv, char** programArgv)
{
    Options o;
    std::string error;
    if (!parse(argc, argv, o, error))
        return usageError(error);
    if (o.help) {
        std::fputs(kCheckUsage, stdout);
        printSimPresetHelp(stdout);
        std::fputs(kCheckStatus, stdout);
        return 0;
    }
    Watcher watcher;
    HeadWork work;
    work.onData = &Watcher::cb;
    work.user = &watcher;
    work.presets = &o.presets;
    work.sayInterrupted = true;
    work.online = [&](const OnlineHead& head) { return check(o, head, watcher); };
    return runOnHead(o.head, work, programArgv);
}

} // namespace zt::tools
