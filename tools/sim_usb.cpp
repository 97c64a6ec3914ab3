#include "sim_usb.h"

#include <cstdio>
#include <cstring>

namespace zt::tools {

namespace {
// The emulated head answers the device requests of the process that created it; a second
// process's requests do not reach it (its connection to the emulation is dropped), so the
// tool cannot lend the head to another program. It says how to use the head instead.
const char* const kHowTo =
    "The emulated USB scanner head runs inside the process that uses it:\n"
    "\n"
    "  1. link ztProxyProtocol::ztProxySim and create a ztSimUsbHead (ztSimUsbHead.h);\n"
    "  2. head.start(); then open vendor 0x1d6b, product 0x5a01 with libusb and claim\n"
    "     interface 0 (endpoints: stream IN 0x81, control IN 0x82, event IN 0x83,\n"
    "     control OUT 0x01, heartbeat OUT 0x02), e.g. for ztUsbProxyServer;\n"
    "  3. run the program with LD_PRELOAD=libumockdev-preload.so.0.\n"
    "\n"
    "The head's setters choose its replies, events, stream, failures and unplugging.\n";
} // namespace

int runSimUsb(int argc, char** argv)
{
    if (argc >= 1 && (std::strcmp(argv[0], "--help") == 0 || std::strcmp(argv[0], "-h") == 0)) {
        std::fputs(kHowTo, stdout);
        return 0;
    }
    std::fputs("ztproxy: the emulated USB head cannot be lent to another program\n\n", stderr);
    std::fputs(kHowTo, stderr);
    return 2;
}

} // namespace zt::tools
