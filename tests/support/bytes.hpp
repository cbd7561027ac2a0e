// Byte builders for expected requests, replies, keys and records: every suite writes the bytes
// it expects with these, independently of the library's own encoders.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <map>
#include <string>
#include <vector>

namespace zfxtest {

using Bytes = std::vector<uint8_t>;

// The port WWN the suites' records and nodes name: 20:00:00:11:22:33:44:55.
extern const Bytes kWwn;

Bytes cat(std::initializer_list<Bytes> parts);
Bytes le16(uint16_t v);
Bytes le32(uint32_t v);
Bytes be32(uint32_t v);
Bytes zeros(size_t n);
Bytes str0(const std::string &s);  // the characters and a terminator
Bytes bytes_of(const void *p, size_t n);
// The bytes of a block the library allocated (none for NULL), which it frees. len is read after
// the call that fills it has run, whatever the order in which the arguments were evaluated.
Bytes take(void *p, const uint32_t &len);
// A bitmap of nbytes bytes with the ids set: id n is bit 0x80 >> (n % 8) of byte n / 8.
Bytes id_bits(size_t nbytes, const std::vector<int> &ids);
// A VSAN set as stored and sent: length word 512 (host order), then the bits of the VSANs.
Bytes vsans(const std::vector<int> &members);
// One TLV element: u16 type, u16 length (host order), the value, zero padding to 4 bytes.
Bytes tlv(uint16_t type, const Bytes &value);
// A TLV array: the count word (host order), then the elements.
Bytes tlv_array(std::initializer_list<Bytes> elements);
// "01 02 ff " for readable failure messages.
std::string hex(const Bytes &b);
// printf's text, for expected lines written with their widths.
std::string format(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

// Records by key in the store's order: bytes compared as unsigned, a key before the longer ones
// it begins.
struct KeyOrder {
    bool operator()(const Bytes &a, const Bytes &b) const;
};
using RecordMap = std::map<Bytes, Bytes, KeyOrder>;

}  // namespace zfxtest
