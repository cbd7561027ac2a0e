// Status queries of the feature's service: the exact request each function sends, the reply
// conversions, the mapping of channel results, and short or missing replies.
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <functional>

#include <gtest/gtest.h>

#include "fake_service.hpp"
#include "zfx_service.h"
#include "zfx_testing.h"

namespace {

using namespace zfxtest;

Bytes vsan_form(uint8_t kind, std::initializer_list<int> vsan) {
    return cat({vsans(vsan), {kind}, zeros(31)});
}

Bytes info_request(uint32_t key, const std::string &text = "") {
    Bytes b = cat({be32(key), Bytes(text.begin(), text.end())});
    b.resize(260, 0);
    return b;
}

TEST(DlgStatus, RequestsOnTheWire) {
    struct Case {
        const char *what;
        std::function<void(plat_endpoint *)> call;
        plat_op op;
        uint32_t msg_type, opcode, node, timeout, tag;
        bool want_reply;
        std::optional<std::string> opt_a;
        uint32_t opt_b;
        Bytes payload;
    };
    zfx_status_reply *sr = nullptr;
    void *raw = nullptr;
    zfx_time_value tv{};
    const Case cases[] = {
        {"enabled",
         [&](plat_endpoint *ep) { zfx_is_zfx_enabled(ep, &sr); },
         PLAT_OP_REQ_RESP,
         8626,
         1,
         0,
         15,
         0,
         true,
         {},
         0,
         zeros(4)},
        {"enabled ext",
         [&](plat_endpoint *ep) { zfx_is_zfx_enabled_ext(ep, &sr); },
         PLAT_OP_REQ_RESP,
         8626,
         1,
         0,
         15,
         0,
         true,
         {},
         0,
         vsan_form(2, {})},
        {"enabled send",
         [](plat_endpoint *ep) { zfx_is_zfx_enabled_send(ep, 77); },
         PLAT_OP_SEND_REQUEST,
         8626,
         1,
         0xFE000000u,
         0,
         77,
         false,
         {},
         0,
         zeros(4)},
        {"nat vsan 0",
         [](plat_endpoint *ep) { zfx_is_zfx_nat_enabled_in_vsan_send(ep, 0, 5); },
         PLAT_OP_SEND_REQUEST,
         8626,
         1,
         0xFE000000u,
         0,
         5,
         false,
         {},
         0,
         vsan_form(1, {})},
        {"nat vsan 10",
         [](plat_endpoint *ep) { zfx_is_zfx_nat_enabled_in_vsan_send(ep, 10, 5); },
         PLAT_OP_SEND_REQUEST,
         8626,
         1,
         0xFE000000u,
         0,
         5,
         false,
         {},
         0,
         vsan_form(1, {10})},
        {"nat vsan 4095",
         [](plat_endpoint *ep) { zfx_is_zfx_nat_enabled_in_vsan_send(ep, 4095, 5); },
         PLAT_OP_SEND_REQUEST,
         8626,
         1,
         0xFE000000u,
         0,
         5,
         false,
         {},
         0,
         vsan_form(1, {4095})},
        {"check ignore on",
         [](plat_endpoint *ep) { zfx_set_fcdomain_check_ignore(ep, 9); },
         PLAT_OP_REQ_RESP,
         8647,
         3,
         0,
         5,
         0,
         false,
         {},
         0,
         cat({be32(1), be32(0)})},
        {"check ignore off",
         [](plat_endpoint *ep) { zfx_set_fcdomain_check_ignore(ep, 0); },
         PLAT_OP_REQ_RESP,
         8647,
         4,
         0,
         5,
         0,
         false,
         {},
         0,
         cat({be32(1), be32(0)})},
        {"set info", [](plat_endpoint *ep) { zfx_dlg_set_info(ep, 7, -7, "ZFX", 9); },
         PLAT_OP_REQ_RESP, 8605, 3, 0, 10, 0, false, "ZFX", 9, info_request(7, "-7")},
        {"get info",
         [](plat_endpoint *ep) { std::free(zfx_dlg_get_info(ep, 0x01020304)); },
         PLAT_OP_REQ_RESP,
         8605,
         1,
         0,
         4,
         0,
         true,
         {},
         0,
         info_request(0x01020304)},
        {"get info timeout",
         [](plat_endpoint *ep) { std::free(zfx_dlg_get_info_with_timeout(ep, 5, 30)); },
         PLAT_OP_REQ_RESP,
         8605,
         1,
         0,
         30,
         0,
         true,
         {},
         0,
         info_request(5)},
        {"get info int",
         [](plat_endpoint *ep) { zfx_dlg_get_info_int(ep, 6); },
         PLAT_OP_REQ_RESP,
         8605,
         1,
         0,
         4,
         0,
         true,
         {},
         0,
         info_request(6)},
        {"get info char",
         [](plat_endpoint *ep) { zfx_dlg_get_info_char(ep, 8); },
         PLAT_OP_REQ_RESP,
         8605,
         1,
         0,
         4,
         0,
         true,
         {},
         0,
         info_request(8)},
        {"activate time",
         [&](plat_endpoint *ep) { zfx_dlg_get_info_activate_time(ep, &tv); },
         PLAT_OP_REQ_RESP,
         8605,
         1,
         0,
         4,
         0,
         true,
         {},
         0,
         info_request(18)},
        {"zoneset status",
         [&](plat_endpoint *ep) { zfx_dlg_get_zoneset_status(ep, 2, 3, &raw); },
         PLAT_OP_REQ_RESP,
         8616,
         2,
         0,
         10,
         0,
         true,
         {},
         0,
         cat({be32(1), be32(3)})},
        {"zoneset status all",
         [](plat_endpoint *ep) { zfx_dlg_get_zoneset_status(ep, 6, 0xFFFFFFFFu, nullptr); },
         PLAT_OP_REQ_RESP,
         8616,
         6,
         0,
         10,
         0,
         false,
         {},
         0,
         cat({be32(0), be32(0xFFFFFFFFu)})},
    };
    for (const Case &c : cases) {
        FakeService svc;
        c.call(svc.ep());
        std::free(sr);
        sr = nullptr;
        ASSERT_EQ(svc.sent().size(), 1u) << c.what;
        const Sent &s = svc.last();
        EXPECT_EQ(s.op, c.op) << c.what;
        EXPECT_EQ(s.msg_type, c.msg_type) << c.what;
        EXPECT_EQ(s.opcode, c.opcode) << c.what;
        EXPECT_EQ(s.node, c.node) << c.what;
        EXPECT_EQ(s.sap, 110u) << c.what;
        EXPECT_EQ(s.timeout, c.timeout) << c.what;
        EXPECT_EQ(s.tag, c.tag) << c.what;
        EXPECT_EQ(s.want_reply, c.want_reply) << c.what;
        EXPECT_EQ(s.opt_a, c.opt_a) << c.what;
        EXPECT_EQ(s.opt_b, c.opt_b) << c.what;
        EXPECT_EQ(s.payload, c.payload) << c.what << "\n" << hex(s.payload);
    }
}

TEST(DlgStatus, EnabledReplyOrSubstitute) {
    const Bytes good = cat({be32(1), be32(0x0A0B0C0D), be32(3), {0x01}});
    struct Case {
        const char *what;
        Answer answer;
        int32_t result;
    };
    const Case cases[] = {
        {"reply", Answer::reply_with(good), 0},
        {"channel failure", Answer::failure(ENOENT), int32_t(0x809A0002)},
        {"status", Answer::status(5), 5},
        {"status beside a reply", Answer::reply_with(good, 5), 5},
        {"no reply", Answer::none(), ZFX_ERR_INVALID_ARG},
        {"short reply", Answer::reply_with(Bytes(good.begin(), good.end() - 1)),
         ZFX_ERR_INVALID_ARG},
    };
    for (auto fn : {zfx_is_zfx_enabled, zfx_is_zfx_enabled_ext}) {
        for (const Case &c : cases) {
            FakeService svc;
            svc.answer(c.answer);
            zfx_status_reply *reply = nullptr;
            EXPECT_EQ(fn(svc.ep(), &reply), c.result) << c.what;
            ASSERT_NE(reply, nullptr) << c.what;
            if (c.result == 0) {
                EXPECT_EQ(reply->enabled, 1u);
                EXPECT_EQ(reply->status2, 0x0A0B0C0Du);
                EXPECT_EQ(reply->status3, 3u);
                EXPECT_EQ(reply->flags, 1u);
            } else {
                EXPECT_EQ(bytes_of(reply, ZFX_STATUS_REPLY_SUBSTITUTE_SIZE), zeros(48)) << c.what;
            }
            std::free(reply);
        }
        // Without even a substitute: 1 and no reply. Without a reply pointer: nothing is sent.
        FakeService svc;
        svc.answer(Answer::failure(EIO));
        zfx_status_reply *reply = nullptr;
        zfx_testing_fail_allocation(1);
        EXPECT_EQ(fn(svc.ep(), &reply), 1);
        zfx_testing_fail_allocation(0);
        EXPECT_EQ(reply, nullptr);
        EXPECT_EQ(fn(svc.ep(), nullptr), ZFX_ERR_INVALID_ARG);
        EXPECT_EQ(svc.sent().size(), 1u);
    }
}

uint32_t be_word(const Bytes &b) {
    return uint32_t(b[0]) << 24 | uint32_t(b[1]) << 16 | uint32_t(b[2]) << 8 | b[3];
}

plat_msg *reply_msg(int32_t status, const Bytes &payload) {
    const plat_msg_info info{8626, 1, 0, 110, 0, 1, status};
    return plat_msg_new(&info, payload.data(), uint32_t(payload.size()));
}

TEST(DlgStatus, SplitEnabledAndNatQueries) {
    struct Case {
        const char *what;
        int32_t status;
        Bytes payload;
        int32_t result;
        uint32_t nat_flag;
    };
    const Case cases[] = {
        {"enabled, NAT", 0, cat({be32(1), be32(2), be32(3), {0x01}}), 0, 1},
        {"enabled, no NAT bit", 0, cat({be32(1), be32(2), be32(3), {0xFE}}), 0, 0},
        {"not enabled", 0, cat({be32(0), be32(2), be32(3), {0x01}}), 0, 0},
        {"enabled in the high byte", 0, cat({{1, 0, 0, 0}, be32(2), be32(3), {0x03}}), 0, 1},
        {"status", 7, {}, 7, 0},
        {"parse failure", -1, {}, ZFX_ERR_CHANNEL, 0},
        {"short", 0, zeros(12), ZFX_ERR_INVALID_ARG, 0},
        {"empty", 0, {}, ZFX_ERR_INVALID_ARG, 0},
    };
    for (const Case &c : cases) {
        plat_msg *msg = reply_msg(c.status, c.payload);
        uint32_t flag = 5;
        EXPECT_EQ(zfx_is_zfx_nat_enabled_in_vsan_parse(msg, &flag), c.result) << c.what;
        EXPECT_EQ(flag, c.nat_flag) << c.what;
        EXPECT_EQ(zfx_is_zfx_nat_enabled_in_vsan_parse(msg, nullptr), c.result) << c.what;
        uint32_t len;
        const void *payload = plat_msg_payload(msg, &len);
        EXPECT_EQ(bytes_of(payload, len), c.payload) << "NAT parse converts nothing";
        zfx_status_reply *reply = reinterpret_cast<zfx_status_reply *>(&flag);
        EXPECT_EQ(zfx_is_zfx_enabled_parse(msg, &reply), c.result) << c.what;
        if (c.result == 0) {
            EXPECT_EQ(static_cast<void *>(reply), plat_msg_payload(msg, nullptr));
            EXPECT_EQ(reply->enabled, be_word(c.payload));
            EXPECT_EQ(reply->status3, 3u);
        } else {
            EXPECT_EQ(reply, nullptr) << c.what;
        }
        plat_msg_free(msg);
    }
    EXPECT_EQ(zfx_is_zfx_enabled_parse(nullptr, nullptr), ZFX_ERR_INVALID_ARG);
    EXPECT_EQ(zfx_is_zfx_nat_enabled_in_vsan_parse(nullptr, nullptr), ZFX_ERR_CHANNEL);

    // Send results, and one round trip through the endpoint's queue.
    FakeService svc;
    svc.answer(Answer::failure(EIO));
    svc.answer(Answer::status(9));
    svc.answer(Answer{0, 0, cat({be32(1), be32(0), be32(0), {0x01}}), 0});
    EXPECT_EQ(zfx_is_zfx_enabled_send(svc.ep(), 1), ZFX_ERR_CHANNEL);
    EXPECT_EQ(zfx_is_zfx_nat_enabled_in_vsan_send(svc.ep(), 3, 1), 9);
    EXPECT_EQ(zfx_is_zfx_nat_enabled_in_vsan_send(svc.ep(), -1, 1), ZFX_ERR_INVALID_VALUE);
    EXPECT_EQ(zfx_is_zfx_nat_enabled_in_vsan_send(svc.ep(), 4096, 1), ZFX_ERR_INVALID_VALUE);
    EXPECT_EQ(svc.sent().size(), 2u);
    ASSERT_EQ(zfx_is_zfx_nat_enabled_in_vsan_send(svc.ep(), 3, 44), 0);
    plat_msg *msg = nullptr;
    ASSERT_EQ(plat_endpoint_recv(svc.ep(), 0, &msg), 0);
    uint32_t flag = 0;
    EXPECT_EQ(zfx_is_zfx_nat_enabled_in_vsan_parse(msg, &flag), 0);
    EXPECT_EQ(flag, 1u);
    plat_msg_free(msg);
}

Bytes info_reply(const std::string &text) { return info_request(1, text); }

TEST(DlgStatus, InfoReadsCheckTheirReply) {
    Bytes unterminated = info_reply("");
    std::memset(unterminated.data() + 4, '7', 256);
    struct Case {
        const char *what;
        Answer answer;
        bool record;       // zfx_dlg_get_info gives the record
        int32_t number;    // zfx_dlg_get_info_int
        std::string text;  // zfx_dlg_get_info_char
    };
    const Case cases[] = {
        {"number", Answer::reply_with(info_reply("42")), true, 42, "42"},
        {"blanks, sign, trailing text", Answer::reply_with(info_reply("  -17x")), true, -17,
         "  -17x"},
        {"no digits", Answer::reply_with(info_reply("abc")), true, 0, "abc"},
        {"above 32 bits", Answer::reply_with(info_reply("99999999999")), true, INT32_MAX,
         "99999999999"},
        {"below 32 bits", Answer::reply_with(info_reply("-99999999999")), true, INT32_MIN,
         "-99999999999"},
        {"short but terminated", Answer::reply_with(cat({be32(1), str0("12")})), false, 12, "12"},
        {"unterminated", Answer::reply_with(unterminated), true, 0, ""},
        {"channel failure", Answer::failure(EIO), false, 0, ""},
        {"status", Answer::status(3), false, 0, ""},
        {"status beside a reply", Answer::reply_with(info_reply("5"), 3), false, 0, ""},
        {"no reply", Answer::none(), false, 0, ""},
    };
    for (const Case &c : cases) {
        FakeService svc;
        for (int i = 0; i < 3; ++i) svc.answer(c.answer);
        zfx_info_record *rec = zfx_dlg_get_info(svc.ep(), 1);
        EXPECT_EQ(rec != nullptr, c.record) << c.what;
        if (rec != nullptr) {
            EXPECT_EQ(bytes_of(rec, sizeof *rec), *c.answer.reply) << c.what;
        }
        std::free(rec);
        EXPECT_EQ(zfx_dlg_get_info_int(svc.ep(), 1), c.number) << c.what;
        char *text = zfx_dlg_get_info_char(svc.ep(), 1);
        EXPECT_EQ(std::string(text), c.text) << c.what;
        EXPECT_EQ(zfx_dlg_get_info_char(nullptr, 1), text) << "one static buffer";
        EXPECT_EQ(std::string(text), "") << "a failed request empties it";
    }
}

TEST(DlgStatus, ActivationTimeAndPassThroughResults) {
    const Bytes words = cat({be32(18), {1, 2, 3, 4}, {5, 6, 7, 8}});
    struct Case {
        Answer answer;
        bool written;
    };
    const Case cases[] = {{Answer::reply_with(words), true},
                          {Answer::reply_with(Bytes(words.begin(), words.end() - 1)), false},
                          {Answer::failure(EIO), false},
                          {Answer::status(4), false}};
    for (const Case &c : cases) {
        FakeService svc;
        svc.answer(c.answer);
        zfx_time_value tv{{0xAAAAAAAAu, 0xBBBBBBBBu}};
        zfx_dlg_get_info_activate_time(svc.ep(), &tv);
        EXPECT_EQ(bytes_of(&tv, 8), c.written ? Bytes(words.begin() + 4, words.end())
                                              : cat({le32(0xAAAAAAAAu), le32(0xBBBBBBBBu)}));
    }
    FakeService quiet;
    zfx_dlg_get_info_activate_time(quiet.ep(), nullptr);
    EXPECT_TRUE(quiet.sent().empty());

    // These hand the channel's result back as it is, -1 included; the zoneset status reply too.
    for (const Answer &a : {Answer::failure(EIO), Answer::status(0x12345)}) {
        FakeService svc;
        for (int i = 0; i < 3; ++i) svc.answer(a);
        EXPECT_EQ(zfx_set_fcdomain_check_ignore(svc.ep(), 1), a.result);
        EXPECT_EQ(zfx_dlg_set_info(svc.ep(), 1, 1, nullptr, 0), a.result);
        void *reply = &svc;
        EXPECT_EQ(zfx_dlg_get_zoneset_status(svc.ep(), 1, 1, &reply), a.result);
        EXPECT_EQ(reply, nullptr);
    }
    FakeService svc;
    svc.answer(Answer::reply_with({1, 2, 3}, 6));
    void *reply = nullptr;
    EXPECT_EQ(zfx_dlg_get_zoneset_status(svc.ep(), 1, 1, &reply), 6);
    ASSERT_NE(reply, nullptr);
    EXPECT_EQ(bytes_of(reply, 3), (Bytes{1, 2, 3}));
    std::free(reply);
}

}  // namespace
