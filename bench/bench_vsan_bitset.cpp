// VSAN set text and walks, each beside a straightforward reference in the same binary: a loop over
// all 4096 positions with vsan_bitset_is_bit_set, formatting each run with snprintf.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <random>
#include <vector>

#include "vsan_bitset.h"

namespace {

vsan_bitset worst_case() {  // 2048 runs of two: the longest text
    vsan_bitset s;
    vsan_bitset_init(&s);
    for (int p = 0; p + 1 < 4096; p += 3) vsan_bitset_set_range(&s, p, 2);
    return s;
}

vsan_bitset random_set() {
    vsan_bitset s;
    vsan_bitset_init(&s);
    std::mt19937 rng(42);
    for (int p = 0; p < 4096; ++p)
        if (rng() % 4 == 0) vsan_bitset_set_bit(&s, p);
    return s;
}

vsan_bitset full_set() {
    vsan_bitset s;
    vsan_bitset_fill(vsan_bitset_init(&s));
    return s;
}

vsan_bitset sparse_set() {
    vsan_bitset s;
    vsan_bitset_init(&s);
    for (int p : {1, 700, 2048, 4000}) vsan_bitset_set_bit(&s, p);
    return s;
}

int reference_text(char *buf, const vsan_bitset *s) {
    int n = 0;
    buf[0] = '\0';
    for (int p = 0; p < 4096;) {
        if (!vsan_bitset_is_bit_set(s, p)) {
            ++p;
            continue;
        }
        int q = p;
        while (q + 1 < 4096 && vsan_bitset_is_bit_set(s, q + 1)) ++q;
        const char *sep = n ? "," : "";
        if (q > p) n += std::snprintf(buf + n, 16, "%s%d-%d", sep, p, q);
        else n += std::snprintf(buf + n, 16, "%s%d", sep, p);
        p = q + 1;
    }
    return n;
}

template <vsan_bitset (*Make)()>
void BM_Text(benchmark::State &state) {
    const vsan_bitset s = Make();
    std::vector<char> buf(VSAN_BITSET_TEXT_SIZE);
    for (auto _ : state) benchmark::DoNotOptimize(vsan_bitset_sprintf(buf.data(), &s));
}

template <vsan_bitset (*Make)()>
void BM_TextReference(benchmark::State &state) {
    const vsan_bitset s = Make();
    std::vector<char> buf(VSAN_BITSET_TEXT_SIZE);
    for (auto _ : state) benchmark::DoNotOptimize(reference_text(buf.data(), &s));
}

template <vsan_bitset (*Make)()>
void BM_WalkRanges(benchmark::State &state) {
    const vsan_bitset s = Make();
    for (auto _ : state) {
        vsan_bitset_range r = VSAN_BITSET_RANGE_START;
        int32_t sum = 0;
        while (vsan_bitset_next_range(&s, &r) == 0) sum += r.last - r.first;
        benchmark::DoNotOptimize(sum);
    }
}

template <vsan_bitset (*Make)()>
void BM_WalkBits(benchmark::State &state) {
    const vsan_bitset s = Make();
    for (auto _ : state) {
        int32_t sum = 0;
        for (int32_t p = vsan_bitset_first_bit(&s); p >= 0; p = vsan_bitset_next_bit(&s, p)) sum += p;
        benchmark::DoNotOptimize(sum);
    }
}

template <vsan_bitset (*Make)()>
void BM_WalkReference(benchmark::State &state) {
    const vsan_bitset s = Make();
    for (auto _ : state) {
        int32_t sum = 0;
        for (int32_t p = 0; p < 4096; ++p)
            if (vsan_bitset_is_bit_set(&s, p)) sum += p;
        benchmark::DoNotOptimize(sum);
    }
}

BENCHMARK(BM_Text<worst_case>)->Name("text/worst_case");
BENCHMARK(BM_TextReference<worst_case>)->Name("text/worst_case/reference");
BENCHMARK(BM_Text<random_set>)->Name("text/random");
BENCHMARK(BM_TextReference<random_set>)->Name("text/random/reference");
BENCHMARK(BM_Text<full_set>)->Name("text/full");
BENCHMARK(BM_TextReference<full_set>)->Name("text/full/reference");
BENCHMARK(BM_WalkRanges<worst_case>)->Name("next_range/worst_case");
BENCHMARK(BM_WalkRanges<sparse_set>)->Name("next_range/sparse");
BENCHMARK(BM_WalkReference<sparse_set>)->Name("walk/sparse/reference");
BENCHMARK(BM_WalkBits<sparse_set>)->Name("next_bit/sparse");
BENCHMARK(BM_WalkBits<random_set>)->Name("next_bit/random");
BENCHMARK(BM_WalkReference<random_set>)->Name("walk/random/reference");

}  // namespace
