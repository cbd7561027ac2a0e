// The configuration text's fast path against the straightforward one.
//
// The zone section reads its records with key-ordered walks and keeps them by id; whatever the
// walks do not bring it looks up one record at a time, which is how the section read every
// record before. A store whose cursors fail at once leaves the walks empty, so the same store
// gives the section's text both ways: they must be equal, status and text, for sound stores and
// for damaged ones. The whole text of fabrics at the edges (the largest ids, the longest names,
// range text cut at the line limits, the widest numbers) must stay what the generator wrote
// before its lines were built without a format string: kReference holds that text's digest.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "fabric.hpp"
#include "platform/fmt.h"
#include "platform/ptxt.h"
#include "store.hpp"
#include "zfx_ascii_cfg.h"
#include "zfx_bitmap.hpp"
#include "zfx_tlv_walk.hpp"
#include "zfx_fabric.h"
#include "zfx_gen_text.hpp"
#include "zfx_testing.h"
#include "zfx_zone_db.h"

namespace {

using namespace zfxtool;
using zfxtest::Prefix;
using zfxtest::Reader;

// A fabric of every record kind, at its edges: zone 8191 and zoneset 2047 with 67-character
// names, member ids across the low byte of their keys (255, 256, 2047), 67-character aliases, a
// zone of 120 members (more lines than the zone text hands the text service at once),
// the widest VSAN, fabric ID and FCID numbers, and VSAN sets whose range text is cut at the
// 2047-character service-group line and the 10239-character virtual-domain line (and is whole in
// the topology and AFID lines). Seed 3 sets the virtual domains' force flag: its digest pins the
// cut of the forced form's longer line as well.
Fabric edge_fabric(uint64_t seed) {
    Fabric f = synth_fabric(SynthParams{uint32_t(12 + seed * 5 % 30), uint32_t(1 + seed % 6), 3, 8, 5, 9, 6, 20, seed});

    VsanSet odd, pairs;  // range text of 9758 and of 12900 characters
    for (int32_t v = 1; v < 4094; v += 2) odd.add(v, v);
    for (int32_t v = 1; v < 4093; v += 3) pairs.add(v, v + 1);
    static const uint8_t kTypes[] = {ZFX_MEMBER_PWWN, ZFX_MEMBER_DEVICE_ALIAS, ZFX_MEMBER_PWWN_LUN,
                                     ZFX_MEMBER_DEVICE_ALIAS_LUN};
    Zone big{8191, std::string(67, char('a' + seed % 26)), ZFX_ZONE_QOS_HIGH, true, {}};
    for (uint16_t id : {1, 255, 256, 257, 511, 2047})
        big.members.push_back(Member{kTypes[(id + seed) % 4], {0xff, 0xfe, 0xfd, 0xfc, 0xfb, 0xfa, 0xf9, uint8_t(id)},
                                     {0xff, 0xff, 0xff, 0xff, 0, 0, 0, uint8_t(id)}, std::string(67, char('A' + id % 26)),
                                     id == 2047 ? 0xFFFFFFFFu : 4094u + id, uint16_t(id == 255 ? 65535 : 1), id});
    f.zones.push_back(big);
    f.zones.push_back(Zone{uint16_t(2000 + seed), std::string("z").append(std::to_string(seed)), ZFX_ZONE_QOS_LOW, false, {}});
    // A zone whose member lines are more than the zone text gathers for one call to the text
    // service (its lines go over in several).
    Zone crowded{uint16_t(3000 + seed), std::string(67, 'C'), ZFX_ZONE_QOS_MEDIUM, true, {}};
    for (uint16_t id = 1; id <= 120; ++id) {
        Member m = big.members[id % big.members.size()];
        m.id = id;
        m.alias = std::string(60 + id % 8, char('a' + id % 26));
        crowded.members.push_back(m);
    }
    f.zones.push_back(crowded);
    f.zonesets.push_back(Zoneset{2047, std::string(67, 's'), {1, uint16_t(2000 + seed), uint16_t(3000 + seed), 8191}});

    f.vdom_list = pairs;
    f.vdoms[65535] = pairs;
    f.topology.push_back({65535, {0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff}, ZFX_VT_FLAG_ACTIVE, pairs});
    f.afids.push_back({false, {0x10, 0, 0, 0, 0, 0, 0, 1}, 65535, odd});
    ServiceGroup wide{900, std::string(79, 'g'), {{65535, odd}, {7, VsanSet().add(1, 4093)}}};
    f.groups_active.push_back(wide);
    wide.members[1].vsans = odd;
    f.groups_configured.push_back(wide);
    f.pfcid_domains.push_back({65535, 0xFFFFFFFFu, 65535, 0xFFFFFFFFu, 255});
    f.pfcid_fcids.push_back({65535, 0xFFFFFFFFu, {0xff, 0, 0xff, 0, 0xff, 0, 0xff, 0}, {255, 255, 255}});
    return f;
}

uint64_t fnv1a(const std::string &text) {
    uint64_t h = 0xcbf29ce484222325ull;
    for (unsigned char c : text) h = (h ^ c) * 0x100000001b3ull;
    return h;
}

// Digests of edge_fabric(seed)'s text, seeds 1 to 6, from the generator that handed every line
// to the text service on its own (which wrote the text the printf family wrote, on these
// fabrics before the 120-member zone joined them). To take them again, let a reference build's
// zfx-gen print the stores write_fabric writes for each seed.
constexpr uint64_t kReference[] = {
    0x79cd4c9154c8c6a8ull, 0x2809f1703a027313ull, 0x1e4ece0946de8535ull,
    0x3b2ddf7807b7bf92ull, 0xdb2eb34f5336fd08ull, 0x7b466249043eb82eull,
};

TEST(GenText, EdgeFabricsKeepTheirText) {
    for (uint64_t seed = 1; seed <= std::size(kReference); ++seed) {
        Fabric f = edge_fabric(seed);
        Prefix p;
        ASSERT_EQ(write_fabric(f, p.path(), p.path(), false), "");
        const std::string text = zfxtest::gen_func_text(p.path());
        EXPECT_EQ(fnv1a(text), kReference[seed - 1]) << "seed " << seed << "\n" << text;
        // The scratch strings hold the last WWN and LUN texts of the zone section.
        EXPECT_EQ(text.substr(text.rfind("member pwwn ") + 12, FMT_WWN_SIZE - 1), zfx_sp_wwn_str) << seed;
        const size_t lun = text.rfind(" lun ") + 5;
        EXPECT_EQ(text.substr(lun, text.find(' ', lun) - lun), lun_str) << seed;
        // Outside a generation the text service refuses every line; the commit line's refusal
        // is the result.
        f.distribute = true;
        ASSERT_EQ(write_fabric(f, p.path(), p.path(), true), "");
        EXPECT_EQ(zfx_ascii_gen_from_kvdb(Reader(p.config()).get()), PTXT_ERR_HANDLE) << seed;
    }
}

// The text service hands over the rendered text whether it was added in rendering order (handed
// over as it lies) or not (copied in order): element 1 renders after element 2.
TEST(GenText, TextServiceHandsOverWhatItRenders) {
    const std::vector<std::pair<uint32_t, const char *>> cases[] = {
        {{2, "two\n"}, {1, "one\n"}}, {{1, "one\n"}, {2, "two\n"}}, {{2, "tw"}, {1, "one\n"}, {2, "o"}}, {{2, "two\n"}, {1, "one"}}};
    for (const auto &adds : cases) {
        uint32_t h = 0;
        ASSERT_EQ(ptxt_hdl_init(&h), 0);
        ptxt_elem_dependency_add(h, 1, 7, 2);
        for (uint32_t e : {1, 2}) ptxt_elem_add(h, 7, e, 0);
        for (const auto &[e, s] : adds) ptxt_elem_str_add_indent(h, e, s, e == 1);
        ptxt_elem_group_config_str_add(h, 8, 0, 3, "g");
        std::string handed;
        ptxt_request req{"", "", zfxtest::append_text, &handed};
        EXPECT_EQ(ptxt_respond(h, nullptr, &req), 0);
        EXPECT_EQ(handed, "two\n  one\ng\n");
    }
}

using Section = zfxtest::SectionResult;
using zfxtest::zone_section_on;

// The zone section of the records read through walks, and read one lookup at a time.
std::pair<Section, Section> both_ways(const std::vector<Record> &records) {
    Prefix p;
    zfxtest::put(p.config(), records);
    const Section walked = zone_section_on(Reader(p.config()).get());
    const kvdb_mem_faults no_cursor{0, 0, nullptr, 0, 1};
    kvdb_mem_inject(p.config().c_str(), &no_cursor);
    const Section looked_up = zone_section_on(Reader(p.config()).get());
    kvdb_mem_inject(p.config().c_str(), nullptr);
    return {walked, looked_up};
}

Record *find(std::vector<Record> &records, const Bytes &key) {
    for (Record &r : records)
        if (r.first == key) return &r;
    return nullptr;
}
Record *find(std::vector<Record> &records, uint8_t table, uint16_t first, uint16_t second) {
    return find(records, zone_db_key(table, first, second));
}

// The bitmap helpers against the obvious bit-by-bit reading, on bitmaps of every density, with
// the first and last ids set and not, and sizes that are and are not a multiple of 8 bytes.
TEST(GenText, BitmapHelpersMatchABitByBitReading) {
    uint64_t rng = 0x9e3779b97f4a7c15ull;
    for (const uint32_t bytes : {1u, 7u, 8u, 9u, 32u, 1024u}) {
        for (uint32_t round = 0; round < 36; ++round) {  // density: round % 9 eighths; edges: round / 9
            std::vector<uint8_t> bits(bytes);
            for (uint8_t &b : bits)
                for (int i = 0; i < 8; ++i)
                    b |= uint8_t(((rng = rng * 6364136223846793005ull + 1442695040888963407ull) >> 61) < round % 9) << i;
            bits.front() |= round / 9 & 1 ? 0x80 : 0;  // id 0
            bits.back() |= round / 9 & 2 ? 0x01 : 0;   // the last id
            uint32_t count = 0, end = 0;
            for (uint32_t id = 0; id < 8 * bytes; ++id)
                if (zfx::bit_test(bits.data(), id)) end = id + 1, count += id != 0;
            EXPECT_EQ(zfx::bit_end(bits.data(), 8 * bytes), end) << bytes << " " << round;
            // The bytes it says hold the set ids: from the last one's byte to at most 7 more.
            uint32_t used = 0;
            EXPECT_EQ(zfx::bit_count(bits.data(), 8 * bytes, &used), count) << bytes << " " << round;
            EXPECT_TRUE(used >= (end + 7) / 8 && used <= std::min(bytes, (end + 7) / 8 + 7)) << bytes << " " << round;
            // From every start (and past the end), the next set id; the bitmap's size when none is.
            std::vector<uint32_t> next(8 * bytes + 1, 8 * bytes);
            for (uint32_t id = 8 * bytes; id-- > 0;) next[id] = zfx::bit_test(bits.data(), id) ? id : next[id + 1];
            for (uint32_t from = 0; from <= 8 * bytes + 8; ++from)
                ASSERT_EQ(zfx::bit_next(bits.data(), 8 * bytes, from), next[std::min(from, 8 * bytes)]) << bytes << " " << from;
            // Every id from 1 in order, and a visit that stops the walk stops it there.
            std::vector<uint32_t> want, got;
            for (uint32_t id = 1; id < 8 * bytes; ++id)
                if (zfx::bit_test(bits.data(), id)) want.push_back(id);
            EXPECT_EQ(zfx::for_each_id(bits.data(), 8 * bytes, [&](uint32_t id) { got.push_back(id); }), 0);
            EXPECT_EQ(got, want) << bytes << " " << round;
            if (!want.empty()) {
                const uint32_t stop = want[want.size() / 2];
                got.clear();
                EXPECT_EQ(zfx::for_each_id(bits.data(), 8 * bytes, [&](uint32_t id) { got.push_back(id); return id == stop ? 7 : 0; }), 7);
                EXPECT_EQ(got, std::vector<uint32_t>(want.begin(), want.begin() + ptrdiff_t(want.size() / 2 + 1)))
                    << bytes << " " << round;
                // Told how many to visit, it visits the first that many.
                got.clear();
                EXPECT_EQ(zfx::for_each_id(bits.data(), 8 * bytes, [&](uint32_t id) { got.push_back(id); }, uint32_t(want.size() / 2)), 0);
                EXPECT_EQ(got, std::vector<uint32_t>(want.begin(), want.begin() + ptrdiff_t(want.size() / 2))) << bytes << " " << round;
            }
        }
    }
}

// The line's writers of numbers and characters against "%d", the platform's formatters and
// memcpy: every count of digits and its neighbours, both signs, the ends of the range and random
// values (their bytes, as WWNs and as LUNs with every level zero or not); every length a piece
// can have, leaving the bytes after it alone.
TEST(GenText, LineWritersMatchPrintf) {
    std::vector<int32_t> values = {INT32_MIN, INT32_MAX};
    for (int64_t p = 1; p <= INT32_MAX; p *= 10)
        for (int64_t v : {p - 1, p, p + 1}) values.insert(values.end(), {int32_t(v), int32_t(-v)});
    for (uint32_t x = 1, i = 0; i < 20000; ++i) values.push_back(int32_t((x = x * 1664525u + 1013904223u) >> (i % 32)));
    for (const int32_t v : values) {
        char want[16], got[16];
        std::snprintf(want, sizeof want, "%d", v);
        ASSERT_EQ(std::string(got, zfx::put_dec(got, v)), want);
        uint8_t bytes[8];
        for (int i = 0; i < 8; ++i) bytes[i] = (v >> (i * 3) & 1) != 0 ? 0 : uint8_t(uint32_t(v) >> (i * 5 % 32));
        plat_wwn wwn;
        std::memcpy(wwn.bytes, bytes, sizeof bytes);
        char text[FMT_WWN_SIZE], fmt[FMT_WWN_SIZE];
        ASSERT_EQ(std::string(text, zfx::put_wwn(text, bytes)), fmt_wwn(fmt, wwn));
        ASSERT_EQ(std::string(text, zfx::put_lun(text, bytes)), fmt_lun(fmt, bytes));
    }
    const std::string from(40, 'x');
    for (size_t n = 0; n <= 40; ++n) {
        std::string to(40, '.');
        ASSERT_EQ(zfx::put_chars(to.data(), from.data(), n), to.data() + n);
        ASSERT_EQ(to.find_first_not_of('x'), n < 40 ? n : std::string::npos) << n;
        ASSERT_EQ(to.find_first_not_of('.', n), std::string::npos) << n;
    }
}

// The walk that checks as it goes against a plain reading of the layout: on arrays whole, cut
// short at every length, and with counts and element lengths that overrun, it must end ok exactly
// when every element the count claims lies within the bytes, and give those elements.
TEST(GenText, StepwiseTlvWalkMatchesAPlainReading) {
    using Elem = std::tuple<uint16_t, uint16_t, const uint8_t *>;
    const auto plain = [](const std::vector<uint8_t> &a, size_t avail, std::vector<Elem> &out) {
        if (avail < 4) return false;
        size_t off = 4;
        for (uint32_t i = 0, n = zfx::load<uint32_t>(a.data()); i < n; ++i) {
            if (off + 4 > avail) return false;
            const uint16_t len = zfx::load<uint16_t>(a.data() + off + 2);
            if (off + 4 + len > avail) return false;
            out.emplace_back(zfx::load<uint16_t>(a.data() + off), len, len != 0 ? a.data() + off + 4 : nullptr);
            off += 4 + (len + 3u) / 4 * 4;
        }
        return true;
    };
    uint64_t rng = 0x243f6a8885a308d3ull;
    const auto next = [&] { return uint32_t((rng = rng * 6364136223846793005ull + 1442695040888963407ull) >> 33); };
    for (uint32_t round = 0; round < 200; ++round) {
        std::vector<uint8_t> a(4);
        const uint32_t n = next() % 6;
        for (uint32_t i = 0; i < n; ++i) {
            const uint16_t len = uint16_t(next() % 3 == 0 ? next() % 20 : next() % 9);
            const size_t at = a.size();
            a.resize(at + 4 + (len + 3u) / 4 * 4);
            zfx::store<uint16_t>(a.data() + at, uint16_t(next() % 7));
            zfx::store<uint16_t>(a.data() + at + 2, len);
        }
        zfx::store<uint32_t>(a.data(), n + (round % 5 == 0 ? next() % 3 : 0));  // some claim more than they hold
        if (round % 7 == 0 && n != 0) zfx::store<uint16_t>(a.data() + 6, uint16_t(0xFFF0));  // the first overruns
        for (size_t avail = 0; avail <= a.size(); ++avail) {
            std::vector<Elem> want, got;
            const bool valid = plain(a, avail, want);
            zfx::TlvWalk walk(a.data(), avail, zfx::TlvStepwise{});
            for (zfx::Tlv e; walk.next(e);) got.emplace_back(e.type, e.len, e.value);
            EXPECT_EQ(walk.ok(), valid) << round << " " << avail;
            if (valid) {
                EXPECT_EQ(got, want) << round << " " << avail;
            }
        }
    }
}

constexpr uint32_t kNumbers[] = {0, 9, 10, 99, 100, 999, 1000, 9999, 10000, 99999, 100000, 999999999, 1000000000,
                                  2147483647u, 2147483648u, 4294967295u};

TEST(GenText, ZoneSectionWalkedEqualsLookedUp) {
    for (uint64_t seed = 1; seed <= 4; ++seed) {
        Fabric f = edge_fabric(seed);
        // Named by the zoneset, just above the crowded zone: left out of the header with zone
        // 8191, it is the zone table's limit.
        // Its members' VSANs are numbers at every digit count's edges.
        Zone next{uint16_t(3001 + seed), "next", ZFX_ZONE_QOS_LOW, false, {}};
        for (const uint32_t v : kNumbers) next.members.push_back(Member{ZFX_MEMBER_PWWN, {uint8_t(v), uint8_t(v >> 24)}, {}, "", v});
        f.zones.push_back(next);
        f.zonesets.back().zones.push_back(uint16_t(3001 + seed));
        const std::vector<Record> sound = config_records(f);
        const uint16_t zone = f.zones[seed % f.zones.size()].id;
        const uint16_t member = member_ids(f.zones[seed % f.zones.size()]).at(0);
        // Damage the walks and the lookups must meet alike: a member record cut short, a zone
        // record whose array overruns it, a missing member, an empty zone record, a zone left out
        // of the header that a zoneset still names, a zone record holding another zone's id (both
        // then ask for the same member records) or an id past every table, and a member record
        // longer than 64 KiB. The status: 0, failed, or either.
        enum Status { kSound, kFailed, kEither };
        const struct {
            const char *what;
            Status status;
            void (*damage)(std::vector<Record> &, uint16_t zone, uint16_t member);
        } cases[] = {
            {"sound", kSound, [](auto &, auto, auto) {}},
            {"short member", kFailed, [](auto &r, auto z, auto m) { find(r, ZFX_KVDB_ZONE_MEMBER_KEY, m, z)->second.resize(6); }},
            {"overrunning zone", kFailed, [](auto &r, auto z, auto) { find(r, ZFX_KVDB_ZONE_KEY, z, 0)->second.resize(80); }},
            {"missing member", kFailed, [](auto &r, auto z, auto m) { r.erase(r.begin() + (find(r, ZFX_KVDB_ZONE_MEMBER_KEY, m, z) - r.data())); }},
            {"empty zone", kEither, [](auto &r, auto z, auto) { find(r, ZFX_KVDB_ZONE_KEY, z, 0)->second.clear(); }},
            {"zone beyond the header", kSound,
             [](auto &r, auto, auto) {
                 uint8_t *zones = find(r, {ZFX_KVDB_ZONE_DB_HEADER_KEY, 0})->second.data() + offsetof(zfx_zone_db_header, zones);
                 zones[8191 / 8] &= 0xFE;
                 const uint32_t top = zfx::bit_end(zones, 8192) - 1;
                 zones[top / 8] &= uint8_t(~(0x80u >> top % 8));
             }},
            {"shared id", kFailed, [](auto &r, auto, auto) {  // zone 8191 now holds zone 1's id
                 Bytes &v = find(r, ZFX_KVDB_ZONE_KEY, 8191, 0)->second;
                 v[0] = 1, v[1] = 0;
             }},
            {"id past the tables", kFailed, [](auto &r, auto z, auto) {
                 Bytes &v = find(r, ZFX_KVDB_ZONE_KEY, z, 0)->second;
                 v[0] = v[1] = 0xFF;
             }},
            {"more attributes and bitmaps", kSound, [](auto &r, auto z, auto m) {
                 // A short priority (no line), read-only, a priority, then a second member bitmap
                 // naming one member: the last bitmap counts.
                 Bytes &v = find(r, ZFX_KVDB_ZONE_KEY, z, 0)->second;
                 Bytes bits(4 + ZFX_MEMBER_BITMAP_SIZE, 0);
                 bits[4 + m / 8] = uint8_t(0x80 >> m % 8);
                 for (const Bytes &e : {zfxtest::tlv(ZFX_TLV_ZONE_QOS, {3, 0}), zfxtest::tlv(ZFX_TLV_ZONE_READ_ONLY, {0, 0, 0, 1}),
                                        zfxtest::tlv(ZFX_TLV_ZONE_QOS, {2, 0, 0, 0}), zfxtest::tlv(ZFX_TLV_ZONE_MEMBERS, bits)})
                     v.insert(v.end(), e.begin(), e.end());
                 v[offsetof(zfx_zone_rec_head, tlvs)] += 4;
             }},
            {"long member", kSound, [](auto &r, auto z, auto m) {  // two unknown elements of 40000 bytes more
                 Bytes &v = find(r, ZFX_KVDB_ZONE_MEMBER_KEY, m, z)->second;
                 const Bytes more = zfxtest::tlv(99, Bytes(40000, 1));
                 for (int i = 0; i < 2; ++i) v.insert(v.end(), more.begin(), more.end());
                 v[4] += 2;
             }},
        };
        for (const auto &c : cases) {
            std::vector<Record> records = sound;
            c.damage(records, zone, member);
            const auto [walked, looked_up] = both_ways(records);
            EXPECT_EQ(walked, looked_up) << c.what << ", seed " << seed;
            EXPECT_TRUE(c.status == kEither || (walked.status == 0) == (c.status == kSound)) << c.what << ", seed " << seed;
        }
        // A sound store's zones and members all come from the walks, also in a store of fewer
        // records than the walks hold back: only the header, the options, the active zoneset (its
        // head and its one chunk) and each zoneset are looked up.
        const Fabric small = synth_fabric(SynthParams{3, 2, 1, 3, 1, 1, 1, 8, seed});
        for (const Fabric *g : {&std::as_const(f), &small}) {
            const zfxtest::Stored stored(config_records(*g));
            zfx_testing_lookup_count();
            zone_section_on(stored.get());
            EXPECT_EQ(zfx_testing_lookup_count(), 4 + g->zonesets.size()) << seed;
        }
        const std::string sound_text = both_ways(sound).first.text;
        for (const uint32_t v : kNumbers) EXPECT_NE(sound_text.find("vsan " + std::to_string(int32_t(v)) + "\n"), std::string::npos) << v;
        // The zone left out of the header is looked up for the zoneset, not listed as a zone.
        std::vector<Record> records = sound;
        cases[5].damage(records, zone, member);
        const std::string name(67, char('a' + seed % 26)), text = both_ways(records).first.text;
        EXPECT_NE(text.find("member " + name + "\n"), std::string::npos) << seed;
        EXPECT_EQ(text.find("zone name " + name), std::string::npos) << seed;
    }
}

}  // namespace
