#include "net/pending_id.h"

#include <gtest/gtest.h>

#include "core/dnsproxy_data.h"

namespace {

TEST(pending_id, uses_the_bit_of_its_hash)
{
    const struct {
        uint16_t id;
        int bit;
    } rows[] = {{0, 581}, {1, 614}, {256, 582}, {65535, 35}, {288, 614}, {575, 614}};
    for (const auto &row : rows) {
        dnsproxy_data = {};
        dnsproxy_pending_id_set(row.id);
        for (int bit = 0; bit < 1024; bit++)
            ASSERT_EQ(dnsproxy_data.pendingIdMap[bit / 8] >> bit % 8 & 1, bit == row.bit ? 1 : 0)
                << "identifier " << row.id << " bit " << bit;
    }
    EXPECT_EQ(dnsproxy_id_hash(65535), (255 + 177573) * 33 + 255);
}

TEST(pending_id, identifiers_that_share_a_bit_are_not_told_apart)
{
    dnsproxy_data = {};
    EXPECT_EQ(dnsproxy_pending_id_test(288), 0);
    dnsproxy_pending_id_set(1);
    dnsproxy_pending_id_set(1);
    dnsproxy_pending_id_set(2);
    EXPECT_NE(dnsproxy_pending_id_test(288), 0);
    dnsproxy_pending_id_clear(575);
    EXPECT_EQ(dnsproxy_pending_id_test(1), 0);
    EXPECT_NE(dnsproxy_pending_id_test(2), 0);
}

// Why queries are safe as long as fewer than 287 wait.
TEST(pending_id, the_closest_identifiers_with_a_common_bit_are_287_apart)
{
    int closest = 65536;
    for (int a = 0; a < 2048; a++) {
        for (int apart = 1; apart < closest; apart++) {
            if ((dnsproxy_id_hash(static_cast<uint16_t>(a)) -
                 dnsproxy_id_hash(static_cast<uint16_t>(a + apart))) %
                    1024 ==
                0)
                closest = apart;
        }
    }
    EXPECT_EQ(closest, 287);
}

} // namespace
