// Arguments of device commands parsed from the command line (whole numbers: limits and
// rejected input), and results shown as text and JSON, escaping included.
#include "command_values.h"

#include <gtest/gtest.h>

#include <cstring>
#include <limits>
#include <string>
#include <vector>

namespace zt::tools {
namespace {

template <class T>
bool parses(const std::string& text, T expected)
{
    T value{};
    std::string why;
    return parseArgument(text, value, why) && value == expected && why.empty();
}

template <class T>
std::string rejected(const std::string& text)
{
    T value{};
    std::string why;
    return parseArgument(text, value, why) ? "(accepted)" : why;
}

TEST(CommandValues, WholeNumbersTakeTheirFullRangeAndNothingElse)
{
    EXPECT_TRUE(parses<int>("2147483647", 2147483647));
    EXPECT_TRUE(parses<int>("-2147483648", std::numeric_limits<int>::min()));
    EXPECT_TRUE(parses<int>("-0x10", -16));
    EXPECT_TRUE(parses<int>("010", 10)); // decimal, not octal
    for (const char* bad : {"", "-", "+1", " 1", "1 ", "1x", "0x", "0x-1", "1.0", "--1", "99999999999999999999"})
        EXPECT_NE(rejected<int>(bad), "(accepted)") << bad;
    EXPECT_TRUE(parses<short>("-32768", static_cast<short>(-32768)));
    EXPECT_TRUE(parses<unsigned int>("0xFFFFFFFF", 0xFFFFFFFFu));
    EXPECT_TRUE(parses<unsigned long long>("18446744073709551615", 18446744073709551615ull));
    EXPECT_TRUE(parses<char>("255", static_cast<char>(0xFF))); // a byte travels as its eight bits
    EXPECT_TRUE(parses<char>("0x41", 'A'));
    const std::string whole = "is not a whole number from ";
    EXPECT_EQ(rejected<int>("2147483648"), whole + "-2147483648 to 2147483647");
    EXPECT_EQ(rejected<int>("-2147483649"), whole + "-2147483648 to 2147483647");
    EXPECT_EQ(rejected<short>("0x8000"), whole + "-32768 to 32767");
    EXPECT_EQ(rejected<unsigned int>("-1"), whole + "0 to 4294967295");
    EXPECT_EQ(rejected<unsigned int>("4294967296"), whole + "0 to 4294967295");
    EXPECT_NE(rejected<unsigned long long>("18446744073709551616"), "(accepted)");
    EXPECT_NE(rejected<unsigned long long>("-1"), "(accepted)");
    EXPECT_EQ(rejected<char>("256"), whole + "0 to 255");
    EXPECT_EQ(rejected<char>("-1"), whole + "0 to 255");
}

TEST(CommandValues, ShownAsTextAndAsValidJson)
{
    EXPECT_EQ(show(static_cast<short>(-32768)).json, "-32768");
    EXPECT_EQ(show(18446744073709551615ull).text, "18446744073709551615");

    EXPECT_EQ(show(12.5f).text, "12.5");
    EXPECT_EQ(show(0.1f).json, "0.1");
    EXPECT_EQ(show(-0.0f).text, "-0");
    EXPECT_EQ(show(std::numeric_limits<float>::quiet_NaN()).text, "nan");
    EXPECT_EQ(show(std::numeric_limits<float>::quiet_NaN()).json, "null");
    EXPECT_EQ(show(-std::numeric_limits<float>::infinity()).text, "-inf");
    EXPECT_EQ(show(std::numeric_limits<float>::infinity()).json, "null");
    // Every shown float reads back as the same bits.
    for (unsigned int bits = 0x00000001u; bits < 0x7F800000u; bits += 0x00F0F0F1u) {
        float f;
        std::memcpy(&f, &bits, 4);
        float back = 0;
        std::string why;
        ASSERT_TRUE(parseArgument(show(f).text, back, why)) << show(f).text;
        unsigned int backBits;
        std::memcpy(&backBits, &back, 4);
        EXPECT_EQ(backBits, bits) << show(f).text;
    }

    // Bytes outside printable ASCII are escaped; the JSON stays valid whatever the bytes.
    const std::string raw("a\"b\\c\x01\n\x7f\xff", 9);
    EXPECT_EQ(show(raw).text, "a\"b\\\\c\\x01\\x0A\\x7F\\xFF");
    EXPECT_EQ(show(raw).json, "\"a\\\"b\\\\c\\u0001\\u000A\\u007F\\u00FF\"");
    EXPECT_EQ(show(std::string("\0x", 2)).json, "\"\\u0000x\"");

    EXPECT_EQ(show(std::vector<std::string>{"ZT01", "ZT 02"}).text, "ZT01, ZT 02");
    EXPECT_EQ(show(std::vector<std::string>{"ZT01", "ZT\"02"}).json, "[\"ZT01\",\"ZT\\\"02\"]");
    EXPECT_EQ(show(std::vector<std::string>{}).json, "[]");
}

} // namespace
} // namespace zt::tools
