// What ztproxy net and ztproxy usb share: their options, their help, Ctrl-C, and running
// one prepared device command with its output.
#pragma once

#include "device_commands.h"

#include <initializer_list>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace zt::tools {

// Exit statuses of every subcommand: 0 on success; the command failed (a negative result
// or -1); a usage error; the head did not come online or could not be opened; interrupted
// by Ctrl-C (or SIGTERM).
constexpr int kFailedStatus = 1;
constexpr int kUsageStatus = 2;
constexpr int kOfflineStatus = 3;
constexpr int kInterruptedStatus = 130;
// The same as lines for --help.
extern const char* const kExitStatusHelp;

// 0 for a result that means success on either link (0, or a non-negative head status word
// on the USB link), kFailedStatus otherwise.
int resultStatus(int result);

// Holds the library's log lines while a link object connects, so that a head that does
// not come online is reported in one plain line first, with the library's lines after it.
// Lines go to standard error again once released or destroyed.
class HeldLog {
public:
    HeldLog();
    ~HeldLog();
    HeldLog(const HeldLog&) = delete;
    HeldLog& operator=(const HeldLog&) = delete;

    // Prints "ztproxy: firstLine" when it is not empty, then the lines held. Until the
    // object is destroyed, each later line goes to standard error after before (on a
    // terminal, "\r\033[K" clears a counter line drawn there).
    void release(const std::string& firstLine = "", const char* before = "");

private:
    static void onLine(int level, const char* text, void* user);

    std::mutex m_mutex;
    bool m_holding = true;
    const char* m_before = "";
    std::vector<std::string> m_lines;
};

struct LinkOptions {
    bool help = false;
    bool list = false;
    bool commands = false;
    bool json = false;
    bool sim = false;
    // Options with a value, by name ("--local" and so on), in the order given.
    std::vector<std::pair<std::string, std::string>> values;
    // The command and its arguments.
    std::vector<std::string> words;

    // The value of an option, empty when it was not given.
    std::string value(const char* name) const;
};

// Options (words that start with "--", and -h) may come before or after the command;
// every other word, and every word after "--", is the command's or an argument. link names
// the subcommand in messages; withValue are the options that take a value. false with a
// one-line message on an unknown option or a missing value.
bool parseLinkOptions(int argc, char** argv, const char* link, std::initializer_list<const char*> withValue,
                      LinkOptions& options, std::string& error);

// Prints usage, what the links share (output, arguments, exit status) and the commands.
int printLinkHelp(const char* usage, DeviceLink link);

// A whole number above 0.
bool parseCount(const std::string& text, long long& value);

// Prints "ztproxy: message" on standard error; 2.
int usageError(const std::string& message);

// From now on Ctrl-C (and SIGTERM) only sets a flag: the command finishes or times out and
// the device is closed as usual.
void catchInterrupts();
bool wasInterrupted();
// Says so on standard error; kInterruptedStatus.
int reportInterrupted();

// Records the data callbacks raised on the thread that runs a command while it runs: the
// replies that the command handed to inbound processing. The link's own threads deliver
// everything else. Register onData with this object as the user pointer.
class CommandRunner {
public:
    static void onData(int code, char* data, int length, void* user);

    // Runs the command and gathers its output values, then one value listing the callbacks
    // it raised and one with the temperatures they carried; the command's result.
    int collect(const PreparedCommand& command, const CommandTarget& target, std::vector<OutputValue>& outputs);

    // Runs the command (collect) and prints its result, its outputs and the callbacks it raised
    // (temperatures decoded); with a save path, the bytes those callbacks carried go into
    // that file. The exit status of the result (resultStatus), or kFailedStatus when there
    // was nothing to save or the file cannot be written.
    int run(const PreparedCommand& command, const CommandTarget& target, bool json, const std::string& savePath = "");

private:
    struct Seen {
        int code;
        std::vector<char> bytes;
    };

    std::mutex m_mutex;
    bool m_recording = false;
    std::thread::id m_thread;
    std::vector<Seen> m_seen;
};

} // namespace zt::tools
