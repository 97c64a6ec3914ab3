// ztproxy replay: a recorded head played back on loopback.
#pragma once

namespace zt::tools {

// Runs the options that follow "replay" (argv[0] is the first of them). 0 when the
// replay ran (until Ctrl-C, or --seconds), 1 when the file cannot be read or the port
// cannot be bound, 2 on a usage error (a USB recording included: see --help).
int runReplayCommand(int argc, char** argv);

} // namespace zt::tools
