#include "zt_msg.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <vector>

namespace {

std::vector<unsigned char> bytesOf(const void* msg)
{
    const auto* p = static_cast<const unsigned char*>(msg);
    return std::vector<unsigned char>(p, p + zt_msg_get_full_size(msg));
}

TEST(ProxyMessage, CreateWritesTheHeaderAndPayloadLittleEndian)
{
    const unsigned char payload[] = {0xDE, 0xAD, 0xBE, 0xEF, 0x01};
    _ZT_PROXY_MSG_* msg = zt_msg_create(3, 0x20002, 5, payload);
    ASSERT_NE(msg, nullptr);
    const std::vector<unsigned char> expected = {0x24, 0x23, 0x00, 0x00, 0x03, 0x00, 0x00, 0x00, 0x02, 0x00, 0x02,
                                                 0x00, 0x05, 0x00, 0x00, 0x00, 0xDE, 0xAD, 0xBE, 0xEF, 0x01};
    EXPECT_EQ(bytesOf(msg), expected);
    EXPECT_EQ(zt_msg_is_avalible(msg), 0);
    EXPECT_EQ(zt_msg_get_msg_type(msg), 3);
    EXPECT_EQ(zt_msg_get_sub_type(msg), 0x20002u);
    EXPECT_EQ(zt_msg_get_data_len(msg), 5);
    EXPECT_EQ(zt_msg_get_full_size(msg), 21);
    EXPECT_EQ(zt_msg_get_data(msg), reinterpret_cast<char*>(msg) + 16);
    zt_msg_release(msg);

    // No payload: a bare 16-byte header.
    msg = zt_msg_create(3, 0x10001, 0, nullptr);
    ASSERT_NE(msg, nullptr);
    EXPECT_EQ(zt_msg_get_data_len(msg), 0);
    EXPECT_EQ(zt_msg_get_full_size(msg), 16);
    zt_msg_release(msg);

    // The high half of the sub type travels too.
    msg = zt_msg_create(-7, 0xFFFF0001u, 0, nullptr);
    ASSERT_NE(msg, nullptr);
    EXPECT_EQ(zt_msg_get_msg_type(msg), -7);
    EXPECT_EQ(zt_msg_get_sub_type(msg), 0xFFFF0001u);
    zt_msg_release(msg);
}

TEST(ProxyMessage, TypeZeroIsRefused)
{
    const int value = 4;
    EXPECT_EQ(zt_msg_create(0, 0x10001, 4, &value), nullptr);
    EXPECT_EQ(zt_msg_create(0, 0, 0, nullptr), nullptr);
}

TEST(ProxyMessage, PayloadWithoutDataIsLeftForTheCallerToFill)
{
    _ZT_PROXY_MSG_* msg = zt_msg_create(1, 0x40001, 8, nullptr);
    ASSERT_NE(msg, nullptr);
    EXPECT_EQ(zt_msg_get_data_len(msg), 8);
    EXPECT_EQ(zt_msg_get_full_size(msg), 24);
    const std::uint64_t value = 0x0102030405060708ull;
    std::memcpy(zt_msg_get_data(msg), &value, sizeof value);
    const auto bytes = bytesOf(msg);
    EXPECT_EQ(bytes[16], 0x08);
    EXPECT_EQ(bytes[23], 0x01);
    zt_msg_release(msg);
}

TEST(ProxyMessage, NegativeLengthIsStoredAsGivenAndNothingIsCopied)
{
    const char payload[16] = {1};
    _ZT_PROXY_MSG_* msg = zt_msg_create(2, 0x20000, -5, payload);
    ASSERT_NE(msg, nullptr);
    EXPECT_EQ(zt_msg_get_data_len(msg), -5);
    EXPECT_EQ(zt_msg_get_full_size(msg), 11);
    EXPECT_EQ(zt_msg_is_avalible(msg), 0);
    zt_msg_release(msg);
}

TEST(ProxyMessage, AvailabilityLooksAtTheMagicOnly)
{
    EXPECT_EQ(zt_msg_is_avalible(nullptr), -1);

    unsigned char raw[16] = {0x24, 0x23};
    // Type 0, sub type 0 and length 0 do not matter.
    EXPECT_EQ(zt_msg_is_avalible(raw), 0);
    // Reserved bytes are never read.
    raw[2] = 0xFF;
    raw[3] = 0xFF;
    EXPECT_EQ(zt_msg_is_avalible(raw), 0);
    // The big-endian magic, or any other pair of bytes, is not a message.
    raw[0] = 0x23;
    raw[1] = 0x24;
    EXPECT_EQ(zt_msg_is_avalible(raw), -1);
    raw[0] = 0x24;
    raw[1] = 0x00;
    EXPECT_EQ(zt_msg_is_avalible(raw), -1);

    // A well-formed message whose first byte changed is unavailable too.
    _ZT_PROXY_MSG_* msg = zt_msg_create(4, 0x10002, 0, nullptr);
    reinterpret_cast<unsigned char*>(msg)[0] = 0x25;
    EXPECT_EQ(zt_msg_is_avalible(msg), -1);
    zt_msg_release(msg);
}

TEST(ProxyMessage, GettersOnNullAndUncheckedGetters)
{
    EXPECT_EQ(zt_msg_get_msg_type(nullptr), 0);
    EXPECT_EQ(zt_msg_get_sub_type(nullptr), 0u);
    EXPECT_EQ(zt_msg_get_data(nullptr), nullptr);
    EXPECT_EQ(zt_msg_get_data_len(nullptr), 0);
    EXPECT_EQ(zt_msg_get_full_size(nullptr), 0);
    zt_msg_release(nullptr);

    // The getters read their fields without checking the magic.
    unsigned char raw[16] = {0, 0, 0, 0, 3, 0, 0, 0, 0x05, 0, 1, 0, 4, 0, 0, 0};
    EXPECT_EQ(zt_msg_get_msg_type(raw), 3);
    EXPECT_EQ(zt_msg_get_sub_type(raw), 0x10005u);
    EXPECT_EQ(zt_msg_get_data_len(raw), 4);
    EXPECT_EQ(zt_msg_get_full_size(raw), 20);
}

} // namespace
