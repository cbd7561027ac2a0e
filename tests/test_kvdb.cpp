// The platform store on both backends: order, two cursors at once, lookups and a reader's snapshot
// checked against std::map after random writes and transactions; bad arguments; the in-memory
// store's faults.
#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "platform/kvdb.h"
#include "store.hpp"

namespace {

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
        EXPECT_EQ(walked, expect);
        EXPECT_EQ(backward, expect_back);
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
    EXPECT_EQ(kvdb_put(r.get(), &key, &key), KVDB_ERR_INVALID);
    EXPECT_EQ(kvdb_clear(r.get()), KVDB_ERR_INVALID);
    EXPECT_EQ(kvdb_append(nullptr, &key, nullptr), KVDB_ERR_INVALID);
    EXPECT_EQ(kvdb_fetch(nullptr, &key, nullptr), nullptr);
    EXPECT_EQ(kvdb_move2key(r.get(), &key, nullptr), nullptr);
    kvdb_cursor unpositioned{};
    EXPECT_EQ(kvdb_move2location(r.get(), KVDB_LOC_NEXT, &unpositioned), nullptr);
    EXPECT_EQ(kvdb_getvalue(r.get(), &unpositioned), nullptr);
    EXPECT_EQ(kvdb_move2location(r.get(), 9, &c), nullptr);
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
