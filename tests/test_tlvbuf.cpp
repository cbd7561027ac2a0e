// The platform's TLV arrays: arrays built element by element must match an independent model of
// the layout byte for byte and walk back to what was added, with either walker, for arrays small
// and large (the cursor's long form); refused adds leave the array alone.
#include <random>

#include <gtest/gtest.h>

#include "bytes.hpp"
#include "platform/tlvbuf.h"

namespace {

using zfxtest::Bytes;

struct Elem {
    uint16_t type;
    Bytes value;
};

Bytes model(const std::vector<Elem> &elems) {
    Bytes out = zfxtest::le32(uint32_t(elems.size()));
    for (const Elem &e : elems) out = zfxtest::cat({out, zfxtest::tlv(e.type, e.value)});
    return out;
}

// Builds with tlvbuf_add_tlv at exactly the model's size, checks the bytes, walks them back.
void round_trip(const std::vector<Elem> &elems) {
    const Bytes expected = model(elems);
    Bytes array = zfxtest::cat({zfxtest::zeros(4), Bytes(expected.size(), 0xEE)});  // a guard word past the capacity
    const uint32_t capacity = uint32_t(expected.size());
    for (const Elem &e : elems)
        ASSERT_EQ(tlvbuf_add_tlv(array.data(), capacity, e.type, uint16_t(e.value.size()), e.value.data(), 0), 0);
    ASSERT_EQ(Bytes(array.begin(), array.begin() + capacity), expected);
    EXPECT_EQ(tlvbuf_get_num_tlvs(array.data(), 0), elems.size());
    // Full: one more element, even an empty one, is refused and changes nothing.
    const Bytes before = array;
    EXPECT_NE(tlvbuf_add_tlv(array.data(), capacity, 1, 0, nullptr, 0), 0);
    EXPECT_EQ(array, before);
    // Both walkers in turns, the second behind the first: each walk resumes from its own cursor,
    // whatever the other one did last on this thread.
    decltype(&tlvbuf_get_next_tlv) walkers[] = {tlvbuf_get_next_tlv, tlvbuf_aligned_get_next_tlv};
    uint32_t cursors[2] = {0, 0};
    const auto step = [&](int w, const Elem *e) {
        uint16_t type = 0, len = 0;
        void *value = &cursors;
        if (e == nullptr) {
            EXPECT_NE(walkers[w](array.data(), nullptr, nullptr, nullptr, 0, &cursors[w]), 0);
            return;
        }
        ASSERT_EQ(walkers[w](array.data(), &type, &len, &value, 0, &cursors[w]), 0);
        ASSERT_EQ(std::pair(type, len), std::pair(e->type, uint16_t(e->value.size())));
        // An empty value is given as NULL.
        ASSERT_EQ(std::pair(value == nullptr, value != nullptr ? zfxtest::bytes_of(value, e->value.size()) : Bytes{}),
                  std::pair(e->value.empty(), e->value));
    };
    size_t behind = 0;  // the second walker's next element: it catches up every 1000 elements
    for (size_t i = 0; i <= elems.size() && !testing::Test::HasFatalFailure(); ++i) {
        step(0, i < elems.size() ? &elems[i] : nullptr);
        if (i % 1000 == 999 || i == elems.size())
            for (; behind < i && !testing::Test::HasFatalFailure(); ++behind) step(1, &elems[behind]);
    }
    step(1, nullptr);
}

TEST(Tlvbuf, SizeRule) {
    const uint32_t cases[][3] = {{0, 4, 8},       {1, 8, 12},         {4, 8, 12}, {5, 12, 16}, {68, 72, 76},
                                 {260, 264, 268}, {1028, 1032, 1036}, {0xFFFFFFFFu, 0xFFFFFFFFu, 0xFFFFFFFFu}};
    for (const auto &c : cases) EXPECT_EQ(std::pair(tlvbuf_size_get(c[0]), tlvbuf32_size_get(c[0])), std::pair(c[1], c[2]));
}

// Seeded arrays of 0 to 11 elements (value lengths of 0 to 4 bytes are drawn as often as longer
// ones), and arrays long enough for the cursor's long form.
TEST(Tlvbuf, BuildMatchesLayoutAndWalksBack) {
    std::mt19937 rng(7);
    for (int round = 0; round < 200; ++round) {
        std::vector<Elem> elems(round % 12);
        for (Elem &e : elems) {
            e.type = uint16_t(rng());
            e.value.resize(rng() % 2 == 0 ? rng() % 5 : rng() % 300);
            for (uint8_t &b : e.value) b = uint8_t(rng());
        }
        round_trip(elems);
    }
    // Past the cursor's short form: more than 8191 elements, and more than 1 MiB of array.
    std::vector<Elem> many;
    for (uint16_t i = 0; i < 9000; ++i) many.push_back(Elem{i, {}});
    round_trip(many);
    std::vector<Elem> big(18, Elem{9, Bytes(65535, 0x5A)});
    big.push_back(Elem{10, {1, 2, 3}});
    round_trip(big);
}

TEST(Tlvbuf, RefusalsChangeNothing) {
    const uint8_t v[4] = {1, 2, 3, 4};
    Bytes array = model({{1, {9, 9, 9, 9}}});
    const Bytes before = array;
    EXPECT_NE(tlvbuf_add_tlv(nullptr, 64, 1, 4, v, 0), 0);
    EXPECT_NE(tlvbuf_add_tlv(array.data(), 3, 1, 0, v, 0), 0);
    EXPECT_NE(tlvbuf_add_tlv(array.data(), 64, 1, 4, nullptr, 0), 0);
    EXPECT_NE(tlvbuf_add_tlv(array.data(), 15, 1, 0, v, 0), 0);  // no room after the element
    array[0] = 5;  // the count claims elements the capacity cannot hold
    EXPECT_NE(tlvbuf_add_tlv(array.data(), uint32_t(array.size()), 1, 0, v, 0), 0);
    array[0] = 1;
    EXPECT_EQ(array, before);
    uint32_t cursor = 0;
    EXPECT_NE(tlvbuf_get_next_tlv(nullptr, nullptr, nullptr, nullptr, 0, &cursor), 0);
    EXPECT_NE(tlvbuf_get_next_tlv(array.data(), nullptr, nullptr, nullptr, 0, nullptr), 0);
    EXPECT_EQ(tlvbuf_get_num_tlvs(nullptr, 0), 0u);
}

}  // namespace
