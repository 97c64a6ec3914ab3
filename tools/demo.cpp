#include "demo.h"

#include "ztModuleProxyServer.h"
#include "ztSimModule.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>

namespace zt::tools {

namespace {

// The host's side of the demo: prints the module's notifications and answers its queries.
struct HostSide {
    ztModuleProxyServer server;
    std::mutex mutex;
    std::condition_variable arrived;
    int notes = 0;

    static void onNote(int code, char* data, int length, void* user)
    {
        auto* self = static_cast<HostSide*>(user);
        switch (code) {
        case 0x30000: {
            std::uint32_t n = 0;
            std::memcpy(&n, data, 4);
            std::printf("  host   <- device on: \"%.*s\"\n", static_cast<int>(n), data + 4);
            break;
        }
        case 0x40000: {
            std::int32_t v[2];
            std::memcpy(v, data, 8);
            std::printf("  host   <- device %d state changed to %d\n", v[0], v[1]);
            break;
        }
        case 0x40001: {
            std::uint32_t n = 0;
            std::memcpy(&n, data + 16, 4);
            std::printf("  host   <- device data: %u bytes\n", n);
            break;
        }
        case 0x20002:
            // A SET file size query: answered from inside the callback.
            std::printf("  host   <- query: size of SET file \"%.*s\"; answering 4096\n",
                        static_cast<unsigned char>(data[0]), data + 2);
            self->server.sendSETFileSizeRep(4096);
            break;
        default:
            std::printf("  host   <- notification 0x%05X, %d bytes\n", code, length);
            break;
        }
        std::lock_guard<std::mutex> lock(self->mutex);
        ++self->notes;
        self->arrived.notify_all();
    }

    bool waitNotes(int n, int ms)
    {
        std::unique_lock<std::mutex> lock(mutex);
        return arrived.wait_for(lock, std::chrono::milliseconds(ms), [&] { return notes >= n; });
    }
};

void result(const char* what, int rc, const std::string& value = "")
{
    std::printf("  %-44s %s%s%s\n", what, rc == 0 ? "ok" : "failed (-1)", value.empty() ? "" : "  ", value.c_str());
}

} // namespace

int runModuleProxyDemo()
{
    std::printf("== module proxy: a host drives a simulated device module over loopback ==\n");
    ztSimModule module;
    if (module.start() != 0) {
        std::fprintf(stderr, "demo: the module cannot listen on ports 11300 and 9479 (in use?)\n");
        return 1;
    }
    std::printf("  module    listening: data channel on 11300, command channel on 9479\n");

    HostSide host;
    host.server.registerModuleServerDataCB(&HostSide::onNote, &host);
    const auto start = std::chrono::steady_clock::now();
    host.server.init("127.0.0.1");
    ztSimModule::Request first;
    if (!module.nextRequest(first, 5000) || first.code != 1) {
        std::fprintf(stderr, "demo: the host did not register with the module\n");
        return 1;
    }
    // The register exchange runs outside the command mutex: let the host take its reply
    // before the first request goes out.
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    std::printf("  host      connected both channels and registered (%lld ms, 2000 of them the register delay)\n",
                static_cast<long long>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                           std::chrono::steady_clock::now() - start)
                                           .count()));

    std::printf("-- requests --\n");
    int failures = 0;
    auto expect = [&](bool ok) { failures += ok ? 0 : 1; };
    _ZT_HEARTBEAT_INFO_ hb{};
    int rc = host.server.heartbeat(&hb);
    result("heartbeat", rc, "device status " + std::to_string(hb.deviceStatus));
    expect(rc == 0);
    std::string version;
    rc = host.server.getFirmwareVersion(version);
    result("getFirmwareVersion", rc, "\"" + version + "\"");
    expect(rc == 0);
    rc = host.server.setLZExposure(12.5f);
    result("setLZExposure(12.5)", rc);
    expect(rc == 0);
    float exposure = 0;
    rc = host.server.getLZExposure(&exposure);
    result("getLZExposure", rc, std::to_string(exposure));
    expect(rc == 0 && exposure == 12.5f);
    rc = host.server.setSystemId(0x5A5400000000BEEFull);
    result("setSystemId(0x5A5400000000BEEF)", rc);
    unsigned long long id = 0;
    rc = host.server.getSystemId(&id);
    char hex[32];
    std::snprintf(hex, sizeof hex, "0x%llX", id);
    result("getSystemId", rc, hex);
    expect(rc == 0 && id == 0x5A5400000000BEEFull);
    rc = host.server.sendTrigger();
    result("sendTrigger", rc);
    expect(rc == 0);
    int lightType = 0;
    rc = host.server.getLightType(&lightType);
    result("getLightType", rc, "(the module answers with sub type 0x20003)");
    expect(rc == -1);

    std::printf("-- notifications and a file query from the module --\n");
    module.client().sendDeviceOn("head-0", {0});
    module.client().sendDeviceStatChanged(0, 2);
    static unsigned char frame[4096];
    module.client().sendDeviceData(1, 0, frame, sizeof frame, 0);
    expect(host.waitNotes(3, 2000));
    unsigned int size = 0;
    rc = module.client().getSETFileSize("scanner", "default.set", &size);
    std::printf("  module    getSETFileSize -> %s, %u bytes\n", rc == 0 ? "ok" : "failed", size);
    expect(rc == 0 && size == 4096);

    module.stop();
    host.server.deInit();
    std::printf("  %s\n", failures == 0 ? "module proxy: every step went as expected" : "module proxy: some steps failed");
    return failures == 0 ? 0 : 1;
}

} // namespace zt::tools
