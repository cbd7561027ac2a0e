// zfxd's event loop against clients that break the rules: frames of every bad kind, frames left
// half sent, answers left unread, more connections than it takes. Each such client is logged and
// dropped, and a well-behaved client is served all along.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <thread>

#include "bytes.hpp"
#include "platform/frame.h"
#include "platform/socket.h"
#include "store.hpp"
#include "zfx_service.h"
#include "zfxd_under_test.hpp"

namespace {

using zfxtest::Bytes;

// zfxd on an in-memory store, serving a socket from a thread, logging to a file the test reads.
class Running {
public:
    explicit Running(zfxd::Limits limits) : zfxd_(std::make_unique<zfxtest::ZfxdUnderTest>(prefix_.config(), zfxtest::ZfxdUnderTest::Options{zfxtest::Transport::socket, nullptr, limits, log_})) {}
    ~Running() {
        zfxd_.reset();  // stopped before its log closes
        std::fclose(log_);
        std::filesystem::remove(log_path_);
    }
    const std::string &socket() const { return zfxd_->socket(); }
    std::string log() const {
        std::ifstream in(log_path_);
        return std::string(std::istreambuf_iterator<char>(in), {});
    }
    // A raw connection, for the test to write whatever bytes it likes.
    int raw() const {
        const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un a{};
        a.sun_family = AF_UNIX;
        std::strcpy(a.sun_path, socket().c_str());
        EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr *>(&a), sizeof a), 0);
        timeval tv{3, 0};  // no test waits longer for the service to hang up
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
        return fd;
    }

private:
    zfxtest::Prefix prefix_;
    std::string log_path_ = std::filesystem::temp_directory_path() / ("zfxd-log-" + std::to_string(getpid()));
    std::FILE *log_ = std::fopen(log_path_.c_str(), "w");
    std::unique_ptr<zfxtest::ZfxdUnderTest> zfxd_;
};

// True when the service hangs up on fd: everything it still sends is read, then the end.
bool hung_up(int fd) {
    char buf[4096];
    for (;;) {
        const ssize_t n = recv(fd, buf, sizeof buf, 0);
        if (n == 0) return true;
        if (n < 0) return false;  // the receive timed out: still connected
    }
}

// A served client: a query waiting at most one second (the bound every hostile client must leave
// the others) is answered.
bool served(const Running &r) {
    plat_endpoint *ep = plat_endpoint_open_socket(r.socket().c_str());
    zfx_info_record *reply = ep != nullptr ? zfx_dlg_get_info_with_timeout(ep, ZFXD_INFO_ZONES, 1) : nullptr;
    const bool ok = reply != nullptr;
    std::free(reply);
    plat_endpoint_close(ep);
    return ok;
}

Bytes header(std::function<void(plat_frame &)> edit, uint32_t payload = 4) {
    plat_call call{};
    call.op = PLAT_OP_REQ_RESP;
    call.msg_type = 8626;
    call.opcode = 1;
    call.sap = 110;
    call.length = payload;
    call.payload = "";
    plat_frame f = plat_frame_for_call(&call, 1);
    edit(f);
    Bytes out(PLAT_FRAME_HEADER_SIZE);
    plat_frame_encode(&f, out.data());
    return out;
}

void put_be32(Bytes &b, size_t at, uint32_t v) {
    for (int i = 0; i < 4; ++i) b[at + i] = uint8_t(v >> (24 - 8 * i));
}

TEST(ZfxdServer, ClientsThatBreakTheRulesAreLoggedAndDroppedWhileOthersAreServed) {
    Running r(zfxd::Limits{8, 300, 64u << 10});
    struct Row {
        const char *what;
        Bytes bytes;
        const char *logged;
    };
    Bytes wrong_version = header([](plat_frame &) {}), reserved = header([](plat_frame &) {});
    put_be32(wrong_version, 4, 2u << 16 | PLAT_FRAME_CALL);
    put_be32(reserved, 76, 1);
    const Bytes whole = zfxtest::cat({header([](plat_frame &) {}), zfxtest::zeros(4)});
    const Row rows[] = {
        {"garbage", Bytes(100, 'x'), "bad frame: not a frame"},
        {"another version", wrong_version, "bad frame: a frame of another version"},
        {"an unknown kind", header([](plat_frame &f) { f.kind = 7; }), "bad frame: an unknown frame kind"},
        {"an answer", header([](plat_frame &f) { f.kind = PLAT_FRAME_ANSWER; }), "an answer where a call belongs"},
        {"a receive", header([](plat_frame &f) { f.op = PLAT_OP_RECV; }), "bad frame: an unknown operation"},
        {"unknown flags", header([](plat_frame &f) { f.flags |= 0x80; }), "bad frame: flags"},
        {"a reserved word", reserved, "bad frame: flags"},
        {"a payload above the limit", header([](plat_frame &f) { f.payload_length = ZFXD_MAX_REQUEST + 1; }),
         "bad frame: a frame longer than allowed"},
        {"a good frame, then garbage", zfxtest::cat({whole, Bytes(80, 0xff)}), "bad frame: not a frame"},
        {"half a header, then nothing", Bytes(whole.begin(), whole.begin() + 40), "a frame left unfinished"},
        {"a header without its payload", Bytes(whole.begin(), whole.end() - 2), "a frame left unfinished"},
    };
    for (const Row &row : rows) {
        const int fd = r.raw();
        ASSERT_EQ(send(fd, row.bytes.data(), row.bytes.size(), MSG_NOSIGNAL), ssize_t(row.bytes.size())) << row.what;
        EXPECT_TRUE(served(r)) << row.what;
        EXPECT_TRUE(hung_up(fd)) << row.what;
        close(fd);
        EXPECT_NE(r.log().find(row.logged), std::string::npos) << row.what << "\n" << r.log();
    }
    EXPECT_TRUE(served(r));
}

TEST(ZfxdServer, AClientThatNeverReadsItsAnswersIsDropped) {
    Running r(zfxd::Limits{8, 300, 16u << 10});
    const int fd = r.raw();
    const Bytes query = zfxtest::cat({header([](plat_frame &) {}), zfxtest::zeros(4)});
    Bytes many;
    for (int i = 0; i < 4000; ++i) many.insert(many.end(), query.begin(), query.end());
    // The service stops reading it once its answers pile up; the send may then block, so it runs
    // beside the check.
    std::thread flood([&] { send(fd, many.data(), many.size(), MSG_NOSIGNAL); });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_TRUE(served(r));
    std::this_thread::sleep_for(std::chrono::milliseconds(600));
    EXPECT_NE(r.log().find("answers left unread"), std::string::npos) << r.log();
    shutdown(fd, SHUT_RDWR);
    flood.join();
    close(fd);
    EXPECT_TRUE(served(r));
}

TEST(ZfxdServer, AtTheConnectionLimitTheLongestIdleConnectionMakesRoom) {
    Running r(zfxd::Limits{3, 300, 64u << 10});
    int fds[3];
    for (int &fd : fds) {
        fd = r.raw();
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    EXPECT_TRUE(served(r));  // the fourth connection: the first one goes
    EXPECT_TRUE(hung_up(fds[0]));
    EXPECT_NE(r.log().find("idle the longest while 3 connections are open"), std::string::npos) << r.log();
    for (int fd : fds) close(fd);
}

}  // namespace
