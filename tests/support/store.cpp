#include "store.hpp"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <memory>

#include "platform/ptxt.h"
#include "zfx_ascii_cfg.h"
#include "zfx_zone_db.h"

namespace zfxtest {

Record flags_rec(uint32_t flags) { return {{0x75, 0x01}, le32(flags)}; }
Record nat_rec(uint8_t on) { return {{0x70, 0x00}, {on}}; }
Record aam_rec(uint8_t on) { return {{0x7A, 0x00}, {on}}; }
Record distribute_rec(uint32_t value) { return {{0x6E, 0x00}, be32(value)}; }
Record topo_rec(uint16_t afid, const Bytes &wwn, uint8_t membership, const Bytes &set) {
    return {cat({{0x65, 0x01}, le16(afid), wwn, {membership}}), set};
}
Record topo_mode_rec(uint32_t mode) { return {{0x65, 0x02}, cat({le32(0xA1B2C3D4), be32(mode), Bytes(16, 0)})}; }
Record afid_rec(bool is_default, const Bytes &wwn, uint16_t afid, const Bytes &set) {
    return {cat({{uint8_t(is_default ? 0x72 : 0x71), 0x01}, wwn, le16(afid)}), set};
}
Record sg_member_rec(bool cfg, uint32_t group, uint16_t afid, const Bytes &set) {
    return {cat({{uint8_t(cfg ? 0x73 : 0x76), 0x02}, le32(group), le16(afid)}), set};
}
Record sg_name_rec(bool cfg, uint32_t group, const std::string &name) {
    return {cat({{uint8_t(cfg ? 0x73 : 0x76), 0x01}, le32(group)}), Bytes(name.begin(), name.end())};
}
Record sg_policy_rec(uint32_t policy) { return {{0x76, 0x03}, le32(policy)}; }
Record debug_level_rec(uint32_t valid, uint32_t level) { return {cat({le32(2), le32(0)}), cat({le32(valid), le32(level)})}; }

Bytes name68(const std::string &name) {
    Bytes out(name.begin(), name.end());
    out.resize(68, 0);
    return out;
}

static Bytes key6(uint8_t table, uint16_t a, uint16_t b) { return cat({{table, 0}, le16(a), le16(b)}); }

Record zone_db_header_rec(const std::vector<int> &zones, const std::vector<int> &zonesets, bool short_form) {
    const Bytes full = id_bits(1024, short_form ? std::vector<int>{} : zones);
    const Bytes short_bits = id_bits(256, short_form ? zones : std::vector<int>{});
    return {{0x66, 0x00}, cat({zeros(4), id_bits(256, zonesets), zeros(4), Bytes(short_bits.begin(), short_bits.begin() + 251),
                               zeros(5), le32(1024), full})};
}
static Record named_rec(uint8_t table, uint16_t id, const std::string &name, const Bytes &array) {
    return {key6(table, id, 0), cat({le16(id), zeros(2), name68(name), array})};
}
Record zone_rec(uint16_t id, const std::string &name, const Bytes &array) { return named_rec(0x68, id, name, array); }
Record zoneset_rec(uint16_t id, const std::string &name, const Bytes &array) { return named_rec(0x67, id, name, array); }
Record member_rec(uint16_t zone_id, uint16_t member_id, uint8_t type, const Bytes &array) {
    return {key6(0x69, member_id, zone_id), cat({le16(member_id), {type, 0}, array})};
}
Bytes members_tlv(const std::vector<int> &ids) { return tlv(7, cat({le32(256), id_bits(256, ids)})); }
Bytes zones_tlv(uint16_t type, const std::vector<int> &ids) {
    const size_t n = type == 4 ? 256 : 1024;
    return tlv(type, cat({le32(uint32_t(n)), id_bits(n, ids)}));
}
Record zone_options_rec(uint32_t options) { return {{0x6B, 0x00}, be32(options)}; }
std::vector<Record> active_chunks(const Bytes &data, size_t chunk, int64_t total) {
    std::vector<Record> out{{key6(0x6C, 0, 0), be32(total < 0 ? uint32_t(data.size()) : uint32_t(total))}};
    for (size_t off = 0, n = 1; off < data.size(); off += chunk, ++n)
        out.push_back({key6(0x6C, 0, uint16_t(n)), Bytes(data.begin() + off, data.begin() + std::min(off + chunk, data.size()))});
    return out;
}

Record vdom_list_rec(const Bytes &set) { return {{0x6D, 0x00}, set}; }
Record rdi_rec(uint16_t afid, const Bytes &set) { return {cat({{0x79, 0x00}, le16(afid)}), set}; }
Record pfcid_domain_rec(uint16_t afid, uint32_t vsan, uint16_t native_afid, uint32_t native_vsan, uint8_t domain,
                        uint32_t word, uint16_t tag) {
    return {cat({{0x74, 1}, le16(tag), le16(afid), le32(vsan), le16(native_afid), le16(0), le32(native_vsan)}),
            cat({{0, domain, 0, 0}, le32(word)})};
}
Record pfcid_fcid_rec(uint16_t afid, uint32_t vsan, const Bytes &wwn, const Bytes &fcid, uint32_t word, uint16_t tag) {
    return {cat({{0x74, 2}, le16(tag), le16(afid), le32(vsan), wwn}), cat({fcid, le32(word)})};
}

Prefix::Prefix(Backend backend) : backend_(backend) {
    static std::atomic<int> serial;
    if (backend == Backend::mem) {
        path_ = "mem:test-" + std::to_string(getpid()) + "-" + std::to_string(serial++);
    } else {
        std::string tmpl = (std::filesystem::temp_directory_path() / "zfx-test-XXXXXX").string();
        EXPECT_NE(mkdtemp(tmpl.data()), nullptr);
        path_ = tmpl;
    }
}

Prefix::~Prefix() {
    if (backend_ == Backend::mem) {
        kvdb_destroy(config().c_str());
        kvdb_destroy(debug().c_str());
    } else {
        std::error_code ec;
        std::filesystem::remove_all(path_, ec);
    }
}

void put(const std::string &location, const std::vector<Record> &records) {
    int32_t status = -1;
    kvdb_store *w = kvdb_create(location.c_str(), &status);
    ASSERT_EQ(status, 0) << location;
    for (const auto &[k, v] : records) {
        kvdb_datum key{const_cast<uint8_t *>(k.data()), uint32_t(k.size())};
        kvdb_datum value{const_cast<uint8_t *>(v.data()), uint32_t(v.size())};
        EXPECT_EQ(kvdb_put(w, &key, &value), 0);
    }
    kvdb_close(w);
}

Reader::Reader(const std::string &location) {
    int32_t status = -1;
    store_.reset(kvdb_open(location.c_str(), &status));
    EXPECT_EQ(status, 0) << location;
}

Stored::Stored(const std::vector<Record> &records, Backend backend)
    : prefix_(backend), reader_((put(prefix_.config(), records), prefix_.config())) {}

// The text of the generation handle, which is released.
static std::string rendered(uint32_t handle) {
    char *text = nullptr;
    EXPECT_EQ(ptxt_render(handle, &text, nullptr), 0);
    std::string out = text != nullptr ? text : "";
    std::free(text);
    ptxt_hdl_release(handle);
    return out;
}

std::string generate(std::initializer_list<std::pair<uint32_t, kvdb_store *>> stores) {
    uint32_t handle = 0;
    EXPECT_EQ(ptxt_hdl_init(&handle), 0);
    // One entry more than the count: a copy of the first, which must not be read.
    const size_t bytes = sizeof(zfx_gen_request) + (stores.size() + 1) * sizeof(zfx_gen_store_entry);
    std::unique_ptr<uint8_t[]> block(new uint8_t[bytes]());
    auto *req = reinterpret_cast<zfx_gen_request *>(block.get());
    req->handle = handle;
    req->selector = ZFX_GEN_SELECT_GENERATE;
    for (const auto &[kind, store] : stores) req->entries[req->count++] = zfx_gen_store_entry{kind, store, 0};
    if (req->count != 0) req->entries[req->count] = req->entries[0];
    EXPECT_EQ(zfx_ascii_cfg_generate(req), 0);
    return rendered(handle);
}

std::string generate_from(const std::string &location) {
    Reader r(location);
    return generate({{ZFX_GEN_STORE_CONFIG, r.get()}});
}

int32_t append_text(void *sink, void *, const char *text, uint32_t len) {
    static_cast<std::string *>(sink)->append(text, len);
    return 0;
}

std::string gen_func_text(const std::string &prefix, int32_t *status) {
    std::string text;
    ptxt_request request{prefix.c_str(), prefix.c_str(), append_text, &text};
    const int32_t result = zfx_ptxt_gen_func(nullptr, &request);
    if (status != nullptr) *status = result;
    else EXPECT_EQ(result, 0);
    return text;
}

std::string section(const std::vector<Record> &records) {
    const Stored s(records);
    const std::string text = generate({{ZFX_GEN_STORE_CONFIG, s.get()}});
    const std::string feature = "feature zfx\n";
    EXPECT_EQ(text.rfind(feature, 0), 0u) << text;
    return text.substr(std::min(text.size(), feature.size()));
}

std::ostream &operator<<(std::ostream &os, const SectionResult &r) { return os << r.status << " \"" << r.text << "\""; }

std::string generation_text(const std::function<void(uint32_t handle)> &run) {
    uint32_t handle = 0;
    EXPECT_EQ(ptxt_hdl_init(&handle), 0);
    const zfx_gen_request take_handle{0, handle, 0, 0};
    zfx_ascii_cfg_generate(&take_handle);  // makes it the generation in progress
    for (uint32_t element = ZFX_ELEM_FEATURE; element <= ZFX_ELEM_PFCID; ++element)
        ptxt_elem_add(handle, ZFX_PTXT_GROUP, element, ZFX_PTXT_ELEM_KIND);
    run(handle);
    return rendered(handle);
}

SectionResult zone_section_on(kvdb_store *store) {
    SectionResult out{0, ""};
    commit_reqd = 0;
    out.text = generation_text([&](uint32_t) { out.status = zfx_zone_generate_ascii_config(store); });
    return out;
}

}  // namespace zfxtest
