// The platform's services: the configuration-text service (element order, joining of pieces,
// indentation, lines of other groups, delivery, bad calls), the ordered trees (against std::set),
// the formatters and bounded copies, and the tracked allocator and event history. Failure
// injection, and the failure report through the history and debug output, are what the allocation
// sweep stands on and checks; here the counters, the alignment, the ring, the switches' defaults
// and the debug level. The store on both backends: order, two cursors at once, lookups and a
// reader's snapshot checked against std::map after random writes and transactions; bad arguments;
// the in-memory store's faults.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "capture.hpp"
#include "platform/fmt.h"
#include "platform/heapx.h"
#include "platform/kvdb.h"
#include "platform/ptxt.h"
#include "platform/tlg.h"
#include "platform/tree.h"
#include "store.hpp"

namespace {

struct Gen {
    uint32_t h = 0;
    Gen() { EXPECT_EQ(ptxt_hdl_init(&h), 0); }
    ~Gen() { ptxt_hdl_release(h); }
    std::string text() {
        char *t = nullptr;
        uint32_t len = 0;
        EXPECT_EQ(ptxt_render(h, &t, &len), 0);
        std::string s(t != nullptr ? t : "", len);
        std::free(t);
        return s;
    }
};

TEST(Ptxt, ElementsRenderInDependencyOrderWithDeclarationOrderBreakingTies) {
    // A case's name; the element numbers, group 1, in the order declared; the dependencies
    // {element, group, other}; the text, one letter per element: 'a' + number.
    using Deps = std::vector<std::vector<uint32_t>>;
    const std::tuple<const char *, std::vector<uint32_t>, Deps, std::string> cases[] = {
        {"declaration order", {3, 1, 2}, {}, "dbc"},
        {"dependency moves later", {1, 2, 3}, {{1, 1, 3}}, "cdb"},
        {"chain", {1, 2, 3}, {{1, 1, 2}, {2, 1, 3}}, "dcb"},
        {"undeclared ignored", {1, 2}, {{1, 9, 9}, {1, 1, 7}}, "bc"},
        {"declared before the element", {2, 1}, {{2, 1, 1}}, "bc"},
        {"cycle: earliest declared goes on", {1, 2, 3}, {{1, 1, 2}, {2, 1, 1}}, "dbc"},
    };
    for (const auto &[name, declared, deps, expected] : cases) {
        Gen g;
        for (const auto &d : deps) ptxt_elem_dependency_add(g.h, d[0], d[1], d[2]);
        for (uint32_t e : declared) {
            ASSERT_EQ(ptxt_elem_add(g.h, 1, e, 11), 0);
            ASSERT_EQ(ptxt_elem_str_add(g.h, e, std::string(1, char('a' + e)).c_str()), 0);
        }
        std::string got = g.text();
        std::erase(got, '\n');
        EXPECT_EQ(got, expected) << name;
    }
}

// Joining and indentation against a character-by-character reading of the rule, over random
// pieces given to two elements in turn: lines of every length around the 16-byte blocks the
// service copies, empty lines, pieces ending mid-line, levels up to the deepest. A line takes its first piece's level and
// runs on until a newline, whatever the other element got in between; every element's text ends
// its line, and the group's lines (each ended) come last.
TEST(Ptxt, PiecesJoinAndIndentByTheRuleOverRandomPieces) {
    std::mt19937 rng(7);
    for (int round = 0; round < 40; ++round) {
        Gen g;
        for (uint32_t e : {2u, 3u}) ptxt_elem_add(g.h, 180, e, 11);
        std::string expected[2], group;
        bool open[2] = {};
        for (int piece = 0; piece < 16; ++piece) {
            // Now and then a deep level: an indentation longer than the blocks spaces go in.
            const uint32_t e = rng() % 2, level = rng() % 8 == 0 ? rng() % (PTXT_LEVEL_MAX + 1) : rng() % 4;
            std::string text(rng() % 100, 'x');
            for (char &c : text) c = rng() % 12 == 0 ? '\n' : char('a' + rng() % 26);
            ASSERT_EQ(ptxt_elem_str_add_indent(g.h, 2 + e, text.c_str(), level), 0);
            for (char c : text) {
                if (!open[e] && c != '\n') expected[e].append(2 * level, ' ');
                expected[e] += c;
                open[e] = c != '\n';
            }
            const std::string line = std::string(rng() % 3, 'g') + (rng() % 2 != 0 ? "\n" : "");
            ASSERT_EQ(ptxt_elem_group_config_str_add(g.h, 115, 0, 3, line.c_str()), 0);
            if (!line.empty()) group += line.back() == '\n' ? line : line + '\n';
        }
        for (int e : {0, 1})
            if (open[e]) expected[e] += '\n';
        ASSERT_EQ(g.text(), expected[0] + expected[1] + group) << "round " << round;
    }
}

// The statuses of bad calls; respond hands the message to the request's sink and ends the
// generation (the entry point's tests see the text delivered, here what passes through).
TEST(Ptxt, BadCallsAnswerTheirStatusesAndRespondEndsTheGeneration) {
    Gen g;
    EXPECT_EQ(ptxt_hdl_init(nullptr), PTXT_ERR_INVALID);
    EXPECT_EQ(ptxt_elem_add(0xDEAD, 1, 1, 1), PTXT_ERR_HANDLE);
    EXPECT_EQ(ptxt_elem_str_add(g.h, 1, "x"), PTXT_ERR_NO_ELEMENT);
    EXPECT_EQ(ptxt_elem_add(g.h, 1, 1, 1), 0);
    EXPECT_EQ(ptxt_elem_add(g.h, 1, 1, 1), 0);
    EXPECT_EQ(ptxt_elem_add(g.h, 2, 1, 1), PTXT_ERR_EXISTS);
    for (int32_t st : {ptxt_elem_str_add(g.h, 1, nullptr), ptxt_elem_str_add_indent(g.h, 1, "x", PTXT_LEVEL_MAX + 1),
                       ptxt_render(g.h, nullptr, nullptr)})
        EXPECT_EQ(st, PTXT_ERR_INVALID);
    EXPECT_EQ(g.text(), "");

    void *seen = nullptr;
    ptxt_request req{"mem:a", "mem:b", [](void *arg, void *msg, const char *, uint32_t) {
                         *static_cast<void **>(arg) = msg;
                         return int32_t(42);
                     }, &seen};
    uint32_t h;
    ASSERT_EQ(ptxt_hdl_init(&h), 0);
    EXPECT_NE(h, g.h);
    EXPECT_EQ(ptxt_respond(h, &seen, &req), 42);
    EXPECT_EQ(seen, &seen);
    EXPECT_EQ(ptxt_respond(h, nullptr, &req), PTXT_ERR_HANDLE);
    ASSERT_EQ(ptxt_hdl_init(&h), 0);
    EXPECT_EQ(ptxt_respond(h, nullptr, nullptr), PTXT_ERR_INVALID);
    EXPECT_EQ(ptxt_hdl_release(h), PTXT_ERR_HANDLE);  // a refused respond ends the generation too
    EXPECT_STREQ(ptxt_startup_debug_cfg_uri_prefix_get(&req), "mem:b");
    EXPECT_EQ(ptxt_startup_cfg_uri_prefix_get(nullptr), nullptr);
}

// Random values with duplicates, against std::set: a duplicate is refused, the walk goes in
// order and stays at its end.
TEST(Tree, InsertsInOrderAndWalksLikeASortedSet) {
    plat_tree *tree = tree_create([](const void *a, const void *b) {
        const int x = *static_cast<const int *>(a), y = *static_cast<const int *>(b);
        return int32_t(x < y ? -1 : x > y);
    });
    ASSERT_NE(tree, nullptr);
    std::mt19937 rng(7);
    std::vector<int> values(3000);
    std::set<int> model;
    for (int &v : values) {
        v = int(rng() % 2000);
        EXPECT_EQ(tree_insert(tree, &v), model.insert(v).second ? 0 : TREE_ERR_EXISTS) << v;
    }
    EXPECT_EQ(tree_count(tree), model.size());
    tree_walker w{0};
    std::vector<int> walked;
    while (const void *e = tree_walk(tree, &w)) walked.push_back(*static_cast<const int *>(e));
    EXPECT_TRUE(std::equal(walked.begin(), walked.end(), model.begin(), model.end()));
    EXPECT_EQ(tree_walk(tree, &w), nullptr);
    for (int32_t st : {tree_insert(tree, nullptr), tree_insert(nullptr, &values[0])}) EXPECT_EQ(st, TREE_ERR_INVALID);
    for (const void *e : {tree_walk(nullptr, &w), tree_walk(tree, nullptr)}) EXPECT_EQ(e, nullptr);
    EXPECT_EQ(tree_count(nullptr), 0u);
    EXPECT_EQ(tree_create(nullptr), nullptr);
    tree_destroy(tree);
    tree_destroy(nullptr);
}

// Both bounded copies: at most limit bytes (the string copy one less, for its terminator), nothing
// written past them, nothing from a missing source or to a missing buffer.
TEST(Fmt, BoundedCopiesStopAtTheLimitAndNoBufferIsNoText) {
    // The limit, the bytes offered, the bytes copied, and the string a copy of "abc" leaves.
    const std::tuple<uint32_t, uint32_t, uint32_t, const char *> cases[] = {
        {0, 6, 0, ""}, {1, 6, 1, ""}, {3, 6, 3, "ab"}, {4, 6, 4, "abc"}, {9, 6, 6, "abc"}, {4, 0, 0, "abc"}};
    const char src[] = "abcdef";
    for (const auto &[limit, len, copied, text] : cases) {
        char dst[10];
        std::memset(dst, 'x', sizeof dst);
        EXPECT_EQ(copy_mem_to_buf(limit, dst, src, len), copied) << limit;
        EXPECT_EQ(std::string(dst, sizeof dst), std::string(src, copied) + std::string(10 - copied, 'x'));
        for (const char *from : {"abc", static_cast<const char *>(nullptr)}) {
            std::memset(dst, 'x', sizeof dst);
            const std::string want = from != nullptr ? text : "";
            EXPECT_EQ(copy_str_to_buf(limit, dst, from), want.size());
            EXPECT_STREQ(limit != 0 ? dst : "", want.c_str());
            EXPECT_EQ(dst[limit], 'x') << limit;
        }
    }
    EXPECT_EQ(copy_str_to_buf(5, nullptr, "abc"), 0u);
    EXPECT_EQ(copy_mem_to_buf(4, nullptr, src, 4), 0u);
    char untouched = 'x';
    EXPECT_EQ(copy_mem_to_buf(4, &untouched, nullptr, 4), 0u);
    EXPECT_EQ(untouched, 'x');
    // No buffer is no text, and no LUN is an empty one. (What they write is the configuration
    // text's, into buffers of exactly their size: the golden texts and the tools' round trips.)
    EXPECT_EQ(fmt_wwn(nullptr, plat_wwn{}), nullptr);
    EXPECT_EQ(fmt_lun(nullptr, nullptr), nullptr);
    char out[FMT_LUN_SIZE] = "z";
    EXPECT_EQ(fmt_lun(out, nullptr), out);
    EXPECT_STREQ(out, "");
}

TEST(Heapx, CountsPerOwnerAndAligns) {
    heapx_stats_reset();
    void *blocks[] = {heapx_alloc(180, 309, 100), heapx_alloc(180, 281, 0), heapx_alloc(7, 1, 8)};
    ASSERT_TRUE(blocks[0] && blocks[1] && blocks[2]);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(blocks[0]) % 16, 0u);
    std::memset(blocks[0], 0xAB, 100);
    EXPECT_EQ(std::tuple(heapx_stats(180).allocs, heapx_stats(180).bytes_in_use), std::tuple(2u, 100u));
    for (void *b : {blocks[0], blocks[1], static_cast<void *>(nullptr)}) heapx_free(b);
    EXPECT_EQ(std::tuple(heapx_stats(180).frees, heapx_stats(180).bytes_in_use), std::tuple(2u, 0u));
    EXPECT_EQ(heapx_stats(7).bytes_in_use, 8u);
    heapx_free(blocks[2]);
    EXPECT_EQ(heapx_stats(99999).allocs, 0u);  // untracked owners read as zero
    if (sizeof(size_t) == 4) {
        EXPECT_EQ(heapx_alloc(7, 1, UINT32_MAX - 8), nullptr);  // with its header: past 4 GiB
    }
    for (int32_t st : {heapx_trail_blocks(nullptr, 1), heapx_trail_blocks(blocks, HEAPX_TRAILER_MAX + 1)}) EXPECT_EQ(st, -1);
}

// The ring keeps the newest TLG_HIST_CAPACITY records in order, each cut to TLG_HIST_RECORD_MAX.
TEST(Tlg, HistoryRingKeepsTheNewestInOrderAndSwitchesApply) {
    tlg_hist_clear();
    const std::string big(TLG_HIST_RECORD_MAX + 1, 'x');
    for (uint32_t i = 0; i < TLG_HIST_CAPACITY + 3; ++i) tlg_hist_event(0x730000, 4, &i);
    tlg_hist_event(1, uint32_t(big.size()), big.data());
    ASSERT_EQ(tlg_hist_count(), uint32_t(TLG_HIST_CAPACITY));
    tlg_hist_entry e;
    for (uint32_t at : {0u, TLG_HIST_CAPACITY - 2u}) {
        ASSERT_EQ(tlg_hist_get(at, &e), 0);
        EXPECT_EQ(zfxtest::bytes_of(e.record, 4), zfxtest::le32(at + 4)) << "the four oldest were overwritten";
    }
    ASSERT_EQ(tlg_hist_get(TLG_HIST_CAPACITY - 1, &e), 0);
    EXPECT_EQ(e.length, uint32_t(TLG_HIST_RECORD_MAX));
    EXPECT_EQ(tlg_hist_get(TLG_HIST_CAPACITY, &e), -1);
    tlg_hist_clear();

    EXPECT_EQ(tlg_hist_event_subtype_check(0x730000, 102), 0);
    tlg_hist_subtype_suppress(102, 1);
    EXPECT_NE(tlg_hist_event_subtype_check(0x730000, 102), 0);
    tlg_hist_subtype_suppress(102, 0);
    EXPECT_EQ(tlg_chk_int(102, 0, 0, 1), 0);  // debug output is off until switched on
    zfxtest::Capture err(2);
    dbg_printf(2, &tlg_dbg_modname, 0, "not shown at level 1");
    EXPECT_EQ(err.text(), "");
}

using zfxtest::Backend;
using zfxtest::Prefix;

// A datum over s's bytes: s must outlive it (a literal does).
kvdb_datum d(std::string_view s) { return kvdb_datum{const_cast<char *>(s.data()), uint32_t(s.size())}; }
std::string str(const kvdb_datum *p) { return p == nullptr ? "<null>" : std::string(static_cast<char *>(p->data), p->len); }

class StoreTest : public ::testing::TestWithParam<Backend> {
protected:
    Prefix prefix{GetParam()};
    std::string loc = prefix.config();

    kvdb_store *writer() {
        int32_t st = -1;
        kvdb_store *w = kvdb_create(loc.c_str(), &st);
        EXPECT_EQ(st, 0);
        return w;
    }
};

// Random writes (puts, deletes, appends with and without a value, clears), some in committed or
// aborted transactions, then walks and lookups against std::map. A reader opened halfway keeps
// what it saw then, and the values it fetched stay valid, until it is closed.
TEST_P(StoreTest, MatchesAnOrderedMapAfterRandomWritesAndTransactions) {
    using Model = std::map<std::string, std::string>;
    Model model, halfway;
    std::mt19937 rng(7);
    const char alphabet[] = {'\0', '\x01', 'e', '\xff'};
    auto random_key = [&] {
        std::string k(1 + rng() % 4, '\0');
        for (char &c : k) c = alphabet[rng() % 4];
        return k;
    };
    std::unique_ptr<zfxtest::Reader> snapshot;
    std::vector<std::pair<kvdb_datum *, std::string>> fetched;  // by the snapshot, before the writes after it
    kvdb_store *w = writer();
    for (int round = 0; round < 12; ++round) {
        const bool txn = round % 3 != 0, abort = round % 4 == 1;
        Model next = model;
        ASSERT_EQ(txn ? kvdb_txn_begin(w) : 0, 0);
        for (int i = 0; i < 30; ++i) {
            std::string k = random_key(), v(rng() % 3, char('a' + i % 26));
            const uint32_t op = rng() % 16;
            // An append takes only a key after the last one (a refused one changes nothing); half
            // of them extend the last key, which sorts just after it.
            if (op == 3 && !next.empty() && rng() % 2 == 0) k = next.rbegin()->first + k;
            kvdb_datum key = d(k), value = d(v);
            if (op < 3) {
                EXPECT_EQ(kvdb_delete(w, &key), next.erase(k) ? 0 : KVDB_NOT_FOUND);
            } else if (op == 3) {
                const bool after = next.empty() || k > next.rbegin()->first;
                EXPECT_EQ(kvdb_append(w, &key, v.empty() ? nullptr : &value), after ? 0 : KVDB_ERR_INVALID) << i;
                if (after) next[k] = v;
            } else if (op == 4 && i % 10 == 0) {
                ASSERT_EQ(kvdb_clear(w), 0);
                next.clear();
            } else {
                ASSERT_EQ(kvdb_put(w, &key, &value), 0);
                next[k] = v;
            }
        }
        ASSERT_EQ(!txn ? 0 : abort ? kvdb_txn_abort(w) : kvdb_txn_commit(w), 0);
        if (!(txn && abort)) model = next;
        if (round == 5) {
            snapshot = std::make_unique<zfxtest::Reader>(loc);
            halfway = model;
            for (const auto &[k, v] : model) {
                int32_t st = -1;
                kvdb_datum key = d(k);
                fetched.emplace_back(kvdb2_fetch(snapshot->get(), &key, &st), v);
            }
        }
    }
    kvdb_close(w);

    // Forward and backward at once: each cursor keeps its own place.
    zfxtest::Reader now(loc);
    for (const auto &[r, m] : {std::pair{snapshot->get(), &halfway}, std::pair{now.get(), &model}}) {
        kvdb_cursor fwd{}, bwd{};
        std::string walked, backward, expect, expect_back;
        kvdb_datum *f = kvdb_move2location(r, KVDB_LOC_FIRST, &fwd), *b = kvdb_move2location(r, KVDB_LOC_LAST, &bwd);
        while (f != nullptr || b != nullptr) {
            if (f != nullptr) {
                walked += str(f) + "=" + str(kvdb_getvalue(r, &fwd)) + ";";
                f = kvdb_move2location(r, KVDB_LOC_NEXT, &fwd);
            }
            if (b != nullptr) {
                backward = str(b) + ";" + backward;
                b = kvdb_move2location(r, KVDB_LOC_PREV, &bwd);
            }
        }
        for (const auto &[k, v] : *m) {
            expect += k + "=" + v + ";";
            expect_back += k + ";";
        }
        EXPECT_EQ(std::pair(walked, backward), std::pair(expect, expect_back));
    }
    for (const auto &[value, v] : fetched) EXPECT_EQ(str(value), v);

    for (int probe = 0; probe < 200; ++probe) {
        const std::string k = random_key();
        kvdb_datum key = d(k);
        auto lb = model.lower_bound(k);
        kvdb_cursor pc;
        std::memset(&pc, 0xA5, sizeof pc);  // a cursor starts as any bytes
        EXPECT_EQ(str(kvdb_move2key(now.get(), &key, &pc)), lb == model.end() ? "<null>" : lb->first);
        EXPECT_EQ(pc.match, lb != model.end() && lb->first == k ? 0u : 1u);
        kvdb_cursor copy = pc;  // a copy of a cursor steps from its own key, not the other's
        if (kvdb_move2location(now.get(), KVDB_LOC_NEXT, &pc) != nullptr) {
            EXPECT_EQ(pc.match, 0u);  // a step's match
            EXPECT_EQ(str(kvdb_move2location(now.get(), KVDB_LOC_NEXT, &copy)), str(&pc.key));
        }
        int32_t st = -1;
        kvdb_datum *v = kvdb_fetch(now.get(), &key, &st);
        auto it = model.find(k);
        EXPECT_EQ(st, it == model.end() ? KVDB_NOT_FOUND : 0);
        EXPECT_EQ(str(v), it == model.end() ? "<null>" : it->second);
    }
    // Walks off either end and missing keys are not failures of the store.
    EXPECT_EQ(kvdb_read_failure(now.get()), 0);
    // A store in use: an in-memory one is forgotten while its readers keep what they see; an
    // LMDB one is not deleted under this process's open handles.
    EXPECT_EQ(kvdb_destroy(loc.c_str()), GetParam() == Backend::mem ? 0 : KVDB_ERR_TXN);
    kvdb_cursor c{};
    EXPECT_EQ(str(kvdb_move2location(now.get(), KVDB_LOC_FIRST, &c)), model.empty() ? "<null>" : model.begin()->first);
}

TEST_P(StoreTest, BadArgumentsAnswerStatusesNeverCrash) {
    int32_t st = 0;
    const std::string missing = prefix.path() + "/nothing-here";
    EXPECT_EQ(kvdb_open(missing.c_str(), &st), nullptr);
    EXPECT_EQ(st, KVDB_ERR_OPEN);
    EXPECT_EQ(kvdb_open(nullptr, &st), nullptr);
    EXPECT_EQ(st, KVDB_ERR_INVALID);
    EXPECT_EQ(kvdb_destroy(missing.c_str()), KVDB_ERR_OPEN);
    EXPECT_EQ(kvdb_destroy(nullptr), KVDB_ERR_INVALID);

    zfxtest::put(loc, {{{'k'}, {}}});
    kvdb_store *w = writer();
    zfxtest::Reader r(loc);
    const std::string too_long(KVDB_KEY_MAX + 1, 'x');
    kvdb_datum key = d("k"), empty{nullptr, 0}, huge = d(too_long);
    kvdb_cursor c{};
    const kvdb_datum *bad_keys[] = {nullptr, &empty, &huge};
    for (const kvdb_datum *bad : bad_keys) {
        st = 0;
        EXPECT_EQ(kvdb_fetch(r.get(), bad, &st), nullptr);
        EXPECT_EQ(st, KVDB_ERR_INVALID);
        EXPECT_EQ(kvdb_put(w, bad, &key), KVDB_ERR_INVALID);
        EXPECT_EQ(kvdb_move2key(r.get(), bad, &c), nullptr);
    }
    EXPECT_EQ(kvdb_fetch(w, &key, &st), nullptr);  // a write handle does not read
    for (int32_t status : {kvdb_put(r.get(), &key, &key), kvdb_clear(r.get()), kvdb_append(nullptr, &key, nullptr)})
        EXPECT_EQ(status, KVDB_ERR_INVALID);
    kvdb_cursor unpositioned{};
    for (const void *p : {kvdb_fetch(nullptr, &key, nullptr), kvdb_move2key(r.get(), &key, nullptr),
                          kvdb_move2location(r.get(), 9, &c), kvdb_move2location(r.get(), KVDB_LOC_NEXT, &unpositioned),
                          kvdb_getvalue(r.get(), &unpositioned)})
        EXPECT_EQ(p, nullptr);
    // One write transaction per location.
    kvdb_store *w2 = writer();
    EXPECT_EQ(kvdb_txn_commit(w), KVDB_ERR_TXN);
    EXPECT_EQ(kvdb_txn_begin(w), 0);
    EXPECT_EQ(kvdb_txn_begin(w2), KVDB_ERR_TXN);
    EXPECT_EQ(kvdb_put(w2, &key, &key), KVDB_ERR_TXN);
    kvdb_close(w);  // aborts
    EXPECT_EQ(kvdb_put(w2, &key, &key), 0);
    EXPECT_EQ(kvdb_read_failure(w2), KVDB_ERR_INVALID);  // a write handle does not read
    EXPECT_EQ(kvdb_read_failure(nullptr), KVDB_ERR_INVALID);
    kvdb_close(w2);
    EXPECT_EQ(kvdb_close(nullptr), 0);
}

INSTANTIATE_TEST_SUITE_P(Backends, StoreTest, ::testing::Values(Backend::mem, Backend::lmdb),
                         [](const auto &param) { return param.param == Backend::mem ? "mem" : "lmdb"; });

TEST(MemStoreFaults, OpenKeyAndCursorFaultsApplyAsInjected) {
    Prefix prefix;
    const std::string loc = prefix.config();
    zfxtest::put(loc, {{{'a'}, {'1'}}, {{'b'}, {'2'}}, {{'c'}, {'3'}}});
    const char bad = 'b';
    kvdb_mem_faults f{0x1234, 0x5678, &bad, 1, 0};
    ASSERT_EQ(kvdb_mem_inject(loc.c_str(), &f), 0);
    int32_t st = 0;
    EXPECT_EQ(kvdb_open(loc.c_str(), &st), nullptr);
    EXPECT_EQ(st, 0x1234);

    f.open_status = 0;
    f.cursor_fail_at = 3;
    ASSERT_EQ(kvdb_mem_inject(loc.c_str(), &f), 0);
    zfxtest::Reader r(loc);
    kvdb_datum kb = d("b"), ka = d("a");
    EXPECT_EQ(kvdb_fetch(r.get(), &kb, &st), nullptr);
    EXPECT_EQ(st, 0x5678);
    EXPECT_EQ(kvdb_read_failure(r.get()), 0x5678);
    kvdb_cursor c{};
    EXPECT_EQ(str(kvdb_move2key(r.get(), &ka, &c)), "a");                     // move 1
    EXPECT_EQ(str(kvdb_move2location(r.get(), KVDB_LOC_NEXT, &c)), "b");      // move 2
    EXPECT_EQ(kvdb_getvalue(r.get(), &c), nullptr);                           // the faulty key
    EXPECT_EQ(kvdb_move2location(r.get(), KVDB_LOC_NEXT, &c), nullptr);       // move 3 fails
    EXPECT_EQ(kvdb_move2key(r.get(), &ka, &c), nullptr);

    // The faulty key is as long as any key may be, no longer, and has its bytes.
    const std::string long_key(KVDB_KEY_MAX + 1, 'k');
    const kvdb_mem_faults keys[] = {
        {0, 1, long_key.data(), KVDB_KEY_MAX, 0}, {0, 1, long_key.data(), KVDB_KEY_MAX + 1, 0}, {0, 1, nullptr, 1, 0}};
    for (const kvdb_mem_faults &k : keys)
        EXPECT_EQ(kvdb_mem_inject(loc.c_str(), &k), k.key_len == KVDB_KEY_MAX ? 0 : KVDB_ERR_INVALID) << k.key_len;
    ASSERT_EQ(kvdb_mem_inject(loc.c_str(), nullptr), 0);
    EXPECT_EQ(str(kvdb_fetch(r.get(), &kb, &st)), "2");
    EXPECT_EQ(kvdb_mem_inject("mem/x", nullptr), KVDB_ERR_INVALID);  // "mem" without its colon: a directory
}

}  // namespace
