// ztproxy stream: frames from a head for a while, counted, optionally saved as PNG.
#pragma once

namespace zt::tools {

// Runs the options that follow "stream" (argv[0] is the first of them). programArgv is the
// program's whole argument vector: with --sim-usb and without the USB emulation's
// preload, the program runs itself again with it. 0 when the stream ran (also when
// Ctrl-C ended it early), 1 when the head cannot be reached or an image cannot be saved,
// 2 on a usage error.
int runStreamCommand(int argc, char** argv, char** programArgv);

} // namespace zt::tools
