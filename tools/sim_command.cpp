#include "sim_command.h"

#include "command_run.h"

#include "ztSimModule.h"

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>

namespace zt::tools {

namespace {
std::atomic<bool> g_stop{false};
extern "C" void onSignal(int)
{
    g_stop = true;
}
} // namespace

const char* const kSimModuleUsage =
    "usage: ztproxy sim module\n"
    "\n"
    "Runs a simulated device module until interrupted. It listens on ports 11300 (data) and\n"
    "9479 (command) of every IPv4 address of the machine, as a device module does, answers\n"
    "every host request the module side answers from a state that setters change and\n"
    "getters return (setScannerRangeLevel and setTrackerRangeLevel go unanswered), and\n"
    "prints one line per request with its name, code and payload size. Try it with\n"
    "ztproxy module --remote 127.0.0.1 REQUEST.\n"
    "\n"
    "options:\n"
    "  -h, --help  show this help\n";

int runSimModule(int argc, char** argv)
{
    if (argc > 0 && (std::strcmp(argv[0], "--help") == 0 || std::strcmp(argv[0], "-h") == 0)) {
        std::fputs(kSimModuleUsage, stdout);
        return 0;
    }
    if (argc > 0)
        return usageError(std::string("sim module: unknown option '") + argv[0] + "' (see ztproxy sim module --help)");
    std::signal(SIGINT, onSignal);
    std::signal(SIGTERM, onSignal);
    ztSimModule module;
    if (module.start() != 0) {
        std::fprintf(stderr, "ztproxy: the simulated module cannot listen on ports 11300 and 9479 (in use?)\n");
        return 1;
    }
    std::printf("simulated module listening on 11300 (data) and 9479 (command); Ctrl-C stops it\n");
    std::fflush(stdout);
    while (!g_stop) {
        ztSimModule::Request r;
        if (module.nextRequest(r, 200)) {
            const char* name = ztSimModule::requestName(r.code);
            std::printf("request %s (0x%05X), %zu payload bytes\n", name != nullptr ? name : "unknown", r.code,
                        r.payload.size());
            std::fflush(stdout);
        }
    }
    module.stop();
    std::printf("stopped\n");
    return 0;
}

} // namespace zt::tools
