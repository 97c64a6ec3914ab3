#include "command_run.h"

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
    "exit status: 0 when the command ran, whatever its result; 1 when the head cannot be\n"
    "reached; 2 on a usage error; 130 when interrupted.\n"
    "\n"
    "commands:\n";

std::atomic<bool> g_interrupted{false};
extern "C" void onInterrupt(int)
{
    g_interrupted = true;
}

} // namespace

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
    int i = 0;
    for (; i < argc && argv[i][0] == '-'; ++i) {
        const std::string arg = argv[i];
        if (arg == "-h" || arg == "--help") {
            o.help = true;
        } else if (arg == "--list") {
            o.list = true;
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
    o.words.assign(argv + i, argv + argc);
    return true;
}

int printLinkHelp(const char* usage, DeviceLink link)
{
    std::fputs(usage, stdout);
    std::fputs(kSharedHelp, stdout);
    listDeviceCommands(link, stdout, "  ", true);
    return 0;
}

int usageError(const std::string& message)
{
    std::fprintf(stderr, "ztproxy: %s\n", message.c_str());
    return 2;
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

void CommandRunner::run(const PreparedCommand& command, const CommandTarget& target, bool json)
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
}

} // namespace zt::tools
