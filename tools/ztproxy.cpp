// ztproxy: the command-line tool of ztProxyProtocol.
#include "check_command.h"
#include "demo.h"
#include "module_command.h"
#include "net_command.h"
#include "record_command.h"
#include "replay_command.h"
#include "sim_command.h"
#include "sim_head.h"
#include "stream_command.h"
#ifdef ZT_WITH_USB
#include "sim_usb.h"
#include "usb_command.h"
#include "usb_emulation.h"
#endif

#include "command_run.h"
#include "ztLog.h"
#include "ztProxyVersion.h"

#include <opencv2/core/version.hpp>
#ifdef ZT_WITH_USB
#include <libusb.h>
#endif

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace {

const char* const kUsage =
    "usage: ztproxy [--log-level LEVEL] <command> [options]\n"
    "\n"
    "commands:\n"
    "  demo      the library's links against simulated ends on loopback, with a stream and a PNG\n"
    "  sim       run a simulated end: ztproxy sim module|head (sim usb: how to use the USB one)\n"
    "  net       run one device command on a network scanner head (or a simulated one)\n"
    "  module    run one module proxy request as the host, against a device module\n"
#ifdef ZT_WITH_USB
    "  usb       run one device command on a USB scanner head (or an emulated one)\n"
#endif
    "  stream    receive frames from a head for a while, with live counters and saved images\n"
    "  record    record a head's session (link bytes, commands) into one file\n"
    "  replay    play a recorded head back on loopback\n"
    "  check     whether a head works: every query, a short stream, a table of the results\n"
    "\n"
    "options:\n"
    "  --log-level LEVEL  trace, debug, info, warn (default), error or off; logs go to\n"
    "                     standard error\n"
    "  --version          the versions of the library, and of libusb and OpenCV\n"
    "  -h, --help         show this help\n"
    "\n";

const char* const kDemoUsage =
    "usage: ztproxy demo [--png PATH]\n"
    "\n"
    "Starts a simulated device module on ports 11300 and 9479 of this machine, connects a\n"
    "host (ztModuleProxyServer) to it over loopback, runs a tour of requests, notifications\n"
    "and a file query; then brings a simulated network head on port 42001 online, runs\n"
    "commands, streams packets and lets the head go offline."
#ifdef ZT_WITH_USB
    " Last, an emulated USB head\n"
    "(umockdev; the tool runs itself again with its preload) comes online, answers a tour of\n"
    "commands, streams 100 full frames and sends one more, which is scaled to 8 bits and\n"
    "written as a PNG image."
#endif
    "\n"
    "Prints every step and exits 0 when every step went as expected.\n"
#ifdef ZT_WITH_USB
    "\n"
    "options:\n"
    "  --png PATH  where the image goes (default ./ztproxy-demo.png)\n"
#endif
    ;

const char* const kSimUsage =
    "usage: ztproxy sim module\n"
    "       ztproxy sim head [--bind IP] [--port N] [--stream-rate MBPS]\n"
    "       ztproxy sim usb --help\n"
    "\n"
    "module: runs the simulated device module on ports 11300 (data) and 9479 (command)\n"
    "until interrupted, answering every host request from its state and printing each request.\n"
    "head: runs a simulated network scanner head on port 42001 until interrupted (see\n"
    "ztproxy sim head --help).\n"
    "usb: how to use the emulated USB scanner head from your own program.\n";

int fail(const std::string& message)
{
    return zt::tools::usageError(message);
}

int printVersions()
{
    std::printf("ztproxy %s\n", ztProxyVersion());
#ifdef ZT_WITH_USB
    const libusb_version* usb = libusb_get_version();
    std::printf("libusb %u.%u.%u\n", usb->major, usb->minor, usb->micro);
#endif
    std::printf("OpenCV %s\n", CV_VERSION);
    return 0;
}

// GNU-style arguments: "--name=value" is "--name" "value", and --log-level LEVEL may come
// anywhere before a "--" (which stays, so that each subcommand takes every word after it
// as an argument as it stands). false with a message for a bad log level.
bool normalise(int argc, char** argv, std::vector<std::string>& words, std::string& error)
{
    std::vector<std::string> split;
    bool options = true;
    for (int k = 1; k < argc; ++k) {
        const std::string arg = argv[k];
        options = options && arg != "--";
        const std::size_t eq = arg.find('=');
        if (options && arg.rfind("--", 0) == 0 && eq != std::string::npos) {
            split.push_back(arg.substr(0, eq));
            split.push_back(arg.substr(eq + 1));
        } else {
            split.push_back(arg);
        }
    }
    options = true;
    for (std::size_t k = 0; k < split.size(); ++k) {
        options = options && split[k] != "--";
        if (!options || split[k] != "--log-level") {
            words.push_back(split[k]);
            continue;
        }
        if (k + 1 >= split.size()) {
            error = "--log-level needs a level";
            return false;
        }
        const int level = ztLogParseLevel(split[++k].c_str());
        if (level < 0) {
            error = "unknown log level '" + split[k] + "' (trace, debug, info, warn, error or off)";
            return false;
        }
        ztLogSetLevel(level);
    }
    return true;
}

} // namespace

int main(int programArgc, char** programArgv)
{
    std::vector<std::string> words;
    std::string error;
    if (!normalise(programArgc, programArgv, words, error))
        return fail(error);
    std::vector<char*> pointers{programArgv[0]};
    for (std::string& w : words)
        pointers.push_back(w.data());
    pointers.push_back(nullptr);
    const int argc = static_cast<int>(pointers.size()) - 1;
    char** argv = pointers.data();

    int i = 1;
    for (; i < argc && argv[i][0] == '-'; ++i) {
        const std::string arg = argv[i];
        if (arg == "-h" || arg == "--help") {
            std::fputs(kUsage, stdout);
            std::fputs(zt::tools::kExitStatusHelp, stdout);
            return 0;
        }
        if (arg == "--version")
            return printVersions();
        return fail("unknown option '" + arg + "' (see ztproxy --help)");
    }
    if (i >= argc) {
        std::fputs(kUsage, stderr);
        return zt::tools::kUsageStatus;
    }
    const std::string command = argv[i++];
    if (command == "demo") {
        if (i < argc && (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0)) {
            std::fputs(kDemoUsage, stdout);
            return 0;
        }
#ifdef ZT_WITH_USB
        std::string png = "ztproxy-demo.png";
        if (i < argc && std::strcmp(argv[i], "--png") == 0) {
            if (i + 1 >= argc)
                return fail("demo: --png needs a path");
            png = argv[i + 1];
            i += 2;
        }
#endif
        if (i < argc)
            return fail(std::string("demo takes no argument '") + argv[i] + "'");
#ifdef ZT_WITH_USB
        // The emulated USB head needs umockdev's preload from the start of the process.
        if (!zt::tools::usbEmulationPreloaded())
            return zt::tools::runAgainWithUsbEmulation(programArgv);
#endif
        const int moduleProxy = zt::tools::runModuleProxyDemo();
        const int networkHead = zt::tools::runNetworkHeadDemo();
#ifdef ZT_WITH_USB
        const int usbHead = zt::tools::runUsbHeadDemo(png);
#else
        const int usbHead = 0;
#endif
        return moduleProxy == 0 && networkHead == 0 && usbHead == 0 ? 0 : 1;
    }
    if (command == "sim") {
        if (i < argc && (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0)) {
            std::fputs(kSimUsage, stdout);
            return 0;
        }
        if (i >= argc)
            return fail("sim needs the end to simulate: module, head or usb (see ztproxy sim --help)");
        const std::string end = argv[i++];
        if (end == "head")
            return zt::tools::runSimHead(argc - i, argv + i);
#ifdef ZT_WITH_USB
        if (end == "usb")
            return zt::tools::runSimUsb(argc - i, argv + i);
#endif
        if (end != "module")
            return fail("unknown simulated end '" + end + "' (see ztproxy sim --help)");
        return zt::tools::runSimModule(argc - i, argv + i);
    }
    if (command == "net")
        return zt::tools::runNetCommand(argc - i, argv + i);
    if (command == "module")
        return zt::tools::runModuleCommand(argc - i, argv + i);
    if (command == "stream")
        return zt::tools::runStreamCommand(argc - i, argv + i, programArgv);
    if (command == "record")
        return zt::tools::runRecordCommand(argc - i, argv + i);
    if (command == "replay")
        return zt::tools::runReplayCommand(argc - i, argv + i);
    if (command == "check")
        return zt::tools::runCheckCommand(argc - i, argv + i, programArgv);
#ifdef ZT_WITH_USB
    if (command == "usb")
        return zt::tools::runUsbCommand(argc - i, argv + i, programArgv);
#endif
    return fail("unknown command '" + command + "' (see ztproxy --help)");
}
