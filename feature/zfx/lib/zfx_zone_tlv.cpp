// Zone TLV records: the size table, the three message kinds and the mechanism they share
// (sizing, allocation, adding, create checks, byte-order conversion, building).
#include <array>
#include <iterator>

#include "zfx_zone_kind.hpp"

namespace zfx {

namespace {

// Room each type reserves in a one-record message (value bytes); 0 reserves none.
constexpr uint16_t kValueSize[] = {
    /*  0 */ 0, 68,   4, 8, 0, 68, 68, 260,  0, 8,
    /* 10 */ 8, 4,    4, 4, 0, 4,  4,  1028, 8, 4,
    /* 20 */ 4, 4,    4, 4, 4, 0,  0,  4,    0, 0,
    /* 30 */ 0, 20,   0, 0, 0, 0,  0,  0,    0, 0,
    /* 40 */ 0, 0,    0, 0, 8, 4,  0,  0,    0, 0,
    /* 50 */ 0, 0,    0, 0, 0, 0,  68, 0,    0, 4,
    /* 60 */ 0, 1028, 0, 0, 0, 68,
};

// The types each kind's one-record size has room for. The three lists lie side by side in one
// table, in the order of the kinds: a size loop that ran past its kind's list would add the next
// kind's first type, and every record of that kind would show it, instead of reading whatever
// the build happened to place after a list of its own.
constexpr struct {
    std::array<uint16_t, 6> member;
    std::array<uint16_t, 6> zone;
    std::array<uint16_t, 5> zoneset;
} kReserved = {
    {ZFX_TLV_MEMBER_PWWN, ZFX_TLV_MEMBER_VSAN, ZFX_TLV_MEMBER_AFID, ZFX_TLV_MEMBER_TYPE,
     ZFX_TLV_MEMBER_LUN, ZFX_TLV_MEMBER_DEVICE_ALIAS},
    {ZFX_TLV_ZONE_NAME, ZFX_TLV_ZONE_NAME2, ZFX_TLV_ZONE_MEMBERS, ZFX_TLV_ZONE_ATTR,
     ZFX_TLV_ZONE_QOS, ZFX_TLV_ZONE_READ_ONLY},
    {ZFX_TLV_ZONESET_NAME, ZFX_TLV_ZONESET_NAME2, ZFX_TLV_ZONESET_ZONE_BITMAP, ZFX_TLV_ZONESET_ATTR,
     ZFX_TLV_ZONESET_INFO},
};
static_assert(sizeof kReserved == sizeof kReserved.member + sizeof kReserved.zone + sizeof kReserved.zoneset,
              "the lists lie side by side");

// Types 10, 44, 6 and 65 of a member are byte strings and travel as given; QoS (45) travels in
// host order and read-only (59) is put in network order by whoever builds it.
constexpr ConvRule kMemberConv[] = {{ZFX_TLV_MEMBER_VSAN, ValueConv::swap32},
                                    {ZFX_TLV_MEMBER_AFID, ValueConv::swap32},
                                    {ZFX_TLV_MEMBER_TYPE, ValueConv::swap32}};
constexpr ConvRule kZoneConv[] = {{ZFX_TLV_ZONE_ATTR, ValueConv::attr_block}};
constexpr ConvRule kZonesetConv[] = {{ZFX_TLV_ZONESET_ATTR, ValueConv::attr_block}};

constexpr CreateNeed kMemberNeeds[] = {{{ZFX_TLV_MEMBER_PWWN, ZFX_TLV_MEMBER_DEVICE_ALIAS}, false},
                                       {{ZFX_TLV_MEMBER_VSAN, 0}, false},
                                       {{ZFX_TLV_MEMBER_TYPE, 0}, false}};
constexpr CreateNeed kZoneNeeds[] = {{{ZFX_TLV_ZONE_NAME, 0}, true}};
constexpr CreateNeed kZonesetNeeds[] = {{{ZFX_TLV_ZONESET_NAME, 0}, true}};

}  // namespace

const ZoneKind kMemberKind{.msg_type = ZFX_MSG_ZONE_MEMBER,
                           .array_off = 16,
                           .n_ids = 2,
                           .id_off = {8, 12},
                           .reserved = kReserved.member.data(),
                           .n_reserved = uint8_t(kReserved.member.size()),
                           .conv = kMemberConv,
                           .n_conv = uint8_t(std::size(kMemberConv)),
                           .needs = kMemberNeeds,
                           .n_needs = uint8_t(std::size(kMemberNeeds)),
                           .name_type = ZFX_TLV_ZONE_NAME};
const ZoneKind kZoneKind{.msg_type = ZFX_MSG_ZONE,
                         .array_off = 12,
                         .n_ids = 1,
                         .id_off = {8},
                         .reserved = kReserved.zone.data(),
                         .n_reserved = uint8_t(kReserved.zone.size()),
                         .conv = kZoneConv,
                         .n_conv = uint8_t(std::size(kZoneConv)),
                         .needs = kZoneNeeds,
                         .n_needs = uint8_t(std::size(kZoneNeeds)),
                         .name_type = ZFX_TLV_ZONE_NAME};
const ZoneKind kZonesetKind{.msg_type = ZFX_MSG_ZONESET,
                            .array_off = 28,
                            .n_ids = 1,
                            .id_off = {24},
                            .reserved = kReserved.zoneset.data(),
                            .n_reserved = uint8_t(kReserved.zoneset.size()),
                            .conv = kZonesetConv,
                            .n_conv = uint8_t(std::size(kZonesetConv)),
                            .needs = kZonesetNeeds,
                            .n_needs = uint8_t(std::size(kZonesetNeeds)),
                            .name_type = ZFX_TLV_ZONESET_NAME};

namespace {

uint32_t compute_record_size(const ZoneKind &k) {
    uint32_t size = fixed_size(k);
    for (uint8_t i = 0; i < k.n_reserved; ++i) size += zfx_tlv_size_get_for_type(k.reserved[i]);
    return size;
}

}  // namespace

uint32_t one_record_size(const ZoneKind &k) {
    // The size rule is the platform's and fixed for the life of the process: computed once.
    static const uint32_t sizes[] = {compute_record_size(kMemberKind),
                                     compute_record_size(kZoneKind),
                                     compute_record_size(kZonesetKind)};
    return sizes[&k == &kMemberKind ? 0 : &k == &kZoneKind ? 1 : 2];
}

namespace {

void convert_value(ValueConv conv, uint8_t *value) {
    switch (conv) {
        case ValueConv::swap32:
            swap32_at(value);
            break;
        case ValueConv::attr_block:
            // The word is reversed and only its low-order byte stored back: byte 0 takes byte 3.
            value[0] = static_cast<uint8_t>(bswap(load_le32(value)));
            break;
    }
}

}  // namespace

bool convert(const ZoneKind &k, void *msg, size_t avail) {
    if (msg == nullptr || avail < fixed_size(k)) return false;
    auto *m = static_cast<uint8_t *>(msg);
    TlvWalk walk(m + k.array_off, avail - k.array_off);
    if (!walk.ok()) return false;
    swap32_at(m);
    for (uint8_t i = 0; i < k.n_ids; ++i) swap32_at(m + k.id_off[i]);
    for (Tlv e; walk.next(e);) {
        for (uint8_t i = 0; i < k.n_conv; ++i) {
            // A value too short for its conversion is left alone rather than read past.
            if (k.conv[i].type == e.type && e.len >= 4) convert_value(k.conv[i].conv, e.value);
        }
    }
    return true;
}

int32_t check_create(const ZoneKind &k, const void *msg) {
    if (msg == nullptr) return ZFX_ERR_INVALID_ARG;
    auto *m = static_cast<uint8_t *>(const_cast<void *>(msg));  // walked, never written
    // A record's size holds its fixed part and the reserved elements, so the array has room.
    TlvWalk walk(m + k.array_off, one_record_size(k) - k.array_off);
    if (!walk.ok()) return ZFX_ERR_INVALID_ARG;
    if (walk.count() == 0) return ZFX_ERR_CREATE_INCOMPLETE;
    uint32_t seen = 0;  // bit i: need i met
    for (Tlv e; walk.next(e);) {
        for (uint8_t i = 0; i < k.n_needs; ++i) {
            const CreateNeed &need = k.needs[i];
            const bool type_matches =
                e.type == need.any_of[0] || (need.any_of[1] != 0 && e.type == need.any_of[1]);
            if (type_matches && (!need.needs_value || e.value != nullptr)) seen |= 1u << i;
        }
    }
    return seen == (1u << k.n_needs) - 1 ? 0 : ZFX_ERR_CREATE_INCOMPLETE;
}

int32_t build_message(const ZoneKind &k, const ElemList &elems, Block &msg,
                      void (*before_add)(const Elem &)) {
    const uint32_t capacity = elems.array_bytes();
    const uint32_t length = k.array_off + capacity;
    *msg.slot() = mem_zalloc(length);
    if (!msg) return ZFX_ERR_NO_MEMORY;
    msg.len = length;
    uint8_t *array = msg.bytes() + k.array_off;
    for (const Elem &e : elems) {
        if (before_add != nullptr) before_add(e);
        if (tlvbuf_add_tlv(array, capacity, e.type, e.len, e.value, 0) != 0) {
            msg.slot();
            msg.len = 0;
            return ZFX_ERR_INVALID_ARG;
        }
    }
    return 0;
}

namespace {

void *malloc_one(const ZoneKind &k) {
    const uint32_t size = one_record_size(k);
    void *msg = mem_zalloc(size);
    if (msg != nullptr) store_le32(msg, 1);
    return msg;
}

int32_t add_to_entry(const ZoneKind &k, void *entry, uint16_t type, uint16_t length,
                     const void *value) {
    if (entry == nullptr) return ZFX_ERR_INVALID_ARG;
    // The entry lies 8 bytes into the message; the array's capacity runs to the one-record size.
    uint8_t *array = static_cast<uint8_t *>(entry) - sizeof(zfx_msg_hdr) + k.array_off;
    const uint32_t capacity = one_record_size(k) - k.array_off;
    return tlvbuf_add_tlv(array, capacity, type, length, value, 0) == 0 ? 0 : ZFX_ERR_INVALID_ARG;
}

}  // namespace

}  // namespace zfx

using zfx::kMemberKind;
using zfx::kZoneKind;
using zfx::kZonesetKind;

extern "C" {

uint32_t zfx_tlv_size_get_for_type(uint32_t type) {
    if (type >= sizeof zfx::kValueSize / sizeof zfx::kValueSize[0] || zfx::kValueSize[type] == 0)
        return 0;
    return zfx::tlv_size(zfx::kValueSize[type]);
}

uint32_t zfx_get_size_one_zone_member_tlv(void) { return zfx::one_record_size(kMemberKind); }
uint32_t zfx_get_size_one_zone_tlv(void) { return zfx::one_record_size(kZoneKind); }
uint32_t zfx_get_size_one_zoneset_tlv(void) { return zfx::one_record_size(kZonesetKind); }

zfx_zone_member_msg *zfx_dlg_malloc_one_zone_member_and_all_attribs(void) {
    return static_cast<zfx_zone_member_msg *>(zfx::malloc_one(kMemberKind));
}
zfx_zone_msg *zfx_dlg_malloc_one_zone_and_all_attribs(void) {
    return static_cast<zfx_zone_msg *>(zfx::malloc_one(kZoneKind));
}
zfx_zoneset_msg *zfx_dlg_malloc_one_zoneset_and_all_attribs(void) {
    return static_cast<zfx_zoneset_msg *>(zfx::malloc_one(kZonesetKind));
}

int32_t zfx_dlg_zone_member_add_tlv(void *entry, uint16_t type, uint16_t length,
                                    const void *value) {
    return zfx::add_to_entry(kMemberKind, entry, type, length, value);
}
int32_t zfx_dlg_zone_add_tlv(void *entry, uint16_t type, uint16_t length, const void *value) {
    return zfx::add_to_entry(kZoneKind, entry, type, length, value);
}
int32_t zfx_dlg_zoneset_add_tlv(void *entry, uint16_t type, uint16_t length, const void *value) {
    return zfx::add_to_entry(kZonesetKind, entry, type, length, value);
}

int32_t zfx_do_sanity_for_zone_member_create(const zfx_zone_member_msg *msg) {
    return zfx::check_create(kMemberKind, msg);
}
int32_t zfx_do_sanity_for_zone_create(const zfx_zone_msg *msg) {
    return zfx::check_create(kZoneKind, msg);
}
int32_t zfx_do_sanity_for_zoneset_create(const zfx_zoneset_msg *msg) {
    return zfx::check_create(kZonesetKind, msg);
}

// Each kind has one conversion serving both directions.
void zfx_zone_member_tlv_hton(zfx_zone_member_msg *msg) {
    zfx::convert(kMemberKind, msg, zfx::one_record_size(kMemberKind));
}
void zfx_zone_member_tlv_ntoh(zfx_zone_member_msg *msg) { zfx_zone_member_tlv_hton(msg); }
void zfx_zone_tlv_hton(zfx_zone_msg *msg) {
    zfx::convert(kZoneKind, msg, zfx::one_record_size(kZoneKind));
}
void zfx_zone_tlv_ntoh(zfx_zone_msg *msg) { zfx_zone_tlv_hton(msg); }
void zfx_zoneset_tlv_hton(zfx_zoneset_msg *msg) {
    zfx::convert(kZonesetKind, msg, zfx::one_record_size(kZonesetKind));
}
void zfx_zoneset_tlv_ntoh(zfx_zoneset_msg *msg) { zfx_zoneset_tlv_hton(msg); }

}  // extern "C"
