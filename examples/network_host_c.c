/* The network host example in C, through the library's C interface: bring a head online,
 * set and read a few values.
 *
 *   network_host_c [LOCAL_IP [HEAD_IP]]      (both default to 127.0.0.1)
 *
 * Try it without hardware: `ztproxy sim head` in another terminal. */
#include <ztProxyC.h>

#include <stdio.h>

/* Runs on the library's own threads: keep it short. */
static void onData(int code, char* data, int length, void* user)
{
    (void)data;
    (void)length;
    (void)user;
    if (code == ZT_CODE_DEVICE_ONLINE)
        printf("head online\n");
    else if (code == ZT_CODE_DEVICE_OFFLINE)
        printf("head offline\n");
}

int main(int argc, char** argv)
{
    const char* local = argc > 1 ? argv[1] : "127.0.0.1";
    const char* remote = argc > 2 ? argv[2] : "127.0.0.1";

    ztc_device* head = ztc_network_head_create();
    ztc_device_set_callback(head, onData, NULL);
    const int rc = ztc_network_head_init(head, local, remote, "example-head");
    if (rc != 0) {
        fprintf(stderr, "no scanner head answers at %s (%d)\n", remote, rc);
        ztc_device_destroy(head);
        return 1;
    }
    float exposure = 0;
    if (ztc_device_set_camera_exposure(head, 2500.0f) == 0 && ztc_device_get_camera_exposure(head, &exposure) == 0)
        printf("exposure %.1f\n", exposure);
    short width = 0, height = 0;
    if (ztc_device_get_image_size(head, &width, &height) == 0)
        printf("image %dx%d\n", width, height);
    ztc_device_deinit(head);
    ztc_device_destroy(head);
    return 0;
}
