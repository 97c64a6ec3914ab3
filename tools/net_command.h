// ztproxy net: one device command against a network scanner head.
#pragma once

namespace zt::tools {

// Runs the options and command that follow "net" (argv[0] is the first of them). 0 when
// the command ran, whatever its result (which is printed); 1 when the head does not come
// online; 2 on a usage error; 130 when interrupted.
int runNetCommand(int argc, char** argv);

} // namespace zt::tools
