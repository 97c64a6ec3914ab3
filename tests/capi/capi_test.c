/* The C interface from a C program: a module proxy session with both ends in this process,
 * and the simulated network head the caller started on 127.0.0.1:42001 ("ztproxy sim
 * head", also under Wine). Exits with the number of failed checks. */
#include "capi_check.h"

#include <stdatomic.h>
#include <stdio.h>
#include <string.h>

#ifdef _WIN32
#  include <windows.h>
static void sleepMs(unsigned ms)
{
    Sleep(ms);
}
#else
#  include <time.h>
static void sleepMs(unsigned ms)
{
    struct timespec t = {(time_t)(ms / 1000), (long)(ms % 1000) * 1000000L};
    nanosleep(&t, NULL);
}
#endif

/* Waits up to timeoutMs for *value to reach at least want. */
static int waitFor(atomic_int* value, int want, unsigned timeoutMs)
{
    for (unsigned waited = 0; atomic_load(value) < want && waited < timeoutMs; waited += 10)
        sleepMs(10);
    return atomic_load(value) >= want;
}

/* The module: answers the host's requests as a device module would. */
static atomic_int requests;
static void onRequest(int subType, char* data, int length, void* user)
{
    ztc_module* module = (ztc_module*)user;
    (void)data;
    (void)length;
    atomic_fetch_add(&requests, 1);
    switch (subType) {
    case 0x00001: ztc_module_send_register_rep(module, 1); break;
    case 0x10000: ztc_module_send_device_start_rep(module, 1); break;
    case 0x10013: ztc_module_send_firmware_version_rep(module, "C-MODULE 1.0"); break;
    case 0x10017: ztc_module_send_vento_info_rep(module, 7); break;
    default: break;
    }
}

/* The host: counts the module's device-state notifications and keeps the last state. */
static atomic_int notes, lastState;
static void onNote(int code, char* data, int length, void* user)
{
    (void)user;
    if (code == 0x40000 && length >= 8) {
        int state;
        memcpy(&state, data + 4, sizeof state);
        atomic_store(&lastState, state);
        atomic_fetch_add(&notes, 1);
    }
}

static void moduleProxySession(void)
{
    ztc_module* module = ztc_module_create();
    ztc_module_host* host = ztc_module_host_create();
    CHECK(module != NULL && host != NULL);
    ztc_module_set_callback(module, onRequest, module);
    CHECK(ztc_module_init(module) == 0);
    ztc_module_host_set_callback(host, onNote, NULL);
    CHECK(ztc_module_host_init(host, "127.0.0.1") == 0);
    CHECK(ztc_module_host_wait_registered(host, 5000) == 1);

    char version[8];
    CHECK(ztc_module_host_get_firmware_version(host, version, (int)sizeof version) == 0);
    CHECK(strcmp(version, "C-MODUL") == 0); /* cut to the buffer, ended by a zero byte */
    int info = 0;
    CHECK(ztc_module_host_get_vento_info(host, &info) == 0 && info == 7);
    CHECK(ztc_module_host_start_device(host, ZT_WORK_SCAN) == 0);

    CHECK(ztc_module_send_device_stat_changed(module, 2, 5) == 0);
    CHECK(waitFor(&notes, 1, 3000) && atomic_load(&lastState) == 5);

    /* Null handles and buffers are refused, not crashed on. */
    CHECK(ztc_module_host_get_firmware_version(host, NULL, 8) == -1);
    CHECK(ztc_module_host_init(NULL, "127.0.0.1") == -1);
    CHECK(ztc_module_send_register_rep(NULL, 1) == -1);

    ztc_module_host_deinit(host);
    ztc_module_host_destroy(host);
    ztc_module_deinit(module);
    ztc_module_destroy(module);
    CHECK(atomic_load(&requests) >= 4);
}

static void networkHead(void)
{
    /* Nothing listens on 127.0.0.3: the head cannot be reached. */
    ztc_device* missing = ztc_network_head_create();
    CHECK(ztc_network_head_init(missing, "127.0.0.1", "127.0.0.3", "SN") == 205);
    CHECK(ztc_device_is_connected(missing) == 0);
    ztc_device_destroy(missing);

    ztc_device* head = ztc_network_head_create();
    ztc_device_set_callback(head, onDevice, NULL);
    CHECK(ztc_network_head_init(head, "127.0.0.1", "127.0.0.1", "SIM") == 0);
    CHECK(ztc_device_is_connected(head) == 1);
    CHECK(atomic_load(&online) == 1);
    int major = 0, minor = 0, revision = 0, build = 0;
    CHECK(ztc_device_get_program_version(head, &major, &minor, &revision, &build) == 0);
    CHECK(major == 1 && minor == 2 && revision == 3 && build == 4);
    CHECK(ztc_device_get_image_size(head, NULL, NULL) == -1);
    ztc_device_deinit(head);
    CHECK(ztc_device_is_connected(head) == 0);
    ztc_device_destroy(head);
    CHECK(ztc_device_send_trigger(NULL) == -1);
}

int main(void)
{
    moduleProxySession();
    networkHead();
    return report();
}
