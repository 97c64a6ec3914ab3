// ztproxy check: whether a head works. Brings it online on either link, runs every query
// of the command set (the commands that change nothing on the head), streams for a few
// seconds and prints a table of what answered, or one JSON object.
#pragma once

namespace zt::tools {

// Runs the options that follow "check" (argv[0] is the first of them). programArgv is the
// program's whole argument vector: with --sim-usb and without the USB emulation's
// preload, the program runs itself again with it. 0 when every query answered and the
// stream ran without a drop or the head going offline; the other statuses of command_run.h.
int runCheckCommand(int argc, char** argv, char** programArgv);

} // namespace zt::tools
