/* The C interface's USB head from a C program, against the emulated head (run with the
 * umockdev preload). Prints the number of checks and exits with the number that failed,
 * or 77 when the emulation is missing and ZT_REQUIRE_USB_EMULATION is not set. */
#include "capi_check.h"

#include <libusb.h>

#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

int zt_test_start_usb_head(_ZT_USB3_DEVICE_INFO_* info);
void zt_test_stop_usb_head(void);

int main(void)
{
    _ZT_USB3_DEVICE_INFO_ info = {0};
    const int started = zt_test_start_usb_head(&info);
    if (started == 77) {
        const char* required = getenv("ZT_REQUIRE_USB_EMULATION");
        fprintf(stderr, "the umockdev preload is not active\n");
        return required != NULL && *required != '\0' ? 1 : 77;
    }
    CHECK(started == 0);
    CHECK(libusb_init(NULL) == 0);
    libusb_device_handle* handle = libusb_open_device_with_vid_pid(NULL, 0x1d6b, 0x5a01);
    CHECK(handle != NULL && libusb_claim_interface(handle, 0) == 0);

    CHECK(ztc_usb_head_create(&info, NULL) == NULL);
    ztc_device* head = ztc_usb_head_create(&info, handle);
    CHECK(head != NULL);
    CHECK(ztc_network_head_init(head, "127.0.0.1", "127.0.0.1", "SN") == -1); /* not a network head */
    ztc_device_set_callback(head, onDevice, NULL);
    CHECK(ztc_usb_head_init(head) == 0);
    /* Online once the first heartbeat is answered. */
    for (int i = 0; i < 100 && !ztc_device_is_connected(head); ++i) {
        struct timespec t = {0, 50 * 1000000L};
        nanosleep(&t, NULL);
    }
    CHECK(ztc_device_is_connected(head) == 1);
    CHECK(atomic_load(&online) == 1);
    short width = 0, height = 0;
    CHECK(ztc_device_get_image_size(head, &width, &height) == 0);
    CHECK(width == 1280 && height == 1024);
    CHECK(ztc_device_set_camera_exposure(head, 2.5f) == 0);
    ztc_device_deinit(head);
    CHECK(ztc_device_is_connected(head) == 0);
    ztc_device_destroy(head);

    if (handle != NULL) {
        libusb_release_interface(handle, 0);
        libusb_close(handle);
    }
    libusb_exit(NULL);
    zt_test_stop_usb_head();
    return report();
}
