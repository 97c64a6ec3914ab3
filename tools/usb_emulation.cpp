#include "usb_emulation.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace zt::tools {

namespace {
constexpr const char* kPreload = "libumockdev-preload.so.0";
} // namespace

bool usbEmulationPreloaded()
{
    const char* preload = std::getenv("LD_PRELOAD");
    return preload != nullptr && std::strstr(preload, "libumockdev-preload") != nullptr;
}

int runAgainWithUsbEmulation(char** programArgv)
{
    const char* current = std::getenv("LD_PRELOAD");
    const std::string preload =
        current != nullptr && *current != '\0' ? std::string(kPreload) + ":" + current : std::string(kPreload);
    ::setenv("LD_PRELOAD", preload.c_str(), 1);
    ::execv("/proc/self/exe", programArgv);
    std::fprintf(stderr, "ztproxy: cannot run again with LD_PRELOAD=%s (%s)\n", kPreload, std::strerror(errno));
    return 1;
}

void reportUsbEmulationMissing()
{
    std::fprintf(stderr, "ztproxy: the emulated USB head cannot start (is umockdev's %s installed?)\n", kPreload);
}

} // namespace zt::tools
