// What the commands that work with one head for a while (ztproxy stream, check and record)
// share: reading their options, the options that name the head, and bringing that head
// online around the command's own work.
#pragma once

#include "device_commands.h"
#ifdef ZT_WITH_USB
#include "usb_open.h"
#endif

#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

class ztDeviceCommandSet;
class ztRecorder;

namespace zt::tools {

struct SimPresets;

enum class HeadSource { None, SimNet, SimUsb, Net, Usb };

// The head the options name: --sim-net, --sim-usb, --local IP --remote IP [--sn SN] or
// --vid V --pid P [--serial S].
struct HeadOptions {
    HeadSource source = HeadSource::None;
    std::string local, remote, sn;
    std::string vid, pid, serial;
    std::vector<HeadSource> sims; // --sim-net and --sim-usb as given, when the command takes them
#ifdef ZT_WITH_USB
    UsbSelector usb; // the device to open, once resolved
#endif

    // Once every option is read: the one head named (choices is the message when none or
    // several are), its addresses or USB ids checked. false with a one-line message that
    // starts with command.
    bool resolve(const char* command, const char* choices, std::string& error);
};

// A command's own options besides -h/--help and the head's.
struct CommandOptions {
    CommandOptions(bool sims, std::vector<std::pair<const char*, bool*>> flagOptions,
                   std::vector<std::pair<const char*, std::string*>> valueOptions)
        : withSims(sims), flags(std::move(flagOptions)), values(std::move(valueOptions))
    {
    }

    bool withSims; // takes --sim-net and --sim-usb
    std::vector<std::pair<const char*, bool*>> flags;
    std::vector<std::pair<const char*, std::string*>> values;
    // Further options with a value, which may repeat: whether arg is one, and taking it.
    bool (*isOther)(const std::string& arg) = nullptr;
    std::function<bool(const std::string& option, const std::string& value, std::string& error)> takeOther;
};

// Reads the options (every word is one, or the value of one); help is set by -h or --help.
// false with a one-line message that starts with command on an unknown option, a missing
// value or what takeOther refuses.
bool readCommandOptions(const char* command, int argc, char** argv, HeadOptions& head, const CommandOptions& own,
                        bool& help, std::string& error);

// How a command starts the head's stream once it is online (--start trigger|scan): with
// sendTrigger or setScanStatus(1), and stops it with sendStopTrigger or setScanStatus(0).
enum class StreamStart { None, Trigger, Scan };
// "trigger", "scan", or empty for None; false for any other text.
bool parseStreamStart(const std::string& text, StreamStart& start);
// The command's result; 0 for None.
int startOrStop(ztDeviceCommandSet& device, StreamStart start, bool on);

// Whether a data callback of this type carries a frame (a packet of the image stream).
bool isFramePacket(int type);

// Frames (isFramePacket) and offline events seen by a data callback; any thread.
class FrameCount {
public:
    struct Totals {
        long long frames = 0;
        long long bytes = 0;
        int offlineEvents = 0;
    };
    void add(int type, int length);
    Totals totals();

private:
    std::mutex m_mutex;
    Totals m_totals;
};

// The stream of a simulated head: full frames of 1280 x 1024 pixels, 100 a second.
struct SimStream {
    std::function<void()> start;
    std::function<void()> stop;
    std::function<long long()> framesSent;

    // Stops the stream and waits up to 2 s for the frames still on their way (arrived()
    // counts those received so far). The frames that never came.
    long long stopAndCountDropped(const std::function<long long()>& arrived) const;
};

// The head, online.
struct OnlineHead {
    ztDeviceCommandSet& device;
    CommandTarget target;
    DeviceLink link;
    const SimStream* sim; // null for a real head
};

// What a command does around the head and with it.
struct HeadWork {
    // Registered on the server before it starts, when set.
    void (*onData)(int type, char* data, int length, void* user) = nullptr;
    void* user = nullptr;
    // Attached before the head is brought online and detached after the server stopped.
    ztRecorder* recorder = nullptr;
    // Set on a simulated head.
    const SimPresets* presets = nullptr;
    // Ctrl-C while the head comes online ends with reportInterrupted(), not kOfflineStatus.
    bool sayInterrupted = false;
    // The command's work; its exit status.
    std::function<int(const OnlineHead&)> online;
};

// Runs the work on the head: with --sim-usb and without the USB emulation's preload, runs
// the program (programArgv) again with it; otherwise catches Ctrl-C, starts a simulated
// head, opens the USB device, starts the server and brings the head online, then takes it
// all down again. The work's exit status, or kOfflineStatus when the head could not be
// reached.
int runOnHead(const HeadOptions& head, const HeadWork& work, char** programArgv);

} // namespace zt::tools
