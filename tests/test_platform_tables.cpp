// The platform's WWN service and interface-family tables.
#include <array>
#include <cstring>

#include <gtest/gtest.h>

#include "platform/tcam.h"
#include "platform/wwnsvc.h"
#include "vsan_bitset.h"

namespace {

TEST(WwnService, AnswersFromItsTable) {
    const uint8_t sw[8] = {0x20, 0, 0, 0x11, 0x22, 0x33, 0x44, 0x55};
    const uint8_t vw[8] = {0x21, 0, 0, 0x11, 0x22, 0x33, 0x44, 0x0A};
    wwnsvc_table_clear();
    wwnsvc_table_set(sw, 10, vw);
    vsan_bitset set;
    vsan_bitset_init(&set);
    std::array<uint8_t, 16> reply{};
    EXPECT_EQ(wwnsvc_get_vsan_wwn(sw, &set, reply.data()), WWNSVC_ERR_INVALID);  // no VSAN asked
    vsan_bitset_set_bit(&set, 11);
    EXPECT_EQ(wwnsvc_get_vsan_wwn(sw, &set, reply.data()), WWNSVC_ERR_NOT_FOUND);
    vsan_bitset_clear(&set);
    vsan_bitset_set_bit(&set, 10);
    ASSERT_EQ(wwnsvc_get_vsan_wwn(sw, &set, reply.data()), 0);
    EXPECT_EQ(std::memcmp(reply.data(), sw, 8), 0);
    EXPECT_EQ(std::memcmp(reply.data() + 8, vw, 8), 0);
    EXPECT_EQ(wwnsvc_get_vsan_wwn(nullptr, &set, reply.data()), WWNSVC_ERR_INVALID);
    wwnsvc_table_clear();
}

TEST(InterfaceFamily, AnswersFromItsTable) {
    tcam_table_clear();
    tcam_interface_set(1, 1, 0);
    tcam_interface_set(2, 0, 0);
    tcam_interface_set(3, 1, 0x1234);
    uint32_t flag = 7;
    EXPECT_EQ(tcam_is_family_a_interface(1, &flag), 0);
    EXPECT_EQ(flag, 1u);
    EXPECT_EQ(tcam_is_family_a_interface(2, &flag), 0);
    EXPECT_EQ(flag, 0u);
    EXPECT_EQ(tcam_is_family_a_interface(3, &flag), 0x1234);
    EXPECT_EQ(tcam_is_family_a_interface(4, &flag), TCAM_ERR_NO_INTERFACE);
    EXPECT_EQ(tcam_is_family_a_interface(1, nullptr), TCAM_ERR_INVALID);
    tcam_table_clear();
}

}  // namespace
