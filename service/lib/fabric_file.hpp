// The fabric zfxd answers from: the devices, domains, next hops and NAT rewrites of a fabric
// description file (zfxd --fabric FILE), checked line by line and against the AFIDs the store's
// VSAN topology and AFID tables hold. Without a file zfxd answers from an empty fabric.
//
// The file: one statement per line; words are separated by blanks or tabs; "#" starts a comment
// line; blank lines are skipped. Numbers are decimal, or hexadecimal after "0x"; WWNs are eight
// pairs of hexadecimal digits joined by ":"; FCIDs are "0x" and six hexadecimal digits (domain,
// area, port); VSANs are 1 to 4095; VSAN ranges are "a" or "a-b" joined by ",".
//
//   device PWWN fcid FCID vsans RANGES [afid AFID] [value N] [per-vsan V:N[,V:N...]]
//          [node NWWN] [name SYMBOLIC-NAME]
//       a device: its port WWN (not all zero; once per file), FCID (once per file, domain 1 to
//       239), the VSANs it is known in, its AFID (default 1), the value its device entry
//       carries for every VSAN (default 0), or per VSAN (each V one of its VSANs, once; a VSAN
//       of its set left out has no value), its node WWN (default zero) and its name-server
//       symbolic name (one word, at most 255 characters; default none). Options in any order,
//       each once.
//   native-domain VSAN DOMAIN            the VSAN's native domain (1 to 239), once per VSAN
//   proxy-domains VSAN DOMAIN[,DOMAIN...] the VSAN's proxy domains (1 to 239), once per VSAN
//   next-hop VSAN DOMAIN NEXT-VSAN       from VSAN, traffic to DOMAIN goes on in NEXT-VSAN
//                                        (another VSAN); once per VSAN and domain
//   nat VSAN NEXT-VSAN SID DID NEW-SID NEW-DID
//       a flow from SID to DID in VSAN that crosses into NEXT-VSAN (another VSAN) is rewritten
//       there to NEW-SID and NEW-DID; once per VSAN, next VSAN, SID and DID
//
// Against the store: a device's AFID is 1 or an AFID of the store's VSAN topology or AFID table;
// when the store gives that AFID VSAN ranges, the device's VSANs lie within them.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "fabric.hpp"

namespace zfxd {

using zfxtool::VsanSet;
using zfxtool::Wwn;

struct FabricDevice {
    Wwn pwwn{};
    Wwn node{};
    uint32_t fcid = 0;  // 0x00DDAAPP
    uint16_t afid = 1;
    VsanSet vsans;
    uint32_t value = 0;
    bool per_vsan = false;               // values asked VSAN by VSAN: per_vsan_values
    std::map<uint32_t, uint32_t> values;  // VSAN -> value, when per_vsan
    std::string name;                    // symbolic name
};

struct FabricDesc {
    std::map<Wwn, FabricDevice> devices;  // by port WWN, in byte order: the order of the walk
    std::map<uint32_t, uint8_t> native_domains;              // VSAN -> domain
    std::map<uint32_t, std::vector<uint8_t>> proxy_domains;  // VSAN -> domains, ascending
    std::map<std::pair<uint32_t, uint8_t>, uint32_t> next_hops;  // (VSAN, domain) -> next VSAN
    // (VSAN, next VSAN, SID, DID) -> (new SID, new DID), FCIDs as 0x00DDAAPP.
    std::map<std::array<uint32_t, 4>, std::pair<uint32_t, uint32_t>> nat;

    const FabricDevice *device(const Wwn &pwwn) const {
        const auto it = devices.find(pwwn);
        return it != devices.end() ? &it->second : nullptr;
    }
};

// What the store says about AFIDs: for each AFID its topology or AFID table entries name, the
// union of their VSAN sets.
using StoreAfids = std::map<uint16_t, VsanSet>;

// The AFIDs of the store at location (read whole, under the store guard of the caller); an
// absent store names none.
StoreAfids store_afids(const std::string &location);

// Parses a fabric description (name: what messages call it). false with error
// "NAME:LINE: what is wrong" at the first bad line; fabric is then partly filled.
bool parse_fabric(const std::string &text, const std::string &name, const StoreAfids &afids, FabricDesc &fabric,
                  std::string &error);
// The same for the file at path.
bool load_fabric(const std::string &path, const StoreAfids &afids, FabricDesc &fabric, std::string &error);

}  // namespace zfxd
