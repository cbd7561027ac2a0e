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
#include <vector>

#include "service.hpp"

namespace zfxd {

class Server {
public:
    explicit Server(Service &service);
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

    Service &service_;
    std::string path_;
    int listen_fd_ = -1;
    int lock_fd_ = -1;
    std::vector<std::unique_ptr<Client>> clients_;
};

}  // namespace zfxd
