// Presets of a simulated head from the command line, so that a host's own code can be tried
// against chosen values, status replies, silences and slow replies: --set NAME=VALUE,
// --status NAME=CODE, --no-reply NAME and --delay MS. NAME is a device command's method
// name (getCameraGain) or its type code (19). ztproxy sim head and ztproxy check with a
// simulated head take them.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

class ztSimNetworkHead;
class ztSimUsbHead;

namespace zt::tools {

struct SimPresets {
    struct Item {
        enum Kind { Value, FloatValue, Status, NoReply } kind;
        unsigned short type;
        unsigned long long value; // Value: the value as the head keeps it
        float floatValue;         // FloatValue
        int status;               // Status
    };
    std::vector<Item> items;
    // Milliseconds every reply waits; -1 for none.
    int delayMs = -1;
};

// Whether arg is one of the preset options (each takes a value).
bool isSimPresetOption(const std::string& arg);

// Adds the preset that option and its value give. false with a one-line message that
// starts with command and names the bad part and what was expected.
bool parseSimPreset(const char* command, const std::string& option, const std::string& value, SimPresets& presets,
                    std::string& error);

// The options' help lines, and the names --set takes.
void printSimPresetHelp(std::FILE* out);

// Sets the presets on a head, in the order given. The emulated USB head has no reply
// delay: the caller refuses --delay for it.
void applySimPresets(const SimPresets& presets, ztSimNetworkHead& head);
#ifdef ZT_WITH_USB
void applySimPresets(const SimPresets& presets, ztSimUsbHead& head);
#endif

// One line per preset: "getCameraGain (19): status reply -3".
std::vector<std::string> describeSimPresets(const SimPresets& presets);

// The method names of the device commands with this type code, joined ("setCameraFrameRate
// or setPeriod"); "no device command" when none has it.
std::string commandNamesText(unsigned short type);

} // namespace zt::tools
