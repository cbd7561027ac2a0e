// The event loop: the listening socket, the connections, their frames.
#include "server.hpp"

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "platform/frame.h"
#include "platform/socket.h"
#include "zfx_common.h"
#include "zfxd_protocol.h"

namespace zfxd {

// A connection: what it has sent that is not yet a whole frame, and the answers it has not read.
struct Server::Client {
    int fd = -1;
    Peer peer;
    Bytes in;
    Bytes out;
    size_t out_at = 0;        // bytes of out already written
    int64_t last_seen = 0;    // when it last sent or read something (ms, monotonic)
    int64_t partial_since = 0; // when the frame it has half sent began to arrive; 0: none
    int64_t unread_since = 0;  // since when its answers wait without one byte read; 0: none
    size_t pending() const { return out.size() - out_at; }
    bool idle() const { return in.empty() && pending() == 0; }
    // When it runs out of time (0: never), and why.
    int64_t deadline(int64_t timeout, const char *&why) const {
        const int64_t a = partial_since != 0 ? partial_since + timeout : 0, b = unread_since != 0 ? unread_since + timeout : 0;
        why = a != 0 && (b == 0 || a <= b) ? "a frame left unfinished" : "answers left unread";
        return a != 0 && (b == 0 || a <= b) ? a : b;
    }
};

namespace {

constexpr size_t kReadChunk = 64u << 10;

int64_t now_ms() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return int64_t(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

std::string errno_text(const char *what) { return std::string(what) + ": " + std::strerror(errno); }

}  // namespace

Server::Server(Service &service, Limits limits) : service_(service), limits_(limits) {}

Server::~Server() {
    for (auto &c : clients_) close(c->fd);
    if (listen_fd_ >= 0) {
        close(listen_fd_);
        unlink(path_.c_str());
    }
    if (lock_fd_ >= 0) close(lock_fd_);
}

std::string Server::listen(const std::string &path, mode_t mode) {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof addr.sun_path) return path + ": not a usable socket path (1 to 107 bytes)";
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    const std::string lock = path + ".lock";
    lock_fd_ = open(lock.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (lock_fd_ < 0) return errno_text(lock.c_str());
    if (flock(lock_fd_, LOCK_EX | LOCK_NB) != 0)
        return path + ": another zfxd is serving this socket (" + lock + " is locked)";
    // Holding the lock, whatever socket file is there was left by a zfxd that is gone.
    if (unlink(path.c_str()) != 0 && errno != ENOENT) return errno_text(path.c_str());
    listen_fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (listen_fd_ < 0) return errno_text("socket");
    // The socket is born with the mode it keeps: no moment in which others could connect.
    const mode_t old = umask(0777 & ~mode);
    const int bound = bind(listen_fd_, reinterpret_cast<sockaddr *>(&addr), sizeof addr);
    umask(old);
    if (bound != 0) return errno_text(path.c_str());
    path_ = path;
    if (chmod(path.c_str(), mode) != 0) return errno_text(path.c_str());
    if (::listen(listen_fd_, 64) != 0) return errno_text("listen");
    return "";
}

void Server::drop(Client &c, const std::string &why) {
    service_.log(0, "uid " + std::to_string(c.peer.uid) + " pid " + std::to_string(c.peer.pid) + ": connection dropped: " + why);
    close(c.fd);
    c.fd = -1;
}

void Server::accept_clients() {
    for (;;) {
        const int fd = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (fd < 0) {
            if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR && errno != ECONNABORTED)
                service_.log(0, errno_text("accept"));
            return;
        }
        auto c = std::make_unique<Client>();
        c->fd = fd;
        ucred cred{};
        socklen_t len = sizeof cred;
        if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) == 0) c->peer = Peer{cred.uid, cred.pid};
        c->last_seen = now_ms();
        if (clients_.size() >= limits_.clients) {
            // Room is made by closing the connection idle the longest: a program that holds
            // connections it does not use cannot keep the others out.
            Client *oldest = nullptr;
            for (const auto &other : clients_)
                if (other->fd >= 0 && other->idle() && (oldest == nullptr || other->last_seen < oldest->last_seen)) oldest = other.get();
            if (oldest == nullptr) {
                drop(*c, "too many connections (" + std::to_string(limits_.clients) + "), none of them idle");
                continue;
            }
            drop(*oldest, "idle the longest while " + std::to_string(limits_.clients) + " connections are open");
            std::erase_if(clients_, [](const std::unique_ptr<Client> &x) { return x->fd < 0; });
        }
        service_.log(2, "uid " + std::to_string(c->peer.uid) + " pid " + std::to_string(c->peer.pid) + ": connected");
        clients_.push_back(std::move(c));
    }
}

// Reads what the client sent and answers every whole frame. false: the client was dropped.
bool Server::read_from(Client &c) {
    uint8_t buf[kReadChunk];
    const ssize_t n = recv(c.fd, buf, sizeof buf, 0);
    if (n == 0) {
        service_.log(2, "uid " + std::to_string(c.peer.uid) + " pid " + std::to_string(c.peer.pid) + ": disconnected");
        close(c.fd);
        c.fd = -1;
        return false;
    }
    if (n < 0) {
        if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) return true;
        drop(c, errno_text("recv"));
        return false;
    }
    c.in.insert(c.in.end(), buf, buf + n);
    c.last_seen = now_ms();
    return serve(c);
}

// Answers the whole frames the client has sent, while its unread answers allow. false: dropped.
bool Server::serve(Client &c) {
    size_t at = 0;
    bool incomplete = false;  // what is left is less than a frame (rather than held back)
    while (c.pending() < pause_reading()) {
        plat_frame f;
        const int32_t r = plat_frame_decode(c.in.data() + at, c.in.size() - at, ZFXD_MAX_REQUEST, &f);
        if (r == PLAT_FRAME_SHORT) {
            incomplete = true;
            break;
        }
        if (r != PLAT_FRAME_OK) {
            drop(c, std::string("bad frame: ") + plat_frame_error_text(r));
            return false;
        }
        if (f.kind != PLAT_FRAME_CALL) {
            drop(c, "bad frame: an answer where a call belongs");
            return false;
        }
        if (c.in.size() - at < plat_frame_size(&f)) {
            incomplete = true;
            break;
        }
        const uint8_t *payload = c.in.data() + at + PLAT_FRAME_HEADER_SIZE + f.opt_a_length;
        const Answer a = service_.dispatch(Request{f.op, f.msg_type, f.opcode, f.sap, payload, f.payload_length}, c.peer);
        at += plat_frame_size(&f);
        // A waited request that asked for no reply gets none, nor does a raw message sent without
        // the request option; sends get theirs queued.
        const bool with_reply = a.has_reply && (f.want_reply != 0 || f.op == PLAT_OP_SEND_REQUEST);
        // An empty reply (the end of the device walk) is still a reply, not none.
        static const uint8_t empty = 0;
        const uint8_t *bytes = a.reply.empty() ? &empty : a.reply.data();
        const plat_answer answer{a.result, 0, with_reply ? bytes : nullptr, with_reply ? uint32_t(a.reply.size()) : 0, 0};
        const plat_frame out = plat_frame_for_answer(&f, &answer);
        const size_t start = c.out.size();
        c.out.resize(start + PLAT_FRAME_HEADER_SIZE);
        plat_frame_encode(&out, c.out.data() + start);
        if (with_reply) c.out.insert(c.out.end(), a.reply.begin(), a.reply.end());
    }
    c.in.erase(c.in.begin(), c.in.begin() + long(at));
    if (c.pending() != 0 && c.unread_since == 0) c.unread_since = now_ms();
    // A frame begun and not finished starts its clock; one finished (or none begun) stops it.
    if (!incomplete || c.in.empty()) c.partial_since = 0;
    else if (at != 0 || c.partial_since == 0) c.partial_since = now_ms();
    if (c.pending() > limits_.pending_out) {
        drop(c, "answers left unread beyond " + std::to_string(limits_.pending_out) + " bytes");
        return false;
    }
    return true;
}

bool Server::write_to(Client &c) {
    while (c.pending() != 0) {
        const ssize_t n = send(c.fd, c.out.data() + c.out_at, c.pending(), MSG_NOSIGNAL);
        if (n < 0) {
            if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) break;
            drop(c, errno_text("send"));
            return false;
        }
        c.out_at += size_t(n);
        c.last_seen = now_ms();
        c.unread_since = c.pending() != 0 ? c.last_seen : 0;
    }
    if (c.pending() == 0) {
        c.out.clear();
        c.out_at = 0;
    }
    return true;
}

int Server::run(volatile std::sig_atomic_t &stop) {
    // The stopping signals are let in only while the loop waits, so that one that comes between
    // the check of stop and the wait still ends the wait.
    sigset_t stopping, waiting;
    sigemptyset(&stopping);
    sigaddset(&stopping, SIGINT);
    sigaddset(&stopping, SIGTERM);
    sigprocmask(SIG_BLOCK, &stopping, &waiting);
    sigdelset(&waiting, SIGINT);
    sigdelset(&waiting, SIGTERM);
    std::vector<pollfd> fds;
    while (stop == 0) {
        fds.clear();
        fds.push_back({listen_fd_, POLLIN, 0});
        for (const auto &c : clients_) {
            short events = 0;
            if (c->pending() < pause_reading()) events |= POLLIN;
            if (c->pending() != 0) events |= POLLOUT;
            fds.push_back({c->fd, events, 0});
        }
        // The wait ends in time for the first half-sent frame that runs out of time.
        int64_t wake = -1;
        const char *why = nullptr;
        for (const auto &c : clients_) {
            const int64_t at = c->deadline(limits_.frame_timeout_ms, why);
            if (at != 0 && (wake < 0 || at < wake)) wake = at;
        }
        timespec limit{};
        if (wake >= 0) {
            const int64_t ms = std::max<int64_t>(0, wake - now_ms());
            limit = timespec{time_t(ms / 1000), long(ms % 1000) * 1000000};
        }
        if (ppoll(fds.data(), fds.size(), wake >= 0 ? &limit : nullptr, &waiting) < 0) {
            if (errno == EINTR) continue;
            service_.log(0, errno_text("poll"));
            return 1;
        }
        for (size_t i = 0; i < clients_.size(); ++i) {
            Client &c = *clients_[i];
            const short got = fds[i + 1].revents;
            if ((got & POLLOUT) != 0) {
                if (!write_to(c)) continue;
                // Frames held back while the answers piled up are served now.
                if (!c.in.empty() && c.pending() < pause_reading() && serve(c) && c.pending() != 0) write_to(c);
                if (c.fd < 0) continue;
            }
            if ((got & (POLLIN | POLLHUP | POLLERR)) != 0 && c.fd >= 0) {
                // Whatever is answered at once goes out at once, so a client that waits for it is
                // not held up by the next poll.
                if (read_from(c) && c.pending() != 0) write_to(c);
            }
        }
        const int64_t now = now_ms();
        for (const auto &c : clients_) {
            const int64_t at = c->deadline(limits_.frame_timeout_ms, why);
            if (c->fd >= 0 && at != 0 && now >= at) drop(*c, std::string(why) + " for " + std::to_string(limits_.frame_timeout_ms) + " ms");
        }
        std::erase_if(clients_, [](const std::unique_ptr<Client> &c) { return c->fd < 0; });
        if ((fds[0].revents & POLLIN) != 0) accept_clients();
    }
    return 0;
}

ServerThread::ServerThread(Service &service, const std::string &path, Limits limits)
    : server_(service, limits), path_(path), error_(server_.listen(path, 0600)) {
    if (error_.empty()) thread_ = std::thread([this] { server_.run(stop_); });
}

ServerThread::~ServerThread() {
    if (!thread_.joinable()) return;
    stop_ = 1;
    plat_endpoint_close(plat_endpoint_open_socket(path_.c_str()));  // a connection wakes the loop to see the stop
    thread_.join();
}

}  // namespace zfxd
