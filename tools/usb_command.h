// ztproxy usb: one device command against a USB scanner head.
#pragma once

namespace zt::tools {

// Runs the options and command that follow "usb" (argv[0] is the first of them); exit
// status as for ztproxy net. programArgv is the program's whole argument vector: with
// --sim and without the USB emulation's preload, the program runs itself again with it.
int runUsbCommand(int argc, char** argv, char** programArgv);

} // namespace zt::tools
