// The fabric's requests: each one decoded, checked against its length, answered from the fabric
// description in the layouts of zfxd_protocol.h. Nothing here changes the zone database.
#include "fabric_service.hpp"

#include <arpa/inet.h>

#include <cstring>

#include "platform/dir.h"
#include "service.hpp"
#include "tlv.hpp"
#include "zfx_common.h"
#include "zfx_service.h"
#include "zfxd_protocol.h"

namespace zfxd {
namespace {

using zfxtool::load;

static_assert(ZFXD_DIR_ERR_NOT_FOUND == DIR_ERR_NOT_FOUND, "zfx names the name server's status as the client does");

Answer status(int32_t result) { return Answer{result, false, {}}; }
Answer reply(Bytes bytes) { return Answer{0, true, std::move(bytes)}; }

void put(Bytes &out, size_t at, const void *p, size_t n) { std::memcpy(out.data() + at, p, n); }
void put_be32(Bytes &out, size_t at, uint32_t v) {
    const uint32_t be = htonl(v);
    put(out, at, &be, 4);
}
uint32_t be32_at(const uint8_t *p) { return ntohl(load<uint32_t>(p)); }

Wwn wwn_at(const uint8_t *p) {
    Wwn w;
    std::memcpy(w.data(), p, 8);
    return w;
}

bool in_vsan(const FabricDevice &d, uint32_t vsan) {
    return vsan <= ZFX_VSAN_MAX && vsan_bitset_is_bit_set(&d.vsans.bits, int32_t(vsan)) != 0;
}

// The device's value in a VSAN of its set: its one value, or the VSAN's own when it has one.
std::optional<uint32_t> value_in(const FabricDevice &d, uint32_t vsan) {
    if (!in_vsan(d, vsan)) return std::nullopt;
    if (!d.per_vsan) return d.value;
    const auto it = d.values.find(vsan);
    return it != d.values.end() ? std::optional(it->second) : std::nullopt;
}

Bytes ns_entry(const FabricDevice &d) {
    dir_entry e{};
    e.port_id = htonl(d.fcid);
    std::memcpy(e.port_name, d.pwwn.data(), 8);
    std::memcpy(e.node_name, d.node.data(), 8);
    e.class_of_service = htonl(ZFXD_NS_CLASS);
    e.port_type = ZFXD_NS_PORT_TYPE;
    std::memcpy(e.symbolic_name, d.name.data(), std::min(d.name.size(), sizeof e.symbolic_name - 1));
    const auto *b = reinterpret_cast<const uint8_t *>(&e);
    return Bytes(b, b + sizeof e);
}

Bytes device_entry(const FabricDevice &d) {
    Bytes e(ZFX_DEVICE_ENTRY_SIZE, 0);
    put(e, offsetof(zfx_device_entry, pwwn), d.pwwn.data(), 8);
    const uint32_t value = d.per_vsan ? 0 : d.value;
    put(e, offsetof(zfx_device_entry, vsan_value), &value, 4);
    put_be32(e, ZFXD_DEVICE_FCID_AT, d.fcid);
    put_be32(e, ZFXD_DEVICE_AFID_AT, d.afid);
    put(e, offsetof(zfx_device_entry, vsans), &d.vsans.bits, sizeof(vsan_bitset));
    e[offsetof(zfx_device_entry, flags)] = d.per_vsan ? ZFX_DEVICE_FLAG_PER_VSAN : 0;
    const Bytes ns = ns_entry(d);
    put(e, offsetof(zfx_device_entry, ns_block), ns.data(), ns.size());
    return e;
}

// The devices after the cursor's port WWN, at most one batch.
std::vector<const FabricDevice *> batch_after(const FabricDesc &f, const uint8_t *cursor) {
    std::vector<const FabricDevice *> out;
    for (auto it = f.devices.upper_bound(wwn_at(cursor)); it != f.devices.end() && out.size() < ZFXD_DEVICE_BATCH; ++it)
        out.push_back(&it->second);
    return out;
}

// The TLV-encoded reply of devices (zfxd_protocol.h): count, a zero word, the elements.
Bytes tlv_reply(const std::vector<const FabricDevice *> &devices) {
    zfxtool::TlvArray a;
    for (const FabricDevice *d : devices) {
        const Bytes e = device_entry(*d);
        a.add(ZFX_TLV_DEVICE_ENTRY, e.data(), ZFX_DEVICE_ENTRY_HEAD_SIZE);
        a.add(ZFXD_TLV_NS_BLOCK, e.data() + ZFX_DEVICE_ENTRY_HEAD_SIZE, ZFX_NS_BLOCK_SIZE);
        std::vector<zfx_pv_vsan_pair> pairs;
        for (int32_t v = vsan_bitset_first_bit(&d->vsans.bits); v >= 0; v = vsan_bitset_next_bit(&d->vsans.bits, v))
            if (const auto value = value_in(*d, uint32_t(v))) pairs.push_back({uint32_t(v), *value});
        a.add_u32(ZFXD_TLV_PAIR_COUNT, uint32_t(pairs.size()));
        for (const zfx_pv_vsan_pair &pair : pairs) a.add(ZFXD_TLV_PAIR, &pair, sizeof pair);
    }
    Bytes out(8 + a.bytes().size(), 0);
    const int32_t count = int32_t(devices.size());
    put(out, 0, &count, 4);
    std::copy(a.bytes().begin(), a.bytes().end(), out.begin() + 8);
    return out;
}

}  // namespace

bool FabricService::serves(uint32_t msg_type) {
    switch (msg_type) {
        case ZFX_MSG_NS_DEVICE_ENTRY:
        case ZFX_MSG_PV_VSAN_ENTRY:
        case ZFX_MSG_NS_ENTRY_REQ:
        case ZFX_MSG_FCR_QUERY:
        case ZFX_MSG_NEXT_HOP_VSAN:
        case ZFX_MSG_NAT_NEXT_HOP: return true;
        default: return false;
    }
}

Answer FabricService::request(uint32_t msg_type, uint32_t opcode, const uint8_t *p, uint32_t n, std::string &what) {
    switch (msg_type) {
        case ZFX_MSG_NS_DEVICE_ENTRY:
        case ZFX_MSG_NS_ENTRY_REQ: {
            const bool tlv = msg_type == ZFX_MSG_NS_ENTRY_REQ;
            what = tlv ? "device entries (tlv)" : "device entries";
            if (opcode != (tlv ? ZFXD_OP_GET : ZFXD_OP_REMOTE)) return status(ZFXD_ERR_UNSUPPORTED);
            if (n < 8) return status(ZFXD_ERR_MALFORMED);
            const auto devices = batch_after(fabric_, p);
            what += " after " + zfxtool::wwn_text(wwn_at(p)) + ": " + std::to_string(devices.size());
            if (tlv) return reply(tlv_reply(devices));
            Bytes out;
            out.reserve(devices.size() * ZFX_DEVICE_ENTRY_SIZE);
            for (const FabricDevice *d : devices) {
                const Bytes e = device_entry(*d);
                out.insert(out.end(), e.begin(), e.end());
            }
            return reply(std::move(out));
        }
        case ZFX_MSG_PV_VSAN_ENTRY: {
            what = "per-vsan value";
            if (opcode != ZFXD_OP_GET) return status(ZFXD_ERR_UNSUPPORTED);
            if (n < sizeof(zfx_pv_vsan_query)) return status(ZFXD_ERR_MALFORMED);
            const uint32_t vsan = be32_at(p + offsetof(zfx_pv_vsan_query, vsan));
            what.append(" ").append(zfxtool::wwn_text(wwn_at(p))).append(" vsan ").append(std::to_string(vsan));
            const FabricDevice *d = fabric_.device(wwn_at(p));
            const auto value = d != nullptr ? value_in(*d, vsan) : std::nullopt;
            if (!value) return status(ZFXD_ERR_NOT_FOUND);
            Bytes out(4);
            put(out, 0, &*value, 4);
            return reply(std::move(out));
        }
        case ZFX_MSG_FCR_QUERY: {
            what = "fcr query";
            if (opcode != ZFXD_OP_GET) return status(ZFXD_ERR_UNSUPPORTED);
            if (n < 4) return status(ZFXD_ERR_MALFORMED);
            const uint32_t count = load<uint32_t>(p);
            if (count > ZFXD_DEVICE_BATCH) return status(ZFXD_ERR_INVALID);
            if ((n - 4) / sizeof(zfx_fcr_query_item) < count) return status(ZFXD_ERR_MALFORMED);
            std::vector<const FabricDevice *> devices;
            for (uint32_t i = 0; i < count; ++i) {
                const uint8_t *item = p + 4 + i * sizeof(zfx_fcr_query_item);
                const FabricDevice *d = fabric_.device(wwn_at(item));
                const uint32_t vsan = be32_at(item + 8);
                if (d != nullptr && (vsan == 0 || in_vsan(*d, vsan))) devices.push_back(d);
            }
            what.append(" ").append(std::to_string(count)).append(" items: ").append(std::to_string(devices.size()));
            return reply(tlv_reply(devices));
        }
        case ZFX_MSG_NEXT_HOP_VSAN: {
            what = "next hop";
            if (opcode != ZFXD_OP_REMOTE) return status(ZFXD_ERR_UNSUPPORTED);
            if (n < sizeof(zfx_next_hop_request)) return status(ZFXD_ERR_MALFORMED);
            const uint32_t vsan = be32_at(p), did = be32_at(p + 4);
            what += zfxtool::format(" vsan %u did 0x%06x", vsan, did);
            const auto it = fabric_.next_hops.find({vsan, uint8_t(did >> 16)});
            if (it == fabric_.next_hops.end() || (did >> 24) != 0) return status(ZFXD_ERR_NOT_FOUND);
            return reply(zfxtool::be32(it->second));
        }
        case ZFX_MSG_NAT_NEXT_HOP: {
            what = "nat next hop";
            if (opcode != ZFXD_OP_REMOTE) return status(ZFXD_ERR_UNSUPPORTED);
            if (n < sizeof(zfx_nat_next_hop_request)) return status(ZFXD_ERR_MALFORMED);
            const std::array<uint32_t, 4> key{be32_at(p), be32_at(p + 4), be32_at(p + 8), be32_at(p + 12)};
            what += zfxtool::format(" vsan %u next %u sid 0x%06x did 0x%06x", key[0], key[1], key[2], key[3]);
            const auto it = fabric_.nat.find(key);
            if (it == fabric_.nat.end()) return status(ZFXD_ERR_NOT_FOUND);
            Bytes out(sizeof(zfx_nat_next_hop_reply));
            put_be32(out, offsetof(zfx_nat_next_hop_reply, sid), it->second.first);
            put_be32(out, offsetof(zfx_nat_next_hop_reply, did), it->second.second);
            return reply(std::move(out));
        }
        default: return status(ZFXD_ERR_UNSUPPORTED);
    }
}

Answer FabricService::raw(uint32_t sap, uint32_t opcode, const uint8_t *p, uint32_t n, std::string &what) {
    if (sap == DIR_SAP) {
        what = "name-server entry";
        if (opcode != DIR_OP_GET_ENTRY_BY_PORTNAME) return status(ZFXD_ERR_UNSUPPORTED);
        if (n < DIR_REQUEST_SIZE) return status(ZFXD_ERR_MALFORMED);
        const uint32_t scope = be32_at(p + 8);
        const FabricDevice *d = fabric_.device(wwn_at(p));
        what += " " + zfxtool::wwn_text(wwn_at(p)) + " scope " + std::to_string(scope);
        const bool found = d != nullptr && (scope == 0 || in_vsan(*d, scope));
        Bytes out(DIR_REPLY_HEADER_SIZE, 0);
        if (!found) {
            put_be32(out, 0, uint32_t(DIR_ERR_NOT_FOUND));
            return reply(std::move(out));
        }
        put_be32(out, 4, 1);
        put_be32(out, 8, DIR_ENTRY_SIZE);
        const Bytes e = ns_entry(*d);
        out.insert(out.end(), e.begin(), e.end());
        return reply(std::move(out));
    }
    if (sap != ZFX_SAP) return status(ZFXD_ERR_UNSUPPORTED);
    switch (opcode) {
        case ZFX_XQB_NATIVE_DOMAIN: {
            what = "native domain";
            if (n < sizeof(zfx_native_domain_request)) return status(ZFXD_ERR_MALFORMED);
            const uint32_t vsan = be32_at(p);
            what += " vsan " + std::to_string(vsan);
            Bytes out(sizeof(zfx_native_domain_reply), 0);
            const auto it = fabric_.native_domains.find(vsan);
            if (it == fabric_.native_domains.end()) put_be32(out, 0, uint32_t(ZFXD_ERR_NOT_FOUND));
            else put_be32(out, offsetof(zfx_native_domain_reply, fc_addr), uint32_t(it->second) << 16);
            return reply(std::move(out));
        }
        case ZFX_XQB_PROXY_DOMAIN_LIST: {
            what = "proxy domains";
            if (n < 4) return status(ZFXD_ERR_MALFORMED);
            const uint32_t vsan = be32_at(p);
            what += " vsan " + std::to_string(vsan);
            Bytes out(sizeof(zfx_proxy_domain_reply), 0);
            const auto it = fabric_.proxy_domains.find(vsan);
            if (it == fabric_.proxy_domains.end()) {
                put_be32(out, 0, uint32_t(ZFXD_ERR_NOT_FOUND));
                return reply(std::move(out));
            }
            for (uint8_t d : it->second) zfxtool::set_id_bit(out.data() + offsetof(zfx_proxy_domain_reply, domain_list), d);
            put_be32(out, offsetof(zfx_proxy_domain_reply, value), uint32_t(it->second.size()));
            return reply(std::move(out));
        }
        case ZFX_XQB_FORWARD_FRAME: {
            what = "frame";
            if (n < ZFX_FRAME_HEADER_SIZE) return status(ZFXD_ERR_MALFORMED);
            const uint32_t len = load<uint32_t>(p + offsetof(zfx_frame_record, data_len));
            if (len != n - ZFX_FRAME_HEADER_SIZE) {
                what += zfxtool::format(" of %u data bytes in a message of %u", len, n);
                return status(ZFXD_ERR_MALFORMED);
            }
            ++frames_;
            last_frame_ = zfxtool::format("0x%08x 0x%08x %u 0x%08x", be32_at(p), be32_at(p + 4), len,
                                          zfxd_frame_check(p + ZFX_FRAME_HEADER_SIZE, len));
            what += " " + std::to_string(frames_) + ": " + last_frame_;
            return status(0);
        }
        default: what = "raw message " + std::to_string(opcode); return status(ZFXD_ERR_UNSUPPORTED);
    }
}

std::optional<std::string> FabricService::info(uint32_t key) const {
    switch (key) {
        case ZFXD_INFO_DEVICES: return std::to_string(fabric_.devices.size());
        case ZFXD_INFO_FRAMES: return std::to_string(frames_);
        case ZFXD_INFO_LAST_FRAME: return last_frame_;
        default: return std::nullopt;
    }
}

}  // namespace zfxd
