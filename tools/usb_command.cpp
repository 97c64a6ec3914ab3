#include "usb_command.h"

#include "command_run.h"
#include "usb_emulation.h"
#include "usb_open.h"
#include "ztSimUsbHead.h"
#include "ztUsbProxyServer.h"

#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace zt::tools {

namespace {

const char* const kUsbUsage =
    "usage: ztproxy usb --vid V --pid P [--serial S] [--json] COMMAND [ARGUMENT...]\n"
    "       ztproxy usb --sim [--json] COMMAND [ARGUMENT...]\n"
    "       ztproxy usb [--sim] --list\n"
    "       ztproxy usb --commands\n"
    "\n"
    "Opens a USB scanner head with libusb, claims its interface 0, runs one device command,\n"
    "prints its result and closes the device. The endpoints come from the device's\n"
    "descriptors: bulk IN stream, control and event, then bulk OUT control and heartbeat.\n"
    "\n"
    "options:\n"
    "  --vid V      vendor id, hexadecimal (as lsusb shows it)\n"
    "  --pid P      product id, hexadecimal\n"
    "  --serial S   the device with this serial number (default: the first one)\n"
    "  --sim        run the emulated USB head in this process and use it (or list it); the\n"
    "               emulation needs umockdev's LD_PRELOAD=libumockdev-preload.so.0, which\n"
    "               the tool sets by running itself again when it is missing\n"
    "  --json       print one JSON object instead of lines\n"
    "  --save FILE  write the bytes of the replies the command hands to the data callback\n"
    "               (a SET file, logs) into FILE\n"
    "  --list       print the USB devices that can be opened as heads: ids, bus, address and\n"
    "               serial number\n"
    "  --commands   print the commands with their arguments, one per line\n"
    "  -h, --help   show this help\n";

constexpr int kOnlineWaitMs = 2500;

int listHeads()
{
    std::vector<UsbHeadSeen> heads;
    std::string error;
    if (!listUsbHeads(heads, error)) {
        std::fprintf(stderr, "ztproxy: %s\n", error.c_str());
        return kOfflineStatus;
    }
    for (const UsbHeadSeen& h : heads)
        std::printf("%04x:%04x bus %03d address %03d serial %s\n", h.vendor, h.product, h.bus, h.address,
                    h.serial.empty() ? "(cannot be read)" : h.serial.c_str());
    if (heads.empty())
        std::fputs("ztproxy: no USB device with a scanner head's endpoints\n", stderr);
    return 0;
}

} // namespace

bool bringUsbHeadOnline(ztUsbProxyServer& server, const UsbHead& head)
{
    HeldLog log;
    const int rc = server.init();
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kOnlineWaitMs);
    while (rc == 0 && !server.isConnected() && !wasInterrupted() && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    if (server.isConnected() || wasInterrupted()) {
        log.release();
        return server.isConnected();
    }
    log.release(std::string("the USB head ") + head.info().serialNumber + " (bus " + std::to_string(head.bus()) +
                ", address " + std::to_string(head.address()) + ") did not come online (init returned " +
                std::to_string(rc) + ")");
    return false;
}

std::unique_ptr<ztSimUsbHead> startSimUsbHead()
{
    auto head = std::make_unique<ztSimUsbHead>();
    if (head->start() == 0)
        return head;
    reportUsbEmulationMissing();
    return nullptr;
}

int runUsbCommand(int argc, char** argv, char** programArgv)
{
    LinkOptions o;
    std::string error;
    if (!parseLinkOptions(argc, argv, "usb", {"--vid", "--pid", "--serial", "--save"}, o, error))
        return usageError(error);
    if (o.help)
        return printLinkHelp(kUsbUsage, DeviceLink::Usb);
    if (o.commands) {
        listDeviceCommands(DeviceLink::Usb, stdout, "", false);
        return 0;
    }
    UsbSelector which;
    if (o.list) {
        if (!o.values.empty() || !o.words.empty())
            return usageError("usb: --list takes no other option or command (but --sim)");
    } else if (o.sim) {
        if (!o.value("--vid").empty() || !o.value("--pid").empty() || !o.value("--serial").empty())
            return usageError("usb: --sim opens its own emulated head; leave out --vid, --pid and --serial");
        which.vendor = ztSimUsbHead::kVendor;
        which.product = ztSimUsbHead::kProduct;
    } else {
        if (!parseUsbIds("usb", o.value("--vid"), o.value("--pid"), which, error))
            return usageError(error);
        which.serial = o.value("--serial");
    }
    PreparedCommand command;
    if (!o.list && !prepareDeviceCommand(DeviceLink::Usb, o.words, command, error))
        return usageError(error);
    if (o.sim && !usbEmulationPreloaded())
        return runAgainWithUsbEmulation(programArgv);

    catchInterrupts();
    std::unique_ptr<ztSimUsbHead> sim;
    if (o.sim && !(sim = startSimUsbHead()))
        return kOfflineStatus;
    int status = 0;
    if (o.list) {
        status = listHeads();
    } else {
        UsbHead head;
        if (!head.open(which, error)) {
            std::fprintf(stderr, "ztproxy: %s\n", error.c_str());
            status = kOfflineStatus;
        } else {
            CommandRunner runner;
            ztUsbProxyServer server(head.info(), head.handle());
            server.registerModuleServerDataCB(&CommandRunner::onData, &runner);
            status = bringUsbHeadOnline(server, head)
                         ? runner.run(command, CommandTarget{&server, nullptr, nullptr}, o.json, o.value("--save"))
                         : kOfflineStatus;
            server.deInit();
        }
        if (wasInterrupted())
            status = reportInterrupted();
    }
    // Every handle on the emulated head is closed by now.
    if (sim)
        sim->stop();
    return status;
}

} // namespace zt::tools
