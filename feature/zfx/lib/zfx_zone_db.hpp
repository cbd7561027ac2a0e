// zfx_zone_db.hpp - what the zone database's encoders and restorers share with the zone text:
// the elements each member type carries, the bounded member decode and the chunked restore.
#pragma once

#include "zfx_internal.hpp"
#include "zfx_zone_db.h"

namespace zfx {

// The identifying elements of a member type (VSAN and fabric ID belong to every type).
struct MemberShape {
    bool pwwn;
    bool alias;
    bool lun;
};

// The shape of a member type; false for a type that is none of 0, 1, 240, 241.
bool member_shape(uint32_t type, MemberShape &shape);

// Decodes a stored member record of len bytes into m (see zfx_zone_decode_member_from_kvdb_cfg);
// false, with m untouched, when the record is shorter than its head or its array does not lie
// within it.
bool decode_member(const void *record, size_t len, zfx_zone_member_node &m);

// The active zoneset data (see zfx_zone_restore_active_pzs_from_kvdb), its total length in len.
uint8_t *restore_active(kvdb_store *store, uint32_t &len);

}  // namespace zfx
