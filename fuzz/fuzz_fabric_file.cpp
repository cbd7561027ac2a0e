// The fabric description parser on arbitrary text. What must hold: a refusal names a line of the
// text ("fuzz:LINE: ..."), one line only; an accepted description written back as text (every
// statement in its plainest form) parses to the same fabric.
#include <cstring>
#include <string>

#include "fabric_file.hpp"
#include "fuzz_input.hpp"

namespace {

using zfxd::FabricDesc;

// The store's AFIDs the parser holds devices to: AFID 5 in VSANs 10 to 20, AFID 6 anywhere.
zfxd::StoreAfids store_afids() {
    zfxd::StoreAfids a;
    a[5].add(10, 20);
    a[6];
    return a;
}

std::string text_of(const FabricDesc &f) {
    using zfxtool::format;
    std::string t;
    for (const auto &[pwwn, d] : f.devices) {
        t += "device " + zfxtool::wwn_text(pwwn) + format(" fcid 0x%06x vsans ", d.fcid) + zfxtool::vsan_text(d.vsans.bits) +
             format(" afid %u node ", d.afid) + zfxtool::wwn_text(d.node);
        if (d.per_vsan) {
            std::string list;
            for (const auto &[v, value] : d.values) list += format("%s%u:%u", list.empty() ? "" : ",", v, value);
            t += " per-vsan " + list;
        } else {
            t += format(" value %u", d.value);
        }
        if (!d.name.empty()) t += " name " + d.name;
        t += "\n";
    }
    for (const auto &[v, d] : f.native_domains) t += format("native-domain %u %u\n", v, d);
    for (const auto &[v, ds] : f.proxy_domains) {
        t += format("proxy-domains %u ", v);
        for (size_t i = 0; i < ds.size(); ++i) t += format("%s%u", i == 0 ? "" : ",", ds[i]);
        t += "\n";
    }
    for (const auto &[k, n] : f.next_hops) t += format("next-hop %u %u %u\n", k.first, k.second, n);
    for (const auto &[k, r] : f.nat) t += format("nat %u %u 0x%06x 0x%06x 0x%06x 0x%06x\n", k[0], k[1], k[2], k[3], r.first, r.second);
    return t;
}

bool same(const FabricDesc &a, const FabricDesc &b) {
    if (a.devices.size() != b.devices.size()) return false;
    for (auto x = a.devices.begin(), y = b.devices.begin(); x != a.devices.end(); ++x, ++y) {
        const zfxd::FabricDevice &p = x->second, &q = y->second;
        if (p.pwwn != q.pwwn || p.node != q.node || p.fcid != q.fcid || p.afid != q.afid || !(p.vsans == q.vsans) || p.value != q.value ||
            p.per_vsan != q.per_vsan || p.values != q.values || p.name != q.name)
            return false;
    }
    return a.native_domains == b.native_domains && a.proxy_domains == b.proxy_domains && a.next_hops == b.next_hops && a.nat == b.nat;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const zfxd::StoreAfids afids = store_afids();
    const std::string text(reinterpret_cast<const char *>(data), size);
    FabricDesc fabric;
    std::string error;
    if (!zfxd::parse_fabric(text, "fuzz", afids, fabric, error)) {
        size_t lines = 1;
        for (char c : text) lines += c == '\n';
        const size_t line = error.rfind("fuzz:", 0) == 0 ? std::strtoul(error.c_str() + 5, nullptr, 10) : 0;
        if (line == 0 || line > lines) zfxfuzz::finding("a refusal that names no line of the text");
        if (error.find('\n') != std::string::npos) zfxfuzz::finding("a refusal of more than one line");
        return 0;
    }
    FabricDesc again;
    if (!zfxd::parse_fabric(text_of(fabric), "again", afids, again, error)) zfxfuzz::finding("the fabric written back is refused");
    if (!same(fabric, again)) zfxfuzz::finding("the fabric written back parses to another fabric");
    return 0;
}
