// Allocation failure, swept: every exported function that allocates (one of each set sharing a
// body: the unchecked decoders, the wrappers of a request, the kinds of a zone query or record)
// is run with its 1st, 2nd, ... allocation failing until a run makes no more allocations than the
// one that fails. Each run must give the function's documented failure value, hand out nothing
// (no list, no record, no half-written section of the configuration text, no out-parameter left
// pointing at a released block) and leak nothing: the blocks of both allocators are counted here
// after every run, the standard allocator's by LeakSanitizer at exit as well.
#include <arpa/inet.h>
#include <malloc.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <type_traits>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "capture.hpp"
#include "devices.hpp"
#include "full_store.hpp"
#include "fake_service.hpp"
#include "history.hpp"
#include "platform/heapx.h"
#include "platform/tlg.h"
#include "platform/wwnsvc.h"
#include "store.hpp"
#include "zone_nodes.hpp"
#include "zfx_ascii_cfg.h"
#include "zfx_fabric.h"
#include "zfx_service.h"
#include "zfx_testing.h"
#include "zfx_zone_db.h"
#include "zfx_zone_msg.h"

namespace {

using namespace zfxtest;

// ---- the sweep ----------------------------------------------------------------------------------

constexpr uint32_t kOwner = 180;           // the feature's owner number with the tracked allocator
constexpr uint32_t kAllocFailSubtype = 102;  // the debug switch of allocation-failure messages

uint32_t g_nth;  // the allocation that fails in the run under way

// True when the run under way reached the allocation that fails. A row asks it right after the
// call it sweeps, before anything else of the library runs.
bool failed() { return zfx_testing_allocation_count() >= g_nth; }

// One exported function: run() sets up, calls it once, and returns whether the outcome is the
// documented one: its failure value when failed(), its whole result otherwise (which it releases).
// A run without failure makes at least one allocation.
struct Row {
    std::string name;
    std::function<bool()> run;
};

// A row's name and call: the function with its arguments as written, in which ep, at, out and n
// stand for what the row's kind hands over (the endpoint; the store, cursor, nodes or input; the
// out-parameter; the count or length).
#define CALL(fn, ...)                                                                                         \
    #fn "(" #__VA_ARGS__ ")", [](auto ep, auto at, auto out, auto n) {                                        \
        (void)ep, (void)at, (void)out, (void)n;                                                               \
        return fn(__VA_ARGS__);                                                                               \
    }

// Some non-NULL address that the library never hands out: an out-parameter still holding it was
// not written.
template <typename T>
T *untouched() {
    static uint64_t word;
    return reinterpret_cast<T *>(&word);
}

// A function that hands out one new block (make calls it): NULL once its allocation failed,
// otherwise a block that whole accepts, which release frees.
template <typename T>
Row handed_out(const char *name, std::function<T *()> make, std::function<bool(const T *)> whole,
               void (*release)(T *)) {
    return {name, [=] {
                T *p = make();
                if (failed()) return p == nullptr;
                const bool ok = p != nullptr && whole(p);
                release(p);
                return ok;
            }};
}

// ---- requests ---------------------------------------------------------------------------------

// A request built from arguments: with its message unallocated, ZFX_ERR_NO_MEMORY and nothing sent.
template <typename F>
Row request(const char *name, F call) {
    return {name, [call] {
                FakeService svc;
                const uint32_t r = call(svc.ep(), nullptr, nullptr, nullptr);
                return failed() ? r == uint32_t(ZFX_ERR_NO_MEMORY) && svc.sent().empty()
                                : r == 0 && svc.sent().size() == 1;
            }};
}

// A query answered with reply into out: a message it hands out (Out a pointer) or the caller's
// structure. On failure: ZFX_ERR_NO_MEMORY, nothing sent, and no message (NULL) or the structure
// untouched.
template <typename Out, typename F>
Row query(const Bytes &reply, const char *name, F call) {
    return {name, [reply, call] {
                FakeService svc{Answer::reply_with(reply)};
                Out out;
                std::memset(&out, 0xAB, sizeof out);  // as a pointer, one the library never hands out
                const Bytes before = bytes_of(&out, sizeof out);
                const uint32_t r = call(svc.ep(), nullptr, &out, nullptr);
                const bool kept = bytes_of(&out, sizeof out) == before;
                if constexpr (std::is_pointer_v<Out>) {
                    if (failed()) return r == uint32_t(ZFX_ERR_NO_MEMORY) && out == nullptr && svc.sent().empty();
                    const bool whole = r == 0 && out != nullptr && bytes_of(out, reply.size()) == reply;
                    std::free(out);
                    return whole;
                }
                return failed() ? r == uint32_t(ZFX_ERR_NO_MEMORY) && kept && svc.sent().empty() : r == 0 && !kept;
            }};
}

// A waited enabled query whose request fails with answer: the caller gets the all-zero substitute
// reply and expected, or, without memory for it, 1 and no reply.
template <typename F>
Row enabled(Answer answer, int32_t expected, const char *name, F call) {
    return {name, [call, answer, expected] {
                FakeService svc{answer};
                zfx_status_reply *reply = untouched<zfx_status_reply>();
                const int32_t r = call(svc.ep(), nullptr, &reply, nullptr);
                if (failed()) return r == 1 && reply == nullptr;
                const size_t n = ZFX_STATUS_REPLY_SUBSTITUTE_SIZE;
                const bool whole = r == expected && reply != nullptr && bytes_of(reply, n) == zeros(n);
                std::free(reply);
                return whole;
            }};
}

// A zoneset message as the service answers a query.
const Bytes kZonesetReply =
    cat({be32(1), zeros(20), be32(5), tlv_array({tlv(1, str0("zs1")), tlv(61, cat({le32(1024), zeros(1024)}))})});

// What zfx_get_active_zoneset fills: the zoneset's name and its zone bitmap.
struct ActiveZoneset {
    char name[ZFX_NAME_SIZE];
    uint8_t zones[ZFX_ZONESET_ZONES_SIZE];
};

// ---- device entries -----------------------------------------------------------------------------

void release(zfx_device_ns_entry *entries, size_t n) { free_ns(entries, n); }
void release(zfx_device_entry *entries, size_t) { std::free(entries); }

// A batch of two devices, the second asked VSAN by VSAN.
const Bytes kBatch = cat({device(1, 0, 5, {1, 2}, 0, 0x11), device(2, 0, 5, {3}, ZFX_DEVICE_FLAG_PER_VSAN, 0x22)});

// A name-server view of a batch: on failure nothing handed out and the cursor not moved.
template <typename F>
Row ns_view(const char *name, F call) {
    return {name, [call] {
                FakeService svc{Answer::reply_with(kBatch)};
                svc.answer(Answer::reply_with(le32(0xBEEF)));  // the second device in VSAN 3
                zfx_device_entry *h;
                zfx_device_entry_handle_init(&h);
                const Bytes cursor = bytes_of(h, kEntry);
                zfx_device_ns_entry *ns = untouched<zfx_device_ns_entry>();
                uint32_t count = 99;
                const int32_t r = call(svc.ep(), h, &ns, &count);
                const bool kept = bytes_of(h, kEntry) == cursor;
                if (failed())
                    return r == ZFX_ERR_NO_MEMORY && ns == untouched<zfx_device_ns_entry>() && count == 99 && kept;
                const bool whole = r == 0 && count == 2 && !kept;
                release(ns, count);
                return whole;
            }};
}

// A TLV-encoded reply of three entries: one of an unknown type first (its line is printed), then
// two devices with pairs, each pair array an allocation of its own.
Bytes three_entries() {
    const Bytes a = device(1, 0, 5, {4}, 0, 0x33);
    const Bytes b = device(2, 0, 5, {6}, 0, 0x44);
    return tlv_reply(3, {tlv(70, le32(0)), tlv(ZFX_TLV_DEVICE_ENTRY, head(a)), tlv(1, block(a)), tlv(2, le32(2)),
                         tlv(3, pair(4, 40)), tlv(3, pair(5, 50)), tlv(ZFX_TLV_DEVICE_ENTRY, head(b)), tlv(1, block(b)),
                         tlv(2, le32(1)), tlv(3, pair(6, 60))});
}

// A decoder of the TLV-encoded reply (at): on failure nothing handed out, *count 0, and nothing
// printed.
template <typename Entry, typename F>
Row decoder(const char *name, F call) {
    return {name, [call] {
                const Bytes reply = three_entries();
                Entry *entries = untouched<Entry>();
                int32_t count = 99;
                Capture out;
                const int32_t r = call(nullptr, &reply, &entries, &count);
                const bool fail = failed();
                const std::string printed = out.text();
                if (fail) return r == ZFX_ERR_NO_MEMORY && entries == untouched<Entry>() && count == 0 && printed.empty();
                const bool whole = r == 0 && count == 3 && printed == "ignoring unknown tlv type: 70\n";
                release(entries, size_t(count));
                return whole;
            }};
}

// ---- the zone database ----------------------------------------------------------------------------

// A zoneset of one zone (QoS and read-only set) with a port-WWN member and a device-alias member,
// which goes to the extension area of the active zoneset data.
struct Db : ZoneNodes {
    zfx_zone_node &z = zone(1, "z1", 2, 1);
    zfx_zone_member_node &pwwn = member(z, 1, ZFX_MEMBER_PWWN, 10, 1);
    zfx_zone_member_node &alias = member(z, 2, ZFX_MEMBER_DEVICE_ALIAS, 10, 1, "alias");
    zfx_zoneset_node set = zoneset(1, "zs1", {&z});
};

// A record encoder of a node of the database (at): on failure NULL and *length
// length_on_failure (untouched, or zeroed for the active zoneset data).
template <typename F>
Row encoder(uint32_t length_on_failure, const char *name, F call) {
    return {name, [call, length_on_failure] {
                const Db db;
                uint32_t length = 12345;
                void *rec = call(nullptr, &db, nullptr, &length);
                if (failed()) return rec == nullptr && length == length_on_failure;
                std::free(rec);
                return rec != nullptr && length != 12345 && length != 0;
            }};
}

// ---- store lists ----------------------------------------------------------------------------------

// A list builder on the store at location: on failure *list NULL and *size 0; a builder of the
// standard allocator answers ZFX_ERR_NO_MEMORY, one of the tracked allocator (file names the source
// that allocates the list, which the feature's owner holds) answers 0 and reports the failure,
// naming the function and its file, to the event history and, with the failure messages switched
// on (every other run), to standard error in the same words.
template <typename List, typename F>
Row list(const std::string &location, uint32_t entries, const char *file, const char *name, F call) {
    const bool tracked = file != nullptr;
    const std::string report(tracked ? "Memory allocation failed in " + std::string(name, std::strchr(name, '(')) +
                                          R"(:[0-9]+ \(\.\./feature/zfx/lib/)" + file + R"(\))"
                                    : "");
    return {name, [location, call, entries, tracked, report] {
                Reader r(location);
                List *l = untouched<List>();
                uint32_t size = 99;
                const bool messages = g_nth % 2 == 1;
                tlg_hist_clear();
                tlg_debug_enable(kAllocFailSubtype, messages);
                Capture err(2);
                const int32_t status = call(nullptr, r.get(), &l, &size);
                const bool fail = failed();
                const bool owned = heapx_stats(kOwner).bytes_in_use != 0;  // held under the feature's owner
                const std::string printed = err.text();
                tlg_debug_enable(kAllocFailSubtype, 0);
                const std::vector<std::string> reported = alloc_failures();
                tlg_hist_clear();
                if (fail && tracked)
                    return l == nullptr && size == 0 && status == 0 && reported.size() == 1 &&
                           testing::Value(reported[0], testing::MatchesRegex(report)) && printed == (messages ? "zfx: " + reported[0] + "\n" : "");
                if (fail) return l == nullptr && size == 0 && status == ZFX_ERR_NO_MEMORY && reported.empty();
                const bool whole = status == 0 && l != nullptr && ntohl(l->count) == entries && reported.empty() &&
                                   printed.empty() && owned == tracked;
                tracked ? heapx_free(l) : std::free(l);
                return whole;
            }};
}

// ---- configuration text -----------------------------------------------------------------------

// A text generator: the whole text without failure is exactly whole (no line too many: a walk one
// entry past its list shows); each run's text is the whole text, or the whole text without
// exactly one of blocks. (A run may keep the whole text where the section has another way to
// write it.)
Row text(const char *name, const std::function<std::string()> &generate, const std::string &whole,
         std::vector<std::string> blocks) {
    EXPECT_EQ(generate(), whole) << name;
    return {name, [name, generate, whole, blocks] {
                const std::string t = generate();
                if (t == whole) return true;
                for (const std::string &b : blocks) {
                    std::string without = whole;
                    if (const size_t at = without.find(b); at != std::string::npos) without.erase(at, b.size());
                    if (t == without) return true;
                }
                ADD_FAILURE() << name << " wrote\n" << t;
                return false;
            }};
}

using Section = int32_t (*)(uint32_t handle, kvdb_store *store, int32_t *commit);

// A section that asks for the commit line through commit_reqd, as one that reports it.
template <int32_t (*run)(uint32_t, kvdb_store *)>
int32_t global(uint32_t handle, kvdb_store *store, int32_t *commit) {
    commit_reqd = 0;
    const int32_t status = run(handle, store);
    *commit = commit_reqd;
    return status;
}

// ---- every row, by the sections above ----------------------------------------------------------

std::vector<Row> rows(const Prefix &p) {
    using namespace full;
    const std::string cfg = p.config();
    // The configuration text's sections.
    const std::vector<std::string> blocks = {kVdomAfid, kTopo, kDefaultAfid, kAfid, kActiveSg + kCfgSg, kCfgSg, kPfcid};
    // A section's text, followed by "commit\n" when it asked for the commit line; every section
    // returns 0.
    auto section = [cfg](Section run) {
        return [cfg, run] {
            Reader r(cfg);
            int32_t commit = 0, status = -1;
            const std::string t = generation_text([&](uint32_t h) { status = run(h, r.get(), &commit); });
            return status == 0 ? t + (commit == 1 ? "commit\n" : "") : "status " + std::to_string(status);
        };
    };
    // Only the zone section's member index allocates, and its text does without it.
    Section zones = [](uint32_t, kvdb_store *s, int32_t *) { return zfx_zone_generate_ascii_config(s); };
    const std::string all = whole() + "logging level zfx 3\n";
    return {
        // requests
        // Only a failed request makes the substitute reply.
        enabled(Answer::failure(EIO), ZFX_ERR_ERRNO(EIO), CALL(zfx_is_zfx_enabled, ep, out)),
        enabled(Answer::reply_with({1, 2, 3}), ZFX_ERR_INVALID_ARG, CALL(zfx_is_zfx_enabled_ext, ep, out)),
        {"zfx_get_vsan_wwn_from_switch_wwn",
         [] {
             const uint8_t vsan_wwn[8] = {1, 2, 3, 4, 5, 6, 7, 8};
             wwnsvc_table_clear();
             wwnsvc_table_set(kWwn.data(), 7, vsan_wwn);
             uint8_t wwn[8];
             std::memset(wwn, 0xEE, sizeof wwn);
             const int32_t r = zfx_get_vsan_wwn_from_switch_wwn(kWwn.data(), 1, 7, wwn);
             const bool fail = failed();
             wwnsvc_table_clear();
             // Without its reply buffer the query answers 0 with a WWN of zeros, as documented.
             return r == 0 && bytes_of(wwn, 8) == (fail ? zeros(8) : bytes_of(vsan_wwn, 8));
         }},
        handed_out<zfx_zone_msg>("zfx_dlg_malloc_one_zone_and_all_attribs", zfx_dlg_malloc_one_zone_and_all_attribs,
                                 [](const zfx_zone_msg *m) { return m->hdr.count == 1; },
                                 [](zfx_zone_msg *m) { std::free(m); }),
        request(CALL(zfx_dlg_config_zone_member, ep, 2, "z1", 3, 4, 0, kWwn.data(), nullptr, 10, 2, nullptr, 0)),
        request(CALL(zfx_dlg_config_zone_all_attrib, ep, 2, "z", "n2", 9, 3, 1, nullptr, 0)),
        request(CALL(zfx_dlg_config_zoneset_all_attrib, ep, 2, "s", "s2", 4, "z", nullptr, nullptr, 0)),
        query<zfx_zoneset_msg *>(kZonesetReply, CALL(zfx_dlg_get_zoneset, ep, 1, "zs1", 5, out, 1, 0)),
        query<zfx_zoneset_info>(kZonesetReply, CALL(zfx_dlg_get_zoneset_data, ep, 1, out, 0)),
        query<ActiveZoneset>(kZonesetReply, CALL(zfx_get_active_zoneset, ep, out->name, out->zones)),
        // device entries
        ns_view(CALL(zfx_device_ns_entry_get_next, ep, at, out, n)),
        ns_view(CALL(zfx2_device_ns_entry_get_next, ep, at, out, n)),
        decoder<zfx_device_entry>(CALL(zfx2_device_entry_parse_checked, at->data(), uint32_t(at->size()), out, n)),
        decoder<zfx_device_ns_entry>(CALL(zfx2_device_ns_entry_parse_checked, at->data(), uint32_t(at->size()), out, n)),
        // the zone database
        encoder(12345, CALL(zfx_zone_encode_zone_member_to_kvdb, &at->alias, n)),
        encoder(12345, CALL(zfx_zone_encode_zoneset_to_kvdb, &at->set, n)),
        encoder(0, CALL(zfx_zone_zoneset_to_persistent_kvdb_data, &at->set, n)),
        handed_out<void>("zfx_zone_restore_active_pzs_from_kvdb",
                         [cfg] { return zfx_zone_restore_active_pzs_from_kvdb(Reader(cfg).get()); },
                         [](const void *data) { return std::string(static_cast<const char *>(data) + 2) == "zs1"; },
                         [](void *data) { std::free(data); }),
        // store lists
        list<zfx_vsan_topo_list>(cfg, 1, nullptr, CALL(zfx_vsan_topo_config_get, at, ZFX_VT_TABLE, 0xFF, out, n)),
        // (Either table of a list shares its walk and allocation: the text rows take both.)
        list<zfx2_afid_table_list>(cfg, 1, nullptr, CALL(zfx2_afid_table_config_get, at, out, n, 0)),
        list<zfx2_sg_list>(cfg, 1, nullptr, CALL(zfx2_sg_config_get, at, out, n, 0)),  // active
        list<zfx_rdi_list>(cfg, 1, "zfx_ascii_cfg", CALL(zfx_rdi_get_next, at, -1, out, n)),
        list<zfx2_pfcid_list>(cfg, 2, "zfx2_pfcid_lib", CALL(zfx2_pfcid_get_next, at, nullptr, -1, out, n)),
        // VSAN sets
        handed_out<vsan_bitset>("vsan_bitset_new", vsan_bitset_new,
                                [](const vsan_bitset *set) {
                                    return set->len == 512 && vsan_bitset_first_bit(set) == -1;
                                },
                                vsan_bitset_delete),
        {"vsan_bitset_printf",
         [] {
             vsan_bitset set;
             vsan_bitset_init(&set);
             vsan_bitset_set_range(&set, 1, 3);
             Capture out;
             vsan_bitset_printf(&set);
             return out.text() == (failed() ? "" : "1-3");
         }},
        // configuration text
        text("zfx2_rdi_mode_generate_ascii_config2", section(global<zfx2_rdi_mode_generate_ascii_config2>), kVdomAfid,
             {kVdomAfid}),
        text("zfx_vsan_topology_generate_ascii_config", section(global<zfx_vsan_topology_generate_ascii_config>),
             kTopo + kTopoAuto + "commit\n", {kTopo}),
        text("zfx2_afid_table_generate_ascii_config", section(zfx2_afid_table_generate_ascii_config),
             kDefaultAfid + kAfid + "commit\n", {kDefaultAfid, kAfid}),
        text("zfx2_sg_table_generate_ascii_config", section(zfx2_sg_table_generate_ascii_config),
             kActiveSg + kCfgSg + "commit\n", {kActiveSg + kCfgSg, kCfgSg}),
        text("zfx2_pfcid_generate_ascii_config", section(zfx2_pfcid_generate_ascii_config), kPfcid + "commit\n",
             {kPfcid + "commit\n"}),
        text("zfx_zone_generate_ascii_config", section(zones), kZone, {}),
        // The entry that opens the stores itself runs the whole generation, configuration then
        // debug levels, as the entry handed open stores does (which allocates nothing of its own).
        text("zfx_ptxt_gen_func",
             [p = p.path()] {
                 int32_t status;
                 const std::string text = gen_func_text(p, &status);
                 return status == 0 ? text : "no response";
             },
             all, blocks),
    };
}

// ---- the test -------------------------------------------------------------------------------------

TEST(AllocFailure, EveryAllocationOfEveryFunctionTakesItsDocumentedPath) {
    Prefix p;
    put(p.config(), full::records());
    put(p.debug(), {debug_level_rec(1, 3)});

    const std::vector<Row> all = rows(p);

    // The standard allocator's bytes in use, counted here too (LeakSanitizer counts them only
    // where it runs): each run ends holding what it began with. Only an allocator without its
    // per-thread cache of freed blocks counts them exactly; the suite's registration turns it off.
    const char *tunables = std::getenv("GLIBC_TUNABLES");
    const bool counted = tunables != nullptr && std::strstr(tunables, "glibc.malloc.tcache_count=0") != nullptr;
    for (const Row &row : all) {
        uint32_t nth = 1;
        for (;; ++nth) {
            g_nth = nth;
            heapx_stats_reset();
            zfx_testing_fail_allocation(nth);
            const size_t held = mallinfo2().uordblks;
            const bool documented = row.run();
            if (counted) {
                EXPECT_EQ(mallinfo2().uordblks, held) << row.name << " leaks with allocation " << nth;
            }
            const bool reached = failed();
            zfx_testing_fail_allocation(0);
            EXPECT_TRUE(documented) << row.name << " with allocation " << nth
                                    << (reached ? " failing" : " (no failure)");
            EXPECT_EQ(heapx_stats(kOwner).bytes_in_use, 0u) << row.name << " with allocation " << nth;
            if (!reached) break;
        }
        EXPECT_GT(nth, 1u) << row.name << " makes no allocation";
    }
}

}  // namespace
