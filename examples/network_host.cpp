// A minimal host for a network scanner head: bring it online, set and read a few values,
// run a short scan and count what the head sends.
//
//   network_host [LOCAL_IP [HEAD_IP]]      (both default to 127.0.0.1)
//
// Try it without hardware: `ztproxy sim head` in another terminal.
#include <ztEmbeddedModuleProxyServer.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>

namespace {

std::atomic<int> received{0};

// Runs on the server's own threads: keep it short and never call a command from here.
void onData(int type, char*, int, void*)
{
    if (type == ZT_CODE_DEVICE_ONLINE)
        std::printf("head online\n");
    else if (type == ZT_CODE_DEVICE_OFFLINE)
        std::printf("head offline\n");
    else
        ++received;
}

} // namespace

int main(int argc, char** argv)
{
    const std::string local = argc > 1 ? argv[1] : "127.0.0.1";
    const std::string remote = argc > 2 ? argv[2] : "127.0.0.1";

    ztEmbeddedModuleProxyServer head;
    head.registerModuleServerDataCB(onData, nullptr);
    if (head.init(local, remote, "example-head") != 0 || !head.isConnected()) {
        std::fprintf(stderr, "no scanner head answers at %s\n", remote.c_str());
        return 1;
    }

    float exposure = 0;
    if (head.setCameraExposure(2500.0f) == 0 && head.getCameraExposure(&exposure) == 0)
        std::printf("exposure %.1f\n", exposure);
    short width = 0, height = 0;
    if (head.getImageSize(&width, &height) == 0)
        std::printf("image %dx%d\n", width, height);
    std::string firmware;
    if (head.getFirmwareVersion(firmware) == 0)
        std::printf("firmware %s\n", firmware.c_str());

    head.sendTrigger();
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    head.sendStopTrigger();
    std::printf("%d messages from the head\n", received.load());
    head.deInit();
    return 0;
}
