// zfxd's event loop against clients that break the rules: frames of every bad kind, frames left
// half sent, answers left unread, more connections than it takes. Each such client is logged and
// dropped, and a well-behaved client is served all along.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <thread>
#include <tuple>

#include "frame_faults.hpp"
#include "store.hpp"
#include "zfx_service.h"
#include "zfxd_under_test.hpp"

namespace {

using namespace zfxtest;

// A raw connection, for the test to write whatever bytes it likes.
int raw(const ZfxdUnderTest &d) {
    const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un a{.sun_family = AF_UNIX};
    d.socket().copy(a.sun_path, sizeof a.sun_path - 1);
    EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr *>(&a), sizeof a), 0);
    timeval tv{3, 0};  // no test waits longer for the service to hang up
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    return fd;
}

// True when the service hangs up on fd: everything it still sends is read, then the end.
bool hung_up(int fd) {
    char buf[4096];
    ssize_t n;
    while ((n = recv(fd, buf, sizeof buf, 0)) > 0) continue;
    return n == 0;  // below 0: the receive timed out, still connected
}

// A served client: a query waiting at most one second (the bound every hostile client must leave
// the others) is answered.
bool served(const ZfxdUnderTest &d) {
    plat_endpoint *ep = plat_endpoint_open_socket(d.socket().c_str());
    zfx_info_record *reply = ep != nullptr ? zfx_dlg_get_info_with_timeout(ep, ZFXD_INFO_ZONES, 1) : nullptr;
    const bool ok = reply != nullptr;
    std::free(reply);
    plat_endpoint_close(ep);
    return ok;
}

// One zfxd for every case: at most 3 connections, 300 ms to finish a frame or start reading
// answers, at most 16 KiB of answers unread.
TEST(ZfxdServer, ClientsThatBreakTheRulesAreLoggedAndDroppedWhileOthersAreServed) {
    Prefix prefix;
    ZfxdUnderTest d(prefix.config(), {Transport::socket, nullptr, {3, 300, 16u << 10}});
    const Bytes call = cat({frame_header(PLAT_FRAME_CALL), zeros(8)});  // answered with a status
    std::vector<std::tuple<std::string, Bytes, std::string>> rows = {  // what, the bytes sent, the log line
        {"an answer", with_word(call, 4, 1u << 16 | PLAT_FRAME_ANSWER), "bad frame: an answer where a call belongs"},
        {"a payload above zfxd's limit", with_word(call, 72, ZFXD_MAX_REQUEST + 1), "bad frame: a frame longer than allowed"},
        {"a good frame, then garbage", cat({call, Bytes(80, 0xff)}), "bad frame: not a frame"},
        {"half a header, then nothing", Bytes(call.begin(), call.begin() + 40), "a frame left unfinished"},
        {"a header without its payload", Bytes(call.begin(), call.end() - 2), "a frame left unfinished"},
    };
    for (const FrameFault &f : kFrameFaults)
        rows.emplace_back(f.what, with_word(call, f.at, f.value), std::string("bad frame: ") + plat_frame_error_text(f.result));
    for (const auto &[what, bytes, logged] : rows) {
        const size_t before = d.log().size();
        const int fd = raw(d);
        ASSERT_EQ(send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL), ssize_t(bytes.size())) << what;
        EXPECT_TRUE(served(d)) << what;
        EXPECT_TRUE(hung_up(fd)) << what;
        close(fd);
        EXPECT_NE(d.log().find(logged, before), std::string::npos) << what << "\n" << d.log();
    }

    // At the connection limit the connection idle the longest makes room for the new one.
    int fds[3];
    for (int &fd : fds) {
        fd = raw(d);
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    size_t before = d.log().size();
    EXPECT_TRUE(served(d));
    EXPECT_TRUE(hung_up(fds[0]));
    EXPECT_NE(d.log().find("idle the longest while 3 connections are open", before), std::string::npos) << d.log();
    for (int fd : fds) close(fd);

    // A client that never reads its answers: zfxd stops reading it once they pile up, so the
    // send may block and runs beside the checks.
    const int fd = raw(d);
    Bytes many;
    for (int i = 0; i < 4000; ++i) many.insert(many.end(), call.begin(), call.end());
    before = d.log().size();
    std::thread flood([&] { send(fd, many.data(), many.size(), MSG_NOSIGNAL); });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_TRUE(served(d));
    std::this_thread::sleep_for(std::chrono::milliseconds(600));
    EXPECT_NE(d.log().find("answers left unread", before), std::string::npos) << d.log();
    shutdown(fd, SHUT_RDWR);
    flood.join();
    close(fd);
    EXPECT_TRUE(served(d));
}

}  // namespace
