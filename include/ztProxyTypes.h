// Records, enumerations and callback types shared by the classes of libztProxyProtocol.
#ifndef ZT_PROXY_TYPES_H
#define ZT_PROXY_TYPES_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
#include <vector>
#endif

// Data callback of every proxy object: code, data, length, user pointer.
// The code is the proxy message's sub type (module proxy), the received message's type
// (device links), or one of the link codes below.
typedef void (*ZT_DATA_CALLBACK)(int code, char* data, int length, void* user);

// Link codes raised through the data callback.
enum {
    ZT_CODE_DEVICE_OFFLINE = 283,
    ZT_CODE_DEVICE_ONLINE = 284,
    ZT_CODE_LIGHTPEN_DATA = 285,
};

// Message types of the module proxy (msgType field of _ZT_PROXY_MSG_).
enum {
    ZT_MSG_TYPE_NOTIFY = 1,  // module -> host, data channel
    ZT_MSG_TYPE_ANSWER = 2,  // host -> module, data channel
    ZT_MSG_TYPE_REQUEST = 3, // host -> module, command channel
    ZT_MSG_TYPE_REPLY = 4,   // module -> host, command channel
};

// TCP ports on which a device module listens for its host.
enum {
    ZT_MODULE_CMD_PORT = 9479,
    ZT_MODULE_DATA_PORT = 11300,
};

// Work that a device module is started for (sendStartDevice); travels as int32.
typedef enum _ZT_WORK_BUSINESS_ {
    ZT_WORK_SCAN = 0,
    ZT_WORK_TRACK = 1,
    ZT_WORK_PHOTOGRAMMETRY = 2,
    ZT_WORK_CALIBRATE = 3,
} _ZT_WORK_BUSINESS_;

// States of a device as a module reports them.
typedef enum _ZT_DEVICE_STATUS_ {
    ZT_DEVICE_STATUS_OFFLINE = 0,
    ZT_DEVICE_STATUS_ONLINE = 1,
    ZT_DEVICE_STATUS_WORKING = 2,
    ZT_DEVICE_STATUS_ERROR = 3,
} _ZT_DEVICE_STATUS_;

// The module's heartbeat record: 920 bytes, carried whole between module and host.
// The host reads the first fields; the rest is the module's own.
#pragma pack(push, 1)
typedef struct _ZT_HEARTBEAT_INFO_ {
    int32_t deviceStatus; // a _ZT_DEVICE_STATUS_ value
    int32_t deviceCount;  // devices the module drives
    uint64_t timestamp;   // module clock, milliseconds
    uint8_t moduleData[904];
} _ZT_HEARTBEAT_INFO_;
#pragma pack(pop)

// What a scanner head can do: twelve unsigned 32-bit values, read from the head when it
// comes online. productType names the product; the others are handed on as they are.
typedef struct DeviceAbilityInfo {
    uint32_t abilityHeader;
    uint32_t productType;
    uint32_t ability2;
    uint32_t ability3;
    uint32_t ability4;
    uint32_t ability5;
    uint32_t ability6;
    uint32_t ability7;
    uint32_t ability8;
    uint32_t ability9;
    uint32_t ability10;
    uint32_t ability11;
} DeviceAbilityInfo;

// The endpoints of a USB scanner head, filled by the caller that opened the device and
// passed to ztUsbProxyServer. The byte positions are part of the interface.
#pragma pack(push, 1)
typedef struct _ZT_USB3_DEVICE_INFO_ {
    uint8_t reserved0[5];
    uint8_t streamInEndpoint;     // bulk IN, image stream
    uint8_t ctrlInEndpoint;       // bulk IN, command replies
    uint8_t ctrlOutEndpoint;      // bulk OUT, commands
    uint8_t eventInEndpoint;      // bulk IN, events
    uint8_t heartbeatOutEndpoint; // bulk OUT, heartbeats
    uint8_t reserved1[6];
    uint32_t streamMaxPacket; // a stream transfer is 64 times this
    uint32_t ctrlMaxPacket;   // a control transfer is 4 times this
    uint32_t reserved2;
    uint32_t eventMaxPacket; // an event transfer is 4 times this
    uint32_t reserved3;
    char serialNumber[124]; // text, zero-terminated
    uint32_t extra;
} _ZT_USB3_DEVICE_INFO_;
#pragma pack(pop)

// How the head drops frames (setDropFrameRateMode) or fires its laser
// (setLaserTriggerMode); travels as int16.
typedef enum FRAME_DROP_MODE {
    FRAME_DROP_NONE = 0,
    FRAME_DROP_HALF = 1,
    FRAME_DROP_THIRD = 2,
    FRAME_DROP_QUARTER = 3,
} FRAME_DROP_MODE;

// Which SET file getSETFile asks the head for; travels as int32.
typedef enum SetFileDataType {
    SET_FILE_DATA_0 = 0,
    SET_FILE_DATA_1 = 1,
    SET_FILE_DATA_2 = 2,
} SetFileDataType;

#ifdef __cplusplus
static_assert(sizeof(DeviceAbilityInfo) == 48, "twelve 32-bit values");
static_assert(offsetof(_ZT_USB3_DEVICE_INFO_, streamInEndpoint) == 5, "stream IN endpoint at byte 5");
static_assert(offsetof(_ZT_USB3_DEVICE_INFO_, ctrlInEndpoint) == 6, "control IN endpoint at byte 6");
static_assert(offsetof(_ZT_USB3_DEVICE_INFO_, ctrlOutEndpoint) == 7, "control OUT endpoint at byte 7");
static_assert(offsetof(_ZT_USB3_DEVICE_INFO_, eventInEndpoint) == 8, "event IN endpoint at byte 8");
static_assert(offsetof(_ZT_USB3_DEVICE_INFO_, heartbeatOutEndpoint) == 9, "heartbeat OUT endpoint at byte 9");
static_assert(offsetof(_ZT_USB3_DEVICE_INFO_, streamMaxPacket) == 16, "stream packet size at byte 16");
static_assert(offsetof(_ZT_USB3_DEVICE_INFO_, ctrlMaxPacket) == 20, "control packet size at byte 20");
static_assert(offsetof(_ZT_USB3_DEVICE_INFO_, eventMaxPacket) == 28, "event packet size at byte 28");
static_assert(offsetof(_ZT_USB3_DEVICE_INFO_, serialNumber) == 36, "serial number at byte 36");
static_assert(offsetof(_ZT_USB3_DEVICE_INFO_, extra) == 160, "extra value at byte 160");
static_assert(sizeof(_ZT_USB3_DEVICE_INFO_) == 164, "164 bytes");
static_assert(sizeof(_ZT_HEARTBEAT_INFO_) == 920, "the heartbeat record is 920 bytes on the wire");

namespace lp {

// One light pen that asks to connect (sendLPRequestList): 48 bytes.
#pragma pack(push, 1)
struct _ZT_LP_CONNECT_INFO_ {
    char serial[32]; // text, zero-padded
    int32_t id;
    int32_t signal; // received signal strength, dBm
    int32_t state;
    int32_t battery; // percent
};

// A light pen that went offline (sendLPOfflineWarn): 68 bytes.
struct _LIGHTPEN_WARN_INFO_ {
    char serial[32]; // text, zero-padded
    int32_t id;
    int32_t reason;
    char message[28]; // text, zero-padded
};
#pragma pack(pop)
static_assert(sizeof(_ZT_LP_CONNECT_INFO_) == 48, "a light-pen entry is 48 bytes on the wire");
static_assert(sizeof(_LIGHTPEN_WARN_INFO_) == 68, "a light-pen warning is 68 bytes on the wire");

// One entry of a light-pen find list: 52 bytes as the head sends them.
struct _ZT_LP_FIND_ENTRY_ {
    unsigned char bytes[52];
};

// Light pens a head has found (analysisLightPenFindList).
struct _ZT_LP_FIND_LIST_ {
    int count = 0;
    std::vector<_ZT_LP_FIND_ENTRY_> entries;
};

} // namespace lp
#endif

#endif
