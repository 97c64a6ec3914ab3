// Every command of the device command set, each a payload encoder and, for queries, a
// reply parser around one run of the catalogue over the object's link.
#include "ztDeviceCommandSet.h"

#include "Catalogue.h"
#include "DeviceAbility.h"
#include "platform/zt_log.h"
#include "ztRecorder.h"

#include <cmath>
#include <cstring>
#include <limits>
#include <type_traits>

using zt::commands::Cmd;
using zt::commands::Payload;
using zt::commands::ReplyView;
using zt::commands::run;

namespace {

// A parser that stores the 32-bit value at payload offset 4.
template <class T>
zt::commands::Parser valueAt4(T* out)
{
    return [out](const ReplyView& r) {
        if (!r.covers(8))
            return r.tooShort();
        if constexpr (std::is_same_v<T, float>)
            *out = r.f32(4);
        else
            *out = static_cast<T>(r.i32(4));
        return 0;
    };
}

// A query whose reply carries one value at payload offset 4.
template <class T>
int query(zt::commands::Link& link, Cmd id, T* out)
{
    return out == nullptr ? run(link, id, Payload().refuse("no output")) : run(link, id, Payload(), valueAt4(out));
}

// A float from the head as an int, truncated; values an int cannot hold are refused.
bool truncateToInt(double v, int* out)
{
    if (!std::isfinite(v) || v <= static_cast<double>(std::numeric_limits<int>::min()) - 1.0 ||
        v >= static_cast<double>(std::numeric_limits<int>::max()) + 1.0)
        return false;
    *out = static_cast<int>(v);
    return true;
}

// The four bytes of a word, high byte first, as decimal numbers joined by sep.
std::string byteText(std::uint32_t word, const char* sep)
{
    std::string text;
    for (int shift = 24; shift >= 0; shift -= 8) {
        if (shift != 24)
            text += sep;
        text += std::to_string((word >> shift) & 0xFF);
    }
    return text;
}

} // namespace

ztDeviceCommandSet::ztDeviceCommandSet() : m_abilityInfo{0, 31, 3, 4, 0, 0, 0, 0, 0, 0, 0, 0}
{
}

ztDeviceCommandSet::~ztDeviceCommandSet() = default;

void ztDeviceCommandSet::keepAbilityInfo(const DeviceAbilityInfo& info)
{
    {
        std::lock_guard<std::mutex> lock(m_abilityMutex);
        m_abilityInfo = info;
    }
    commandLink().tap.use([&](zt::RecorderCore& r) { r.setAbility(info); });
}

void ztDeviceCommandSet::attachRecorder(ztRecorder* recorder)
{
    if (recorder != nullptr)
        describeForRecording(*recorder->m_core);
    commandLink().tap.attach(recorder != nullptr ? recorder->m_core.get() : nullptr);
}

DeviceAbilityInfo ztDeviceCommandSet::getCurDeviceAbilityInfo()
{
    std::lock_guard<std::mutex> lock(m_abilityMutex);
    return m_abilityInfo;
}

int ztDeviceCommandSet::parseDeviceAblityInfo(const char* data, DeviceAbilityInfo* info)
{
    return zt::commands::parseAbility(data, info);
}

int ztDeviceCommandSet::commandTypeOf(const std::string& name)
{
    for (std::size_t i = 0; i < static_cast<std::size_t>(Cmd::count); ++i) {
        const zt::commands::Command& c = zt::commands::command(static_cast<Cmd>(i));
        if (name == c.name)
            return c.type;
    }
    return -1;
}

std::vector<std::string> ztDeviceCommandSet::commandNamesOf(unsigned short type)
{
    std::vector<std::string> names;
    for (std::size_t i = 0; i < static_cast<std::size_t>(Cmd::count); ++i) {
        const zt::commands::Command& c = zt::commands::command(static_cast<Cmd>(i));
        if (c.type == type)
            names.emplace_back(c.name);
    }
    return names;
}

// Trigger, scan and synchronisation.

int ztDeviceCommandSet::sendTrigger()
{
    return run(commandLink(), Cmd::sendTrigger, Payload().i32(1));
}

int ztDeviceCommandSet::sendStopTrigger()
{
    return run(commandLink(), Cmd::sendStopTrigger, Payload().i32(0));
}

int ztDeviceCommandSet::sendPreTrigger()
{
    return run(commandLink(), Cmd::sendPreTrigger, Payload().i32(2));
}

int ztDeviceCommandSet::getTriggerMode(int* mode)
{
    if (mode == nullptr)
        return run(commandLink(), Cmd::getTriggerMode, Payload().refuse("no output"));
    return run(commandLink(), Cmd::getTriggerMode, Payload(), [mode](const ReplyView& r) {
        if (!r.covers(8))
            return r.tooShort();
        return truncateToInt(r.f32(4), mode) ? 0 : -1;
    });
}

int ztDeviceCommandSet::setScanStatus(int status)
{
    return run(commandLink(), Cmd::setScanStatus, Payload().i32(status));
}

int ztDeviceCommandSet::setScanDataSource(int source)
{
    return run(commandLink(), Cmd::setScanDataSource, Payload().i32(source));
}

int ztDeviceCommandSet::getScanDataSource(int* source)
{
    return query(commandLink(), Cmd::getScanDataSource, source);
}

int ztDeviceCommandSet::execSync(bool start, bool)
{
    return run(commandLink(), Cmd::execSync, Payload().flag(start));
}

int ztDeviceCommandSet::updateSyncStat()
{
    return run(commandLink(), Cmd::updateSyncStat);
}

int ztDeviceCommandSet::setHardwareSyncMode(int mode)
{
    return run(commandLink(), Cmd::setHardwareSyncMode, Payload().i32(mode));
}

int ztDeviceCommandSet::getHardwareSyncMode(int* mode)
{
    return query(commandLink(), Cmd::getHardwareSyncMode, mode);
}

int ztDeviceCommandSet::setMaster(int master)
{
    return run(commandLink(), Cmd::setMaster, Payload().i32(master));
}

int ztDeviceCommandSet::getMaster(int* master)
{
    return query(commandLink(), Cmd::getMaster, master);
}

int ztDeviceCommandSet::setSystemId(unsigned long long id)
{
    return run(commandLink(), Cmd::setSystemId, Payload().u64(id));
}

int ztDeviceCommandSet::getSystemId(unsigned long long* id)
{
    if (id == nullptr)
        return run(commandLink(), Cmd::getSystemId, Payload().refuse("no output"));
    return run(commandLink(), Cmd::getSystemId, Payload(), [id](const ReplyView& r) {
        if (!r.covers(12))
            return r.tooShort();
        *id = r.u64(4);
        return 0;
    });
}

int ztDeviceCommandSet::getBandWidth(int* bandWidth)
{
    return query(commandLink(), Cmd::getBandWidth, bandWidth);
}

// Camera, exposure and frame rate.

int ztDeviceCommandSet::setCameraExposure(float exposure)
{
    return run(commandLink(), Cmd::setCameraExposure, Payload().f32(exposure));
}

int ztDeviceCommandSet::getCameraExposure(float* exposure)
{
    return query(commandLink(), Cmd::getCameraExposure, exposure);
}

int ztDeviceCommandSet::setLedExposure(float exposure)
{
    return run(commandLink(), Cmd::setLedExposure, Payload().f32(exposure));
}

int ztDeviceCommandSet::getLedExposure(float* exposure)
{
    return query(commandLink(), Cmd::getLedExposure, exposure);
}

int ztDeviceCommandSet::setCameraGain(float gain)
{
    int whole = 0;
    if (!truncateToInt(gain, &whole))
        return run(commandLink(), Cmd::setCameraGain, Payload().refuse("gain out of range"));
    return run(commandLink(), Cmd::setCameraGain, Payload().i32(whole));
}

int ztDeviceCommandSet::getCameraGain(float* gain)
{
    if (gain == nullptr)
        return run(commandLink(), Cmd::getCameraGain, Payload().refuse("no output"));
    // The gain travels as an integer.
    return run(commandLink(), Cmd::getCameraGain, Payload(), [gain](const ReplyView& r) {
        if (!r.covers(8))
            return r.tooShort();
        *gain = static_cast<float>(r.i32(4));
        return 0;
    });
}

int ztDeviceCommandSet::setCameraFrameRate(int fps)
{
    return run(commandLink(), Cmd::setCameraFrameRate, Payload().i32(fps));
}

int ztDeviceCommandSet::getCameraFrameRate(int* fps)
{
    return query(commandLink(), Cmd::getCameraFrameRate, fps);
}

int ztDeviceCommandSet::setPeriod(int periodMs)
{
    // A period of 0 would divide by zero.
    if (periodMs == 0)
        return run(commandLink(), Cmd::setPeriod, Payload().refuse("period of 0"));
    return run(commandLink(), Cmd::setPeriod, Payload().i32(1000 / periodMs));
}

int ztDeviceCommandSet::getPeriod(int* periodMs)
{
    if (periodMs == nullptr)
        return run(commandLink(), Cmd::getPeriod, Payload().refuse("no output"));
    return run(commandLink(), Cmd::getPeriod, Payload(), [periodMs](const ReplyView& r) {
        if (!r.covers(8))
            return r.tooShort();
        // A frame rate of 0 has no period.
        const std::int32_t fps = r.i32(4);
        return fps != 0 && truncateToInt(1000.0 / fps, periodMs) ? 0 : -1;
    });
}

int ztDeviceCommandSet::setCameraROI(char* name, int nameLen, short x, short y, short width, short height)
{
    return run(commandLink(), Cmd::setCameraROI, Payload().name(name, nameLen).i16(x).i16(y).i16(width).i16(height));
}

int ztDeviceCommandSet::getCameraROI(char* name, int& nameLen, short& x, short& y, short& width, short& height)
{
    if (name == nullptr)
        return run(commandLink(), Cmd::getCameraROI, Payload().refuse("no name buffer"));
    return run(commandLink(), Cmd::getCameraROI, Payload(), [&](const ReplyView& r) {
        if (!r.covers(8))
            return r.tooShort();
        const std::int32_t n = r.i32(4);
        if (n < 0 || !r.covers(16LL + n))
            return r.tooShort();
        nameLen = n;
        std::memcpy(name, r.payload() + 8, static_cast<std::size_t>(n));
        x = r.i16(8 + n);
        y = r.i16(10 + n);
        width = r.i16(12 + n);
        height = r.i16(14 + n);
        return 0;
    });
}

int ztDeviceCommandSet::setCameraReverse(char* name, int nameLen, int value)
{
    return run(commandLink(), Cmd::setCameraReverse, Payload().name(name, nameLen).i32(value));
}

int ztDeviceCommandSet::setImageROI(std::string name, short x, short y, short width, short height)
{
    return run(commandLink(), Cmd::setImageROI, Payload().name(name).i16(x).i16(y).i16(width).i16(height));
}

int ztDeviceCommandSet::getImageSize(short* width, short* height)
{
    if (width == nullptr || height == nullptr)
        return run(commandLink(), Cmd::getImageSize, Payload().refuse("no output"));
    return run(commandLink(), Cmd::getImageSize, Payload(), [=](const ReplyView& r) {
        if (!r.covers(8))
            return r.tooShort();
        *width = r.i16(4);
        *height = r.i16(6);
        return 0;
    });
}

int ztDeviceCommandSet::resetCamera()
{
    return run(commandLink(), Cmd::resetCamera);
}

int ztDeviceCommandSet::setDropFrameRateMode(FRAME_DROP_MODE mode)
{
    return run(commandLink(), Cmd::setDropFrameRateMode, Payload().i16(static_cast<std::int16_t>(mode)));
}

int ztDeviceCommandSet::setLaserTriggerMode(FRAME_DROP_MODE mode)
{
    return run(commandLink(), Cmd::setLaserTriggerMode, Payload().i16(static_cast<std::int16_t>(mode)));
}

int ztDeviceCommandSet::setDeviceDropFrame(short a, short b, short c, short d, short e, short f)
{
    // The second value is copied with a byte count equal to its own value into a zeroed
    // scratch block: 1 copies its low byte only, 0 nothing. Larger counts (and negative
    // ones, which a size conversion makes huge) are cut at the value's own two bytes, so
    // nothing beyond it is read.
    char scratch[12] = {};
    std::memcpy(scratch, &a, 2);
    const std::size_t count = b == 0 ? 0 : (b == 1 ? 1 : 2);
    std::memcpy(scratch + 2, &b, count);
    const short rest[4] = {c, d, e, f};
    std::memcpy(scratch + 4, rest, sizeof rest);
    return run(commandLink(), Cmd::setDeviceDropFrame, Payload().bytes(scratch, sizeof scratch));
}

int ztDeviceCommandSet::setQRBarCenter(char* name, int nameLen, bool flag, int* const a, int* const b)
{
    Payload p;
    p.name(name, nameLen).u8(flag ? 1 : 0);
    if (a == nullptr || b == nullptr)
        p.refuse("no point");
    else
        p.i16(static_cast<std::int16_t>(a[0])).i16(static_cast<std::int16_t>(a[2]))
            .i16(static_cast<std::int16_t>(b[0])).i16(static_cast<std::int16_t>(b[2]));
    return run(commandLink(), Cmd::setQRBarCenter, p);
}

// Light, laser, light pen and housekeeping.

int ztDeviceCommandSet::sendLightCMD(int command)
{
    return run(commandLink(), Cmd::sendLightCMD, Payload().i32(command));
}

int ztDeviceCommandSet::sendLazerCMD(int command, char channel, int value)
{
    return run(commandLink(), Cmd::sendLazerCMD,
               Payload().i32(command).u8(static_cast<std::uint8_t>(channel)).i32(value));
}

int ztDeviceCommandSet::enableAlarmVoice(bool enable)
{
    return run(commandLink(), Cmd::enableAlarmVoice, Payload().flag(enable));
}

int ztDeviceCommandSet::sendIsBlackObject(bool black)
{
    return run(commandLink(), Cmd::sendIsBlackObject, Payload().flag(black));
}

int ztDeviceCommandSet::setLightPenEnable(bool enable)
{
    return run(commandLink(), Cmd::setLightPenEnable, Payload().flag(enable));
}

int ztDeviceCommandSet::SetLightpenType(int type)
{
    return run(commandLink(), Cmd::SetLightpenType, Payload().i32(type));
}

int ztDeviceCommandSet::sendGetLPFindList()
{
    return run(commandLink(), Cmd::sendGetLPFindList);
}

int ztDeviceCommandSet::sendLPSelectInfo(std::string sn, int value)
{
    return run(commandLink(), Cmd::sendLPSelectInfo, Payload().textBlock(sn).i32(value));
}

int ztDeviceCommandSet::getLightpenVersion(std::string sn, std::string& version)
{
    return run(commandLink(), Cmd::getLightpenVersion, Payload().textBlock(sn), [&version](const ReplyView& r) {
        if (!r.covers(4) || r.i32(0) != 0)
            return -1;
        if (!r.covers(40))
            return r.tooShort();
        // Both texts end at their terminator or at the end of their 16 bytes.
        const char* serial = r.payload() + 4;
        const char* text = r.payload() + 24;
        version.assign(text, strnlen(text, 16));
        const std::string serialText(serial, strnlen(serial, 16));
        ZTLOG_INFO("get lightpen version, ret = %d, lightpenSN = %s, version = %s", 0, serialText, version);
        return 0;
    });
}

int ztDeviceCommandSet::preheatRK(int value)
{
    return run(commandLink(), Cmd::preheatRK, Payload().i32(value));
}

int ztDeviceCommandSet::setHybridComputeNum2RK(int count)
{
    return run(commandLink(), Cmd::setHybridComputeNum2RK, Payload().i32(count));
}

int ztDeviceCommandSet::syncTime2Device(std::string time)
{
    constexpr std::size_t kTimeBytes = 32;
    if (time.size() < kTimeBytes)
        return run(commandLink(), Cmd::syncTime2Device, Payload().refuse("time text shorter than 32 bytes"));
    return run(commandLink(), Cmd::syncTime2Device, Payload().bytes(time.data(), kTimeBytes));
}

int ztDeviceCommandSet::rebootDevice()
{
    return run(commandLink(), Cmd::rebootDevice);
}

int ztDeviceCommandSet::redetectNetworkCard30()
{
    return run(commandLink(), Cmd::redetectNetworkCard30);
}

int ztDeviceCommandSet::getCameraSN(std::vector<std::string>& sns)
{
    return run(commandLink(), Cmd::getCameraSN, Payload(), [&sns](const ReplyView& r) {
        if (!r.covers(8))
            return r.tooShort();
        const std::int32_t count = r.i32(0);
        const std::int32_t recordLength = r.i32(4);
        // A record holds its text in bytes 0-15 and the text's length in bytes 16-23.
        if (count < 0 || (count > 0 && recordLength < 24) ||
            !r.covers(8 + static_cast<long long>(count) * (count > 0 ? recordLength : 0)))
            return r.tooShort();
        sns.resize(static_cast<std::size_t>(count));
        for (std::int32_t i = 0; i < count; ++i) {
            const int at = 8 + i * recordLength;
            const std::uint64_t length = r.u64(at + 16);
            // The text field holds 16 bytes; a longer length stops there.
            sns[static_cast<std::size_t>(i)].assign(r.payload() + at, length < 16 ? static_cast<std::size_t>(length) : 16);
        }
        return 0;
    });
}

int ztDeviceCommandSet::getDeviceAbilityInfo(DeviceAbilityInfo* info)
{
    zt::commands::Link& link = commandLink();
    return run(link, Cmd::getDeviceAbilityInfo, Payload(), [&link, info](const ReplyView& r) {
        return zt::commands::judgeAbilityReply(r, info, link.className());
    });
}

int ztDeviceCommandSet::getFirmwareVersion(std::string& version)
{
    return run(commandLink(), Cmd::getFirmwareVersion, Payload(), [&version](const ReplyView& r) {
        if (!r.covers(8))
            return r.tooShort();
        version = byteText(r.u32(4), "-");
        return 0;
    });
}

int ztDeviceCommandSet::getFirmwareDate(std::string& date)
{
    return run(commandLink(), Cmd::getFirmwareDate, Payload(), [&date](const ReplyView& r) {
        if (!r.covers(12))
            return r.tooShort();
        const std::uint32_t time = r.u32(8);
        date += byteText(r.u32(4), ":") + ":" + std::to_string((time >> 8) & 0xFF) + ":" + std::to_string(time & 0xFF);
        return 0;
    });
}

int ztDeviceCommandSet::getRKProgramVersion(int* major, int* minor, int* revision, int* build)
{
    zt::commands::Link& link = commandLink();
    return run(link, Cmd::getRKProgramVersion, Payload(), [&](const ReplyView& r) {
        if (!r.covers(8))
            return r.tooShort();
        const std::uint32_t word = r.u32(4);
        const int parts[4] = {static_cast<int>(word >> 24), static_cast<int>((word >> 16) & 0xFF),
                              static_cast<int>((word >> 8) & 0xFF), static_cast<int>(word & 0xFF)};
        int* const outputs[4] = {major, minor, revision, build};
        for (int i = 0; i < 4; ++i)
            if (outputs[i] != nullptr)
                *outputs[i] = parts[i];
        link.programVersion(parts);
        return 0;
    });
}

// Registers and network settings.

int ztDeviceCommandSet::setIntegerRegisterValue(const char* name, const unsigned int& value)
{
    return run(commandLink(), Cmd::setIntegerRegisterValue,
               Payload().name(name, name == nullptr ? -1 : static_cast<int>(std::strlen(name))).u32(value));
}

int ztDeviceCommandSet::getIntegerRegisterValue(const char* name, int* value)
{
    Payload p;
    p.name(name, name == nullptr ? -1 : static_cast<int>(std::strlen(name)));
    if (value == nullptr)
        p.refuse("no output");
    return run(commandLink(), Cmd::getIntegerRegisterValue, p, valueAt4(value));
}

int ztDeviceCommandSet::setEnumerationRegisterValue(const char* name, const unsigned int& value)
{
    return run(commandLink(), Cmd::setEnumerationRegisterValue,
               Payload().name(name, name == nullptr ? -1 : static_cast<int>(std::strlen(name))).u32(value));
}

int ztDeviceCommandSet::getEnumerationRegisterValue(const char* name, int* value)
{
    Payload p;
    p.name(name, name == nullptr ? -1 : static_cast<int>(std::strlen(name)));
    if (value == nullptr)
        p.refuse("no output");
    return run(commandLink(), Cmd::getEnumerationRegisterValue, p, valueAt4(value));
}

int ztDeviceCommandSet::readRegisterValue(int device, unsigned int address, int length)
{
    zt::commands::Link& link = commandLink();
    return run(link, Cmd::readRegisterValue, Payload().i32(device).u32(address).i32(length), [&link](const ReplyView& r) {
        if (!r.covers(10))
            return r.tooShort();
        // The value reaches the caller only through the log.
        if (link.returnsStatusWord())
            ZTLOG_INFO("ztUsbProxyServer::readRegisterValue::READ_REGISTER_VALUE: %d", r.i16(8));
        else
            ZTLOG_ERROR("READ_REGISTER_VALUE:%d", r.i16(8));
        return 0;
    });
}

int ztDeviceCommandSet::setRegisterValue(int device, unsigned int address, int len, char* data)
{
    Payload p;
    p.i32(device).u32(address).i32(len);
    if (len < 0)
        p.refuse("negative length");
    else
        p.bytes(data, static_cast<std::size_t>(len));
    return run(commandLink(), Cmd::setRegisterValue, p);
}

int ztDeviceCommandSet::setWifi(char* ssid, int ssidLen, char* pass, int passLen)
{
    return run(commandLink(), Cmd::setWifi, Payload().name(ssid, ssidLen).name(pass, passLen));
}

int ztDeviceCommandSet::getWifi(char* ssid, char* pass)
{
    zt::commands::Link& link = commandLink();
    if (ssid == nullptr || pass == nullptr)
        return run(link, Cmd::getWifi, Payload().refuse("no output buffer"));
    return run(link, Cmd::getWifi, Payload(), [&link, ssid, pass](const ReplyView& r) {
        if (!r.covers(4))
            return r.tooShort();
        const std::int32_t status = r.i32(0);
        if (status != 0) {
            ZTLOG_ERROR("%s::get wifi reply = %d", link.className(), status);
            return -1;
        }
        if (!r.covers(5))
            return r.tooShort();
        const int ssidLen = static_cast<unsigned char>(r.payload()[4]);
        if (!r.covers(6LL + ssidLen))
            return r.tooShort();
        const int passLen = static_cast<unsigned char>(r.payload()[5 + ssidLen]);
        if (!r.covers(6LL + ssidLen + passLen))
            return r.tooShort();
        std::memcpy(ssid, r.payload() + 5, static_cast<std::size_t>(ssidLen));
        std::memcpy(pass, r.payload() + 6 + ssidLen, static_cast<std::size_t>(passLen));
        const std::string ssidText(ssid, strnlen(ssid, static_cast<std::size_t>(ssidLen)));
        const std::string passText(pass, strnlen(pass, static_cast<std::size_t>(passLen)));
        if (link.returnsStatusWord())
            ZTLOG_INFO("ztUsbProxyServer::get wifi, ssid = %s, passWord = %s", ssidText, passText);
        else
            ZTLOG_INFO("get wifi, ssid = %s, passWord = %s", ssidText, passText);
        return 0;
    });
}

int ztDeviceCommandSet::reconnectWIFI(std::string ssid)
{
    return run(commandLink(), Cmd::reconnectWIFI,
               Payload().u32(static_cast<std::uint32_t>(ssid.size())).bytes(ssid.data(), ssid.size()));
}

// Files, firmware and logs.

int ztDeviceCommandSet::getSETFile(SetFileDataType type)
{
    return run(commandLink(), Cmd::getSETFile, Payload().i32(type));
}

int ztDeviceCommandSet::sendSETFile(char* data, unsigned long long len)
{
    return run(commandLink(), Cmd::sendSETFile, Payload::view(data, len));
}

int ztDeviceCommandSet::sendRGFFile(char* data, unsigned long long len)
{
    return run(commandLink(), Cmd::sendRGFFile, Payload::view(data, len));
}

int ztDeviceCommandSet::getLPSETFile(std::string sn)
{
    return run(commandLink(), Cmd::getLPSETFile, Payload().textBlock(sn));
}

int ztDeviceCommandSet::sendLightpenSETFile(char* data, unsigned long long len)
{
    return run(commandLink(), Cmd::sendLightpenSETFile, Payload::view(data, len));
}

int ztDeviceCommandSet::updateFirmware(char* data, unsigned long long len)
{
    return run(commandLink(), Cmd::updateFirmware, Payload::view(data, len));
}

int ztDeviceCommandSet::getSectionalLog()
{
    return run(commandLink(), Cmd::getSectionalLog);
}

int ztDeviceCommandSet::getAllLog()
{
    return run(commandLink(), Cmd::getAllLog);
}
