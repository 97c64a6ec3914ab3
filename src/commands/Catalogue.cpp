#include "Catalogue.h"

#include "platform/zt_log.h"
#include "zt_embedded_msg.h"

#include <cstring>
#include <memory>

namespace zt::commands {

namespace {

constexpr unsigned kNone = 0;

// Type code, reply rule, the name the network link logs and the link differences of every
// command. The order follows Cmd.
constexpr Command kCatalogue[] = {
    // Trigger, scan and synchronisation.
    {Cmd::sendTrigger, "sendTrigger", 13, Reply::Status, "sendTrigger", kNone},
    {Cmd::sendStopTrigger, "sendStopTrigger", 13, Reply::Status, "sendStopTrigger", kNone},
    {Cmd::sendPreTrigger, "sendPreTrigger", 13, Reply::NoWait, "sendTrigger", kNone},
    {Cmd::getTriggerMode, "getTriggerMode", 14, Reply::Value, "getTriggerMode", kNone},
    {Cmd::setScanStatus, "setScanStatus", 289, Reply::Status, "setScanStatus", kNone},
    {Cmd::setScanDataSource, "setScanDataSource", 5, Reply::Status, "setScanDataSource", kNone},
    {Cmd::getScanDataSource, "getScanDataSource", 6, Reply::Value, "getScanDataSource", kNone},
    {Cmd::execSync, "execSync", 273, Reply::Status, "execSync", kNone},
    {Cmd::updateSyncStat, "updateSyncStat", 274, Reply::Status, "execSync", kNone},
    {Cmd::setHardwareSyncMode, "setHardwareSyncMode", 269, Reply::Status, "setHardwareSyncMode", kNone},
    {Cmd::getHardwareSyncMode, "getHardwareSyncMode", 270, Reply::Value, "getHardwareSyncMode", kNone},
    {Cmd::setMaster, "setMaster", 260, Reply::Status, "setMaster", kNone},
    {Cmd::getMaster, "getMaster", 261, Reply::Value, "getMaster", kNone},
    {Cmd::setSystemId, "setSystemId", 271, Reply::Status, "setSystemId", kNone},
    {Cmd::getSystemId, "getSystemId", 272, Reply::Value, "getSystemId", kNone},
    {Cmd::getBandWidth, "getBandWidth", 257, Reply::Value, "getBandWidth", kNone},
    // Camera, exposure and frame rate.
    {Cmd::setCameraExposure, "setCameraExposure", 7, Reply::Status, "setCameraExposure", kNone},
    {Cmd::getCameraExposure, "getCameraExposure", 8, Reply::Value, "getCameraExposure", kNone},
    {Cmd::setLedExposure, "setLedExposure", 9, Reply::Status, "setLedExposure", kNone},
    {Cmd::getLedExposure, "getLedExposure", 10, Reply::Value, "getLedExposure", kNone},
    {Cmd::setCameraGain, "setCameraGain", 18, Reply::Status, "setCameraGain", kNone},
    {Cmd::getCameraGain, "getCameraGain", 19, Reply::Value, "getCameraGain", kNone},
    {Cmd::setCameraFrameRate, "setCameraFrameRate", 16, Reply::Status, "setCameraFrameRate", kNone},
    {Cmd::getCameraFrameRate, "getCameraFrameRate", 17, Reply::Value, "getCameraFrameRate", kNone},
    {Cmd::setPeriod, "setPeriod", 16, Reply::Status, "sendPeriod", kNone},
    {Cmd::getPeriod, "getPeriod", 17, Reply::Value, "getPeriod", kNone},
    {Cmd::setCameraROI, "setCameraROI", 11, Reply::Status, "setCameraROI", kNone},
    {Cmd::getCameraROI, "getCameraROI", 12, Reply::Value, "getCameraROI", kNone},
    {Cmd::setCameraReverse, "setCameraReverse", 25, Reply::Status, "setCameraReverse", kNetLongTimeout},
    {Cmd::setImageROI, "setImageROI", 32, Reply::Status, "setImageROI", kNetColonLog},
    {Cmd::getImageSize, "getImageSize", 4, Reply::Value, "getImageSize", kNone},
    {Cmd::resetCamera, "resetCamera", 24, Reply::Status, "resetCamera", kNone},
    {Cmd::setDropFrameRateMode, "setDropFrameRateMode", 291, Reply::Status, "setDropFrameRateMode", kNone},
    {Cmd::setLaserTriggerMode, "setLaserTriggerMode", 325, Reply::Status, "setLaserTriggerMode", kNone},
    {Cmd::setDeviceDropFrame, "setDeviceDropFrame", 297, Reply::Status, "setDeviceDropFrame",
     kNetColonLog | kNetReceiveLog},
    {Cmd::switchHardwareFrameRate, "switchHardwareFrameRate", 356, Reply::Status, "switchHardwareFrameRate", kNetOnly},
    {Cmd::getHardwareFrameRateType, "getHardwareFrameRateType", 358, Reply::Value, "getHardwareFrameRateType",
     kNetOnly},
    {Cmd::setQRBarCenter, "setQRBarCenter", 26, Reply::Status, "setQRBarCenter", kNone},
    // Light, laser, light pen and housekeeping.
    {Cmd::sendLightCMD, "sendLightCMD", 316, Reply::Status, "sendLightCMD", kNone},
    {Cmd::sendLazerCMD, "sendLazerCMD", 318, Reply::Status, "sendLazerCMD", kNone},
    {Cmd::enableAlarmVoice, "enableAlarmVoice", 315, Reply::Status, "enableAlarmVoice", kNone},
    {Cmd::sendIsBlackObject, "sendIsBlackObject", 320, Reply::Status, "sendIsBlackObject", kNone},
    {Cmd::setLightPenEnable, "setLightPenEnable", 280, Reply::Status, "setLightPenEnable", kNone},
    {Cmd::SetLightpenType, "SetLightpenType", 341, Reply::Status, "SetLightpenType", kNone},
    {Cmd::sendGetLPFindList, "sendGetLPFindList", 337, Reply::Status, "sendGetLPFindList", kNone},
    {Cmd::sendLPSelectInfo, "sendLPSelectInfo", 338, Reply::Status, "sendLPSelectInfo", kNone},
    {Cmd::getLightpenVersion, "getLightpenVersion", 344, Reply::Value, "getLightpenVersion", kNone},
    {Cmd::preheatRK, "preheatRK", 314, Reply::Status, "preheatRK", kNone},
    {Cmd::preheatRKWithTrigger, "preheatRKWithTrigger", 313, Reply::Status, "preheatRKWithTrigger", kNetOnly},
    {Cmd::setHybridComputeNum2RK, "setHybridComputeNum2RK", 352, Reply::Status, "setHybridComputeNum2RK", kNone},
    {Cmd::syncTime2Device, "syncTime2Device", 354, Reply::Status, "syncTime2Device", kNone},
    {Cmd::getTemp, "getTemp", 256, Reply::HandOff, "getTemp", kNetOnly},
    {Cmd::rebootDevice, "rebootDevice", 287, Reply::Ignored, "rebootDevice", kNone},
    {Cmd::redetectNetworkCard30, "redetectNetworkCard30", 374, Reply::Status, "redetectNetworkCard30", kNetColonLog},
    {Cmd::getCameraSN, "getCameraSN", 3, Reply::Value, "getCameraSN", kNone},
    {Cmd::getDeviceAbilityInfo, "getDeviceAbilityInfo", 345, Reply::Ability, "getDeviceAbilityInfo", kNetColonLog},
    {Cmd::getFirmwareVersion, "getFirmwareVersion", 15, Reply::Value, "getFirmwareVersion", kNone},
    {Cmd::getFirmwareDate, "getFirmwareDate", 29, Reply::Value, "getFirmwareDate", kNone},
    {Cmd::getRKProgramVersion, "getRKProgramVersion", 276, Reply::Value, "getRKProgramVersion", kNone},
    // Registers and network settings.
    {Cmd::setIntegerRegisterValue, "setIntegerRegisterValue", 20, Reply::Status, "setCameraGain", kNone},
    {Cmd::getIntegerRegisterValue, "getIntegerRegisterValue", 21, Reply::Value, "getIntegerRegisterValue", kNone},
    {Cmd::setEnumerationRegisterValue, "setEnumerationRegisterValue", 22, Reply::Status, "setCameraGain", kNone},
    {Cmd::getEnumerationRegisterValue, "getEnumerationRegisterValue", 23, Reply::Value, "getEnumerationRegisterValue",
     kNone},
    {Cmd::readRegisterValue, "readRegisterValue", 773, Reply::StatusOrValue, "setCameraGain", kNone},
    {Cmd::setRegisterValue, "setRegisterValue", 774, Reply::Status, "setCameraGain", kNone},
    {Cmd::setWifi, "setWifi", 278, Reply::Status, "setWifi", kNone},
    {Cmd::getWifi, "getWifi", 290, Reply::Value, "getWifi", kNone},
    {Cmd::reconnectWIFI, "reconnectWIFI", 296, Reply::Status, "reconnectWIFI", kNetColonLog},
    // Files, firmware and logs.
    {Cmd::getSETFile, "getSETFile", 264, Reply::HandOff, "sendTrigger", kNetUnlocked},
    {Cmd::sendSETFile, "sendSETFile", 263, Reply::Status, "sendSETFile", kNone},
    {Cmd::sendRGFFile, "sendRGFFile", 265, Reply::Status, "sendRGFFile", kNone},
    {Cmd::getRGFFile, "getRGFFile", 266, Reply::HandOff, "sendTrigger", kNetOnly},
    {Cmd::getLPSETFile, "getLPSETFile", 340, Reply::Status, "getLPSETFile", kNone},
    {Cmd::sendLightpenSETFile, "sendLightpenSETFile", 339, Reply::Status, "sendLightpenSETFile", kNone},
    {Cmd::updateFirmware, "updateFirmware", 267, Reply::Ignored, "update firmware", kUsbNoWait},
    {Cmd::getSectionalLog, "getSectionalLog", 258, Reply::HandOff, "getSectionalLog", kNetReceiveLog},
    {Cmd::getAllLog, "getAllLog", 355, Reply::HandOff, "getAllLog", kNetReceiveLog | kLargeReply},
};

constexpr bool inOrder()
{
    for (std::size_t i = 0; i < sizeof kCatalogue / sizeof kCatalogue[0]; ++i)
        if (static_cast<std::size_t>(kCatalogue[i].id) != i)
            return false;
    return sizeof kCatalogue / sizeof kCatalogue[0] == static_cast<std::size_t>(Cmd::count);
}
static_assert(inOrder(), "one catalogue row per command, in the order of Cmd");

// Judges a reply by the command's rule and the link's result policy.
int judge(Link& link, const Command& c, const char* reply, const Parser& parse)
{
    const ReplyView probe(reply, link.className(), c.name);
    const ReplyView r(reply, link.className(), c.name, link.readablePayload(probe.length()));
    const bool valid = zt_embedded_msg_is_avalible(reply) == 0;
    const unsigned short type = r.type();
    // The network link also wants a non-empty payload.
    const bool hasData = link.returnsStatusWord() || r.length() > 0;
    auto status = [&]() {
        if (!r.covers(4))
            return r.tooShort();
        const std::int32_t s = r.i32(0);
        return link.returnsStatusWord() ? s : (s >= 0 ? 0 : -1);
    };
    switch (c.reply) {
    case Reply::Ignored:
    case Reply::NoWait:
        return 0;
    case Reply::Status:
        if (valid && type == 0 && hasData)
            return status();
        break;
    case Reply::StatusOrValue:
        if (valid && type == 0 && hasData)
            return status();
        [[fallthrough]];
    case Reply::Value:
    case Reply::HandOff:
        if (valid && type == c.type && hasData) {
            if (c.reply == Reply::HandOff)
                link.handOff(const_cast<char*>(reply));
            return parse ? parse(r) : 0;
        }
        break;
    case Reply::Ability:
        if (valid && (type == c.type || type == 0))
            return parse(r);
        break;
    }
    if (link.returnsStatusWord() || (c.flags & kNetReceiveLog) != 0)
        ZTLOG_ERROR("%s::[%s] receive data error", link.className(), c.name);
    return -1;
}

} // namespace

const Command& command(Cmd id)
{
    return kCatalogue[static_cast<std::size_t>(id)];
}

Payload& Payload::put(const void* p, std::size_t n)
{
    const char* b = static_cast<const char*>(p);
    m_bytes.insert(m_bytes.end(), b, b + n);
    return *this;
}

Payload& Payload::bytes(const void* p, std::size_t n)
{
    if (n > 0 && p == nullptr)
        return refuse("no data");
    return n > 0 ? put(p, n) : *this;
}

Payload& Payload::name(const char* text, int length)
{
    if (length < 0 || (length > 0 && text == nullptr))
        return refuse("bad name or length");
    u8(static_cast<std::uint8_t>(length));
    return bytes(text, static_cast<std::size_t>(length));
}

Payload& Payload::textBlock(const std::string& text)
{
    // The block holds at most 15 characters and a terminator.
    if (text.size() > 15)
        return refuse("serial number longer than 15 characters");
    char block[16] = {};
    std::memcpy(block, text.data(), text.size());
    put(block, sizeof block);
    return u32(static_cast<std::uint32_t>(text.size()));
}

Payload& Payload::refuse(const char* reason)
{
    if (m_refusal == nullptr)
        m_refusal = reason;
    return *this;
}

Payload Payload::view(const char* data, unsigned long long length)
{
    Payload p;
    if (length > 0 && data == nullptr)
        return p.refuse("no data");
    // The message's size field is 32 bits and holds the 8 bytes of framing too.
    if (length > 0x7FFFFFFFull - 8)
        return p.refuse("data too large for one message");
    if (length == 0)
        return p;
    p.m_view = data;
    p.m_viewSize = static_cast<std::size_t>(length);
    return p;
}

ReplyView::ReplyView(const char* msg, const char* className, const char* method, int readable)
    : m_msg(msg), m_length(zt_embedded_msg_is_avalible(msg) == 0 ? zt_embedded_msg_get_data_len(msg) : 0),
      m_readable(0), m_class(className), m_method(method)
{
    if (m_length < 0)
        m_length = 0;
    m_readable = readable > m_length ? readable : m_length;
}

unsigned short ReplyView::type() const
{
    return zt_embedded_msg_get_msg_type(m_msg);
}

int ReplyView::tooShort() const
{
    ZTLOG_ERROR("%s::[%s] reply too short", m_class, m_method);
    return -1;
}

int run(Link& link, Cmd id, const Payload& payload, const Parser& parse)
{
    const Command& c = command(id);
    if (payload.refused()) {
        ZTLOG_ERROR("%s::[%s] %s, nothing sent", link.className(), c.name, payload.refusal());
        return -1;
    }
    const std::size_t size = 8 + payload.size();
    std::unique_ptr<void, decltype(&zt_embedded_msg_release)> msg(
        zt_embedded_msg_create(static_cast<unsigned int>(size), c.type, payload.size() > 0 ? payload.data() : nullptr),
        &zt_embedded_msg_release);
    if (!msg) {
        ZTLOG_ERROR("%s::[%s] no memory for the request", link.className(), c.name);
        return -1;
    }
    const char* request = static_cast<const char*>(msg.get());
    if (!link.tap.active())
        return link.exchange(c, request, static_cast<int>(size), [&](const char* reply) { return judge(link, c, reply, parse); });
    // Recorded: the request, the reply message as the link handed it over, and the result.
    std::vector<char> kept;
    const int result = link.exchange(c, request, static_cast<int>(size), [&](const char* reply) {
        const int full = zt_embedded_msg_get_full_size(reply);
        kept.assign(reply, reply + (full > 0 ? full : 0));
        return judge(link, c, reply, parse);
    });
    link.tap.use([&](RecorderCore& r) {
        r.put(ztRecorder::Command, 0, result, static_cast<std::uint32_t>(size), request, size, kept.data(), kept.size());
    });
    return result;
}

} // namespace zt::commands
