// The fabric description: its statements read with the tools' one line reader, each checked as
// it comes, then held against the AFIDs of the store.
#include "fabric_file.hpp"

#include <algorithm>
#include <cstring>
#include <set>
#include <sstream>

#include "store_guard.hpp"
#include "text_lines.hpp"
#include "zfx_common.h"
#include "zfx_fabric.h"
#include "zfx_service.h"

namespace zfxd {
namespace {

using zfxtool::LineError;
using zfxtool::Words;

constexpr uint32_t kDomainMax = ZFX_DOMAIN_MAX;
constexpr size_t kSymbolicNameMax = 255;  // what the name server's entry keeps

uint32_t vsan(const std::string &text) {
    const uint32_t v = zfxtool::vsan_number(text);
    if (v == 0) throw LineError{"VSAN 0 is not a VSAN (1 to 4095)"};
    return v;
}

uint8_t domain(const std::string &text) { return uint8_t(zfxtool::any_number(text, 1, kDomainMax, "domain")); }

uint32_t fcid(const std::string &text) {
    const uint32_t f = zfxtool::fcid_number(text);
    if ((f >> 16) == 0 || (f >> 16) > kDomainMax)
        throw LineError{"FCID " + text + " has domain " + std::to_string(f >> 16) + " (1 to " + std::to_string(kDomainMax) + ")"};
    return f;
}

// Items joined by ",", none empty.
std::vector<std::string> items(const std::string &text, const char *what) {
    std::vector<std::string> out;
    std::stringstream in(text);
    std::string item;
    while (std::getline(in, item, ',')) {
        if (item.empty()) throw LineError{std::string("malformed ") + what + " '" + text + "'"};
        out.push_back(item);
    }
    if (out.empty() || text.back() == ',') throw LineError{std::string("malformed ") + what + " '" + text + "'"};
    return out;
}

std::string line_ref(size_t line) { return "line " + std::to_string(line); }

class Parser {
public:
    Parser(const StoreAfids &afids, FabricDesc &fabric) : afids_(afids), f_(fabric) {}

    void line(size_t number, const Words &w) {
        line_ = number;
        const std::string &what = w[0];
        if (what == "device") return device(w);
        if (what == "native-domain") {
            expect(w, 3, "native-domain VSAN DOMAIN");
            const uint32_t v = vsan(w[1]);
            once(native_at_, v, "native domain of VSAN " + w[1]);
            f_.native_domains[v] = domain(w[2]);
            return;
        }
        if (what == "proxy-domains") {
            expect(w, 3, "proxy-domains VSAN DOMAIN[,DOMAIN...]");
            const uint32_t v = vsan(w[1]);
            once(proxy_at_, v, "proxy domains of VSAN " + w[1]);
            std::set<uint8_t> domains;
            for (const std::string &d : items(w[2], "domain list"))
                if (!domains.insert(domain(d)).second) throw LineError{"domain " + d + " is listed twice"};
            f_.proxy_domains[v].assign(domains.begin(), domains.end());
            return;
        }
        if (what == "next-hop") {
            expect(w, 4, "next-hop VSAN DOMAIN NEXT-VSAN");
            const uint32_t v = vsan(w[1]), next = vsan(w[3]);
            const uint8_t d = domain(w[2]);
            if (next == v) throw LineError{"the next hop of VSAN " + w[1] + " is VSAN " + w[3] + " itself"};
            once(hop_at_, std::make_pair(v, d), "next hop of VSAN " + w[1] + " to domain " + w[2]);
            f_.next_hops[{v, d}] = next;
            return;
        }
        if (what == "nat") {
            expect(w, 7, "nat VSAN NEXT-VSAN SID DID NEW-SID NEW-DID");
            const uint32_t v = vsan(w[1]), next = vsan(w[2]);
            if (next == v) throw LineError{"the next VSAN " + w[2] + " is VSAN " + w[1] + " itself"};
            const std::array<uint32_t, 4> key{v, next, fcid(w[3]), fcid(w[4])};
            once(nat_at_, key, "NAT rewrite of " + w[3] + " to " + w[4] + " from VSAN " + w[1] + " into VSAN " + w[2]);
            f_.nat[key] = {fcid(w[5]), fcid(w[6])};
            return;
        }
        throw LineError{"unknown statement '" + what + "' (device, native-domain, proxy-domains, next-hop or nat)"};
    }

private:
    void expect(const Words &w, size_t n, const char *form) const {
        if (w.size() != n) throw LineError{std::string("expected '") + form + "'"};
    }
    // Records where a key was first given; a second time is an error naming the first line.
    template <typename Key>
    void once(std::map<Key, size_t> &seen, const Key &key, const std::string &what) const {
        const auto [it, fresh] = seen.emplace(key, line_);
        if (!fresh) throw LineError{"the " + what + " is given twice (first on " + line_ref(it->second) + ")"};
    }

    void device(const Words &w) {
        if (w.size() < 2) throw LineError{"expected 'device PWWN fcid FCID vsans RANGES ...'"};
        FabricDevice d;
        d.pwwn = zfxtool::wwn_word(w[1]);
        if (d.pwwn == Wwn{}) throw LineError{"the port WWN 00:00:00:00:00:00:00:00 is not a device's"};
        std::set<std::string> given;
        std::string per_vsan;
        for (size_t i = 2; i < w.size(); i += 2) {
            const std::string &opt = w[i];
            static const std::set<std::string> known = {"fcid", "vsans", "afid", "value", "per-vsan", "node", "name"};
            if (known.count(opt) == 0)
                throw LineError{"unknown device option '" + opt + "' (fcid, vsans, afid, value, per-vsan, node or name)"};
            if (!given.insert(opt).second) throw LineError{"device option '" + opt + "' is given twice"};
            if (i + 1 >= w.size()) throw LineError{"device option '" + opt + "' needs a value"};
            const std::string &val = w[i + 1];
            if (opt == "fcid") d.fcid = fcid(val);
            else if (opt == "vsans") d.vsans = zfxtool::vsan_ranges(val);
            else if (opt == "afid") d.afid = uint16_t(zfxtool::any_number(val, 1, 0xFFFF, "autonomous fabric ID"));
            else if (opt == "value") d.value = uint32_t(zfxtool::any_number(val, 0, UINT32_MAX, "value"));
            else if (opt == "per-vsan") per_vsan = val;
            else if (opt == "node") d.node = zfxtool::wwn_word(val);
            else if (val.size() > kSymbolicNameMax) throw LineError{"the name is longer than " + std::to_string(kSymbolicNameMax) + " characters"};
            else d.name = val;
        }
        if (given.count("fcid") == 0 || given.count("vsans") == 0) throw LineError{"a device needs fcid FCID and vsans RANGES"};
        if (vsan_bitset_is_bit_set(&d.vsans.bits, 0) != 0) throw LineError{"VSAN 0 is not a VSAN (1 to 4095)"};
        if (given.count("value") != 0 && given.count("per-vsan") != 0) throw LineError{"a device has a value or per-vsan values, not both"};
        if (given.count("per-vsan") != 0) {
            d.per_vsan = true;
            for (const std::string &item : items(per_vsan, "per-VSAN values")) {
                const size_t colon = item.find(':');
                if (colon == std::string::npos) throw LineError{"malformed per-VSAN value '" + item + "' (VSAN:VALUE)"};
                const uint32_t v = vsan(item.substr(0, colon));
                if (vsan_bitset_is_bit_set(&d.vsans.bits, int32_t(v)) == 0)
                    throw LineError{"a per-VSAN value for VSAN " + std::to_string(v) + ", which is not among the device's VSANs"};
                if (!d.values.emplace(v, uint32_t(zfxtool::any_number(item.substr(colon + 1), 0, UINT32_MAX, "value"))).second)
                    throw LineError{"VSAN " + std::to_string(v) + " has two per-VSAN values"};
            }
        }
        check_afid(d);
        const std::string pwwn = zfxtool::wwn_text(d.pwwn);
        once(device_at_, d.pwwn, "device " + pwwn);
        once(fcid_at_, d.fcid, "FCID " + zfxtool::format("0x%06x", d.fcid));
        f_.devices.emplace(d.pwwn, std::move(d));
    }

    void check_afid(const FabricDevice &d) const {
        const auto it = afids_.find(d.afid);
        if (it == afids_.end()) {
            if (d.afid == 1) return;
            throw LineError{"autonomous fabric ID " + std::to_string(d.afid) + " is in neither the store's VSAN topology nor its AFID table"};
        }
        if (vsan_bitset_bitcount(&it->second.bits) == 0) return;  // named without VSANs: any
        vsan_bitset outside = d.vsans.bits;
        vsan_bitset_subtract(&outside, &it->second.bits);
        const int32_t first = vsan_bitset_first_bit(&outside);
        if (first >= 0)
            throw LineError{"VSAN " + std::to_string(first) + " is not among the VSANs the store gives autonomous fabric ID " +
                            std::to_string(d.afid) + " (" + zfxtool::vsan_text(it->second.bits) + ")"};
    }

    const StoreAfids &afids_;
    FabricDesc &f_;
    size_t line_ = 0;
    std::map<Wwn, size_t> device_at_;
    std::map<uint32_t, size_t> fcid_at_, native_at_, proxy_at_;
    std::map<std::pair<uint32_t, uint8_t>, size_t> hop_at_;
    std::map<std::array<uint32_t, 4>, size_t> nat_at_;
};

}  // namespace

StoreAfids store_afids(const std::string &location) {
    StoreAfids out;
    zfxtool::walk_store(location, [&](const uint8_t *k, uint32_t klen, const uint8_t *v, uint32_t vlen) {
        uint16_t afid = 0;
        if (klen == sizeof(zfx_vt_kvdb_key) && k[0] == ZFX_VT_TABLE && k[1] == ZFX_VT_KIND_ENTRY) {
            std::memcpy(&afid, k + offsetof(zfx_vt_kvdb_key, afid), 2);
        } else if (klen == sizeof(zfx2_afid_table_kvdb_key) && (k[0] == ZFX2_AFID_TABLE || k[0] == ZFX2_AFID_DEFAULT_TABLE) &&
                   k[1] == ZFX2_AFID_KIND) {
            std::memcpy(&afid, k + offsetof(zfx2_afid_table_kvdb_key, afid), 2);
        } else {
            return;
        }
        VsanSet &set = out[afid];
        // The default table's values carry no VSANs; a short value names the AFID alone.
        if (k[0] != ZFX2_AFID_DEFAULT_TABLE && vlen >= sizeof(vsan_bitset)) {
            vsan_bitset stored;
            std::memcpy(&stored, v, sizeof stored);
            stored.len = VSAN_BITSET_BYTES;
            vsan_bitset_union(&set.bits, &stored);
        }
    });
    return out;
}

bool parse_fabric(const std::string &text, const std::string &name, const StoreAfids &afids, FabricDesc &fabric,
                  std::string &error) {
    Parser parser(afids, fabric);
    size_t number = 0;
    return zfxtool::each_line(text, name, [&](const zfxtool::TextLine &line) {
        ++number;
        if (line.body.empty() || line.body[0] == '#') return;
        if (std::any_of(line.body.begin(), line.body.end(), [](char c) { return (unsigned char)c < 0x20 && c != '\t'; }))
            throw LineError{"a control character in the line"};
        parser.line(number, zfxtool::words(line.body));
    }, error);
}

bool load_fabric(const std::string &path, const StoreAfids &afids, FabricDesc &fabric, std::string &error) {
    std::string text;
    return zfxtool::read_text(path, text, error) && parse_fabric(text, path, afids, fabric, error);
}

}  // namespace zfxd
