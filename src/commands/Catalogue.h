// The device command catalogue: every command a scanner head understands, described once
// as data, and the one routine that runs a command over either device link.
#pragma once

#include "foundation/RecorderCore.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

namespace zt::commands {

// How a command's reply is judged.
enum class Reply : unsigned char {
    Status,        // a reply of type 0 whose first int32 is the device's status
    Value,         // a reply of the request's type; the command's parser reads it
    HandOff,       // a reply of the request's type, handed to the link's inbound processing
    Ignored,       // the exchange succeeding is enough; the reply is not examined
    NoWait,        // nothing is awaited: the result is the send's
    StatusOrValue, // type 0 is a status reply, the request's type goes to the parser
    Ability,       // type 0 or the request's type, judged by the ability rules
};

// Per-command differences between the links.
enum Flag : unsigned {
    kNetColonLog = 1u << 0,    // network texts read "ztEmbeddedModuleProxyServer::[name] ..."
    kNetReceiveLog = 1u << 1,  // the network link logs a bad reply as well
    kNetUnlocked = 1u << 2,    // the network link takes no command mutex
    kLargeReply = 1u << 3,     // reply into the large buffer (100 MiB), 20000 ms
    kUsbNoWait = 1u << 4,      // the USB link sends without waiting
    kNetOnly = 1u << 5,        // only the network link offers it
    kNetLongTimeout = 1u << 6, // the network link waits 10000 ms for the reply
};

enum class Cmd : unsigned char {
    sendTrigger, sendStopTrigger, sendPreTrigger, getTriggerMode, setScanStatus, setScanDataSource,
    getScanDataSource, execSync, updateSyncStat, setHardwareSyncMode, getHardwareSyncMode, setMaster, getMaster,
    setSystemId, getSystemId, getBandWidth,
    setCameraExposure, getCameraExposure, setLedExposure, getLedExposure, setCameraGain, getCameraGain,
    setCameraFrameRate, getCameraFrameRate, setPeriod, getPeriod, setCameraROI, getCameraROI, setCameraReverse,
    setImageROI, getImageSize, resetCamera, setDropFrameRateMode, setLaserTriggerMode, setDeviceDropFrame,
    switchHardwareFrameRate, getHardwareFrameRateType, setQRBarCenter,
    sendLightCMD, sendLazerCMD, enableAlarmVoice, sendIsBlackObject, setLightPenEnable, SetLightpenType,
    sendGetLPFindList, sendLPSelectInfo, getLightpenVersion, preheatRK, preheatRKWithTrigger, setHybridComputeNum2RK,
    syncTime2Device, getTemp, rebootDevice, redetectNetworkCard30, getCameraSN, getDeviceAbilityInfo,
    getFirmwareVersion, getFirmwareDate, getRKProgramVersion,
    setIntegerRegisterValue, getIntegerRegisterValue, setEnumerationRegisterValue, getEnumerationRegisterValue,
    readRegisterValue, setRegisterValue, setWifi, getWifi, reconnectWIFI,
    getSETFile, sendSETFile, sendRGFFile, getRGFFile, getLPSETFile, sendLightpenSETFile, updateFirmware,
    getSectionalLog, getAllLog,
    count
};

struct Command {
    Cmd id;
    const char* name;    // the method; the USB link's log texts name it
    unsigned short type; // message type code, the same on both links
    Reply reply;
    const char* netName; // the name the network link's log texts give
    unsigned flags;
};

const Command& command(Cmd id);

// A request payload in wire order (little-endian numbers). An argument that cannot be
// encoded marks the payload refused with a reason; a refused payload is never sent.
class Payload {
public:
    Payload& i16(std::int16_t v) { return put(&v, sizeof v); }
    Payload& i32(std::int32_t v) { return put(&v, sizeof v); }
    Payload& u32(std::uint32_t v) { return put(&v, sizeof v); }
    Payload& u64(std::uint64_t v) { return put(&v, sizeof v); }
    Payload& u8(std::uint8_t v) { return put(&v, sizeof v); }
    Payload& f32(float v) { return put(&v, sizeof v); }
    Payload& flag(bool v) { return i32(v ? 1 : 0); }
    Payload& bytes(const void* p, std::size_t n);
    // One length byte, then the text: the length travels as its low byte, the text whole.
    Payload& name(const char* text, int length);
    Payload& name(const std::string& text) { return name(text.data(), static_cast<int>(text.size())); }
    // A serial-number text block: 16 bytes of text, zero-padded, and its length as uint32.
    Payload& textBlock(const std::string& text);
    Payload& refuse(const char* reason);
    // Uses the caller's bytes as the whole payload without copying them (files, firmware).
    static Payload view(const char* data, unsigned long long length);

    bool refused() const { return m_refusal != nullptr; }
    const char* refusal() const { return m_refusal; }
    const char* data() const { return m_view != nullptr ? m_view : m_bytes.data(); }
    std::size_t size() const { return m_view != nullptr ? m_viewSize : m_bytes.size(); }

private:
    Payload& put(const void* p, std::size_t n);
    std::vector<char> m_bytes;
    const char* m_view = nullptr;
    std::size_t m_viewSize = 0;
    const char* m_refusal = nullptr;
};

// A reply as a parser sees it: reads are bounded by the reply's payload.
class ReplyView {
public:
    // readable: payload bytes that may be read, at least the payload's own length.
    ReplyView(const char* msg, const char* className, const char* method, int readable = 0);
    unsigned short type() const;
    // Payload bytes held (0 for a malformed message).
    int length() const { return m_length; }
    const char* payload() const { return m_msg + 7; }
    // Whether bytes [0, end) of the payload may be read.
    bool covers(long long end) const { return end >= 0 && end <= m_readable; }
    // Values at a payload offset; bytes beyond the payload read as zero.
    std::int16_t i16(int offset) const { return at<std::int16_t>(offset); }
    std::int32_t i32(int offset) const { return at<std::int32_t>(offset); }
    std::uint32_t u32(int offset) const { return at<std::uint32_t>(offset); }
    std::uint64_t u64(int offset) const { return at<std::uint64_t>(offset); }
    float f32(int offset) const { return at<float>(offset); }
    // Logs that the reply is shorter than its layout needs and gives -1.
    int tooShort() const;

private:
    template <class T>
    T at(int offset) const
    {
        T v{};
        if (covers(static_cast<long long>(offset) + static_cast<long long>(sizeof v)))
            std::memcpy(&v, payload() + offset, sizeof v);
        return v;
    }
    const char* m_msg;
    int m_length;
    int m_readable;
    const char* m_class;
    const char* m_method;
};

using Parser = std::function<int(const ReplyView&)>;

// What a device link supplies: its exchange and the details of its result policy.
class Link {
public:
    virtual ~Link() = default;
    virtual const char* className() const = 0;
    // The USB link returns status words as they stand, reads no data-length rule and logs
    // every bad reply; the network link reduces statuses to 0/-1.
    virtual bool returnsStatusWord() const = 0;
    // Sends the whole request message. Unless the command awaits nothing, waits for the
    // reply and runs judge on it while the reply is still held. -1 (logged with the link's
    // send-failure text) when the link is down or the send or wait failed; 0 when nothing
    // was awaited; otherwise judge's result.
    virtual int exchange(const Command& c, const char* msg, int size, const std::function<int(const char*)>& judge) = 0;
    // Passes a reply to the link's inbound processing (the data callback).
    virtual void handOff(char* reply) = 0;
    // Payload bytes a query may read from a reply of payloadLength bytes: the reply's own,
    // or more where the link's reply buffer holds known bytes behind it.
    virtual int readablePayload(int payloadLength) const { return payloadLength; }
    // Told the controller program version a head reported.
    virtual void programVersion(const int parts[4]) { (void)parts; }
    // The recorder attached to the link: its bytes on the wire and every command run.
    RecordSlot tap;
};

// Runs one command: refuses a payload that cannot be encoded (logged), builds the message,
// runs the link's exchange and judges the reply by the command's rule, calling parse for
// the reply forms that carry data.
int run(Link& link, Cmd id, const Payload& payload = Payload(), const Parser& parse = nullptr);

} // namespace zt::commands
