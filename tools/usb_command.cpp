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

namespace zt::tools {

namespace {

const char* const kUsbUsage =
    "usage: ztproxy usb --vid V --pid P [--serial S] [--json] COMMAND [ARGUMENT...]\n"
    "       ztproxy usb --sim [--json] COMMAND [ARGUMENT...]\n"
    "       ztproxy usb --list\n"
    "\n"
    "Opens a USB scanner head with libusb, claims its interface 0, runs one device command,\n"
    "prints its result and closes the device. The endpoints come from the device's\n"
    "descriptors: bulk IN stream, control and event, then bulk OUT control and heartbeat.\n"
    "\n"
    "options:\n"
    "  --vid V      vendor id, hexadecimal (as lsusb shows it)\n"
    "  --pid P      product id, hexadecimal\n"
    "  --serial S   the device with this serial number (default: the first one)\n"
    "  --sim        run the emulated USB head in this process and use it; the emulation\n"
    "               needs umockdev's LD_PRELOAD=libumockdev-preload.so.0, which the tool\n"
    "               sets by running itself again when it is missing\n"
    "  --json       print one JSON object instead of lines\n"
    "  --list       print the commands with their arguments, one per line\n"
    "  -h, --help   show this help\n";

// A head answers its first heartbeat within one 500 ms period; five silent periods in a
// row make it offline.
constexpr int kOnlineWaitMs = 2500;

// Brings the server online on the opened head, runs the command and takes the server down.
int runOn(const UsbHead& head, const PreparedCommand& command, bool json)
{
    CommandRunner runner;
    ztUsbProxyServer server(head.info(), head.handle());
    server.registerModuleServerDataCB(&CommandRunner::onData, &runner);
    const int rc = server.init();
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kOnlineWaitMs);
    while (rc == 0 && !server.isConnected() && !wasInterrupted() && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    int status = 0;
    if (wasInterrupted()) {
        status = reportInterrupted();
    } else if (!server.isConnected()) {
        std::fprintf(stderr, "ztproxy: the USB head %s did not come online (init returned %d)\n",
                     head.info().serialNumber, rc);
        status = 1;
    } else {
        runner.run(command, CommandTarget{server, nullptr}, json);
        status = wasInterrupted() ? reportInterrupted() : 0;
    }
    server.deInit();
    return status;
}

} // namespace

int runUsbCommand(int argc, char** argv, char** programArgv)
{
    LinkOptions o;
    std::string error;
    if (!parseLinkOptions(argc, argv, "usb", {"--vid", "--pid", "--serial"}, o, error))
        return usageError(error);
    if (o.help)
        return printLinkHelp(kUsbUsage, DeviceLink::Usb);
    if (o.list) {
        listDeviceCommands(DeviceLink::Usb, stdout, "", false);
        return 0;
    }
    UsbSelector which;
    if (o.sim) {
        if (!o.values.empty())
            return usageError("usb: --sim opens its own emulated head; leave out --vid, --pid and --serial");
        which.vendor = ztSimUsbHead::kVendor;
        which.product = ztSimUsbHead::kProduct;
    } else {
        const std::string vid = o.value("--vid");
        const std::string pid = o.value("--pid");
        if (vid.empty() || pid.empty())
            return usageError("usb: give --vid V and --pid P, or --sim (see ztproxy usb --help)");
        if (!parseUsbId(vid, which.vendor))
            return usageError("usb: vendor id '" + vid + "' is not a hexadecimal number from 0 to ffff");
        if (!parseUsbId(pid, which.product))
            return usageError("usb: product id '" + pid + "' is not a hexadecimal number from 0 to ffff");
        which.serial = o.value("--serial");
    }
    PreparedCommand command;
    if (!prepareDeviceCommand(DeviceLink::Usb, o.words, command, error))
        return usageError(error);
    if (o.sim && !usbEmulationPreloaded())
        return runAgainWithUsbEmulation(programArgv);

    catchInterrupts();
    std::unique_ptr<ztSimUsbHead> sim;
    if (o.sim) {
        sim = std::make_unique<ztSimUsbHead>();
        if (sim->start() != 0) {
            reportUsbEmulationMissing();
            return 1;
        }
    }
    int status = 0;
    {
        UsbHead head;
        if (head.open(which, error)) {
            status = runOn(head, command, o.json);
        } else {
            std::fprintf(stderr, "ztproxy: %s\n", error.c_str());
            status = 1;
        }
    }
    // Every handle on the emulated head is closed by now.
    if (sim)
        sim->stop();
    return status;
}

} // namespace zt::tools
