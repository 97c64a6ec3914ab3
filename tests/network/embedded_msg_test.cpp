// The plain embedded-message functions, through the shared library's exports.
#include "host_peer.h"
#include "support/log_capture.h"
#include "zt_embedded_msg.h"

#include <gtest/gtest.h>

using zt::tools::bytes;

namespace {

std::vector<char> created(int size, int type, const void* data)
{
    void* m = zt_embedded_msg_create(size, type, data);
    std::vector<char> out(static_cast<char*>(m), static_cast<char*>(m) + size);
    zt_embedded_msg_release(m);
    return out;
}

TEST(EmbeddedMsg, CreatedBytesGettersAndValidation)
{
    const char p[4] = {1, 2, 3, 4};
    EXPECT_EQ(created(8, 2, nullptr), bytes({0xAA, 8, 0, 0, 0, 2, 0, 0xBB}));
    EXPECT_EQ(created(12, 264, p), bytes({0xAA, 12, 0, 0, 0, 0x08, 0x01, 1, 2, 3, 4, 0xBB}));
    // Without data the tail goes to offset 7 whatever the size; the rest stays zero.
    EXPECT_EQ(created(16, 0x1234, nullptr), bytes({0xAA, 16, 0, 0, 0, 0x34, 0x12, 0xBB, 0, 0, 0, 0, 0, 0, 0, 0}));

    auto m = zt::tools::embeddedMessage(264, bytes({1, 2, 3, 4}));
    EXPECT_EQ(zt_embedded_msg_get_msg_type(m.data()), 264);
    EXPECT_EQ(zt_embedded_msg_get_full_size(m.data()), 12);
    EXPECT_EQ(zt_embedded_msg_get_data_len(m.data()), 4);
    EXPECT_EQ(zt_embedded_msg_get_data(m.data()), m.data() + 7);
    for (int head : {0xAA, 0xCC, 0xBB, 0x00}) {
        m[0] = static_cast<char>(head);
        EXPECT_EQ(zt_embedded_msg_is_avalible(m.data()), head == 0xAA || head == 0xCC ? 0 : -1) << head;
    }
    // Only the size field counts: below 8 the data length is negative.
    const auto small = bytes({0xAA, 5, 0, 0, 0, 9, 0, 0xBB});
    EXPECT_EQ(zt_embedded_msg_get_data_len(small.data()), -3);
    EXPECT_EQ(zt_embedded_msg_get_full_size(small.data()), 5);

    zt::test::LogCapture log;
    EXPECT_EQ(zt_embedded_msg_create(0, 1, p), nullptr);
    EXPECT_TRUE(log.lines().empty());
    EXPECT_EQ(zt_embedded_msg_create(7, 1, p), nullptr);
    ASSERT_EQ(log.lines().size(), 1u);
    EXPECT_EQ(log.lines()[0].level, ZTLOG_LEVEL_ERROR);
    EXPECT_NE(log.lines()[0].text.find("zt_embedded_msg_create"), std::string::npos);
    EXPECT_EQ(zt_embedded_msg_is_avalible(nullptr), -1);
    EXPECT_EQ(zt_embedded_msg_get_msg_type(nullptr), 0);
    EXPECT_EQ(zt_embedded_msg_get_data(nullptr), nullptr);
    EXPECT_EQ(zt_embedded_msg_get_data_len(nullptr), 0);
    EXPECT_EQ(zt_embedded_msg_get_full_size(nullptr), 0);
    zt_embedded_msg_release(nullptr);
}

} // namespace
