// zfxd on a store, for the service's suites: reached in process (the service's own in-process
// endpoint) or over its socket (the server's loop on a thread of its own), and started again on
// the same store on request. Its log goes to a temporary file that log() reads back. Header-only:
// it needs the service's library, which only the service's suites link.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <string>
#include <utility>

#include "platform/socket.h"
#include "server.hpp"
#include "service.hpp"

namespace zfxtest {

enum class Transport { inproc, socket };

struct ZfxdOptions {
    Transport transport = Transport::inproc;
    const zfxd::FabricDesc *fabric = nullptr;
    zfxd::Limits limits = {};
};

class ZfxdUnderTest {
public:
    explicit ZfxdUnderTest(std::string location, ZfxdOptions options = {}) : location_(std::move(location)), options_(options) { start(); }
    ~ZfxdUnderTest() {
        stop();
        std::fclose(log_);
    }

    // The endpoint of the test's own connection.
    plat_endpoint *ep() const { return ep_; }
    zfxd::ZoneDb &db() { return *db_; }
    const std::string &location() const { return location_; }
    const std::string &socket() const { return socket_; }
    void restart() {
        stop();
        start();
    }
    // Everything logged so far (zfxd flushes every line).
    std::string log() const {
        std::string out;
        char buf[4096];
        for (ssize_t n; (n = pread(fileno(log_), buf, sizeof buf, off_t(out.size()))) > 0;) out.append(buf, size_t(n));
        return out;
    }

private:
    void start() {
        db_ = std::make_unique<zfxd::ZoneDb>();
        ASSERT_EQ(db_->open(location_), "");
        service_ = std::make_unique<zfxd::Service>(*db_, log_, options_.fabric);
        if (options_.transport == Transport::inproc) {
            ep_ = service_->open_inproc();
        } else {
            static int serial = 0;
            socket_ = ::testing::TempDir() + "zfxd-" + std::to_string(getpid()) + "-" + std::to_string(serial++) + ".sock";
            server_ = std::make_unique<zfxd::ServerThread>(*service_, socket_, options_.limits);
            ASSERT_EQ(server_->error(), "");
            ep_ = plat_endpoint_open_socket(socket_.c_str());
        }
        ASSERT_NE(ep_, nullptr);
    }
    void stop() {
        plat_endpoint_close(std::exchange(ep_, nullptr));
        // The server takes its socket away; the lock beside it stays, as zfxd leaves it.
        if (server_ != nullptr) unlink((socket_ + ".lock").c_str());
        server_.reset();
        service_.reset();
        db_.reset();
    }

    std::string location_;
    ZfxdOptions options_;
    std::FILE *log_ = std::tmpfile();
    std::unique_ptr<zfxd::ZoneDb> db_;
    std::unique_ptr<zfxd::Service> service_;
    std::string socket_;
    std::unique_ptr<zfxd::ServerThread> server_;
    plat_endpoint *ep_ = nullptr;
};

}  // namespace zfxtest
