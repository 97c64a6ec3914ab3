#include "ztProxyC.h"

#include "ztEmbeddedModuleProxyServer.h"
#include "ztModuleProxyClient.h"
#include "ztModuleProxyServer.h"
#if ZT_PROXY_WITH_USB
#include "ztUsbProxyServer.h"
#endif

#include "platform/zt_log.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <memory>
#include <string>

struct ztc_device {
    // The link's object: one of the two.
    std::unique_ptr<ztEmbeddedModuleProxyServer> network;
#if ZT_PROXY_WITH_USB
    std::unique_ptr<ztUsbProxyServer> usb;
#endif

    // Calls call with the link's object, whichever it is.
    template <class Call>
    decltype(auto) onLink(Call&& call)
    {
#if ZT_PROXY_WITH_USB
        if (usb)
            return call(*usb);
#endif
        return call(*network);
    }
    // The command set both links share.
    ztDeviceCommandSet& commands()
    {
        return onLink([](ztDeviceCommandSet& link) -> ztDeviceCommandSet& { return link; });
    }
};

struct ztc_module_host {
    ztModuleProxyServer host;
};

struct ztc_module {
    ztModuleProxyClient client;
};

namespace {

// Runs call on an object behind a handle: -1 with a log line for a null handle or for an
// exception, which must not cross into a C caller.
template <class Handle, class Call>
int guarded(const char* name, Handle* handle, Call&& call)
{
    if (handle == nullptr) {
        ZTLOG_ERROR("%s: no handle\n", name);
        return -1;
    }
    try {
        return call(*handle);
    } catch (const std::exception& e) {
        ZTLOG_ERROR("%s: %s\n", name, e.what());
    } catch (...) {
        ZTLOG_ERROR("%s: failed\n", name);
    }
    return -1;
}

// The same for calls without a result.
template <class Handle, class Call>
void guardedVoid(const char* name, Handle* handle, Call&& call)
{
    guarded(name, handle, [&](Handle& h) {
        call(h);
        return 0;
    });
}

// A text argument that may be null.
std::string text(const char* s)
{
    return s != nullptr ? std::string(s) : std::string();
}

// A new handle, filled by fill (the device handles make their link's object there): null
// with a log line when that fails.
template <class T, class Fill>
T* make(const char* name, Fill&& fill)
{
    try {
        auto handle = std::make_unique<T>();
        fill(*handle);
        return handle.release();
    } catch (const std::exception& e) {
        ZTLOG_ERROR("%s: %s\n", name, e.what());
    }
    return nullptr;
}

template <class T>
T* make(const char* name)
{
    return make<T>(name, [](T&) {});
}

} // namespace

extern "C" {

ztc_device* ztc_network_head_create(void)
{
    return make<ztc_device>("ztc_network_head_create",
                            [](ztc_device& d) { d.network = std::make_unique<ztEmbeddedModuleProxyServer>(); });
}

#if ZT_PROXY_WITH_USB
ztc_device* ztc_usb_head_create(const _ZT_USB3_DEVICE_INFO_* info, void* libusbDeviceHandle)
{
    if (info == nullptr || libusbDeviceHandle == nullptr) {
        ZTLOG_ERROR("ztc_usb_head_create: no device description or no device handle\n");
        return nullptr;
    }
    return make<ztc_device>("ztc_usb_head_create", [&](ztc_device& d) {
        d.usb = std::make_unique<ztUsbProxyServer>(*info, static_cast<libusb_device_handle*>(libusbDeviceHandle));
    });
}

int ztc_usb_head_init(ztc_device* head)
{
    return guarded("ztc_usb_head_init", head, [](ztc_device& d) {
        if (!d.usb) {
            ZTLOG_ERROR("ztc_usb_head_init: not a USB head\n");
            return -1;
        }
        return d.usb->init();
    });
}
#endif

int ztc_network_head_init(ztc_device* head, const char* localIP, const char* remoteIP, const char* deviceSN)
{
    return guarded("ztc_network_head_init", head, [&](ztc_device& d) {
        if (!d.network || localIP == nullptr || remoteIP == nullptr) {
            ZTLOG_ERROR("ztc_network_head_init: not a network head, or no address\n");
            return -1;
        }
        return d.network->init(localIP, remoteIP, text(deviceSN));
    });
}

void ztc_device_destroy(ztc_device* device)
{
    delete device;
}

void ztc_device_deinit(ztc_device* device)
{
    guardedVoid("ztc_device_deinit", device, [](ztc_device& d) { d.onLink([](auto& link) { link.deInit(); }); });
}

int ztc_device_is_connected(ztc_device* device)
{
    return guarded("ztc_device_is_connected", device,
                   [](ztc_device& d) { return d.onLink([](auto& link) { return link.isConnected() ? 1 : 0; }); });
}

void ztc_device_set_callback(ztc_device* device, ZT_DATA_CALLBACK cb, void* user)
{
    guardedVoid("ztc_device_set_callback", device,
                [&](ztc_device& d) { d.onLink([&](auto& link) { link.registerModuleServerDataCB(cb, user); }); });
}

int ztc_device_send_data(ztc_device* device, const char* data, int length)
{
    return guarded("ztc_device_send_data", device, [&](ztc_device& d) {
        if (data == nullptr || length < 0) {
            ZTLOG_ERROR("ztc_device_send_data: no data\n");
            return -1;
        }
        std::string bytes(data, static_cast<std::size_t>(length));
        return d.onLink([&](auto& link) { return link.sendData(bytes); });
    });
}

int ztc_device_send_trigger(ztc_device* device)
{
    return guarded("ztc_device_send_trigger", device, [](ztc_device& d) { return d.commands().sendTrigger(); });
}

int ztc_device_send_stop_trigger(ztc_device* device)
{
    return guarded("ztc_device_send_stop_trigger", device,
                   [](ztc_device& d) { return d.commands().sendStopTrigger(); });
}

int ztc_device_set_camera_exposure(ztc_device* device, float exposure)
{
    return guarded("ztc_device_set_camera_exposure", device,
                   [=](ztc_device& d) { return d.commands().setCameraExposure(exposure); });
}

int ztc_device_get_camera_exposure(ztc_device* device, float* exposure)
{
    return guarded("ztc_device_get_camera_exposure", device,
                   [=](ztc_device& d) { return d.commands().getCameraExposure(exposure); });
}

int ztc_device_set_camera_gain(ztc_device* device, float gain)
{
    return guarded("ztc_device_set_camera_gain", device,
                   [=](ztc_device& d) { return d.commands().setCameraGain(gain); });
}

int ztc_device_get_camera_gain(ztc_device* device, float* gain)
{
    return guarded("ztc_device_get_camera_gain", device,
                   [=](ztc_device& d) { return d.commands().getCameraGain(gain); });
}

int ztc_device_set_camera_frame_rate(ztc_device* device, int fps)
{
    return guarded("ztc_device_set_camera_frame_rate", device,
                   [=](ztc_device& d) { return d.commands().setCameraFrameRate(fps); });
}

int ztc_device_get_camera_frame_rate(ztc_device* device, int* fps)
{
    return guarded("ztc_device_get_camera_frame_rate", device,
                   [=](ztc_device& d) { return d.commands().getCameraFrameRate(fps); });
}

int ztc_device_get_image_size(ztc_device* device, short* width, short* height)
{
    return guarded("ztc_device_get_image_size", device,
                   [=](ztc_device& d) { return d.commands().getImageSize(width, height); });
}

int ztc_device_get_program_version(ztc_device* device, int* major, int* minor, int* revision, int* build)
{
    return guarded("ztc_device_get_program_version", device,
                   [=](ztc_device& d) { return d.commands().getRKProgramVersion(major, minor, revision, build); });
}

ztc_module_host* ztc_module_host_create(void)
{
    return make<ztc_module_host>("ztc_module_host_create");
}

void ztc_module_host_destroy(ztc_module_host* host)
{
    delete host;
}

int ztc_module_host_init(ztc_module_host* host, const char* address)
{
    return guarded("ztc_module_host_init", host, [&](ztc_module_host& h) {
        if (address == nullptr) {
            ZTLOG_ERROR("ztc_module_host_init: no address\n");
            return -1;
        }
        return h.host.init(address);
    });
}

void ztc_module_host_deinit(ztc_module_host* host)
{
    guardedVoid("ztc_module_host_deinit", host, [](ztc_module_host& h) { h.host.deInit(); });
}

int ztc_module_host_wait_registered(ztc_module_host* host, unsigned int timeoutMs)
{
    return guarded("ztc_module_host_wait_registered", host,
                   [=](ztc_module_host& h) { return h.host.waitRegistered(timeoutMs) ? 1 : 0; });
}

void ztc_module_host_set_callback(ztc_module_host* host, ZT_DATA_CALLBACK cb, void* user)
{
    guardedVoid("ztc_module_host_set_callback", host,
                [&](ztc_module_host& h) { h.host.registerModuleServerDataCB(cb, user); });
}

int ztc_module_host_start_device(ztc_module_host* host, int work)
{
    return guarded("ztc_module_host_start_device", host, [=](ztc_module_host& h) {
        return h.host.sendStartDevice(static_cast<_ZT_WORK_BUSINESS_>(work));
    });
}

int ztc_module_host_stop_device(ztc_module_host* host)
{
    return guarded("ztc_module_host_stop_device", host, [](ztc_module_host& h) { return h.host.sendStopDevice(); });
}

int ztc_module_host_get_firmware_version(ztc_module_host* host, char* version, int capacity)
{
    return guarded("ztc_module_host_get_firmware_version", host, [=](ztc_module_host& h) {
        if (version == nullptr || capacity <= 0) {
            ZTLOG_ERROR("ztc_module_host_get_firmware_version: no buffer\n");
            return -1;
        }
        std::string text;
        const int rc = h.host.getFirmwareVersion(text);
        const std::size_t n = std::min(text.size(), static_cast<std::size_t>(capacity - 1));
        std::memcpy(version, text.data(), n);
        version[n] = '\0';
        return rc;
    });
}

int ztc_module_host_get_vento_info(ztc_module_host* host, int* info)
{
    return guarded("ztc_module_host_get_vento_info", host,
                   [=](ztc_module_host& h) { return h.host.getVentoInfo(info); });
}

ztc_module* ztc_module_create(void)
{
    return make<ztc_module>("ztc_module_create");
}

void ztc_module_destroy(ztc_module* module)
{
    delete module;
}

int ztc_module_init(ztc_module* module)
{
    return guarded("ztc_module_init", module, [](ztc_module& m) { return m.client.init(); });
}

void ztc_module_deinit(ztc_module* module)
{
    guardedVoid("ztc_module_deinit", module, [](ztc_module& m) { m.client.deInit(); });
}

void ztc_module_set_callback(ztc_module* module, ZT_DATA_CALLBACK cb, void* user)
{
    guardedVoid("ztc_module_set_callback", module,
                [&](ztc_module& m) { m.client.registerModuleClientDataCB(cb, user); });
}

int ztc_module_send_register_rep(ztc_module* module, int ok)
{
    return guarded("ztc_module_send_register_rep", module,
                   [=](ztc_module& m) { return m.client.sendRegisterRep(ok != 0); });
}

int ztc_module_send_device_start_rep(ztc_module* module, int ok)
{
    return guarded("ztc_module_send_device_start_rep", module,
                   [=](ztc_module& m) { return m.client.sendDeviceStartRep(ok != 0); });
}

int ztc_module_send_device_stop_rep(ztc_module* module, int ok)
{
    return guarded("ztc_module_send_device_stop_rep", module,
                   [=](ztc_module& m) { return m.client.sendDeviceStopRep(ok != 0); });
}

int ztc_module_send_firmware_version_rep(ztc_module* module, const char* version)
{
    return guarded("ztc_module_send_firmware_version_rep", module,
                   [=](ztc_module& m) { return m.client.sendGetFirmwareVersionRep(text(version)); });
}

int ztc_module_send_vento_info_rep(ztc_module* module, int info)
{
    return guarded("ztc_module_send_vento_info_rep", module,
                   [=](ztc_module& m) { return m.client.sendVentoInfoRep(info); });
}

int ztc_module_send_device_stat_changed(ztc_module* module, int device, int state)
{
    return guarded("ztc_module_send_device_stat_changed", module,
                   [=](ztc_module& m) { return m.client.sendDeviceStatChanged(device, state); });
}

} // extern "C"
