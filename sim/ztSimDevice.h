// The settable state of a simulated scanner head and its answers to the head's command
// set. Both simulated heads (ztSimNetworkHead, ztSimUsbHead) own one and hand it every
// request that their own reply table does not cover; it can also be driven on its own
// with answer().
//
// Every request is one embedded message: the device sees its type and payload and returns
// the whole reply message (AA, 32-bit little-endian size, 16-bit type, payload, BB).
// Replies come in two kinds:
//   status reply  type 0, payload the int32 status (0 unless set with setStatus);
//   value reply   the request's own type, payload an int32 status, then the value from
//                 payload offset 4.
// Settings are decoded and kept, and answered with a status reply; a setting whose status
// is negative (see setStatus) is refused and changes nothing. A request too short for its
// command's layout gets status -1 and changes nothing. Types the device does not know get
// status 0.
//
// Commands and their answers (type: what it does):
//   setting -> query, value reply with the value at 4:
//     5 -> 6 scan data source, 7 -> 8 exposure (float bits), 9 -> 10 LED exposure (float
//     bits), 16 -> 17 frame rate (setPeriod sends 16 as well), 18 -> 19 gain (int32),
//     260 -> 261 master, 269 -> 270 hardware sync mode, 271 -> 272 system id (uint64),
//     356 -> 358 hardware frame rate type
//   queries only: 4 image size (int16 width at 4, int16 height at 6), 14 trigger mode
//     (float bits), 15 firmware version word, 29 firmware date (words at 4 and 8),
//     257 bandwidth, 276 program version word
//   11 camera ROI (u8 n, name, four int16) -> 12 (int32 n at 4, name from 8, four int16)
//   20 and 22 register by name (u8 n, name, uint32) -> 21 and 23 (u8 n, name; the value
//     at 4, status -1 and value 0 for a name never set)
//   774 device register (int32 device, uint32 address, int32 len, len bytes: the first
//     two, or the only one, are kept as an int16) -> 773 (int32 device, uint32 address,
//     int32 length; reply type 773: status, 4 zero bytes, the int16 at 8)
//   278 Wi-Fi (u8 n, ssid, u8 n, password) -> 290 (status, u8 n, ssid, u8 n, password)
//   13 trigger: 1 start, 0 stop, 2 pre-trigger; a pre-trigger gets no reply (a host does
//     not wait for one) unless setAnswerPreTrigger(true)
//   3 camera serial numbers: int32 count, int32 record length 32, then per camera 16 text
//     bytes zero-padded, uint64 text length, uint64 15 (no status word)
//   345 ability record (status, then the long or short form, see setAbility)
//   344 light-pen version (request: 16-byte serial text, uint32 length): status, the
//     requested serial text in 16 bytes zero-padded, uint32 its length, the version text
//     zero-terminated in 16 bytes
//   256 temperatures: int32 status, u8 count, count float32 (unaligned)
//   264 SET file (int32 data type), 266 RGF file, 258 sectional log, 355 whole log: the
//     request's type, status, then the file's bytes
//   every other setting or action (289 scan status, 25 camera reverse, 32 image ROI,
//     291 drop frame mode, 325 laser trigger mode, 297 device drop frame, 26 QR bar centre,
//     316 light, 318 laser, 315 alarm voice, 320 black object, 280 light-pen enable,
//     341 light-pen type, 338 light-pen selection, 337 light-pen find list, 340 light-pen
//     SET file request, 314 and 313 preheat, 352 hybrid count, 354 time, 296 Wi-Fi
//     reconnect, 273 sync, 274 sync state, 24 camera reset, 374 network card redetect,
//     287 reboot, and the uploads 263 SET file, 265 RGF file, 339 light-pen SET file,
//     267 firmware): a status reply; its payload is kept (see received()).
//
// Every member is thread-safe (one lock); answer() never blocks for long.
#pragma once

#include <array>
#include <cstddef>
#include <memory>
#include <string>
#include <utility>
#include <vector>

class ztSimDevice {
public:
    // The twelve 32-bit words of an ability record in record order: header, product type,
    // then ability2 to ability11 (the layout of ztSimNetworkHead::AbilityRecord).
    using AbilityRecord = std::array<unsigned int, 12>;

    // A region of interest as setCameraROI sends it and getCameraROI reads it.
    struct Roi {
        std::string name;
        short x = 0, y = 0, width = 0, height = 0;
    };

    // Defaults: exposure and LED exposure 20.0, trigger mode 0.0, frame rate 30, gain 1,
    // image size 1280 x 1024, bandwidth 1000, firmware version 1-2-10-3, firmware date
    // 20:24:11:15:9:30, program version ztSimNetworkHead::kDefaultProgramVersion, the
    // ability record ztSimNetworkHead::defaultAbility() in long form, two cameras
    // "ZTSIMCAM0" and "ZTSIMCAM1", light-pen version "1.0.0", ROI "ROI" 0, 0, 1280, 1024,
    // temperatures 36.5 and 41.0, the text of ztSimNetworkHead::setFilePayload() as the
    // SET file of every data type, a line of text as RGF file and as each log, other
    // values 0, no Wi-Fi and no registers.
    ztSimDevice();
    ~ztSimDevice();
    ztSimDevice(const ztSimDevice&) = delete;
    ztSimDevice& operator=(const ztSimDevice&) = delete;

    // The reply to one request (its type and payload, without frame), or empty for none.
    std::vector<char> answer(unsigned short type, const char* payload, std::size_t n);

    // The status of replies to requests of this type: the status reply's word, or the
    // leading status word of a value reply (the camera serial number reply has none).
    // 0 restores the default. A negative status refuses settings.
    void setStatus(unsigned short type, int status);
    // Whether a pre-trigger (13 with 2) is answered (status reply); default off.
    void setAnswerPreTrigger(bool on);

    // Values that queries report, keyed by the query's type (see the list above): 32 bits,
    // 64 for 29 and 272. Float values (8, 10, 14) are kept as their bits; see
    // setFloatValue. Settings write the value of their query.
    void setValue(unsigned short queryType, unsigned long long value);
    unsigned long long value(unsigned short queryType) const;
    void setFloatValue(unsigned short queryType, float value);
    float floatValue(unsigned short queryType) const;
    // The query types whose value setValue sets, in ascending order, with the width of
    // the value in bytes (4 or 8) and whether it is kept as float bits.
    struct ValueKind {
        unsigned short queryType;
        int width;
        bool isFloat;
    };
    static std::vector<ValueKind> valueKinds();
    // Shorthands for the values of 4 (width in the low half) and 29 (first word low).
    void setImageSize(short width, short height);
    void setFirmwareDate(unsigned int first, unsigned int second);

    void setRoi(const Roi& roi);
    Roi roi() const;
    // Registers set and read by name (20 to 23).
    void setRegister(const std::string& name, unsigned int value);
    // The register's value; 0 when it was never set.
    unsigned int registerValue(const std::string& name) const;
    // Registers of 773 and 774, by device number and address.
    void setDeviceRegister(int device, unsigned int address, short value);
    short deviceRegister(int device, unsigned int address) const;
    void setWifi(const std::string& ssid, const std::string& password);
    // SSID and password.
    std::pair<std::string, std::string> wifi() const;

    // longForm: the reply carries the header word (see ztSimNetworkHead::abilityPayload).
    void setAbility(const AbilityRecord& record, bool longForm = true);
    AbilityRecord ability() const;
    // Texts of up to 16 characters (longer ones are cut).
    void setCameraSerialNumbers(const std::vector<std::string>& sns);
    // Up to 15 characters (longer ones are cut).
    void setLightpenVersion(const std::string& version);
    // Up to 255 values.
    void setTemperatures(const std::vector<float>& temps);
    // The SET file sent for one data type (264).
    void setSetFile(int dataType, const std::vector<char>& bytes);
    // The bytes of 266 (RGF file), 258 (sectional log) or 355 (whole log).
    void setFile(unsigned short queryType, const std::vector<char>& bytes);

    // The payload of the last request of this type (an uploaded file's bytes for 263, 265,
    // 339 and 267), empty when none came; and how many requests of this type came. Every
    // request counts, refused ones too.
    std::vector<char> received(unsigned short type) const;
    int receivedCount(unsigned short type) const;

private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};
