#include "ztSimDevice.h"

#include "ztSimNetworkHead.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <map>
#include <mutex>

namespace {

constexpr unsigned short kStatusReplyType = 0;
constexpr unsigned short kTrigger = 13;
constexpr std::uint32_t kPreTrigger = 2;
// A serial-number record in the camera list: 16 text bytes, 64-bit length, 64-bit 15.
constexpr std::uint32_t kSerialRecordSize = 32;
constexpr std::size_t kSerialTextSize = 16;

// Queries answered with a value reply, how wide their value is and whether it is a float.
struct ValueQuery {
    unsigned short type;
    int width;
    bool isFloat;
};
constexpr ValueQuery kValueQueries[] = {
    {4, 4, false},   {6, 4, false},   {8, 4, true},    {10, 4, true},   {14, 4, true},
    {15, 4, false},  {17, 4, false},  {19, 4, false},  {29, 8, false},  {257, 4, false},
    {261, 4, false}, {270, 4, false}, {272, 8, false}, {276, 4, false}, {358, 4, false},
};

// Settings that change what a query reports.
struct Pairing {
    unsigned short setting, query;
};
constexpr Pairing kPairings[] = {{5, 6},     {7, 8},     {9, 10},    {16, 17},   {18, 19},
                                 {260, 261}, {269, 270}, {271, 272}, {356, 358}};

// The least a request must carry: a length field of lengthBytes bytes (0: none) and as
// many text bytes as it says, then `fixed` bytes. Longer requests are taken.
struct Layout {
    unsigned short type;
    int lengthBytes;
    std::size_t fixed;
};
constexpr Layout kLayouts[] = {
    {5, 0, 4},    {7, 0, 4},    {9, 0, 4},    {13, 0, 4},   {16, 0, 4},   {18, 0, 4},   {260, 0, 4},
    {269, 0, 4},  {271, 0, 8},  {356, 0, 4},  {289, 0, 4},  {291, 0, 2},  {325, 0, 2},  {297, 0, 12},
    {316, 0, 4},  {318, 0, 9},  {315, 0, 4},  {320, 0, 4},  {280, 0, 4},  {341, 0, 4},  {338, 0, 24},
    {340, 0, 20}, {344, 0, 20}, {314, 0, 4},  {313, 0, 4},  {352, 0, 4},  {354, 0, 32}, {273, 0, 4},
    {264, 0, 4},  {773, 0, 12}, {774, 0, 12}, {11, 1, 8},   {20, 1, 4},   {21, 1, 0},   {22, 1, 4},
    {23, 1, 0},   {25, 1, 4},   {26, 1, 9},   {32, 1, 8},   {296, 4, 0},  {278, 1, 1},
};

const ValueQuery* valueQuery(unsigned short type)
{
    for (const auto& q : kValueQueries)
        if (q.type == type)
            return &q;
    return nullptr;
}

// Little-endian fields read one after the other; a read past the end yields zeros and
// marks the reader failed.
class Reader {
public:
    Reader(const char* p, std::size_t n) : m_p(p), m_n(n) {}
    bool ok() const { return m_ok; }
    std::uint64_t le(std::size_t bytes)
    {
        std::uint64_t v = 0;
        if (take(bytes))
            for (std::size_t i = bytes; i-- > 0;)
                v = (v << 8) | static_cast<unsigned char>(m_p[m_off - bytes + i]);
        return v;
    }
    std::string text(std::size_t bytes)
    {
        return take(bytes) ? std::string(m_p + m_off - bytes, bytes) : std::string();
    }
    // A text behind a length field of lengthBytes bytes.
    std::string name(std::size_t lengthBytes) { return text(static_cast<std::size_t>(le(lengthBytes))); }

private:
    bool take(std::size_t k)
    {
        if (!m_ok || m_n - m_off < k)
            m_ok = false;
        else
            m_off += k;
        return m_ok;
    }
    const char* m_p;
    std::size_t m_n;
    std::size_t m_off = 0;
    bool m_ok = true;
};

bool fitsLayout(unsigned short type, const char* p, std::size_t n)
{
    for (const auto& l : kLayouts) {
        if (l.type != type)
            continue;
        Reader in(p, n);
        if (l.lengthBytes > 0)
            in.name(static_cast<std::size_t>(l.lengthBytes));
        in.text(l.fixed);
        return in.ok();
    }
    return true;
}

// Payload under construction, little-endian.
class Writer {
public:
    Writer& le(std::uint64_t v, std::size_t bytes)
    {
        for (std::size_t i = 0; i < bytes; ++i)
            m_b.push_back(static_cast<char>((v >> (8 * i)) & 0xFF));
        return *this;
    }
    Writer& bytes(const void* p, std::size_t n)
    {
        const auto* c = static_cast<const char*>(p);
        m_b.insert(m_b.end(), c, c + n);
        return *this;
    }
    // The text in exactly `width` bytes: cut, or padded with zeros.
    Writer& padded(const std::string& s, std::size_t width)
    {
        const std::size_t k = std::min(s.size(), width);
        bytes(s.data(), k);
        m_b.insert(m_b.end(), width - k, 0);
        return *this;
    }
    // A text behind its one-byte length.
    Writer& name(const std::string& s)
    {
        const std::size_t k = std::min<std::size_t>(s.size(), 255);
        le(k, 1);
        return bytes(s.data(), k);
    }
    std::vector<char> message(unsigned short type) const
    {
        return ztSimNetworkHead::message(type, m_b.data(), m_b.size());
    }

private:
    std::vector<char> m_b;
};

std::vector<char> statusMessage(int status)
{
    return Writer().le(static_cast<std::uint32_t>(status), 4).message(kStatusReplyType);
}

std::uint32_t floatBits(float f)
{
    std::uint32_t u = 0;
    std::memcpy(&u, &f, sizeof u);
    return u;
}

std::vector<char> textBytes(const char* s)
{
    return std::vector<char>(s, s + std::strlen(s));
}

} // namespace

struct ztSimDevice::Impl {
    struct Seen {
        std::vector<char> last;
        int count = 0;
    };

    Impl()
    {
        values[4] = 1280u | (1024u << 16);
        values[8] = floatBits(20.0f);
        values[10] = floatBits(20.0f);
        values[14] = floatBits(0.0f);
        values[15] = 0x01020A03; // 1-2-10-3
        values[17] = 30;
        values[19] = 1;
        values[29] = 0x14180B0Full | (0x091Eull << 32); // 20:24:11:15, 9:30
        values[257] = 1000;
        values[276] = ztSimNetworkHead::kDefaultProgramVersion;
        const std::vector<char> set = ztSimNetworkHead::setFilePayload();
        defaultSetFile.assign(set.begin() + 4, set.end()); // behind its status word
        files[266] = textBytes("simulated head RGF file\n");
        files[258] = textBytes("simulated head sectional log\n");
        files[355] = textBytes("simulated head log\n");
    }

    int statusOf(unsigned short type) const
    {
        const auto it = statuses.find(type);
        return it == statuses.end() ? 0 : it->second;
    }
    std::vector<char> answerLocked(unsigned short type, const char* p, std::size_t n);

    mutable std::mutex mutex; // everything below
    std::map<unsigned short, int> statuses;
    bool answerPreTrigger = false;
    std::map<unsigned short, unsigned long long> values;
    Roi roi{"ROI", 0, 0, 1280, 1024};
    std::map<std::string, unsigned int> registers;
    std::map<std::pair<int, unsigned int>, short> deviceRegisters;
    std::string ssid, password;
    AbilityRecord ability = ztSimNetworkHead::defaultAbility();
    bool longForm = true;
    std::vector<std::string> serialNumbers{"ZTSIMCAM0", "ZTSIMCAM1"};
    std::string lightpenVersion = "1.0.0";
    std::vector<float> temperatures{36.5f, 41.0f};
    std::vector<char> defaultSetFile;
    std::map<int, std::vector<char>> setFiles;
    std::map<unsigned short, std::vector<char>> files;
    std::map<unsigned short, Seen> seen;
};

std::vector<char> ztSimDevice::Impl::answerLocked(unsigned short type, const char* p, std::size_t n)
{
    const int status = statusOf(type);
    if (!fitsLayout(type, p, n))
        return statusMessage(-1);
    Reader in(p, n);
    const bool apply = status >= 0;

    if (const ValueQuery* q = valueQuery(type)) {
        const auto it = values.find(type);
        const unsigned long long v = it == values.end() ? 0 : it->second;
        return Writer()
            .le(static_cast<std::uint32_t>(status), 4)
            .le(v, static_cast<std::size_t>(q->width))
            .message(type);
    }
    for (const auto& pair : kPairings) {
        if (pair.setting != type)
            continue;
        const unsigned long long v = in.le(static_cast<std::size_t>(valueQuery(pair.query)->width));
        if (apply)
            values[pair.query] = v;
        return statusMessage(status);
    }

    Writer out;
    out.le(static_cast<std::uint32_t>(status), 4);
    switch (type) {
    case kTrigger:
        if (in.le(4) == kPreTrigger && !answerPreTrigger)
            return {};
        break;
    case 11: {
        Roi r;
        r.name = in.name(1);
        r.x = static_cast<short>(in.le(2));
        r.y = static_cast<short>(in.le(2));
        r.width = static_cast<short>(in.le(2));
        r.height = static_cast<short>(in.le(2));
        if (apply)
            roi = r;
        break;
    }
    case 12:
        out.le(roi.name.size(), 4).bytes(roi.name.data(), roi.name.size());
        for (const short v : {roi.x, roi.y, roi.width, roi.height})
            out.le(static_cast<std::uint16_t>(v), 2);
        return out.message(type);
    case 20:
    case 22: {
        const std::string name = in.name(1);
        const auto v = static_cast<unsigned int>(in.le(4));
        if (apply)
            registers[name] = v;
        break;
    }
    case 21:
    case 23: {
        const auto it = registers.find(in.name(1));
        if (it == registers.end())
            return Writer().le(static_cast<std::uint32_t>(-1), 4).le(0, 4).message(type);
        return out.le(it->second, 4).message(type);
    }
    case 773: {
        const int device = static_cast<int>(in.le(4));
        const auto address = static_cast<unsigned int>(in.le(4));
        const auto it = deviceRegisters.find({device, address});
        const short v = it == deviceRegisters.end() ? 0 : it->second;
        return out.le(0, 4).le(static_cast<std::uint16_t>(v), 2).message(type);
    }
    case 774: {
        const int device = static_cast<int>(in.le(4));
        const auto address = static_cast<unsigned int>(in.le(4));
        const auto len = static_cast<std::int32_t>(in.le(4));
        if (len < 0 || !in.ok() || static_cast<std::size_t>(len) > n - 12)
            return statusMessage(-1);
        const auto v = static_cast<short>(in.le(std::min<std::size_t>(static_cast<std::size_t>(len), 2)));
        if (apply && len > 0)
            deviceRegisters[{device, address}] = v;
        break;
    }
    case 278: {
        std::string s = in.name(1);
        std::string pass = in.name(1);
        if (!in.ok())
            return statusMessage(-1);
        if (apply) {
            ssid = std::move(s);
            password = std::move(pass);
        }
        break;
    }
    case 290:
        return out.name(ssid).name(password).message(type);
    case 3: {
        Writer list;
        list.le(serialNumbers.size(), 4).le(kSerialRecordSize, 4);
        for (const auto& sn : serialNumbers)
            list.padded(sn, kSerialTextSize).le(std::min(sn.size(), kSerialTextSize), 8).le(15, 8);
        return list.message(type);
    }
    case 345: {
        const std::vector<char> b = ztSimNetworkHead::abilityPayload(ability, longForm, status);
        return ztSimNetworkHead::message(type, b.data(), b.size());
    }
    case 344: {
        const std::string text = in.text(kSerialTextSize);
        const auto len = static_cast<std::size_t>(in.le(4));
        const std::string sn = text.substr(0, std::min(len, kSerialTextSize));
        return out.padded(sn, kSerialTextSize).le(sn.size(), 4).padded(lightpenVersion, kSerialTextSize).message(type);
    }
    case 256:
        out.le(temperatures.size(), 1);
        for (const float t : temperatures)
            out.le(floatBits(t), 4);
        return out.message(type);
    case 264: {
        const auto it = setFiles.find(static_cast<int>(in.le(4)));
        const std::vector<char>& file = it == setFiles.end() ? defaultSetFile : it->second;
        return out.bytes(file.data(), file.size()).message(type);
    }
    case 266:
    case 258:
    case 355: {
        const std::vector<char>& file = files[type];
        return out.bytes(file.data(), file.size()).message(type);
    }
    default:
        break;
    }
    return statusMessage(status);
}

ztSimDevice::ztSimDevice() : m_impl(std::make_unique<Impl>()) {}

ztSimDevice::~ztSimDevice() = default;

std::vector<char> ztSimDevice::answer(unsigned short type, const char* payload, std::size_t n)
{
    if (!payload)
        n = 0;
    std::lock_guard<std::mutex> lock(m_impl->mutex);
    Impl::Seen& s = m_impl->seen[type];
    s.last.assign(payload, payload + n);
    ++s.count;
    return m_impl->answerLocked(type, payload, n);
}

void ztSimDevice::setStatus(unsigned short type, int status)
{
    std::lock_guard<std::mutex> lock(m_impl->mutex);
    if (status == 0)
        m_impl->statuses.erase(type);
    else
        m_impl->statuses[type] = status;
}

void ztSimDevice::setAnswerPreTrigger(bool on)
{
    std::lock_guard<std::mutex> lock(m_impl->mutex);
    m_impl->answerPreTrigger = on;
}

void ztSimDevice::setValue(unsigned short queryType, unsigned long long value)
{
    std::lock_guard<std::mutex> lock(m_impl->mutex);
    m_impl->values[queryType] = value;
}

unsigned long long ztSimDevice::value(unsigned short queryType) const
{
    std::lock_guard<std::mutex> lock(m_impl->mutex);
    const auto it = m_impl->values.find(queryType);
    return it == m_impl->values.end() ? 0 : it->second;
}

std::vector<ztSimDevice::ValueKind> ztSimDevice::valueKinds()
{
    std::vector<ValueKind> kinds;
    for (const auto& q : kValueQueries)
        kinds.push_back({q.type, q.width, q.isFloat});
    return kinds;
}

void ztSimDevice::setFloatValue(unsigned short queryType, float value)
{
    setValue(queryType, floatBits(value));
}

float ztSimDevice::floatValue(unsigned short queryType) const
{
    const auto bits = static_cast<std::uint32_t>(value(queryType));
    float f = 0;
    std::memcpy(&f, &bits, sizeof f);
    return f;
}

void ztSimDevice::setImageSize(short width, short height)
{
    const unsigned long long w = static_cast<std::uint16_t>(width), h = static_cast<std::uint16_t>(height);
    setValue(4, w | (h << 16));
}

void ztSimDevice::setFirmwareDate(unsigned int first, unsigned int second)
{
    setValue(29, first | (static_cast<unsigned long long>(second) << 32));
}

void ztSimDevice::setRoi(const Roi& roi)
{
    std::lock_guard<std::mutex> lock(m_impl->mutex);
    m_impl->roi = roi;
}

ztSimDevice::Roi ztSimDevice::roi() const
{
    std::lock_guard<std::mutex> lock(m_impl->mutex);
    return m_impl->roi;
}

void ztSimDevice::setRegister(const std::string& name, unsigned int value)
{
    std::lock_guard<std::mutex> lock(m_impl->mutex);
    m_impl->registers[name] = value;
}

unsigned int ztSimDevice::registerValue(const std::string& name) const
{
    std::lock_guard<std::mutex> lock(m_impl->mutex);
    const auto it = m_impl->registers.find(name);
    return it == m_impl->registers.end() ? 0 : it->second;
}

void ztSimDevice::setDeviceRegister(int device, unsigned int address, short value)
{
    std::lock_guard<std::mutex> lock(m_impl->mutex);
    m_impl->deviceRegisters[{device, address}] = value;
}

short ztSimDevice::deviceRegister(int device, unsigned int address) const
{
    std::lock_guard<std::mutex> lock(m_impl->mutex);
    const auto it = m_impl->deviceRegisters.find({device, address});
    return it == m_impl->deviceRegisters.end() ? 0 : it->second;
}

void ztSimDevice::setWifi(const std::string& ssid, const std::string& password)
{
    std::lock_guard<std::mutex> lock(m_impl->mutex);
    m_impl->ssid = ssid;
    m_impl->password = password;
}

std::pair<std::string, std::string> ztSimDevice::wifi() const
{
    std::lock_guard<std::mutex> lock(m_impl->mutex);
    return {m_impl->ssid, m_impl->password};
}

void ztSimDevice::setAbility(const AbilityRecord& record, bool longForm)
{
    std::lock_guard<std::mutex> lock(m_impl->mutex);
    m_impl->ability = record;
    m_impl->longForm = longForm;
}

ztSimDevice::AbilityRecord ztSimDevice::ability() const
{
    std::lock_guard<std::mutex> lock(m_impl->mutex);
    return m_impl->ability;
}

void ztSimDevice::setCameraSerialNumbers(const std::vector<std::string>& sns)
{
    std::lock_guard<std::mutex> lock(m_impl->mutex);
    m_impl->serialNumbers.clear();
    for (const auto& sn : sns)
        m_impl->serialNumbers.push_back(sn.substr(0, kSerialTextSize));
}

void ztSimDevice::setLightpenVersion(const std::string& version)
{
    std::lock_guard<std::mutex> lock(m_impl->mutex);
    // One byte of the 16 stays for the terminator.
    m_impl->lightpenVersion = version.substr(0, kSerialTextSize - 1);
}

void ztSimDevice::setTemperatures(const std::vector<float>& temps)
{
    std::lock_guard<std::mutex> lock(m_impl->mutex);
    const std::size_t n = std::min<std::size_t>(temps.size(), 255); // the count travels in one byte
    m_impl->temperatures.assign(temps.begin(), temps.begin() + static_cast<std::ptrdiff_t>(n));
}

void ztSimDevice::setSetFile(int dataType, const std::vector<char>& bytes)
{
    std::lock_guard<std::mutex> lock(m_impl->mutex);
    m_impl->setFiles[dataType] = bytes;
}

void ztSimDevice::setFile(unsigned short queryType, const std::vector<char>& bytes)
{
    std::lock_guard<std::mutex> lock(m_impl->mutex);
    m_impl->files[queryType] = bytes;
}

std::vector<char> ztSimDevice::received(unsigned short type) const
{
    std::lock_guard<std::mutex> lock(m_impl->mutex);
    const auto it = m_impl->seen.find(type);
    return it == m_impl->seen.end() ? std::vector<char>() : it->second.last;
}

int ztSimDevice::receivedCount(unsigned short type) const
{
    std::lock_guard<std::mutex> lock(m_impl->mutex);
    const auto it = m_impl->seen.find(type);
    return it == m_impl->seen.end() ? 0 : it->second.count;
}
