// zfxd: the feature's service for development machines. It owns the zone database of a store
// directory, answers the library's requests on a Unix-domain socket and writes every accepted
// change to the store, in one transaction, before it answers.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "cli.hpp"
#include "fabric.hpp"
#include "fabric_file.hpp"
#include "server.hpp"
#include "store_guard.hpp"
#include "zfxd_protocol.h"

namespace {

const char kUsage[] =
    "usage: zfxd --store DIR [--fabric FILE] [--socket PATH] [--socket-mode MODE]\n"
    "\n"
    "Serves the zone database of the store directory DIR (its configuration store\n"
    "DIR/zfx_startup_config, created when missing) on a Unix-domain socket: zone, zoneset and\n"
    "member changes and queries, activation, status, info and zoneset status requests, as the\n"
    "library sends them. Every accepted change is in the store before it is answered; at start\n"
    "the database is rebuilt from the store. The routing, raw-message and device requests (device\n"
    "entries, per-VSAN values, name-server entries, native and proxy domains, next hops, NAT,\n"
    "frames handed over) are answered from the fabric description FILE, an empty fabric without.\n"
    "\n"
    "  --store DIR         the store directory (required); one zfxd per store\n"
    "  --fabric FILE       the fabric description: lines of\n"
    "                        device PWWN fcid FCID vsans RANGES [afid N] [value N]\n"
    "                               [per-vsan V:N,...] [node WWN] [name TEXT]\n"
    "                        native-domain VSAN DOMAIN\n"
    "                        proxy-domains VSAN DOMAIN[,DOMAIN...]\n"
    "                        next-hop VSAN DOMAIN NEXT-VSAN\n"
    "                        nat VSAN NEXT-VSAN SID DID NEW-SID NEW-DID\n"
    "                      (# comments); a bad line is refused as FILE:LINE: what is wrong, and so\n"
    "                      is a device AFID the store's topology and AFID tables do not hold\n"
    "  --socket PATH       the socket to listen on (default: $" ZFXD_SOCKET_ENV ", else " ZFXD_SOCKET_DEFAULT ")\n"
    "  --socket-mode MODE  the socket's permissions, octal (default 0600: its owner only;\n"
    "                      0660 lets its group in)\n"
    "  --help              this text\n"
    "\n"
    "Logs to standard error: every change with the uid and pid of the client that made it,\n"
    "refused requests and dropped connections. SIGTERM or SIGINT stops it.\n"
    "Exit status: 0 stopped by a signal, 1 it could not start or serve, 2 the command line is wrong.\n";

volatile std::sig_atomic_t g_stop = 0;

void on_stop(int) { g_stop = 1; }

int usage_error(const std::string &what) {
    std::fprintf(stderr, "zfxd: %s\n(zfxd --help tells how to use it)\n", what.c_str());
    return zfxtool::kExitUsage;
}

}  // namespace

int main(int argc, char **argv) {
    zfxtool::Args args(argc, argv, 1);
    std::string dir, fabric_path, error;
    const char *env_socket = std::getenv(ZFXD_SOCKET_ENV);
    std::string socket = env_socket != nullptr && *env_socket != '\0' ? env_socket : ZFXD_SOCKET_DEFAULT;
    mode_t mode = 0600;
    while (!args.done()) {
        const std::string opt = args.take();
        if (opt == "--help" || opt == "-h") {
            std::fputs(kUsage, stdout);
            return zfxtool::kExitOk;
        }
        if (opt == "--store") {
            if (!args.value(opt, dir, error)) return usage_error(error);
        } else if (opt == "--fabric") {
            if (!args.value(opt, fabric_path, error)) return usage_error(error);
        } else if (opt == "--socket") {
            if (!args.value(opt, socket, error)) return usage_error(error);
        } else if (opt == "--socket-mode") {
            std::string text;
            if (!args.value(opt, text, error)) return usage_error(error);
            char *end = nullptr;
            const unsigned long m = std::strtoul(text.c_str(), &end, 8);
            if (text.empty() || *end != '\0' || m > 0777 || (m & 0600) != 0600)
                return usage_error("--socket-mode takes an octal mode from 0600 to 0777 that lets the owner in, not '" + text + "'");
            mode = mode_t(m);
        } else {
            return usage_error("unknown argument '" + opt + "'");
        }
    }
    if (dir.empty()) return usage_error("--store DIR is required");

    std::error_code ec;
    std::filesystem::create_directories(dir, ec);
    if (ec) {
        std::fprintf(stderr, "zfxd: %s: %s\n", dir.c_str(), ec.message().c_str());
        return zfxtool::kExitFailure;
    }
    // One zfxd per store: two would each believe their memory is the database.
    const std::string lock = dir + "/zfxd.lock";
    const int lock_fd = open(lock.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (lock_fd < 0 || flock(lock_fd, LOCK_EX | LOCK_NB) != 0) {
        std::fprintf(stderr, "zfxd: %s: another zfxd serves this store (%s is locked)\n", dir.c_str(), lock.c_str());
        return zfxtool::kExitFailure;
    }

    // The store is read whole once under the guard, so that damage ends the start with a message,
    // never a signal, before zfxd builds on it.
    zfxtool::guard_store_reads("zfxd");
    const std::string location = zfxtool::config_location(dir);
    zfxd::ZoneDb db;
    zfxd::FabricDesc fabric;
    {
        const zfxtool::StoreGuard guard(location);
        if (zfxtool::walk_store(location) == zfxtool::StoreState::damaged) {
            std::fprintf(stderr, "zfxd: %s\n", zfxtool::damaged_text(location).c_str());
            return zfxtool::kExitFailure;
        }
        error = db.open(location);
        if (error.empty() && !fabric_path.empty()) zfxd::load_fabric(fabric_path, zfxd::store_afids(location), fabric, error);
    }
    if (!error.empty()) {
        std::fprintf(stderr, "zfxd: %s\n", error.c_str());
        return zfxtool::kExitFailure;
    }
    zfxd::Service service(db, stderr, &fabric);
    zfxd::Server server(service);
    error = server.listen(socket, mode);
    if (!error.empty()) {
        std::fprintf(stderr, "zfxd: %s\n", error.c_str());
        return zfxtool::kExitFailure;
    }
    struct sigaction sa {};
    sa.sa_handler = on_stop;
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
    service.log(0, "serving " + dir + " on " + socket + " (" + std::to_string(db.zones().size()) + " zones, " +
                       std::to_string(db.zonesets().size()) + " zonesets" + (db.active() ? ", " + db.active()->name + " active" : "") + ", " +
                       std::to_string(fabric.devices.size()) + " devices)");
    const int rc = server.run(g_stop);
    service.log(0, "stopped");
    return rc == 0 ? zfxtool::kExitOk : zfxtool::kExitFailure;
}
