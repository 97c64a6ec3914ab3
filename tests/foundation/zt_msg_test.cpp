#include "zt_msg.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <vector>

namespace {

using Bytes = std::vector<unsigned char>;
using Msg = std::unique_ptr<_ZT_PROXY_MSG_, decltype(&zt_msg_release)>;

Msg create(int type, unsigned int sub, int length, const void* data)
{
    return Msg(zt_msg_create(type, sub, length, data), &zt_msg_release);
}

TEST(ProxyMessage, HeaderAndPayloadOnTheWireAndWhatTheGettersRead)
{
    const unsigned char payload[] = {0xDE, 0xAD, 0xBE, 0xEF, 0x01};
    Msg msg = create(3, 0x20002, 5, payload);
    ASSERT_NE(msg, nullptr);
    const auto* p = reinterpret_cast<const unsigned char*>(msg.get());
    EXPECT_EQ(Bytes(p, p + zt_msg_get_full_size(msg.get())),
              (Bytes{0x24, 0x23, 0, 0, 3, 0, 0, 0, 0x02, 0, 0x02, 0, 5, 0, 0, 0, 0xDE, 0xAD, 0xBE, 0xEF, 0x01}));
    EXPECT_EQ(zt_msg_get_data(msg.get()), reinterpret_cast<char*>(msg.get()) + 16);

    // The high half of the sub type travels; a length without data leaves the payload to
    // the caller; a negative length is stored as given; type 0 is refused.
    msg = create(-7, 0xFFFF0001u, 0, nullptr);
    EXPECT_EQ(zt_msg_get_full_size(msg.get()), 16);
    EXPECT_EQ(zt_msg_get_msg_type(msg.get()), -7);
    EXPECT_EQ(zt_msg_get_sub_type(msg.get()), 0xFFFF0001u);
    EXPECT_EQ(zt_msg_get_full_size(create(1, 0x40001, 8, nullptr).get()), 24);
    const char some[16] = {1};
    msg = create(2, 0x20000, -5, some);
    EXPECT_EQ(zt_msg_get_data_len(msg.get()), -5);
    EXPECT_EQ(zt_msg_get_full_size(msg.get()), 11);
    EXPECT_EQ(create(0, 0x10001, 4, some), nullptr);

    // Only the little-endian magic makes a message; the getters read any header.
    unsigned char raw[16] = {0x24, 0x23, 0xFF, 0xFF, 3, 0, 0, 0, 0x05, 0, 1, 0, 4, 0, 0, 0};
    EXPECT_EQ(zt_msg_is_avalible(raw), 0);
    for (const auto& magic : {Bytes{0x23, 0x24}, Bytes{0x24, 0x00}, Bytes{0x25, 0x23}}) {
        std::memcpy(raw, magic.data(), 2);
        EXPECT_EQ(zt_msg_is_avalible(raw), -1);
    }
    EXPECT_EQ(zt_msg_get_sub_type(raw), 0x10005u);
    EXPECT_EQ(zt_msg_get_full_size(raw), 20);

    EXPECT_EQ(zt_msg_is_avalible(nullptr), -1);
    EXPECT_EQ(zt_msg_get_msg_type(nullptr), 0);
    EXPECT_EQ(zt_msg_get_data(nullptr), nullptr);
    EXPECT_EQ(zt_msg_get_full_size(nullptr), 0);
    zt_msg_release(nullptr);
}

} // namespace
