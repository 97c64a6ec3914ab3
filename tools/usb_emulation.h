// The emulated USB head lives in umockdev's preload library, which must be in place when
// the process starts: the tool runs itself again with it when it is missing.
#pragma once

namespace zt::tools {

// true when LD_PRELOAD names umockdev's preload library.
bool usbEmulationPreloaded();

// Runs the program again (programArgv: its whole argument vector) with
// LD_PRELOAD=libumockdev-preload.so.0 in front of any other preload; returns 1, with a
// line on standard error, only when that fails.
int runAgainWithUsbEmulation(char** programArgv);

// The line printed when the emulated head cannot start.
void reportUsbEmulationMissing();

} // namespace zt::tools
