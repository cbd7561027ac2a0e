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

// Queueing under tokens and receiving by token or any are checked against the socket transport
// in the socket suite; here, what only the played transport can do: an interrupted receive, a
// refused send, and the parse of what was received.
TEST(Channel, AsynchronousRepliesParseAndInterruptedReceives) {
    FakeService svc;
    for (Answer a : {Answer{0, 0, Bytes{1, 2, 3}, 0}, Answer{0, 0, Bytes{4}, 77},
                     Answer{0, 0, Bytes{5}, 0},  // left queued: released with the endpoint
                     Answer::failure(EIO)})
        svc.answer(a);
    for (int32_t result : {0, 0, 0, -1}) EXPECT_EQ(dlg_send_request(8626, 1, nullptr, 0, nullptr, 0, 0, 110, svc.ep(), 0), result);
    EXPECT_EQ(errno, EIO);
    // A status leaves the parse's outputs alone; a reply's payload is handed back inside the
    // message, not copied.
    plat_msg *msg = nullptr;
    svc.fail_recv(-1, EINTR);
    EXPECT_EQ(plat_endpoint_recv(svc.ep(), svc.sent()[1].token, &msg), -1);
    EXPECT_EQ(errno, EINTR);
    ASSERT_EQ(plat_endpoint_recv(svc.ep(), svc.sent()[1].token, &msg), 0);
    void *payload = &msg;
    uint32_t len = 9;
    EXPECT_EQ(dlg_parse_response(msg, &payload, &len), 77);
    EXPECT_EQ(len, 9u);
    plat_msg_free(msg);
    ASSERT_EQ(plat_endpoint_recv(svc.ep(), svc.sent()[0].token, &msg), 0);
    ASSERT_EQ(dlg_parse_response(msg, &payload, &len), 0);
    EXPECT_EQ(payload, plat_msg_payload(msg, nullptr));
    EXPECT_EQ(bytes_of(payload, len), (Bytes{1, 2, 3}));
    plat_msg_free(msg);
    EXPECT_EQ(dlg_parse_response(nullptr, &payload, &len), -1);
}

TEST(Channel, AnyTransportCarriesTheEndpointAndBadCallsReachNone) {
    int state = 0;  // calls made; 100 more once closed
    const plat_transport t{[](void *ctx, plat_endpoint *, const plat_call *, plat_answer *a) {
                               ++*static_cast<int *>(ctx);
                               a->result = 3;
                           },
                           [](void *ctx) { *static_cast<int *>(ctx) += 100; }};
    plat_endpoint *ep = plat_endpoint_open(&t, &state);
    ASSERT_NE(ep, nullptr);
    uint32_t len = 0;
    EXPECT_EQ(dlg_req_resp(1, 1, nullptr, nullptr, &len, nullptr, 0, 110, ep, 1), 3);
    plat_endpoint_close(ep);
    EXPECT_EQ(state, 101);
    const plat_transport broken{nullptr, nullptr};
    EXPECT_EQ(plat_endpoint_open(&broken, nullptr), nullptr);
    EXPECT_EQ(plat_endpoint_open_inproc(nullptr, nullptr), nullptr);
    void *reply = &reply;
    EXPECT_EQ(dlg_req_resp(1, 1, nullptr, &reply, &len, nullptr, 0, 110, nullptr, 10), -1);
    EXPECT_EQ(reply, nullptr);
    FakeService svc;
    EXPECT_EQ(dlg_req_resp(1, 1, nullptr, &reply, nullptr, nullptr, 0, 110, svc.ep(), 10), -1);
    EXPECT_EQ(dlg_send_request(1, 1, nullptr, 4, nullptr, 0, 0, 110, svc.ep(), 0), -1);  // bytes claimed, none given
    EXPECT_EQ(dlg_send_request(1, 1, nullptr, 0, nullptr, 0, 0, 110, nullptr, 0), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_TRUE(svc.sent().empty());
    EXPECT_EQ(dlg_send_request(1, 1, nullptr, 0, nullptr, 0, 0, 110, svc.ep(), 0), 0);  // nothing to send is fine
}

}  // namespace
