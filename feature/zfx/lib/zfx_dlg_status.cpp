// Status queries of the feature's service: enabled status (waited and split), NAT in a VSAN,
// the fcdomain check switch, named values ("info") and the zoneset status request.
#include <climits>

#include "platform/fmt.h"
#include "zfx_request.hpp"
#include "zfx_service.h"

namespace zfx {

namespace {

constexpr uint32_t kOpGet = 1;
constexpr uint32_t kOpSet = 3;
constexpr uint32_t kOpCheckIgnore = 3;
constexpr uint32_t kOpCheckHonour = 4;
constexpr uint32_t kStatusTimeout = 15;
constexpr uint32_t kCheckIgnoreTimeout = 5;
constexpr uint32_t kSetInfoTimeout = 10;
constexpr uint32_t kInfoDefaultTimeout = 4;
constexpr uint32_t kZonesetStatusTimeout = 10;
constexpr uint32_t kActivateTimeBytes = 12;  // key, then the two words at 4 and 8

// The three words the library converts; byte 12 (flags) is a single byte.
void status_reply_ntoh(void *reply) {
    auto *r = static_cast<uint8_t *>(reply);
    swap32_at(r);
    swap32_at(r + 4);
    swap32_at(r + 8);
}

zfx_status_query vsan_form(uint8_t kind) {
    zfx_status_query q{};
    vsan_bitset_init(&q.vsans);  // the length word stays in host order
    q.kind = kind;
    return q;
}

// The waited enabled query with either form of the request.
int32_t enabled(plat_endpoint *ep, const void *query, uint32_t length, zfx_status_reply **out) {
    if (out == nullptr) return ZFX_ERR_INVALID_ARG;
    *out = nullptr;
    Block reply;
    int32_t r = exchange(ep,
                         {.msg_type = ZFX_MSG_STATUS,
                          .opcode = kOpGet,
                          .request = query,
                          .length = length,
                          .timeout = kStatusTimeout,
                          .on_failure = OnFailure::errno_code},
                         &reply);
    if (r == 0) {
        if (reply.holds(sizeof(zfx_status_reply))) {
            status_reply_ntoh(reply.get());
            *out = static_cast<zfx_status_reply *>(reply.release());
            return 0;
        }
        r = ZFX_ERR_INVALID_ARG;  // no reply, or too short to read
    }
    // The caller always gets a readable reply that reads as "not enabled", and frees it alike.
    *out = static_cast<zfx_status_reply *>(mem_zalloc(ZFX_STATUS_REPLY_SUBSTITUTE_SIZE));
    return *out != nullptr ? r : 1;
}

// The payload of a received status reply, at least 13 bytes long; 0 or the parse result.
int32_t parse_status(plat_msg *msg, uint8_t **payload) {
    void *p;
    uint32_t len;
    const int32_t r = parse_async(msg, &p, &len);
    if (r != 0) return r;
    if (p == nullptr || len < sizeof(zfx_status_reply)) return ZFX_ERR_INVALID_ARG;
    *payload = static_cast<uint8_t *>(p);
    return 0;
}

// The info record for key, when the service answered with at least need bytes of it.
Block get_info(plat_endpoint *ep, uint32_t key, uint32_t timeout, uint32_t need) {
    zfx_info_record req{};
    store_be32(&req.key, key);
    Block reply;
    const int32_t r = exchange(ep,
                               {.msg_type = ZFX_MSG_INFO,
                                .opcode = kOpGet,
                                .request = &req,
                                .length = sizeof req,
                                .timeout = timeout},
                               &reply);
    if (r != 0 || !reply.holds(need)) reply.slot();
    return reply;
}

// The text of an info reply, when it is terminated within the reply and the record.
const char *info_text(const Block &reply) {
    if (!reply.holds(offsetof(zfx_info_record, value) + 1)) return nullptr;
    const char *text =
        reinterpret_cast<const char *>(reply.bytes()) + offsetof(zfx_info_record, value);
    const size_t room = reply.len - offsetof(zfx_info_record, value);
    return std::memchr(text, '\0', room < ZFX_INFO_TEXT_SIZE ? room : ZFX_INFO_TEXT_SIZE) != nullptr
               ? text
               : nullptr;
}

char g_info_text[ZFX_INFO_TEXT_SIZE];

}  // namespace

}  // namespace zfx

using namespace zfx;

extern "C" {

int32_t zfx_is_zfx_enabled(plat_endpoint *ep, zfx_status_reply **reply) {
    const uint32_t query = 0;
    return enabled(ep, &query, ZFX_STATUS_QUERY_SHORT_SIZE, reply);
}

int32_t zfx_is_zfx_enabled_ext(plat_endpoint *ep, zfx_status_reply **reply) {
    const zfx_status_query query = vsan_form(ZFX_STATUS_KIND_EXT);
    return enabled(ep, &query, sizeof query, reply);
}

int32_t zfx_is_zfx_enabled_send(plat_endpoint *ep, uint32_t tag) {
    const uint32_t query = 0;
    return send_async(ep, ZFX_MSG_STATUS, kOpGet, &query, ZFX_STATUS_QUERY_SHORT_SIZE, tag);
}

int32_t zfx_is_zfx_enabled_parse(plat_msg *msg, zfx_status_reply **reply) {
    if (reply == nullptr) return ZFX_ERR_INVALID_ARG;
    *reply = nullptr;
    uint8_t *payload;
    const int32_t r = parse_status(msg, &payload);
    if (r != 0) return r;
    status_reply_ntoh(payload);
    *reply = reinterpret_cast<zfx_status_reply *>(payload);
    return 0;
}

int32_t zfx_is_zfx_nat_enabled_in_vsan_send(plat_endpoint *ep, int32_t vsan, uint32_t tag) {
    if (vsan < 0 || vsan > int32_t(ZFX_VSAN_MAX)) return ZFX_ERR_INVALID_VALUE;
    zfx_status_query query = vsan_form(ZFX_STATUS_KIND_NAT);
    if (vsan != 0) vsan_bitset_set_bit(&query.vsans, vsan);
    return send_async(ep, ZFX_MSG_STATUS, kOpGet, &query, sizeof query, tag);
}

int32_t zfx_is_zfx_nat_enabled_in_vsan_parse(plat_msg *msg, uint32_t *flag) {
    if (flag != nullptr) *flag = 0;
    uint8_t *payload;
    const int32_t r = parse_status(msg, &payload);
    if (r != 0) return r;
    if (flag != nullptr)
        *flag = load_be32(payload) != 0 &&
                (payload[offsetof(zfx_status_reply, flags)] & ZFX_STATUS_FLAG_NAT);
    return 0;
}

int32_t zfx_set_fcdomain_check_ignore(plat_endpoint *ep, int32_t ignore) {
    zfx_selector sel;
    store_be32(&sel.one, 1);
    store_be32(&sel.id, 0);
    return exchange(ep, {.msg_type = ZFX_MSG_FCDOMAIN_CHECK_IGNORE,
                         .opcode = ignore ? kOpCheckIgnore : kOpCheckHonour,
                         .request = &sel,
                         .length = sizeof sel,
                         .timeout = kCheckIgnoreTimeout});
}

int32_t zfx_dlg_set_info(plat_endpoint *ep, uint32_t key, int32_t value, const char *opt_a,
                         uint32_t opt_b) {
    zfx_info_record req{};
    store_be32(&req.key, key);
    fmt_bounded(req.value, sizeof req.value, "%d", value);
    return exchange(ep, {.msg_type = ZFX_MSG_INFO,
                         .opcode = kOpSet,
                         .request = &req,
                         .length = sizeof req,
                         .timeout = kSetInfoTimeout,
                         .opt_a = opt_a,
                         .opt_b = opt_b});
}

zfx_info_record *zfx_dlg_get_info_with_timeout(plat_endpoint *ep, uint32_t key, uint32_t timeout) {
    return static_cast<zfx_info_record *>(
        get_info(ep, key, timeout, sizeof(zfx_info_record)).release());
}

zfx_info_record *zfx_dlg_get_info(plat_endpoint *ep, uint32_t key) {
    return zfx_dlg_get_info_with_timeout(ep, key, kInfoDefaultTimeout);
}

int32_t zfx_dlg_get_info_int_with_timeout(plat_endpoint *ep, uint32_t key, uint32_t timeout) {
    const Block reply = get_info(ep, key, timeout, 0);
    const char *text = info_text(reply);
    if (text == nullptr) return 0;
    // Held to 32 bits on every host, as the switch's 32-bit conversion holds it.
    const long long v = std::strtoll(text, nullptr, 10);
    return v > INT32_MAX ? INT32_MAX : v < INT32_MIN ? INT32_MIN : int32_t(v);
}

int32_t zfx_dlg_get_info_int(plat_endpoint *ep, uint32_t key) {
    return zfx_dlg_get_info_int_with_timeout(ep, key, kInfoDefaultTimeout);
}

void zfx_dlg_get_info_activate_time(plat_endpoint *ep, zfx_time_value *time) {
    if (time == nullptr) return;
    const Block reply =
        get_info(ep, ZFX_INFO_KEY_ACTIVATE_TIME, kInfoDefaultTimeout, kActivateTimeBytes);
    if (!reply) return;
    time->word[0] = load_le32(reply.bytes() + 4);
    time->word[1] = load_le32(reply.bytes() + 8);
}

char *zfx_dlg_get_info_char(plat_endpoint *ep, uint32_t key) {
    const Block reply = get_info(ep, key, kInfoDefaultTimeout, 0);
    std::memset(g_info_text, 0, sizeof g_info_text);
    if (const char *text = info_text(reply)) copy_str_to_buf(sizeof g_info_text, g_info_text, text);
    return g_info_text;
}

int32_t zfx_dlg_get_zoneset_status(plat_endpoint *ep, uint32_t opcode, uint32_t zoneset_id,
                                   void **reply) {
    zfx_selector sel;
    store_be32(&sel.one, zoneset_id == ZFX_ZONESET_ID_ALL ? 0 : 1);
    store_be32(&sel.id, zoneset_id);
    // The reply goes to the caller as the channel gives it, beside whatever result.
    Block out;
    const int32_t r = exchange(ep,
                               {.msg_type = ZFX_MSG_ZONESET_STATUS,
                                .opcode = opcode,
                                .request = &sel,
                                .length = sizeof sel,
                                .timeout = kZonesetStatusTimeout},
                               reply != nullptr ? &out : nullptr);
    if (reply != nullptr) *reply = out.release();
    return r;
}

}  // extern "C"
