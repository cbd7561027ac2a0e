// FakeService: the far side of a platform endpoint as the tests play it, built once on the
// platform's in-process transport (platform/endpoint.h) for every suite that talks to a service.
//
// It records every operation the code under test makes through its endpoint (channel requests,
// remote requests, asynchronous sends and raw transport sends) with every field and the
// exact payload bytes, and answers each with the next scripted Answer, in order; when the script
// is used up it answers result 0 with no reply. Receives on the endpoint (plat_endpoint_recv,
// xqb_recv) are kept apart, in receives() (token wanted, wait in timeout); they succeed unless a
// failure was scripted for them with fail_recv.
//
//     FakeService svc{Answer::reply_with(be32(1)),         // result 0, four reply bytes
//                     Answer::failure(ENOENT)};            // result -1, errno ENOENT
//     svc.answer(Answer::status(0x409A0006));              // result = a status, after those
//     zfx_something(svc.ep(), ...);
//     EXPECT_EQ(svc.last().summary(), "req 8605/1 t4 reply");
//     EXPECT_EQ(svc.last().payload, cat({be32(5), zeros(256)}));
//
// The answer to an asynchronous or raw send that carries reply bytes is queued on the endpoint as
// a reply message under the send's token (with reply_status as its status), which the test takes
// with plat_endpoint_recv(svc.ep(), 0, &msg) or the code under test receives itself.
//
// The byte builders of bytes.hpp (be32, tlv, tlv_array, ...) write the expected bytes and the
// scripted replies.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <vector>

#include "bytes.hpp"
#include "platform/endpoint.h"

namespace zfxtest {

// One operation as the transport saw it.
struct Sent {
    plat_op op;
    uint32_t msg_type, opcode, node, sap;
    std::optional<std::string> opt_a;  // nullopt for NULL
    uint32_t opt_b, tag, timeout, token;
    bool want_reply;
    Bytes payload;

    // Every field but the payload and token in one line, defaults left out, for comparing with
    // a table: "req 8626/1 t15 reply", "send 8626/1 @fe000000 tag77", "req 8605/3 t10 a=ZFX b9"
    // (remote requests are "remote", receives never appear; sap is shown when it is not 110).
    std::string summary() const;
};

struct Answer {
    int32_t result = 0;
    int err = 0;
    std::optional<Bytes> reply;  // nullopt: no reply at all; an empty Bytes: an empty reply
    int32_t reply_status = 0;    // asynchronous sends: the status of the queued reply message

    static Answer reply_with(Bytes bytes, int32_t result = 0) { return {result, 0, std::move(bytes), 0}; }
    static Answer failure(int err) { return {-1, err, std::nullopt, 0}; }
    static Answer status(int32_t s) { return {s, 0, std::nullopt, 0}; }
    static Answer none() { return {}; }
    // As a transport hands it over: the reply's bytes stay this answer's; an empty reply is a
    // pointer that is not NULL.
    plat_answer to_plat() const;
};

class FakeService {
public:
    // The script begins with the answers given.
    FakeService(std::initializer_list<Answer> script = {});
    ~FakeService();
    FakeService(const FakeService &) = delete;
    FakeService &operator=(const FakeService &) = delete;

    plat_endpoint *ep() const { return ep_; }
    void answer(Answer a) { script_.push_back(std::move(a)); }
    // The next receive on the endpoint returns result (-1 sets errno err).
    void fail_recv(int32_t result, int err) { recv_faults_.push_back({result, err, std::nullopt, 0}); }
    const std::vector<Sent> &sent() const { return sent_; }
    const std::vector<Sent> &receives() const { return receives_; }
    const Sent &last() const { return sent_.back(); }

private:
    static void handle(void *ctx, const plat_call *call, plat_answer *answer);

    plat_endpoint *ep_;
    std::vector<Sent> sent_, receives_;
    std::vector<Answer> script_, recv_faults_;  // answered in order from next_ and next_fault_
    size_t next_ = 0, next_fault_ = 0;
    Answer current_;  // keeps the reply bytes alive until the transport is next called
};

}  // namespace zfxtest
