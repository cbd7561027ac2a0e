// Raw-message queries and the transport under them: the exact messages sent, replies selected by
// their token (decoys and interrupted receives included), reply parsing and short replies, the
// frame hand-over, and the name-server client.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>

#include <gtest/gtest.h>

#include "fake_service.hpp"
#include "zfx_service.h"

namespace {

using namespace zfxtest;

// A holder with a message carrying payload, as a receive would leave it.
struct Held {
    explicit Held(const Bytes &payload) {
        const plat_msg_info info{};
        h.msg = plat_msg_new(&info, payload.data(), uint32_t(payload.size()));
    }
    ~Held() { xqb_drop(nullptr, &h); }
    xqb_msg h = XQB_MSG_EMPTY;
};

Bytes frame(uint32_t w0, uint32_t w1, uint32_t data_len, const Bytes &data) {
    Bytes b = cat({le32(w0), le32(w1), zeros(8), le32(data_len)});
    b.resize(128, 0);
    return cat({b, data});
}

// The record as it travels: its first n bytes, the two header words in network order.
Bytes on_wire(Bytes rec, size_t n) {
    std::reverse(rec.begin(), rec.begin() + 4);
    std::reverse(rec.begin() + 4, rec.begin() + 8);
    rec.resize(n);
    return rec;
}

Bytes dir_reply(uint32_t status, uint32_t count, uint32_t size, const Bytes &entries) {
    return cat({be32(status), be32(count), be32(size), entries});
}

TEST(RawQuery, MessagesOnTheWire) {
    xqb_msg sent = XQB_MSG_EMPTY;
    Bytes rec = frame(0x01020304, 0x0A0B0C0D, 3, {7, 8, 9, 0xEE});  // one byte more than sent
    Bytes bare = frame(1, 2, 0, {});
    const struct {
        std::function<int32_t(plat_endpoint *)> call;
        const char *summary;
        Bytes payload;
    } cases[] = {
        {[&](plat_endpoint *ep) { return zfx_send_get_native_domain(ep, 0x01020304, 0xAABBCCDD, &sent); },
         "raw 0/198657 @fe000001 reply", cat({be32(0x01020304), le32(0xAABBCCDD)})},
        {[&](plat_endpoint *ep) { return zfx_send_get_proxy_domain_list(ep, 5, &sent); }, "raw 0/8615 @fe000001 reply",
         be32(5)},
        {[&](plat_endpoint *ep) { return zfx_forward_frame(ep, reinterpret_cast<zfx_frame_record *>(rec.data())); },
         "raw 0/8644 @fe000001", on_wire(rec, 131)},
        {[&](plat_endpoint *ep) { return zfx_forward_frame(ep, reinterpret_cast<zfx_frame_record *>(bare.data())); },
         "raw 0/8644 @fe000001", on_wire(bare, 128)},
        {[&](plat_endpoint *ep) {
             const dir_query q{.scope = 0x0102, .attributes = DIR_ATTR_ALL};
             return dir_send_get_entry_given_portname(ep, 0x20000011, 0x22334455, &q, &sent);
         },
         "raw 0/8193 @fffffc sap=32 reply", cat({be32(0x20000011), be32(0x22334455), be32(0x0102), {0xFF, 0xFF, 0, 0}, zeros(8)})},
    };
    for (const auto &c : cases) {
        FakeService svc;
        EXPECT_EQ(c.call(svc.ep()), 0) << c.summary;
        ASSERT_EQ(svc.sent().size(), 1u);
        EXPECT_EQ(svc.last().summary(), c.summary);
        EXPECT_EQ(svc.last().payload, c.payload) << hex(svc.last().payload);
        if (sent.msg != nullptr) {  // the request stays with the caller, with its token
            uint32_t len;
            const void *p = xqb_payload_get(&sent, &len);
            EXPECT_EQ(bytes_of(p, len), c.payload);
            EXPECT_EQ(xqb_rr_token_get(&sent), svc.last().token);
            EXPECT_NE(xqb_rr_token_get(&sent), 0u);
            xqb_drop(svc.ep(), &sent);
        }
        EXPECT_EQ(sent.msg, nullptr);
    }
    EXPECT_EQ(rec, frame(0x01020304, 0x0A0B0C0D, 3, {7, 8, 9, 0xEE})) << "the record reads as before";
}

TEST(RawQuery, ParseStepsReadOnlyWhatTheReplyHolds) {
    const Bytes list = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16,
                        17, 18, 19, 20, 21, 22, 23, 24, 25, 26, 27, 28, 29, 30, 31, 32};
    const struct {
        Bytes reply;
        int32_t native;  // result of the native-domain parse
        int32_t proxy;   // result of the proxy-domain-list parse
    } cases[] = {
        {{0, 0, 0, 0, 0, 0x2A, 1, 0}, 0, ZFX_ERR_INVALID_ARG},
        {{0, 0, 0, 0, 0, 0xF1}, 0, ZFX_ERR_INVALID_ARG},
        {{0, 0, 0, 0, 0}, ZFX_ERR_INVALID_ARG, ZFX_ERR_INVALID_ARG},
        {{0, 0, 0, 7}, 7, 7},
        {{0x80, 0, 0, 1, 0, 0}, int32_t(0x80000001u), int32_t(0x80000001u)},
        {{0, 0, 0}, ZFX_ERR_INVALID_ARG, ZFX_ERR_INVALID_ARG},
        {{}, ZFX_ERR_INVALID_ARG, ZFX_ERR_INVALID_ARG},
        {cat({be32(0), {0, 0x11, 0, 0}, list, be32(0x01020304)}), 0, 0},
        {cat({be32(0), {0, 0x11, 0, 0}, list, {1, 2, 3}}), 0, ZFX_ERR_INVALID_ARG},
    };
    for (const auto &c : cases) {
        Held held(c.reply);
        uint32_t domain = 0xDEAD;
        EXPECT_EQ(zfx_parse_get_native_domain(&held.h, &domain), c.native) << hex(c.reply);
        EXPECT_EQ(domain, c.native == 0 ? c.reply[5] : 0xDEADu);
        zfx_proxy_domain_list out;
        std::memset(&out, 0xCC, sizeof out);
        EXPECT_EQ(zfx_parse_get_proxy_domain_list(&held.h, &out), c.proxy) << hex(c.reply);
        EXPECT_EQ(bytes_of(&out, sizeof out),
                  c.proxy == 0 ? cat({Bytes(4, 0xCC), list, le32(0x01020304)}) : Bytes(40, 0xCC));
        EXPECT_EQ(zfx_parse_get_native_domain(&held.h, nullptr), ZFX_ERR_INVALID_ARG);
    }
    EXPECT_EQ(zfx_parse_get_proxy_domain_list(nullptr, nullptr), ZFX_ERR_INVALID_ARG);
}

TEST(RawQuery, CombinedQueriesTakeTheirOwnReplyThroughInterruptions) {
    FakeService svc;
    // A message for someone else waits first; the reply is found by its token all the same.
    const plat_msg_info other{0, 198657, 0, 110, 0, 999, 0};
    const Bytes decoy = {0, 0, 0, 0, 0, 0x63};
    plat_endpoint_post(svc.ep(), plat_msg_new(&other, decoy.data(), 6));
    svc.answer(Answer::reply_with({0, 0, 0, 0, 0, 0x2A, 1, 0}));
    svc.fail_recv(-1, EINTR);
    svc.fail_recv(-1, EINTR);
    uint32_t domain = 0;
    EXPECT_EQ(zfx_get_native_domain(svc.ep(), 3, 4, &domain), 0);
    EXPECT_EQ(domain, 42u);
    ASSERT_EQ(svc.receives().size(), 3u);
    for (const Sent &r : svc.receives()) {
        EXPECT_EQ(r.token, svc.last().token);
        EXPECT_EQ(r.timeout, 0u);
    }
    EXPECT_EQ(plat_endpoint_pending(svc.ep()), 1u) << "only the decoy is left";

    // Failures: refused send, a receive that fails otherwise, a reply that never came.
    const struct {
        Answer answer;
        int32_t recv_result;
        int recv_err;
        int32_t result;
    } cases[] = {
        {Answer::failure(EPIPE), 0, 0, ZFX_ERR_SEND},
        {Answer::reply_with(be32(0)), -1, EIO, -1},
        {Answer::reply_with(be32(0)), -7, 0, -7},
        {Answer::none(), 0, 0, -1},  // nothing queued under the token: EAGAIN
        {Answer::reply_with(cat({be32(0), zeros(40)})), 0, 0, 0},
    };
    for (const auto &c : cases) {
        for (bool proxy : {false, true}) {
            FakeService s;
            s.answer(c.answer);
            if (c.recv_result != 0) s.fail_recv(c.recv_result, c.recv_err);
            zfx_proxy_domain_list list{};
            EXPECT_EQ(proxy ? zfx_get_proxy_domain_list(s.ep(), 1, &list) : zfx_get_native_domain(s.ep(), 1, 2, &domain),
                      c.result);
        }
    }
    EXPECT_EQ(zfx_get_native_domain(svc.ep(), 1, 2, nullptr), ZFX_ERR_INVALID_ARG);
    EXPECT_EQ(zfx_get_proxy_domain_list(svc.ep(), 1, nullptr), ZFX_ERR_INVALID_ARG);
    EXPECT_EQ(svc.sent().size(), 1u);
}

TEST(RawQuery, FrameHandOverFailures) {
    FakeService svc;
    svc.answer(Answer::failure(EPIPE));
    Bytes rec = frame(5, 6, 0, {});
    const Bytes before = rec;
    auto *f = reinterpret_cast<zfx_frame_record *>(rec.data());
    EXPECT_EQ(zfx_forward_frame(svc.ep(), f), ZFX_ERR_ERRNO(EPIPE));
    EXPECT_EQ(rec, before);
    f->data_len = UINT32_MAX - 127;
    EXPECT_EQ(zfx_forward_frame(svc.ep(), f), ZFX_ERR_INVALID_VALUE);
    EXPECT_EQ(zfx_forward_frame(svc.ep(), nullptr), ZFX_ERR_INVALID_ARG);
    EXPECT_EQ(svc.sent().size(), 1u);
}

TEST(RawQuery, NameServerEntry) {
    Bytes entry(DIR_ENTRY_SIZE, 0x41);  // a symbolic name without terminator
    for (size_t i = 0; i < 4; ++i) entry[i] = uint8_t(0x10 + i);
    Bytes parsed = entry;
    parsed[DIR_ENTRY_SIZE - 1] = 0;
    const struct {
        Bytes reply;
        int32_t result;
    } cases[] = {
        {dir_reply(0, 1, DIR_ENTRY_SIZE, entry), 0},
        {dir_reply(0, 2, DIR_ENTRY_SIZE + 4, cat({entry, zeros(4)})), 0},  // longer entries: fields ignored
        {dir_reply(0, 1, DIR_ENTRY_SIZE, Bytes(entry.begin(), entry.end() - 1)), DIR_ERR_MALFORMED},
        {dir_reply(0, 1, DIR_ENTRY_SIZE - 1, entry), DIR_ERR_MALFORMED},
        {dir_reply(0, 1, 0xFFFFFFFF, entry), DIR_ERR_MALFORMED},
        {dir_reply(0, 0, DIR_ENTRY_SIZE, entry), DIR_ERR_NOT_FOUND},
        {be32(0x40520002), DIR_ERR_NOT_FOUND},
        {be32(0x12), 0x12},
        {cat({be32(0), be32(1)}), DIR_ERR_MALFORMED},
        {{}, DIR_ERR_MALFORMED},
    };
    for (const auto &c : cases) {
        FakeService svc;
        svc.answer(Answer::reply_with(c.reply));
        svc.fail_recv(-1, EINTR);
        dir_entry out;
        std::memset(&out, 0xCC, sizeof out);
        EXPECT_EQ(zfx_ns_get_entry_given_portname(svc.ep(), 1, 2, 3, &out), c.result) << hex(c.reply);
        EXPECT_EQ(bytes_of(&out, sizeof out), c.result == 0 ? parsed : Bytes(DIR_ENTRY_SIZE, 0xCC));
        ASSERT_EQ(svc.receives().size(), 2u);
        EXPECT_EQ(svc.receives()[1].token, svc.last().token);
        EXPECT_EQ(svc.receives()[1].timeout, 5u);
        EXPECT_EQ(plat_endpoint_pending(svc.ep()), 0u);
    }
    FakeService svc;
    svc.answer(Answer::failure(EPIPE));
    dir_entry out;
    EXPECT_EQ(zfx_ns_get_entry_given_portname(svc.ep(), 1, 2, 3, &out), DIR_ERR_SEND);
    svc.fail_recv(-1, ENOTCONN);
    svc.answer(Answer::reply_with(dir_reply(0, 1, DIR_ENTRY_SIZE, entry)));
    EXPECT_EQ(zfx_ns_get_entry_given_portname(svc.ep(), 1, 2, 3, &out), -1);
    EXPECT_EQ(errno, ENOTCONN);
    EXPECT_EQ(zfx_ns_get_entry_given_portname(svc.ep(), 1, 2, 3, nullptr), ZFX_ERR_INVALID_ARG);
    EXPECT_EQ(svc.sent().size(), 2u);
}

TEST(RawTransport, ArgumentsAndSelection) {
    FakeService svc;
    xqb_msg m = XQB_MSG_EMPTY;
    const xqb_recv_opts any{};
    EXPECT_EQ(xqb_send(nullptr, 1, 2, 3, nullptr, 0, nullptr, 0, nullptr), -1);
    EXPECT_EQ(xqb_send(svc.ep(), 1, 2, 3, nullptr, 4, &m, 0, nullptr), -1);
    EXPECT_EQ(xqb_recv(svc.ep(), &m, nullptr), -1);
    EXPECT_EQ(xqb_recv(svc.ep(), nullptr, &any), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_TRUE(svc.sent().empty());
    // A datagram with flags; a receive for another token fails and empties the holder; a receive
    // of any message takes the first queued, whatever its token.
    svc.answer(Answer::reply_with({9}));
    const uint8_t b = 1;
    ASSERT_EQ(xqb_send(svc.ep(), 7, 8, 9, &b, 1, &m, 4, nullptr), 0);
    EXPECT_EQ(svc.last().summary(), "raw 0/9 @7 sap=8 b4");
    const xqb_recv_opts other{.select = XQB_SELECT_TOKEN, .token = xqb_rr_token_get(&m) + 1};
    EXPECT_EQ(xqb_recv(svc.ep(), &m, &other), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(m.msg, nullptr);
    ASSERT_EQ(xqb_recv(svc.ep(), &m, &any), 0);
    uint32_t len;
    const void *payload = xqb_payload_get(&m, &len);
    EXPECT_EQ(bytes_of(payload, len), Bytes{9});
    EXPECT_EQ(xqb_rr_token_get(&m), svc.last().token);
    xqb_drop(svc.ep(), &m);
    EXPECT_EQ(xqb_payload_get(&m, &len), nullptr);
}

}  // namespace
