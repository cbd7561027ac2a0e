// The socket transport and its frames, and the channel's waited requests over both transports.
// The far side is a service played by a thread of the test on a Unix socket in a temporary
// directory, speaking frames and scripted per case. The same operations answered alike must come
// out alike over the socket as in process: every field of a call, the reply bytes, the queued
// replies.
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <random>
#include <thread>
#include <tuple>
#include <utility>

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "fake_service.hpp"
#include "platform/dlg.h"
#include "platform/frame.h"
#include "platform/socket.h"
#include "platform/xqb.h"

namespace {

using namespace zfxtest;

auto fields(const plat_frame &f) {
    return std::tie(f.kind, f.seq, f.op, f.msg_type, f.opcode, f.node, f.sap, f.opt_b, f.tag, f.timeout,
                    f.token, f.want_reply, f.result, f.err, f.reply_status, f.flags, f.opt_a_length,
                    f.payload_length);
}

// A header the reader accepts: an answer with option A (3 bytes) and a payload (5 bytes).
Bytes good_header() {
    plat_frame f{.kind = PLAT_FRAME_ANSWER,
                 .seq = 1,
                 .op = PLAT_OP_REQ_RESP,
                 .flags = 3,
                 .opt_a_length = 3,
                 .payload_length = 5};
    Bytes b(PLAT_FRAME_HEADER_SIZE);
    plat_frame_encode(&f, b.data());
    return b;
}

// One word of good_header() set to a value every reader refuses.
const struct Corrupt {
    const char *what;
    size_t at;
    uint32_t value;
    int32_t result;
} kCorrupt[] = {
    {"magic", 0, 0x5A584632u, PLAT_FRAME_BAD_MAGIC},
    {"version", 4, 2u << 16 | PLAT_FRAME_ANSWER, PLAT_FRAME_BAD_VERSION},
    {"kind 0", 4, 1u << 16, PLAT_FRAME_BAD_KIND},
    {"kind 3", 4, 1u << 16 | 3, PLAT_FRAME_BAD_KIND},
    {"op 0", 12, 0, PLAT_FRAME_BAD_OP},
    {"op receive", 12, PLAT_OP_RECV, PLAT_FRAME_BAD_OP},
    {"op 6", 12, 6, PLAT_FRAME_BAD_OP},
    {"want_reply 2", 48, 2, PLAT_FRAME_BAD_OP},
    {"unknown flag", 64, 7, PLAT_FRAME_BAD_FLAGS},
    {"payload without its flag", 64, PLAT_FRAME_HAS_OPT_A, PLAT_FRAME_BAD_FLAGS},
    {"option A without its flag", 64, PLAT_FRAME_HAS_PAYLOAD, PLAT_FRAME_BAD_FLAGS},
    {"reserved word", 76, 1, PLAT_FRAME_BAD_FLAGS},
    {"option A too long", 68, PLAT_FRAME_OPT_A_MAX + 1, PLAT_FRAME_TOO_LONG},
    {"payload too long", 72, PLAT_FRAME_PAYLOAD_MAX + 1, PLAT_FRAME_TOO_LONG},
};

Bytes corrupted(const Corrupt &c) {
    Bytes b = good_header();
    const Bytes word = be32(c.value);
    std::copy(word.begin(), word.end(), b.begin() + ptrdiff_t(c.at));
    return b;
}

TEST(Frame, RoundTripOfRandomHeaders) {
    std::mt19937 gen(7);
    auto rng = [&] { return uint32_t(gen()); };
    for (int i = 0; i < 2000; ++i) {
        const uint32_t flags = rng() % 4, ops[] = {1, 2, 3, 5};
        // clang-format off
        plat_frame f{uint16_t(1 + rng() % 2), rng(), ops[rng() % 4], rng(), rng(), rng(), rng(), rng(), rng(),
                     rng(), rng(), rng() % 2, int32_t(rng()), int32_t(rng()), int32_t(rng()), flags,
                     flags & PLAT_FRAME_HAS_OPT_A ? rng() % (PLAT_FRAME_OPT_A_MAX + 1) : 0,
                     flags & PLAT_FRAME_HAS_PAYLOAD ? rng() % (PLAT_FRAME_PAYLOAD_MAX + 1) : 0};
        // clang-format on
        Bytes wire(PLAT_FRAME_HEADER_SIZE), again(PLAT_FRAME_HEADER_SIZE);
        plat_frame_encode(&f, wire.data());
        plat_frame back{};
        ASSERT_EQ(plat_frame_decode(wire.data(), wire.size(), PLAT_FRAME_PAYLOAD_MAX, &back), PLAT_FRAME_OK);
        ASSERT_EQ(fields(back), fields(f));
        plat_frame_encode(&back, again.data());
        ASSERT_EQ(again, wire);
        ASSERT_EQ(plat_frame_size(&back), PLAT_FRAME_HEADER_SIZE + f.opt_a_length + f.payload_length);
    }
    const std::string long_name(300, 'x');
    const plat_call call{.op = PLAT_OP_REQ_RESP, .opt_a = long_name.c_str(), .want_reply = 5};
    const plat_frame f = plat_frame_for_call(&call, 9);
    EXPECT_EQ(f.opt_a_length, PLAT_FRAME_OPT_A_MAX);
    EXPECT_EQ(f.flags, PLAT_FRAME_HAS_OPT_A);
    EXPECT_EQ(f.want_reply, 1u);
}

TEST(Frame, EveryRefusedHeader) {
    const plat_frame untouched{.seq = 0xDEAD};
    for (const Corrupt &c : kCorrupt) {
        plat_frame out = untouched;
        const Bytes b = corrupted(c);
        EXPECT_EQ(plat_frame_decode(b.data(), b.size(), PLAT_FRAME_PAYLOAD_MAX, &out), c.result) << c.what;
        EXPECT_EQ(out.seq, 0xDEADu) << c.what;
        EXPECT_STRNE(plat_frame_error_text(c.result), plat_frame_error_text(PLAT_FRAME_OK));
    }
    const Bytes b = good_header();
    plat_frame out{};
    EXPECT_EQ(plat_frame_decode(b.data(), PLAT_FRAME_HEADER_SIZE - 1, 5, &out), PLAT_FRAME_SHORT);
    EXPECT_EQ(plat_frame_decode(b.data(), b.size(), 4, &out), PLAT_FRAME_TOO_LONG);  // the reader's own limit
    EXPECT_EQ(plat_frame_decode(b.data(), b.size(), 5, &out), PLAT_FRAME_OK);
    const Bytes max = corrupted({"", 72, PLAT_FRAME_PAYLOAD_MAX, 0});
    EXPECT_EQ(plat_frame_decode(max.data(), max.size(), UINT32_MAX, &out), PLAT_FRAME_OK);
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

// The service's end of the connection, which a case's script drives on the service's thread.
class Peer {
public:
    explicit Peer(int fd) : fd_(fd) {}
    ~Peer() { hang_up(); }

    // The next call frame; nullopt once the program closed (or stayed silent for 5 seconds).
    std::optional<Call> call() {
        Call c;
        Bytes h(PLAT_FRAME_HEADER_SIZE);
        if (!read(h) ||
            plat_frame_decode(h.data(), h.size(), PLAT_FRAME_PAYLOAD_MAX, &c.f) != PLAT_FRAME_OK ||
            c.f.kind != PLAT_FRAME_CALL)
            return std::nullopt;
        Bytes opt_a(c.f.opt_a_length);
        c.payload.resize(c.f.payload_length);
        if (!read(opt_a) || !read(c.payload)) return std::nullopt;
        if (c.f.flags & PLAT_FRAME_HAS_OPT_A) c.opt_a = std::string(opt_a.begin(), opt_a.end());
        calls.push_back(c);
        return c;
    }
    void answer(const Call &c, const Answer &a) { raw(frame(c, a)); }
    static Bytes frame(const Call &c, const Answer &a) {
        static const uint8_t empty = 0;
        const plat_answer pa{a.result, a.err,
                             a.reply ? (a.reply->empty() ? &empty : a.reply->data()) : nullptr,
                             a.reply ? uint32_t(a.reply->size()) : 0, a.reply_status};
        const plat_frame f = plat_frame_for_answer(&c.f, &pa);
        Bytes frame(PLAT_FRAME_HEADER_SIZE);
        plat_frame_encode(&f, frame.data());
        if (a.reply) frame.insert(frame.end(), a.reply->begin(), a.reply->end());
        return frame;
    }
    void raw(const Bytes &b) {
        for (size_t done = 0; fd_ >= 0 && done < b.size();) {
            const ssize_t n = ::send(fd_, b.data() + done, b.size() - done, MSG_NOSIGNAL);
            if (n <= 0) return;
            done += size_t(n);
        }
    }
    void hang_up() {
        if (fd_ < 0) return;
        ::close(fd_);
        fd_ = -1;
    }

    std::vector<Call> calls;

private:
    bool read(Bytes &b) {
        for (size_t done = 0; done < b.size();) {
            pollfd p{fd_, POLLIN, 0};
            if (fd_ < 0 || ::poll(&p, 1, 5000) != 1) return false;
            const ssize_t n = ::recv(fd_, b.data() + done, b.size() - done, 0);
            if (n <= 0) return false;
            done += size_t(n);
        }
        return true;
    }

    int fd_;
};

// A service listening under a temporary directory, running one script for the one endpoint
// connected to it; the script's end hangs up.
class SocketService {
public:
    explicit SocketService(std::function<void(Peer &)> script) {
        char dir[] = "/tmp/zfx-socket-XXXXXX";
        dir_ = mkdtemp(dir);
        path_ = dir_ + "/zfxd";
        sockaddr_un addr{.sun_family = AF_UNIX};
        path_.copy(addr.sun_path, sizeof addr.sun_path - 1);
        const int lfd = ::socket(AF_UNIX, SOCK_STREAM, 0);
        const bool listening =
            ::bind(lfd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0 && ::listen(lfd, 1) == 0;
        ep_ = listening ? plat_endpoint_open_socket(path_.c_str()) : nullptr;
        const int fd = ep_ != nullptr ? ::accept(lfd, nullptr, nullptr) : -1;
        ::close(lfd);
        EXPECT_GE(fd, 0) << "no connection at " << path_;
        thread_ = std::thread([this, fd, script] {
            Peer peer(fd);
            if (fd >= 0) script(peer);
            peer.hang_up();
            calls_ = std::move(peer.calls);
        });
    }
    ~SocketService() {
        stop();
        ::unlink(path_.c_str());
        ::rmdir(dir_.c_str());
    }
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

private:
    std::string dir_, path_;
    plat_endpoint *ep_ = nullptr;
    std::thread thread_;
    std::vector<Call> calls_;
};

// Answers each call with the next of answers, in order.
std::function<void(Peer &)> answering(std::vector<Answer> answers) {
    return [answers](Peer &p) {
        for (const Answer &a : answers)
            if (auto c = p.call()) p.answer(*c, a);
    };
}

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
    const std::vector<Answer> answers = {
        Answer::reply_with({9, 8, 7}), Answer::none(),
        Answer::reply_with({}),        Answer::failure(ENOENT),
        Answer::status(0x409A0006),    Answer::reply_with({1}, 42),
        Answer::reply_with(big),
    };
    const size_t n = std::size(requests) * answers.size() * 2;
    for (bool socket : {false, true}) {
        std::vector<Answer> script;
        for (size_t i = 0; i < n; ++i) script.push_back(answers[i % answers.size()]);
        FakeService fake;
        for (const Answer &a : script) fake.answer(a);
        std::optional<SocketService> svc;
        if (socket) svc.emplace(answering(script));
        plat_endpoint *ep = socket ? svc->ep() : fake.ep();
        ASSERT_NE(ep, nullptr);
        for (size_t i = 0; i < n; ++i) {
            const auto &r = requests[i / answers.size() % std::size(requests)];
            const Answer &a = script[i];
            const bool want = i >= n / 2;
            void *reply = &reply;
            uint32_t len = uint32_t(r.payload.size());
            errno = 0;
            const void *p = r.payload.empty() ? nullptr : r.payload.data();
            void **out = want ? &reply : nullptr;
            const int32_t result =
                r.remote ? dlg_remote_req_resp(r.msg_type, r.opcode, p, out, &len, r.opt_a, r.opt_b, r.sap, 0xFE000001u, ep, r.timeout)
                         : dlg_req_resp(r.msg_type, r.opcode, p, out, &len, r.opt_a, r.opt_b, r.sap, ep, r.timeout);
            const int err = errno;
            std::optional<Bytes> got;
            if (want && reply != nullptr) got = bytes_of(reply, a.reply ? a.reply->size() : 0);
            if (want) std::free(reply);
            const std::optional<Bytes> handed = want ? a.reply : std::nullopt;
            const uint32_t len_after = a.result != 0 ? uint32_t(r.payload.size()) : a.reply ? uint32_t(a.reply->size()) : 0;
            EXPECT_EQ(std::tuple(result, result == -1 ? err : 0, len, got),
                      std::tuple(a.result, a.err, len_after, handed))
                << (socket ? "socket" : "in-process") << " case " << i;
        }
        std::vector<Sent> sent = fake.sent();
        if (socket) {
            sent.clear();
            for (const Call &c : svc->stop()) sent.push_back(c.sent());
        }
        ASSERT_EQ(sent.size(), n);
        for (size_t i = 0; i < n; ++i) {
            const auto &r = requests[i / answers.size() % std::size(requests)];
            EXPECT_EQ(sent[i].want_reply, i >= n / 2) << i;
            sent[i].want_reply = false;
            EXPECT_EQ(sent[i].summary(), r.summary) << i;
            EXPECT_EQ(sent[i].payload, r.payload) << i;
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

TEST(Socket, SendAnswersQueuedUnderTheirTokens) {
    const Bytes req = {0xA, 0xB, 0xC, 0xD};
    const xqb_send_opts request{.request = 1};
    // Answers to sends: queued when they carry reply bytes, with the result as status when not 0.
    const std::vector<Answer> send_answers = {Answer{0, 0, Bytes{1, 2, 3}, 0}, Answer{0, 0, Bytes{4}, 77},
                                              Answer::reply_with({}, 42), Answer::failure(EIO),
                                              Answer::none()};
    auto sends = [&](plat_endpoint *ep) {
        EXPECT_EQ(dlg_send_request(8626, 1, req.data(), 4, nullptr, 0, 0xFE000000u, 110, ep, 31), 0);
        EXPECT_EQ(dlg_send_request(8626, 2, nullptr, 0, "ZFX", 3, 0, 111, ep, 32), 0);
        EXPECT_EQ(xqb_send(ep, 0xFFFFFC00u, 7, 9, req.data(), 4, nullptr, 0, &request), 0);
        EXPECT_EQ(xqb_send(ep, 1, 2, 3, req.data(), 2, nullptr, 5, nullptr), 0);
        EXPECT_EQ(dlg_send_request(1, 1, nullptr, 0, nullptr, 0, 0, 110, ep, 0), 0);
    };
    SocketService svc([&](Peer &p) {
        std::vector<Call> pending;
        for (size_t i = 0; i <= send_answers.size(); ++i)
            if (auto c = p.call()) pending.push_back(*c);
        // The answers to the sends come while the waited request (the last call) waits.
        for (size_t i = send_answers.size(); i-- > 0;) p.answer(pending[i], send_answers[i]);
        p.answer(pending.back(), Answer::reply_with({5}));
        // A receive waits for an answer that comes later.
        if (auto c = p.call()) {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            p.answer(*c, Answer::reply_with({6}));
        }
        p.call();  // stays until the program closes
    });
    ASSERT_NE(svc.ep(), nullptr);
    sends(svc.ep());
    void *reply = nullptr;
    uint32_t len = 0;
    ASSERT_EQ(dlg_req_resp(1, 1, nullptr, &reply, &len, nullptr, 0, 110, svc.ep(), 1), 0);
    EXPECT_EQ(bytes_of(reply, len), Bytes{5});
    std::free(reply);
    EXPECT_EQ(plat_endpoint_pending(svc.ep()), 3u);
    plat_msg *msg = nullptr;
    ASSERT_EQ(plat_endpoint_recv(svc.ep(), 2, &msg), 0);
    EXPECT_EQ(received(msg), std::tuple(8626u, 2u, 0u, 111u, 32u, 2u, 77, Bytes{4}));
    xqb_msg held = XQB_MSG_EMPTY;
    const xqb_recv_opts by_token{.select = XQB_SELECT_TOKEN, .wait = 1, .token = 3};
    ASSERT_EQ(xqb_recv(svc.ep(), &held, &by_token), 0);
    EXPECT_EQ(received(std::exchange(held.msg, nullptr)),
              std::tuple(0u, 9u, 0xFFFFFC00u, 7u, 0u, 3u, 42, Bytes{}));
    ASSERT_EQ(plat_endpoint_recv(svc.ep(), 0, &msg), 0);
    EXPECT_EQ(received(msg), std::tuple(8626u, 1u, 0xFE000000u, 110u, 31u, 1u, 0, Bytes{1, 2, 3}));

    ASSERT_EQ(xqb_send(svc.ep(), 1, 2, 3, nullptr, 0, &held, 0, &request), 0);
    const xqb_recv_opts late{.select = XQB_SELECT_TOKEN, .wait = 1, .token = xqb_rr_token_get(&held)};
    ASSERT_EQ(xqb_recv(svc.ep(), &held, &late), 0);
    void *payload = xqb_payload_get(&held, &len);
    EXPECT_EQ(bytes_of(payload, len), Bytes{6});
    // Nothing more comes: the receive gives up after its wait.
    EXPECT_EQ(xqb_recv(svc.ep(), &held, &late), -1);
    EXPECT_EQ(errno, EAGAIN);
    xqb_drop(svc.ep(), &held);

    // The same sends through the in-process transport: the same calls, field for field.
    FakeService fake;
    sends(fake.ep());
    const std::vector<Call> &calls = svc.stop();
    ASSERT_EQ(calls.size(), fake.sent().size() + 2);
    for (size_t i = 0; i < fake.sent().size(); ++i) {
        const Sent got = calls[i].sent(), &want = fake.sent()[i];
        EXPECT_EQ(std::tuple(got.token, got.payload, got.summary()), std::tuple(want.token, want.payload, want.summary())) << i;
    }
}

TEST(Socket, TimeoutDropsTheLateAnswer) {
    SocketService svc([](Peer &p) {
        auto first = p.call(), second = p.call();  // the second comes once the first timed out
        if (first && second) {
            p.answer(*first, Answer::reply_with({1}));
            // The answer in two pieces, cut inside its header: the program waits for the rest.
            const Bytes b = Peer::frame(*second, Answer::reply_with({2, 2}));
            p.raw(Bytes(b.begin(), b.begin() + 30));
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            p.raw(Bytes(b.begin() + 30, b.end()));
        }
    });
    ASSERT_NE(svc.ep(), nullptr);
    void *reply = nullptr;
    uint32_t len = 3;
    const uint8_t req[3] = {};
    EXPECT_EQ(dlg_req_resp(1, 1, req, &reply, &len, nullptr, 0, 110, svc.ep(), 1), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_EQ(len, 3u);
    EXPECT_EQ(reply, nullptr);
    ASSERT_EQ(dlg_req_resp(1, 2, req, &reply, &len, nullptr, 0, 110, svc.ep(), 5), 0);
    EXPECT_EQ(bytes_of(reply, len), (Bytes{2, 2}));
    std::free(reply);
    EXPECT_EQ(plat_endpoint_pending(svc.ep()), 0u);
    // Refused before anything is written: nothing of it is read.
    EXPECT_EQ(dlg_send_request(1, 1, req, PLAT_FRAME_PAYLOAD_MAX + 1, nullptr, 0, 0, 110, svc.ep(), 0), -1);
    EXPECT_EQ(errno, EMSGSIZE);
    EXPECT_EQ(svc.stop().size(), 2u);
}

TEST(Socket, BrokenServiceFailsOnceThenNotConnected) {
    const Bytes answer_head = good_header();  // the answer to the first call, 8 bytes of body to come
    struct Row {
        std::string what;
        Bytes sent;  // what the service writes before it hangs up
        int err;
    };
    std::vector<Row> rows = {
        {"hangs up", {}, ECONNRESET},
        {"half a header", Bytes(answer_head.begin(), answer_head.begin() + 40), ECONNRESET},
        {"body cut short", cat({answer_head, zeros(7)}), ECONNRESET},
        {"garbage", Bytes(PLAT_FRAME_HEADER_SIZE, 0xFF), EPROTO},
        {"a call frame", corrupted({"", 4, 1u << 16 | PLAT_FRAME_CALL, 0}), EPROTO},
    };
    for (const Corrupt &c : kCorrupt) rows.push_back({c.what, corrupted(c), EPROTO});
    for (const Row &row : rows) {
        for (bool receiving : {false, true}) {
            SocketService svc([&](Peer &p) {
                if (p.call()) p.raw(row.sent);
            });
            ASSERT_NE(svc.ep(), nullptr);
            uint32_t len = 0;
            xqb_msg held = XQB_MSG_EMPTY;
            const xqb_recv_opts any{.wait = 1};
            errno = 0;
            if (receiving) {
                ASSERT_EQ(dlg_send_request(1, 1, nullptr, 0, nullptr, 0, 0, 110, svc.ep(), 0), 0);
                EXPECT_EQ(xqb_recv(svc.ep(), &held, &any), -1) << row.what;
            } else {
                EXPECT_EQ(dlg_req_resp(1, 1, nullptr, nullptr, &len, nullptr, 0, 110, svc.ep(), 1), -1)
                    << row.what;
            }
            EXPECT_EQ(errno, row.err) << row.what << (receiving ? " (receiving)" : "");
            EXPECT_EQ(dlg_req_resp(1, 1, nullptr, nullptr, &len, nullptr, 0, 110, svc.ep(), 1), -1);
            EXPECT_EQ(errno, ENOTCONN);
            EXPECT_EQ(xqb_recv(svc.ep(), &held, &any), -1);
            EXPECT_EQ(errno, ENOTCONN);
        }
    }
    // Writing to a service that is gone fails; it does not raise SIGPIPE.
    SocketService gone([](Peer &p) { p.hang_up(); });
    gone.join();
    const Bytes big(1u << 16, 1);
    EXPECT_EQ(dlg_send_request(1, 1, big.data(), uint32_t(big.size()), nullptr, 0, 0, 110, gone.ep(), 0), -1);
    EXPECT_EQ(errno, ECONNRESET);
    EXPECT_EQ(dlg_send_request(1, 1, nullptr, 0, nullptr, 0, 0, 110, gone.ep(), 0), -1);
    EXPECT_EQ(errno, ENOTCONN);
}

TEST(Socket, ConnectFailures) {
    char dir[] = "/tmp/zfx-socket-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    const std::string base = dir, file = base + "/file", stale = base + "/stale";
    std::fclose(std::fopen(file.c_str(), "w"));
    const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);  // bound, never listening
    sockaddr_un addr{.sun_family = AF_UNIX};
    stale.copy(addr.sun_path, sizeof addr.sun_path - 1);
    ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
    // The longest path a socket address holds, and one byte more.
    const std::string longest = base + "/" + std::string(sizeof addr.sun_path - 2 - base.size(), 'n'),
                      too_long = longest + "n", missing = base + "/missing";
    const struct {
        const char *path;
        int err;
    } cases[] = {
        {nullptr, EINVAL},
        {"", EINVAL},
        {missing.c_str(), ENOENT},
        {longest.c_str(), ENOENT},
        {too_long.c_str(), ENAMETOOLONG},
        {file.c_str(), ECONNREFUSED},
        {stale.c_str(), ECONNREFUSED},
    };
    for (const auto &c : cases) {
        errno = 0;
        EXPECT_EQ(plat_endpoint_open_socket(c.path), nullptr) << (c.path ? c.path : "NULL");
        EXPECT_EQ(errno, c.err) << (c.path ? c.path : "NULL");
    }
    ::close(fd);
    for (const std::string &f : {file, stale}) ::unlink(f.c_str());
    ::rmdir(dir);
}

}  // namespace
