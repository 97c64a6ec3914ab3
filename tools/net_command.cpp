#include "net_command.h"

#include "command_run.h"
#include "sim_presets.h"
#include "ztEmbeddedModuleProxyServer.h"
#include "ztSimNetworkHead.h"

#include "sim_socket.h"

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <utility>

namespace zt::tools {

namespace {

const char* const kNetUsage =
    "usage: ztproxy net --local IP --remote IP [--sn SN] [--json] COMMAND [ARGUMENT...]\n"
    "       ztproxy net --sim [--json] COMMAND [ARGUMENT...]\n"
    "       ztproxy net --commands\n"
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
    "  --save FILE  write the bytes of the replies the command hands to the data callback\n"
    "               (a SET file, logs, temperatures) into FILE\n"
    "  --commands   print the commands with their arguments, one per line (also --list)\n"
    "  -h, --help   show this help\n";

// The head listens on this port; a host always connects to it.
constexpr int kHeadPort = ztSimNetworkHead::kDefaultPort;

} // namespace

bool isIPv4(const std::string& text)
{
    std::uint32_t address = 0;
    return zt::simnet::parseIPv4(text, address);
}

bool checkHeadAddresses(const char* command, const std::string& local, const std::string& remote,
                        std::string& error)
{
    for (const auto& [option, ip] : {std::pair{"--local", &local}, std::pair{"--remote", &remote}}) {
        if (!ip->empty() && !isIPv4(*ip)) {
            error = std::string(command) + ": " + option + " '" + *ip + "' is not an IPv4 address (such as 192.168.1.20)";
            return false;
        }
    }
    if (local.empty() || remote.empty()) {
        error = std::string(command) + ": give --local IP (this machine) and --remote IP (the head)";
        return false;
    }
    return true;
}

bool bringNetworkHeadOnline(ztEmbeddedModuleProxyServer& server, const std::string& local, const std::string& remote,
                            const std::string& sn)
{
    HeldLog log;
    const int rc = server.init(local, remote, sn);
    if (server.isConnected() || wasInterrupted()) {
        log.release();
        return server.isConnected();
    }
    log.release("no network head came online at " + remote + ":" + std::to_string(kHeadPort) + " (from " + local +
                ", init returned " + std::to_string(rc) + ")");
    return false;
}

std::unique_ptr<ztSimNetworkHead> startSimNetworkHead(const SimPresets* presets)
{
    auto head = std::make_unique<ztSimNetworkHead>("127.0.0.1", kHeadPort);
    if (presets != nullptr)
        applySimPresets(*presets, *head);
    if (head->start() == 0)
        return head;
    std::fprintf(stderr, "ztproxy: the simulated head cannot listen on 127.0.0.1:%d (in use?)\n", kHeadPort);
    return nullptr;
}

int runNetCommand(int argc, char** argv)
{
    LinkOptions o;
    std::string error;
    if (!parseLinkOptions(argc, argv, "net", {"--local", "--remote", "--sn", "--save"}, o, error))
        return usageError(error);
    if (o.help)
        return printLinkHelp(kNetUsage, DeviceLink::Network);
    if (o.list || o.commands) {
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
        if (!checkHeadAddresses("net", local, remote, error))
            return usageError(error);
    }
    PreparedCommand command;
    if (!prepareDeviceCommand(DeviceLink::Network, o.words, command, error))
        return usageError(error);

    catchInterrupts();
    std::unique_ptr<ztSimNetworkHead> sim;
    if (o.sim && !(sim = startSimNetworkHead(nullptr)))
        return kOfflineStatus;
    int status = 0;
    {
        CommandRunner runner;
        ztEmbeddedModuleProxyServer server;
        server.registerModuleServerDataCB(&CommandRunner::onData, &runner);
        if (!bringNetworkHeadOnline(server, local, remote, o.value("--sn")))
            status = kOfflineStatus;
        else
            status = runner.run(command, CommandTarget{&server, &server, nullptr}, o.json, o.value("--save"));
        if (wasInterrupted())
            status = reportInterrupted();
        server.deInit();
    }
    if (sim)
        sim->stop();
    return status;
}

} // namespace zt::tools
