// Every reply parser of the device command catalogue, reached through the public command
// methods of a device server whose link hands the fuzz bytes back as the head's reply: the
// whole message a framer cuts from them, in a buffer of exactly its size (on USB, of at
// least the 1024 cleared bytes the control exchange reads into).
//
// Input: one byte picks the command, one the link's result policy (the network link's 0/-1
// or the USB link's status words), the rest is what the head sends.
#include "commands/Catalogue.h"
#include "fuzz_support.h"
#include "network/EmbeddedFramer.h"
#include "network/EmbeddedInternals.h"
#include "ztEmbeddedModuleProxyServer.h"

#include <algorithm>
#include <string>

namespace {

using zt::commands::Command;

// A network device server that is its own command link: its commands, the network-only
// ones included, run unchanged, and each reply is the input's.
class Server final : public ztEmbeddedModuleProxyServer, public zt::commands::Link {
public:
    const std::uint8_t* data = nullptr;
    std::size_t size = 0;
    bool usb = false;

    const char* className() const override { return usb ? "ztUsbProxyServer" : "ztEmbeddedModuleProxyServer"; }
    bool returnsStatusWord() const override { return usb; }

    int exchange(const Command& c, const char*, int, const std::function<int(const char*)>& judge) override
    {
        if (c.reply == zt::commands::Reply::NoWait || (usb && (c.flags & zt::commands::kUsbNoWait) != 0))
            return 0;
        const bool large = (c.flags & zt::commands::kLargeReply) != 0;
        zt::EmbeddedFramer framer(zt::EmbeddedFramer::kMinHeldRequestReply,
                                  static_cast<std::size_t>(large ? zt::embedded::kLargeReplyLimit
                                                                 : zt::embedded::kReplyLimit));
        framer.append(data, size);
        const char* m = framer.front();
        if (m == nullptr)
            return -1;
        std::vector<char> reply(m, m + framer.frontSize());
        if (usb)
            reply.resize(std::max<std::size_t>(reply.size(), 1024), 0);
        return judge(reply.data());
    }

    // As the network link does: the reply goes to the data callback.
    void handOff(char* reply) override { processMsg(reply); }
    // As the USB link does: a query may read on into the cleared 1024-byte head.
    int readablePayload(int payloadLength) const override
    {
        return usb ? std::max(payloadLength, 1024 - 7) : payloadLength;
    }

private:
    zt::commands::Link& commandLink() override { return *this; }
};

// Reads every byte a callback is handed, so that a payload reaching past its message
// shows.
unsigned g_sink = 0;
void onData(int type, char* data, int len, void*)
{
    g_sink += static_cast<unsigned>(type);
    for (int i = 0; i < len; ++i)
        g_sink += static_cast<unsigned char>(data[i]);
}

// Runs one command; returns its result. Arguments are fixed valid values: the input is
// the reply, not the request.
int runCommand(Server& s, unsigned which, std::size_t replySize)
{
    int i[4] = {0, 0, 0, 0};
    float f = 0;
    short sh[4] = {0, 0, 0, 0};
    unsigned long long u64 = 0;
    std::string text;
    std::vector<std::string> sns;
    DeviceAbilityInfo ability{};
    // getCameraROI writes as many name bytes as the reply declares, within what the link
    // lets it read: the reply, or on USB the cleared 1024-byte head behind a short one.
    std::vector<char> name(std::max<std::size_t>(replySize, 1024) + 1, 0);
    char ssid[256] = {};
    char pass[256] = {};
    char roiName[] = "roi";
    char payload[16] = {};
    int a[3] = {1, 2, 3};
    int b[3] = {4, 5, 6};
    const unsigned int value = 5;
    switch (which) {
    case 0: return s.sendTrigger();
    case 1: return s.sendStopTrigger();
    case 2: return s.sendPreTrigger();
    case 3: return s.getTriggerMode(&i[0]);
    case 4: return s.setScanStatus(1);
    case 5: return s.setScanDataSource(1);
    case 6: return s.getScanDataSource(&i[0]);
    case 7: return s.execSync(true, false);
    case 8: return s.updateSyncStat();
    case 9: return s.setHardwareSyncMode(1);
    case 10: return s.getHardwareSyncMode(&i[0]);
    case 11: return s.setMaster(1);
    case 12: return s.getMaster(&i[0]);
    case 13: return s.setSystemId(7);
    case 14: return s.getSystemId(&u64);
    case 15: return s.getBandWidth(&i[0]);
    case 16: return s.setCameraExposure(1.5f);
    case 17: return s.getCameraExposure(&f);
    case 18: return s.setLedExposure(1.5f);
    case 19: return s.getLedExposure(&f);
    case 20: return s.setCameraGain(2.0f);
    case 21: return s.getCameraGain(&f);
    case 22: return s.setCameraFrameRate(30);
    case 23: return s.getCameraFrameRate(&i[0]);
    case 24: return s.setPeriod(40);
    case 25: return s.getPeriod(&i[0]);
    case 26: return s.setCameraROI(roiName, 3, 1, 2, 3, 4);
    case 27: return s.getCameraROI(name.data(), i[0], sh[0], sh[1], sh[2], sh[3]);
    case 28: return s.setCameraReverse(roiName, 3, 1);
    case 29: return s.setImageROI("roi", 1, 2, 3, 4);
    case 30: return s.getImageSize(&sh[0], &sh[1]);
    case 31: return s.resetCamera();
    case 32: return s.setDropFrameRateMode(FRAME_DROP_HALF);
    case 33: return s.setLaserTriggerMode(FRAME_DROP_HALF);
    case 34: return s.setDeviceDropFrame(1, 2, 3, 4, 5, 6);
    case 35: return s.setQRBarCenter(roiName, 3, true, a, b);
    case 36: return s.sendLightCMD(1);
    case 37: return s.sendLazerCMD(1, 'a', 2);
    case 38: return s.enableAlarmVoice(true);
    case 39: return s.sendIsBlackObject(true);
    case 40: return s.setLightPenEnable(true);
    case 41: return s.SetLightpenType(1);
    case 42: return s.sendGetLPFindList();
    case 43: return s.sendLPSelectInfo("SN1", 1);
    case 44: return s.getLightpenVersion("SN1", text);
    case 45: return s.preheatRK(1);
    case 46: return s.setHybridComputeNum2RK(2);
    case 47: return s.syncTime2Device(std::string(32, '1'));
    case 48: return s.rebootDevice();
    case 49: return s.redetectNetworkCard30();
    case 50: return s.getCameraSN(sns);
    case 51: return s.getDeviceAbilityInfo(&ability);
    case 52: return s.getFirmwareVersion(text);
    case 53: return s.getFirmwareDate(text);
    case 54: return s.getRKProgramVersion(&i[0], &i[1], &i[2], &i[3]);
    case 55: return s.setIntegerRegisterValue("Gain", value);
    case 56: return s.getIntegerRegisterValue("Gain", &i[0]);
    case 57: return s.setEnumerationRegisterValue("Mode", value);
    case 58: return s.getEnumerationRegisterValue("Mode", &i[0]);
    case 59: return s.readRegisterValue(1, 0x100, 4);
    case 60: return s.setRegisterValue(1, 0x100, 4, payload);
    case 61: return s.setWifi(ssid, 4, pass, 4);
    case 62: return s.getWifi(ssid, pass);
    case 63: return s.reconnectWIFI("net");
    case 64: return s.getSETFile(SET_FILE_DATA_1);
    case 65: return s.sendSETFile(payload, sizeof payload);
    case 66: return s.sendRGFFile(payload, sizeof payload);
    case 67: return s.getLPSETFile("SN1");
    case 68: return s.sendLightpenSETFile(payload, sizeof payload);
    case 69: return s.updateFirmware(payload, sizeof payload);
    case 70: return s.getSectionalLog();
    case 71: return s.getAllLog();
    case 72: return s.switchHardwareFrameRate(1);
    case 73: return s.getHardwareFrameRateType(i[0]);
    case 74: return s.preheatRKWithTrigger(1);
    case 75: return s.getTemp();
    default: return s.getRGFFile();
    }
}
constexpr unsigned kCommands = 77;
constexpr unsigned kAbilityQuery = 51;
Server* g_server = nullptr;

} // namespace

void zt::fuzz::setUp()
{
    g_server = new Server;
    g_server->registerModuleServerDataCB(&onData, nullptr);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size < 2)
        return 0;
    Server& server = *g_server;
    const unsigned which = data[0] % kCommands;
    server.data = data + 2;
    server.size = size - 2;
    server.usb = (data[1] & 1) != 0;
    const int result = runCommand(server, which, size);
    // The network link reduces every result to 0 or -1, except the ability query's, which
    // passes the head's non-zero status on as it stands.
    zt::fuzz::check(server.usb || which == kAbilityQuery || result == 0 || result == -1,
                    "network result other than 0 or -1");
    return 0;
}
