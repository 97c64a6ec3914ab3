// ztproxy net: one device command against a network scanner head.
#pragma once

#include <memory>
#include <string>

class ztEmbeddedModuleProxyServer;
class ztSimNetworkHead;

namespace zt::tools {

struct SimPresets;

// Runs the options and command that follow "net" (argv[0] is the first of them); the exit
// status is one of those in command_run.h.
int runNetCommand(int argc, char** argv);

// Whether text is an IPv4 address in dotted form.
bool isIPv4(const std::string& text);

// The --local and --remote values of a subcommand (command names it in messages). false
// with a one-line message naming a missing or bad value.
bool checkHeadAddresses(const char* command, const std::string& local, const std::string& remote,
                        std::string& error);

// Runs the server's connect procedure to the head at remote. false when the head did not
// come online, after saying so in one line (link, address and port) before the library's
// own lines about it.
bool bringNetworkHeadOnline(ztEmbeddedModuleProxyServer& server, const std::string& local, const std::string& remote,
                            const std::string& sn);

// A simulated head listening on 127.0.0.1:42001, with the presets when given. Null when it
// cannot listen, after saying so.
std::unique_ptr<ztSimNetworkHead> startSimNetworkHead(const SimPresets* presets);

} // namespace zt::tools
