// The platform's endpoint and channel over the in-process transport: asynchronous replies queued
// on the endpoint and received by token, their parsing, interrupted and empty receives, and any
// transport carrying the endpoint. What a waited request sends and hands back is checked over this
// transport and the socket's alike, in the socket suite.
#include <cerrno>
#include <cstdlib>

#include <gtest/gtest.h>

#include "fake_service.hpp"
#include "platform/dlg.h"

namespace {

using namespace zfxtest;

TEST(Channel, AsynchronousRepliesAreQueuedAndReceivedByToken) {
    FakeService svc;
    const uint8_t req[4] = {0xA, 0xB, 0xC, 0xD};
    svc.answer(Answer{0, 0, Bytes{1, 2, 3}, 0});
    svc.answer(Answer{0, 0, Bytes{4}, 77});
    svc.answer(Answer::failure(EIO));
    svc.answer(Answer{0, 0, Bytes{5}, 0});  // left queued: released with the endpoint
    for (uint32_t tag : {31, 32}) ASSERT_EQ(dlg_send_request(8626, 1, req, 4, nullptr, 0, 0xFE000000u, 110, svc.ep(), tag), 0);
    EXPECT_EQ(dlg_send_request(8626, 1, req, 4, nullptr, 0, 0xFE000000u, 110, svc.ep(), 33), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(svc.sent()[0].summary(), "send 8626/1 @fe000000 tag31");
    EXPECT_EQ(svc.sent()[0].payload, bytes_of(req, 4));
    const uint32_t first = svc.sent()[0].token, second = svc.sent()[1].token;
    EXPECT_NE(first, second);
    EXPECT_EQ(plat_endpoint_pending(svc.ep()), 2u);

    // The second reply first, by its token; an interrupted receive is reported as such.
    plat_msg *msg = nullptr;
    svc.fail_recv(-1, EINTR);
    EXPECT_EQ(plat_endpoint_recv(svc.ep(), second, &msg), -1);
    EXPECT_EQ(errno, EINTR);
    ASSERT_EQ(plat_endpoint_recv(svc.ep(), second, &msg), 0);
    EXPECT_EQ(plat_msg_info_get(msg)->tag, 32u);
    void *payload = &msg;
    uint32_t len = 9;
    EXPECT_EQ(dlg_parse_response(msg, &payload, &len), 77);
    EXPECT_EQ(len, 9u);  // a status leaves the outputs alone
    plat_msg_free(msg);

    ASSERT_EQ(plat_endpoint_recv(svc.ep(), 0, &msg), 0);
    EXPECT_EQ(plat_msg_info_get(msg)->token, first);
    ASSERT_EQ(dlg_parse_response(msg, &payload, &len), 0);
    EXPECT_EQ(payload, plat_msg_payload(msg, nullptr));  // inside the message, not a copy
    EXPECT_EQ(bytes_of(payload, len), (Bytes{1, 2, 3}));
    plat_msg_free(msg);
    EXPECT_EQ(plat_endpoint_recv(svc.ep(), 0, &msg), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(dlg_parse_response(nullptr, &payload, &len), -1);
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
    // What a waited request hands back, over this transport and the socket's, is in the socket
    // suite; here the calls refused before any transport is reached.
    void *reply = &reply;
    EXPECT_EQ(dlg_req_resp(1, 1, nullptr, &reply, &len, nullptr, 0, 110, nullptr, 10), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(reply, nullptr);
    FakeService svc;
    EXPECT_EQ(dlg_req_resp(1, 1, nullptr, &reply, nullptr, nullptr, 0, 110, svc.ep(), 10), -1);
    EXPECT_EQ(dlg_send_request(1, 1, nullptr, 4, nullptr, 0, 0, 110, svc.ep(), 0), -1);  // bytes claimed, none given
    EXPECT_EQ(dlg_send_request(1, 1, nullptr, 0, nullptr, 0, 0, 110, nullptr, 0), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_TRUE(svc.sent().empty());
}

}  // namespace
