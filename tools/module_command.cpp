#include "module_command.h"

#include "command_run.h"
#include "net_command.h"
#include "ztModuleProxyServer.h"
#include "ztSimModule.h"

#include <cstdio>
#include <memory>
#include <string>

namespace zt::tools {

namespace {

const char* const kModuleUsage =
    "usage: ztproxy module --remote IP [--json] REQUEST [ARGUMENT...]\n"
    "       ztproxy module --sim [--json] REQUEST [ARGUMENT...]\n"
    "       ztproxy module --commands\n"
    "\n"
    "Acts as the host of the module proxy: connects to a device module (its ports 9479 and\n"
    "11300), waits for the register exchange, sends one request, prints its result and\n"
    "unregisters.\n"
    "\n"
    "options:\n"
    "  --remote IP  IPv4 address of the machine the module runs on\n"
    "  --sim        run a simulated module in this process on 127.0.0.1 and use it\n"
    "  --json       print one JSON object instead of lines\n"
    "  --commands   print the requests with their arguments, one per line\n"
    "  -h, --help   show this help\n";

// The host connects at once, then waits 2 s before it registers.
constexpr int kRegisterWaitMs = 5000;

} // namespace

int runModuleCommand(int argc, char** argv)
{
    LinkOptions o;
    std::string error;
    if (!parseLinkOptions(argc, argv, "module", {"--remote"}, o, error))
        return usageError(error);
    if (o.help)
        return printLinkHelp(kModuleUsage, DeviceLink::Module);
    if (o.commands || o.list) {
        listDeviceCommands(DeviceLink::Module, stdout, "", false);
        return 0;
    }
    std::string remote = o.value("--remote");
    if (o.sim == !remote.empty())
        return usageError("module: give --remote IP or --sim (see ztproxy module --help)");
    if (o.sim)
        remote = "127.0.0.1";
    else if (!isIPv4(remote))
        return usageError("module: --remote '" + remote + "' is not an IPv4 address (such as 192.168.1.20)");
    PreparedCommand command;
    if (!prepareDeviceCommand(DeviceLink::Module, o.words, command, error))
        return usageError(error);

    catchInterrupts();
    std::unique_ptr<ztSimModule> sim;
    if (o.sim) {
        sim = std::make_unique<ztSimModule>();
        if (sim->start() != 0) {
            std::fputs("ztproxy: the simulated module cannot listen on ports 11300 and 9479 (in use?)\n", stderr);
            return kOfflineStatus;
        }
    }
    int status = 0;
    {
        CommandRunner runner;
        ztModuleProxyServer host;
        host.registerModuleServerDataCB(&CommandRunner::onData, &runner);
        HeldLog log;
        host.init(remote);
        if (!host.waitRegistered(kRegisterWaitMs)) {
            log.release("no device module registered at " + remote + " (ports 9479 and 11300) within " +
                        std::to_string(kRegisterWaitMs / 1000) + " s");
            status = kOfflineStatus;
        } else {
            log.release();
            status = runner.run(command, CommandTarget{nullptr, nullptr, &host}, o.json);
            host.sendUnRegister();
        }
        if (wasInterrupted())
            status = reportInterrupted();
        host.deInit();
    }
    if (sim)
        sim->stop();
    return status;
}

} // namespace zt::tools
