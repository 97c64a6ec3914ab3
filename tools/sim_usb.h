// ztproxy sim usb: how to use the emulated USB head.
#pragma once

namespace zt::tools {

// Prints how to use the emulated USB head from a program's own process: 0 for --help,
// 2 otherwise (the head cannot be lent to another program).
int runSimUsb(int argc, char** argv);

} // namespace zt::tools
