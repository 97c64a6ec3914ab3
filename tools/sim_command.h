// ztproxy sim: run one simulated end until interrupted.
#pragma once

namespace zt::tools {

// Runs the simulated device module on ports 11300 and 9479, printing each request it
// answers, until SIGINT or SIGTERM. 0 on a clean stop.
int runSimModule(int argc, char** argv);

} // namespace zt::tools
