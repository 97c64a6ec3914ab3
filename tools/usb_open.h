// Opening a USB scanner head with libusb for ztUsbProxyServer: the device found by vendor,
// product and serial number, interface 0 claimed, and the endpoint description read from
// its descriptors.
#pragma once

#include "ztProxyTypes.h"

#include <string>
#include <vector>

struct libusb_device_handle;

namespace zt::tools {

// Which device to open; an empty serial takes the first device with the ids. With a bus
// and an address (both 0 or more), the device there, whatever its ids when both are 0.
struct UsbSelector {
    unsigned short vendor = 0;
    unsigned short product = 0;
    std::string serial;
    int bus = -1;
    int address = -1;
};

// One opened head on libusb's default context (the one ztUsbProxyServer handles events
// on). The destructor releases the interface, closes the device and ends the context.
class UsbHead {
public:
    UsbHead() = default;
    ~UsbHead();
    UsbHead(const UsbHead&) = delete;
    UsbHead& operator=(const UsbHead&) = delete;

    // Opens the first matching device and claims interface 0. false with a one-line
    // message when libusb cannot start, no device matches, or the matching device cannot
    // be opened or claimed or lacks the head's endpoints.
    bool open(const UsbSelector& which, std::string& error);
    libusb_device_handle* handle() const { return m_handle; }
    // Interface 0's bulk endpoints in descriptor order: IN stream, control, event; OUT
    // control, heartbeat; each IN endpoint's wMaxPacketSize; the serial number string.
    const _ZT_USB3_DEVICE_INFO_& info() const { return m_info; }
    // Where the opened device sits.
    int bus() const { return m_bus; }
    int address() const { return m_address; }

private:
    void close();

    bool m_contextUp = false;
    libusb_device_handle* m_handle = nullptr;
    bool m_claimed = false;
    _ZT_USB3_DEVICE_INFO_ m_info{};
    int m_bus = 0;
    int m_address = 0;
};

// A USB device whose interface 0 has a scanner head's endpoints.
struct UsbHeadSeen {
    unsigned short vendor = 0;
    unsigned short product = 0;
    int bus = 0;
    int address = 0;
    std::string serial; // empty when the device cannot be opened to read it
};

// The devices libusb sees that UsbHead::open could take as heads. false with a one-line
// message when libusb cannot start or list the devices.
bool listUsbHeads(std::vector<UsbHeadSeen>& heads, std::string& error);

// Vendor or product id: hexadecimal, with or without 0x. false when not a 16-bit number.
bool parseUsbId(const std::string& text, unsigned short& id);

// The --vid and --pid values of a subcommand (command names it in messages) into which.
// false with a one-line message naming a bad value, or a missing one.
bool parseUsbIds(const char* command, const std::string& vid, const std::string& pid, UsbSelector& which,
                 std::string& error);

} // namespace zt::tools
