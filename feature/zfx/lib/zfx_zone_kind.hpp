// zfx_zone_kind.hpp - the three zone message kinds (zoneset, zone, member) as small descriptions,
// and the one mechanism that sizes, builds, checks and converts a message of any kind from its
// description. The exported functions of each kind are thin wrappers around these.
#pragma once

#include "zfx_request.hpp"
#include "zfx_tlv_walk.hpp"
#include "zfx_zone_msg.h"

namespace zfx {

// How a value is turned between host and network order (both directions alike).
enum class ValueConv : uint8_t {
    swap32,      // a 32-bit value: its four bytes reversed
    attr_block,  // an 8-byte attribute block: the first byte takes the value of the fourth
};

struct ConvRule {
    uint16_t type;
    ValueConv conv;
};

// One requirement of a create check: an element of one of the types (0 ends the list), with a
// value when needs_value is set.
struct CreateNeed {
    uint16_t any_of[2];
    bool needs_value;
};

struct ZoneKind {
    uint32_t msg_type;
    uint32_t array_off;  // where the TLV array's count word lies in the message
    uint8_t n_ids;
    uint8_t id_off[2];         // the entry's 32-bit id fields
    const uint16_t *reserved;  // types the one-record size has room for
    uint8_t n_reserved;
    const ConvRule *conv;  // values converted between byte orders
    uint8_t n_conv;
    const CreateNeed *needs;  // what a create message must carry
    uint8_t n_needs;
    uint16_t name_type;  // the element naming the object in a query
};

extern const ZoneKind kMemberKind;
extern const ZoneKind kZoneKind;
extern const ZoneKind kZonesetKind;

// The message's fixed part: header, entry fields and the array's count word.
inline uint32_t fixed_size(const ZoneKind &k) { return k.array_off + 4; }
uint32_t one_record_size(const ZoneKind &k);

// Converts the message in place (entry count, ids, values); false, with nothing changed, when
// its array is malformed within the avail bytes of the message.
bool convert(const ZoneKind &k, void *msg, size_t avail);

// The create check of a one-record message of kind k: 0, ZFX_ERR_CREATE_INCOMPLETE, or
// ZFX_ERR_INVALID_ARG for a malformed array.
int32_t check_create(const ZoneKind &k, const void *msg);

// Elements of a message built from plain arguments, in the order they are to be added.
struct Elem {
    uint16_t type;
    uint16_t len;
    const void *value;
};

class ElemList {
public:
    void add(uint16_t type, uint16_t len, const void *value) {
        if (n_ < kMax) e_[n_++] = Elem{type, len, value};
    }
    void add_str(uint16_t type, const char *s) { add(type, tlv_str_len(s), s); }
    const Elem *begin() const { return e_; }
    const Elem *end() const { return e_ + n_; }
    // The bytes the elements take in an array, each element's size cut to 16 bits as every size
    // of the zone messages is.
    uint32_t bytes() const {
        uint32_t sum = 0;
        for (const Elem &e : *this) sum += tlv_size(e.len);
        return sum;
    }
    // The bytes of an array holding exactly the elements: its count word and them.
    uint32_t array_bytes() const { return sizeof(uint32_t) + bytes(); }

private:
    static constexpr uint8_t kMax = 8;  // more than any message carries
    Elem e_[kMax];
    uint8_t n_ = 0;
};

// Builds a zero-filled one-entry message of kind k whose array holds exactly the elements, in
// order, added with the array's capacity set to its count word and the elements' sizes. The
// header and entry are left zero for the caller. before_add (may be NULL) runs before each add.
// 0 with msg holding the message and msg.len its length; ZFX_ERR_NO_MEMORY; ZFX_ERR_INVALID_ARG
// (message released) when an element is refused.
int32_t build_message(const ZoneKind &k, const ElemList &elems, Block &msg,
                      void (*before_add)(const Elem &) = nullptr);

}  // namespace zfx
