// The walk of the service's device entries: the process-wide cursor, batches in the raw and the
// two name-server views, per-VSAN values, asynchronous sends, and the decoders of TLV-encoded
// device replies.
#include "zfx_request.hpp"
#include "zfx_service.h"
#include "zfx_tlv_walk.hpp"

namespace zfx {

namespace {

constexpr uint32_t kOpBatch = 2;
constexpr uint32_t kOpGet = 1;
constexpr uint32_t kPvVsanTimeout = 0;
constexpr uint32_t kTlvArrayOffset = 8;  // after the entry count and a word not read

// The cursor of the walk: zero at load, so a walk that never initialised a handle starts at
// the beginning.
zfx_device_entry g_cursor;

const zfx_device_entry *entry_at(const Block &reply, uint32_t i) {
    return reinterpret_cast<const zfx_device_entry *>(reply.bytes() +
                                                      size_t(i) * sizeof(zfx_device_entry));
}

// One batch after the cursor. On 0, reply holds count whole entries (a trailing partial entry
// is ignored); the cursor is left for advance(), so that a caller that fails later does not lose
// the batch.
int32_t request_batch(plat_endpoint *ep, const zfx_device_entry *cursor, Block &reply,
                      uint32_t &count) {
    const int32_t r = exchange(ep,
                               {.msg_type = ZFX_MSG_NS_DEVICE_ENTRY,
                                .opcode = kOpBatch,
                                .request = cursor,
                                .length = sizeof *cursor,
                                .timeout = ZFX_DEVICE_BATCH_TIMEOUT,
                                .opt_a = ZFX_SERVICE_NAME},
                               &reply);
    if (r != 0) return r;
    count = reply ? reply.len / uint32_t(sizeof(zfx_device_entry)) : 0;
    return 0;
}

// The next batch starts after the last device of this one.
void advance(zfx_device_entry *cursor, const Block &reply, uint32_t count) {
    if (count != 0) std::memcpy(cursor, entry_at(reply, count - 1), sizeof *cursor);
}

void free_ns_entries(zfx_device_ns_entry *entries, size_t n) {
    for (size_t i = 0; i < n; ++i) std::free(entries[i].pairs);
}

// The per-VSAN value request; reply holds whatever the channel gave.
int32_t pv_vsan_request(plat_endpoint *ep, uint32_t word0, uint32_t word1, uint32_t vsan,
                        Block *reply) {
    zfx_pv_vsan_query q;
    q.pwwn[0] = word0;
    q.pwwn[1] = word1;
    store_be32(&q.vsan, vsan);
    return exchange(ep,
                    {.msg_type = ZFX_MSG_PV_VSAN_ENTRY,
                     .opcode = kOpGet,
                     .request = &q,
                     .length = sizeof q,
                     .timeout = kPvVsanTimeout,
                     .on_failure = OnFailure::errno_negative},
                    reply);
}

// ---- name-server views of a batch -------------------------------------------------------------

bool fill_first_gen(plat_endpoint *, const zfx_device_entry &d, zfx_device_ns_entry &e) {
    std::memcpy(&e.vsans, &d.vsans, sizeof e.vsans);
    std::memcpy(e.ns_block, d.ns_block, sizeof e.ns_block);
    return true;
}

// The block and the device's pairs in ascending VSAN order; false when memory is short.
bool fill_second_gen(plat_endpoint *ep, const zfx_device_entry &d, zfx_device_ns_entry &e) {
    std::memcpy(e.ns_block, d.ns_block, sizeof e.ns_block);
    const int32_t known = vsan_bitset_bitcount(&d.vsans);
    if (known == 0) return true;
    // Sized for every VSAN of the set; VSANs whose request fails leave the tail unused.
    auto *pairs =
        static_cast<zfx_pv_vsan_pair *>(mem_zalloc_array(size_t(known), sizeof(zfx_pv_vsan_pair)));
    if (pairs == nullptr) return false;
    const bool per_vsan = (d.flags & ZFX_DEVICE_FLAG_PER_VSAN) != 0;
    uint32_t n = 0;
    for (int32_t v = vsan_bitset_first_bit(&d.vsans); v >= 0;
         v = vsan_bitset_next_bit(&d.vsans, v)) {
        uint32_t value = d.vsan_value;
        if (per_vsan) {
            Block reply;
            if (pv_vsan_request(ep, d.pwwn[0], d.pwwn[1], uint32_t(v), &reply) != 0 ||
                !reply.holds(4))
                continue;
            value = load_le32(reply.bytes());
        }
        pairs[n++] = zfx_pv_vsan_pair{uint32_t(v), value};
    }
    if (n == 0) {
        std::free(pairs);
        pairs = nullptr;
    }
    e.pair_count = n;
    e.pairs = pairs;
    return true;
}

using FillView = bool (*)(plat_endpoint *, const zfx_device_entry &, zfx_device_ns_entry &);

int32_t ns_view(plat_endpoint *ep, zfx_device_entry *cursor, zfx_device_ns_entry **entries,
                uint32_t *count, FillView fill) {
    if (cursor == nullptr || entries == nullptr || count == nullptr) return ZFX_ERR_INVALID_ARG;
    Block reply;
    uint32_t n = 0;
    if (const int32_t r = request_batch(ep, cursor, reply, n)) return r;
    auto *out =
        n != 0
            ? static_cast<zfx_device_ns_entry *>(mem_zalloc_array(n, sizeof(zfx_device_ns_entry)))
            : nullptr;
    if (n != 0 && out == nullptr) return ZFX_ERR_NO_MEMORY;
    for (uint32_t i = 0; i < n; ++i) {
        if (!fill(ep, *entry_at(reply, i), out[i])) {
            free_ns_entries(out, i);
            std::free(out);
            return ZFX_ERR_NO_MEMORY;
        }
    }
    advance(cursor, reply, n);
    *entries = out;
    *count = n;
    return 0;
}

// ---- TLV-encoded device replies -----------------------------------------------------------------

// One entry as the walk finds it.
struct WireEntry {
    Tlv head;        // its first element: the entry's first bytes when of type ZFX_TLV_DEVICE_ENTRY
    Tlv ns;          // the name-server block
    uint32_t pairs;  // pair elements that follow; 0 when the count is below 1
};

// Walks count entries: sink.entry(i, w) for each of type ZFX_TLV_DEVICE_ENTRY, then
// sink.pair(i, k, element) for each of its pairs; sink.unknown(w) for any other. Every element
// read from must be there and long enough for what is read from it, and no entry may announce
// more than ZFX_PV_VSAN_PAIRS_MAX pairs: otherwise ZFX_ERR_INVALID_ARG. A nonzero result of
// sink.entry stops the walk and is returned.
template <typename Sink>
int32_t walk_device_reply(TlvWalk walk, int32_t count, Sink &sink) {
    for (int32_t i = 0; i < count; ++i) {
        WireEntry w{};
        if (!walk.next(w.head)) return ZFX_ERR_INVALID_ARG;
        if (w.head.type != ZFX_TLV_DEVICE_ENTRY) {  // the entry is this element alone
            sink.unknown(w);
            continue;
        }
        Tlv n;
        if (w.head.len < ZFX_DEVICE_ENTRY_HEAD_SIZE || !walk.next(w.ns) ||
            w.ns.len < ZFX_NS_BLOCK_SIZE || !walk.next(n) || n.len < 4)
            return ZFX_ERR_INVALID_ARG;
        const int32_t pairs = int32_t(load_le32(n.value));
        if (pairs > int32_t(ZFX_PV_VSAN_PAIRS_MAX)) return ZFX_ERR_INVALID_ARG;
        w.pairs = pairs > 0 ? uint32_t(pairs) : 0;
        if (const int32_t r = sink.entry(i, w)) return r;
        for (uint32_t k = 0; k < w.pairs; ++k) {
            Tlv p;
            if (!walk.next(p) || p.len < sizeof(zfx_pv_vsan_pair)) return ZFX_ERR_INVALID_ARG;
            sink.pair(i, k, p);
        }
    }
    return 0;
}

// The first pass checks only; the last one, once the entries are filled and nothing can fail any
// more, reports the entries of another type, so that a decode that fails prints nothing.
struct CheckSink {
    bool report = false;
    int32_t entry(int32_t, const WireEntry &) { return 0; }
    void pair(int32_t, uint32_t, const Tlv &) {}
    void unknown(const WireEntry &w) {
        if (report) std::printf("ignoring unknown tlv type: %d\n", int(w.head.type));
    }
};

// The filling pass: an entry of another type is left zero.
struct FillSink {
    void unknown(const WireEntry &) {}
    void undo(int32_t) {}
};

struct DeviceSink : FillSink {
    zfx_device_entry *out;
    int32_t entry(int32_t i, const WireEntry &w) {
        auto *e = reinterpret_cast<uint8_t *>(&out[i]);
        tlv_copy(e, w.head, ZFX_DEVICE_ENTRY_HEAD_SIZE);
        tlv_copy(e + ZFX_DEVICE_ENTRY_HEAD_SIZE, w.ns, ZFX_NS_BLOCK_SIZE);
        return 0;
    }
    void pair(int32_t, uint32_t, const Tlv &) {}  // the raw entries carry no pairs
};

struct NsSink : FillSink {
    zfx_device_ns_entry *out;
    int32_t entry(int32_t i, const WireEntry &w) {
        zfx_device_ns_entry &e = out[i];
        tlv_copy(e.ns_block, w.ns, sizeof e.ns_block);
        if (w.pairs == 0) return 0;
        e.pairs = static_cast<zfx_pv_vsan_pair *>(mem_zalloc_array(w.pairs, sizeof *e.pairs));
        if (e.pairs == nullptr) return ZFX_ERR_NO_MEMORY;
        e.pair_count = w.pairs;
        return 0;
    }
    void pair(int32_t i, uint32_t k, const Tlv &p) {
        tlv_copy(&out[i].pairs[k], p, sizeof *out[i].pairs);
    }
    void undo(int32_t n) { free_ns_entries(out, size_t(n)); }
};

// Checks the whole reply first, so that nothing is allocated or printed for a malformed one, then
// fills count zeroed entries, then reports the entries it left zero.
template <typename Entry, typename Sink>
int32_t decode_device_reply(const void *payload, uint32_t length, Entry **entries, int32_t *count) {
    if (count == nullptr) return ZFX_ERR_INVALID_ARG;
    *count = 0;
    if (payload == nullptr || entries == nullptr || length < kTlvArrayOffset)
        return ZFX_ERR_INVALID_ARG;
    auto *p = static_cast<uint8_t *>(const_cast<void *>(payload));  // the walk only reads
    const int32_t n = int32_t(load_le32(p));
    if (n < 1) {
        *count = n;
        return ZFX_ERR_NO_ENTRIES;
    }
    const TlvWalk walk(p + kTlvArrayOffset, length - kTlvArrayOffset);
    CheckSink check;
    if (!walk.ok() || walk_device_reply(walk, n, check) != 0) return ZFX_ERR_INVALID_ARG;
    auto *out = static_cast<Entry *>(mem_zalloc_array(size_t(n), sizeof(Entry)));
    if (out == nullptr) return ZFX_ERR_NO_MEMORY;
    Sink sink;
    sink.out = out;
    if (const int32_t r = walk_device_reply(walk, n, sink)) {
        sink.undo(n);
        std::free(out);
        return r;
    }
    CheckSink report{true};
    walk_device_reply(walk, n, report);
    *entries = out;
    *count = n;
    return 0;
}

// The length a decoder without one works within: as far as the address space goes (up to 4 GiB),
// so that the counts of the payload itself decide how far it reads.
uint32_t trusted_length(const void *payload) {
    const uintptr_t room = UINTPTR_MAX - reinterpret_cast<uintptr_t>(payload);
    return room < UINT32_MAX ? uint32_t(room) : UINT32_MAX;
}

}  // namespace

}  // namespace zfx

using namespace zfx;

extern "C" {

int32_t zfx_device_entry_handle_init(zfx_device_entry **handle) {
    if (handle == nullptr) return ZFX_ERR_INVALID_ARG;
    zfx_device_entry_handle_init_with_wwn(handle, 0, 0);
    return 0;
}

void zfx_device_entry_handle_init_with_wwn(zfx_device_entry **handle, uint32_t word0,
                                           uint32_t word1) {
    g_cursor.pwwn[0] = word0;
    g_cursor.pwwn[1] = word1;
    if (handle != nullptr) *handle = &g_cursor;
}

int32_t zfx_dlg_ns_device_entry_get(plat_endpoint *ep, zfx_device_entry *cursor,
                                    zfx_device_entry **entries, uint32_t *count) {
    if (cursor == nullptr || entries == nullptr || count == nullptr) return ZFX_ERR_INVALID_ARG;
    Block reply;
    uint32_t n = 0;
    if (const int32_t r = request_batch(ep, cursor, reply, n)) return r;
    advance(cursor, reply, n);
    // The channel's reply block is the caller's from here: the entries stand at its start.
    *entries = n != 0 ? static_cast<zfx_device_entry *>(reply.release()) : nullptr;
    *count = n;
    return 0;
}

int32_t zfx_device_entry_get_next(plat_endpoint *ep, zfx_device_entry *handle,
                                  zfx_device_entry **entries, uint32_t *count) {
    return zfx_dlg_ns_device_entry_get(ep, handle, entries, count);
}

int32_t zfx_device_ns_entry_get_next(plat_endpoint *ep, zfx_device_entry *handle,
                                     zfx_device_ns_entry **entries, uint32_t *count) {
    return ns_view(ep, handle, entries, count, fill_first_gen);
}

int32_t zfx2_device_ns_entry_get_next(plat_endpoint *ep, zfx_device_entry *handle,
                                      zfx_device_ns_entry **entries, uint32_t *count) {
    return ns_view(ep, handle, entries, count, fill_second_gen);
}

int32_t zfx2_dlg_pv_vsan_entry_get(plat_endpoint *ep, uint32_t word0, uint32_t word1, uint32_t vsan,
                                   void **reply) {
    Block out;
    const int32_t r = pv_vsan_request(ep, word0, word1, vsan, reply != nullptr ? &out : nullptr);
    if (reply != nullptr) *reply = out.release();
    return r;
}

int32_t zfx2_device_ns_entry_send_req(plat_endpoint *ep, zfx_device_entry *handle, uint32_t tag) {
    if (handle == nullptr) return ZFX_ERR_INVALID_ARG;
    return send_async(ep, ZFX_MSG_NS_ENTRY_REQ, kOpGet, handle, sizeof *handle, tag,
                      ZFX_SERVICE_NAME, OnFailure::keep);
}

int32_t zfx_fcr_query_entry_send(plat_endpoint *ep, const zfx_fcr_query *query, uint32_t tag) {
    if (query == nullptr) return ZFX_ERR_INVALID_ARG;
    constexpr uint32_t kItem = sizeof(zfx_fcr_query_item);
    if (query->count > (UINT32_MAX - sizeof *query) / kItem) return ZFX_ERR_INVALID_VALUE;
    return send_async(ep, ZFX_MSG_FCR_QUERY, kOpGet, query,
                      uint32_t(sizeof *query + query->count * kItem), tag, ZFX_SERVICE_NAME,
                      OnFailure::keep);
}

int32_t zfx2_device_entry_parse_checked(const void *payload, uint32_t length, zfx_device_entry **entries,
                                        int32_t *count) {
    return decode_device_reply<zfx_device_entry, DeviceSink>(payload, length, entries, count);
}

int32_t zfx2_device_ns_entry_parse_checked(const void *payload, uint32_t length,
                                           zfx_device_ns_entry **entries, int32_t *count) {
    return decode_device_reply<zfx_device_ns_entry, NsSink>(payload, length, entries, count);
}

int32_t zfx2_device_entry_parse(const void *payload, zfx_device_entry **entries, int32_t *count) {
    return zfx2_device_entry_parse_checked(payload, trusted_length(payload), entries, count);
}

int32_t zfx2_device_ns_entry_parse(const void *payload, zfx_device_ns_entry **entries, int32_t *count) {
    return zfx2_device_ns_entry_parse_checked(payload, trusted_length(payload), entries, count);
}

}  // extern "C"
