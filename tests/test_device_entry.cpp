// The walk of the service's device entries: cursor movement across batches, the two name-server
// views with per-VSAN requests, asynchronous sends, and the TLV-encoded reply decoders with
// malformed and truncated replies.
#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "capture.hpp"
#include "fake_service.hpp"
#include "zfx_service.h"
#include "zfx_testing.h"

namespace {

using namespace zfxtest;

constexpr size_t kEntry = 5020, kHead = 4252, kBlock = 768;

// A device entry: port WWN words, the VSAN value, the VSAN set, the flags, and bytes of the
// service's own (a marker at 12 and 3000, the name-server block) filled with mark.
Bytes device(uint32_t w0, uint32_t w1, uint32_t value, const std::vector<int> &vsan_list, uint8_t flags,
             uint8_t mark) {
    Bytes d = cat({le32(w0), le32(w1), le32(value)});
    d.resize(kEntry, 0);
    const Bytes set = vsans_of(vsan_list);
    std::copy(set.begin(), set.end(), d.begin() + 20);
    d[12] = d[3000] = mark;
    d[2100] = flags;
    std::fill(d.begin() + kHead, d.end(), mark);
    return d;
}

Bytes head(const Bytes &d) { return Bytes(d.begin(), d.begin() + kHead); }
Bytes block(const Bytes &d) { return Bytes(d.begin() + kHead, d.end()); }
Bytes pair(uint32_t vsan, uint32_t value) { return cat({le32(vsan), le32(value)}); }
Bytes tlv_reply(int32_t count, std::initializer_list<Bytes> elements) {
    return cat({le32(uint32_t(count)), {0xEE, 0xEE, 0xEE, 0xEE}, tlv_array(elements)});
}

// A name-server entry up to its pair count, then its pairs.
Bytes ns_view(const zfx_device_ns_entry &e) {
    Bytes b = bytes_of(&e, offsetof(zfx_device_ns_entry, pairs));
    for (uint32_t i = 0; i < e.pair_count; ++i) b = cat({b, bytes_of(&e.pairs[i], 8)});
    return b;
}

void free_ns(zfx_device_ns_entry *entries, size_t n) {
    for (size_t i = 0; i < n; ++i) std::free(entries[i].pairs);
    std::free(entries);
}

// One of the four reply decoders (name-server view or not, with a length or without) on a copy of
// reply that is exactly its size, so that a read past it is caught. On success the entries come
// back as bytes (whole device entries, or ns_view) and are released; on failure, whether the
// decoder left *entries alone.
struct Decoded {
    int32_t result, count = 77;
    std::vector<Bytes> entries;
    bool untouched = true;
    std::string printed;
    uint32_t allocations = 0;
};

Decoded decode(const Bytes &reply, bool ns, bool checked) {
    const Bytes copy = reply;
    const auto length = uint32_t(copy.size());
    int sentinel;
    void *out = &sentinel;
    Decoded d{};
    Capture printed;
    zfx_testing_fail_allocation(0);
    auto **raw = reinterpret_cast<zfx_device_entry **>(&out);
    auto **view = reinterpret_cast<zfx_device_ns_entry **>(&out);
    if (ns) d.result = checked ? zfx2_device_ns_entry_parse_checked(copy.data(), length, view, &d.count)
                               : zfx2_device_ns_entry_parse(copy.data(), view, &d.count);
    else d.result = checked ? zfx2_device_entry_parse_checked(copy.data(), length, raw, &d.count)
                            : zfx2_device_entry_parse(copy.data(), raw, &d.count);
    d.printed = printed.text();
    d.allocations = zfx_testing_allocation_count();
    d.untouched = d.result == 0 || out == &sentinel;
    if (d.result != 0) return d;
    for (int32_t i = 0; i < d.count; ++i) {
        d.entries.push_back(ns ? ns_view((*view)[i]) : bytes_of(*raw + i, kEntry));
        EXPECT_TRUE(!ns || ((*view)[i].pairs == nullptr) == ((*view)[i].pair_count == 0)) << "pairs only for a count";
    }
    if (ns) free_ns(*view, size_t(d.count));
    else std::free(out);
    return d;
}

template <typename Entry>
bool refuses_each_missing(plat_endpoint *ep, zfx_device_entry *h,
                          int32_t (*walk)(plat_endpoint *, zfx_device_entry *, Entry **, uint32_t *)) {
    Entry *out = nullptr;
    uint32_t count = 0;
    return walk(ep, nullptr, &out, &count) == ZFX_ERR_INVALID_ARG && walk(ep, h, nullptr, &count) == ZFX_ERR_INVALID_ARG &&
           walk(ep, h, &out, nullptr) == ZFX_ERR_INVALID_ARG;
}

TEST(DeviceEntry, CursorMovesAcrossBatches) {
    const Bytes a = device(1, 0x10, 7, {1}, 0, 0xA1), b = device(2, 0x20, 7, {2}, 0, 0xB2),
                c = device(3, 0x30, 7, {3}, 0, 0xC3), d = device(4, 0x40, 7, {4}, 0, 0xD4);
    FakeService svc;
    // (The first batch's partial tail is ignored.)
    for (const Answer &x : {Answer::reply_with(cat({a, b, c, {1, 2, 3, 4}})), Answer::status(0x409A0018),
                            Answer::none(), Answer::reply_with(d), Answer::failure(EIO)})
        svc.answer(x);
    zfx_device_entry *h = nullptr;
    zfx_device_entry_handle_init_with_wwn(&h, 0x11223344, 0x55667788);
    const Bytes start = cat({{0x44, 0x33, 0x22, 0x11, 0x88, 0x77, 0x66, 0x55}, zeros(kEntry - 8)});

    // Each request carries the cursor as it stands (at first the WWN alone); the answer and what
    // the caller gets.
    const std::tuple<Bytes, int32_t, Bytes> steps[] = {
        {start, 0, cat({a, b, c})}, {c, 0x409A0018, {}}, {c, 0, {}}, {c, 0, d}, {d, -1, {}},
    };
    for (const auto &[request, result, batch] : steps) {
        zfx_device_entry *entries = h;
        uint32_t count = 99;
        EXPECT_EQ(zfx_device_entry_get_next(svc.ep(), h, &entries, &count), result);
        EXPECT_EQ(svc.last().summary(), "req 8611/2 t50 reply a=ZFX");
        EXPECT_EQ(svc.last().payload, request);
        if (result != 0) {
            EXPECT_EQ(entries, h) << "no output on failure";
            continue;
        }
        EXPECT_EQ(count, batch.size() / kEntry);
        EXPECT_EQ(entries != nullptr ? bytes_of(entries, batch.size()) : Bytes{}, batch);
        std::free(entries);
    }
    zfx_device_entry *again = nullptr;
    EXPECT_EQ(zfx_device_entry_handle_init(&again), 0);
    EXPECT_EQ(again, h) << "one cursor per process";
    EXPECT_EQ(bytes_of(h, kEntry), cat({zeros(8), Bytes(d.begin() + 8, d.end())})) << "only the WWN is reset";
    EXPECT_EQ(zfx_device_entry_handle_init(nullptr), ZFX_ERR_INVALID_ARG);

    // Each missing argument alone is refused before anything is asked.
    const size_t asked = svc.sent().size();
    // (zfx_device_entry_get_next is zfx_dlg_ns_device_entry_get; both views share one check.)
    EXPECT_TRUE(refuses_each_missing(svc.ep(), h, zfx_dlg_ns_device_entry_get));
    EXPECT_TRUE(refuses_each_missing(svc.ep(), h, zfx2_device_ns_entry_get_next));
    EXPECT_EQ(svc.sent().size(), asked);
}

TEST(DeviceEntry, NameServerViews) {
    const Bytes plain = device(1, 2, 0xCAFE, {0, 5, 4095}, 0, 0x11);  // the first and last VSAN numbers
    const Bytes per_vsan = device(3, 4, 0xCAFE, {2, 3, 9}, ZFX_DEVICE_FLAG_PER_VSAN, 0x22);
    const Bytes empty = device(5, 6, 0xCAFE, {}, ZFX_DEVICE_FLAG_PER_VSAN, 0x33);
    const Bytes batch = cat({plain, per_vsan, empty});

    // The first view's block, set and zero pairs the fabric suite checks against zfxd; here, the
    // second view's per-VSAN requests and what their failures leave out.
    zfx_device_entry *h;
    zfx_device_entry_handle_init(&h);
    const Bytes cursor = bytes_of(h, kEntry);
    zfx_device_ns_entry *ns = nullptr;
    uint32_t count = 0;
    FakeService second;
    second.answer(Answer::reply_with(batch));
    second.answer(Answer::failure(ENOENT));                // VSAN 2: left out
    second.answer(Answer::reply_with(cat({le32(0xBEEF), zeros(4)})));  // VSAN 3: first word, unchanged
    second.answer(Answer::reply_with({1, 2, 3}));         // VSAN 9: too short, left out
    ASSERT_EQ(zfx2_device_ns_entry_get_next(second.ep(), h, &ns, &count), 0);
    ASSERT_EQ(count, 3u);
    EXPECT_EQ(second.sent()[0].payload, cursor);
    EXPECT_EQ(bytes_of(h, kEntry), empty) << "the cursor moved to the batch's last device";
    const Bytes expected[] = {
        cat({zeros(516), block(plain), le32(3), pair(0, 0xCAFE), pair(5, 0xCAFE), pair(4095, 0xCAFE)}),
        cat({zeros(516), block(per_vsan), le32(1), pair(3, 0xBEEF)}),
        cat({zeros(516), block(empty), zeros(4)}),
    };
    for (uint32_t i = 0; i < 3; ++i) EXPECT_EQ(ns_view(ns[i]), expected[i]) << i;
    free_ns(ns, count);
    // A batch of one device is a view of one.
    FakeService one;
    one.answer(Answer::reply_with(plain));
    ASSERT_EQ(zfx_device_ns_entry_get_next(one.ep(), h, &ns, &count), 0);
    EXPECT_EQ(count, 1u);
    free_ns(ns, count);
    ASSERT_EQ(second.sent().size(), 4u);
    for (uint32_t i = 1; i < 4; ++i) {
        EXPECT_EQ(second.sent()[i].summary(), "req 8634/1 t0 reply");
        EXPECT_EQ(second.sent()[i].payload, cat({le32(3), le32(4), be32(i == 1 ? 2 : i == 2 ? 3 : 9)}));
    }
}

TEST(DeviceEntry, SendsAndPerVsanRequest) {
    FakeService svc;
    for (const Answer &x : {Answer::none(), Answer::failure(EIO), Answer::none()}) svc.answer(x);
    zfx_device_entry *h;
    zfx_device_entry_handle_init_with_wwn(&h, 0xA, 0xB);
    const Bytes cursor = bytes_of(h, kEntry);
    EXPECT_EQ(zfx2_device_ns_entry_send_req(svc.ep(), h, 7), 0);
    EXPECT_EQ(svc.last().summary(), "send 8497/1 @fe000000 tag7 a=ZFX");
    EXPECT_EQ(svc.last().payload, cursor);
    EXPECT_EQ(zfx2_device_ns_entry_send_req(svc.ep(), h, 7), -1) << "the send's result unchanged";
    EXPECT_EQ(bytes_of(h, kEntry), cursor);

    Bytes fcr = cat({le32(2), Bytes(24, 0x5A), {0xFF}});
    EXPECT_EQ(zfx_fcr_query_entry_send(svc.ep(), reinterpret_cast<zfx_fcr_query *>(fcr.data()), 9), 0);
    EXPECT_EQ(svc.last().summary(), "send 8496/1 @fe000000 tag9 a=ZFX");
    EXPECT_EQ(svc.last().payload, Bytes(fcr.begin(), fcr.end() - 1)) << "4 + 12 x 2 bytes";
    const zfx_fcr_query huge{(UINT32_MAX - 4) / 12 + 1};  // the first count whose length wraps
    EXPECT_EQ(zfx_fcr_query_entry_send(svc.ep(), &huge, 9), ZFX_ERR_INVALID_VALUE);
    EXPECT_EQ(zfx_fcr_query_entry_send(svc.ep(), nullptr, 9), ZFX_ERR_INVALID_ARG);
    EXPECT_EQ(zfx2_device_ns_entry_send_req(svc.ep(), nullptr, 9), ZFX_ERR_INVALID_ARG);
    EXPECT_EQ(svc.sent().size(), 3u);

    const std::pair<Answer, int32_t> cases[] = {
        {Answer::failure(ENOENT), ZFX_ERR_ERRNO(ENOENT)},
        {Answer::reply_with({9}, 5), 5},
    };
    for (const auto &[answer, result] : cases) {
        FakeService s;
        s.answer(answer);
        void *reply = &s;
        EXPECT_EQ(zfx2_dlg_pv_vsan_entry_get(s.ep(), 0x01020304, 0x05060708, 10, &reply), result);
        EXPECT_EQ(s.last().payload, cat({le32(0x01020304), le32(0x05060708), be32(10)}));
        EXPECT_EQ(reply != nullptr ? bytes_of(reply, answer.reply->size()) : Bytes{}, answer.reply.value_or(Bytes{}));
        std::free(reply);
    }
}

TEST(DeviceEntry, TlvRepliesDecodedOrRejectedWhole) {
    const Bytes d = device(1, 2, 3, {4}, 0, 0x61), d2 = device(5, 6, 7, {8}, 0, 0x62);
    // An entry of another type is left zero and reported, once the decode cannot fail any more;
    // the forms without a length decode a well-formed payload alike.
    const Bytes reply = tlv_reply(3, {tlv(69, head(d)), tlv(1, block(d)), tlv(2, le32(2)), tlv(3, pair(4, 40)),
                                      tlv(3, pair(5, 50)), tlv(70, {1}), tlv(69, head(d2)), tlv(1, block(d2)),
                                      tlv(2, le32(uint32_t(-1)))});
    const std::vector<Bytes> raw = {d, zeros(kEntry), d2};
    const std::vector<Bytes> ns = {cat({zeros(516), block(d), le32(2), pair(4, 40), pair(5, 50)}), zeros(1288),
                                   cat({zeros(516), block(d2), zeros(4)})};
    for (bool as_ns : {false, true}) {
        for (bool checked : {true, false}) {
            const Decoded got = decode(reply, as_ns, checked);
            ASSERT_EQ(got.result, 0);
            EXPECT_EQ(got.printed, "ignoring unknown tlv type: 70\n");
            EXPECT_EQ(got.entries, as_ns ? ns : raw) << as_ns << checked;
        }
    }
    const Bytes ok = tlv_reply(1, {tlv(69, head(d)), tlv(1, block(d)), tlv(2, le32(1)), tlv(3, pair(4, 40))});
    Bytes overclaim = ok;
    overclaim[8] = 9;  // the array claims more elements than its bytes hold
    // The most pairs an entry may announce: one per VSAN number.
    Bytes most = tlv_reply(1, {tlv(69, head(d)), tlv(1, block(d)), tlv(2, le32(4096))});
    for (uint32_t v = 0; v < 4096; ++v) most = cat({most, tlv(3, pair(v, v))});
    most[9] = 0x10;  // 3 + 4096 elements
    // A reply, the decoders' result and the count they leave.
    const std::tuple<Bytes, int32_t, int32_t> cases[] = {
        {tlv_reply(0, {}), ZFX_ERR_NO_ENTRIES, 0},
        {tlv_reply(-3, {}), ZFX_ERR_NO_ENTRIES, -3},
        {cat({le32(0), zeros(4)}), ZFX_ERR_NO_ENTRIES, 0},  // the count and the unread word alone
        {le32(1), ZFX_ERR_INVALID_ARG, 0},
        {overclaim, ZFX_ERR_INVALID_ARG, 0},
        {tlv_reply(2, {tlv(69, head(d)), tlv(1, block(d)), tlv(2, le32(0))}), ZFX_ERR_INVALID_ARG, 0},
        {tlv_reply(1, {tlv(69, head(d)), tlv(1, block(d)), tlv(2, le32(2)), tlv(3, pair(4, 40))}), ZFX_ERR_INVALID_ARG, 0},
        {tlv_reply(1, {tlv(69, head(d)), tlv(1, block(d)), tlv(2, le32(4097))}), ZFX_ERR_INVALID_ARG, 0},
        {ok, 0, 1},
        {most, 0, 1},
        {tlv_reply(1, {tlv(69, zeros(kHead - 1)), tlv(1, block(d)), tlv(2, le32(0))}), ZFX_ERR_INVALID_ARG, 0},
        {tlv_reply(1, {tlv(69, head(d)), tlv(1, zeros(kBlock - 1)), tlv(2, le32(0))}), ZFX_ERR_INVALID_ARG, 0},
        {tlv_reply(1, {tlv(69, head(d)), tlv(1, block(d)), tlv(2, {0, 0, 0})}), ZFX_ERR_INVALID_ARG, 0},
        {tlv_reply(1, {tlv(69, head(d)), tlv(1, block(d)), tlv(2, le32(1)), tlv(3, zeros(7))}), ZFX_ERR_INVALID_ARG, 0},
        {tlv_reply(1, {tlv(69, head(d)), tlv(1, block(d)), tlv(2, le32(0)), tlv(3, pair(4, 40))}), 0, 1},  // extra: ignored
    };
    for (const auto &[reply, result, count] : cases) {
        for (bool as_ns : {false, true}) {
            const Decoded got = decode(reply, as_ns, true);
            EXPECT_EQ(got.result, result) << hex(Bytes(reply.begin(), reply.begin() + 12));
            EXPECT_EQ(got.count, count);
            EXPECT_EQ(got.printed, "");
            EXPECT_TRUE(got.untouched);
            EXPECT_TRUE(result == 0 || got.allocations == 0) << "refused before anything is allocated";
        }
    }
    // Every truncation of a good reply is either whole or rejected, never read past.
    for (size_t n = 0; n < ok.size(); n += (n < 16 || ok.size() - n < 16) ? 1 : 61)
        EXPECT_EQ(decode(Bytes(ok.begin(), ok.begin() + long(n)), true, true).result, ZFX_ERR_INVALID_ARG) << n;
    // Each argument refused on its own.
    int32_t count;
    zfx_device_entry *out = nullptr;
    EXPECT_EQ(zfx2_device_entry_parse_checked(nullptr, 8, &out, &count), ZFX_ERR_INVALID_ARG);
    EXPECT_EQ(zfx2_device_entry_parse_checked(ok.data(), uint32_t(ok.size()), nullptr, &count), ZFX_ERR_INVALID_ARG);
    EXPECT_EQ(zfx2_device_entry_parse_checked(ok.data(), uint32_t(ok.size()), &out, nullptr), ZFX_ERR_INVALID_ARG);
}

}  // namespace
