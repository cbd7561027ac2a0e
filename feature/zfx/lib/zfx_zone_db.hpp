// zfx_zone_db.hpp - what the zone database's encoders and restorers share with the zone text:
// the elements each member type carries, the bounded member decode, and the active zoneset data
// read from its chunks.
#pragma once

#include <algorithm>
#include <bit>

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

// The characters of an alias value of size bytes: up to its terminator, never past the value.
inline size_t alias_length(const char *alias, size_t size) { return strnlen(alias, std::min<size_t>(size, ZFX_NAME_SIZE - 1)); }

// An element's header as one word, as it lies in a record: its type, then its length.
constexpr uint32_t elem_head(uint16_t type, uint16_t len) {
    return std::endian::native == std::endian::little ? uint32_t(type) | uint32_t(len) << 16
                                                      : uint32_t(type) << 16 | len;
}

// Views a member record laid out as the encoder writes it: the elements of its type, each once, in
// record order, the alias last. Their places follow from the type alone, so each is checked where
// it must lie, with no walk from one element to the next: v is then what the walk would give.
// False for any other record, which only the walk reads.
inline bool view_written_member(const uint8_t *rec, size_t len, MemberView &v) {
    MemberShape shape;
    if (len < sizeof(zfx_member_rec_head) || !member_shape(rec[offsetof(zfx_member_rec_head, type)], shape)) return false;
    constexpr size_t kFirst = sizeof(zfx_member_rec_head);
    const size_t wwn = kFirst, vsan = shape.pwwn ? wwn + tlv_elem_size(8) : kFirst, afid = vsan + tlv_elem_size(4),
                 lun = afid + tlv_elem_size(4), alias = shape.lun ? lun + tlv_elem_size(8) : lun;
    const uint32_t count = 2 + uint32_t(shape.pwwn) + uint32_t(shape.lun) + uint32_t(shape.alias);
    // The headers are read in record order, each only once those before it have matched: a
    // record whose length is not known (it is trusted to be as long as its array claims) is then
    // read no further than the walk would read it.
    if (len < alias || load<uint32_t>(rec + offsetof(zfx_member_rec_head, tlvs)) != count ||
        (shape.pwwn && load<uint32_t>(rec + wwn) != elem_head(ZFX_TLV_MEMBER_PWWN, 8)) ||
        load<uint32_t>(rec + vsan) != elem_head(ZFX_TLV_MEMBER_VSAN, 4) ||
        load<uint32_t>(rec + afid) != elem_head(ZFX_TLV_MEMBER_AFID, 4) ||
        (shape.lun && load<uint32_t>(rec + lun) != elem_head(ZFX_TLV_MEMBER_LUN, 8)))
        return false;
    size_t alias_size = 0;
    if (shape.alias) {
        if (len < alias + 4 || load<uint16_t>(rec + alias) != ZFX_TLV_MEMBER_DEVICE_ALIAS) return false;
        alias_size = load<uint16_t>(rec + alias + 2);
        if (alias_size == 0 || alias_size > len - alias - 4) return false;
    }
    v = MemberView{};
    v.type = rec[offsetof(zfx_member_rec_head, type)];
    v.has_vsan = v.has_afid = true;
    v.vsan = load_le32(rec + vsan + 4);
    v.afid = uint16_t(load_le32(rec + afid + 4));
    if (shape.pwwn) v.pwwn = rec + wwn + 4;
    if (shape.lun) v.lun = rec + lun + 4;
    if (shape.alias) {
        v.has_alias = true;
        v.alias = reinterpret_cast<const char *>(rec + alias + 4);
        v.alias_len = alias_length(v.alias, alias_size);
    }
    return true;
}

// view_member by the walk of the record's array alone, whatever its layout.
inline bool view_walked_member(const void *record, size_t len, MemberView &v) {
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
                v.has_alias = true;
                v.alias = reinterpret_cast<const char *>(e.value);
                v.alias_len = e.value != nullptr ? alias_length(v.alias, e.len) : 0;
                break;
            default: break;
        }
    }
    return walk.ok();
}

// Views a stored member record of len bytes; false when the record is shorter than its head or
// its array does not lie within it (v then holds nothing to be used). Inline: the zone text views
// every member record it writes.
inline bool view_member(const void *record, size_t len, MemberView &v) {
    if (record != nullptr && view_written_member(static_cast<const uint8_t *>(record), len, v)) return true;
    return view_walked_member(record, len, v);
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
