// The demo: the library's links driven against simulated ends on loopback.
#pragma once

#include <string>

namespace zt::tools {

// Runs the module-proxy exchange and prints it; 0 when everything went as expected.
int runModuleProxyDemo();
// Brings a simulated network head online, runs commands and a stream, and lets the head
// fall silent; 0 when everything went as expected.
int runNetworkHeadDemo();
// Brings an emulated USB head online (the process must run with umockdev's preload), runs
// commands and a stream, and writes one assembled frame as PNG to pngPath; 0 when
// everything went as expected.
int runUsbHeadDemo(const std::string& pngPath);

} // namespace zt::tools
