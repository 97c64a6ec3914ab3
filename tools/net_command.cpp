#include "net_command.h"

#include "command_run.h"
#include "ztEmbeddedModuleProxyServer.h"
#include "ztSimNetworkHead.h"

#include <arpa/inet.h>

#include <cstdio>
#include <memory>
#include <string>

namespace zt::tools {

namespace {

const char* const kNetUsage =
    "usage: ztproxy net --local IP --remote IP [--sn SN] [--json] COMMAND [ARGUMENT...]\n"
    "       ztproxy net --sim [--json] COMMAND [ARGUMENT...]\n"
    "       ztproxy net --list\n"
    "\n"
    "Connects to a network scanner head (four connections to its port 42001), runs one\n"
    "device command, prints its result and disconnects.\n"
    "\n"
    "options:\n"
    "  --local IP   IPv4 address of this machine to connect from\n"
    "  --remote IP  IPv4 address of the head\n"
    "  --sn SN      serial number of the head (names it in log lines)\n"
    "  --sim        run a simulated head in this process on 127.0.0.1:42001 and use it\n"
    "  --json       print one JSON object instead of lines\n"
    "  --list       print the commands with their arguments, one per line\n"
    "  -h, --help   show this help\n";

// The head listens on this port; a host always connects to it.
constexpr int kHeadPort = ztSimNetworkHead::kDefaultPort;

bool isIPv4(const std::string& text)
{
    in_addr a{};
    return ::inet_pton(AF_INET, text.c_str(), &a) == 1;
}

} // namespace

int runNetCommand(int argc, char** argv)
{
    LinkOptions o;
    std::string error;
    if (!parseLinkOptions(argc, argv, "net", {"--local", "--remote", "--sn"}, o, error))
        return usageError(error);
    if (o.help)
        return printLinkHelp(kNetUsage, DeviceLink::Network);
    if (o.list) {
        listDeviceCommands(DeviceLink::Network, stdout, "", false);
        return 0;
    }
    std::string local = o.value("--local");
    std::string remote = o.value("--remote");
    if (o.sim) {
        if (!local.empty() || !remote.empty())
            return usageError("net: --sim connects to its own head on 127.0.0.1; leave out --local and --remote");
        local = remote = "127.0.0.1";
    } else {
        if (local.empty() || remote.empty())
            return usageError("net: give --local IP and --remote IP, or --sim (see ztproxy net --help)");
        for (const std::string& ip : {local, remote})
            if (!isIPv4(ip))
                return usageError("net: '" + ip + "' is not an IPv4 address");
    }
    PreparedCommand command;
    if (!prepareDeviceCommand(DeviceLink::Network, o.words, command, error))
        return usageError(error);

    catchInterrupts();
    std::unique_ptr<ztSimNetworkHead> sim;
    if (o.sim) {
        sim = std::make_unique<ztSimNetworkHead>(remote, kHeadPort);
        if (sim->start() != 0) {
            std::fprintf(stderr, "ztproxy: the simulated head cannot listen on %s:%d (in use?)\n", remote.c_str(),
                         kHeadPort);
            return 1;
        }
    }
    int status = 0;
    {
        CommandRunner runner;
        ztEmbeddedModuleProxyServer server;
        server.registerModuleServerDataCB(&CommandRunner::onData, &runner);
        const int rc = server.init(local, remote, o.value("--sn"));
        if (wasInterrupted()) {
            status = reportInterrupted();
        } else if (!server.isConnected()) {
            std::fprintf(stderr, "ztproxy: the head at %s:%d did not come online (init returned %d)\n", remote.c_str(),
                         kHeadPort, rc);
            status = 1;
        } else {
            runner.run(command, CommandTarget{server, &server}, o.json);
            status = wasInterrupted() ? reportInterrupted() : 0;
        }
        server.deInit();
    }
    if (sim)
        sim->stop();
    return status;
}

} // namespace zt::tools
