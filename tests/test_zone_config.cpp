// Zone configuration requests: the exact messages built from plain arguments, refused names,
// result mapping and debug lines. (The caller's one-record messages are sent in test_zone_tlv.)
#include <cerrno>
#include <functional>
#include <string>

#include <gtest/gtest.h>

#include "capture.hpp"
#include "fake_service.hpp"
#include "zfx_testing.h"
#include "zfx_zone_msg.h"

namespace {

using namespace zfxtest;

const uint8_t kWwn[8] = {0x21, 0x00, 0x00, 0x24, 0xff, 0x4c, 0xa0, 0x01};
const uint8_t kLun[8] = {0x00, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x0a};

// Each request as sent, answered with a status that comes back as it is, and the member request's
// progress lines; a name whose element cannot be added (its size wraps in 16 bits) is refused
// before anything is sent (message type 0).
TEST(ZoneConfig, MessagesBuiltFromArguments) {
    const Bytes wwn = bytes_of(kWwn, 8), lun = bytes_of(kLun, 8), bitmap = cat({le32(1024), Bytes(1024, 0x0F)});
    const std::string long_name(100, 'x');
    static const std::string huge(65534, 'h');
    const Bytes head = cat({be32(1), zeros(4)}), set_head = cat({be32(1), zeros(20)});
    const std::string member = "zfx_dlg_config_zone_member : id = ";
    const struct {
        std::function<uint32_t(plat_endpoint *)> call;
        uint32_t msg_type;
        Bytes payload;
        std::string lines;  // the member request's, before its last three
    } cases[] = {
        {[](plat_endpoint *ep) { return zfx_dlg_config_zone_member(ep, 2, "z1", 3, 4, 0, nullptr, nullptr, 0, 0, "o", 6); },
         8603, cat({head, be32(4), be32(3), tlv_array({tlv(6, str0("z1")), tlv(27, be32(0))})}),
         member + "3, parent_id=4 zone name=z1 member type=0 vsan=0 autonomous-fabric-id=0\nadding zone name: z1\n"
                  "adding member type: 0\n"},
        {[](plat_endpoint *ep) { return zfx_dlg_config_zone_member(ep, 2, nullptr, 7, 8, 241, "ab", kLun, 10, 5, "o", 6); },
         8603, cat({head, be32(8), be32(7), tlv_array({tlv(27, be32(241)), tlv(65, str0("ab")), tlv(44, lun),
                                                       tlv(11, be32(10)), tlv(12, be32(5))})}),
         member + "7, parent_id=8 zone name=(null) member type=241 vsan=10 autonomous-fabric-id=5\n"
                  "adding member type: 241\nadding device-alias: ab\nadding lun: 0x 0 1 2 3 4 5 6 a\nadding vsan: 10\n"
                  "adding autonomous-fabric-id: 5\n"},
        {[](plat_endpoint *ep) { return zfx_dlg_config_zone_member(ep, 2, "z", 1, 2, 240, kWwn, nullptr, 4095, 0, "o", 6); },
         8603, cat({head, be32(2), be32(1), tlv_array({tlv(6, str0("z")), tlv(27, be32(240)), tlv(10, wwn), tlv(11, be32(4095))})}),
         member + "1, parent_id=2 zone name=z member type=240 vsan=4095 autonomous-fabric-id=0\nadding zone name: z\n"
                  "adding member type: 240\nadding pwwn: 0x1a04cff24000021\nadding vsan: 4095\n"},
        {[](plat_endpoint *ep) { return zfx_dlg_config_zone_attrib(ep, 2, "zz", nullptr, 9, ZFX_ATTR_NONE, 1, "o", 6); },
         8640, cat({head, zeros(4), tlv_array({tlv(6, str0("zz")), tlv(59, be32(1))})})},
        {[](plat_endpoint *ep) { return zfx_dlg_config_zone_all_attrib(ep, 2, nullptr, "n2", 9, 0, ZFX_ATTR_NONE, "o", 6); },
         8602, cat({head, be32(9), tlv_array({tlv(45, le32(0)), tlv(57, str0("n2"))})})},
        {[](plat_endpoint *ep) { return zfx_dlg_config_zone_all_attrib(ep, 2, "a", "b", 9, 3, 0, "o", 6); },
         8602, cat({head, zeros(4), tlv_array({tlv(6, str0("a")), tlv(45, le32(3)), tlv(57, str0("b")), tlv(59, be32(0))})})},
        {[](plat_endpoint *ep) { return zfx_dlg_config_zone(ep, 2, nullptr, nullptr, "o", 6); },
         8602, cat({head, zeros(4), tlv_array({tlv(45, le32(0))})})},
        {[&](plat_endpoint *ep) { return zfx_dlg_config_zoneset_all_attrib(ep, 2, "s", "s2", 4, "zn", bitmap.data(), "o", 6); },
         8601, cat({set_head, zeros(4), tlv_array({tlv(1, str0("s")), tlv(5, str0("zn")), tlv(56, str0("s2"))})})},
        {[&](plat_endpoint *ep) { return zfx_dlg_config_zoneset_all_attrib(ep, 2, nullptr, nullptr, 4, nullptr, bitmap.data(), "o", 6); },
         8601, cat({set_head, be32(4), tlv_array({tlv(61, bitmap)})})},
        {[](plat_endpoint *ep) { return zfx_dlg_config_zoneset(ep, 2, nullptr, nullptr, "zn", "o", 6); },
         8601, cat({set_head, zeros(4), tlv_array({tlv(5, str0("zn"))})})},
        {[&](plat_endpoint *ep) { return zfx_dlg_config_zone_activation(ep, 2, long_name.c_str(), 0x01020304, 0x0A0B0C0D, "o", 6); },
         8604, cat({Bytes(67, 'x'), {0}, le32(0x01020304), zeros(4), be32(0x0A0B0C0D), zeros(4)})},
        {[](plat_endpoint *ep) { return zfx_dlg_config_zone_activation(ep, 2, nullptr, 1, 2, "o", 6); },
         8604, cat({zeros(68), le32(1), zeros(4), be32(2), zeros(4)})},
        {[](plat_endpoint *ep) { return zfx_dlg_config_zone_member(ep, 1, huge.c_str(), 1, 1, 0, kWwn, kLun, 1, 1, nullptr, 0); }, 0, {}},
        {[](plat_endpoint *ep) { return zfx_dlg_config_zone_attrib(ep, 1, huge.c_str(), "b", 0, 1, 1, nullptr, 0); }, 0, {}},
        {[](plat_endpoint *ep) { return zfx_dlg_config_zoneset_all_attrib(ep, 1, huge.c_str(), "b", 0, "z", nullptr, nullptr, 0); }, 0, {}},
    };
    for (const auto &c : cases) {
        FakeService svc{Answer::status(0x409A0006)};
        debug_cli = 1;
        Capture out;
        EXPECT_EQ(c.call(svc.ep()), c.msg_type != 0 ? 0x409A0006u : uint32_t(ZFX_ERR_INVALID_ARG));
        debug_cli = 0;
        if (c.msg_type == 8603) {
            EXPECT_EQ(out.text(), c.lines + "converting member structure to network byte order..\nsending req to zfx..\n"
                                            "return code: 0x409a0006\n");
        } else {
            EXPECT_EQ(out.text().find("sending req"), std::string::npos);
        }
        ASSERT_EQ(svc.sent().size(), c.msg_type != 0 ? 1u : 0u);
        if (c.msg_type == 0) continue;
        EXPECT_EQ(std::pair(svc.last().summary(), svc.last().payload),
                  std::pair("req " + std::to_string(c.msg_type) + "/2 t10 a=o b6", c.payload));
    }
    // Activation alone maps a failed channel call.
    FakeService svc{Answer::failure(ENOENT)};
    EXPECT_EQ(zfx_dlg_config_zone_activation(svc.ep(), 1, "s", 0, 0, nullptr, 0), 0x809A0002u);

    // An unknown member type is refused before anything is allocated or sent.
    debug_cli = 1;
    zfx_testing_fail_allocation(0);  // resets the count
    Capture out;
    EXPECT_EQ(zfx_dlg_config_zone_member(svc.ep(), 1, nullptr, 3, 4, 2, nullptr, nullptr, 10, 0, nullptr, 0),
              uint32_t(ZFX_ERR_INVALID_VALUE));
    debug_cli = 0;
    EXPECT_EQ(out.text(), "zfx_dlg_config_zone_member : id = 3, parent_id=4 zone name=(null) member type=2 vsan=10 "
                          "autonomous-fabric-id=0\ninvalid member type: 2\n");
    EXPECT_EQ(zfx_testing_allocation_count(), 0u);
    EXPECT_EQ(svc.sent().size(), 1u);  // the activation's alone
}

}  // namespace
