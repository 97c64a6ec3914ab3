// The emulated USB head for the C interface's test program, which is written in C: the
// head is a C++ object of the simulated ends, started here.
#include "ztSimUsbHead.h"

#include <memory>

extern "C" int zt_test_start_usb_head(_ZT_USB3_DEVICE_INFO_* info);
extern "C" void zt_test_stop_usb_head(void);

namespace {
std::unique_ptr<ztSimUsbHead> g_head;
}

// 0 once the head is plugged in, with its endpoint description in info; 77 (skipped)
// without the umockdev preload; -1 otherwise.
extern "C" int zt_test_start_usb_head(_ZT_USB3_DEVICE_INFO_* info)
{
    if (!ztSimUsbHead::emulationAvailable())
        return 77;
    *info = ztSimUsbHead::deviceInfo();
    g_head = std::make_unique<ztSimUsbHead>();
    return g_head->start() == 0 ? 0 : -1;
}

extern "C" void zt_test_stop_usb_head(void)
{
    g_head.reset();
}
