// The platform's endpoint and channel: every field and byte reaches the transport as passed,
// replies come back as new allocations, failures carry their errno, and asynchronous replies are
// queued on the endpoint and received by token.
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <gtest/gtest.h>

#include "fake_service.hpp"
#include "platform/dlg.h"

namespace {

using namespace zfxtest;

TEST(Channel, WaitedRequestsCarryEveryFieldAndCopyTheReply) {
    FakeService svc;
    const Bytes request = {1, 2, 3, 4, 5};
    const Bytes answer = {9, 8, 7};
    for (bool remote : {false, true}) {
        svc.answer(Answer::reply_with(answer));
        void *reply = nullptr;
        uint32_t len = uint32_t(request.size());
        const int32_t r = remote ? dlg_remote_req_resp(8620, 2, request.data(), &reply, &len, "ZFX",
                                                       7, 110, 0xFE000001u, svc.ep(), 1)
                                 : dlg_req_resp(8605, 3, request.data(), &reply, &len, "ZFX", 7,
                                                110, svc.ep(), 4);
        ASSERT_EQ(r, 0);
        const Sent &s = svc.last();
        EXPECT_EQ(s.op, remote ? PLAT_OP_REMOTE : PLAT_OP_REQ_RESP);
        EXPECT_EQ(s.msg_type, remote ? 8620u : 8605u);
        EXPECT_EQ(s.opcode, remote ? 2u : 3u);
        EXPECT_EQ(s.node, remote ? 0xFE000001u : 0u);
        EXPECT_EQ(s.sap, 110u);
        EXPECT_EQ(s.opt_a, "ZFX");
        EXPECT_EQ(s.opt_b, 7u);
        EXPECT_EQ(s.timeout, remote ? 1u : 4u);
        EXPECT_TRUE(s.want_reply);
        EXPECT_EQ(s.payload, request);
        ASSERT_NE(reply, nullptr);
        EXPECT_EQ(len, 3u);
        EXPECT_EQ(bytes_of(reply, len), answer);
        std::free(reply);
    }
}

TEST(Channel, ResultsAndReplyOwnership) {
    struct Case {
        Answer answer;
        bool want;
        int32_t result;
        int err;
        bool reply;
        uint32_t len_after;
    };
    const Case cases[] = {
        {Answer::none(), true, 0, 0, false, 0},                 // no reply: NULL, length 0
        {Answer::reply_with({}), true, 0, 0, true, 0},          // an empty reply is still a reply
        {Answer::reply_with({1, 2}), false, 0, 0, false, 2},    // not wanted: dropped, length kept
        {Answer::failure(ENOENT), true, -1, ENOENT, false, 5},  // length left alone
        {Answer::status(0x409A0006), true, 0x409A0006, 0, false, 5},
        {Answer::reply_with({1}, 42), true, 42, 0, true, 5},  // a reply beside a status
    };
    for (const Case &c : cases) {
        FakeService svc;
        svc.answer(c.answer);
        void *reply = &svc;
        uint32_t len = 5;
        errno = 0;
        const uint8_t req[5] = {};
        EXPECT_EQ(
            dlg_req_resp(1, 1, req, c.want ? &reply : nullptr, &len, nullptr, 0, 110, svc.ep(), 10),
            c.result);
        if (c.result == -1) {
            EXPECT_EQ(errno, c.err);
        }
        if (c.want) {
            EXPECT_EQ(reply != nullptr, c.reply);
        }
        EXPECT_EQ(len, c.len_after);
        EXPECT_FALSE(svc.last().opt_a.has_value());
        if (c.want) std::free(reply);
    }
    void *reply = &reply;
    uint32_t len = 0;
    EXPECT_EQ(dlg_req_resp(1, 1, nullptr, &reply, &len, nullptr, 0, 110, nullptr, 10), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(reply, nullptr);
    FakeService svc;
    EXPECT_EQ(dlg_req_resp(1, 1, nullptr, &reply, nullptr, nullptr, 0, 110, svc.ep(), 10), -1);
    EXPECT_TRUE(svc.sent().empty());
}

TEST(Channel, AsynchronousRepliesAreQueuedAndReceivedByToken) {
    FakeService svc;
    const uint8_t req[4] = {0xA, 0xB, 0xC, 0xD};
    svc.answer(Answer{0, 0, Bytes{1, 2, 3}, 0});
    svc.answer(Answer{0, 0, Bytes{4}, 77});
    svc.answer(Answer::failure(EIO));
    ASSERT_EQ(dlg_send_request(8626, 1, req, 4, nullptr, 0, 0xFE000000u, 110, svc.ep(), 31), 0);
    ASSERT_EQ(dlg_send_request(8626, 1, req, 4, nullptr, 0, 0xFE000000u, 110, svc.ep(), 32), 0);
    EXPECT_EQ(dlg_send_request(8626, 1, req, 4, nullptr, 0, 0xFE000000u, 110, svc.ep(), 33), -1);
    EXPECT_EQ(errno, EIO);
    ASSERT_EQ(svc.sent().size(), 3u);
    const Sent &first = svc.sent()[0];
    EXPECT_EQ(first.op, PLAT_OP_SEND_REQUEST);
    EXPECT_EQ(first.node, 0xFE000000u);
    EXPECT_EQ(first.tag, 31u);
    EXPECT_EQ(first.payload, bytes_of(req, 4));
    EXPECT_NE(first.token, svc.sent()[1].token);
    EXPECT_EQ(plat_endpoint_pending(svc.ep()), 2u);

    // The second reply first, selected by its token; an interrupted receive is reported as such.
    plat_msg *msg = nullptr;
    svc.fail_recv(-1, EINTR);
    EXPECT_EQ(plat_endpoint_recv(svc.ep(), svc.sent()[1].token, &msg), -1);
    EXPECT_EQ(errno, EINTR);
    ASSERT_EQ(plat_endpoint_recv(svc.ep(), svc.sent()[1].token, &msg), 0);
    EXPECT_EQ(plat_msg_info_get(msg)->tag, 32u);
    void *payload = &msg;
    uint32_t len = 9;
    EXPECT_EQ(dlg_parse_response(msg, &payload, &len), 77);
    EXPECT_EQ(len, 9u);  // a status leaves the outputs alone
    plat_msg_free(msg);

    ASSERT_EQ(plat_endpoint_recv(svc.ep(), 0, &msg), 0);
    const plat_msg_info *info = plat_msg_info_get(msg);
    EXPECT_EQ(info->msg_type, 8626u);
    EXPECT_EQ(info->token, first.token);
    ASSERT_EQ(dlg_parse_response(msg, &payload, &len), 0);
    EXPECT_EQ(len, 3u);
    EXPECT_EQ(payload, plat_msg_payload(msg, nullptr));  // inside the message, not a copy
    EXPECT_EQ(bytes_of(payload, len), (Bytes{1, 2, 3}));
    plat_msg_free(msg);

    EXPECT_EQ(plat_endpoint_recv(svc.ep(), 0, &msg), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(dlg_parse_response(nullptr, &payload, &len), -1);
    // Messages left queued are released with the endpoint.
    svc.answer(Answer{0, 0, Bytes{5}, 0});
    ASSERT_EQ(dlg_send_request(1, 1, nullptr, 0, nullptr, 0, 0, 110, svc.ep(), 0), 0);
}

TEST(Channel, AnyTransportCarriesTheEndpoint) {
    struct Counting {
        int calls = 0;
        bool closed = false;
    } state;
    const plat_transport t{[](void *ctx, plat_endpoint *, const plat_call *, plat_answer *a) {
                               ++static_cast<Counting *>(ctx)->calls;
                               a->result = 3;
                           },
                           [](void *ctx) { static_cast<Counting *>(ctx)->closed = true; }};
    plat_endpoint *ep = plat_endpoint_open(&t, &state);
    ASSERT_NE(ep, nullptr);
    uint32_t len = 0;
    EXPECT_EQ(dlg_req_resp(1, 1, nullptr, nullptr, &len, nullptr, 0, 110, ep, 1), 3);
    plat_endpoint_close(ep);
    EXPECT_EQ(state.calls, 1);
    EXPECT_TRUE(state.closed);
    const plat_transport broken{nullptr, nullptr};
    EXPECT_EQ(plat_endpoint_open(&broken, nullptr), nullptr);
    EXPECT_EQ(plat_endpoint_open_inproc(nullptr, nullptr), nullptr);
}

}  // namespace
