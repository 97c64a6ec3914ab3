#include "sim_command.h"

#include "ztSimModule.h"

#include <atomic>
#include <csignal>
#include <cstdio>

namespace zt::tools {

namespace {
std::atomic<bool> g_stop{false};
extern "C" void onSignal(int)
{
    g_stop = true;
}
} // namespace

int runSimModule()
{
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
            std::printf("request 0x%05X, %zu payload bytes\n", r.code, r.payload.size());
            std::fflush(stdout);
        }
    }
    module.stop();
    std::printf("stopped\n");
    return 0;
}

} // namespace zt::tools
