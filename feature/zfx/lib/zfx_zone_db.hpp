// zfx_zone_db.hpp - what the zone database's encoders and restorers share with the zone text:
// the elements each member type carries, the bounded member decode, and the active zoneset data
// read from its chunks.
#pragma once

#include "zfx_internal.hpp"
#include "zfx_tlv_walk.hpp"
#include "zfx_zone_db.h"

namespace zfx {

// The identifying elements of a member type (VSAN and fabric ID belong to every type).
struct MemberShape {
    bool pwwn;
    bool alias;
    bool lun;
};

// The shape of a member type; false for a type that is none of 0, 1, 240, 241.
inline bool member_shape(uint32_t type, MemberShape &shape) {
    switch (type) {
        case ZFX_MEMBER_PWWN: shape = {true, false, false}; return true;
        case ZFX_MEMBER_DEVICE_ALIAS: shape = {false, true, false}; return true;
        case ZFX_MEMBER_PWWN_LUN: shape = {true, false, true}; return true;
        case ZFX_MEMBER_DEVICE_ALIAS_LUN: shape = {false, true, true}; return true;
        default: return false;
    }
}

// A stored member record's fields where they lie in the record, for readers that need no copy
// of them (the zone text): each is NULL (or false) when the record has no element for it; when
// it has several, the last one counts. A WWN or LUN element shorter than 8 bytes counts as none.
struct MemberView {
    uint8_t type;
    bool has_vsan, has_afid, has_alias;
    uint32_t vsan;
    uint16_t afid;
    const uint8_t *pwwn;  // 8 bytes
    const uint8_t *lun;   // 8 bytes
    const char *alias;    // alias_len characters (at most ZFX_NAME_SIZE - 1), no terminator
    size_t alias_len;
};

// Views a stored member record of len bytes; false when the record is shorter than its head or
// its array does not lie within it (v then holds nothing to be used). Inline: the zone text views
// every member record it writes.
inline bool view_member(const void *record, size_t len, MemberView &v) {
    if (record == nullptr || len < sizeof(zfx_member_rec_head)) return false;
    auto *rec = static_cast<uint8_t *>(const_cast<void *>(record));  // walked, never written
    // One pass checks and reads the array.
    TlvWalk walk(rec + offsetof(zfx_member_rec_head, tlvs), len - offsetof(zfx_member_rec_head, tlvs), TlvStepwise{});
    v = MemberView{};
    v.type = rec[offsetof(zfx_member_rec_head, type)];
    for (Tlv e; walk.next(e);) {
        switch (e.type) {
            case ZFX_TLV_MEMBER_PWWN:
                if (e.len >= 8) v.pwwn = e.value;
                break;
            case ZFX_TLV_MEMBER_VSAN:
                if (e.len >= 4) v.vsan = load_le32(e.value), v.has_vsan = true;
                break;
            case ZFX_TLV_MEMBER_AFID:
                if (e.len >= 4) v.afid = uint16_t(load_le32(e.value)), v.has_afid = true;
                break;
            case ZFX_TLV_MEMBER_LUN:
                if (e.len >= 8) v.lun = e.value;
                break;
            case ZFX_TLV_MEMBER_DEVICE_ALIAS:
                // The characters up to the terminator, never past the value.
                v.has_alias = true;
                v.alias = reinterpret_cast<const char *>(e.value);
                v.alias_len = e.value != nullptr ? strnlen(v.alias, e.len < ZFX_NAME_SIZE - 1 ? e.len : ZFX_NAME_SIZE - 1) : 0;
                break;
            default: break;
        }
    }
    return walk.ok();
}

// Decodes a stored member record of len bytes into m (see zfx_zone_decode_member_from_kvdb_cfg):
// the view's fields copied, the ones the record lacks left as they are in m; false, with m
// untouched, when view_member fails.
bool decode_member(const void *record, size_t len, zfx_zone_member_node &m);

// The active zoneset data's total length as its chunk 0 gives it; 0 when there is no data: chunk 0
// is missing or shorter than 4 bytes, or gives 0 or more than the data can ever take.
uint32_t active_total(kvdb_store *store);

// Joins the first size bytes of the active zoneset data into data (which the caller zero-fills),
// from chunk 1 on, in order, until size bytes are there or a chunk is missing; a surplus is not
// copied. Readers that need only the data's head take it without holding the whole data.
// Returns the bytes filled.
uint32_t read_active(kvdb_store *store, void *data, uint32_t size);

}  // namespace zfx
