// Routing lookups: the load-balancing hash, generated zone names, VSAN WWNs, the forwarding
// driver's native and next-hop VSANs, the inter-VSAN flow test, and the service's next-hop and
// NAT answers.
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <atomic>

#include "platform/tcam.h"
#include "platform/wwnsvc.h"
#include "zfx_request.hpp"
#include "zfx_service.h"

namespace zfx {

namespace {

constexpr uint32_t kOpRemote = 2;
constexpr uint32_t kRemoteTimeout = 1;  // frames are waiting: the answer is needed at once
constexpr uint32_t kVsanWwnReplySize = 16;
constexpr uint32_t kNatNextHopMax = 4096;

// The descriptor of the forwarding device plus one: 0 (the value at load) means not open. It is
// opened once per process and never closed; racing first callers each open it, one descriptor
// is kept and the others are closed.
std::atomic<int> g_fcfwd_fd_plus1{0};

// The open descriptor, or -1 with errno from the failed open.
int fcfwd_fd() {
    const int known = g_fcfwd_fd_plus1.load(std::memory_order_acquire);
    if (known != 0) return known - 1;
    const int fd = ::open(ZFX_FCFWD_PATH, O_RDONLY);
    if (fd < 0) return -1;
    int expected = 0;
    if (g_fcfwd_fd_plus1.compare_exchange_strong(expected, fd + 1, std::memory_order_acq_rel))
        return fd;
    ::close(fd);  // another thread's descriptor won
    return expected - 1;
}

// One control call on the forwarding device, opened first when it is not yet: 0, or the errno
// code of the open or of the call. refused: a request the driver must not see, answered
// ZFX_ERR_INVALID_VALUE once the device is open.
int32_t fcfwd_call(unsigned long request, void *arg, bool refused = false) {
    const int fd = fcfwd_fd();
    if (fd < 0) return errno_status();
    if (refused) return ZFX_ERR_INVALID_VALUE;
    return ::ioctl(fd, request, arg) != 0 ? errno_status() : 0;
}

// A remote request to the service; the reply when one of at least need bytes came back.
Block ask_remote(plat_endpoint *ep, uint32_t msg_type, const void *request, uint32_t length,
                 uint32_t need) {
    Block reply;
    const int32_t r = exchange(ep,
                               {.msg_type = msg_type,
                                .opcode = kOpRemote,
                                .request = request,
                                .length = length,
                                .timeout = kRemoteTimeout,
                                .opt_a = ZFX_SERVICE_NAME,
                                .node = ZFX_NODE_REMOTE},
                               &reply);
    if (r != 0 || !reply.holds(need)) reply.slot();
    return reply;
}

}  // namespace

}  // namespace zfx

using namespace zfx;

extern "C" {

int32_t zfx2_software_load_balancing_vsan_sid_did_hash(uint32_t vsan, uint32_t sid, uint32_t did,
                                                       uint32_t, uint32_t, uint32_t, uint8_t npaths,
                                                       uint8_t *path) {
    if (path == nullptr) return ZFX_ERR_INVALID_ARG;
    *path = npaths != 0 ? uint8_t((vsan ^ sid ^ did) % npaths) : 0;
    return 0;
}

int32_t zfx_is_zfx_zone(const char *name) {
    return name != nullptr && std::strncmp(name, ZFX_ZONE_PREFIX, sizeof ZFX_ZONE_PREFIX - 1) == 0;
}

int32_t zfx_get_vsan_wwn_from_switch_wwn(const uint8_t *switch_wwn, uint32_t kind, uint32_t vsan,
                                         uint8_t *wwn) {
    if (kind == 0 || wwn == nullptr) return ZFX_ERR_INVALID_ARG;
    std::memset(wwn, 0, 8);
    if (vsan > ZFX_VSAN_MAX) return ZFX_ERR_INVALID_VALUE;
    vsan_bitset set;
    vsan_bitset_init(&set);
    vsan_bitset_set_bit(&set, int32_t(vsan));
    const Block reply(mem_alloc(kVsanWwnReplySize));
    if (!reply) return 0;
    const int32_t r = wwnsvc_get_vsan_wwn(switch_wwn, &set, reply.get());
    if (r != 0) return r;
    std::memcpy(wwn, reply.bytes() + 8, 8);
    return 0;
}

int32_t zfx_ioc_get_native_vsan(uint32_t vsan, uint32_t sid, uint32_t did, uint16_t flow,
                                uint32_t *native) {
    if (native == nullptr) return ZFX_ERR_INVALID_ARG;
    *native = vsan;
    zfx_fcfwd_native_vsan_arg arg{.vsan = vsan, .sid = sid, .did = did, .flow = flow};
    const int32_t r = fcfwd_call(ZFX_FCFWD_IOC_NATIVE_VSAN, &arg);
    if (r == 0) *native = arg.native_vsan;
    return r;
}

int32_t zfx_ioc_get_next_hop_vsan(uint32_t vsan, uint32_t did, uint32_t *next_hop) {
    if (next_hop == nullptr) return ZFX_ERR_INVALID_ARG;
    zfx_fcfwd_next_hop_arg arg{.vsan = vsan,
                               .did = did,
                               .domain_mask = ZFX_FCFWD_DOMAIN_MASK,
                               .addr_mask = ZFX_FCFWD_ADDR_MASK};
    const bool beyond_domains = ((did & ZFX_FCFWD_DOMAIN_MASK) >> 8) > ZFX_DOMAIN_MAX;
    const int32_t r = fcfwd_call(ZFX_FCFWD_IOC_NEXT_HOP, &arg, beyond_domains);
    if (r == 0) *next_hop = arg.next_hop;
    return r;
}

int32_t zfx_is_zfx_flow(uint32_t vsan, uint32_t sid, uint32_t did, uint32_t ifindex, uint16_t flow,
                        uint32_t *flag) {
    if (flag == nullptr) return ZFX_ERR_INVALID_VALUE;
    *flag = 0;
    uint32_t family_a = 0;
    int32_t r = tcam_is_family_a_interface(ifindex, &family_a);
    if (r != 0) return r;
    // Family A forwards by next hop; the others are asked for the flow's native VSAN.
    uint32_t other;
    r = family_a ? zfx_ioc_get_next_hop_vsan(vsan, did, &other)
                 : zfx_ioc_get_native_vsan(vsan, sid, did, flow, &other);
    if (r != 0) return r;
    *flag = other != vsan;
    return 0;
}

int32_t zfx_get_next_hop_vsan(plat_endpoint *ep, uint32_t vsan, uint32_t did, uint32_t *next_hop) {
    if (next_hop == nullptr) return ZFX_ERR_INVALID_ARG;
    zfx_next_hop_request req;
    store_be32(&req.vsan, vsan);
    req.did = did;
    const Block reply = ask_remote(ep, ZFX_MSG_NEXT_HOP_VSAN, &req, sizeof req, 4);
    *next_hop = reply ? load_be32(reply.bytes()) : vsan;
    return 0;
}

int32_t zfx_nat_get_next_hop_info(plat_endpoint *ep, uint32_t *vsan, uint32_t *sid, uint32_t *did) {
    if (vsan == nullptr || sid == nullptr || did == nullptr) return ZFX_ERR_INVALID_ARG;
    uint32_t next_hop;
    if (zfx_ioc_get_next_hop_vsan(*vsan, *did, &next_hop) != 0 || next_hop > kNatNextHopMax ||
        next_hop == *vsan)
        return 0;
    zfx_nat_next_hop_request req;
    store_be32(&req.vsan, *vsan);
    store_be32(&req.next_hop, next_hop);
    req.sid = *sid;
    req.did = *did;
    const Block reply =
        ask_remote(ep, ZFX_MSG_NAT_NEXT_HOP, &req, sizeof req, sizeof(zfx_nat_next_hop_reply));
    if (reply) {
        *vsan = next_hop;
        *sid = load_le32(reply.bytes() + offsetof(zfx_nat_next_hop_reply, sid));
        *did = load_le32(reply.bytes() + offsetof(zfx_nat_next_hop_reply, did));
    }
    return 0;
}

}  // extern "C"
