#include "command_run.h"

#include "ztLog.h"

#include <atomic>
#include <csignal>
#include <cstdio>

namespace zt::tools {

namespace {

const char* const kSharedHelp =
    "\n"
    "The result code comes first (\"result: 0\"); when it is 0, the command's output values\n"
    "follow (\"name: value\"), then the replies it handed to the data callback\n"
    "(\"callbacks: CODE (N bytes)\"). On the USB link setting commands return the head's\n"
    "status word. Arguments: whole numbers in decimal or after 0x in hexadecimal; truth\n"
    "values 0, 1, true or false; HEX_BYTES as hexadecimal digits, two per byte; FILE a file\n"
    "whose contents are sent.\n"
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

void CommandRunner::onData(int code, char*, int length, void* user)
{
    auto* self = static_cast<CommandRunner*>(user);
    std::lock_guard<std::mutex> lock(self->m_mutex);
    if (self->m_recording && std::this_thread::get_id() == self->m_thread)
        self->m_seen.emplace_back(code, length);
}

int CommandRunner::run(const PreparedCommand& command, const CommandTarget& target, bool json)
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_thread = std::this_thread::get_id();
        m_recording = true;
    }
    std::vector<OutputValue> outputs;
    const int result = command.call(target, outputs);
    std::lock_guard<std::mutex> lock(m_mutex);
    m_recording = false;
    if (result == 0 && !m_seen.empty()) {
        OutputValue callbacks{"callbacks", "", "["};
        for (std::size_t i = 0; i < m_seen.size(); ++i) {
            const auto [code, length] = m_seen[i];
            callbacks.text += (i > 0 ? ", " : "") + std::to_string(code) + " (" + std::to_string(length) + " bytes)";
            callbacks.json += std::string(i > 0 ? "," : "") + "{\"code\":" + std::to_string(code) +
                              ",\"length\":" + std::to_string(length) + "}";
        }
        callbacks.json += "]";
        outputs.push_back(std::move(callbacks));
    }
    const std::string shown = json ? formatJson(command.name, result, outputs) : formatPlain(result, outputs);
    std::fputs(shown.c_str(), stdout);
    std::fflush(stdout);
    return resultStatus(result);
}

} // namespace zt::tools
