// ztproxy record: a head's session recorded into one file for a number of seconds.
#pragma once

namespace zt::tools {

// Runs the options that follow "record" (argv[0] is the first of them). 0 when the
// recording ran (also when Ctrl-C ended it early: the file is complete), 1 when the file
// cannot be written, 2 on a usage error, 3 when the head did not come online or the USB
// device could not be opened.
int runRecordCommand(int argc, char** argv);

} // namespace zt::tools
