// The tools' library: the writer, the loader and the dump, checked through the library's own
// generation. The loader is the generators' oracle: text -> store -> text must be the identity.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "dump.hpp"
#include "fabric.hpp"
#include "load.hpp"
#include "messy_text.hpp"
#include "platform/kvdb.h"
#include "store.hpp"
#include "store_guard.hpp"
#include "zfx_ascii_cfg.h"
#include "zfx_zone_db.h"

namespace {

using namespace zfxtool;
using zfxtest::Prefix;
using zfxtest::RecordMap;

Fabric loaded(const std::string &text, const LoadOptions &options = {}, size_t *skipped = nullptr) {
    Fabric f;
    std::string error;
    EXPECT_TRUE(load_text(text, "text", f, error, options, skipped)) << error;
    return f;
}

// The records a store holds (none when there is no store), and those a list leaves as puts would:
// the last of equal keys kept.
RecordMap stored(const std::string &location) {
    RecordMap out;
    EXPECT_NE(walk_store(location, [&out](const uint8_t *k, uint32_t klen, const uint8_t *v, uint32_t vlen) {
                  out[Bytes(k, k + klen)] = Bytes(v, v + vlen);
              }),
              StoreState::damaged);
    return out;
}

RecordMap as_stored(const std::vector<Record> &records) {
    RecordMap out;
    for (const auto &[k, v] : records) out[k] = v;
    return out;
}

// The demo (as it is, then with a topology entry listed twice and names of mixed case and signs)
// and seeded fabrics of every record kind. Sizes vary with the seed; the last one has more than 255 service groups, whose ids must
// still list in the text's order.
std::vector<Fabric> fabrics() {
    std::vector<Fabric> out{demo_fabric(), demo_fabric()};
    out[1].topology.push_back(out[1].topology.front());
    out[1].topology.back().vsans.add(3000, 3001);
    out[1].zones[0].name = "Mixed-CASE";  // names keep their characters, whatever the case of the words
    out[1].zones[1].members[0].alias = "AbC";
    out[1].groups_configured[0].name = "G!";
    for (uint32_t seed = 1; seed <= 24; ++seed)
        out.push_back(synth_fabric({.zones = seed * 7 % 40, .members = seed % 6, .zonesets = seed % 5, .zones_per_set = 6,
                                    .topology = seed % 9, .afids = seed * 3 % 17, .groups = seed == 24 ? 300 : seed % 11,
                                    .pfcids = seed * 5 % 30, .seed = seed}));
    return out;
}

// The writer appends the stores' records in key order, building each value as it writes it: the
// stores it leaves hold what config_records and debug_records list (that the zone database's
// records are those the service's per-object builders make, zfxd's suite checks after every
// change). Every third fabric goes over the one before in the same LMDB store: refused, changing
// nothing, without replace; with it, nothing of the old stores stays, the debug store's level
// included. (The demo's golden text is the tools' end-to-end run's.) The text loads back from the
// forms a person or another tool has it in, and generates itself again (generate -> load ->
// generate is a fixed point); other features' lines are counted when skipped and refused
// otherwise.
TEST(Tools, FabricsAreWrittenAsBuiltAndTheirTextLoadsBackToItself) {
    // That a seed makes one fabric, and another seed another, the generation suite's digests of
    // seeded fabrics hold; here, a fabric with more zones than there are ids is refused.
    EXPECT_THROW(synth_fabric(SynthParams{.zones = ZFX_ZONE_ID_MAX + 1}), std::invalid_argument);
    const std::vector<Fabric> all = fabrics();
    Prefix lmdb(zfxtest::Backend::lmdb);
    for (size_t i = 0; i < all.size(); ++i) {
        const Fabric &f = all[i];
        Prefix mem;
        const Prefix &p = i % 3 == 0 ? lmdb : mem;
        if (i > 0 && i % 3 == 0) {
            const RecordMap before = stored(p.config());
            EXPECT_NE(write_fabric(f, p.path(), p.path(), false).find("not empty"), std::string::npos);
            EXPECT_EQ(stored(p.config()), before);
        }
        ASSERT_EQ(write_fabric(f, p.path(), p.path(), i % 3 == 0), "") << i;
        EXPECT_EQ(stored(p.config()), as_stored(config_records(f))) << "fabric " << i;
        EXPECT_EQ(stored(p.debug()), as_stored(debug_records(f))) << "fabric " << i;

        const std::string text = zfxtest::gen_func_text(p.path());
        const Fabric canonical = loaded(text);
        for (uint64_t variant = 0; variant < 4; ++variant) {
            const zfxtest::MessyText messy = zfxtest::messy_text(text, i * 16 + variant);
            size_t skipped = 0;
            const Fabric back = loaded(messy.text, {.skip_foreign = true}, &skipped);
            EXPECT_EQ(config_records(back), config_records(canonical)) << messy.text;
            EXPECT_EQ(debug_records(back), debug_records(canonical));
            EXPECT_EQ(skipped, messy.foreign_lines);
            if (variant == 0) {
                Prefix again;
                EXPECT_EQ(write_fabric(back, again.path(), again.path(), false), "");
                EXPECT_EQ(zfxtest::gen_func_text(again.path()), text) << messy.text;
            }
            Fabric strict;
            std::string error;
            EXPECT_EQ(load_text(messy.text, "text", strict, error), messy.foreign_lines == 0);
            EXPECT_EQ(error.find(": not a line of the zfx configuration") != std::string::npos, messy.foreign_lines != 0)
                << error;
        }
    }
}

// Every class of bad input names its line and what is wrong, whether other features' lines are
// skipped or not: a line that starts like the feature's is never another feature's.
TEST(Tools, BadInputIsRefusedWithItsLineAndReason) {
    const std::string w = "20:00:00:11:22:33:44:55";
    const std::pair<std::string, std::string> cases[] = {  // a text, the start of its error
        {"zfx frobnicate\n", "text:1: a malformed zfx line"},
        {"no zfx zone name z\n", "text:1: a malformed zfx line"},
        {"feature zfx now\n", "text:1: a malformed zfx line"},
        {"logging level zfx\n", "text:1: a malformed zfx line"},
        {"zfx zone name z\n  member pwwn " + w + " vsan 4096\n", "text:2: VSAN 4096 is out of range"},
        {"zfx nat\n  member pwwn " + w + " vsan 1\n", "text:2: a member line outside a zone"},
        {"zfx zone name z\nmember pwwn " + w + " vsan 1\n", "text:2: a member line outside a zone"},
        {"zfx zone name z\n  member pwwn 20:00:00:11:22:33:44 vsan 1\n", "text:2: malformed WWN"},
        {"zfx zone name z\n  member pwwn 20:00:00:11:22:33:44:5g vsan 1\n", "text:2: malformed WWN"},
        {"zfx zone name z\n  attribute qos priority urgent\n", "text:2: unknown QoS priority 'urgent'"},
        {"zfx zone name z\n  attribute qos priority HIGH\n", "text:2: unknown QoS priority 'HIGH'"},
        {"zfx zone name z\n  member device-alias a lun 0x12 vsan 1\n", "text:2: malformed LUN"},
        {"zfx zone name z\n  member device-alias a vsan\n", "text:2: a member line must end in"},
        {"zfx zone name z\n!\n  zfx nat\n", "text:3: a zfx command indented"},
        {"zfx zone name a\nzfx zone name a\n", "text:2: zone a is defined twice"},
        {"zfx zone name " + std::string(68, 'x') + "\n", "text:1: zone name '" + std::string(68, 'x') + "' is longer than 67"},
        {"zfx zoneset name s\n  member nowhere\n", "text:2: zoneset member nowhere is no zone"},
        {"zfx virtual-fcdomain-add vsan-ranges 5-3\n", "text:1: VSAN range '5-3' runs backwards"},
        {"zfx virtual-fcdomain-add vsan-ranges 1,,2\n", "text:1: malformed VSAN"},
        {"zfx virtual-fcdomain-add2 autonomous-fabric-ID 65536  vsan-ranges 1\n", "text:1: autonomous fabric ID 65536 is out of range"},
        {"logging level zfx 9\n", "text:1: logging level 9 is out of range"},
        {"zfx vsan-topology activate\n  no autonomous-fabric-id 1 switch-wwn " + w + " vsan-ranges 1\n", "text:2: a removal of a topology entry"},
        {"no zfx service-group name g\n", "text:1: a removed service group, but no service groups are activated"},
        {"zfx fcdomain database autonomous-fabric-num 1 vsan 1\n  native-autonomous-fabric-num 1 native-vsan 1 domain 2\n"
         "    pwwn " + w + " fcid 0x030000\n", "text:3: the FCID's domain differs"},
        {"\n    pwwn " + w + " fcid 0x030000\n", "text:2: an indented line under no block"},
        {std::string("zfx zone name a\0b\n", 18), "text:1: a control character"},
        {"zfx zone name a\tb\n", "text:1: a control character"},
        {"zfx zone name a\t\n", "text:1: a control character"},
        {"zfx nat\r\nzfx zone name a\rb\r\n", "text:2: a control character"},
        {"zfx nat\r\r\n", "text:1: a control character"},
    };
    for (const auto &[text, reason] : cases)
        for (bool skip : {false, true}) {
            Fabric f;
            std::string error;
            EXPECT_FALSE(load_text(text, "text", f, error, {.skip_foreign = skip})) << text;
            EXPECT_EQ(error.rfind(reason, 0), 0u) << error << "\nfor\n" << text;
        }
}

// The dump reads whatever a store holds: arbitrary keys and values under every table byte the
// feature uses, with lengths around each layout's, never make it read outside a value.
TEST(Tools, DumpReadsArbitraryRecordsSafely) {
    Prefix p;
    std::vector<zfxtest::Record> records;
    uint64_t state = 7;
    const auto next = [&state] { return uint32_t((state = state * 6364136223846793005ull + 1442695040888963407ull) >> 33); };
    for (uint8_t table = 0x65; table <= 0x7A; ++table)
        for (int i = 0; i < 40; ++i) {
            zfxtest::Bytes key(1 + next() % 20), value(next() % 3 == 0 ? next() % 1600 : next() % 80);
            for (auto &b : key) b = uint8_t(next());
            for (auto &b : value) b = uint8_t(next() % 4 == 0 ? next() : 0);
            key[0] = table;
            if (i % 2 == 0 && key.size() > 1) key[1] = uint8_t(i % 4);
            records.push_back({key, value});
        }
    zfxtest::put(p.config(), records);
    FILE *sink = std::fopen("/dev/null", "w");
    std::string error;
    for (bool raw : {false, true}) EXPECT_EQ(dump_store(p.config(), raw, sink, error), StoreState::readable);
    std::fclose(sink);
}

// Whatever reads a store tells a missing store from a damaged one, and acts on neither: the dump
// prints no line of a damaged store and the writer writes nothing over one. (The faults that no
// status reports are tools_damaged_store's, which damages LMDB files and runs the tools.)
TEST(Tools, DamagedStoresAreToldFromMissingOnesAndLeftAlone) {
    zfxtest::Prefix mem, dir(zfxtest::Backend::lmdb);
    std::filesystem::create_directories(dir.path() + "/file");
    std::ofstream(dir.path() + "/file/data.mdb") << "not a store";
    std::ofstream(dir.path() + "/plain") << "a file";
    const zfxtest::Record rec{{0x65, 1}, {1, 2, 3}};
    zfxtest::put(mem.config(), {rec, {{0x66}, {}}});
    zfxtest::put(mem.debug(), {rec});
    // The walk's second move fails; the debug store does not open.
    const kvdb_mem_faults cut{0, 0, nullptr, 0, 2}, refused{KVDB_ERR_IO, 0, nullptr, 0, 0};
    ASSERT_EQ(kvdb_mem_inject(mem.config().c_str(), &cut), 0);
    ASSERT_EQ(kvdb_mem_inject(mem.debug().c_str(), &refused), 0);
    const std::pair<std::string, StoreState> cases[] = {
        {mem.config(), StoreState::damaged},  // the walk is cut short after one record
        {mem.debug(), StoreState::damaged},   // does not open, for another reason than absence
        {mem.path() + "/elsewhere", StoreState::absent},
        {dir.path() + "/file", StoreState::damaged},  // a data file that is not a store
        {dir.path() + "/nothing", StoreState::absent},
        {dir.path() + "/plain/x", StoreState::absent},
    };
    FILE *out = std::tmpfile();
    for (const auto &[location, state] : cases) {
        EXPECT_EQ(walk_store(location), state) << location;
        std::string error;
        EXPECT_EQ(dump_store(location, false, out, error), state);
        EXPECT_EQ(error, state == StoreState::damaged ? damaged_text(location) : location + ": no store there");
    }
    EXPECT_EQ(std::ftell(out), 0L) << "a line of a store that is not whole";
    std::fclose(out);
    for (bool replace : {false, true})
        EXPECT_EQ(write_fabric(demo_fabric(), mem.path(), mem.path() + "/elsewhere", replace), damaged_text(mem.config()));
    EXPECT_EQ(write_fabric(demo_fabric(), mem.path() + "/new", mem.path(), true), damaged_text(mem.debug()));
    ASSERT_EQ(kvdb_mem_inject(mem.config().c_str(), nullptr), 0);
    EXPECT_EQ(walk_store(mem.config()), StoreState::readable);
    EXPECT_EQ(zfxtest::gen_func_text(mem.path()), "feature zfx\n") << "the refused writes changed the store";
}

}  // namespace
