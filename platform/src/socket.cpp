// The socket transport: an endpoint's operations as frames over a Unix-domain stream socket.
//
// The socket is non-blocking; every operation runs one loop (Conn::run) that writes what is left
// of the call, reads whatever the service has sent and hands out each whole answer frame, and
// otherwise sleeps in poll() until its deadline. Reading goes on while a call is being written,
// so that a service blocked on writing answers the program has not read yet cannot leave both
// sides waiting on each other.
#include "platform/socket.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>

#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#include "endpoint_impl.hpp"
#include "platform/frame.h"

namespace {

constexpr size_t kReadChunk = 64u << 10;
// A receive buffer grown beyond this for a large answer is released once it is empty again.
constexpr size_t kKeepBuffer = 1u << 20;
// Reads per turn of the loop before the deadline is looked at again: a service that never
// stops sending cannot hold an operation past its wait.
constexpr int kReadsPerTurn = 16;

uint64_t now_ns() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return uint64_t(ts.tv_sec) * 1000000000u + uint64_t(ts.tv_nsec);
}

uint64_t deadline_after(uint32_t seconds) {
    return now_ns() + uint64_t(seconds != 0 ? seconds : PLAT_SOCKET_DEFAULT_WAIT) * 1000000000u;
}

// Milliseconds left before the deadline, rounded up so that poll() never wakes early; 0 once
// it has passed.
int ms_left(uint64_t deadline) {
    const uint64_t now = now_ns();
    if (now >= deadline) return 0;
    const uint64_t ms = (deadline - now + 999999u) / 1000000u;
    return ms > uint64_t(INT_MAX) ? INT_MAX : int(ms);
}

bool is_waited(uint32_t op) { return op == PLAT_OP_REQ_RESP || op == PLAT_OP_REMOTE; }
bool is_send(uint32_t op) { return op == PLAT_OP_SEND_REQUEST || op == PLAT_OP_RAW_SEND; }

// What one operation waits for. It is reached when the call frame is written, the answer
// carrying seq has come (seq 0: none awaited), and, for a receive, a message for its token is
// queued.
struct Goal {
    iovec iov[3] = {};  // what is left to write: header, option A, payload
    int iov_count = 0;
    size_t sent = 0;  // bytes of the call frame written so far
    uint32_t seq = 0;
    bool answered = false;
    plat_frame answer{};
    int answer_err = 0;  // ENOMEM when the answer's payload could not be kept
    bool receive = false;
    uint32_t token = 0;

    bool written() const { return iov_count == 0; }
};

struct Conn {
    int fd = -1;
    uint32_t next_seq = 1;
    // 0 while the connection works. Once it broke: the errno the next failing operation
    // reports (ECONNRESET, EPROTO, ...), and ENOTCONN from then on.
    int broken = 0;
    // Bytes read and not yet handed out: [start, end) of data, which holds cap bytes.
    uint8_t *data = nullptr;
    size_t start = 0, end = 0, cap = 0;
    size_t need = PLAT_FRAME_HEADER_SIZE;  // bytes the frame at start needs in all
    // The payload of the last waited answer, which the caller copies before the next call.
    uint8_t *reply = nullptr;

    ~Conn() {
        if (fd >= 0) ::close(fd);
        std::free(data);
        std::free(reply);
    }

    // Drops the connection; the operation under way reports err unless it reached its goal.
    void fail(int err) {
        if (broken == 0) broken = err;
        if (fd >= 0) ::close(fd);
        fd = -1;
    }

    // The errno of an operation on a broken connection: why it broke, once; then ENOTCONN.
    int take_broken() {
        const int err = broken;
        broken = ENOTCONN;
        return err;
    }

    int run(plat_endpoint *ep, Goal &g, uint64_t deadline);
    int read_some(plat_endpoint *ep, Goal &g);
    int hand_out(plat_endpoint *ep, Goal &g);
    void deliver(plat_endpoint *ep, Goal &g, const plat_frame &f, const uint8_t *body);
    int write_some(Goal &g);
    bool reserve(size_t more);
};

// Runs the connection until the goal is reached (0) or the deadline passes (ETIMEDOUT), or the
// connection fails (its errno; the connection is then dropped).
int Conn::run(plat_endpoint *ep, Goal &g, uint64_t deadline) {
    for (;;) {
        int err = write_some(g);
        if (err == 0) err = read_some(ep, g);
        if (err != 0) {
            fail(err);
            return err;
        }
        if (g.written() && (g.seq == 0 || g.answered) &&
            (!g.receive || plat::endpoint_has_message(ep, g.token)))
            return 0;
        const int ms = ms_left(deadline);
        if (ms == 0) return ETIMEDOUT;
        pollfd p{fd, short(POLLIN | (g.written() ? 0 : POLLOUT)), 0};
        if (poll(&p, 1, ms) < 0 && errno != EINTR) {
            err = errno;
            fail(err);
            return err;
        }
    }
}

bool Conn::reserve(size_t more) {
    if (start != 0) {  // what is left is the beginning of one frame: move it to the front
        std::memmove(data, data + start, end - start);
        end -= start;
        start = 0;
    }
    if (cap - end >= more) return true;
    auto *grown = static_cast<uint8_t *>(std::realloc(data, end + more));
    if (grown == nullptr) return false;
    data = grown;
    cap = end + more;
    return true;
}

int Conn::read_some(plat_endpoint *ep, Goal &g) {
    for (int turn = 0; turn < kReadsPerTurn; ++turn) {
        // A chunk at least; for a large frame, room that doubles with what has come of it up to
        // the frame's size, so that a length the service claims costs memory only as its bytes
        // arrive.
        const size_t have = end - start;
        size_t want = kReadChunk;
        if (need > have + want) want = std::min(need - have, std::max(want, have));
        if (!reserve(want)) return ENOMEM;
        const ssize_t n = ::recv(fd, data + end, want, MSG_DONTWAIT);
        if (n < 0) {
            if (errno == EINTR) continue;
            if (errno == EAGAIN || errno == EWOULDBLOCK) return 0;
            return errno == EPIPE ? ECONNRESET : errno;
        }
        if (n == 0) return ECONNRESET;  // the service closed the connection
        end += size_t(n);
        if (const int err = hand_out(ep, g)) return err;
        if (size_t(n) < want) return 0;  // nothing more was waiting
    }
    return 0;
}

// Hands out every whole frame at the front of the buffer.
int Conn::hand_out(plat_endpoint *ep, Goal &g) {
    while (end - start >= PLAT_FRAME_HEADER_SIZE) {
        plat_frame f;
        const int32_t r = plat_frame_decode(data + start, end - start, PLAT_FRAME_PAYLOAD_MAX, &f);
        // A service answers; it never calls. Either way the stream cannot be followed further.
        if (r != PLAT_FRAME_OK || f.kind != PLAT_FRAME_ANSWER) return EPROTO;
        need = plat_frame_size(&f);
        if (end - start < need) return 0;
        const uint8_t *body = data + start + PLAT_FRAME_HEADER_SIZE + f.opt_a_length;
        deliver(ep, g, f, body);
        start += need;
        need = PLAT_FRAME_HEADER_SIZE;
    }
    if (start == end) {
        start = end = 0;
        if (cap > kKeepBuffer) {
            std::free(data);
            data = nullptr;
            cap = 0;
        }
    }
    return 0;
}

// One answer frame: the awaited answer is kept for the caller, an answer to a send with reply
// bytes is queued on the endpoint, anything else (the late answer of a request that timed out)
// is dropped.
void Conn::deliver(plat_endpoint *ep, Goal &g, const plat_frame &f, const uint8_t *body) {
    const bool has_reply = (f.flags & PLAT_FRAME_HAS_PAYLOAD) != 0;
    if (g.seq != 0 && f.seq == g.seq && !g.answered && is_waited(f.op)) {
        g.answered = true;
        g.answer = f;
        if (has_reply && f.payload_length != 0) {
            reply = static_cast<uint8_t *>(std::malloc(f.payload_length));
            if (reply != nullptr)
                std::memcpy(reply, body, f.payload_length);
            else
                g.answer_err = ENOMEM;
        }
        return;
    }
    if (is_send(f.op) && has_reply) {
        const plat_msg_info info{
            f.msg_type, f.opcode, f.node, f.sap, f.tag, f.token, f.result != 0 ? f.result : f.reply_status};
        // A reply that cannot be kept is lost as if the service had never sent it: the
        // receiver waiting for it gives up after its wait.
        if (plat_msg *msg = plat_msg_new(&info, body, f.payload_length)) plat_endpoint_post(ep, msg);
    }
}

int Conn::write_some(Goal &g) {
    while (!g.written()) {
        msghdr mh{};
        mh.msg_iov = g.iov;
        mh.msg_iovlen = size_t(g.iov_count);
        const ssize_t n = ::sendmsg(fd, &mh, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (n < 0) {
            if (errno == EINTR) continue;
            if (errno == EAGAIN || errno == EWOULDBLOCK) return 0;
            return errno == EPIPE ? ECONNRESET : errno;
        }
        g.sent += size_t(n);
        size_t done = size_t(n);
        int first = 0;
        while (first < g.iov_count && done >= g.iov[first].iov_len) done -= g.iov[first++].iov_len;
        if (first < g.iov_count) {
            g.iov[first].iov_base = static_cast<uint8_t *>(g.iov[first].iov_base) + done;
            g.iov[first].iov_len -= done;
        }
        std::memmove(g.iov, g.iov + first, sizeof(iovec) * size_t(g.iov_count - first));
        g.iov_count -= first;
    }
    return 0;
}

void fail_answer(plat_answer *answer, int err) {
    answer->result = -1;
    answer->err = err;
}

// A receive: whatever has arrived is queued; then, when nothing for the token is queued, more
// is awaited until the wait ends. Finding nothing is not a failure here: the endpoint's search
// of its queue reports EAGAIN.
void receive(Conn &c, plat_endpoint *ep, const plat_call &call, plat_answer *answer) {
    Goal g;
    g.receive = true;
    g.token = call.token;
    const int err = c.run(ep, g, deadline_after(call.timeout));
    // Messages that arrived before the connection broke are still handed over; the next
    // operation reports the break.
    if (err != 0 && err != ETIMEDOUT && !plat::endpoint_has_message(ep, call.token))
        fail_answer(answer, c.take_broken());
}

void socket_call(void *ctx, plat_endpoint *ep, const plat_call *call, plat_answer *answer) {
    auto &c = *static_cast<Conn *>(ctx);
    std::free(c.reply);  // the previous answer's bytes have been copied by now
    c.reply = nullptr;
    if (c.broken != 0) return fail_answer(answer, c.take_broken());
    if (call->op == PLAT_OP_RECV) return receive(c, ep, *call, answer);
    if (!is_waited(call->op) && !is_send(call->op)) return fail_answer(answer, EINVAL);
    if (call->payload == nullptr && call->length != 0) return fail_answer(answer, EINVAL);
    // Refused here rather than by the service, which would have to drop the connection.
    if (call->length > PLAT_FRAME_PAYLOAD_MAX) return fail_answer(answer, EMSGSIZE);

    Goal g;
    const uint32_t seq = c.next_seq++;
    if (c.next_seq == 0) c.next_seq = 1;  // 0 means "no answer awaited"
    const plat_frame frame = plat_frame_for_call(call, seq);
    uint8_t header[PLAT_FRAME_HEADER_SIZE];
    plat_frame_encode(&frame, header);
    g.iov[g.iov_count++] = iovec{header, sizeof header};
    if (frame.opt_a_length != 0)
        g.iov[g.iov_count++] = iovec{const_cast<char *>(call->opt_a), frame.opt_a_length};
    if (frame.payload_length != 0)
        g.iov[g.iov_count++] = iovec{const_cast<void *>(call->payload), frame.payload_length};
    const bool waited = is_waited(call->op);
    if (waited) g.seq = seq;
    // A send waits only for its frame to be written, as long as a request would.
    const int err = c.run(ep, g, deadline_after(waited ? call->timeout : 0));
    if (err != 0 && !(g.written() && (!waited || g.answered))) {
        if (err != ETIMEDOUT) return fail_answer(answer, c.take_broken());
        // Half a frame on the wire cannot be taken back: the connection is no longer usable.
        if (g.sent != 0 && !g.written()) c.fail(ENOTCONN);
        return fail_answer(answer, ETIMEDOUT);
    }
    if (!waited) return;
    if (g.answer_err != 0) return fail_answer(answer, g.answer_err);
    static const uint8_t empty = 0;
    answer->result = g.answer.result;
    answer->err = g.answer.err;
    answer->reply_status = g.answer.reply_status;
    if ((g.answer.flags & PLAT_FRAME_HAS_PAYLOAD) != 0) {
        answer->reply = c.reply != nullptr ? c.reply : &empty;
        answer->reply_length = g.answer.payload_length;
    }
}

void socket_close(void *ctx) { delete static_cast<Conn *>(ctx); }

}  // namespace

extern "C" {

plat_endpoint *plat_endpoint_open_socket(const char *path) {
    sockaddr_un addr{};
    if (path == nullptr || path[0] == '\0') {
        errno = EINVAL;
        return nullptr;
    }
    const size_t len = strnlen(path, sizeof addr.sun_path);
    if (len == sizeof addr.sun_path) {  // no room for the terminator
        errno = ENAMETOOLONG;
        return nullptr;
    }
    addr.sun_family = AF_UNIX;
    std::memcpy(addr.sun_path, path, len);
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) return nullptr;
    // A Unix-domain connect does not wait: it succeeds, or fails at once (EAGAIN when the
    // service's backlog is full).
    const int r = ::connect(fd, reinterpret_cast<const sockaddr *>(&addr), sizeof addr);
    auto *c = r == 0 ? new (std::nothrow) Conn : nullptr;
    if (c == nullptr) {
        const int err = r == 0 ? ENOMEM : errno;
        ::close(fd);
        errno = err;
        return nullptr;
    }
    c->fd = fd;
    static const plat_transport transport{socket_call, socket_close};
    plat_endpoint *ep = plat_endpoint_open(&transport, c);
    if (ep == nullptr) {
        delete c;
        errno = ENOMEM;
    }
    return ep;
}

}  // extern "C"
