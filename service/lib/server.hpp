// zfxd's event loop: one thread, poll() over the listening socket and every client connection.
// Each connection carries frames (platform/frame.h); each call frame is answered by the Service
// in the order it came. A client that breaks the protocol, sends more than a request may hold,
// or leaves more than ZFXD_MAX_PENDING_OUT answer bytes unread is logged and dropped; the others
// are served on.
#pragma once

#include <sys/types.h>

#include <csignal>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "service.hpp"
#include "zfxd_protocol.h"

namespace zfxd {

// What one client may hold of the service (the defaults are zfxd_protocol.h's).
struct Limits {
    size_t clients = ZFXD_MAX_CLIENTS;
    int64_t frame_timeout_ms = ZFXD_FRAME_TIMEOUT_MS;
    size_t pending_out = ZFXD_MAX_PENDING_OUT;
};

class Server {
public:
    explicit Server(Service &service, Limits limits = {});
    Server(const Server &) = delete;
    Server &operator=(const Server &) = delete;
    ~Server();

    // Takes the socket at path: a lock beside it (path + ".lock") keeps a second zfxd off it; a
    // socket file left by a dead zfxd is replaced. The socket gets the given mode (0600: its
    // owner only). Returns an empty string, or what is wrong.
    std::string listen(const std::string &path, mode_t mode);

    // Serves until stop becomes nonzero (a signal handler sets it). Returns 0, or 1 when the
    // loop itself failed.
    int run(volatile std::sig_atomic_t &stop);

private:
    struct Client;
    void accept_clients();
    bool read_from(Client &c);
    bool serve(Client &c);
    bool write_to(Client &c);
    void drop(Client &c, const std::string &why);
    // Answers wait in a client's buffer up to this before it stops being read: a client that does
    // not read its answers stops being served, then is dropped at limits_.pending_out.
    size_t pause_reading() const { return limits_.pending_out < (1u << 20) ? limits_.pending_out : 1u << 20; }

    Service &service_;
    Limits limits_;
    std::string path_;
    int listen_fd_ = -1;
    int lock_fd_ = -1;
    std::vector<std::unique_ptr<Client>> clients_;
};

// The server's loop on a thread of its own, for a program that serves zfxd's clients beside its
// own work (the service's suites and benchmarks do): it listens on the socket at path (as
// Server::listen takes it, mode 0600) when made, and stops and joins the loop when it goes.
class ServerThread {
public:
    ServerThread(Service &service, const std::string &path, Limits limits = {});
    ServerThread(const ServerThread &) = delete;
    ServerThread &operator=(const ServerThread &) = delete;
    ~ServerThread();

    // Empty while it serves; otherwise why it could not listen (and no loop runs).
    const std::string &error() const { return error_; }

private:
    Server server_;
    std::string path_, error_;
    volatile std::sig_atomic_t stop_ = 0;
    std::thread thread_;
};

}  // namespace zfxd
