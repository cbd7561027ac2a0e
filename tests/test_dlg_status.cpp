// Status queries of the feature's service: the exact request each function sends, the reply
// conversions, the mapping of channel results, and short or missing replies.
#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <functional>
#include <tuple>
#include <utility>

#include <gtest/gtest.h>

#include "fake_service.hpp"
#include "zfx_service.h"

namespace {

using namespace zfxtest;

Bytes vsan_form(uint8_t kind, std::initializer_list<int> vsan) { return cat({vsans(vsan), {kind}, zeros(31)}); }

Bytes info_record(uint32_t key, const std::string &text = "") {
    return cat({be32(key), Bytes(text.begin(), text.end()), zeros(256 - text.size())});
}

// Each request as sent. Every one is answered with a reply beside status 6: the ones that hand
// the channel's result back give 6 (the zoneset status the reply too), the info reads nothing.
TEST(DlgStatus, RequestsOnTheWire) {
    zfx_status_reply *sr = nullptr;
    void *raw = nullptr;
    const Bytes one_zero = cat({be32(1), be32(0)});
    const std::tuple<std::function<int32_t(plat_endpoint *)>, const char *, Bytes> cases[] = {
        {[&](auto ep) { return zfx_is_zfx_enabled(ep, &sr); }, "req 8626/1 t15 reply", zeros(4)},
        {[&](auto ep) { return zfx_is_zfx_enabled_ext(ep, &sr); }, "req 8626/1 t15 reply", vsan_form(2, {})},
        {[](auto ep) { return zfx_is_zfx_enabled_send(ep, 77); }, "send 8626/1 @fe000000 tag77", zeros(4)},
        // VSAN 0 asks for no VSAN at all; 4095 is the last one a set holds.
        {[](auto ep) { return zfx_is_zfx_nat_enabled_in_vsan_send(ep, 0, 5); }, "send 8626/1 @fe000000 tag5",
         vsan_form(1, {})},
        {[](auto ep) { return zfx_is_zfx_nat_enabled_in_vsan_send(ep, 4095, 5); }, "send 8626/1 @fe000000 tag5",
         vsan_form(1, {4095})},
        {[](auto ep) { return zfx_set_fcdomain_check_ignore(ep, 9); }, "req 8647/3 t5", one_zero},
        {[](auto ep) { return zfx_set_fcdomain_check_ignore(ep, 0); }, "req 8647/4 t5", one_zero},
        {[](auto ep) { return zfx_dlg_set_info(ep, 7, -7, "ZFX", 9); }, "req 8605/3 t10 a=ZFX b9", info_record(7, "-7")},
        {[](auto ep) { return zfx_dlg_get_info_with_timeout(ep, 5, 30) == nullptr ? 6 : 0; }, "req 8605/1 t30 reply",
         info_record(5)},
        {[&](auto ep) { return zfx_dlg_get_zoneset_status(ep, 2, 3, &raw); }, "req 8616/2 t10 reply", cat({be32(1), be32(3)})},
        {[](auto ep) { return zfx_dlg_get_zoneset_status(ep, 6, 0xFFFFFFFFu, nullptr); }, "req 8616/6 t10",
         cat({be32(0), be32(0xFFFFFFFFu)})},
    };
    for (const auto &[call, sent, payload] : cases) {
        FakeService svc{Answer::reply_with({1, 2, 3}, 6)};
        EXPECT_EQ(call(svc.ep()), 6) << sent;
        std::free(std::exchange(sr, nullptr));
        ASSERT_EQ(svc.sent().size(), 1u) << sent;
        EXPECT_EQ(std::pair(svc.last().summary(), svc.last().payload), std::pair(std::string(sent), payload));
    }
    EXPECT_EQ(take(raw, 3), (Bytes{1, 2, 3}));
}

// One status reply, received by the split queries (NAT and enabled) and answering the waited
// ones. The enabled forms give the reply with its three words in host order; the waited ones
// otherwise a zero substitute of 48 readable bytes, and an errno code for a failed channel call.
TEST(DlgStatus, EnabledAndNatRepliesWaitedOrSplit) {
    // The reply's status (-1: the channel call failed) and payload, the parses' result, the NAT flag.
    const std::tuple<int32_t, Bytes, int32_t, uint32_t> cases[] = {
        {0, cat({be32(1), be32(0x0A0B0C0D), be32(3), {0x01}}), 0, 1},
        {0, cat({be32(1), be32(2), be32(3), {0xFE}}), 0, 0},
        {0, cat({be32(0), be32(2), be32(3), {0x01}}), 0, 0},
        {0, cat({{1, 0, 0, 0}, be32(2), be32(3), {0x03}}), 0, 1},  // word 0 read in network order
        {7, {}, 7, 0},
        {5, cat({be32(1), be32(2), be32(3), {0x01}}), 5, 0},  // a reply beside a status is released
        {-1, {}, ZFX_ERR_CHANNEL, 0},
        {0, zeros(12), ZFX_ERR_INVALID_ARG, 0},
        {0, {}, ZFX_ERR_INVALID_ARG, 0},
    };
    for (const auto &[status, payload_bytes, result, nat] : cases) {
        Bytes host = payload_bytes;
        for (size_t w = 0; result == 0 && w < 3; ++w) std::reverse(host.begin() + 4 * long(w), host.begin() + 4 * long(w + 1));
        const plat_msg_info info{8626, 1, 0, 110, 0, 1, status};
        plat_msg *msg = plat_msg_new(&info, payload_bytes.data(), uint32_t(payload_bytes.size()));
        uint32_t flag = 5, len;
        EXPECT_EQ(zfx_is_zfx_nat_enabled_in_vsan_parse(msg, &flag), result) << hex(payload_bytes);
        EXPECT_EQ(flag, nat);
        EXPECT_EQ(zfx_is_zfx_nat_enabled_in_vsan_parse(msg, nullptr), result);
        const void *payload = plat_msg_payload(msg, &len);
        EXPECT_EQ(bytes_of(payload, len), payload_bytes) << "the NAT parse converts nothing";
        auto *reply = reinterpret_cast<zfx_status_reply *>(&flag);
        EXPECT_EQ(zfx_is_zfx_enabled_parse(msg, &reply), result);
        EXPECT_EQ(static_cast<const void *>(reply), result == 0 ? payload : nullptr);
        EXPECT_EQ(bytes_of(payload, len), host) << "converted in place";
        plat_msg_free(msg);

        for (auto fn : {zfx_is_zfx_enabled, zfx_is_zfx_enabled_ext}) {
            FakeService svc{status == -1            ? Answer::failure(ENOENT)
                            : !payload_bytes.empty() ? Answer::reply_with(payload_bytes, status)
                                                     : Answer::status(status)};
            zfx_status_reply *waited = nullptr;
            EXPECT_EQ(fn(svc.ep(), &waited), status == -1 ? ZFX_ERR_ERRNO(ENOENT) : result);
            ASSERT_NE(waited, nullptr);
            EXPECT_EQ(bytes_of(waited, result == 0 ? 13 : 48), result == 0 ? host : zeros(48));
            std::free(waited);
        }
    }
    for (auto fn : {zfx_is_zfx_enabled, zfx_is_zfx_enabled_ext})
        EXPECT_EQ(fn(nullptr, nullptr), ZFX_ERR_INVALID_ARG) << "refused before the endpoint is used";
    EXPECT_EQ(zfx_is_zfx_enabled_parse(nullptr, nullptr), ZFX_ERR_INVALID_ARG);

    // A failed send, and VSANs out of range (a send and a received reply meet in the service suite).
    FakeService svc{Answer::failure(EIO)};
    EXPECT_EQ(zfx_is_zfx_enabled_send(svc.ep(), 1), ZFX_ERR_CHANNEL);
    EXPECT_EQ(zfx_is_zfx_nat_enabled_in_vsan_send(svc.ep(), -1, 1), ZFX_ERR_INVALID_VALUE);
    EXPECT_EQ(zfx_is_zfx_nat_enabled_in_vsan_send(svc.ep(), 4096, 1), ZFX_ERR_INVALID_VALUE);
    EXPECT_EQ(svc.sent().size(), 1u);
}

TEST(DlgStatus, InfoReadsCheckTheirReply) {
    const Bytes unterminated = cat({be32(1), Bytes(256, '7')});
    // The activation time needs only the 12 bytes it reads (not converted); the record wants the
    // whole record, the number and the text a terminated text.
    const Bytes words = cat({be32(18), {1, 2, 3, 4}, {5, 6, 7, 8}});
    const Bytes record = cat({words, zeros(248)});  // info_record(18) with the words
    const std::string time_text = "\x01\x02\x03\x04\x05\x06\x07\x08";
    // The answer, whether zfx_dlg_get_info gives the record, zfx_dlg_get_info_int's number and
    // zfx_dlg_get_info_char's text.
    const std::tuple<Answer, bool, int32_t, std::string> cases[] = {
        {Answer::reply_with(info_record(1, "  -17x")), true, -17, "  -17x"},
        {Answer::reply_with(info_record(1, "abc")), true, 0, "abc"},
        {Answer::reply_with(info_record(1, "99999999999")), true, INT32_MAX, "99999999999"},
        {Answer::reply_with(info_record(1, "-99999999999")), true, INT32_MIN, "-99999999999"},
        {Answer::reply_with(cat({be32(1), str0("12")})), false, 12, "12"},  // short but terminated
        {Answer::reply_with(unterminated), true, 0, ""},
        {Answer::reply_with(words), false, 0, ""},
        {Answer::reply_with(Bytes(words.begin(), words.end() - 1)), false, 0, ""},
        {Answer::reply_with(Bytes(words.begin(), words.begin() + 3)), false, 0, ""},  // short of its key word
        {Answer::reply_with(Bytes(record.begin(), record.end() - 1)), false, 0, time_text},
        {Answer::reply_with(record), true, 0, time_text},
        {Answer::failure(EIO), false, 0, ""},
        {Answer::status(3), false, 0, ""},
        {Answer::reply_with(info_record(1, "5"), 3), false, 0, ""},
        {Answer::none(), false, 0, ""},
    };
    const Bytes untouched = cat({le32(0xAAAAAAAAu), le32(0xBBBBBBBBu)});
    for (const auto &[answer, gives_record, number, text_read] : cases) {
        FakeService svc;
        for (int i = 0; i < 4; ++i) svc.answer(answer);
        EXPECT_EQ(take(zfx_dlg_get_info(svc.ep(), 18), sizeof(zfx_info_record)), gives_record ? *answer.reply : Bytes{});
        EXPECT_EQ(zfx_dlg_get_info_int(svc.ep(), 18), number) << text_read;
        char *text = zfx_dlg_get_info_char(svc.ep(), 18);
        EXPECT_EQ(std::string(text), text_read);
        EXPECT_EQ(zfx_dlg_get_info_char(nullptr, 1), text) << "one static buffer";
        EXPECT_EQ(std::string(text), "") << "a failed request empties it";
        zfx_time_value tv{{0xAAAAAAAAu, 0xBBBBBBBBu}};
        zfx_dlg_get_info_activate_time(svc.ep(), &tv);
        const Bytes reply = answer.result == 0 ? answer.reply.value_or(Bytes{}) : Bytes{};
        EXPECT_EQ(bytes_of(&tv, 8), reply.size() >= 12 ? Bytes(reply.begin() + 4, reply.begin() + 12) : untouched);
        // All four ask for the record of their key (the activation time's is 18) the same way.
        for (const Sent &sent : svc.sent())
            EXPECT_EQ(sent.summary() + hex(sent.payload), "req 8605/1 t4 reply" + hex(info_record(18)));
    }
    zfx_dlg_get_info_activate_time(nullptr, nullptr);  // refused before the endpoint is used
}

}  // namespace
