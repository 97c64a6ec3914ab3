// The device command set as command-line commands (ztproxy net|usb <command> [args]),
// and the module proxy host's requests (ztproxy module <request> [args]): one table per
// link names every command with its arguments and outputs, parses the arguments, makes the
// call and shows the result.
#pragma once

#include <cstdio>
#include <functional>
#include <string>
#include <vector>

class ztDeviceCommandSet;
class ztEmbeddedModuleProxyServer;
class ztModuleProxyServer;

namespace zt::tools {

enum class DeviceLink { Network, Usb, Module };

// What a command runs on: the device's command set and the network head's own commands
// (null where the link has none), or the module proxy host.
struct CommandTarget {
    ztDeviceCommandSet* device = nullptr;
    ztEmbeddedModuleProxyServer* network = nullptr;
    ztModuleProxyServer* host = nullptr;
};

// One output value of a command: its name, its plain text and its JSON value.
struct OutputValue {
    std::string name;
    std::string text;
    std::string json;
};

// A command whose arguments have been parsed. call makes the call and, when the result
// is 0, adds the command's output values.
struct PreparedCommand {
    std::string name;
    std::function<int(const CommandTarget&, std::vector<OutputValue>&)> call;
};

// Looks up words[0] among the commands of the link and parses the arguments that follow.
// false with a one-line message in error (without the program name) for an unknown
// command, a command the link does not offer, a wrong number of arguments or an argument
// that does not parse; the messages about arguments end with the command's usage.
bool prepareDeviceCommand(DeviceLink link, const std::vector<std::string>& words, PreparedCommand& out,
                          std::string& error);

// Plain text: "result: N", then one "name: value" line per output value.
std::string formatPlain(int result, const std::vector<OutputValue>& outputs);
// One JSON object on one line: {"command":..., "result":N, "name":value...}.
std::string formatJson(const std::string& command, int result, const std::vector<OutputValue>& outputs);

// The names of the link's queries, in table order: the commands without arguments that
// change nothing on the head (getters, versions, serial numbers, the ability record,
// temperatures).
std::vector<std::string> queryCommands(DeviceLink link);

// One usage line per command the link offers ("setCameraExposure EXPOSURE_US"), each
// after indent. detailed adds a column with the names of the output values
// ("-> width height") and marks the network head's own commands "(network only)".
void listDeviceCommands(DeviceLink link, std::FILE* out, const char* indent, bool detailed);

} // namespace zt::tools
