// The command set of a scanner head, shared by both device links.
//
// ztEmbeddedModuleProxyServer (network head) and ztUsbProxyServer (USB head) inherit these
// methods: every command travels as one embedded message with the same type code and
// payload on both links, and each link supplies its own exchange.
//
// Results. Setting and action commands return 0 or -1 on the network link; on the USB
// link they return the device's status word as it stands (negative means failure), or -1
// when the exchange itself failed. Queries return 0 and fill their outputs, or -1 (outputs
// untouched). A reply too short for what a query reads fails with -1 and a log line.
// Arguments that cannot be encoded (a negative length, a null buffer, a serial-number text
// longer than 15 characters, a time text shorter than 32 bytes, a period of 0) fail with -1
// and a log line; nothing is sent.
//
// Threads. Commands may be called from any thread; each link serialises them (one command
// in flight per link object). Do not call them from inside the data callback: replies
// that a command hands to inbound processing raise the callback on the calling thread.
#ifndef ZT_DEVICE_COMMAND_SET_H
#define ZT_DEVICE_COMMAND_SET_H

#include "ztProxyConfig.h"
#include "ztProxyExport.h"
#include "ztProxyTypes.h"
#if ZT_PROXY_WITH_IMAGE
#include "ztImageAssembler.h"
#endif

#include <mutex>
#include <string>
#include <vector>

namespace zt {
class RecorderCore;
}
namespace zt::commands {
class Link;
}
class ztRecorder;

// Where the library is built with image assembly, both links also offer the methods of
// ztImageAssembler (getOriImageData, getCutoutImageData, imageFormat_16To8, ...).
class ZT_PROXY_API ztDeviceCommandSet
#if ZT_PROXY_WITH_IMAGE
    : public ztImageAssembler
#endif
{
public:
    virtual ~ztDeviceCommandSet();
    ztDeviceCommandSet(const ztDeviceCommandSet&) = delete;
    ztDeviceCommandSet& operator=(const ztDeviceCommandSet&) = delete;

    // Trigger, scan and synchronisation.
    int sendTrigger();
    int sendStopTrigger();
    // Sent without waiting for an answer: 0 once the request is out.
    int sendPreTrigger();
    int getTriggerMode(int* mode);
    int setScanStatus(int status);
    int setScanDataSource(int source);
    int getScanDataSource(int* source);
    // Only the first argument travels.
    int execSync(bool start, bool wait);
    int updateSyncStat();
    int setHardwareSyncMode(int mode);
    int getHardwareSyncMode(int* mode);
    int setMaster(int master);
    int getMaster(int* master);
    int setSystemId(unsigned long long id);
    int getSystemId(unsigned long long* id);
    int getBandWidth(int* bandWidth);

    // Camera, exposure and frame rate.
    int setCameraExposure(float exposure);
    int getCameraExposure(float* exposure);
    int setLedExposure(float exposure);
    int getLedExposure(float* exposure);
    // The gain travels as an integer (truncated toward zero).
    int setCameraGain(float gain);
    int getCameraGain(float* gain);
    int setCameraFrameRate(int fps);
    int getCameraFrameRate(int* fps);
    // The frame period in milliseconds, sent as the frame rate 1000 / period.
    int setPeriod(int periodMs);
    int getPeriod(int* periodMs);
    int setCameraROI(char* name, int nameLen, short x, short y, short width, short height);
    // name receives nameLen bytes without a terminator; the caller's buffer must hold them.
    int getCameraROI(char* name, int& nameLen, short& x, short& y, short& width, short& height);
    int setCameraReverse(char* name, int nameLen, int value);
    int setImageROI(std::string name, short x, short y, short width, short height);
    // The sensor image size.
    int getImageSize(short* width, short* height);
    int resetCamera();
    int setDropFrameRateMode(FRAME_DROP_MODE mode);
    int setLaserTriggerMode(FRAME_DROP_MODE mode);
    // The second value travels whole when it is 2 or more; 1 sends only its low byte and
    // 0 sends zeros in its place.
    int setDeviceDropFrame(short a, short b, short c, short d, short e, short f);
    // Sends name, flag, a[0], a[2], b[0] and b[2].
    int setQRBarCenter(char* name, int nameLen, bool flag, int* const a, int* const b);

    // Light, laser, light pen and housekeeping.
    int sendLightCMD(int command);
    int sendLazerCMD(int command, char channel, int value);
    int enableAlarmVoice(bool enable);
    int sendIsBlackObject(bool black);
    int setLightPenEnable(bool enable);
    int SetLightpenType(int type);
    // The list arrives later through the data callback.
    int sendGetLPFindList();
    int sendLPSelectInfo(std::string sn, int value);
    int getLightpenVersion(std::string sn, std::string& version);
    int preheatRK(int value);
    int setHybridComputeNum2RK(int count);
    // Sends the first 32 bytes of the text.
    int syncTime2Device(std::string time);
    int rebootDevice();
    int redetectNetworkCard30();
    int getCameraSN(std::vector<std::string>& sns);
    int getDeviceAbilityInfo(DeviceAbilityInfo* info);
    // The ability record read when the device came online.
    DeviceAbilityInfo getCurDeviceAbilityInfo();
    // Fills info from an ability reply's payload behind its status word (reads up to 60
    // bytes); -1 for a null pointer.
    int parseDeviceAblityInfo(const char* data, DeviceAbilityInfo* info);
    // The firmware version as four numbers, high byte first: "1-2-10-3".
    int getFirmwareVersion(std::string& version);
    // Appends the firmware date as six numbers: "20:24:11:15:9:30".
    int getFirmwareDate(std::string& date);
    int getRKProgramVersion(int* major, int* minor, int* revision, int* build);

    // Registers and network settings.
    int setIntegerRegisterValue(const char* name, const unsigned int& value);
    int getIntegerRegisterValue(const char* name, int* value);
    int setEnumerationRegisterValue(const char* name, const unsigned int& value);
    int getEnumerationRegisterValue(const char* name, int* value);
    // The value read is written to the log; there is no output argument.
    int readRegisterValue(int device, unsigned int address, int length);
    int setRegisterValue(int device, unsigned int address, int len, char* data);
    int setWifi(char* ssid, int ssidLen, char* pass, int passLen);
    // ssid and pass receive the texts without terminator: pass zeroed buffers of 256 bytes.
    int getWifi(char* ssid, char* pass);
    int reconnectWIFI(std::string ssid);

    // Files, firmware and logs. A requested file or log arrives through the data callback.
    int getSETFile(SetFileDataType type);
    int sendSETFile(char* data, unsigned long long len);
    int sendRGFFile(char* data, unsigned long long len);
    int getLPSETFile(std::string sn);
    int sendLightpenSETFile(char* data, unsigned long long len);
    // Network: waits for the exchange and ignores the reply; USB: does not wait.
    int updateFirmware(char* data, unsigned long long len);
    int getSectionalLog();
    int getAllLog();

    // Records what passes on this head's link into recorder (see ztRecorder.h) from now
    // on; null stops recording. Returns once the recorder replaced is no longer used, so
    // it may then be closed or destroyed. One server per recorder; a recorder must not be
    // destroyed while attached.
    void attachRecorder(ztRecorder* recorder);

    // The commands by name and type code (the same on both links), for tools and logs.
    // The type code of the command named after this method ("getCameraGain": 19), or -1
    // when no command has that name.
    static int commandTypeOf(const std::string& name);
    // The methods whose commands travel with this type code, in the order of this class
    // (13: sendTrigger, sendStopTrigger, sendPreTrigger); empty when no command uses it.
    static std::vector<std::string> commandNamesOf(unsigned short type);

protected:
    ztDeviceCommandSet();
    // Keeps the ability record read when the device comes online.
    void keepAbilityInfo(const DeviceAbilityInfo& info);

private:
    // The link's exchange and result policy.
    virtual zt::commands::Link& commandLink() = 0;
    // Tells a recorder being attached which link it records and what is known of the head.
    virtual void describeForRecording(zt::RecorderCore& recorder) = 0;

    std::mutex m_abilityMutex;
    DeviceAbilityInfo m_abilityInfo;
};

#endif
