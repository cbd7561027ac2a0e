// The walk of the service's device entries: cursor movement across batches, the two name-server
// views with per-VSAN requests, asynchronous sends, and the TLV-encoded reply decoders with
// malformed and truncated replies. Then routing lookups, against the forwarding driver this
// executable plays.
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <tuple>
#include <unistd.h>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "capture.hpp"
#include "devices.hpp"
#include "fake_service.hpp"
#include "fcfwd_driver.hpp"
#include "platform/tcam.h"
#include "platform/wwnsvc.h"
#include "zfx_service.h"
#include "zfx_testing.h"

namespace {

using namespace zfxtest;

// A name-server entry up to its pair count, then its pairs.
Bytes ns_view(const zfx_device_ns_entry &e) {
    Bytes b = bytes_of(&e, offsetof(zfx_device_ns_entry, pairs));
    for (uint32_t i = 0; i < e.pair_count; ++i) b = cat({b, bytes_of(&e.pairs[i], 8)});
    return b;
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
    ns ? free_ns(*view, size_t(d.count)) : std::free(out);
    return d;
}

TEST(DeviceEntry, CursorMovesAcrossBatches) {
    const Bytes a = device(1, 0x10, 7, {1}, 0, 0xA1), b = device(2, 0x20, 7, {2}, 0, 0xB2),
                c = device(3, 0x30, 7, {3}, 0, 0xC3), d = device(4, 0x40, 7, {4}, 0, 0xD4);
    // (The first batch's partial tail is ignored.)
    FakeService svc{Answer::reply_with(cat({a, b, c, {1, 2, 3, 4}})), Answer::status(0x409A0018), Answer::none(),
                    Answer::reply_with(d), Answer::failure(EIO)};
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
    auto refuses_each_missing = [&](auto walk, auto *out) {
        uint32_t count = 0;
        return walk(svc.ep(), nullptr, &out, &count) == ZFX_ERR_INVALID_ARG &&
               walk(svc.ep(), h, nullptr, &count) == ZFX_ERR_INVALID_ARG && walk(svc.ep(), h, &out, nullptr) == ZFX_ERR_INVALID_ARG;
    };
    EXPECT_TRUE(refuses_each_missing(zfx_dlg_ns_device_entry_get, static_cast<zfx_device_entry *>(nullptr)));
    EXPECT_TRUE(refuses_each_missing(zfx2_device_ns_entry_get_next, static_cast<zfx_device_ns_entry *>(nullptr)));
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
    FakeService second{Answer::reply_with(batch)};
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
    FakeService one{Answer::reply_with(plain)};
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
    FakeService svc{Answer::none(), Answer::failure(EIO), Answer::none()};
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
        FakeService s{answer};
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
    for (int form = 0; form < 4; ++form) {  // either view, with a length or without
        const bool as_ns = form & 1, checked = form & 2;
        const Decoded got = decode(reply, as_ns, checked);
        ASSERT_EQ(got.result, 0);
        EXPECT_EQ(got.printed, "ignoring unknown tlv type: 70\n");
        EXPECT_EQ(got.entries, as_ns ? ns : raw) << as_ns << checked;
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
    for (const auto &[input, result, count] : cases) {
        for (bool as_ns : {false, true}) {
            const Decoded got = decode(input, as_ns, true);
            EXPECT_EQ(got.result, result) << hex(Bytes(input.begin(), input.begin() + 12));
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
    const auto length = uint32_t(ok.size());
    for (int32_t st : {zfx2_device_entry_parse_checked(nullptr, 8, &out, &count),
                       zfx2_device_entry_parse_checked(ok.data(), length, nullptr, &count),
                       zfx2_device_entry_parse_checked(ok.data(), length, &out, nullptr)})
        EXPECT_EQ(st, ZFX_ERR_INVALID_ARG);
}

// ---- routing --------------------------------------------------------------------------------------
//
// The forwarding device's tests come after the device entries' (which never open it): the first
// of them sees the device not yet opened, and the process's descriptor 0 still open.

struct Ioctl {
    int fd;
    unsigned long request;
    Bytes arg;
};

// How the played driver answers, shared by the test thread and the threads that race for the
// first open; it keeps every control call.
struct Driver {
    FcfwdDriver &dev = fcfwd_driver();
    int fail_open = 0, fail_ioctl = 0;    // nonzero: the next open, or every control call, fails so
    std::atomic<int> gate{0}, entered{0};  // opens wait (2 s at most) until gate of them have begun
    std::vector<Ioctl> calls;
    uint32_t answer = 0;  // what the driver writes into the block's out field

    Driver() {
        dev.on_open = [this] {
            if (fail_open != 0) return std::exchange(fail_open, 0);
            ++entered;
            const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(2);
            while (entered < gate && std::chrono::steady_clock::now() < until) std::this_thread::yield();
            return 0;
        };
        dev.on_control = [this](int fd, unsigned long request, uint8_t *arg) {
            const bool native = request == ZFX_FCFWD_IOC_NATIVE_VSAN;
            if (!native && request != ZFX_FCFWD_IOC_NEXT_HOP) return ENOTTY;
            std::lock_guard<std::mutex> g(dev.mu);
            calls.push_back({fd, request, bytes_of(arg, native ? 20 : 36)});
            if (fail_ioctl != 0) return fail_ioctl;
            std::memcpy(arg + (native ? offsetof(zfx_fcfwd_native_vsan_arg, native_vsan)
                                      : offsetof(zfx_fcfwd_next_hop_arg, next_hop)),
                        &answer, 4);
            return 0;
        };
    }
    std::vector<Ioctl> seen() {
        std::lock_guard<std::mutex> g(dev.mu);
        return calls;
    }
} g_drv;

// Runs first of the routing tests: the device is opened on first use, a failed open is tried
// again, and two threads whose first calls race keep one descriptor.
TEST(ForwardingDevice, OpenedOnceFirstFailureRetriedRaceKeepsOne) {
    if (g_drv.dev.opens != 0) GTEST_SKIP() << "the device was opened by an earlier test";
    g_drv.fail_open = ENOENT;
    uint32_t native = 0;
    EXPECT_EQ(zfx_ioc_get_native_vsan(10, 1, 2, 3, &native), ZFX_ERR_ERRNO(ENOENT));
    EXPECT_EQ(native, 10u);
    EXPECT_EQ(g_drv.seen().size(), 0u);

    // Descriptor 0 is a descriptor like any other (a daemon's standard input is often closed):
    // the first of the racing opens gets it.
    close(0);
    g_drv.gate = 2;
    g_drv.answer = 77;
    uint32_t out[2] = {};
    std::thread a([&] { zfx_ioc_get_native_vsan(1, 0, 0, 0, &out[0]); });
    std::thread b([&] { zfx_ioc_get_next_hop_vsan(1, 0x0000EF00u, &out[1]); });
    a.join();
    b.join();
    g_drv.gate = 0;
    EXPECT_EQ(std::pair(out[0], out[1]), std::pair(77u, 77u));
    EXPECT_EQ(std::pair(g_drv.dev.opens, g_drv.dev.last_flags), std::pair(3, int(O_RDONLY)));
    // One descriptor kept, the other closed, and both calls made on the one kept.
    ASSERT_EQ(std::pair(g_drv.dev.fds.size(), g_drv.dev.closed.size()), std::pair(size_t(1), size_t(1)));
    const int kept = *g_drv.dev.fds.begin();
    ASSERT_EQ(g_drv.seen().size(), 2u);
    EXPECT_EQ(std::pair(g_drv.calls[0].fd, g_drv.calls[1].fd), std::pair(kept, kept));

    zfx_ioc_get_native_vsan(1, 0, 0, 0, &out[0]);
    EXPECT_EQ(g_drv.dev.opens, 3) << "never opened again";
}

// Family A interfaces ask the driver for the next hop, the others for the native VSAN; the flow
// crosses VSANs when the answer is another VSAN. The control blocks byte for byte; a destination
// in domain 239 is still asked.
TEST(ForwardingDevice, InterVsanFlowByInterfaceFamilyAndRefusals) {
    tcam_table_clear();
    tcam_interface_set(1, 1, 0);
    tcam_interface_set(2, 0, 0);
    tcam_interface_set(3, 0, 0x1234);  // the interface table's own failure comes back as it is
    const Bytes native = cat({le32(10), le32(0x010203), le32(0x04EF06), le16(7), zeros(6)});
    const Bytes next_hop = cat({le32(10), le32(0x04EF06), le32(0xFF00), le32(0), le32(0xFFFFFF00u), zeros(16)});
    // The interface, the driver's answer and its failure; the result, the flag, and the control call
    // made (0: none).
    const std::tuple<uint32_t, uint32_t, int, int32_t, uint32_t, unsigned long> cases[] = {
        {1, 10, 0, 0, 0, 0x4624}, {1, 20, 0, 0, 1, 0x4624},       {2, 10, 0, 0, 0, 0x4625},
        {2, 20, 0, 0, 1, 0x4625}, {2, 20, EIO, ZFX_ERR_ERRNO(EIO), 0, 0x4625}, {3, 20, 0, 0x1234, 0, 0},
        {4, 20, 0, TCAM_ERR_NO_INTERFACE, 0, 0},
    };
    for (const auto &[ifindex, answer, fail, result, crosses, request] : cases) {
        g_drv.answer = answer;
        g_drv.fail_ioctl = fail;
        const size_t before = g_drv.seen().size();
        uint32_t flag = 9;
        EXPECT_EQ(zfx_is_zfx_flow(10, 0x010203, 0x04EF06, ifindex, 7, &flag), result) << ifindex;
        EXPECT_EQ(flag, crosses) << ifindex << " " << answer;
        ASSERT_EQ(g_drv.seen().size() - before, request != 0 ? 1u : 0u);
        if (request == 0) continue;
        EXPECT_EQ(g_drv.seen().back().request, request);
        EXPECT_EQ(g_drv.seen().back().arg, request == 0x4625 ? native : next_hop);
    }
    tcam_table_clear();

    // Domain above 239, or nowhere to answer: no control call, out untouched. A failed call
    // leaves the next hop alone and the native VSAN at the flow's own.
    g_drv.fail_ioctl = 0;
    const size_t before = g_drv.seen().size();
    uint32_t v = 5;
    EXPECT_EQ(zfx_ioc_get_next_hop_vsan(1, 0x0000F000, &v), ZFX_ERR_INVALID_VALUE);
    EXPECT_EQ(zfx_ioc_get_next_hop_vsan(1, 0x0000EF00, nullptr), ZFX_ERR_INVALID_ARG);
    EXPECT_EQ(zfx_ioc_get_native_vsan(1, 0, 0, 0, nullptr), ZFX_ERR_INVALID_ARG);
    EXPECT_EQ(zfx_is_zfx_flow(10, 0, 0, 1, 0, nullptr), ZFX_ERR_INVALID_VALUE);
    EXPECT_EQ(g_drv.seen().size(), before);
    g_drv.fail_ioctl = EIO;
    EXPECT_EQ(zfx_ioc_get_next_hop_vsan(12, 0, &v), ZFX_ERR_ERRNO(EIO));
    EXPECT_EQ(v, 5u);
    EXPECT_EQ(zfx_ioc_get_native_vsan(12, 0, 0, 0, &v), ZFX_ERR_ERRNO(EIO));
    EXPECT_EQ(v, 12u);
    g_drv.fail_ioctl = 0;
}

TEST(Routing, NextHopAndNatRequests) {
    // The service's next hop: its answer, or the asked VSAN whenever it has none.
    for (const auto &[answer, expected] : {std::pair{Answer::reply_with(be32(30)), 30u}, {Answer::failure(EIO), 10u},
                                           {Answer::status(3), 10u}, {Answer::reply_with({0, 0, 0}), 10u}}) {
        FakeService svc{answer};
        uint32_t v = 0;
        EXPECT_EQ(zfx_get_next_hop_vsan(svc.ep(), 10, 0x00040506, &v), 0);
        EXPECT_EQ(v, expected);
        EXPECT_EQ(svc.last().summary(), "remote 8620/2 @fe000001 t1 reply a=ZFX");
        EXPECT_EQ(svc.last().payload, cat({be32(10), le32(0x00040506)}));
    }
    // NAT: asked only when the driver's next hop is another VSAN no higher than 4096; the flow
    // changes only with a whole reply. The driver's answer and failure, the service's, whether it
    // is asked, and the flow after (VSAN, source, destination).
    const Bytes unchanged = cat({le32(10), le32(0x010203), le32(0x040506)});
    const std::tuple<uint32_t, int, Answer, bool, Bytes> nat[] = {
        {4096, 0, Answer::reply_with(cat({le32(1), le32(2)})), true, cat({le32(4096), le32(1), le32(2)})},
        {20, 0, Answer::reply_with(zeros(7)), true, unchanged}, {20, 0, Answer::failure(EIO), true, unchanged},
        {10, 0, Answer::none(), false, unchanged},              {4097, 0, Answer::none(), false, unchanged},
        {20, EIO, Answer::none(), false, unchanged},
    };
    for (const auto &[driver, fail, answer, asked, after] : nat) {
        g_drv.answer = driver;
        g_drv.fail_ioctl = fail;
        FakeService svc{answer};
        uint32_t flow[3] = {10, 0x010203, 0x040506};
        EXPECT_EQ(zfx_nat_get_next_hop_info(svc.ep(), &flow[0], &flow[1], &flow[2]), 0);
        EXPECT_EQ(bytes_of(flow, 12), after) << driver;
        ASSERT_EQ(svc.sent().size(), asked ? 1u : 0u) << driver;
        if (!asked) continue;
        EXPECT_EQ(svc.last().summary(), "remote 8641/2 @fe000001 t1 reply a=ZFX");
        EXPECT_EQ(svc.last().payload, cat({be32(10), be32(driver), le32(0x010203), le32(0x040506)}));
    }
    g_drv.fail_ioctl = 0;
    FakeService svc;
    uint32_t flow[3] = {10, 1, 2};
    EXPECT_EQ(zfx_get_next_hop_vsan(svc.ep(), 1, 2, nullptr), ZFX_ERR_INVALID_ARG);
    for (int missing = 0; missing < 3; ++missing)
        EXPECT_EQ(zfx_nat_get_next_hop_info(svc.ep(), missing == 0 ? nullptr : &flow[0], missing == 1 ? nullptr : &flow[1],
                                            missing == 2 ? nullptr : &flow[2]),
                  ZFX_ERR_INVALID_ARG);
    EXPECT_TRUE(svc.sent().empty());
}

// The hash against its definition over seeded flows, every path count from none to 255 included.
TEST(Routing, HashZoneNamesAndVsanWwn) {
    std::mt19937 rnd(7);
    for (uint32_t i = 0; i < 512; ++i) {
        const uint32_t vsan = i == 0 ? 0xFFFFFFFFu : rnd(), sid = rnd(), did = rnd(), npaths = i % 256;
        uint8_t path = 0xAA;
        EXPECT_EQ(zfx2_software_load_balancing_vsan_sid_did_hash(vsan, sid, did, rnd(), rnd(), rnd(), uint8_t(npaths), &path), 0);
        EXPECT_EQ(path, npaths != 0 ? (vsan ^ sid ^ did) % npaths : 0u) << npaths;
    }
    EXPECT_EQ(zfx2_software_load_balancing_vsan_sid_did_hash(1, 2, 3, 0, 0, 0, 4, nullptr), ZFX_ERR_INVALID_ARG);
    for (const auto &[name, yes] : {std::pair{"ZFXZ_abc", 1}, {"ZFXZ_", 1}, {"ZFXZ", 0}, {"zfxz_abc", 0}, {"", 0}, {"ZFX_Z", 0}})
        EXPECT_EQ(zfx_is_zfx_zone(name), yes) << name;
    EXPECT_EQ(zfx_is_zfx_zone(nullptr), 0);

    // The VSAN WWN of a switch: found, not found, VSAN out of range, no kind or nowhere to write.
    // The kind, the VSAN, whether there is somewhere to write; the result and the WWN written.
    const uint8_t sw[8] = {0x20, 0, 0, 0x11, 0x22, 0x33, 0x44, 0x55}, vw[8] = {0x21, 1, 2, 3, 4, 5, 6, 7};
    wwnsvc_table_clear();
    wwnsvc_table_set(sw, 4095, vw);
    const std::tuple<uint32_t, uint32_t, bool, int32_t, Bytes> cases[] = {
        {1, 4095, true, 0, bytes_of(vw, 8)},         {1, 12, true, WWNSVC_ERR_NOT_FOUND, zeros(8)},
        {1, 4096, true, ZFX_ERR_INVALID_VALUE, zeros(8)}, {0, 4095, true, ZFX_ERR_INVALID_ARG, Bytes(8, 0xCC)},
        {1, 4095, false, ZFX_ERR_INVALID_ARG, Bytes(8, 0xCC)},
    };
    for (const auto &[kind, vsan, out, result, want] : cases) {
        Bytes wwn(9, 0xCC);  // the byte after the WWN stays as it was
        EXPECT_EQ(zfx_get_vsan_wwn_from_switch_wwn(sw, kind, vsan, out ? wwn.data() : nullptr), result);
        EXPECT_EQ(wwn, cat({want, {0xCC}})) << vsan;
    }
    wwnsvc_table_clear();
}

}  // namespace
