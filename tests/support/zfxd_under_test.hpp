// zfxd on a store, for the service's suites: reached in process (the service's dispatch answering
// each call of the in-process transport) or over its socket (the server's loop on a thread of its
// own), and started again on the same store on request. Its log goes to a temporary file that
// log() reads back. Header-only: it needs the service's library, which only the service's suites
// link.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
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
            ep_ = plat_endpoint_open_inproc(handle, this);
        } else {
            static int serial = 0;
            socket_ = ::testing::TempDir() + "zfxd-" + std::to_string(getpid()) + "-" + std::to_string(serial++) + ".sock";
            server_ = std::make_unique<zfxd::Server>(*service_, options_.limits);
            ASSERT_EQ(server_->listen(socket_, 0600), "");
            stop_ = 0;
            thread_ = std::thread([this] { server_->run(stop_); });
            ep_ = plat_endpoint_open_socket(socket_.c_str());
        }
        ASSERT_NE(ep_, nullptr);
    }
    void stop() {
        plat_endpoint_close(std::exchange(ep_, nullptr));
        if (thread_.joinable()) {
            stop_ = 1;
            plat_endpoint_close(plat_endpoint_open_socket(socket_.c_str()));  // a connection wakes the loop
            thread_.join();
            server_.reset();
            for (const std::string &f : {socket_, socket_ + ".lock"}) unlink(f.c_str());
        }
        service_.reset();
        db_.reset();
    }
    // A raw send that asks for no reply gets none, as over a socket.
    static void handle(void *ctx, const plat_call *call, plat_answer *answer) {
        auto *self = static_cast<ZfxdUnderTest *>(ctx);
        if (call->op == PLAT_OP_RECV) return;
        self->last_ = self->service_->dispatch({uint32_t(call->op), call->msg_type, call->opcode, call->sap,
                                                static_cast<const uint8_t *>(call->payload), call->length},
                                               zfxd::Peer{});
        static const uint8_t empty = 0;
        answer->result = self->last_.result;
        const bool reply = self->last_.has_reply && (call->op != PLAT_OP_RAW_SEND || call->want_reply != 0);
        answer->reply = reply ? (self->last_.reply.empty() ? &empty : self->last_.reply.data()) : nullptr;
        answer->reply_length = reply ? uint32_t(self->last_.reply.size()) : 0;
    }

    std::string location_;
    ZfxdOptions options_;
    std::FILE *log_ = std::tmpfile();
    std::unique_ptr<zfxd::ZoneDb> db_;
    std::unique_ptr<zfxd::Service> service_;
    zfxd::Answer last_;
    std::string socket_;
    std::unique_ptr<zfxd::Server> server_;
    std::thread thread_;
    volatile std::sig_atomic_t stop_ = 0;
    plat_endpoint *ep_ = nullptr;
};

}  // namespace zfxtest
