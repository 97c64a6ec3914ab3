// ztproxy sim head: run the simulated network scanner head until interrupted.
#pragma once

namespace zt::tools {

// Runs the simulated head with the options that follow "sim head" (argv[0] is the first
// option), printing one line per connection and per command, until SIGINT or SIGTERM.
// 0 on a clean stop, 1 when the head cannot listen, 2 on bad options.
int runSimHead(int argc, char** argv);

} // namespace zt::tools
