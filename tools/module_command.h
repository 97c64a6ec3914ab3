// ztproxy module: one request of a module proxy host against a device module.
#pragma once

namespace zt::tools {

// Runs the options and request that follow "module" (argv[0] is the first of them); the
// exit status is one of those in command_run.h.
int runModuleCommand(int argc, char** argv);

} // namespace zt::tools
