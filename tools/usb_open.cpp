#include "usb_open.h"

#include <libusb.h>

#include <charconv>
#include <cstdio>
#include <cstring>
#include <memory>
#include <tuple>

namespace zt::tools {

namespace {

constexpr int kInterface = 0;

std::string libusbError(int rc)
{
    return libusb_error_name(rc);
}

// The head's endpoints from interface 0 of the device's configuration: bulk IN stream,
// control and event, bulk OUT control and heartbeat, in descriptor order.
bool describe(libusb_device* device, _ZT_USB3_DEVICE_INFO_& info, std::string& why)
{
    libusb_config_descriptor* raw = nullptr;
    int rc = libusb_get_active_config_descriptor(device, &raw);
    if (rc != 0)
        rc = libusb_get_config_descriptor(device, 0, &raw);
    if (rc != 0) {
        why = "has no readable configuration (" + libusbError(rc) + ")";
        return false;
    }
    const std::unique_ptr<libusb_config_descriptor, void (*)(libusb_config_descriptor*)> config(
        raw, &libusb_free_config_descriptor);
    const libusb_interface_descriptor* setting = nullptr;
    for (int i = 0; i < config->bNumInterfaces && setting == nullptr; ++i)
        if (config->interface[i].num_altsetting > 0 &&
            config->interface[i].altsetting[0].bInterfaceNumber == kInterface)
            setting = &config->interface[i].altsetting[0];
    if (setting == nullptr) {
        why = "has no interface 0";
        return false;
    }
    const libusb_endpoint_descriptor* in[3] = {};
    const libusb_endpoint_descriptor* out[2] = {};
    int ins = 0;
    int outs = 0;
    for (int e = 0; e < setting->bNumEndpoints; ++e) {
        const libusb_endpoint_descriptor& ep = setting->endpoint[e];
        if ((ep.bmAttributes & LIBUSB_TRANSFER_TYPE_MASK) != LIBUSB_TRANSFER_TYPE_BULK)
            continue;
        if ((ep.bEndpointAddress & LIBUSB_ENDPOINT_DIR_MASK) == LIBUSB_ENDPOINT_IN) {
            if (ins < 3)
                in[ins] = &ep;
            ++ins;
        } else {
            if (outs < 2)
                out[outs] = &ep;
            ++outs;
        }
    }
    if (ins < 3 || outs < 2) {
        why = "has " + std::to_string(ins) + " bulk IN and " + std::to_string(outs) +
              " bulk OUT endpoints on interface 0, where a scanner head has 3 and 2";
        return false;
    }
    info.streamInEndpoint = in[0]->bEndpointAddress;
    info.ctrlInEndpoint = in[1]->bEndpointAddress;
    info.eventInEndpoint = in[2]->bEndpointAddress;
    info.ctrlOutEndpoint = out[0]->bEndpointAddress;
    info.heartbeatOutEndpoint = out[1]->bEndpointAddress;
    // Bits 0-10 of wMaxPacketSize are the packet size.
    info.streamMaxPacket = in[0]->wMaxPacketSize & 0x7FFu;
    info.ctrlMaxPacket = in[1]->wMaxPacketSize & 0x7FFu;
    info.eventMaxPacket = in[2]->wMaxPacketSize & 0x7FFu;
    return true;
}

// The serial number string of an opened device, empty when it has none.
std::string serialOf(libusb_device_handle* h, const libusb_device_descriptor& d)
{
    char serial[sizeof(_ZT_USB3_DEVICE_INFO_::serialNumber)] = {};
    if (d.iSerialNumber != 0)
        libusb_get_string_descriptor_ascii(h, d.iSerialNumber, reinterpret_cast<unsigned char*>(serial),
                                           sizeof serial - 1);
    return serial;
}

} // namespace

bool listUsbHeads(std::vector<UsbHeadSeen>& heads, std::string& error)
{
    libusb_context* context = nullptr;
    int rc = libusb_init(&context);
    if (rc != 0) {
        error = "libusb cannot start (" + libusbError(rc) + ")";
        return false;
    }
    libusb_device** list = nullptr;
    const ssize_t count = libusb_get_device_list(context, &list);
    if (count < 0) {
        error = "the USB devices cannot be listed (" + libusbError(static_cast<int>(count)) + ")";
        libusb_exit(context);
        return false;
    }
    for (ssize_t i = 0; i < count; ++i) {
        libusb_device_descriptor d{};
        _ZT_USB3_DEVICE_INFO_ info{};
        std::string why;
        if (libusb_get_device_descriptor(list[i], &d) != 0 || !describe(list[i], info, why))
            continue;
        UsbHeadSeen seen{d.idVendor, d.idProduct, libusb_get_bus_number(list[i]), libusb_get_device_address(list[i]), ""};
        libusb_device_handle* h = nullptr;
        if (libusb_open(list[i], &h) == 0) {
            seen.serial = serialOf(h, d);
            libusb_close(h);
        }
        heads.push_back(std::move(seen));
    }
    libusb_free_device_list(list, 1);
    libusb_exit(context);
    return true;
}

UsbHead::~UsbHead()
{
    close();
}

void UsbHead::close()
{
    if (m_claimed)
        libusb_release_interface(m_handle, kInterface);
    m_claimed = false;
    if (m_handle != nullptr)
        libusb_close(m_handle);
    m_handle = nullptr;
    if (m_contextUp)
        libusb_exit(nullptr);
    m_contextUp = false;
}

bool UsbHead::open(const UsbSelector& which, std::string& error)
{
    close();
    const bool byPlace = which.bus >= 0 && which.address >= 0;
    const bool anyIds = byPlace && which.vendor == 0 && which.product == 0;
    char ids[48];
    if (anyIds)
        std::snprintf(ids, sizeof ids, "at bus %d address %d", which.bus, which.address);
    else if (byPlace)
        std::snprintf(ids, sizeof ids, "%04x:%04x at bus %d address %d", which.vendor, which.product, which.bus,
                      which.address);
    else
        std::snprintf(ids, sizeof ids, "%04x:%04x", which.vendor, which.product);
    const std::string wanted =
        std::string("USB device ") + ids + (which.serial.empty() ? "" : " with serial number " + which.serial);
    int rc = libusb_init(nullptr);
    if (rc != 0) {
        error = "no " + wanted + ": libusb cannot start (" + libusbError(rc) + ")";
        return false;
    }
    m_contextUp = true;
    libusb_device** list = nullptr;
    const ssize_t count = libusb_get_device_list(nullptr, &list);
    if (count < 0) {
        error = "no " + wanted + ": the devices cannot be listed (" + libusbError(static_cast<int>(count)) + ")";
        close();
        return false;
    }
    std::string problem;
    for (ssize_t i = 0; i < count && m_handle == nullptr; ++i) {
        libusb_device_descriptor d{};
        if (libusb_get_device_descriptor(list[i], &d) != 0 ||
            (!anyIds && (d.idVendor != which.vendor || d.idProduct != which.product)))
            continue;
        if (byPlace &&
            (libusb_get_bus_number(list[i]) != which.bus || libusb_get_device_address(list[i]) != which.address))
            continue;
        libusb_device_handle* h = nullptr;
        rc = libusb_open(list[i], &h);
        if (rc != 0) {
            problem = "cannot be opened (" + libusbError(rc) + ")";
            continue;
        }
        _ZT_USB3_DEVICE_INFO_ info{};
        const std::string serial = serialOf(h, d);
        std::memcpy(info.serialNumber, serial.c_str(), serial.size() + 1);
        if (!which.serial.empty() && which.serial != info.serialNumber) {
            libusb_close(h);
            continue;
        }
        std::string why;
        if (!describe(list[i], info, why)) {
            problem = why;
            libusb_close(h);
            continue;
        }
        rc = libusb_claim_interface(h, kInterface);
        if (rc != 0) {
            problem = "cannot claim interface 0 (" + libusbError(rc) + ")";
            libusb_close(h);
            continue;
        }
        m_handle = h;
        m_claimed = true;
        m_info = info;
        m_bus = libusb_get_bus_number(list[i]);
        m_address = libusb_get_device_address(list[i]);
    }
    libusb_free_device_list(list, 1);
    if (m_handle == nullptr) {
        error = problem.empty() ? "no " + wanted : "the " + wanted + " " + problem;
        close();
        return false;
    }
    return true;
}

bool parseUsbId(const std::string& text, unsigned short& id)
{
    const char* p = text.data();
    const char* const end = p + text.size();
    if (end - p > 2 && p[0] == '0' && (p[1] == 'x' || p[1] == 'X'))
        p += 2;
    unsigned short parsed = 0;
    const auto [next, ec] = std::from_chars(p, end, parsed, 16);
    if (p == end || ec != std::errc() || next != end)
        return false;
    id = parsed;
    return true;
}

bool parseUsbIds(const char* command, const std::string& vid, const std::string& pid, UsbSelector& which,
                 std::string& error)
{
    for (const auto& [name, text, id] : {std::tuple{"vendor id (--vid)", &vid, &which.vendor},
                                         std::tuple{"product id (--pid)", &pid, &which.product}}) {
        if (!text->empty() && !parseUsbId(*text, *id)) {
            error = std::string(command) + ": " + name + " '" + *text +
                    "' is not a hexadecimal number from 0 to ffff (such as 1d6b)";
            return false;
        }
    }
    if (vid.empty() || pid.empty()) {
        error = std::string(command) + ": give --vid V and --pid P (see ztproxy usb --list)";
        return false;
    }
    return true;
}

} // namespace zt::tools
