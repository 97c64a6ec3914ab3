#include "sim_presets.h"

#include "command_values.h"
#include "ztDeviceCommandSet.h"
#include "ztSimDevice.h"
#include "ztSimNetworkHead.h"
#ifdef ZT_WITH_USB
#include "ztSimUsbHead.h"
#endif

#include <optional>

namespace zt::tools {

namespace {

// The longest reply delay taken: beyond it every host has long given up.
constexpr int kLongestDelayMs = 60000;

// A device command by method name, or a type code; false with why not.
bool commandType(const std::string& text, unsigned short& type, std::string& why)
{
    const int named = ztDeviceCommandSet::commandTypeOf(text);
    if (named >= 0) {
        type = static_cast<unsigned short>(named);
        return true;
    }
    unsigned int code = 0;
    std::string unused;
    if (!text.empty() && text[0] >= '0' && text[0] <= '9' && parseArgument(text, code, unused) && code <= 0xFFFF) {
        type = static_cast<unsigned short>(code);
        return true;
    }
    why = "'" + text + "' is not a device command (a method name such as getCameraGain, or a type code from 0 to "
                       "65535)";
    return false;
}

std::optional<ztSimDevice::ValueKind> valueKind(unsigned short type)
{
    for (const ztSimDevice::ValueKind& k : ztSimDevice::valueKinds())
        if (k.queryType == type)
            return k;
    return std::nullopt;
}

std::string valueNames()
{
    std::string names;
    for (const ztSimDevice::ValueKind& k : ztSimDevice::valueKinds())
        for (const std::string& name : ztDeviceCommandSet::commandNamesOf(k.queryType))
            names += (names.empty() ? "" : ", ") + name;
    return names;
}

// "NAME=VALUE" into its halves, and the type of the device command NAME into item. false
// with why when there is no '=', NAME is empty (form says what was expected) or names no
// command.
bool splitPreset(const std::string& text, const char* form, std::string& name, std::string& value,
                 SimPresets::Item& item, std::string& why)
{
    const std::size_t eq = text.find('=');
    if (eq == std::string::npos || eq == 0) {
        why = "'" + text + "' is not " + form;
        return false;
    }
    name = text.substr(0, eq);
    value = text.substr(eq + 1);
    return commandType(name, item.type, why);
}

bool parseSet(const std::string& text, SimPresets& presets, std::string& why)
{
    std::string name, value;
    SimPresets::Item item{SimPresets::Item::Value, 0, 0, 0, 0};
    if (!splitPreset(text, "NAME=VALUE", name, value, item, why))
        return false;
    const std::optional<ztSimDevice::ValueKind> kind = valueKind(item.type);
    if (!kind) {
        why = name + " reports no value the simulated head keeps (those are: " + valueNames() + ")";
        return false;
    }
    bool ok = false;
    if (kind->isFloat) {
        item.kind = SimPresets::Item::FloatValue;
        ok = parseArgument(value, item.floatValue, why);
    } else if (kind->width == 8) {
        ok = parseArgument(value, item.value, why);
    } else if (!value.empty() && value[0] == '-') {
        int v = 0;
        ok = parseArgument(value, v, why);
        item.value = static_cast<unsigned int>(v);
    } else {
        unsigned int v = 0;
        ok = parseArgument(value, v, why);
        item.value = v;
    }
    if (!ok) {
        why = name + " value '" + value + "' " + why;
        return false;
    }
    presets.items.push_back(item);
    return true;
}

bool parseStatus(const std::string& text, SimPresets& presets, std::string& why)
{
    std::string name, code;
    SimPresets::Item item{SimPresets::Item::Status, 0, 0, 0, 0};
    if (!splitPreset(text, "NAME=CODE", name, code, item, why))
        return false;
    if (!parseArgument(code, item.status, why)) {
        why = "status code '" + code + "' " + why;
        return false;
    }
    presets.items.push_back(item);
    return true;
}

bool parseNoReply(const std::string& text, SimPresets& presets, std::string& why)
{
    SimPresets::Item item{SimPresets::Item::NoReply, 0, 0, 0, 0};
    if (!commandType(text, item.type, why))
        return false;
    presets.items.push_back(item);
    return true;
}

bool parseDelay(const std::string& text, SimPresets& presets, std::string& why)
{
    int ms = 0;
    if (!parseArgument(text, ms, why) || ms < 0 || ms > kLongestDelayMs) {
        why = "'" + text + "' is not a number of milliseconds from 0 to " + std::to_string(kLongestDelayMs);
        return false;
    }
    presets.delayMs = ms;
    return true;
}

struct PresetOption {
    const char* name;
    const char* form;
    const char* help;
    bool (*parse)(const std::string& text, SimPresets& presets, std::string& why);
};

constexpr PresetOption kOptions[] = {
    {"--set", "NAME=VALUE", "the value the head reports to the query NAME (see below)", parseSet},
    {"--status", "NAME=CODE", "answer NAME with a status reply of CODE (type 0): a setting\n"
                              "                      fails when CODE is negative, a query gets no value",
     parseStatus},
    {"--no-reply", "NAME", "leave NAME unanswered, so that the host's wait times out", parseNoReply},
    {"--delay", "MS", "send every reply MS milliseconds after its request", parseDelay},
};

template <class Head>
void applyReplies(const SimPresets& presets, Head& head)
{
    for (const SimPresets::Item& item : presets.items) {
        switch (item.kind) {
        case SimPresets::Item::Value: head.device().setValue(item.type, item.value); break;
        case SimPresets::Item::FloatValue: head.device().setFloatValue(item.type, item.floatValue); break;
        case SimPresets::Item::Status: head.setStatusReply(item.type, item.status); break;
        case SimPresets::Item::NoReply: head.setNoReply(item.type); break;
        }
    }
}

} // namespace

bool isSimPresetOption(const std::string& arg)
{
    for (const PresetOption& o : kOptions)
        if (arg == o.name)
            return true;
    return false;
}

bool parseSimPreset(const char* command, const std::string& option, const std::string& value, SimPresets& presets,
                    std::string& error)
{
    for (const PresetOption& o : kOptions) {
        if (option != o.name)
            continue;
        std::string why;
        if (o.parse(value, presets, why))
            return true;
        error = std::string(command) + ": " + o.name + " " + o.form + ": " + why;
        return false;
    }
    error = std::string(command) + ": unknown option '" + option + "'";
    return false;
}

void printSimPresetHelp(std::FILE* out)
{
    for (const PresetOption& o : kOptions) {
        const std::string usage = std::string(o.name) + " " + o.form;
        std::fprintf(out, "  %-20s%s\n", usage.c_str(), o.help);
    }
    std::fputs("  NAME is a device command's name (getCameraGain) or type code (19); each option may\n"
               "  be given many times. --set takes the number the reply carries (getImageSize: width\n"
               "  + 65536 x height; getFirmwareVersion: a byte a part, 0x01020A03 is 1-2-10-3) for:\n",
               out);
    // The names wrapped to lines of about 88 columns.
    std::string line = "   ";
    for (const ztSimDevice::ValueKind& k : ztSimDevice::valueKinds())
        for (const std::string& name : ztDeviceCommandSet::commandNamesOf(k.queryType)) {
            if (line.size() + name.size() > 86) {
                std::fprintf(out, "%s\n", line.c_str());
                line = "   ";
            }
            line += " " + name + (k.isFloat ? " (fraction)" : "");
        }
    std::fprintf(out, "%s\n", line.c_str());
}

void applySimPresets(const SimPresets& presets, ztSimNetworkHead& head)
{
    applyReplies(presets, head);
    if (presets.delayMs >= 0)
        head.setReplyDelay(presets.delayMs);
}

#ifdef ZT_WITH_USB
void applySimPresets(const SimPresets& presets, ztSimUsbHead& head)
{
    applyReplies(presets, head);
}
#endif

std::string commandNamesText(unsigned short type)
{
    const std::vector<std::string> names = ztDeviceCommandSet::commandNamesOf(type);
    if (names.empty())
        return "no device command";
    std::string text;
    for (std::size_t i = 0; i < names.size(); ++i)
        text += (i == 0 ? "" : i + 1 == names.size() ? " or " : ", ") + names[i];
    return text;
}

std::vector<std::string> describeSimPresets(const SimPresets& presets)
{
    std::vector<std::string> lines;
    for (const SimPresets::Item& item : presets.items) {
        std::string line = commandNamesText(item.type) + " (" + std::to_string(item.type) + "): ";
        switch (item.kind) {
        case SimPresets::Item::Value: line += "value " + show(item.value).text; break;
        case SimPresets::Item::FloatValue: line += "value " + show(item.floatValue).text; break;
        case SimPresets::Item::Status: line += "status reply " + std::to_string(item.status); break;
        case SimPresets::Item::NoReply: line += "no reply"; break;
        }
        lines.push_back(line);
    }
    if (presets.delayMs >= 0)
        lines.push_back("every reply " + std::to_string(presets.delayMs) + " ms after its request");
    return lines;
}

} // namespace zt::tools
