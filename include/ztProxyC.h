/* A plain C interface to libztProxyProtocol, for programs that cannot use its C++ classes
 * across the library boundary: other compilers, C, and languages that call C (C#, Python,
 * Rust).
 *
 * Objects are opaque handles made by a _create function and freed by its _destroy
 * function. Results are the classes' own: 0 on success and the link's failure codes
 * (-1, 205, a head's status word), and -1 for a null handle or argument. Callbacks are the
 * classes' data callback, raised on the same threads with the same codes. No C++
 * exception leaves the library through these functions: one that would is reported as -1.
 */
#ifndef ZT_PROXY_C_H
#define ZT_PROXY_C_H

#include "ztProxyConfig.h"
#include "ztProxyExport.h"
#include "ztProxyTypes.h"

#ifdef __cplusplus
extern "C" {
#endif

/* A scanner head, on the network or the USB link. */
typedef struct ztc_device ztc_device;

/* On the network link (ztEmbeddedModuleProxyServer). */

ZT_PROXY_API ztc_device* ztc_network_head_create(void);
/* Connects to the head at remoteIP from localIP and brings it online: 0, 205 when it
 * cannot be reached, -1 on other failures. */
ZT_PROXY_API int ztc_network_head_init(ztc_device* head, const char* localIP, const char* remoteIP,
                                       const char* deviceSN);

#if ZT_PROXY_WITH_USB
/* A scanner head on the USB link (ztUsbProxyServer), on a device the caller has opened
 * with libusb and whose interface 0 it has claimed (a libusb_device_handle*). */
ZT_PROXY_API ztc_device* ztc_usb_head_create(const _ZT_USB3_DEVICE_INFO_* info, void* libusbDeviceHandle);
/* Starts the transfers and threads: 0, or -1. The head is online (284) once it answers
 * its first heartbeat. */
ZT_PROXY_API int ztc_usb_head_init(ztc_device* head);
#endif

/* For every device handle. */
ZT_PROXY_API void ztc_device_destroy(ztc_device* device);
ZT_PROXY_API void ztc_device_deinit(ztc_device* device);
/* 1 while the head is online, 0 otherwise. */
ZT_PROXY_API int ztc_device_is_connected(ztc_device* device);
ZT_PROXY_API void ztc_device_set_callback(ztc_device* device, ZT_DATA_CALLBACK cb, void* user);
/* Sends length bytes as they are (a frame built by the caller). */
ZT_PROXY_API int ztc_device_send_data(ztc_device* device, const char* data, int length);

/* Device commands, as the classes' methods of the same names. */
ZT_PROXY_API int ztc_device_send_trigger(ztc_device* device);
ZT_PROXY_API int ztc_device_send_stop_trigger(ztc_device* device);
ZT_PROXY_API int ztc_device_set_camera_exposure(ztc_device* device, float exposure);
ZT_PROXY_API int ztc_device_get_camera_exposure(ztc_device* device, float* exposure);
ZT_PROXY_API int ztc_device_set_camera_gain(ztc_device* device, float gain);
ZT_PROXY_API int ztc_device_get_camera_gain(ztc_device* device, float* gain);
ZT_PROXY_API int ztc_device_set_camera_frame_rate(ztc_device* device, int fps);
ZT_PROXY_API int ztc_device_get_camera_frame_rate(ztc_device* device, int* fps);
ZT_PROXY_API int ztc_device_get_image_size(ztc_device* device, short* width, short* height);
ZT_PROXY_API int ztc_device_get_program_version(ztc_device* device, int* major, int* minor, int* revision,
                                                int* build);

/* The host end of the module proxy (ztModuleProxyServer). */
typedef struct ztc_module_host ztc_module_host;

ZT_PROXY_API ztc_module_host* ztc_module_host_create(void);
ZT_PROXY_API void ztc_module_host_destroy(ztc_module_host* host);
/* Starts connecting to the module at address; registration follows in the background. */
ZT_PROXY_API int ztc_module_host_init(ztc_module_host* host, const char* address);
ZT_PROXY_API void ztc_module_host_deinit(ztc_module_host* host);
/* 1 once the module has accepted registration within timeoutMs, 0 otherwise. */
ZT_PROXY_API int ztc_module_host_wait_registered(ztc_module_host* host, unsigned int timeoutMs);
ZT_PROXY_API void ztc_module_host_set_callback(ztc_module_host* host, ZT_DATA_CALLBACK cb, void* user);
ZT_PROXY_API int ztc_module_host_start_device(ztc_module_host* host, int work);
ZT_PROXY_API int ztc_module_host_stop_device(ztc_module_host* host);
/* Copies the module's firmware version text, cut to capacity - 1 bytes and ended by a
 * zero byte. */
ZT_PROXY_API int ztc_module_host_get_firmware_version(ztc_module_host* host, char* version, int capacity);
ZT_PROXY_API int ztc_module_host_get_vento_info(ztc_module_host* host, int* info);

/* The device-module end of the module proxy (ztModuleProxyClient). Host requests reach
 * the callback as (sub type, payload, payload length, user) on its receive thread; the
 * module answers with the reply functions below. */
typedef struct ztc_module ztc_module;

ZT_PROXY_API ztc_module* ztc_module_create(void);
ZT_PROXY_API void ztc_module_destroy(ztc_module* module);
/* Listens on the module's two ports: 0, or -1 when they cannot be had. */
ZT_PROXY_API int ztc_module_init(ztc_module* module);
ZT_PROXY_API void ztc_module_deinit(ztc_module* module);
ZT_PROXY_API void ztc_module_set_callback(ztc_module* module, ZT_DATA_CALLBACK cb, void* user);
ZT_PROXY_API int ztc_module_send_register_rep(ztc_module* module, int ok);
ZT_PROXY_API int ztc_module_send_device_start_rep(ztc_module* module, int ok);
ZT_PROXY_API int ztc_module_send_device_stop_rep(ztc_module* module, int ok);
ZT_PROXY_API int ztc_module_send_firmware_version_rep(ztc_module* module, const char* version);
ZT_PROXY_API int ztc_module_send_vento_info_rep(ztc_module* module, int info);
/* Tells the host on the data channel that a device's state changed. */
ZT_PROXY_API int ztc_module_send_device_stat_changed(ztc_module* module, int device, int state);

#ifdef __cplusplus
}
#endif

#endif
