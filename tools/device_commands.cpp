#include "device_commands.h"

#include "command_values.h"
#include "device_outputs.h"
#include "ztDeviceCommandSet.h"
#include "ztEmbeddedModuleProxyServer.h"
#include "ztModuleProxyServer.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <memory>
#include <tuple>
#include <type_traits>
#include <utility>

namespace zt::tools {

namespace {

// How a parameter of a command method takes part on the command line. Values and const
// references are arguments, parsed from the command line; pointers and other references
// are outputs, shown after the call. Held is what the tool keeps for the parameter.
template <class P>
struct Param {
    using Held = std::remove_cv_t<P>;
    static constexpr bool kOutput = false;
    // A prepared command runs once: its arguments are moved into the call.
    static P pass(Held& held) { return std::move(held); }
};
template <class T>
struct Param<const T&> {
    using Held = T;
    static constexpr bool kOutput = false;
    static const T& pass(Held& held) { return held; }
};
template <>
struct Param<const char*> {
    using Held = std::string;
    static constexpr bool kOutput = false;
    static const char* pass(Held& held) { return held.c_str(); }
};
template <class T>
struct Param<T*> {
    static_assert(!std::is_same_v<T, char>, "a char buffer is ambiguous: give the command an adapter");
    using Held = T;
    static constexpr bool kOutput = true;
    static T* pass(Held& held) { return &held; }
};
template <class T>
struct Param<T&> {
    using Held = T;
    static constexpr bool kOutput = true;
    static T& pass(Held& held) { return held; }
};

// Output values: one per output parameter, a record as one value per field.
template <class T>
void emit(std::vector<OutputValue>& out, const std::string& name, const T& value)
{
    const Shown shown = show(value);
    out.push_back({name, shown.text, shown.json});
}

// The fields of the heartbeat record that the host reads; the rest is the module's own.
void emit(std::vector<OutputValue>& out, const std::string& name, const _ZT_HEARTBEAT_INFO_& h)
{
    emit(out, name + ".deviceStatus", static_cast<int>(h.deviceStatus));
    emit(out, name + ".deviceCount", static_cast<int>(h.deviceCount));
    emit(out, name + ".timestamp", static_cast<unsigned long long>(h.timestamp));
}

void emit(std::vector<OutputValue>& out, const std::string& name, const DeviceAbilityInfo& a)
{
    const std::pair<const char*, unsigned int> fields[] = {
        {"abilityHeader", a.abilityHeader}, {"productType", a.productType}, {"ability2", a.ability2},
        {"ability3", a.ability3},           {"ability4", a.ability4},       {"ability5", a.ability5},
        {"ability6", a.ability6},           {"ability7", a.ability7},       {"ability8", a.ability8},
        {"ability9", a.ability9},           {"ability10", a.ability10},     {"ability11", a.ability11},
    };
    for (const auto& [field, value] : fields)
        emit(out, name + "." + field, value);
}

std::vector<std::string> splitWords(const char* text)
{
    std::vector<std::string> words;
    std::string word;
    for (const char* p = text;; ++p) {
        if (*p == ' ' || *p == '\0') {
            if (!word.empty())
                words.push_back(word);
            word.clear();
            if (*p == '\0')
                return words;
        } else {
            word += *p;
        }
    }
}

constexpr int countWords(const char* text)
{
    int words = 0;
    for (const char* p = text; *p != '\0'; ++p)
        if (*p != ' ' && (p == text || p[-1] == ' '))
            ++words;
    return words;
}

constexpr bool sameText(const char* a, const char* b)
{
    while (*a != '\0' && *a == *b) {
        ++a;
        ++b;
    }
    return *a == *b;
}

struct DeviceCommand {
    const char* name;
    const char* arguments; // one upper-case word per argument
    const char* outputs;   // one word per output value
    bool networkOnly;
    // Asks the head without changing anything on it and takes no argument: ztproxy check
    // runs every such command.
    bool query;
    int argumentCount;
    int outputCount;
    // Parses the arguments (their count is right): false with the reason and the index
    // of the argument that failed.
    bool (*prepare)(const DeviceCommand& row, const std::vector<std::string>& args, PreparedCommand& out,
                    std::string& why, std::size_t& failed);
};

template <class Self>
Self& targetOf(const CommandTarget& target)
{
    if constexpr (std::is_same_v<Self, ztEmbeddedModuleProxyServer>)
        return *target.network;
    else if constexpr (std::is_same_v<Self, ztModuleProxyServer>)
        return *target.host;
    else
        return *target.device;
}

// A command made from a method of Self (or an adapter taking Self&) with parameters P.
template <auto F, class Self, class... P>
struct Command {
    using Held = std::tuple<typename Param<P>::Held...>;
    static constexpr int kOutputs = (0 + ... + (Param<P>::kOutput ? 1 : 0));
    static constexpr int kArguments = static_cast<int>(sizeof...(P)) - kOutputs;

    template <std::size_t... I>
    static int call(Self& self, Held& held, std::index_sequence<I...>)
    {
        if constexpr (std::is_member_function_pointer_v<decltype(F)>)
            return (self.*F)(Param<P>::pass(std::get<I>(held))...);
        else
            return F(self, Param<P>::pass(std::get<I>(held))...);
    }

    template <class Pr, class H>
    static void parseOne(const std::vector<std::string>& args, H& value, std::size_t& next, bool& ok, std::string& why,
                         std::size_t& failed)
    {
        if constexpr (!Pr::kOutput) {
            if (!ok)
                return;
            failed = next;
            ok = parseArgument(args[next++], value, why);
        }
    }

    template <std::size_t... I>
    static bool parseArguments(const std::vector<std::string>& args, Held& held, std::string& why,
                               std::size_t& failed, std::index_sequence<I...>)
    {
        [[maybe_unused]] std::size_t next = 0; // unused by commands without arguments or outputs
        bool ok = true;
        (parseOne<Param<P>>(args, std::get<I>(held), next, ok, why, failed), ...);
        return ok;
    }

    template <class Pr, class H>
    static void showOne(const std::vector<std::string>& names, const H& value, std::size_t& next,
                        std::vector<OutputValue>& out)
    {
        if constexpr (Pr::kOutput)
            emit(out, names[next++], value);
    }

    template <std::size_t... I>
    static void showOutputs(const std::vector<std::string>& names, const Held& held, std::vector<OutputValue>& out,
                            std::index_sequence<I...>)
    {
        [[maybe_unused]] std::size_t next = 0; // unused by commands without arguments or outputs
        (showOne<Param<P>>(names, std::get<I>(held), next, out), ...);
    }

    static bool prepare(const DeviceCommand& row, const std::vector<std::string>& args, PreparedCommand& out,
                        std::string& why, std::size_t& failed)
    {
        auto held = std::make_shared<Held>();
        if (!parseArguments(args, *held, why, failed, std::index_sequence_for<P...>{}))
            return false;
        out.name = row.name;
        out.call = [held, names = splitWords(row.outputs)](const CommandTarget& target, std::vector<OutputValue>& values) {
            const int result = call(targetOf<Self>(target), *held, std::index_sequence_for<P...>{});
            if (result == 0)
                showOutputs(names, *held, values, std::index_sequence_for<P...>{});
            return result;
        };
        return true;
    }
};

template <class Self, class... P>
struct Signature {};
template <class Self, class... P>
Signature<Self, P...> signatureOf(int (Self::*)(P...));
template <class Self, class... P>
Signature<Self, P...> signatureOf(int (*)(Self&, P...));

template <auto F, class Self, class... P>
constexpr DeviceCommand makeRow(const char* name, const char* arguments, const char* outputs, bool query,
                                Signature<Self, P...>)
{
    using C = Command<F, Self, P...>;
    return {name,
            arguments,
            outputs,
            std::is_same_v<Self, ztEmbeddedModuleProxyServer>,
            query,
            C::kArguments,
            C::kOutputs,
            &C::prepare};
}

// The row of a method (or adapter) F; the command is named after it, letter for letter.
#define ZT_COMMAND(scope, method, arguments, outputs)                                                                  \
    makeRow<&scope::method>(#method, arguments, outputs, false, decltype(signatureOf(&scope::method)){})
// The row of a query: a command without arguments that changes nothing on the head.
#define ZT_QUERY(scope, method, outputs)                                                                               \
    makeRow<&scope::method>(#method, "", outputs, true, decltype(signatureOf(&scope::method)){})

// Commands whose methods take a buffer and its length, or give their answer otherwise
// than through an output parameter, are called through these.
namespace adapter {

using device_outputs::getCameraROI;
using device_outputs::getCurDeviceAbilityInfo;
using device_outputs::getWifi;

int setCameraROI(ztDeviceCommandSet& d, ShortText name, short x, short y, short width, short height)
{
    return d.setCameraROI(name.text.data(), static_cast<int>(name.text.size()), x, y, width, height);
}

int setCameraReverse(ztDeviceCommandSet& d, ShortText name, int value)
{
    return d.setCameraReverse(name.text.data(), static_cast<int>(name.text.size()), value);
}

// The head takes a[0], a[2], b[0] and b[2]; a[1] and b[1] do not travel.
int setQRBarCenter(ztDeviceCommandSet& d, ShortText name, bool flag, int a0, int a2, int b0, int b2)
{
    int a[3] = {a0, 0, a2};
    int b[3] = {b0, 0, b2};
    return d.setQRBarCenter(name.text.data(), static_cast<int>(name.text.size()), flag, a, b);
}

int setRegisterValue(ztDeviceCommandSet& d, int device, unsigned int address, HexBytes data)
{
    return d.setRegisterValue(device, address, static_cast<int>(data.bytes.size()), data.bytes.data());
}

int setWifi(ztDeviceCommandSet& d, ShortText ssid, ShortText password)
{
    return d.setWifi(ssid.text.data(), static_cast<int>(ssid.text.size()), password.text.data(),
                     static_cast<int>(password.text.size()));
}

int sendSETFile(ztDeviceCommandSet& d, FileBytes file)
{
    return d.sendSETFile(file.bytes.data(), file.bytes.size());
}

int sendRGFFile(ztDeviceCommandSet& d, FileBytes file)
{
    return d.sendRGFFile(file.bytes.data(), file.bytes.size());
}

int sendLightpenSETFile(ztDeviceCommandSet& d, FileBytes file)
{
    return d.sendLightpenSETFile(file.bytes.data(), file.bytes.size());
}

int updateFirmware(ztDeviceCommandSet& d, FileBytes file)
{
    return d.updateFirmware(file.bytes.data(), file.bytes.size());
}

} // namespace adapter

// The module proxy host's requests that take a block of bytes.
namespace host_adapter {

using Host = ztModuleProxyServer;

#define ZT_BYTES_REQUEST(method)                                                                                       \
    int method(Host& h, FileBytes file)                                                                                \
    {                                                                                                                  \
        return h.method(file.bytes.data(), static_cast<unsigned int>(file.bytes.size()));                              \
    }
ZT_BYTES_REQUEST(addObjectMP)
ZT_BYTES_REQUEST(resetScanMK)
ZT_BYTES_REQUEST(setScannerModel)
ZT_BYTES_REQUEST(sendHoleHighAccuracySpaceInfo)
ZT_BYTES_REQUEST(sendCurrent2WorldPose)
ZT_BYTES_REQUEST(sendTrackPose)
ZT_BYTES_REQUEST(sendEdgePointsInfo)
#undef ZT_BYTES_REQUEST

#define ZT_CALIBRATION_REQUEST(method)                                                                                 \
    int method(Host& h, const std::string& name, const std::string& path, FileBytes file)                              \
    {                                                                                                                  \
        return h.method(name, path, file.bytes.data(), static_cast<unsigned int>(file.bytes.size()));                  \
    }
ZT_CALIBRATION_REQUEST(setScannerClbFile)
ZT_CALIBRATION_REQUEST(setLPClbFile)
ZT_CALIBRATION_REQUEST(setTrackerClbFile)
#undef ZT_CALIBRATION_REQUEST

int setScanRange(Host& h, double a, double b, double c)
{
    double range[3] = {a, b, c};
    return h.setScanRange(range);
}

} // namespace host_adapter

using Set = ztDeviceCommandSet;
using Net = ztEmbeddedModuleProxyServer;

constexpr DeviceCommand kCommands[] = {
    // Trigger, scan and synchronisation.
    ZT_COMMAND(Set, sendTrigger, "", ""),
    ZT_COMMAND(Set, sendStopTrigger, "", ""),
    ZT_COMMAND(Set, sendPreTrigger, "", ""),
    ZT_QUERY(Set, getTriggerMode, "mode"),
    ZT_COMMAND(Set, setScanStatus, "STATUS", ""),
    ZT_COMMAND(Set, setScanDataSource, "SOURCE", ""),
    ZT_QUERY(Set, getScanDataSource, "source"),
    ZT_COMMAND(Set, execSync, "START WAIT", ""),
    ZT_COMMAND(Set, updateSyncStat, "", ""),
    ZT_COMMAND(Set, setHardwareSyncMode, "MODE", ""),
    ZT_QUERY(Set, getHardwareSyncMode, "mode"),
    ZT_COMMAND(Set, setMaster, "MASTER", ""),
    ZT_QUERY(Set, getMaster, "master"),
    ZT_COMMAND(Set, setSystemId, "SYSTEM_ID", ""),
    ZT_QUERY(Set, getSystemId, "systemId"),
    ZT_QUERY(Set, getBandWidth, "bandWidth"),
    // Camera, exposure and frame rate.
    ZT_COMMAND(Set, setCameraExposure, "EXPOSURE_US", ""),
    ZT_QUERY(Set, getCameraExposure, "exposure"),
    ZT_COMMAND(Set, setLedExposure, "EXPOSURE_US", ""),
    ZT_QUERY(Set, getLedExposure, "exposure"),
    ZT_COMMAND(Set, setCameraGain, "GAIN", ""),
    ZT_QUERY(Set, getCameraGain, "gain"),
    ZT_COMMAND(Set, setCameraFrameRate, "FPS", ""),
    ZT_QUERY(Set, getCameraFrameRate, "fps"),
    ZT_COMMAND(Set, setPeriod, "PERIOD_MS", ""),
    ZT_QUERY(Set, getPeriod, "periodMs"),
    ZT_COMMAND(adapter, setCameraROI, "NAME X Y WIDTH HEIGHT", ""),
    ZT_QUERY(adapter, getCameraROI, "name x y width height"),
    ZT_COMMAND(adapter, setCameraReverse, "NAME VALUE", ""),
    ZT_COMMAND(Set, setImageROI, "NAME X Y WIDTH HEIGHT", ""),
    ZT_QUERY(Set, getImageSize, "width height"),
    ZT_COMMAND(Set, resetCamera, "", ""),
    ZT_COMMAND(Set, setDropFrameRateMode, "MODE", ""),
    ZT_COMMAND(Set, setLaserTriggerMode, "MODE", ""),
    ZT_COMMAND(Set, setDeviceDropFrame, "A B C D E F", ""),
    ZT_COMMAND(Net, switchHardwareFrameRate, "TYPE", ""),
    ZT_QUERY(Net, getHardwareFrameRateType, "type"),
    ZT_COMMAND(adapter, setQRBarCenter, "NAME FLAG A0 A2 B0 B2", ""),
    // Light, laser, light pen and housekeeping.
    ZT_COMMAND(Set, sendLightCMD, "COMMAND", ""),
    ZT_COMMAND(Set, sendLazerCMD, "COMMAND CHANNEL VALUE", ""),
    ZT_COMMAND(Set, enableAlarmVoice, "ENABLE", ""),
    ZT_COMMAND(Set, sendIsBlackObject, "BLACK", ""),
    ZT_COMMAND(Set, setLightPenEnable, "ENABLE", ""),
    ZT_COMMAND(Set, SetLightpenType, "TYPE", ""),
    ZT_COMMAND(Set, sendGetLPFindList, "", ""),
    ZT_COMMAND(Set, sendLPSelectInfo, "SN VALUE", ""),
    ZT_COMMAND(Set, getLightpenVersion, "SN", "version"),
    ZT_COMMAND(Set, preheatRK, "VALUE", ""),
    ZT_COMMAND(Net, preheatRKWithTrigger, "VALUE", ""),
    ZT_COMMAND(Set, setHybridComputeNum2RK, "COUNT", ""),
    ZT_COMMAND(Set, syncTime2Device, "TIME", ""),
    ZT_QUERY(Net, getTemp, ""),
    ZT_COMMAND(Set, rebootDevice, "", ""),
    ZT_COMMAND(Set, redetectNetworkCard30, "", ""),
    ZT_QUERY(Set, getCameraSN, "sns"),
    ZT_QUERY(Set, getDeviceAbilityInfo, "ability"),
    ZT_QUERY(adapter, getCurDeviceAbilityInfo, "ability"),
    ZT_QUERY(Set, getFirmwareVersion, "version"),
    ZT_QUERY(Set, getFirmwareDate, "date"),
    ZT_QUERY(Set, getRKProgramVersion, "major minor revision build"),
    // Registers and network settings.
    ZT_COMMAND(Set, setIntegerRegisterValue, "NAME VALUE", ""),
    ZT_COMMAND(Set, getIntegerRegisterValue, "NAME", "value"),
    ZT_COMMAND(Set, setEnumerationRegisterValue, "NAME VALUE", ""),
    ZT_COMMAND(Set, getEnumerationRegisterValue, "NAME", "value"),
    ZT_COMMAND(Set, readRegisterValue, "DEVICE ADDRESS LENGTH", ""),
    ZT_COMMAND(adapter, setRegisterValue, "DEVICE ADDRESS HEX_BYTES", ""),
    ZT_COMMAND(adapter, setWifi, "SSID PASSWORD", ""),
    ZT_QUERY(adapter, getWifi, "ssid password"),
    ZT_COMMAND(Set, reconnectWIFI, "SSID", ""),
    // Files, firmware and logs.
    ZT_COMMAND(Set, getSETFile, "DATA_TYPE", ""),
    ZT_COMMAND(adapter, sendSETFile, "FILE", ""),
    ZT_COMMAND(adapter, sendRGFFile, "FILE", ""),
    ZT_COMMAND(Net, getRGFFile, "", ""),
    ZT_COMMAND(Set, getLPSETFile, "SN", ""),
    ZT_COMMAND(adapter, sendLightpenSETFile, "FILE", ""),
    ZT_COMMAND(adapter, updateFirmware, "FILE", ""),
    ZT_COMMAND(Set, getSectionalLog, "", ""),
    ZT_COMMAND(Set, getAllLog, "", ""),
};

using Host = ztModuleProxyServer;

// The host's requests to a device module, in the order of its class. Those that take
// tables of numbers (range levels, light-pen models) are left to programs.
constexpr DeviceCommand kRequests[] = {
    ZT_COMMAND(Host, sendUnRegister, "", ""),
    ZT_COMMAND(Host, sendStartDevice, "WORK", ""),
    ZT_COMMAND(Host, sendStopDevice, "", ""),
    ZT_COMMAND(Host, heartbeat, "", "heartbeat"),
    ZT_COMMAND(Host, sendPreTrigger, "", ""),
    ZT_COMMAND(Host, sendTrigger, "", ""),
    ZT_COMMAND(Host, setPeriod, "PERIOD_MS", ""),
    ZT_COMMAND(Host, getCanManualSync, "", "can"),
    ZT_COMMAND(Host, getCanWirelessSync, "", "can"),
    ZT_COMMAND(Host, setHardwareSyncMode, "MODE", ""),
    ZT_COMMAND(Host, getHardwareSyncMode, "", "mode"),
    ZT_COMMAND(Host, setMaster, "MASTER", ""),
    ZT_COMMAND(Host, getIsMaster, "", "master"),
    ZT_COMMAND(Host, updateSyncStat, "", ""),
    ZT_COMMAND(Host, execSync, "START WAIT", ""),
    ZT_COMMAND(Host, grabImage, "COUNT", ""),
    ZT_COMMAND(Host, startGrabbingImage, "", ""),
    ZT_COMMAND(Host, stopGrabbingImage, "", ""),
    ZT_COMMAND(Host, getFirmwareVersion, "", "version"),
    ZT_COMMAND(Host, getFirmwareVersion2, "", "major minor patch"),
    ZT_COMMAND(Host, setPlotEnable, "A B C D", ""),
    ZT_COMMAND(Host, setNeedUpload, "ENABLE", ""),
    ZT_COMMAND(Host, getVentoInfo, "", "info"),
    ZT_COMMAND(Host, getSystemId, "", "systemId"),
    ZT_COMMAND(Host, setScanHoleParam, "A B C", ""),
    ZT_COMMAND(Host, setSystemId, "SYSTEM_ID", ""),
    ZT_COMMAND(Host, setLedExposure, "EXPOSURE_US", ""),
    ZT_COMMAND(Host, getLedExposure, "", "exposure"),
    ZT_COMMAND(Host, setLZExposure, "EXPOSURE_US", ""),
    ZT_COMMAND(Host, getLZExposure, "", "exposure"),
    ZT_COMMAND(Host, setLightType, "TYPE", ""),
    ZT_COMMAND(Host, getLightType, "", "type"),
    ZT_COMMAND(Host, setLZType, "TYPE", ""),
    ZT_COMMAND(Host, getLZType, "", "type"),
    ZT_COMMAND(Host, setScanHeadMinDist, "DISTANCE", ""),
    ZT_COMMAND(Host, setLZOpen, "ENABLE", ""),
    ZT_COMMAND(Host, setScanMode, "A B", ""),
    ZT_COMMAND(Host, getIsBlackObject, "", "black"),
    ZT_COMMAND(Host, getIsHighLight, "", "high"),
    ZT_COMMAND(Host, setDeepHole, "ENABLE", ""),
    ZT_COMMAND(Host, getIsDeepHole, "", "deep"),
    ZT_COMMAND(Host, setRangeLevel, "LEVEL", ""),
    ZT_COMMAND(Host, getLZSingleFrameMaxCount, "", "count"),
    ZT_COMMAND(Host, getSupportedLight, "", "lights"),
    ZT_COMMAND(Host, setEnableVoice, "ENABLE", ""),
    ZT_COMMAND(Host, setLightLevel, "LEVEL", ""),
    ZT_COMMAND(Host, setScanDynamicStat, "A B", ""),
    ZT_COMMAND(Host, setLZExposureFull, "EXPOSURE_US", ""),
    ZT_COMMAND(Host, setLedExposureFull, "EXPOSURE_US", ""),
    ZT_COMMAND(host_adapter, setScanRange, "A B C", ""),
    ZT_COMMAND(host_adapter, addObjectMP, "FILE", ""),
    ZT_COMMAND(host_adapter, resetScanMK, "FILE", ""),
    ZT_COMMAND(host_adapter, setScannerModel, "FILE", ""),
    ZT_COMMAND(Host, setScanPosExposure, "EXPOSURE_US", ""),
    ZT_COMMAND(host_adapter, setScannerClbFile, "NAME PATH FILE", ""),
    ZT_COMMAND(Host, setLPCalibParam, "INDEX VALUE", ""),
    ZT_COMMAND(Host, doLPNeedleWork, "", ""),
    ZT_COMMAND(host_adapter, setLPClbFile, "NAME PATH FILE", ""),
    ZT_COMMAND(Host, setLPCanWork, "ENABLE TEXT", ""),
    ZT_COMMAND(Host, setLPWorkResult, "ENABLE TEXT", ""),
    ZT_COMMAND(host_adapter, setTrackerClbFile, "NAME PATH FILE", ""),
    ZT_COMMAND(host_adapter, sendHoleHighAccuracySpaceInfo, "FILE", ""),
    ZT_COMMAND(host_adapter, sendCurrent2WorldPose, "FILE", ""),
    ZT_COMMAND(host_adapter, sendTrackPose, "FILE", ""),
    ZT_COMMAND(host_adapter, sendEdgePointsInfo, "FILE", ""),
};

#undef ZT_COMMAND
#undef ZT_QUERY

// Every row names one word per argument and per output, and no two rows of a table share
// a name.
template <std::size_t N>
constexpr bool rowsAreConsistent(const DeviceCommand (&table)[N])
{
    for (const DeviceCommand& row : table) {
        if (countWords(row.arguments) != row.argumentCount || countWords(row.outputs) != row.outputCount ||
            (row.query && row.argumentCount != 0))
            return false;
        int named = 0;
        for (const DeviceCommand& other : table)
            named += sameText(row.name, other.name) ? 1 : 0;
        if (named != 1)
            return false;
    }
    return true;
}
static_assert(rowsAreConsistent(kCommands) && rowsAreConsistent(kRequests),
              "a command's argument or output names do not match its method, or a query takes arguments");

struct Table {
    const DeviceCommand* begin;
    const DeviceCommand* end;
};

Table tableOf(DeviceLink link)
{
    if (link == DeviceLink::Module)
        return {std::begin(kRequests), std::end(kRequests)};
    return {std::begin(kCommands), std::end(kCommands)};
}

const char* nameOf(DeviceLink link)
{
    switch (link) {
    case DeviceLink::Network: return "net";
    case DeviceLink::Usb: return "usb";
    case DeviceLink::Module: return "module";
    }
    return "";
}

std::string usageOf(const DeviceCommand& row)
{
    return row.argumentCount == 0 ? row.name : std::string(row.name) + " " + row.arguments;
}

} // namespace

bool prepareDeviceCommand(DeviceLink link, const std::vector<std::string>& words, PreparedCommand& out,
                          std::string& error)
{
    const std::string what = link == DeviceLink::Module ? "request" : "device command";
    if (words.empty()) {
        error = "no " + what + " given (see ztproxy " + nameOf(link) + " --help)";
        return false;
    }
    const Table table = tableOf(link);
    const auto row =
        std::find_if(table.begin, table.end, [&](const DeviceCommand& r) { return words[0] == r.name; });
    if (row == table.end) {
        error = "unknown " + what + " '" + words[0] + "' (see ztproxy " + nameOf(link) + " --help)";
        return false;
    }
    if (row->networkOnly && link != DeviceLink::Network) {
        error = words[0] + " is a command of network heads only (ztproxy net)";
        return false;
    }
    const std::vector<std::string> args(words.begin() + 1, words.end());
    const std::string usage = " (usage: " + usageOf(*row) + ")";
    if (static_cast<int>(args.size()) != row->argumentCount) {
        error = words[0] + " takes " + std::to_string(row->argumentCount) +
                (row->argumentCount == 1 ? " argument, " : " arguments, ") + std::to_string(args.size()) + " given" +
                usage;
        return false;
    }
    std::string why;
    std::size_t failed = 0;
    if (!row->prepare(*row, args, out, why, failed)) {
        error = words[0] + ": " + splitWords(row->arguments)[failed] + " '" + args[failed] + "' " + why + usage;
        return false;
    }
    return true;
}

std::string formatPlain(int result, const std::vector<OutputValue>& outputs)
{
    std::string text = "result: " + std::to_string(result) + "\n";
    for (const OutputValue& o : outputs)
        text += o.name + ": " + o.text + "\n";
    return text;
}

std::string formatJson(const std::string& command, int result, const std::vector<OutputValue>& outputs)
{
    std::string json = "{\"command\":" + jsonString(command) + ",\"result\":" + std::to_string(result);
    for (const OutputValue& o : outputs)
        json += "," + jsonString(o.name) + ":" + o.json;
    return json + "}\n";
}

std::vector<std::string> queryCommands(DeviceLink link)
{
    std::vector<std::string> names;
    const Table table = tableOf(link);
    for (const DeviceCommand* r = table.begin; r != table.end; ++r)
        if (r->query && (!r->networkOnly || link == DeviceLink::Network))
            names.emplace_back(r->name);
    return names;
}

void listDeviceCommands(DeviceLink link, std::FILE* out, const char* indent, bool detailed)
{
    const Table table = tableOf(link);
    for (const DeviceCommand* r = table.begin; r != table.end; ++r) {
        const DeviceCommand& row = *r;
        if (row.networkOnly && link != DeviceLink::Network)
            continue;
        if (!detailed) {
            std::fprintf(out, "%s%s\n", indent, usageOf(row).c_str());
            continue;
        }
        std::string notes = row.outputCount > 0 ? std::string("-> ") + row.outputs : "";
        if (row.networkOnly)
            notes += notes.empty() ? "(network only)" : "  (network only)";
        const std::string line = indent + usageOf(row);
        if (notes.empty())
            std::fprintf(out, "%s\n", line.c_str());
        else
            std::fprintf(out, "%-44s%s\n", line.c_str(), notes.c_str());
    }
}

} // namespace zt::tools
