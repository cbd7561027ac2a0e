// zfx_request.hpp - the request frame that every request of the library goes through: one place
// that calls the channel, maps its result, and owns the reply payload until it is handed on.
// Also the split send/parse steps and the debug lines of the request functions.
#pragma once

#include "platform/dlg.h"
#include "zfx_internal.hpp"

namespace zfx {

// A block from the standard allocator that this scope owns: a reply payload the channel
// allocated, or a message the library built. Freed when the owner goes out of scope unless it
// was handed on with release().
class Block {
public:
    Block() = default;
    explicit Block(void *p, uint32_t length = 0) : len(length), p_(p) {}
    ~Block() { std::free(p_); }
    Block(const Block &) = delete;
    Block &operator=(const Block &) = delete;
    Block(Block &&o) noexcept : len(o.len), p_(o.release()) {}
    Block &operator=(Block &&o) noexcept {
        if (this != &o) {
            *slot() = o.release();
            len = o.len;
        }
        return *this;
    }

    void *get() const { return p_; }
    uint8_t *bytes() const { return static_cast<uint8_t *>(p_); }
    explicit operator bool() const { return p_ != nullptr; }
    // True when the block is there and holds at least n bytes.
    bool holds(size_t n) const { return p_ != nullptr && len >= n; }
    void *release() {
        void *p = p_;
        p_ = nullptr;
        return p;
    }
    // Frees what is held and gives the slot for a call that stores a new block in it.
    void **slot() {
        std::free(p_);
        p_ = nullptr;
        return &p_;
    }

    uint32_t len = 0;  // bytes held (for a reply: the channel's length after the call)

private:
    void *p_ = nullptr;
};

// What becomes of a failed channel call (-1) in the function's result.
enum class OnFailure : uint8_t {
    keep,            // -1 stays -1
    errno_code,      // -1 becomes ZFX_ERR_ERRNO(errno)
    errno_negative,  // every negative result becomes ZFX_ERR_ERRNO(errno)
    channel_code     // -1 becomes ZFX_ERR_CHANNEL
};

// A platform call's result as the function returns it.
int32_t map_failure(int32_t r, OnFailure how);

// One request of the frame.
struct Exchange {
    uint32_t msg_type;
    uint32_t opcode;
    const void *request;
    uint32_t length;  // the request's bytes
    uint32_t timeout;
    const char *opt_a = nullptr;
    uint32_t opt_b = 0;
    uint32_t node = 0;  // nonzero: a remote request to that node (dlg_remote_req_resp)
    OnFailure on_failure = OnFailure::keep;
};

// Sends x to ZFX_SAP through the endpoint and waits. When reply is given it receives the reply
// payload (or nothing) and, in reply->len, the channel's length variable after the call; any
// block it held before is freed. A reply that comes beside a nonzero result is kept there too
// and freed with the Block unless the caller hands it on. length_after, when given, receives the
// length variable as well (also when no reply is wanted). Returns the channel's result mapped by
// x.on_failure.
int32_t exchange(plat_endpoint *ep, const Exchange &x, Block *reply = nullptr,
                 uint32_t *length_after = nullptr);

// Timeout of the configuration requests: the long wait of operation codes 3 and 4.
inline uint32_t config_timeout(uint32_t opcode) { return opcode == 3 || opcode == 4 ? 23 : 10; }

// The send step of a split request: dlg_send_request to ZFX_NODE_ASYNC and ZFX_SAP with option A
// opt_a, option B 0 and the caller's tag. -1 becomes ZFX_ERR_CHANNEL unless told otherwise; other
// results stay.
int32_t send_async(plat_endpoint *ep, uint32_t msg_type, uint32_t opcode, const void *request,
                   uint32_t length, uint32_t tag, const char *opt_a = nullptr,
                   OnFailure on_failure = OnFailure::channel_code);

// The parse step: dlg_parse_response on a received reply. -1 becomes ZFX_ERR_CHANNEL; other
// nonzero results stay; on 0, *payload and *length describe the payload inside the message.
int32_t parse_async(plat_msg *msg, void **payload, uint32_t *length);

// The debug lines of the zone request and query functions: printed to standard output when the
// linking process has set debug_cli.
__attribute__((format(printf, 1, 2))) void cli_debug(const char *fmt, ...);

// "%s" of a name that may be NULL, as the C library prints it.
inline const char *name_text(const char *s) { return s != nullptr ? s : "(null)"; }

}  // namespace zfx
