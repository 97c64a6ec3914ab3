// main() of the test programs that drive the emulated USB head. Without the umockdev
// preload the emulation cannot exist: the program then exits with 77, which ctest reports
// as skipped — unless ZT_REQUIRE_USB_EMULATION is set (CI sets it), in which case a
// missing preload is a failure.
#include "ztSimUsbHead.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

int main(int argc, char** argv)
{
    bool listing = false;
    for (int i = 1; i < argc; ++i)
        listing = listing || std::strncmp(argv[i], "--gtest_list_tests", 18) == 0;
    if (!listing && !ztSimUsbHead::emulationAvailable()) {
        const char* required = std::getenv("ZT_REQUIRE_USB_EMULATION");
        std::fprintf(stderr, "the umockdev preload is not active (LD_PRELOAD=libumockdev-preload.so.0)%s\n",
                     required != nullptr && *required != '\0' ? "" : ": skipped");
        return required != nullptr && *required != '\0' ? 1 : 77;
    }
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
