// VSAN sets, checked against std::bitset<4096> over many seeded random sets, plus the exact
// layout, text and printing forms.
#include <bitset>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "capture.hpp"
#include "platform/bits.h"
#include "vsan_bitset.h"
#include "zfx_testing.h"

namespace {

using Model = std::bitset<4096>;

Model model_of(const vsan_bitset &s) {
    Model m;
    for (int p = 0; p < 4096; ++p) m[p] = (s.bits[p / 8] >> (7 - p % 8)) & 1;
    return m;
}

vsan_bitset set_of(const Model &m) {
    vsan_bitset s;
    vsan_bitset_init(&s);
    for (int p = 0; p < 4096; ++p)
        if (m[p]) s.bits[p / 8] |= uint8_t(0x80 >> (p % 8));
    return s;
}

vsan_bitset set_of(std::initializer_list<int> positions) {
    Model m;
    for (int p : positions) m[p] = true;
    return set_of(m);
}

// Sets of every shape the searches and the text care about: empty, full, sparse, dense, runs
// (including runs of two, the longest text), and the word and byte boundaries.
std::vector<Model> sample_sets() {
    std::vector<Model> out;
    out.emplace_back();
    out.emplace_back(Model().set());
    for (int p : {0, 7, 8, 31, 32, 63, 64, 4095}) {
        Model m;
        m[p] = true;
        out.push_back(m);
        out.push_back(~m);
    }
    Model pairs;
    for (int p = 0; p + 1 < 4096; p += 3) pairs[p] = pairs[p + 1] = true;
    out.push_back(pairs);
    std::mt19937 rng(20261122);
    for (int i = 0; i < 40; ++i) {
        Model m;
        const int kind = i % 4;
        if (kind == 0) {  // sparse
            for (int k = 0; k < 12; ++k) m[rng() % 4096] = true;
        } else if (kind == 1) {  // dense
            m.set();
            for (int k = 0; k < 12; ++k) m[rng() % 4096] = false;
        } else if (kind == 2) {  // runs
            for (int k = 0; k < 20; ++k) {
                int a = int(rng() % 4096), len = int(rng() % 90) + 1;
                for (int p = a; p < std::min(4096, a + len); ++p) m[p] = true;
            }
        } else {  // noise
            for (int p = 0; p < 4096; ++p) m[p] = rng() & 1;
        }
        out.push_back(m);
    }
    return out;
}

std::string model_text(const Model &m) {
    std::string t;
    for (int p = 0; p < 4096;) {
        if (!m[p]) {
            ++p;
            continue;
        }
        int q = p;
        while (q + 1 < 4096 && m[q + 1]) ++q;
        if (!t.empty()) t += ',';
        t += std::to_string(p);
        if (q > p) t += '-' + std::to_string(q);
        p = q + 1;
    }
    return t;
}

int model_find(const Model &m, int start, bool value) {
    for (int p = std::max(start, 0); p < 4096; ++p)
        if (m[p] == value) return p;
    return -1;
}

TEST(VsanBitset, LayoutAndElementaryOperations) {
    vsan_bitset s;
    std::memset(&s, 0xAB, sizeof s);
    EXPECT_EQ(vsan_bitset_init(&s), &s);
    EXPECT_EQ(s.len, 512u);
    EXPECT_EQ(vsan_bitset_numbits(), 4096);
    vsan_bitset_set_bit(&s, 0);
    vsan_bitset_set_bit(&s, 4095);
    const auto *raw = reinterpret_cast<const uint8_t *>(&s);
    EXPECT_EQ(raw[4], 0x80);
    EXPECT_EQ(raw[515], 0x01);
    vsan_bitset_clear(&s);
    vsan_bitset_set_range(&s, 6, 4);
    EXPECT_EQ(s.bits[0], 0x03);
    EXPECT_EQ(s.bits[1], 0xC0);
    vsan_bitset_set_range(&s, 100, 0);
    vsan_bitset_set_range(&s, 100, -5);
    EXPECT_EQ(vsan_bitset_bitcount(&s), 4);
    // Out-of-range positions and runs are ignored or clipped; nothing outside the bits changes.
    vsan_bitset_set_bit(&s, -1);
    vsan_bitset_set_bit(&s, 4096);
    vsan_bitset_set_range(&s, 4090, 100);
    vsan_bitset_set_range(&s, -3, 5);
    EXPECT_EQ(s.len, 512u);
    EXPECT_EQ(model_of(s), model_of(set_of({0, 1, 6, 7, 8, 9, 4090, 4091, 4092, 4093, 4094, 4095})));
    EXPECT_EQ(vsan_bitset_is_bit_set(&s, -1), 0);
    EXPECT_EQ(vsan_bitset_is_bit_set(&s, 4096), 0);

    vsan_bitset *n = vsan_bitset_new();
    ASSERT_NE(n, nullptr);
    EXPECT_EQ(n->len, 512u);
    EXPECT_EQ(vsan_bitset_bitcount(n), 0);
    n->len = 7;
    vsan_bitset_copy(n, &s);
    EXPECT_EQ(n->len, 7u);  // the copy leaves the length word alone
    EXPECT_EQ(vsan_bitset_equal(n, &s), 1);
    vsan_bitset_delete(n);

    zfx_testing_fail_allocation(1);
    EXPECT_EQ(vsan_bitset_new(), nullptr);
    EXPECT_EQ(zfx_testing_allocation_count(), 1u);
    zfx_testing_fail_allocation(1);
    zfxtest::Capture out;
    vsan_bitset_printf(&s);  // prints nothing when its work buffer cannot be had
    zfx_testing_fail_allocation(0);
    EXPECT_EQ(out.text(), "");
}

TEST(VsanBitset, RangeValueMatchesModelForEveryShortRun) {
    for (int start = 0; start < 40; ++start) {
        for (int count = 0; count < 40; ++count) {
            vsan_bitset s;
            vsan_bitset_init(&s);
            vsan_bitset_fill(&s);
            vsan_bitset_clear_range(&s, start, count);
            Model m;
            m.set();
            for (int p = start; p < start + count; ++p) m[p] = false;
            ASSERT_EQ(model_of(s), m) << start << "+" << count;
        }
    }
}

TEST(VsanBitset, SearchesAgreeWithModel) {
    for (const Model &m : sample_sets()) {
        vsan_bitset s = set_of(m);
        for (int start = -2; start <= 4097; ++start) {
            ASSERT_EQ(vsan_bitset_find_bit(&s, start), model_find(m, start, true)) << start;
            ASSERT_EQ(vsan_bitset_find_free_bit(&s, start), model_find(m, start, false)) << start;
            int prev = -1;
            for (int p = std::min(start, 4095); p >= 0; --p)
                if (m[p]) {
                    prev = p;
                    break;
                }
            ASSERT_EQ(vsan_bitset_find_prev_bit(&s, start), prev) << start;
            ASSERT_EQ(vsan_bitset_next_bit(&s, start), model_find(m, start + 1, true)) << start;
            ASSERT_EQ(vsan_bitset_next_free_bit(&s, start), model_find(m, start + 1, false)) << start;
        }
        EXPECT_EQ(vsan_bitset_first_bit(&s), model_find(m, 0, true));
        EXPECT_EQ(vsan_bitset_first_free_bit(&s), model_find(m, 0, false));
        EXPECT_EQ(vsan_bitset_bitcount(&s), int(m.count()));
        std::vector<int> set_positions, free_positions;
        for (int p = 0; p < 4096; ++p) (m[p] ? set_positions : free_positions).push_back(p);
        for (int n = -1; n <= int(set_positions.size()); ++n)
            ASSERT_EQ(vsan_bitset_nth_bit(&s, n), n >= 0 && n < int(set_positions.size()) ? set_positions[n] : -1);
        for (int n = -1; n <= int(free_positions.size()); ++n)
            ASSERT_EQ(vsan_bitset_nth_free_bit(&s, n),
                      n >= 0 && n < int(free_positions.size()) ? free_positions[n] : -1);
    }
}

TEST(VsanBitset, RunIteratorsYieldModelRuns) {
    for (const Model &m : sample_sets()) {
        vsan_bitset s = set_of(m);
        for (bool free_runs : {false, true}) {
            std::vector<std::pair<int, int>> expected, got;
            for (int p = 0; p < 4096;) {
                if (m[p] == free_runs) {
                    ++p;
                    continue;
                }
                int q = p;
                while (q + 1 < 4096 && m[q + 1] != free_runs) ++q;
                expected.emplace_back(p, q);
                p = q + 1;
            }
            vsan_bitset_range r = VSAN_BITSET_RANGE_START;
            while ((free_runs ? vsan_bitset_next_free_range(&s, &r) : vsan_bitset_next_range(&s, &r)) == 0) {
                got.emplace_back(r.first, r.last);
                ASSERT_LE(got.size(), 2049u);
            }
            // A walk whose last run ends at 4094 stops there; the model run list agrees, since
            // position 4095 then belongs to the other kind.
            EXPECT_EQ(got, expected);
        }
    }
    vsan_bitset s = set_of({1, 5, 6, 7, 4095});
    vsan_bitset_range r = VSAN_BITSET_RANGE_START;
    std::vector<std::pair<int, int>> runs;
    while (vsan_bitset_next_range(&s, &r) == 0) runs.emplace_back(r.first, r.last);
    EXPECT_EQ(runs, (std::vector<std::pair<int, int>>{{1, 1}, {5, 7}, {4095, 4095}}));
    EXPECT_EQ(r.first, 4095);  // a cursor ending at 4095 stops the walk and is left as it was
    vsan_bitset_range stop = {4000, 4094};
    EXPECT_EQ(vsan_bitset_next_range(&s, &stop), -1);
    EXPECT_EQ(stop.first, 4000);  // left as it was
}

TEST(VsanBitset, IsRangeFreeSkipsFirstPosition) {
    vsan_bitset s = set_of({3});
    vsan_bitset_range a = {3, 3}, b = {2, 3}, c = {3, 4095}, d = {-10, 2}, e = {4095, 5000};
    EXPECT_EQ(vsan_bitset_is_range_free(&s, &a), 1);
    EXPECT_EQ(vsan_bitset_is_range_free(&s, &b), 0);
    EXPECT_EQ(vsan_bitset_is_range_free(&s, &c), 1);
    EXPECT_EQ(vsan_bitset_is_range_free(&s, &d), 1);
    EXPECT_EQ(vsan_bitset_is_range_free(&s, &e), 1);
}

TEST(VsanBitset, AlgebraAgreesWithModelAndToleratesAliasing) {
    auto sets = sample_sets();
    std::mt19937 rng(7);
    for (int i = 0; i < 200; ++i) {
        const Model &A = sets[rng() % sets.size()], &B = sets[rng() % sets.size()], &M = sets[rng() % sets.size()];
        vsan_bitset a = set_of(A), b = set_of(B), m = set_of(M), d;
        auto check = [&](auto op, const Model &want) {
            d = a;
            op(&d);
            ASSERT_EQ(model_of(d), want);
        };
        check([&](vsan_bitset *x) { vsan_bitset_union(x, &b); }, A | B);
        check([&](vsan_bitset *x) { vsan_bitset_intersection(x, &b); }, A & B);
        check([&](vsan_bitset *x) { vsan_bitset_subtract(x, &b); }, A & ~B);
        check([&](vsan_bitset *x) { vsan_bitset_revert(x); }, ~A);
        check([&](vsan_bitset *x) { vsan_bitset_xor(x, x, &b); }, A ^ B);
        check([&](vsan_bitset *x) { vsan_bitset_maskcopy(x, &b, &m); }, (A & ~M) | (B & M));
        check([&](vsan_bitset *x) { vsan_bitset_maskrevert(x, &m); }, A ^ M);
        check([&](vsan_bitset *x) { vsan_bitset_maskintersect(x, &b, &m); }, (A & ~M) | (A & B & M));
        check([&](vsan_bitset *x) { vsan_bitset_maskunion(x, &b, &m); }, (A & ~M) | ((A | B) & M));
        check([&](vsan_bitset *x) { vsan_bitset_masksubtract(x, &b, &m); }, (A & ~M) | (A & ~B & M));
        // Every operand the same set.
        check([&](vsan_bitset *x) { vsan_bitset_subtract(x, x); }, Model());
        check([&](vsan_bitset *x) { vsan_bitset_maskunion(x, x, x); }, A);
        check([&](vsan_bitset *x) { vsan_bitset_xor(x, x, x); }, Model());
        EXPECT_EQ(vsan_bitset_intersects(&a, &b), (A & B).any() ? 1 : 0);
        EXPECT_EQ(vsan_bitset_equal(&a, &b), A == B ? 1 : 0);
        EXPECT_EQ(vsan_bitset_maskequal(&a, &b, &m), ((A ^ B) & M).none() ? 1 : 0);
        EXPECT_EQ(vsan_bitset_subset(&a, &b), (A & ~B).none() ? 1 : 0);

        const int start = int(rng() % 4200) - 50, count = int(rng() % 300) - 20;
        Model inside;
        for (int p = std::max(start, 0); p < std::min(4096, start + count); ++p) inside[p] = true;
        check([&](vsan_bitset *x) { vsan_bitset_union_range(x, &b, start, count); }, (A & ~inside) | ((A | B) & inside));
        check([&](vsan_bitset *x) { vsan_bitset_intersection_range(x, &b, start, count); },
              (A & ~inside) | (A & B & inside));
        check([&](vsan_bitset *x) { vsan_bitset_subtract_range(x, &b, start, count); },
              (A & ~inside) | (A & ~B & inside));
        check([&](vsan_bitset *x) { vsan_bitset_revert_range(x, start, count); }, A ^ inside);
    }
    vsan_bitset x = set_of({1}), y = set_of({1});
    y.len = 99;
    EXPECT_EQ(vsan_bitset_equal(&x, &y), 1);  // the length word is not compared
}

TEST(VsanBitset, TextMatchesModelAndExamples) {
    std::vector<char> buf(VSAN_BITSET_TEXT_SIZE);
    for (const Model &m : sample_sets()) {
        vsan_bitset s = set_of(m);
        std::string want = model_text(m);
        ASSERT_EQ(vsan_bitset_sprintf(buf.data(), &s), int(want.size()));
        ASSERT_EQ(std::string(buf.data()), want);
    }
    // One literal text keeps the model itself honest; the samples hold the empty and full sets.
    vsan_bitset s = set_of({1, 2, 3, 5, 7, 8, 4094});
    vsan_bitset_sprintf(buf.data(), &s);
    EXPECT_STREQ(buf.data(), "1-3,5,7-8,4094");
    // The longest text of all: runs of two separated by single clear positions, from 1.
    Model worst;
    for (int p = 1; p + 1 < 4096; p += 3) worst[p] = worst[p + 1] = true;
    vsan_bitset w = set_of(worst);
    int longest = vsan_bitset_sprintf(buf.data(), &w);
    EXPECT_LE(longest, VSAN_BITSET_TEXT_MAX);
    EXPECT_GT(longest, 12800);
}

TEST(VsanBitset, ChunkedWriterExample) {
    vsan_bitset s = set_of({1, 2, 3, 5, 7, 8, 4094});
    char buf[8];
    uint8_t done = 7;
    EXPECT_EQ(vsan_bitset_snprintf(buf, 8, &s, 1, &done), 5);
    EXPECT_STREQ(buf, "1-3,5");
    EXPECT_EQ(done, 0);
    EXPECT_EQ(vsan_bitset_snprintf(buf, 8, &s, 0, &done), 3);
    EXPECT_STREQ(buf, "7-8");
    EXPECT_EQ(done, 0);
    EXPECT_EQ(range_print_cursor, 8);
    EXPECT_EQ(vsan_bitset_snprintf(buf, 8, &s, 0, &done), 4);
    EXPECT_STREQ(buf, "4094");
    EXPECT_EQ(done, 1);
    EXPECT_EQ(range_print_cursor, 0);

    vsan_bitset empty, big = set_of({1000});
    vsan_bitset_init(&empty);
    EXPECT_EQ(vsan_bitset_snprintf(buf, 8, &empty, 1, &done), 0);
    EXPECT_EQ(done, 1);
    for (int call = 0; call < 2; ++call) {  // stuck: the same empty chunk every time
        EXPECT_EQ(vsan_bitset_snprintf(buf, 3, &big, call == 0, &done), 0);
        EXPECT_STREQ(buf, "");
        EXPECT_EQ(done, 0);
    }
    EXPECT_EQ(vsan_bitset_snprintf(nullptr, 8, &big, 1, &done), 0);
    EXPECT_EQ(vsan_bitset_snprintf(buf, 0, &big, 1, nullptr), 0);
}

TEST(VsanBitset, ChunkedWriterReassemblesForEveryBufferSize) {
    std::vector<char> full(VSAN_BITSET_TEXT_SIZE);
    for (const Model &m : sample_sets()) {
        vsan_bitset s = set_of(m);
        vsan_bitset_sprintf(full.data(), &s);
        for (uint32_t size : {10u, 11u, 13u, 17u, 64u, 100u, 1000u, 20000u}) {
            std::vector<char> buf(size + 8, '#');
            std::string joined;
            uint8_t done = 0;
            for (int call = 0; !done; ++call) {
                int n = vsan_bitset_snprintf(buf.data(), size, &s, call == 0, &done);
                ASSERT_LT(uint32_t(n), size);
                ASSERT_EQ(std::strlen(buf.data()), size_t(n));
                ASSERT_EQ(buf[size], '#');  // nothing written past the size
                ASSERT_TRUE(n > 0 || done) << "stuck with room for the widest item";
                if (n > 0) joined += (joined.empty() ? "" : ",") + std::string(buf.data());
                ASSERT_LT(call, 5000);
            }
            ASSERT_EQ(joined, std::string(full.data())) << size;
            ASSERT_EQ(range_print_cursor, 0);
        }
    }
}

TEST(VsanBitset, PrintingFunctions) {
    struct Case {
        std::initializer_list<int> set;
        const char *hex;
    } cases[] = {{{1, 2, 16}, "0x1-0x2,0x10"}, {{0, 1}, "0-0x1"}, {{}, ""}, {{4095}, "0xfff"}};
    for (const auto &c : cases) {
        vsan_bitset s = set_of(c.set);
        zfxtest::Capture out;
        vsan_bitset_hex_printf(&s);
        EXPECT_EQ(out.text(), c.hex);
    }
    vsan_bitset s = set_of({0, 8, 10, 13, 15});
    {
        zfxtest::Capture out;
        vsan_bitset_printf_hex(&s);
        EXPECT_EQ(out.text(), "80a5" + std::string(1020, '0'));
    }
    {
        zfxtest::Capture out;
        vsan_bitset_printf(&s);
        EXPECT_EQ(out.text(), "0,8,10,13,15");
    }
    vsan_bitset five = set_of({5, 7});
    zfxtest::Capture out;
    vsan_bitset_printf_hex(&five);
    EXPECT_EQ(out.text().substr(0, 4), "0500");
}

TEST(VsanBitset, BitArrayConversionAndCompressionRoundTrip) {
    vsan_bitset zero = set_of({0});
    uint8_t small[4] = {9, 9, 9, 9};
    vsan_bitset_to_bitarray(&zero, small, 4);
    EXPECT_EQ(std::vector<uint8_t>(small, small + 4), (std::vector<uint8_t>{1, 0, 0, 0}));
    vsan_bitset back;
    vsan_bitset_init(&back);
    back.len = 3;
    vsan_bitset_from_bitarray(&back, small, 4);
    EXPECT_EQ(model_of(back), model_of(zero));
    EXPECT_EQ(back.len, 3u);

    for (const Model &m : sample_sets()) {
        vsan_bitset s = set_of(m), r;
        std::vector<uint8_t> arr(600, 0xEE);
        vsan_bitset_to_bitarray(&s, arr.data(), 600);
        for (int p = 0; p < 4096; ++p) ASSERT_EQ((arr[p / 8] >> (p % 8)) & 1, int(m[p]));
        for (int i = 512; i < 600; ++i) ASSERT_EQ(arr[i], 0);
        vsan_bitset_init(&r);
        vsan_bitset_from_bitarray(&r, arr.data(), 600);
        ASSERT_EQ(model_of(r), m);

        std::vector<uint8_t> packed(8192);
        int n = vsan_bitset_compress(&s, packed.data(), uint32_t(packed.size()));
        ASSERT_GT(n, 0);
        vsan_bitset u;
        vsan_bitset_init(&u);
        vsan_bitset_fill(&u);
        ASSERT_EQ(vsan_bitset_uncompress(packed.data(), uint32_t(n), &u), 0);
        ASSERT_EQ(model_of(u), m);
        ASSERT_EQ(u.len, 512u);
        // Every truncation is refused, never over-read.
        for (int cut = 0; cut < n; ++cut) ASSERT_EQ(vsan_bitset_uncompress(packed.data(), uint32_t(cut), &u), -1);
        // A destination too small is refused.
        ASSERT_EQ(vsan_bitset_compress(&s, packed.data(), uint32_t(n - 1)), -1);
    }
    vsan_bitset_to_bitarray(&zero, small, 0);  // nothing written for a length of 0
}

}  // namespace
