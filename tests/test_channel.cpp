// The platform's endpoint and channel: any transport carrying the endpoint, and bad calls that
// reach none. What a waited request sends and hands back, and the replies queued under tokens,
// are checked over the in-process transport and the socket's alike, in the socket suite; a
// reply's parse and interrupted receives, through the feature's split queries and raw queries.
#include <cerrno>
#include <utility>

#include <gtest/gtest.h>

#include "fake_service.hpp"
#include "platform/dlg.h"

namespace {

using namespace zfxtest;

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
    EXPECT_EQ(dlg_parse_response(nullptr, &reply, &len), -1);
    // A reply's status leaves the parse's outputs alone.
    len = 9;
    const plat_msg_info info{1, 1, 0, 110, 0, 1, 77};
    plat_msg *msg = plat_msg_new(&info, "x", 1);
    EXPECT_EQ(dlg_parse_response(msg, &reply, &len), 77);
    EXPECT_EQ(std::pair(reply, len), std::pair(static_cast<void *>(nullptr), 9u));
    plat_msg_free(msg);
    FakeService svc;
    EXPECT_EQ(dlg_req_resp(1, 1, nullptr, &reply, nullptr, nullptr, 0, 110, svc.ep(), 10), -1);
    EXPECT_EQ(dlg_send_request(1, 1, nullptr, 4, nullptr, 0, 0, 110, svc.ep(), 0), -1);  // bytes claimed, none given
    EXPECT_EQ(dlg_send_request(1, 1, nullptr, 0, nullptr, 0, 0, 110, nullptr, 0), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_TRUE(svc.sent().empty());
    EXPECT_EQ(dlg_send_request(1, 1, nullptr, 0, nullptr, 0, 0, 110, svc.ep(), 0), 0);  // nothing to send is fine
}

}  // namespace
