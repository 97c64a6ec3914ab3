// The demo: a device module and a host exchanging proxy messages on loopback.
#pragma once

namespace zt::tools {

// Runs the module-proxy exchange and prints it; 0 when everything went as expected.
int runModuleProxyDemo();

} // namespace zt::tools
