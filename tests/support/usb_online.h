// The emulated USB head opened on libusb's default context (the one ztUsbProxyServer
// handles its events on), with a server on it whose data callback is recorded. For test
// programs that run with the umockdev preload (usb_emulation_main.cpp).
#pragma once

#include "support/data_calls.h"
#include "support/fault_scenario.h"
#include "ztSimUsbHead.h"
#include "ztUsbProxyServer.h"

#include <libusb.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

namespace zt::test {

// What the data callback is given for an embedded message: its payload.
inline std::string payloadOf(const std::vector<char>& message)
{
    return std::string(message.begin() + 7, message.end() - 1);
}

// One extended-header stream packet of type 1280 with bodySize payload bytes.
inline std::vector<char> streamPacket(std::size_t bodySize, char fill = 'u')
{
    const std::string body(bodySize, fill);
    return ztSimUsbHead::extendedPacket(1280, 1, body.data(), body.size());
}

// A request of the given type (payload 1) through the server's control path, into a reply
// buffer of its own; status() is the first 12 bytes of the reply, a whole status reply.
struct RawCommand {
    std::vector<char> reply = std::vector<char>(4096, 0);
    int run(ztUsbProxyServer& server, unsigned short type, int timeoutMs)
    {
        std::fill(reply.begin(), reply.end(), 0);
        auto req = ztSimUsbHead::message(type, "\x01\x00\x00\x00", 4);
        return server.sendCtrlCmd(req.data(), static_cast<int>(req.size()), reply.data(), true, timeoutMs);
    }
    std::vector<char> status() const { return std::vector<char>(reply.begin(), reply.begin() + 12); }
};

// libusb's default context (it finds the devices present when it starts, so the head must
// be up first) and the emulated head's handle with its interface claimed.
struct UsbHandle {
    libusb_device_handle* handle = nullptr;
    bool contextUp = false;

    bool open()
    {
        contextUp = contextUp || libusb_init(nullptr) == 0;
        return contextUp && openHandle();
    }
    bool openHandle()
    {
        handle = libusb_open_device_with_vid_pid(nullptr, ztSimUsbHead::kVendor, ztSimUsbHead::kProduct);
        if (handle != nullptr && libusb_claim_interface(handle, ztSimUsbHead::kInterface) != 0)
            closeHandle();
        return handle != nullptr;
    }
    // Closes the handle, that of an unplugged device included.
    void closeHandle()
    {
        if (handle != nullptr) {
            libusb_release_interface(handle, ztSimUsbHead::kInterface);
            libusb_close(handle);
        }
        handle = nullptr;
    }
    void release()
    {
        closeHandle();
        if (contextUp)
            libusb_exit(nullptr);
        contextUp = false;
    }
    ~UsbHandle() { release(); }
};

struct UsbOnline : UsbHandle {
    ztSimUsbHead head;
    DataCalls calls;
    std::unique_ptr<ztUsbProxyServer> server;

    bool open() { return head.start() == 0 && UsbHandle::open(); }
    // A new server on the handle, its callback recorded in calls; true when init succeeds.
    bool startServer()
    {
        server = std::make_unique<ztUsbProxyServer>(ztSimUsbHead::deviceInfo(), handle);
        server->registerModuleServerDataCB(&DataCalls::cb, &calls);
        return server->init() == 0;
    }
    bool start() { return open() && startServer(); }
    bool waitConnected(int timeoutMs = 3000)
    {
        return waitUntil(timeoutMs, [&] { return server->isConnected(); });
    }
    // Ends the server and closes the handle.
    void close()
    {
        calls.release();
        if (server)
            server->deInit();
        server.reset();
        closeHandle();
    }
    ~UsbOnline()
    {
        close();
        release();
        head.stop();
    }
};

} // namespace zt::test
