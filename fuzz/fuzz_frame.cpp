// Frames from arbitrary bytes. The decoder: a header it accepts keeps every length within the
// limits and the flags, says how long the whole frame is, and encodes back to the same 80 bytes;
// a header it refuses leaves the caller's record alone. Then the same bytes as all a service
// sends on a socket endpoint before it closes: a waited request gets exactly the answer carrying
// its number, or the failure a frame-by-frame reading of the bytes predicts (ECONNRESET at their
// end, EPROTO at a bad frame); the receives after it end with that failure.
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "fuzz_input.hpp"
#include "platform/dlg.h"
#include "platform/frame.h"
#include "platform/socket.h"

using zfxfuzz::finding;

namespace {

void check_decode(const std::vector<uint8_t> &bytes, uint32_t max_payload) {
    plat_frame f{};
    f.seq = 0xDEADBEEF;
    const int32_t r = plat_frame_decode(bytes.data(), bytes.size(), max_payload, &f);
    if (plat_frame_error_text(r) == nullptr) finding("a result without a text");
    if ((r == PLAT_FRAME_SHORT) != (bytes.size() < PLAT_FRAME_HEADER_SIZE))
        finding("short iff fewer than 80 bytes");
    if (r != PLAT_FRAME_OK) {
        if (r < PLAT_FRAME_TOO_LONG || r > PLAT_FRAME_SHORT) finding("an undocumented result");
        if (f.seq != 0xDEADBEEF) finding("a refused header written out");
        return;
    }
    const uint32_t limit = max_payload < PLAT_FRAME_PAYLOAD_MAX ? max_payload : PLAT_FRAME_PAYLOAD_MAX;
    if (f.kind != PLAT_FRAME_CALL && f.kind != PLAT_FRAME_ANSWER) finding("an unknown kind accepted");
    if (f.op < PLAT_OP_REQ_RESP || f.op > PLAT_OP_RAW_SEND || f.op == PLAT_OP_RECV || f.want_reply > 1)
        finding("an unknown operation accepted");
    if ((f.flags & ~(PLAT_FRAME_HAS_PAYLOAD | PLAT_FRAME_HAS_OPT_A)) != 0 ||
        (f.payload_length != 0 && !(f.flags & PLAT_FRAME_HAS_PAYLOAD)) ||
        (f.opt_a_length != 0 && !(f.flags & PLAT_FRAME_HAS_OPT_A)))
        finding("lengths that contradict the flags");
    if (f.opt_a_length > PLAT_FRAME_OPT_A_MAX || f.payload_length > limit)
        finding("a length above its limit");
    if (plat_frame_size(&f) != PLAT_FRAME_HEADER_SIZE + size_t(f.opt_a_length) + f.payload_length)
        finding("the frame's size");
    uint8_t again[PLAT_FRAME_HEADER_SIZE];
    plat_frame_encode(&f, again);
    if (std::memcmp(again, bytes.data(), sizeof again) != 0) finding("encode(decode(x)) differs from x");
    // The header alone decodes the same: nothing past it is read.
    const std::vector<uint8_t> header(bytes.begin(), bytes.begin() + PLAT_FRAME_HEADER_SIZE);
    plat_frame alone{};
    if (plat_frame_decode(header.data(), header.size(), max_payload, &alone) != PLAT_FRAME_OK ||
        std::memcmp(&alone, &f, sizeof f) != 0)
        finding("the header decodes differently alone");
}

// A socket endpoint connected to a service's end (*service), made for one input. The socket's
// path is gone again once the two are connected: a run leaves nothing behind, however it ends.
plat_endpoint *connected(int *service) {
    char dir[] = "/tmp/zfx-fuzz-frame-XXXXXX";
    if (mkdtemp(dir) == nullptr) finding("temporary directory");
    const std::string path = std::string(dir) + "/service";
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    path.copy(addr.sun_path, sizeof addr.sun_path - 1);
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (::bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0 || ::listen(fd, 1) != 0)
        finding("listen");
    plat_endpoint *ep = plat_endpoint_open_socket(path.c_str());
    *service = ::accept(fd, nullptr, nullptr);
    ::close(fd);
    ::unlink(path.c_str());
    ::rmdir(dir);
    if (ep == nullptr || *service < 0) finding("connect");
    return ep;
}

// What a socket endpoint makes of a service's bytes, read frame by frame: the answer to its
// first call (seq 1) when one comes before the stream ends or turns bad, and why it ends.
struct Expected {
    bool answered = false;
    plat_frame answer{};
    const uint8_t *reply = nullptr;
    uint32_t replies = 0;  // answers to sends with reply bytes: what can be queued
    int end = ECONNRESET;
};

Expected model(const std::vector<uint8_t> &bytes) {
    Expected e;
    for (size_t at = 0; at < bytes.size();) {
        plat_frame f;
        const int32_t r = plat_frame_decode(bytes.data() + at, bytes.size() - at, PLAT_FRAME_PAYLOAD_MAX, &f);
        if (r == PLAT_FRAME_SHORT) break;
        if (r != PLAT_FRAME_OK || f.kind != PLAT_FRAME_ANSWER) {
            e.end = EPROTO;
            break;
        }
        if (bytes.size() - at < plat_frame_size(&f)) break;
        if (!e.answered && f.seq == 1 && (f.op == PLAT_OP_REQ_RESP || f.op == PLAT_OP_REMOTE)) {
            e.answered = true;
            e.answer = f;
            e.reply = bytes.data() + at + PLAT_FRAME_HEADER_SIZE + f.opt_a_length;
        } else if ((f.op == PLAT_OP_SEND_REQUEST || f.op == PLAT_OP_RAW_SEND) &&
                   (f.flags & PLAT_FRAME_HAS_PAYLOAD)) {
            ++e.replies;
        }
        at += plat_frame_size(&f);
    }
    return e;
}

// The bytes as everything a service sends before it closes the connection.
void check_stream(const std::vector<uint8_t> &bytes) {
    int fd;
    plat_endpoint *ep = connected(&fd);
    // A fuzzer's input fits in the socket's buffer: written before anything reads it.
    if (::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) != ssize_t(bytes.size())) finding("service");
    ::shutdown(fd, SHUT_WR);
    const Expected e = model(bytes);

    static const uint8_t request[7] = {};
    void *reply = nullptr;
    uint32_t len = sizeof request;
    const int32_t r = dlg_req_resp(1, 1, request, &reply, &len, "ZFX", 0, 110, ep, 1);
    const int err = errno;
    if (!e.answered) {
        if (r != -1 || err != e.end) finding("a failure other than the stream's end");
    } else if (r != e.answer.result || (r == -1 && err != e.answer.err)) {
        finding("a result other than the answer's");
    } else if (r != -1) {
        const bool has = (e.answer.flags & PLAT_FRAME_HAS_PAYLOAD) != 0;
        const uint32_t n = has ? e.answer.payload_length : 0;
        if ((reply != nullptr) != has || (r == 0 && len != n) || (r != 0 && len != sizeof request) ||
            (n != 0 && std::memcmp(reply, e.reply, n) != 0))
            finding("reply bytes other than the answer's");
    }
    std::free(reply);

    // Queued replies are taken until the stream's end is reported; after a failed request the
    // endpoint is no longer connected.
    plat_msg *msg = nullptr;
    uint32_t taken = 0;
    for (; plat_endpoint_recv(ep, 0, &msg) == 0; ++taken) plat_msg_free(msg);
    if (errno != (e.answered ? e.end : ENOTCONN)) finding("a receive that did not fail as told");
    if (taken > e.replies) finding("more replies than the service sent");
    plat_endpoint_close(ep);
    ::close(fd);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    zfxfuzz::Input in(data, size);
    const uint32_t max_payload = in.take<uint32_t>();
    const std::vector<uint8_t> bytes = in.rest();
    if (bytes.size() > 65536) return 0;  // beyond what one socket buffer is sure to hold
    check_decode(bytes, max_payload);
    check_stream(bytes);
    return 0;
}
