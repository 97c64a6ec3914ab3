// ztproxy usb: one device command against a USB scanner head.
#pragma once

#include <memory>

class ztSimUsbHead;
class ztUsbProxyServer;

namespace zt::tools {

class UsbHead;

// Runs the options and command that follow "usb" (argv[0] is the first of them); the exit
// status is one of those in command_run.h. programArgv is the program's whole argument
// vector: with --sim and without the USB emulation's preload, the program runs itself
// again with it.
int runUsbCommand(int argc, char** argv, char** programArgv);

// Starts the server on the opened head and waits for it to come online (a head answers
// its first heartbeat within one 500 ms period). false when it did not, after saying so in
// one line (link, serial number, bus and address) before the library's own lines about it.
bool bringUsbHeadOnline(ztUsbProxyServer& server, const UsbHead& head);

// The emulated USB head, started. Null when the emulation is missing, after saying so.
std::unique_ptr<ztSimUsbHead> startSimUsbHead();

} // namespace zt::tools
