// Values of device commands on the command line: arguments parsed from their text, and
// results shown as plain text and as JSON.
#pragma once

#include "ztProxyTypes.h"

#include <string>
#include <vector>

namespace zt::tools {

// Argument kinds beyond the plain numbers and texts.
// A text that travels behind a one-byte length: at most 255 bytes.
struct ShortText {
    std::string text;
};
// Bytes given as hexadecimal digits, two per byte ("0a1B"): at least one byte.
struct HexBytes {
    std::vector<char> bytes;
};
// The whole contents of a file, given by its path.
struct FileBytes {
    std::vector<char> bytes;
};

// Each parser takes the whole text as the value: true and the value, or false and why
// not, as a phrase that follows the argument in a message ("is not a whole number from 0
// to 255"). Whole numbers are decimal, or hexadecimal after 0x; signed kinds take a
// leading minus. Truth values are 0, 1, true or false.
bool parseArgument(const std::string& text, int& value, std::string& why);
bool parseArgument(const std::string& text, short& value, std::string& why);
bool parseArgument(const std::string& text, unsigned int& value, std::string& why);
bool parseArgument(const std::string& text, unsigned long long& value, std::string& why);
// A byte: a whole number from 0 to 255.
bool parseArgument(const std::string& text, char& value, std::string& why);
// A finite number.
bool parseArgument(const std::string& text, float& value, std::string& why);
bool parseArgument(const std::string& text, double& value, std::string& why);
bool parseArgument(const std::string& text, bool& value, std::string& why);
bool parseArgument(const std::string& text, std::string& value, std::string& why);
bool parseArgument(const std::string& text, ShortText& value, std::string& why);
bool parseArgument(const std::string& text, HexBytes& value, std::string& why);
bool parseArgument(const std::string& text, FileBytes& value, std::string& why);
// The enumerators' numbers only.
bool parseArgument(const std::string& text, FRAME_DROP_MODE& value, std::string& why);
bool parseArgument(const std::string& text, SetFileDataType& value, std::string& why);
bool parseArgument(const std::string& text, _ZT_WORK_BUSINESS_& value, std::string& why);

// One output value as plain text and as a JSON value.
struct Shown {
    std::string text;
    std::string json;
};
Shown show(int value);
Shown show(short value);
Shown show(unsigned int value);
Shown show(unsigned long long value);
// The shortest text that reads back as the same number; JSON null when not finite.
Shown show(float value);
Shown show(double value);
Shown show(bool value);
// Bytes outside printable ASCII appear as \xNN in the text; in JSON as \u00NN, so that
// the JSON is valid whatever the device sent.
Shown show(const std::string& value);
// Plain text: the texts joined by ", "; JSON: an array.
Shown show(const std::vector<std::string>& values);

// A JSON string literal of the bytes (see show(const std::string&)).
std::string jsonString(const std::string& bytes);

} // namespace zt::tools
