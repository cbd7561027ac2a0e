// Raw-message queries and the transport under them: the exact messages sent, replies selected by
// their token (decoys and interrupted receives included), reply parsing and short replies, the
// frame hand-over, and the name-server client. That the service understands these messages, and
// the library its answers, is the zfxd fabric suite's round trip; here, the bytes and every way
// a reply or an argument can be wrong.
#include <cerrno>
#include <cstring>
#include <functional>
#include <tuple>

#include <gtest/gtest.h>

#include "fake_service.hpp"
#include "zfx_service.h"

namespace {

using namespace zfxtest;

Bytes dir_reply(uint32_t status, uint32_t count, uint32_t size, const Bytes &entries) {
    return cat({be32(status), be32(count), be32(size), entries});
}

TEST(RawQuery, MessagesOnTheWire) {
    xqb_msg sent = XQB_MSG_EMPTY;
    const dir_query q{.scope = 0x0102, .attributes = DIR_ATTR_ALL};
    const std::tuple<std::function<int32_t(plat_endpoint *)>, const char *, Bytes> cases[] = {
        {[&](plat_endpoint *ep) { return zfx_send_get_native_domain(ep, 0x01020304, 0xAABBCCDD, &sent); },
         "raw 0/198657 @fe000001 reply", cat({be32(0x01020304), le32(0xAABBCCDD)})},
        {[&](plat_endpoint *ep) { return dir_send_get_entry_given_portname(ep, 0x20000011, 0x22334455, &q, &sent); },
         "raw 0/8193 @fffffc sap=32 reply", cat({be32(0x20000011), be32(0x22334455), be32(0x0102), {0xFF, 0xFF, 0, 0}, zeros(8)})},
    };
    for (const auto &[call, summary, payload] : cases) {
        FakeService svc;
        EXPECT_EQ(call(svc.ep()), 0) << summary;
        ASSERT_EQ(svc.sent().size(), 1u);
        EXPECT_EQ(std::pair(svc.last().summary(), svc.last().payload), std::pair(std::string(summary), payload));
        if (sent.msg != nullptr) {  // the request stays with the caller, with its token
            uint32_t len;
            const void *p = xqb_payload_get(&sent, &len);
            EXPECT_EQ(bytes_of(p, len), payload);
            EXPECT_EQ(xqb_rr_token_get(&sent), svc.last().token);
            EXPECT_NE(xqb_rr_token_get(&sent), 0u);
            xqb_drop(svc.ep(), &sent);
        }
    }
}

TEST(RawQuery, ParseStepsReadOnlyWhatTheReplyHolds) {
    Bytes list(32);
    for (size_t i = 0; i < list.size(); ++i) list[i] = uint8_t(i + 1);
    // A reply, the native-domain parse's result and the proxy-domain-list parse's.
    const std::tuple<Bytes, int32_t, int32_t> cases[] = {
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
    for (const auto &[reply, native, proxy] : cases) {
        xqb_msg held = XQB_MSG_EMPTY;
        const plat_msg_info info{};
        held.msg = plat_msg_new(&info, reply.data(), uint32_t(reply.size()));
        uint32_t domain = 0xDEAD;
        EXPECT_EQ(zfx_parse_get_native_domain(&held, &domain), native) << hex(reply);
        EXPECT_EQ(domain, native == 0 ? reply[5] : 0xDEADu);
        zfx_proxy_domain_list out;
        std::memset(&out, 0xCC, sizeof out);
        EXPECT_EQ(zfx_parse_get_proxy_domain_list(&held, &out), proxy) << hex(reply);
        EXPECT_EQ(bytes_of(&out, sizeof out), proxy == 0 ? cat({Bytes(4, 0xCC), list, le32(0x01020304)}) : Bytes(40, 0xCC));
        EXPECT_EQ(zfx_parse_get_native_domain(&held, nullptr), ZFX_ERR_INVALID_ARG);
        xqb_drop(nullptr, &held);
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
    for (int i = 0; i < 2; ++i) svc.fail_recv(-1, EINTR);
    uint32_t domain = 0;
    EXPECT_EQ(zfx_get_native_domain(svc.ep(), 3, 4, &domain), 0);
    EXPECT_EQ(domain, 42u);
    ASSERT_EQ(svc.receives().size(), 3u);
    for (const Sent &r : svc.receives()) EXPECT_EQ(std::pair(r.token, r.timeout), std::pair(svc.last().token, 0u));
    EXPECT_EQ(plat_endpoint_pending(svc.ep()), 1u) << "only the decoy is left";

    // Failures: refused send, a receive that fails otherwise, a reply that never came.
    // The answer, the receive's failure (0: none) and the query's result.
    const std::tuple<Answer, int32_t, int32_t> cases[] = {
        {Answer::failure(EPIPE), 0, ZFX_ERR_SEND},   {Answer::reply_with(be32(0)), -1, -1},
        {Answer::reply_with(be32(0)), -7, -7},       {Answer::none(), 0, -1},  // nothing queued under the token
        {Answer::reply_with(cat({be32(0), zeros(40)})), 0, 0},
    };
    for (const auto &[answer, recv_result, result] : cases) {
        for (bool proxy : {false, true}) {
            FakeService s{answer};
            if (recv_result != 0) s.fail_recv(recv_result, EIO);
            zfx_proxy_domain_list list{};
            EXPECT_EQ(proxy ? zfx_get_proxy_domain_list(s.ep(), 1, &list) : zfx_get_native_domain(s.ep(), 1, 2, &domain),
                      result);
        }
    }
    EXPECT_EQ(zfx_get_native_domain(svc.ep(), 1, 2, nullptr), ZFX_ERR_INVALID_ARG);
    EXPECT_EQ(zfx_get_proxy_domain_list(svc.ep(), 1, nullptr), ZFX_ERR_INVALID_ARG);
    EXPECT_EQ(svc.sent().size(), 1u);
}

// A refused hand-over gives the record back as it was; a length past what a message can say, or
// no record, sends nothing. The transport refuses its own bad arguments the same way.
TEST(RawQuery, RefusedFramesAndTransportArguments) {
    FakeService svc{Answer::failure(EPIPE)};
    Bytes rec = cat({le32(5), le32(6), zeros(120)});  // a 128-byte head, no data
    const Bytes before = rec;
    auto *f = reinterpret_cast<zfx_frame_record *>(rec.data());
    EXPECT_EQ(zfx_forward_frame(svc.ep(), f), ZFX_ERR_ERRNO(EPIPE));
    EXPECT_EQ(rec, before);
    f->data_len = UINT32_MAX - 127;
    EXPECT_EQ(zfx_forward_frame(svc.ep(), f), ZFX_ERR_INVALID_VALUE);
    EXPECT_EQ(zfx_forward_frame(svc.ep(), nullptr), ZFX_ERR_INVALID_ARG);
    EXPECT_EQ(svc.sent().size(), 1u);

    xqb_msg m = XQB_MSG_EMPTY;
    const xqb_recv_opts any{};
    for (int32_t st : {xqb_send(nullptr, 1, 2, 3, nullptr, 0, nullptr, 0, nullptr),
                       xqb_send(svc.ep(), 1, 2, 3, nullptr, 4, &m, 0, nullptr),
                       xqb_recv(svc.ep(), &m, nullptr), xqb_recv(svc.ep(), nullptr, &any)})
        EXPECT_EQ(st, -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(svc.sent().size(), 1u);
    // A receive for a token that has no reply fails and leaves the holder empty.
    svc.answer(Answer::reply_with({9}));
    const uint8_t b = 1;
    ASSERT_EQ(xqb_send(svc.ep(), 7, 8, 9, &b, 1, &m, 4, nullptr), 0);
    EXPECT_EQ(svc.last().summary(), "raw 0/9 @7 sap=8 b4");
    const xqb_recv_opts other{.select = XQB_SELECT_TOKEN, .token = xqb_rr_token_get(&m) + 1};
    EXPECT_EQ(xqb_recv(svc.ep(), &m, &other), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(m.msg, nullptr);
}

TEST(RawQuery, NameServerEntry) {
    const Bytes entry = cat({{0x10, 0x11, 0x12, 0x13}, Bytes(DIR_ENTRY_SIZE - 4, 0x41)});  // a name without terminator
    const Bytes parsed = cat({Bytes(entry.begin(), entry.end() - 1), {0}});
    const std::pair<Bytes, int32_t> cases[] = {
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
    for (const auto &[reply, result] : cases) {
        FakeService svc{Answer::reply_with(reply)};
        svc.fail_recv(-1, EINTR);
        dir_entry out;
        std::memset(&out, 0xCC, sizeof out);
        EXPECT_EQ(zfx_ns_get_entry_given_portname(svc.ep(), 1, 2, 3, &out), result) << hex(reply);
        EXPECT_EQ(bytes_of(&out, sizeof out), result == 0 ? parsed : Bytes(DIR_ENTRY_SIZE, 0xCC));
        ASSERT_EQ(svc.receives().size(), 2u);
        EXPECT_EQ(std::pair(svc.receives()[1].token, svc.receives()[1].timeout), std::pair(svc.last().token, 5u));
        EXPECT_EQ(plat_endpoint_pending(svc.ep()), 0u);
    }
    FakeService svc{Answer::failure(EPIPE)};
    dir_entry out;
    EXPECT_EQ(zfx_ns_get_entry_given_portname(svc.ep(), 1, 2, 3, &out), DIR_ERR_SEND);
    svc.fail_recv(-1, ENOTCONN);
    EXPECT_EQ(zfx_ns_get_entry_given_portname(svc.ep(), 1, 2, 3, &out), -1);
    EXPECT_EQ(errno, ENOTCONN);
    EXPECT_EQ(zfx_ns_get_entry_given_portname(svc.ep(), 1, 2, 3, nullptr), ZFX_ERR_INVALID_ARG);
    EXPECT_EQ(svc.sent().size(), 2u);
}

}  // namespace
