// The demo: the library's links driven against simulated ends on loopback.
#pragma once

namespace zt::tools {

// Runs the module-proxy exchange and prints it; 0 when everything went as expected.
int runModuleProxyDemo();
// Brings a simulated network head online, runs commands and a stream, and lets the head
// fall silent; 0 when everything went as expected.
int runNetworkHeadDemo();

} // namespace zt::tools
