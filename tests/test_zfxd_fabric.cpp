// zfxd's fabric requests driven by the library's own request functions, in process and over the
// socket to a running server: a generated fabric of more devices than three batches hold, each
// answer held against the fabric description it came from. What the zfx command asks of a fabric
// (the device views, per-VSAN values, domains, next hops, NAT) is its end-to-end run's.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <random>

#include "fabric_file.hpp"
#include "platform/dlg.h"
#include "store.hpp"
#include "tlv.hpp"
#include "zfx_service.h"
#include "zfxd_protocol.h"
#include "zfxd_under_test.hpp"

namespace {

using namespace zfxtest;
using zfxd::FabricDevice;
using zfxtool::format;
using zfxtool::load;
using zfxtool::Wwn;

constexpr uint32_t kDevices = 3 * ZFXD_DEVICE_BATCH + 7;
constexpr uint32_t kVsans[] = {10, 20, 30, 40};

// A fabric description of kDevices devices in shuffled order: every fourth with values per VSAN
// (one VSAN of its set left without a value), every device in one to four VSANs.
std::string fabric_text() {
    std::mt19937 rng(7);
    std::vector<uint32_t> order(kDevices);
    for (uint32_t i = 0; i < kDevices; ++i) order[i] = i;
    std::shuffle(order.begin(), order.end(), rng);
    std::string t = "# generated\n";
    for (uint32_t i : order) {
        std::vector<uint32_t> vsans;
        for (uint32_t k = 0; k < 4; ++k)
            if ((i + k) % 3 != 0 || k == i % 4) vsans.push_back(kVsans[k]);
        std::string ranges, per;
        for (size_t k = 0; k < vsans.size(); ++k) {
            ranges.append(k == 0 ? "" : ",").append(std::to_string(vsans[k]));
            // A per-VSAN device's last VSAN has no value, unless it has only the one.
            if (k + 1 < vsans.size() || k == 0) per.append(k == 0 ? "" : ",").append(format("%u:%u", vsans[k], 1000 + i));
        }
        t += format("device 21:00:00:24:ff:%02x:%02x:%02x fcid 0x%02x%02x%02x vsans %s", i >> 16, (i >> 8) & 0xFF, i & 0xFF, 1 + i % 23,
                    i / 23, i % 7, ranges.c_str());
        t += i % 4 == 0 ? " per-vsan " + per : " value " + std::to_string(i * 3);
        t += format(" node 20:00:00:24:ff:%02x:%02x:%02x name host-%u afid %u\n", i >> 16, (i >> 8) & 0xFF, i & 0xFF, i, 1 + i % 2);
    }
    return t;
}

const Wwn &wwn_of(const zfx_device_entry &e) { return *reinterpret_cast<const Wwn *>(e.pwwn); }

// A walk cursor placed on a device: the walk goes on with the next one.
zfx_device_entry *cursor_at(const Wwn &w) {
    zfx_device_entry *handle = nullptr;
    zfx_device_entry_handle_init_with_wwn(&handle, load<uint32_t>(w.data()), load<uint32_t>(w.data() + 4));
    return handle;
}

using Pairs = std::vector<std::pair<uint32_t, uint32_t>>;

// The pairs the second-generation view must give: each VSAN of the set with a value, ascending.
Pairs pairs_of(const FabricDevice &d) {
    Pairs out;
    for (int32_t v = vsan_bitset_first_bit(&d.vsans.bits); v >= 0; v = vsan_bitset_next_bit(&d.vsans.bits, v))
        if (!d.per_vsan || d.values.count(uint32_t(v)) != 0) out.emplace_back(v, d.per_vsan ? d.values.at(uint32_t(v)) : d.value);
    return out;
}

Pairs pairs_of(const zfx_device_ns_entry &e) {
    Pairs out;
    for (uint32_t k = 0; k < e.pair_count; ++k) out.emplace_back(e.pairs[k].vsan, e.pairs[k].value);
    std::free(e.pairs);
    return out;
}

void expect_ns_block(const uint8_t *block, const FabricDevice &d) {
    dir_entry e;
    std::memcpy(&e, block, sizeof e);
    EXPECT_EQ(std::tuple(ntohl(e.port_id), bytes_of(e.port_name, 8), bytes_of(e.node_name, 8), std::string(e.symbolic_name), ntohl(e.class_of_service)),
              std::tuple(d.fcid, bytes_of(d.pwwn.data(), 8), bytes_of(d.node.data(), 8), d.name, uint32_t(ZFXD_NS_CLASS)));
}

void expect_entry(const zfx_device_entry &e, const FabricDevice &d) {
    const auto *b = reinterpret_cast<const uint8_t *>(&e);
    EXPECT_EQ(std::tuple(wwn_of(e), ntohl(load<uint32_t>(b + ZFXD_DEVICE_FCID_AT)), ntohl(load<uint32_t>(b + ZFXD_DEVICE_AFID_AT)), e.flags, e.vsan_value),
              std::tuple(d.pwwn, d.fcid, d.afid, d.per_vsan ? ZFX_DEVICE_FLAG_PER_VSAN : 0, d.per_vsan ? 0 : d.value));
    EXPECT_TRUE(vsan_bitset_equal(&e.vsans, &d.vsans.bits));
    expect_ns_block(e.ns_block, d);
}

// zfxd on a fresh store with the generated fabric, reached in process or over its socket.
class Fabric : public ::testing::TestWithParam<Transport> {
protected:
    void SetUp() override {
        std::string error;
        ASSERT_TRUE(zfxd::parse_fabric(fabric_text(), "gen", {{2, {}}}, fabric_, error)) << error;
        zfxd_ = std::make_unique<ZfxdUnderTest>(prefix_.config(), ZfxdOptions{GetParam(), &fabric_});
        ep_ = zfxd_->ep();
    }
    // The reply to an asynchronous send with tag, as its payload.
    Bytes received(uint32_t tag) {
        const xqb_recv_opts wait{XQB_SELECT_ANY, 0, 5, 0, {}};
        xqb_msg held = XQB_MSG_EMPTY;
        void *payload = nullptr;
        uint32_t len = 0;
        EXPECT_EQ(xqb_recv(ep_, &held, &wait), 0);
        if (held.msg == nullptr) return {};
        EXPECT_EQ(plat_msg_info_get(held.msg)->tag, tag);
        EXPECT_EQ(dlg_parse_response(held.msg, &payload, &len), 0);
        const Bytes out = bytes_of(payload, len);
        xqb_drop(ep_, &held);
        return out;
    }

    zfxd::FabricDesc fabric_;
    Prefix prefix_;
    std::unique_ptr<ZfxdUnderTest> zfxd_;
    plat_endpoint *ep_ = nullptr;
};

// The first-generation name-server walk covers every device once, in port WWN order, in full
// batches but the last; a walk that starts after a device continues with the next one. The device
// and second-generation views, on the same batching, are the zfx command's: its end-to-end run
// over the socket prints every field of both for a fabric of several batches.
TEST_P(Fabric, DeviceWalksAndTlvReplies) {
    zfx_device_entry *handle = nullptr;
    ASSERT_EQ(zfx_device_entry_handle_init(&handle), 0);
    auto model = fabric_.devices.begin();
    uint32_t batches = 0, count = 0;
    do {
        zfx_device_ns_entry *ns = nullptr;
        count = 0;
        ASSERT_EQ(zfx_device_ns_entry_get_next(ep_, handle, &ns, &count), 0);
        ASSERT_LE(++batches, kDevices) << "the walk does not end";
        // Every batch full but the last; an empty one after it.
        EXPECT_EQ(count, std::min<size_t>(ZFXD_DEVICE_BATCH, size_t(std::distance(model, fabric_.devices.end()))));
        for (uint32_t i = 0; i < count && model != fabric_.devices.end(); ++i, ++model) {
            expect_ns_block(ns[i].ns_block, model->second);
            EXPECT_EQ(pairs_of(ns[i]), Pairs{});
            EXPECT_TRUE(vsan_bitset_equal(&ns[i].vsans, &model->second.vsans.bits));
        }
        std::free(ns);
    } while (count != 0);
    EXPECT_EQ(model, fabric_.devices.end());

    // The TLV-encoded replies of both asynchronous sends, decoded by both parsers: the four
    // devices after one, and an FCR query for a device in any VSAN, one in a VSAN it has, and
    // one that does not exist.
    const auto last = std::prev(fabric_.devices.end()), before = std::prev(last);
    zfx_device_entry *cursor = cursor_at(std::prev(last, 4)->first);
    ASSERT_EQ(zfx2_device_ns_entry_send_req(ep_, cursor, 41), 0);
    const Bytes batch = received(41);
    EXPECT_EQ(wwn_of(*cursor), std::prev(last, 4)->first) << "the send leaves the cursor";
    const Bytes query = cat({le32(3), bytes_of(last->first.data(), 8), zeros(4), bytes_of(before->first.data(), 8),
                             be32(uint32_t(vsan_bitset_first_bit(&before->second.vsans.bits))), Bytes(8, 0x99), zeros(4)});
    ASSERT_EQ(zfx_fcr_query_entry_send(ep_, reinterpret_cast<const zfx_fcr_query *>(query.data()), 42), 0);
    const Bytes fcr = received(42);
    // After the last device, the walk's end: no entries.
    ASSERT_EQ(zfx2_device_ns_entry_send_req(ep_, cursor_at(last->first), 43), 0);
    const Bytes none = received(43);
    const std::pair<const Bytes &, std::vector<const FabricDevice *>> cases[] = {
        {batch, {&std::prev(last, 3)->second, &std::prev(last, 2)->second, &before->second, &last->second}},
        {fcr, {&last->second, &before->second}}, {none, {}}};
    for (const auto &[reply, devices] : cases) {
        zfx_device_entry *entries = nullptr;
        zfx_device_ns_entry *ns = nullptr;
        int32_t n = -1, ns_count = -1;
        const int32_t want = devices.empty() ? ZFX_ERR_NO_ENTRIES : 0;
        ASSERT_EQ(zfx2_device_entry_parse_checked(reply.data(), uint32_t(reply.size()), &entries, &n), want);
        ASSERT_EQ(zfx2_device_ns_entry_parse_checked(reply.data(), uint32_t(reply.size()), &ns, &ns_count), want);
        ASSERT_EQ(std::pair(size_t(n), size_t(ns_count)), std::pair(devices.size(), devices.size()));
        for (int32_t i = 0; i < n; ++i) {
            expect_entry(entries[i], *devices[i]);
            EXPECT_EQ(pairs_of(ns[i]), pairs_of(*devices[i]));
        }
        std::free(entries);
        std::free(ns);
    }
}

// The frame hand-over and the name server.
TEST_P(Fabric, FramesAndNameServer) {
    // Frames arrive whole (header words, length, the check of the data); one whose message is
    // not its header and data is refused and not counted.
    std::vector<uint32_t> words(ZFX_FRAME_HEADER_SIZE / 4 + 300 / 4, 0);
    auto *frame = reinterpret_cast<zfx_frame_record *>(words.data());
    for (uint32_t len : {0u, 1u, 300u}) {
        frame->hdr[0] = 0x22010203u + len;
        frame->hdr[1] = 0x01040506u;
        frame->data_len = len;
        for (uint32_t i = 0; i < len; ++i) frame->data[i] = uint8_t(i * 7 + len);
        ASSERT_EQ(zfx_forward_frame(ep_, frame), 0);
        EXPECT_EQ(frame->hdr[0], 0x22010203u + len);
    }
    Bytes bad(ZFX_FRAME_HEADER_SIZE + 4, 0);
    bad[16] = 5;  // data_len 5, four bytes follow
    // Refused by the service: in process the send returns its status; over the socket a send
    // does not wait for the answer.
    const int32_t refused = xqb_send(ep_, ZFX_NODE_REMOTE, ZFX_SAP, ZFX_XQB_FORWARD_FRAME, bad.data(), uint32_t(bad.size()), nullptr, 0, nullptr);
    EXPECT_EQ(refused, GetParam() == Transport::inproc ? ZFXD_ERR_MALFORMED : 0);
    EXPECT_EQ(zfx_dlg_get_info_int(ep_, ZFXD_INFO_FRAMES), 3);
    zfx_info_record *info = zfx_dlg_get_info(ep_, ZFXD_INFO_LAST_FRAME);
    ASSERT_NE(info, nullptr);
    EXPECT_EQ(std::string(info->value), format("0x%08x 0x%08x 300 0x%08x", frame->hdr[0], frame->hdr[1], zfxd_frame_check(frame->data, 300)));
    std::free(info);

    // The name server: every device in any VSAN and in one of its own; none outside them.
    for (const auto &[wwn, d] : fabric_.devices) {
        const uint32_t w1 = load<uint32_t>(wwn.data()), w2 = load<uint32_t>(wwn.data() + 4);
        const uint32_t own = uint32_t(vsan_bitset_first_bit(&d.vsans.bits)), other = uint32_t(vsan_bitset_find_free_bit(&d.vsans.bits, 1));
        for (const auto &[scope, want] : {std::pair{0u, 0}, std::pair{own, 0}, std::pair{other, ZFXD_DIR_ERR_NOT_FOUND}}) {
            dir_entry e{};
            ASSERT_EQ(zfx_ns_get_entry_given_portname(ep_, ntohl(w1), ntohl(w2), scope, &e), want) << zfxtool::wwn_text(wwn);
            if (want == 0) expect_ns_block(reinterpret_cast<const uint8_t *>(&e), d);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Transports, Fabric, ::testing::Values(Transport::inproc, Transport::socket),
                         [](const auto &param) { return param.param == Transport::inproc ? "inproc" : "socket"; });

}  // namespace
