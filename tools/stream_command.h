// ztproxy stream: frames from a head for a while, counted, optionally saved as PNG.
#pragma once

#include <functional>
#include <vector>

namespace zt::tools {

// The simulated heads' stream: full-frame packets of 1280 x 1024 pixels (scanPacket), this
// many a second.
constexpr double kSimFramesPerSecond = 100;
std::vector<char> simFramePacket();

// Whether a data callback of this type carries a frame (a packet of the image stream).
bool isFramePacket(int type);

// Once a simulated head's stream has stopped after sending `sent` frames: waits up to 2 s
// for the frames still on their way (arrived() counts those received so far). The frames
// that never came.
long long framesDropped(long long sent, const std::function<long long()>& arrived);

// Runs the options that follow "stream" (argv[0] is the first of them). programArgv is the
// program's whole argument vector: with --sim-usb and without the USB emulation's
// preload, the program runs itself again with it. 0 when the stream ran (also when
// Ctrl-C ended it early), 1 when the head cannot be reached or an image cannot be saved,
// 2 on a usage error.
int runStreamCommand(int argc, char** argv, char** programArgv);

} // namespace zt::tools
