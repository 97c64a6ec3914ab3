#include "head_session.h"

#include "command_run.h"
#include "frame_record.h"
#include "net_command.h"
#include "sim_presets.h"
#include "ztDeviceCommandSet.h"
#include "ztEmbeddedModuleProxyServer.h"
#include "ztSimNetworkHead.h"
#ifdef ZT_WITH_USB
#include "usb_command.h"
#include "usb_emulation.h"
#include "ztSimUsbHead.h"
#include "ztUsbProxyServer.h"
#endif

#include <chrono>
#include <cstdio>
#include <memory>
#include <thread>

namespace zt::tools {

namespace {

constexpr double kSimFramesPerSecond = 100;
// After a simulated stream ends, frames still on their way get this long to arrive.
constexpr int kTailWaitMs = 2000;

// What a simulated head streams: full-frame packets of 1280 x 1024 pixels (some 30 ms to
// make, so only for a simulated head).
std::vector<char> simFramePacket(bool sim)
{
    return sim ? scanPacket(1280, 1024, 1) : std::vector<char>{};
}

// The server's part of runOnHead: the callback and recorder on, the head online, the work,
// all off again.
template <class Server>
int onServer(Server& server, const HeadWork& work, const std::function<bool()>& bringOnline,
             const OnlineHead& head)
{
    if (work.onData != nullptr)
        server.registerModuleServerDataCB(work.onData, work.user);
    if (work.recorder != nullptr)
        server.attachRecorder(work.recorder);
    int status = 0;
    if (!bringOnline())
        status = work.sayInterrupted && wasInterrupted() ? reportInterrupted() : kOfflineStatus;
    else
        status = work.online(head);
    server.deInit();
    if (work.recorder != nullptr)
        server.attachRecorder(nullptr);
    return status;
}

int onNetworkHead(const HeadOptions& h, const HeadWork& work)
{
    std::unique_ptr<ztSimNetworkHead> sim;
    if (h.source == HeadSource::SimNet) {
        sim = startSimNetworkHead(work.presets);
        if (!sim)
            return kOfflineStatus;
    }
    const std::string local = sim ? "127.0.0.1" : h.local;
    const std::string remote = sim ? "127.0.0.1" : h.remote;
    const std::vector<char> unit = simFramePacket(sim != nullptr);
    const SimStream stream{
        [&] {
            sim->startStream(ztSimNetworkHead::Data, unit, 0, static_cast<double>(unit.size()) * kSimFramesPerSecond);
        },
        [&] { sim->stopStream(); }, [&] { return static_cast<long long>(sim->streamedBytes() / unit.size()); }};
    int status = 0;
    {
        ztEmbeddedModuleProxyServer server;
        status = onServer(
            server, work, [&] { return bringNetworkHeadOnline(server, local, remote, h.sn); },
            {server, {&server, &server, nullptr}, DeviceLink::Network, sim ? &stream : nullptr});
    }
    if (sim)
        sim->stop();
    return status;
}

#ifdef ZT_WITH_USB
int onUsbHead(const HeadOptions& h, const HeadWork& work)
{
    std::unique_ptr<ztSimUsbHead> sim;
    if (h.source == HeadSource::SimUsb) {
        sim = startSimUsbHead();
        if (!sim)
            return kOfflineStatus;
        if (work.presets != nullptr)
            applySimPresets(*work.presets, *sim);
    }
    const std::vector<char> unit = simFramePacket(sim != nullptr);
    const SimStream stream{
        [&] { sim->startStream(unit, 0, static_cast<double>(unit.size()) * kSimFramesPerSecond); },
        [&] { sim->stopStream(); }, [&] { return static_cast<long long>(sim->streamedBytes() / unit.size()); }};
    int status = 0;
    {
        UsbHead usb;
        std::string error;
        if (!usb.open(h.usb, error)) {
            std::fprintf(stderr, "ztproxy: %s\n", error.c_str());
            status = kOfflineStatus;
        } else {
            ztUsbProxyServer server(usb.info(), usb.handle());
            status = onServer(
                server, work, [&] { return bringUsbHeadOnline(server, usb); },
                {server, {&server, nullptr, nullptr}, DeviceLink::Usb, sim ? &stream : nullptr});
        }
    }
    // Every handle on the emulated head is closed by now.
    if (sim)
        sim->stop();
    return status;
}
#endif

} // namespace

bool HeadOptions::resolve(const char* command, const char* choices, std::string& error)
{
    const bool net = !local.empty() || !remote.empty() || !sn.empty();
    const bool ids = !vid.empty() || !pid.empty() || !serial.empty();
    if (sims.size() + (net ? 1 : 0) + (ids ? 1 : 0) != 1) {
        error = std::string(command) + ": " + choices;
        return false;
    }
    source = !sims.empty() ? sims[0] : net ? HeadSource::Net : HeadSource::Usb;
    if (source == HeadSource::Net)
        return checkHeadAddresses(command, local, remote, error);
#ifdef ZT_WITH_USB
    if (source == HeadSource::SimUsb) {
        usb.vendor = ztSimUsbHead::kVendor;
        usb.product = ztSimUsbHead::kProduct;
    } else if (source == HeadSource::Usb) {
        usb.serial = serial;
        return parseUsbIds(command, vid, pid, usb, error);
    }
#else
    if (source == HeadSource::SimUsb || source == HeadSource::Usb) {
        error = std::string(command) + ": this build has no USB link";
        return false;
    }
#endif
    return true;
}

bool readCommandOptions(const char* command, int argc, char** argv, HeadOptions& head, const CommandOptions& own,
                        bool& help, std::string& error)
{
    const std::pair<const char*, std::string*> headValues[] = {
        {"--local", &head.local}, {"--remote", &head.remote}, {"--sn", &head.sn},
        {"--vid", &head.vid},     {"--pid", &head.pid},       {"--serial", &head.serial},
    };
    for (int i = 0; i < argc; ++i) {
        const std::string arg = argv[i];
        bool* flag = arg == "-h" || arg == "--help" ? &help : nullptr;
        for (const auto& [name, field] : own.flags)
            flag = arg == name ? field : flag;
        if (flag != nullptr) {
            *flag = true;
            continue;
        }
        if (own.withSims && (arg == "--sim-net" || arg == "--sim-usb")) {
            head.sims.push_back(arg == "--sim-net" ? HeadSource::SimNet : HeadSource::SimUsb);
            continue;
        }
        std::string* value = nullptr;
        for (const auto& [name, field] : headValues)
            value = arg == name ? field : value;
        for (const auto& [name, field] : own.values)
            value = arg == name ? field : value;
        const bool other = value == nullptr && own.isOther != nullptr && own.isOther(arg);
        if (value == nullptr && !other) {
            error = std::string(command) + ": unknown option '" + arg + "' (see ztproxy " + command + " --help)";
            return false;
        }
        if (i + 1 >= argc) {
            error = std::string(command) + ": " + arg + " needs a value";
            return false;
        }
        if (value != nullptr)
            *value = argv[++i];
        else if (!own.takeOther(arg, argv[++i], error))
            return false;
    }
    return true;
}

bool parseStreamStart(const std::string& text, StreamStart& start)
{
    start = text == "trigger" ? StreamStart::Trigger : text == "scan" ? StreamStart::Scan : StreamStart::None;
    return start != StreamStart::None || text.empty();
}

int startOrStop(ztDeviceCommandSet& device, StreamStart start, bool on)
{
    switch (start) {
    case StreamStart::Trigger: return on ? device.sendTrigger() : device.sendStopTrigger();
    case StreamStart::Scan: return device.setScanStatus(on ? 1 : 0);
    case StreamStart::None: break;
    }
    return 0;
}

bool isFramePacket(int type)
{
    return type == 512 || type == 513 || type == 514 || type == 1280 || type == 1281;
}

void FrameCount::add(int type, int length)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (type == ZT_CODE_DEVICE_OFFLINE) {
        ++m_totals.offlineEvents;
    } else if (isFramePacket(type)) {
        ++m_totals.frames;
        m_totals.bytes += length;
    }
}

FrameCount::Totals FrameCount::totals()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_totals;
}

long long SimStream::stopAndCountDropped(const std::function<long long()>& arrived) const
{
    stop();
    const long long sent = framesSent();
    const auto tail = std::chrono::steady_clock::now() + std::chrono::milliseconds(kTailWaitMs);
    long long got = arrived();
    while (got < sent && std::chrono::steady_clock::now() < tail) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        got = arrived();
    }
    return sent > got ? sent - got : 0;
}

int runOnHead(const HeadOptions& head, const HeadWork& work, char** programArgv)
{
#ifdef ZT_WITH_USB
    if (head.source == HeadSource::SimUsb && !usbEmulationPreloaded())
        return runAgainWithUsbEmulation(programArgv);
    catchInterrupts();
    if (head.source == HeadSource::SimUsb || head.source == HeadSource::Usb)
        return onUsbHead(head, work);
#else
    (void)programArgv;
    catchInterrupts();
#endif
    return onNetworkHead(head, work);
}

} // namespace zt::tools
