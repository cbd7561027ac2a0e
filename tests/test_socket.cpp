// The platform's endpoint and channel, the socket transport and its frames, and the channel's
// waited requests over both transports. Any transport carries the endpoint, and bad calls reach
// none; a reply's parse and interrupted receives are the feature's split queries' and raw queries'.
// For the socket, the far side is a service played by a thread of the test on a Unix socket in a temporary
// directory, speaking frames and scripted per case. The same waited requests answered alike must
// come out alike over the socket as in process: every field of a call, the reply bytes; sends are
// held to what their queued replies carry back.
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <random>
#include <thread>
#include <tuple>
#include <utility>

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "fake_service.hpp"
#include "frame_faults.hpp"
#include "platform/dlg.h"
#include "platform/socket.h"
#include "platform/xqb.h"
#include "store.hpp"

namespace {

using namespace zfxtest;

// A call's result with the errno it left.
template <typename T>
std::pair<T, int> with_errno(T result) { return {result, errno}; }

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
    EXPECT_EQ(with_errno(dlg_send_request(1, 1, nullptr, 0, nullptr, 0, 0, 110, nullptr, 0)), std::pair(-1, EINVAL));
    EXPECT_TRUE(svc.sent().empty());
    EXPECT_EQ(dlg_send_request(1, 1, nullptr, 0, nullptr, 0, 0, 110, svc.ep(), 0), 0);  // nothing to send is fine
}

auto fields(const plat_frame &f) {
    return std::tie(f.kind, f.seq, f.op, f.msg_type, f.opcode, f.node, f.sap, f.opt_b, f.tag, f.timeout, f.token,
                    f.want_reply, f.result, f.err, f.reply_status, f.flags, f.opt_a_length, f.payload_length);
}

// Random headers, both lengths at 0 and at their largest among them by construction, read back
// as written; every refused header leaves the reader's frame alone.
TEST(Frame, RoundTripAndEveryRefusedHeader) {
    std::mt19937 gen(7);
    auto rng = [&] { return uint32_t(gen()); };
    auto length = [&](int i, uint32_t max) { return i % 3 == 0 ? max : i % 3 == 1 ? 0 : rng() % (max + 1); };
    for (int i = 0; i < 2000; ++i) {
        const uint32_t flags = uint32_t(i / 3) % 4, ops[] = {1, 2, 3, 5};
        // clang-format off
        plat_frame f{uint16_t(1 + rng() % 2), rng(), ops[rng() % 4], rng(), rng(), rng(), rng(), rng(), rng(),
                     rng(), rng(), rng() % 2, int32_t(rng()), int32_t(rng()), int32_t(rng()), flags,
                     flags & PLAT_FRAME_HAS_OPT_A ? length(i, PLAT_FRAME_OPT_A_MAX) : 0,
                     flags & PLAT_FRAME_HAS_PAYLOAD ? length(i, PLAT_FRAME_PAYLOAD_MAX) : 0};
        // clang-format on
        const Bytes wire = encoded(f);
        plat_frame back{};
        ASSERT_EQ(plat_frame_decode(wire.data(), wire.size(), UINT32_MAX, &back), PLAT_FRAME_OK);
        ASSERT_EQ(fields(back), fields(f));
        ASSERT_EQ(encoded(back), wire);
        ASSERT_EQ(plat_frame_size(&back), PLAT_FRAME_HEADER_SIZE + f.opt_a_length + f.payload_length);
    }
    const std::string long_name(300, 'x');
    const plat_call call{.op = PLAT_OP_REQ_RESP, .opt_a = long_name.c_str(), .want_reply = 5};
    const plat_frame f = plat_frame_for_call(&call, 9);
    EXPECT_EQ(std::tuple(f.opt_a_length, f.flags, f.want_reply), std::tuple(PLAT_FRAME_OPT_A_MAX, PLAT_FRAME_HAS_OPT_A, 1u));

    const Bytes good = frame_header(PLAT_FRAME_ANSWER);
    plat_frame out{.seq = 0xDEAD};
    for (const FrameFault &c : kFrameFaults) {
        const Bytes b = with_word(good, c.at, c.value);
        // A reader's limit above the largest payload counts as the largest.
        EXPECT_EQ(plat_frame_decode(b.data(), b.size(), UINT32_MAX, &out), c.result) << c.what;
        EXPECT_EQ(out.seq, 0xDEADu) << c.what;
        EXPECT_STRNE(plat_frame_error_text(c.result), plat_frame_error_text(PLAT_FRAME_OK));
    }
    EXPECT_EQ(plat_frame_decode(good.data(), PLAT_FRAME_HEADER_SIZE - 1, 5, &out), PLAT_FRAME_SHORT);
    EXPECT_EQ(plat_frame_decode(good.data(), good.size(), 4, &out), PLAT_FRAME_TOO_LONG);  // the reader's own limit
    EXPECT_EQ(plat_frame_decode(good.data(), good.size(), 5, &out), PLAT_FRAME_OK);
}

// One call frame as the service read it, and as the in-process transport would have seen it.
struct Call {
    plat_frame f{};
    std::optional<std::string> opt_a;
    Bytes payload;
    Sent sent() const {
        return {plat_op(f.op), f.msg_type, f.opcode,          f.node, f.sap, opt_a, f.opt_b, f.tag,
                f.timeout,     f.token,    f.want_reply != 0, payload};
    }
};

// A service for the one endpoint it connects, playing a script on a thread of its own; the
// script's end hangs up.
class SocketService {
public:
    explicit SocketService(std::function<void(SocketService &)> script) {
        const Prefix dir(Backend::lmdb);  // a directory of its own, gone once connected: the name has done its work
        const std::string path = dir.path() + "/zfxd";
        sockaddr_un addr{.sun_family = AF_UNIX};
        path.copy(addr.sun_path, sizeof addr.sun_path - 1);
        const int lfd = ::socket(AF_UNIX, SOCK_STREAM, 0);
        if (::bind(lfd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0 && ::listen(lfd, 1) == 0)
            ep_ = plat_endpoint_open_socket(path.c_str());
        fd_ = ep_ != nullptr ? ::accept(lfd, nullptr, nullptr) : -1;
        ::close(lfd);
        EXPECT_GE(fd_, 0) << "no connection at " << path;
        const timeval wait{5, 0};
        setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
        thread_ = std::thread([this, script] {
            if (fd_ >= 0) script(*this);
            hang_up();
        });
    }
    ~SocketService() { stop(); }
    plat_endpoint *ep() const { return ep_; }
    // Waits for the script to end (with the endpoint still open): the calls it read.
    const std::vector<Call> &join() {
        if (thread_.joinable()) thread_.join();
        return calls_;
    }
    // Closes the endpoint, which ends a script waiting for a call, and joins it.
    const std::vector<Call> &stop() {
        plat_endpoint_close(std::exchange(ep_, nullptr));
        return join();
    }

    // The script's side. The next call frame; nullopt once the program closed.
    std::optional<Call> call() {
        Call c;
        Bytes h(PLAT_FRAME_HEADER_SIZE), opt_a;
        if (!read(h) || plat_frame_decode(h.data(), h.size(), PLAT_FRAME_PAYLOAD_MAX, &c.f) != PLAT_FRAME_OK ||
            c.f.kind != PLAT_FRAME_CALL)
            return std::nullopt;
        opt_a.resize(c.f.opt_a_length);
        c.payload.resize(c.f.payload_length);
        if (!read(opt_a) || !read(c.payload)) return std::nullopt;
        if (c.f.flags & PLAT_FRAME_HAS_OPT_A) c.opt_a = std::string(opt_a.begin(), opt_a.end());
        calls_.push_back(c);
        return c;
    }
    void answer(const Call &c, const Answer &a) { raw(frame(c, a)); }
    static Bytes frame(const Call &c, const Answer &a) {
        const plat_answer pa = a.to_plat();
        Bytes frame = encoded(plat_frame_for_answer(&c.f, &pa));
        if (a.reply) frame.insert(frame.end(), a.reply->begin(), a.reply->end());
        return frame;
    }
    void raw(const Bytes &b) {
        for (ssize_t done = 0, n = 0; fd_ >= 0 && size_t(done) < b.size(); done += n)
            if ((n = ::send(fd_, b.data() + done, b.size() - size_t(done), MSG_NOSIGNAL)) <= 0) return;
    }
    void hang_up() { if (fd_ >= 0) ::close(std::exchange(fd_, -1)); }

private:
    // Whole, or false once the program closed (or stayed silent for 5 seconds).
    bool read(Bytes &b) { return b.empty() || (fd_ >= 0 && ::recv(fd_, b.data(), b.size(), MSG_WAITALL) == ssize_t(b.size())); }

    int fd_ = -1;
    plat_endpoint *ep_ = nullptr;
    std::thread thread_;
    std::vector<Call> calls_;
};

// The waited requests of the channel over both transports, the far side answering each call with
// the next answer of the script. What comes back follows from the answer alone: its result (errno
// for -1); a wanted reply handed over as a new block whenever the answer has one, even beside a
// status; the length set to the reply's (0 for none) on success and left alone otherwise.
TEST(Socket, WaitedRequestsOverBothTransports) {
    const Bytes req = {1, 2, 3, 4, 5}, big(300000, 0x5A);  // more than a socket buffer holds
    const struct {
        bool remote;
        uint32_t msg_type, opcode;
        Bytes payload;
        const char *opt_a;
        uint32_t opt_b, sap, timeout;
        const char *summary;  // the call the far side sees, but for its reply flag
    } requests[] = {
        {false, 8605, 2, req, nullptr, 0, 111, 4, "req 8605/2 sap=111 t4"},
        {false, 8605, 3, req, "ZFX", 9, 110, 1, "req 8605/3 t1 a=ZFX b9"},
        {true, 8620, 2, req, "", 7, 110, 1, "remote 8620/2 @fe000001 t1 a= b7"},
        {false, 1, 1, {}, nullptr, 0, 0, 2, "req 1/1 sap=0 t2"},
        {false, 2, 2, big, "ZFX", 0, 110, 5, "req 2/2 t5 a=ZFX"},
    };
    const std::vector<Answer> answers = {Answer::reply_with({9, 8, 7}), Answer::none(),      Answer::reply_with({}),
                                         Answer::failure(ENOENT),      Answer::status(0x409A0006), Answer::reply_with({1}, 42),
                                         Answer::reply_with(big)};
    // Every request with every answer, without a reply wanted and then with one.
    const size_t n = std::size(requests) * answers.size() * 2;
    auto request_of = [&](size_t i) -> const auto & { return requests[i / answers.size() % std::size(requests)]; };
    for (bool socket : {false, true}) {
        FakeService fake;
        for (size_t i = 0; i < n; ++i) fake.answer(answers[i % answers.size()]);
        std::optional<SocketService> svc;
        if (socket)
            svc.emplace([&](SocketService &s) {
                for (size_t i = 0; i < n; ++i)
                    if (auto c = s.call()) s.answer(*c, answers[i % answers.size()]);
            });
        plat_endpoint *ep = socket ? svc->ep() : fake.ep();
        ASSERT_NE(ep, nullptr);
        for (size_t i = 0; i < n; ++i) {
            const auto &r = request_of(i);
            const Answer &a = answers[i % answers.size()];
            const bool want = i >= n / 2;
            void *reply = &reply, **out = want ? &reply : nullptr;
            const void *p = r.payload.empty() ? nullptr : r.payload.data();
            uint32_t len = uint32_t(r.payload.size());
            errno = 0;
            const auto [result, err] = with_errno(
                r.remote ? dlg_remote_req_resp(r.msg_type, r.opcode, p, out, &len, r.opt_a, r.opt_b, r.sap, 0xFE000001u, ep, r.timeout)
                         : dlg_req_resp(r.msg_type, r.opcode, p, out, &len, r.opt_a, r.opt_b, r.sap, ep, r.timeout));
            std::optional<Bytes> got;
            if (want && reply != nullptr) got = bytes_of(reply, a.reply ? a.reply->size() : 0);
            if (want) std::free(reply);
            const uint32_t len_after = a.result != 0 ? uint32_t(r.payload.size()) : a.reply ? uint32_t(a.reply->size()) : 0;
            EXPECT_EQ(std::tuple(result, result == -1 ? err : 0, len, got),
                      std::tuple(a.result, a.err, len_after, want ? a.reply : std::nullopt))
                << (socket ? "socket" : "in-process") << " case " << i;
        }
        std::vector<Sent> sent = fake.sent();  // none over the socket: the fake's endpoint had no call
        if (socket)
            for (const Call &c : svc->stop()) sent.push_back(c.sent());
        ASSERT_EQ(sent.size(), n);
        for (size_t i = 0; i < n; ++i) {
            EXPECT_EQ(sent[i].want_reply, i >= n / 2) << i;
            sent[i].want_reply = false;
            EXPECT_EQ(std::tuple(sent[i].summary(), sent[i].payload), std::tuple(request_of(i).summary, request_of(i).payload)) << i;
        }
    }
}

// What a queued reply carries, for comparing.
auto received(plat_msg *msg) {
    const plat_msg_info i = *plat_msg_info_get(msg);
    uint32_t len;
    const void *p = plat_msg_payload(msg, &len);
    const Bytes payload = bytes_of(p, len);
    plat_msg_free(msg);
    return std::tuple(i.msg_type, i.opcode, i.node, i.sap, i.tag, i.token, i.status, payload);
}

// Answers to sends are queued under their tokens while a waited request waits; a receive waits
// for an answer that comes later; a request that timed out drops its late answer.
TEST(Socket, SendAnswersQueuedAndLateAnswersDropped) {
    const Bytes req = {0xA, 0xB, 0xC, 0xD};
    const xqb_send_opts request{.request = 1};
    // Answers to sends: queued when they carry reply bytes, with the result as status when not 0.
    const std::vector<Answer> send_answers = {Answer{0, 0, Bytes{1, 2, 3}, 0}, Answer{0, 0, Bytes{4}, 77},
                                              Answer::reply_with({}, 42), Answer::failure(EIO), Answer::none()};
    SocketService svc([&](SocketService &s) {
        std::vector<Call> pending;
        for (size_t i = 0; i <= send_answers.size(); ++i)
            if (auto c = s.call()) pending.push_back(*c);
        // The answers to the sends come while the waited request (the last call) waits.
        for (size_t i = send_answers.size(); i-- > 0;) s.answer(pending[i], send_answers[i]);
        s.answer(pending.back(), Answer::reply_with({5}));
        if (auto c = s.call()) {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            s.answer(*c, Answer::reply_with({6}));
        }
        auto first = s.call(), second = s.call();  // the second comes once the first timed out
        if (first && second) {
            s.answer(*first, Answer::reply_with({1}));
            // The answer in two pieces, cut inside its header: the program waits for the rest.
            const Bytes b = SocketService::frame(*second, Answer::reply_with({2, 2}));
            s.raw(Bytes(b.begin(), b.begin() + 30));
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            s.raw(Bytes(b.begin() + 30, b.end()));
        }
        s.call();  // stays until the program closes
    });
    plat_endpoint *ep = svc.ep();
    ASSERT_NE(ep, nullptr);
    for (int32_t st : {dlg_send_request(8626, 1, req.data(), 4, nullptr, 0, 0xFE000000u, 110, ep, 31),
                       dlg_send_request(8626, 2, nullptr, 0, "ZFX", 3, 0, 111, ep, 32),
                       xqb_send(ep, 0xFFFFFC00u, 7, 9, req.data(), 4, nullptr, 0, &request),
                       xqb_send(ep, 1, 2, 3, req.data(), 2, nullptr, 5, nullptr),
                       dlg_send_request(1, 1, nullptr, 0, nullptr, 0, 0, 110, ep, 0)})  // in this order: tokens 1 to 5
        EXPECT_EQ(st, 0);
    void *reply = nullptr;
    uint32_t len = 0;
    ASSERT_EQ(dlg_req_resp(1, 1, nullptr, &reply, &len, nullptr, 0, 110, ep, 1), 0);
    EXPECT_EQ(bytes_of(reply, len), Bytes{5});
    std::free(std::exchange(reply, nullptr));
    EXPECT_EQ(plat_endpoint_pending(ep), 3u);
    plat_msg *msg = nullptr;
    ASSERT_EQ(plat_endpoint_recv(ep, 2, &msg), 0);
    EXPECT_EQ(received(msg), std::tuple(8626u, 2u, 0u, 111u, 32u, 2u, 77, Bytes{4}));
    xqb_msg held = XQB_MSG_EMPTY;
    const xqb_recv_opts by_token{.select = XQB_SELECT_TOKEN, .wait = 1, .token = 3};
    ASSERT_EQ(xqb_recv(ep, &held, &by_token), 0);
    EXPECT_EQ(received(std::exchange(held.msg, nullptr)), std::tuple(0u, 9u, 0xFFFFFC00u, 7u, 0u, 3u, 42, Bytes{}));
    ASSERT_EQ(plat_endpoint_recv(ep, 0, &msg), 0);
    EXPECT_EQ(received(msg), std::tuple(8626u, 1u, 0xFE000000u, 110u, 31u, 1u, 0, Bytes{1, 2, 3}));

    ASSERT_EQ(xqb_send(ep, 1, 2, 3, nullptr, 0, &held, 0, &request), 0);
    const xqb_recv_opts late{.select = XQB_SELECT_TOKEN, .wait = 1, .token = xqb_rr_token_get(&held)};
    ASSERT_EQ(xqb_recv(ep, &held, &late), 0);
    void *payload = xqb_payload_get(&held, &len);
    EXPECT_EQ(bytes_of(payload, len), Bytes{6});
    // Nothing more comes: the receive gives up after its wait.
    EXPECT_EQ(with_errno(xqb_recv(ep, &held, &late)), std::pair(-1, EAGAIN));
    xqb_drop(ep, &held);

    len = 3;
    const uint8_t three[3] = {};
    EXPECT_EQ(dlg_req_resp(1, 1, three, &reply, &len, nullptr, 0, 110, ep, 1), -1);
    EXPECT_EQ(std::tuple(errno, len, reply), std::tuple(ETIMEDOUT, 3u, nullptr));
    ASSERT_EQ(dlg_req_resp(1, 2, three, &reply, &len, nullptr, 0, 110, ep, 5), 0);
    EXPECT_EQ(bytes_of(reply, len), (Bytes{2, 2}));
    std::free(reply);
    EXPECT_EQ(plat_endpoint_pending(ep), 0u);
    // Refused before anything is written: nothing of it is read.
    EXPECT_EQ(with_errno(dlg_send_request(1, 1, three, PLAT_FRAME_PAYLOAD_MAX + 1, nullptr, 0, 0, 110, ep, 0)),
              std::pair(-1, EMSGSIZE));
}

// A service that breaks the stream fails the operation under way with why, then every later one
// with ENOTCONN.
TEST(Socket, BrokenServiceFailsOnceThenNotConnected) {
    const Bytes answer_head = frame_header(PLAT_FRAME_ANSWER);  // the answer to the first call, 8 bytes of body to come
    // What, what the service writes before it hangs up, and the errno the operation fails with.
    std::vector<std::tuple<std::string, Bytes, int>> rows = {
        {"hangs up", {}, ECONNRESET},
        {"half a header", Bytes(answer_head.begin(), answer_head.begin() + 40), ECONNRESET},
        {"body cut short", cat({answer_head, zeros(7)}), ECONNRESET},
        {"a call frame", with_word(answer_head, 4, 1u << 16 | PLAT_FRAME_CALL), EPROTO},
    };
    for (const FrameFault &c : kFrameFaults) rows.emplace_back(c.what, with_word(answer_head, c.at, c.value), EPROTO);
    for (const auto &[what, sent, err] : rows)
        for (bool receiving : {false, true}) {
            SocketService svc([&](SocketService &s) { if (s.call()) s.raw(sent); });
            plat_endpoint *ep = svc.ep();
            ASSERT_NE(ep, nullptr);
            uint32_t len = 0;
            xqb_msg held = XQB_MSG_EMPTY;
            const xqb_recv_opts any{.wait = 1};
            errno = 0;
            const auto waited = [&] { return dlg_req_resp(1, 1, nullptr, nullptr, &len, nullptr, 0, 110, ep, 1); };
            if (receiving) {
                ASSERT_EQ(dlg_send_request(1, 1, nullptr, 0, nullptr, 0, 0, 110, ep, 0), 0);
            }
            EXPECT_EQ(with_errno(receiving ? xqb_recv(ep, &held, &any) : waited()), std::pair(-1, err))
                << what << (receiving ? " (receiving)" : "");
            EXPECT_EQ(with_errno(waited()), std::pair(-1, ENOTCONN));
            EXPECT_EQ(with_errno(xqb_recv(ep, &held, &any)), std::pair(-1, ENOTCONN));
        }
    // Writing to a service that is gone fails; it does not raise SIGPIPE.
    SocketService gone([](SocketService &s) { s.hang_up(); });
    gone.join();
    const Bytes big(1u << 16, 1);
    EXPECT_EQ(with_errno(dlg_send_request(1, 1, big.data(), uint32_t(big.size()), nullptr, 0, 0, 110, gone.ep(), 0)),
              std::pair(-1, ECONNRESET));
    EXPECT_EQ(with_errno(dlg_send_request(1, 1, nullptr, 0, nullptr, 0, 0, 110, gone.ep(), 0)),
              std::pair(-1, ENOTCONN));
}

TEST(Socket, ConnectFailures) {
    const Prefix dir(Backend::lmdb);  // a directory of its own, removed with what it holds
    const std::string base = dir.path(), file = base + "/file", stale = base + "/stale";
    std::fclose(std::fopen(file.c_str(), "w"));
    const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);  // bound, never listening
    sockaddr_un addr{.sun_family = AF_UNIX};
    stale.copy(addr.sun_path, sizeof addr.sun_path - 1);
    ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
    // The longest path a socket address holds, and one byte more.
    const std::string longest = base + "/" + std::string(sizeof addr.sun_path - 2 - base.size(), 'n'), too_long = longest + "n";
    const std::pair<const char *, int> cases[] = {{nullptr, EINVAL},         {"", EINVAL},
                                                  {longest.c_str(), ENOENT}, {too_long.c_str(), ENAMETOOLONG},
                                                  {file.c_str(), ECONNREFUSED}, {stale.c_str(), ECONNREFUSED}};
    for (const auto &[path, err] : cases) {
        errno = 0;
        EXPECT_EQ(plat_endpoint_open_socket(path), nullptr) << (path ? path : "NULL");
        EXPECT_EQ(errno, err) << (path ? path : "NULL");
    }
    ::close(fd);
}

}  // namespace
