#include "command_run.h"

#include "command_values.h"
#include "ztEmbeddedModuleProxyServer.h"
#include "ztLog.h"

#include <atomic>
#include <charconv>
#include <csignal>
#include <cstdio>

namespace zt::tools {

namespace {

const char* const kSharedHelp =
    "\n"
    "The result code comes first (\"result: 0\"); when it is 0, the command's output values\n"
    "follow (\"name: value\"), then the replies it handed to the data callback\n"
    "(\"callbacks: CODE (N bytes)\"). On the USB link setting commands return the head's\n"
    "status word. Replies handed to the data callback are decoded where their layout is\n"
    "known (temperatures), and --save FILE keeps their bytes.\n"
    "\n"
    "arguments:\n"
    "  numbers      whole numbers in decimal, or after 0x in hexadecimal; EXPOSURE_US and GAIN\n"
    "               may have a fraction\n"
    "  truth values 0, 1, true or false (ENABLE, BLACK, FLAG, START, WAIT, MASTER)\n"
    "  HEX_BYTES    hexadecimal digits, two per byte (0a0b0c)\n"
    "  FILE         a file whose contents are sent\n"
    "  NAME, SN, SSID, PASSWORD  text, up to 255 bytes (SN of a light pen: up to 15)\n"
    "  TIME         the head's time text, at least 32 characters, sent as its first 32:\n"
    "               2024-11-15T09:30:00.000000+08:00\n"
    "  MODE of setDropFrameRateMode and setLaserTriggerMode: 0 to 3; DATA_TYPE of\n"
    "               getSETFile: 0, 1 or 2\n"
    "\n"
    "commands:\n";

std::atomic<bool> g_interrupted{false};
extern "C" void onInterrupt(int)
{
    g_interrupted = true;
}

} // namespace

const char* const kExitStatusHelp =
    "exit status:\n"
    "  0    success\n"
    "  1    the command failed: a negative result, or -1 when the exchange failed\n"
    "  2    usage error: a bad option, command or argument (named on standard error)\n"
    "  3    the head did not come online, or the USB device could not be opened\n"
    "  130  interrupted (Ctrl-C)\n";

int resultStatus(int result)
{
    return result >= 0 ? 0 : kFailedStatus;
}

HeldLog::HeldLog()
{
    ztLogSetCallback(&HeldLog::onLine, this);
}

void HeldLog::onLine(int level, const char* text, void* user)
{
    // The shape of the library's own lines on standard error, without the time.
    static const char* const kNames[] = {"trace", "debug", "info", "warning", "error"};
    std::string line = std::string("[") + (level >= 0 && level <= 4 ? kNames[level] : "log") +
                       "] [ztProxyProtocol] " + text;
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r'))
        line.pop_back();
    line += '\n';
    auto* self = static_cast<HeldLog*>(user);
    std::lock_guard<std::mutex> lock(self->m_mutex);
    if (self->m_holding) {
        self->m_lines.push_back(std::move(line));
    } else {
        std::fputs(self->m_before, stderr);
        std::fputs(line.c_str(), stderr);
    }
}

void HeldLog::release(const std::string& firstLine, const char* before)
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_holding)
            return;
        m_holding = false;
        m_before = before;
        if (!firstLine.empty())
            std::fprintf(stderr, "ztproxy: %s\n", firstLine.c_str());
        for (const std::string& line : m_lines)
            std::fputs(line.c_str(), stderr);
        m_lines.clear();
    }
}

HeldLog::~HeldLog()
{
    release();
    // Outside the lock: a line being logged holds the logger's own lock while it waits for
    // ours. Once this returns no line reaches onLine any more.
    ztLogSetCallback(nullptr, nullptr);
}

std::string LinkOptions::value(const char* name) const
{
    for (const auto& [option, text] : values)
        if (option == name)
            return text;
    return "";
}

bool parseLinkOptions(int argc, char** argv, const char* link, std::initializer_list<const char*> withValue,
                      LinkOptions& o, std::string& error)
{
    // Options may come before or after the command; after "--" every word is the command's.
    bool options = true;
    for (int i = 0; i < argc; ++i) {
        const std::string arg = argv[i];
        if (options && arg == "--") {
            options = false;
        } else if (!options || arg.rfind("--", 0) != 0) {
            if (arg == "-h" && options)
                o.help = true;
            else
                o.words.push_back(arg);
        } else if (arg == "--help") {
            o.help = true;
        } else if (arg == "--list") {
            o.list = true;
        } else if (arg == "--commands") {
            o.commands = true;
        } else if (arg == "--json") {
            o.json = true;
        } else if (arg == "--sim") {
            o.sim = true;
        } else {
            bool known = false;
            for (const char* name : withValue)
                known = known || arg == name;
            if (!known) {
                error = std::string(link) + ": unknown option '" + arg + "' (see ztproxy " + link + " --help)";
                return false;
            }
            if (i + 1 >= argc) {
                error = std::string(link) + ": " + arg + " needs a value";
                return false;
            }
            o.values.emplace_back(arg, argv[++i]);
        }
    }
    return true;
}

int printLinkHelp(const char* usage, DeviceLink link)
{
    std::fputs(usage, stdout);
    std::fputs("\n", stdout);
    std::fputs(kExitStatusHelp, stdout);
    std::fputs(kSharedHelp, stdout);
    listDeviceCommands(link, stdout, "  ", true);
    return 0;
}

bool parseCount(const std::string& text, long long& value)
{
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    return ec == std::errc() && end == text.data() + text.size() && value > 0;
}

int usageError(const std::string& message)
{
    std::fprintf(stderr, "ztproxy: %s\n", message.c_str());
    return kUsageStatus;
}

void catchInterrupts()
{
    std::signal(SIGINT, onInterrupt);
    std::signal(SIGTERM, onInterrupt);
}

bool wasInterrupted()
{
    return g_interrupted;
}

int reportInterrupted()
{
    std::fputs("ztproxy: interrupted\n", stderr);
    return kInterruptedStatus;
}

void CommandRunner::onData(int code, char* data, int length, void* user)
{
    auto* self = static_cast<CommandRunner*>(user);
    std::lock_guard<std::mutex> lock(self->m_mutex);
    if (self->m_recording && std::this_thread::get_id() == self->m_thread)
        self->m_seen.push_back({code, data != nullptr && length > 0 ? std::vector<char>(data, data + length)
                                                                     : std::vector<char>{}});
}

namespace {

constexpr int kTemperatureCode = 256;

// The temperatures a type-256 reply carries, when it holds as many as it says.
bool temperatures(ztEmbeddedModuleProxyServer& server, std::vector<char>& bytes, OutputValue& out)
{
    if (bytes.size() < 5 || bytes.size() < 5 + 4 * static_cast<std::size_t>(static_cast<unsigned char>(bytes[4])))
        return false;
    int code = 0;
    std::vector<float> temps;
    server.analysisTempInfo(bytes.data(), &code, &temps);
    out = {"temperatures", "", "["};
    for (std::size_t i = 0; i < temps.size(); ++i) {
        char value[32];
        std::snprintf(value, sizeof value, "%g", static_cast<double>(temps[i]));
        if (i > 0) {
            out.text += ' ';
            out.json += ',';
        }
        out.text += value;
        out.json += value;
    }
    out.json += "]";
    return true;
}

} // namespace

int CommandRunner::collect(const PreparedCommand& command, const CommandTarget& target,
                           std::vector<OutputValue>& outputs)
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_thread = std::this_thread::get_id();
        m_seen.clear();
        m_recording = true;
    }
    const int result = command.call(target, outputs);
    std::lock_guard<std::mutex> lock(m_mutex);
    m_recording = false;
    if (result == 0 && !m_seen.empty()) {
        OutputValue callbacks{"callbacks", "", "["};
        for (std::size_t i = 0; i < m_seen.size(); ++i) {
            const std::string code = std::to_string(m_seen[i].code);
            const std::string length = std::to_string(m_seen[i].bytes.size());
            callbacks.text += (i > 0 ? ", " : "") + code + " (" + length + " bytes)";
            callbacks.json += std::string(i > 0 ? "," : "") + "{\"code\":" + code + ",\"length\":" + length + "}";
        }
        callbacks.json += "]";
        outputs.push_back(std::move(callbacks));
        OutputValue temps;
        for (Seen& seen : m_seen)
            if (seen.code == kTemperatureCode && target.network != nullptr &&
                temperatures(*target.network, seen.bytes, temps))
                outputs.push_back(temps);
    }
    return result;
}

int CommandRunner::run(const PreparedCommand& command, const CommandTarget& target, bool json,
                       const std::string& savePath)
{
    std::vector<OutputValue> outputs;
    const int result = collect(command, target, outputs);
    std::lock_guard<std::mutex> lock(m_mutex);
    std::string saveError;
    if (result == 0 && !savePath.empty()) {
        std::size_t total = 0;
        std::FILE* f = m_seen.empty() ? nullptr : std::fopen(savePath.c_str(), "wb");
        for (const Seen& seen : m_seen)
            total += f != nullptr ? std::fwrite(seen.bytes.data(), 1, seen.bytes.size(), f) : 0;
        if (m_seen.empty())
            saveError = "nothing to save: the command handed no reply to the data callback";
        else if (f == nullptr || std::fclose(f) != 0)
            saveError = "cannot write " + savePath;
        else
            outputs.push_back({"saved", savePath + " (" + std::to_string(total) + " bytes)",
                               jsonString(savePath)});
    }
    const std::string shown = json ? formatJson(command.name, result, outputs) : formatPlain(result, outputs);
    std::fputs(shown.c_str(), stdout);
    std::fflush(stdout);
    if (!saveError.empty()) {
        std::fprintf(stderr, "ztproxy: %s\n", saveError.c_str());
        return kFailedStatus;
    }
    return resultStatus(result);
}

} // namespace zt::tools
