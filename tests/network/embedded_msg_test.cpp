// The plain embedded-message functions, through the shared library's exports.
#include "network/peer.h"
#include "support/log_capture.h"
#include "zt_embedded_msg.h"

#include <gtest/gtest.h>

using zt::test::Bytes;

namespace {

Bytes bytesOf(const void* msg, std::size_t n)
{
    return Bytes(static_cast<const unsigned char*>(msg), static_cast<const unsigned char*>(msg) + n);
}

TEST(EmbeddedMsg, CreatedBytes)
{
    void* m = zt_embedded_msg_create(8, 2, nullptr);
    EXPECT_EQ(bytesOf(m, 8), (Bytes{0xAA, 0x08, 0, 0, 0, 0x02, 0x00, 0xBB}));
    zt_embedded_msg_release(m);

    const unsigned char p[4] = {1, 2, 3, 4};
    m = zt_embedded_msg_create(12, 264, p);
    EXPECT_EQ(bytesOf(m, 12), (Bytes{0xAA, 0x0C, 0, 0, 0, 0x08, 0x01, 1, 2, 3, 4, 0xBB}));
    EXPECT_EQ(zt_embedded_msg_get_msg_type(m), 264);
    EXPECT_EQ(zt_embedded_msg_get_full_size(m), 12);
    EXPECT_EQ(zt_embedded_msg_get_data_len(m), 4);
    EXPECT_EQ(zt_embedded_msg_get_data(m), static_cast<char*>(m) + 7);
    zt_embedded_msg_release(m);

    // Without data the tail goes to offset 7 whatever the size; the rest stays zero.
    m = zt_embedded_msg_create(16, 0x1234, nullptr);
    EXPECT_EQ(bytesOf(m, 16), (Bytes{0xAA, 16, 0, 0, 0, 0x34, 0x12, 0xBB, 0, 0, 0, 0, 0, 0, 0, 0}));
    zt_embedded_msg_release(m);

    zt::test::LogCapture log;
    EXPECT_EQ(zt_embedded_msg_create(0, 1, p), nullptr);
    EXPECT_TRUE(log.lines().empty());
    EXPECT_EQ(zt_embedded_msg_create(7, 1, p), nullptr);
    ASSERT_EQ(log.lines().size(), 1u);
    EXPECT_EQ(log.lines()[0].level, ZTLOG_LEVEL_ERROR);
    EXPECT_NE(log.lines()[0].text.find("zt_embedded_msg_create"), std::string::npos);
}

TEST(EmbeddedMsg, ValidationAndGetters)
{
    for (unsigned char head : {0xAA, 0xCC, 0xBB, 0x00})
        EXPECT_EQ(zt_embedded_msg_is_avalible(zt::test::embedded(5, "x", head).data()),
                  head == 0xAA || head == 0xCC ? 0 : -1);
    // Only the size field counts: below 8 the data length is negative.
    const Bytes small{0xAA, 5, 0, 0, 0, 9, 0, 0xBB};
    EXPECT_EQ(zt_embedded_msg_get_data_len(small.data()), -3);
    EXPECT_EQ(zt_embedded_msg_get_full_size(small.data()), 5);

    EXPECT_EQ(zt_embedded_msg_is_avalible(nullptr), -1);
    EXPECT_EQ(zt_embedded_msg_get_msg_type(nullptr), 0);
    EXPECT_EQ(zt_embedded_msg_get_data(nullptr), nullptr);
    EXPECT_EQ(zt_embedded_msg_get_data_len(nullptr), 0);
    EXPECT_EQ(zt_embedded_msg_get_full_size(nullptr), 0);
    zt_embedded_msg_release(nullptr);
}

} // namespace
