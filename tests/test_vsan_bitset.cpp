// VSAN sets, checked against std::bitset<4096> over many seeded random sets: every operation,
// search, walk, text and conversion agrees with a position-by-position model, and none writes
// outside the 512 bytes of bits.
#include <algorithm>
#include <bitset>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "bytes.hpp"
#include "capture.hpp"
#include "platform/bits.h"
#include "vsan_bitset.h"

namespace {

using Model = std::bitset<4096>;
using Runs = std::vector<std::pair<int, int>>;

Model model_of(const vsan_bitset &s) {
    Model m;
    for (int p = 0; p < 4096; ++p) m[p] = (s.bits[p / 8] >> (7 - p % 8)) & 1;
    return m;
}

Model model_of(std::initializer_list<int> positions) {
    Model m;
    for (int p : positions) m[p] = true;
    return m;
}

// A set followed by guard bytes: an operation that runs one byte past the bits changes them.
struct Guarded {
    vsan_bitset s;
    uint8_t guard[8];
    bool guard_kept() const { return s.len == 512 && std::count(guard, guard + 8, 0x5A) == 8; }
};
static_assert(offsetof(Guarded, guard) == sizeof(vsan_bitset));

Guarded set_of(const Model &m, uint8_t guard = 0x5A) {
    Guarded g;
    std::memset(g.guard, guard, sizeof g.guard);
    vsan_bitset_init(&g.s);
    for (int p = 0; p < 4096; ++p)
        if (m[p]) g.s.bits[p / 8] |= uint8_t(0x80 >> (p % 8));
    return g;
}

// Sets of every shape the searches and the text care about: empty, full, sparse, dense, runs
// (including 0 then runs of two from 2 with single gaps: the longest text there is, 12913
// characters), the word and byte boundaries, and a chunk boundary.
std::vector<Model> sample_sets() {
    std::vector<Model> out = {Model(), Model().set()};
    for (int p : {0, 7, 8, 31, 32, 63, 64, 4095}) {
        out.push_back(model_of({p}));
        out.push_back(~model_of({p}));
    }
    Model pairs = model_of({0});
    for (int p = 2; p + 1 < 4096; p += 3) pairs[p] = pairs[p + 1] = true;
    out.push_back(pairs);
    // A one-digit first item, then one that with its comma fills a chunk of 11 to the last byte.
    Model cut = model_of({1});
    for (int p = 1000; p <= 2000; ++p) cut[p] = true;
    out.push_back(cut);
    std::mt19937 rng(20261122);
    for (int i = 0; i < 40; ++i) {
        Model m;
        if (i % 4 == 0) {  // sparse
            for (int k = 0; k < 12; ++k) m[rng() % 4096] = true;
        } else if (i % 4 == 1) {  // dense
            m.set();
            for (int k = 0; k < 12; ++k) m[rng() % 4096] = false;
        } else if (i % 4 == 2) {  // runs
            for (int k = 0; k < 20; ++k)
                for (int a = int(rng() % 4096), p = a; p < std::min(4096, a + int(rng() % 90) + 1); ++p) m[p] = true;
        } else {  // noise
            for (int p = 0; p < 4096; ++p) m[p] = rng() & 1;
        }
        out.push_back(m);
    }
    return out;
}

// The runs of set (or, with free_runs, clear) positions.
Runs model_runs(const Model &m, bool free_runs = false) {
    Runs runs;
    for (int p = 0; p < 4096; ++p) {
        if (m[p] == free_runs) continue;
        int q = p;
        while (q + 1 < 4096 && m[q + 1] != free_runs) ++q;
        runs.emplace_back(p, q);
        p = q;
    }
    return runs;
}

std::string model_text(const Model &m, bool hex = false) {
    std::string t;
    for (auto [p, q] : model_runs(m)) {
        t.append(t.empty() ? "" : ",").append(zfxtest::format(hex ? "%#x" : "%d", p));
        if (q != p) t.append("-").append(zfxtest::format(hex ? "%#x" : "%d", q));
    }
    return t;
}

int model_find(const Model &m, int start, bool value) {
    for (int p = std::max(start, 0); p < 4096; ++p)
        if (m[p] == value) return p;
    return -1;
}

// Tests and searches from every start, including both sides of the ends, and both run walks;
// then random operations, one at a time.
TEST(VsanBitset, SearchesWalksAndOperationsAgreeWithModel) {
    std::mt19937 rng(3);
    for (const Model &sample : sample_sets()) {
        Model m = sample;
        Guarded g = set_of(m);
        const vsan_bitset &s = g.s;
        std::vector<int> before(4097, 0);  // set positions below p
        for (int p = 0; p < 4096; ++p) before[p + 1] = before[p] + m[p];
        for (int start = -2; start <= 4097; ++start) {
            ASSERT_EQ(vsan_bitset_is_bit_set(&s, start), int(start >= 0 && start < 4096 && m[start])) << start;
            ASSERT_EQ(vsan_bitset_find_bit(&s, start), model_find(m, start, true)) << start;
            ASSERT_EQ(vsan_bitset_find_free_bit(&s, start), model_find(m, start, false)) << start;
            int prev = std::min(start, 4095);
            while (prev >= 0 && !m[prev]) --prev;
            ASSERT_EQ(vsan_bitset_find_prev_bit(&s, start), std::max(prev, -1)) << start;
            ASSERT_EQ(vsan_bitset_next_bit(&s, start), model_find(m, start + 1, true)) << start;
            ASSERT_EQ(vsan_bitset_next_free_bit(&s, start), model_find(m, start + 1, false)) << start;
            // A range is free when nothing after its first position, up to its last, is set.
            for (int len : {0, 1, 2, 70, 5000}) {
                const vsan_bitset_range r{start, start + len};
                const int lo = std::clamp(start + 1, 0, 4096), hi = std::clamp(start + len + 1, lo, 4096);
                ASSERT_EQ(vsan_bitset_is_range_free(&s, &r), int(before[hi] == before[lo])) << start << "+" << len;
            }
        }
        std::vector<int> positions[2];
        for (int p = 0; p < 4096; ++p) positions[m[p]].push_back(p);
        for (int set = 0; set < 2; ++set) {
            const auto &want = positions[set];
            for (int n = -1; n <= int(want.size()); ++n)
                ASSERT_EQ(set ? vsan_bitset_nth_bit(&s, n) : vsan_bitset_nth_free_bit(&s, n),
                          n >= 0 && n < int(want.size()) ? want[n] : -1);
            EXPECT_EQ(set ? vsan_bitset_first_bit(&s) : vsan_bitset_first_free_bit(&s), want.empty() ? -1 : want[0]);
            Runs got;
            vsan_bitset_range r = VSAN_BITSET_RANGE_START;
            while ((set ? vsan_bitset_next_range(&s, &r) : vsan_bitset_next_free_range(&s, &r)) == 0) {
                got.emplace_back(r.first, r.last);
                ASSERT_LE(got.size(), 2049u);
            }
            EXPECT_EQ(got, model_runs(m, !set));
            // A walk that stops at the end of the set leaves the cursor on its last run.
            if (!got.empty() && got.back().second >= 4094) {
                EXPECT_EQ(r.first, got.back().first);
            }
        }
        // Then random operations.
        for (int k = 0; k < 40; ++k) {
            // Positions and runs reach past both ends: they are ignored or clipped.
            const int p = k % 7 == 0 ? int(rng() % 16) - 8 : k % 7 == 1 ? 4090 + int(rng() % 16) : int(rng() % 4096);
            const int count = int(rng() % 80) - 8, op = k % 5;
            const bool value = op == 0 || op == 2 || (op == 4 && k % 2 == 0);
            switch (op) {
            case 0: vsan_bitset_set_bit(&g.s, p); break;
            case 1: vsan_bitset_clear_bit(&g.s, p); break;
            case 2: vsan_bitset_set_range(&g.s, p, count); break;
            case 3: vsan_bitset_clear_range(&g.s, p, count); break;
            default: vsan_bitset_set_range_value(&g.s, p, count, value ? 7 : 0);
            }
            for (int q = std::max(p, 0); q < std::min(op < 2 ? p + 1 : p + count, 4096); ++q) m[q] = value;
            ASSERT_EQ(model_of(g.s), m) << k;
        }
        EXPECT_EQ(vsan_bitset_bitcount(&g.s), int(m.count()));
        EXPECT_TRUE(g.guard_kept());
    }
    Guarded g = set_of(model_of({1})), n = set_of(model_of({9}));
    vsan_bitset_fill(&g.s);
    EXPECT_TRUE(model_of(g.s).all());
    vsan_bitset_clear(&g.s);
    EXPECT_TRUE(model_of(g.s).none() && g.guard_kept());
    n.s.len = 7;
    vsan_bitset_copy(&n.s, &g.s);
    EXPECT_EQ(n.s.len, 7u);  // the copy leaves the length word alone
    EXPECT_EQ(vsan_bitset_equal(&n.s, &g.s), 1);  // and equality does not compare it
}

TEST(VsanBitset, AlgebraAgreesWithModelAndToleratesAliasing) {
    auto sets = sample_sets();
    std::mt19937 rng(7);
    for (int i = 0; i < 200; ++i) {
        const Model &A = sets[rng() % sets.size()], &B = sets[rng() % sets.size()], &M = sets[rng() % sets.size()];
        // The operands' guards differ from the destination's: a byte read past them would show.
        Guarded a = set_of(A), b = set_of(B, 0xFF), m = set_of(M, 0xFF), d;
        auto check = [&](auto op, const Model &want) {
            d = a;
            op(&d.s);
            ASSERT_EQ(model_of(d.s), want);
            ASSERT_TRUE(d.guard_kept());
        };
        check([&](vsan_bitset *x) { vsan_bitset_union(x, &b.s); }, A | B);
        check([&](vsan_bitset *x) { vsan_bitset_intersection(x, &b.s); }, A & B);
        check([&](vsan_bitset *x) { vsan_bitset_subtract(x, &b.s); }, A & ~B);
        check([&](vsan_bitset *x) { vsan_bitset_revert(x); }, ~A);
        check([&](vsan_bitset *x) { vsan_bitset_xor(x, x, &b.s); }, A ^ B);
        check([&](vsan_bitset *x) { vsan_bitset_maskcopy(x, &b.s, &m.s); }, (A & ~M) | (B & M));
        check([&](vsan_bitset *x) { vsan_bitset_maskrevert(x, &m.s); }, A ^ M);
        check([&](vsan_bitset *x) { vsan_bitset_maskintersect(x, &b.s, &m.s); }, (A & ~M) | (A & B & M));
        check([&](vsan_bitset *x) { vsan_bitset_maskunion(x, &b.s, &m.s); }, (A & ~M) | ((A | B) & M));
        check([&](vsan_bitset *x) { vsan_bitset_masksubtract(x, &b.s, &m.s); }, (A & ~M) | (A & ~B & M));
        // Every operand the same set.
        check([&](vsan_bitset *x) { vsan_bitset_subtract(x, x); }, Model());
        check([&](vsan_bitset *x) { vsan_bitset_maskunion(x, x, x); }, A);
        check([&](vsan_bitset *x) { vsan_bitset_xor(x, x, x); }, Model());
        EXPECT_EQ(vsan_bitset_intersects(&a.s, &b.s), (A & B).any() ? 1 : 0);
        EXPECT_EQ(vsan_bitset_equal(&a.s, &b.s), A == B ? 1 : 0);
        EXPECT_EQ(vsan_bitset_maskequal(&a.s, &b.s, &m.s), ((A ^ B) & M).none() ? 1 : 0);
        EXPECT_EQ(vsan_bitset_subset(&a.s, &b.s), (A & ~B).none() ? 1 : 0);
        EXPECT_EQ(vsan_bitset_subset(&b.s, &a.s), (B & ~A).none() ? 1 : 0);  // b's guard is not a's

        const int start = i % 8 == 0 ? int(rng() % 16) - 8 : int(rng() % 4200) - 50, count = int(rng() % 300) - 20;
        Model inside;
        for (int p = std::max(start, 0); p < std::min(4096, start + count); ++p) inside[p] = true;
        check([&](vsan_bitset *x) { vsan_bitset_union_range(x, &b.s, start, count); },
              (A & ~inside) | ((A | B) & inside));
        check([&](vsan_bitset *x) { vsan_bitset_intersection_range(x, &b.s, start, count); },
              (A & ~inside) | (A & B & inside));
        check([&](vsan_bitset *x) { vsan_bitset_subtract_range(x, &b.s, start, count); },
              (A & ~inside) | (A & ~B & inside));
        check([&](vsan_bitset *x) { vsan_bitset_revert_range(x, start, count); }, A ^ inside);
    }
    // No destination: nothing happens, whatever the run.
    const Guarded b = set_of(model_of({1}));
    vsan_bitset_union_range(nullptr, &b.s, 0, 10);
    vsan_bitset_revert_range(nullptr, 0, 4096);
}

// The text buffer is exactly the documented size, and the samples hold the longest text: a write
// past it is caught. (The literal range texts of the generation suites keep the model honest.)
TEST(VsanBitset, TextFormsChunksAndConversionsAgreeWithModel) {
    std::vector<char> text(VSAN_BITSET_TEXT_SIZE);
    for (const Model &m : sample_sets()) {
        Guarded g = set_of(m);
        const std::string want = model_text(m);
        ASSERT_EQ(vsan_bitset_sprintf(text.data(), &g.s), int(want.size()));
        ASSERT_EQ(std::string(text.data()), want);
        std::string hex = zfxtest::hex(zfxtest::bytes_of(g.s.bits, sizeof g.s.bits));
        hex.erase(std::remove(hex.begin(), hex.end(), ' '), hex.end());
        zfxtest::Capture out;
        vsan_bitset_printf(&g.s);
        std::printf("|");
        vsan_bitset_hex_printf(&g.s);
        std::printf("|");
        vsan_bitset_printf_hex(&g.s);
        ASSERT_EQ(out.text(), want + "|" + model_text(m, true) + "|" + hex);
        // The chunked writer's pieces reassemble the text for every buffer size.
        const auto runs = model_runs(m);
        for (uint32_t size : {10u, 11u, 13u, 17u, 64u, 100u, 1000u, 20000u}) {
            std::vector<char> buf(size + 8, '#');
            std::string joined;
            uint8_t done = 0;
            for (int call = 0; !done; ++call) {
                int n = vsan_bitset_snprintf(buf.data(), size, &g.s, call == 0, &done);
                ASSERT_LT(uint32_t(n), size);
                ASSERT_EQ(std::strlen(buf.data()), size_t(n));
                ASSERT_EQ(buf[size], '#');  // nothing written past the size
                ASSERT_TRUE(n > 0 || done) << "stuck with room for the widest item";
                if (n > 0) joined.append(joined.empty() ? "" : ",").append(buf.data());
                // The cursor: the last position of the last run written.
                if (!done) {
                    ASSERT_EQ(range_print_cursor, runs[std::count(joined.begin(), joined.end(), ',')].second);
                }
                ASSERT_LT(call, 5000);
            }
            ASSERT_EQ(joined, want) << size;
            ASSERT_EQ(range_print_cursor, 0);
        }

        // The bit array, both ways, and compression round trips.
        Guarded r = set_of(~m), u = set_of(~m);
        std::vector<uint8_t> arr(600, 0xEE);
        vsan_bitset_to_bitarray(&g.s, arr.data(), 600);
        for (int p = 0; p < 4096; ++p) ASSERT_EQ((arr[p / 8] >> (p % 8)) & 1, int(m[p]));
        ASSERT_EQ(std::count(arr.begin() + 512, arr.end(), 0), 88);
        vsan_bitset_from_bitarray(&r.s, arr.data(), 600);
        ASSERT_EQ(model_of(r.s), m);
        // A short array: the first bytes only, the rest of the set cleared.
        vsan_bitset_from_bitarray(&r.s, arr.data(), 4);
        ASSERT_EQ(model_of(r.s), m & Model(0xFFFFFFFFull)) << "positions 0 to 31 only";
        ASSERT_TRUE(r.guard_kept());

        std::vector<uint8_t> packed(8192);
        int n = vsan_bitset_compress(&g.s, packed.data(), uint32_t(packed.size()));
        ASSERT_GT(n, 0);
        ASSERT_EQ(vsan_bitset_uncompress(packed.data(), uint32_t(n), &u.s), 0);
        ASSERT_EQ(model_of(u.s), m);
        ASSERT_TRUE(u.guard_kept());
        // Every truncation is refused, never over-read; so is a destination one byte too small.
        for (int cut = 0; cut < n; ++cut) ASSERT_EQ(vsan_bitset_uncompress(packed.data(), uint32_t(cut), &u.s), -1);
        ASSERT_EQ(vsan_bitset_compress(&g.s, packed.data(), uint32_t(n - 1)), -1);
    }
    // Exactly the room for an item and its terminator, and one byte less: stuck, the same empty
    // chunk every time. No buffer: nothing.
    Guarded big = set_of(model_of({1000}));
    char buf[8];
    uint8_t done = 7;
    EXPECT_EQ(vsan_bitset_snprintf(buf, 5, &big.s, 1, &done), 4);
    EXPECT_EQ(done, 1);
    for (int call = 0; call < 2; ++call) {
        EXPECT_EQ(vsan_bitset_snprintf(buf, 4, &big.s, call == 0, &done), 0);
        EXPECT_TRUE(buf[0] == '\0' && done == 0);
    }
    // A first chunk that held nothing leaves the cursor at the start: the next one begins there.
    Guarded one = set_of(model_of({1}));
    EXPECT_EQ(vsan_bitset_snprintf(buf, 1, &one.s, 1, &done), 0);
    EXPECT_EQ(vsan_bitset_snprintf(buf, 8, &one.s, 0, &done), 1);
    EXPECT_STREQ(buf, "1");
    EXPECT_EQ(vsan_bitset_snprintf(nullptr, 8, &big.s, 1, &done), 0);
    EXPECT_EQ(vsan_bitset_snprintf(buf, 0, &big.s, 1, nullptr), 0);
    // A bit array shorter than the set gets its own bytes only.
    Guarded zero = set_of(model_of({0}));
    uint8_t small[4] = {9, 9, 9, 9};
    vsan_bitset_to_bitarray(&zero.s, small, 3);
    EXPECT_EQ(std::vector<uint8_t>(small, small + 4), (std::vector<uint8_t>{1, 0, 0, 9}));
    vsan_bitset_to_bitarray(&zero.s, small, 0);  // nothing written for a length of 0
}

}  // namespace
