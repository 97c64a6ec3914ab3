#include "check_command.h"

#include "command_run.h"
#include "command_values.h"
#include "device_commands.h"
#include "net_command.h"
#include "sim_presets.h"
#include "stream_command.h"
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

constexpr int kHeadPort = ztSimNetworkHead::kDefaultPort;
constexpr long long kDefaultSeconds = 3;

enum class Source { None, SimNet, SimUsb, Net, Usb };

struct Options {
    bool help = false;
    bool json = false;
    Source source = Source::None;
    std::string local, remote, sn;
    std::string vid, pid, serial;
    long long seconds = kDefaultSeconds;
    SimPresets presets;
    bool anyPreset = false;
};

// The options that take a value, and where it goes.
struct ValueOption {
    const char* name;
    std::string Options::*field;
};
constexpr ValueOption kValueOptions[] = {
    {"--local", &Options::local}, {"--remote", &Options::remote}, {"--sn", &Options::sn},
    {"--vid", &Options::vid},     {"--pid", &Options::pid},       {"--serial", &Options::serial},
};

bool parse(int argc, char** argv, Options& o, std::string& error)
{
    std::vector<Source> sources;
    std::string seconds;
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
            sources.push_back(arg == "--sim-net" ? Source::SimNet : Source::SimUsb);
            continue;
        }
        std::string* value = arg == "--seconds" ? &seconds : nullptr;
        for (const ValueOption& v : kValueOptions)
            if (arg == v.name)
                value = &(o.*v.field);
        const bool preset = isSimPresetOption(arg);
        if (value == nullptr && !preset) {
            error = "check: unknown option '" + arg + "' (see ztproxy check --help)";
            return false;
        }
        if (i + 1 >= argc) {
            error = "check: " + arg + " needs a value";
            return false;
        }
        if (value != nullptr) {
            *value = argv[++i];
        } else {
            o.anyPreset = true;
            if (!parseSimPreset("check", arg, argv[++i], o.presets, error))
                return false;
        }
    }
    if (o.help)
        return true;
    const bool net = !o.local.empty() || !o.remote.empty() || !o.sn.empty();
    const bool usb = !o.vid.empty() || !o.pid.empty() || !o.serial.empty();
    if (sources.size() + (net ? 1 : 0) + (usb ? 1 : 0) != 1) {
        error = "check: give one head: --sim-net, --sim-usb, --local IP --remote IP, or --vid V --pid P";
        return false;
    }
    o.source = !sources.empty() ? sources[0] : net ? Source::Net : Source::Usb;
    if (o.source == Source::Net && !checkHeadAddresses("check", o.local, o.remote, error))
        return false;
#ifndef ZT_WITH_USB
    if (o.source == Source::SimUsb || o.source == Source::Usb) {
        error = "check: this build has no USB link";
        return false;
    }
#endif
    if (o.anyPreset && o.source != Source::SimNet && o.source != Source::SimUsb) {
        error = "check: --set, --status, --no-reply and --delay shape a simulated head: give --sim-net or --sim-usb";
        return false;
    }
    if (o.source == Source::SimUsb && o.presets.delayMs >= 0) {
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
    std::mutex mutex;
    long long frames = 0;
    long long bytes = 0;
    int offlineEvents = 0;

    static void cb(int type, char* data, int length, void* user)
    {
        auto* self = static_cast<Watcher*>(user);
        CommandRunner::onData(type, data, length, &self->runner);
        std::lock_guard<std::mutex> lock(self->mutex);
        if (type == ZT_CODE_DEVICE_OFFLINE) {
            ++self->offlineEvents;
        } else if (isFramePacket(type)) {
            ++self->frames;
            self->bytes += length;
        }
    }
    long long framesSoFar()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return frames;
    }
};

// A simulated head's stream, run while the check listens.
struct SimFeed {
    std::function<void(const std::vector<char>& unit)> start;
    std::function<void()> stop;
    std::function<std::size_t()> sentBytes;
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

void listen(long long seconds, Watcher& watcher, const SimFeed* feed, Report& report)
{
    long long framesBefore = 0;
    long long bytesBefore = 0;
    {
        // Replies to the queries are no frames, but a real head may already be streaming.
        std::lock_guard<std::mutex> lock(watcher.mutex);
        framesBefore = watcher.frames;
        bytesBefore = watcher.bytes;
    }
    const std::vector<char> unit = feed != nullptr ? simFramePacket() : std::vector<char>{};
    if (feed != nullptr)
        feed->start(unit);
    const UsageMeter meter;
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (!wasInterrupted() && std::chrono::steady_clock::now() < end)
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    const double listened = meter.seconds();
    const double cpu = meter.cpuPercent();
    if (feed != nullptr) {
        feed->stop();
        const auto sent = static_cast<long long>(feed->sentBytes() / unit.size());
        report.dropped = framesDropped(sent, [&] { return watcher.framesSoFar() - framesBefore; });
    }
    std::lock_guard<std::mutex> lock(watcher.mutex);
    report.stream = {watcher.frames - framesBefore, watcher.bytes - bytesBefore, listened, cpu};
    report.offlineEvents = watcher.offlineEvents;
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
int check(const Options& o, DeviceLink link, const CommandTarget& target, Watcher& watcher, const SimFeed* feed)
{
    Report report;
    runQueries(link, target, watcher, report);
    if (!wasInterrupted())
        listen(o.seconds, watcher, feed, report);
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

int checkNetwork(const Options& o)
{
    std::unique_ptr<ztSimNetworkHead> head;
    std::string local = o.local;
    std::string remote = o.remote;
    if (o.source == Source::SimNet) {
        local = remote = "127.0.0.1";
        head = std::make_unique<ztSimNetworkHead>(remote, kHeadPort);
        applySimPresets(o.presets, *head);
        if (head->start() != 0) {
            std::fprintf(stderr, "ztproxy: the simulated head cannot listen on %s:%d (in use?)\n", remote.c_str(),
                         kHeadPort);
            return kOfflineStatus;
        }
    }
    int status = 0;
    {
        Watcher watcher;
        ztEmbeddedModuleProxyServer server;
        server.registerModuleServerDataCB(&Watcher::cb, &watcher);
        const CommandTarget target{&server, &server, nullptr};
        if (!bringNetworkHeadOnline(server, local, remote, o.sn)) {
            status = wasInterrupted() ? reportInterrupted() : kOfflineStatus;
        } else if (head) {
            const SimFeed feed{
                [&](const std::vector<char>& unit) {
                    head->startStream(ztSimNetworkHead::Data, unit, 0,
                                      static_cast<double>(unit.size()) * kSimFramesPerSecond);
                },
                [&] { head->stopStream(); }, [&] { return head->streamedBytes(); }};
            status = check(o, DeviceLink::Network, target, watcher, &feed);
        } else {
            status = check(o, DeviceLink::Network, target, watcher, nullptr);
        }
        server.deInit();
    }
    if (head)
        head->stop();
    return status;
}

#ifdef ZT_WITH_USB
int checkUsb(const Options& o)
{
    UsbSelector which;
    if (o.source == Source::SimUsb) {
        which.vendor = ztSimUsbHead::kVendor;
        which.product = ztSimUsbHead::kProduct;
    } else {
        which.serial = o.serial;
        std::string error;
        if (!parseUsbIds("check", o.vid, o.pid, which, error))
            return usageError(error);
    }
    std::unique_ptr<ztSimUsbHead> head;
    if (o.source == Source::SimUsb) {
        head = std::make_unique<ztSimUsbHead>();
        if (head->start() != 0) {
            reportUsbEmulationMissing();
            return kOfflineStatus;
        }
        applySimPresets(o.presets, *head);
    }
    int status = 0;
    {
        UsbHead usb;
        std::string error;
        if (!usb.open(which, error)) {
            std::fprintf(stderr, "ztproxy: %s\n", error.c_str());
            status = kOfflineStatus;
        } else {
            Watcher watcher;
            ztUsbProxyServer server(usb.info(), usb.handle());
            server.registerModuleServerDataCB(&Watcher::cb, &watcher);
            const CommandTarget target{&server, nullptr, nullptr};
            if (!bringUsbHeadOnline(server, usb)) {
                status = wasInterrupted() ? reportInterrupted() : kOfflineStatus;
            } else if (head) {
                const SimFeed feed{
                    [&](const std::vector<char>& unit) {
                        head->startStream(unit, 0, static_cast<double>(unit.size()) * kSimFramesPerSecond);
                    },
                    [&] { head->stopStream(); }, [&] { return head->streamedBytes(); }};
                status = check(o, DeviceLink::Usb, target, watcher, &feed);
            } else {
                status = check(o, DeviceLink::Usb, target, watcher, nullptr);
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
#ifdef ZT_WITH_USB
    if (o.source == Source::SimUsb && !usbEmulationPreloaded())
        return runAgainWithUsbEmulation(programArgv);
    catchInterrupts();
    if (o.source == Source::SimUsb || o.source == Source::Usb)
        return checkUsb(o);
#else
    (void)programArgv;
    catchInterrupts();
#endif
    return checkNetwork(o);
}

} // namespace zt::tools
