#include "command_values.h"

#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <memory>
#include <type_traits>

namespace zt::tools {

namespace {

template <class T>
bool parseWhole(const std::string& text, T& value, std::string& why)
{
    using Limits = std::numeric_limits<T>;
    const char* p = text.data();
    const char* const end = p + text.size();
    bool negative = false;
    if (std::is_signed_v<T> && p != end && *p == '-') {
        negative = true;
        ++p;
    }
    int base = 10;
    if (end - p > 2 && p[0] == '0' && (p[1] == 'x' || p[1] == 'X')) {
        base = 16;
        p += 2;
    }
    unsigned long long magnitude = 0;
    const auto [next, ec] = std::from_chars(p, end, magnitude, base);
    bool ok = p != end && ec == std::errc() && next == end;
    const auto max = static_cast<unsigned long long>(Limits::max());
    if (ok && negative) {
        // The most negative value has no positive counterpart: it is max + 1.
        ok = magnitude <= max + 1;
        if (ok)
            value = magnitude == max + 1 ? Limits::min() : static_cast<T>(-static_cast<T>(magnitude));
    } else if (ok) {
        ok = magnitude <= max;
        if (ok)
            value = static_cast<T>(magnitude);
    }
    if (!ok)
        why = "is not a whole number from " + std::to_string(Limits::min()) + " to " + std::to_string(Limits::max());
    return ok;
}

// The member of an enumeration whose number the text names.
template <class E>
bool parseEnumerator(const std::string& text, E& value, std::initializer_list<E> members, std::string& why)
{
    int number = 0;
    std::string ignored;
    if (parseWhole(text, number, ignored))
        for (E m : members)
            if (static_cast<int>(m) == number) {
                value = m;
                return true;
            }
    why = "is not one of";
    for (E m : members)
        why.append(" ").append(std::to_string(static_cast<int>(m)));
    return false;
}

int hexDigit(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

} // namespace

bool parseArgument(const std::string& text, int& value, std::string& why)
{
    return parseWhole(text, value, why);
}

bool parseArgument(const std::string& text, short& value, std::string& why)
{
    return parseWhole(text, value, why);
}

bool parseArgument(const std::string& text, unsigned int& value, std::string& why)
{
    return parseWhole(text, value, why);
}

bool parseArgument(const std::string& text, unsigned long long& value, std::string& why)
{
    return parseWhole(text, value, why);
}

bool parseArgument(const std::string& text, char& value, std::string& why)
{
    unsigned char byte = 0;
    if (!parseWhole(text, byte, why))
        return false;
    value = static_cast<char>(byte);
    return true;
}

template <class T>
bool parseFinite(const std::string& text, T& value, std::string& why)
{
    const char* const end = text.data() + text.size();
    T parsed = 0;
    const auto [next, ec] = std::from_chars(text.data(), end, parsed);
    if (text.empty() || ec != std::errc() || next != end || !std::isfinite(parsed)) {
        why = "is not a number";
        return false;
    }
    value = parsed;
    return true;
}

bool parseArgument(const std::string& text, float& value, std::string& why)
{
    return parseFinite(text, value, why);
}

bool parseArgument(const std::string& text, double& value, std::string& why)
{
    return parseFinite(text, value, why);
}

bool parseArgument(const std::string& text, bool& value, std::string& why)
{
    if (text == "1" || text == "true")
        value = true;
    else if (text == "0" || text == "false")
        value = false;
    else {
        why = "is not 0, 1, true or false";
        return false;
    }
    return true;
}

bool parseArgument(const std::string& text, std::string& value, std::string&)
{
    value = text;
    return true;
}

bool parseArgument(const std::string& text, ShortText& value, std::string& why)
{
    if (text.size() > 255) {
        why = "is longer than 255 bytes";
        return false;
    }
    value.text = text;
    return true;
}

bool parseArgument(const std::string& text, HexBytes& value, std::string& why)
{
    std::vector<char> bytes;
    bool ok = !text.empty() && text.size() % 2 == 0;
    for (std::size_t i = 0; ok && i < text.size(); i += 2) {
        const int high = hexDigit(text[i]);
        const int low = hexDigit(text[i + 1]);
        ok = high >= 0 && low >= 0;
        bytes.push_back(static_cast<char>(high * 16 + low));
    }
    if (!ok) {
        why = "is not bytes in hexadecimal, two digits each";
        return false;
    }
    value.bytes = std::move(bytes);
    return true;
}

bool parseArgument(const std::string& text, FileBytes& value, std::string& why)
{
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(text.c_str(), "rb"), &std::fclose);
    if (!file) {
        why = std::string("cannot be opened (") + std::strerror(errno) + ")";
        return false;
    }
    std::vector<char> bytes;
    char block[65536];
    std::size_t n = 0;
    while ((n = std::fread(block, 1, sizeof block, file.get())) > 0)
        bytes.insert(bytes.end(), block, block + n);
    if (std::ferror(file.get())) {
        why = std::string("cannot be read (") + std::strerror(errno) + ")";
        return false;
    }
    value.bytes = std::move(bytes);
    return true;
}

bool parseArgument(const std::string& text, FRAME_DROP_MODE& value, std::string& why)
{
    return parseEnumerator(text, value, {FRAME_DROP_NONE, FRAME_DROP_HALF, FRAME_DROP_THIRD, FRAME_DROP_QUARTER}, why);
}

bool parseArgument(const std::string& text, SetFileDataType& value, std::string& why)
{
    return parseEnumerator(text, value, {SET_FILE_DATA_0, SET_FILE_DATA_1, SET_FILE_DATA_2}, why);
}

bool parseArgument(const std::string& text, _ZT_WORK_BUSINESS_& value, std::string& why)
{
    return parseEnumerator(text, value, {ZT_WORK_SCAN, ZT_WORK_TRACK, ZT_WORK_PHOTOGRAMMETRY, ZT_WORK_CALIBRATE}, why);
}

Shown show(int value)
{
    return {std::to_string(value), std::to_string(value)};
}

Shown show(short value)
{
    return show(static_cast<int>(value));
}

Shown show(unsigned int value)
{
    return {std::to_string(value), std::to_string(value)};
}

Shown show(unsigned long long value)
{
    return {std::to_string(value), std::to_string(value)};
}

template <class T>
Shown showNumber(T value)
{
    if (!std::isfinite(value))
        return {std::isnan(value) ? "nan" : value > 0 ? "inf" : "-inf", "null"};
    char text[64];
    const auto [end, ec] = std::to_chars(text, text + sizeof text, value);
    const std::string shortest(text, ec == std::errc() ? end : text);
    return {shortest, shortest};
}

Shown show(float value)
{
    return showNumber(value);
}

Shown show(double value)
{
    return showNumber(value);
}

Shown show(bool value)
{
    return {value ? "1" : "0", value ? "true" : "false"};
}

Shown show(const std::string& value)
{
    std::string text;
    for (char c : value) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '\\') {
            text += "\\\\";
        } else if (byte >= 0x20 && byte < 0x7F) {
            text += c;
        } else {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\x%02X", byte);
            text += escaped;
        }
    }
    return {text, jsonString(value)};
}

Shown show(const std::vector<std::string>& values)
{
    Shown all{"", "["};
    for (std::size_t i = 0; i < values.size(); ++i) {
        const Shown one = show(values[i]);
        all.text += (i > 0 ? ", " : "") + one.text;
        all.json += (i > 0 ? "," : "") + one.json;
    }
    all.json += "]";
    return all;
}

std::string jsonString(const std::string& bytes)
{
    std::string json = "\"";
    for (char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            json += '\\';
            json += c;
        } else if (byte >= 0x20 && byte < 0x7F) {
            json += c;
        } else {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\u%04X", byte);
            json += escaped;
        }
    }
    return json + "\"";
}

} // namespace zt::tools
