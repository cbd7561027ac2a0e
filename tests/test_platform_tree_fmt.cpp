// The platform's ordered trees (against std::set) and its formatters and bounded copies.
#include <algorithm>
#include <cstring>
#include <random>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/fmt.h"
#include "platform/tree.h"

namespace {

int32_t by_value(const void *a, const void *b) {
    const int x = *static_cast<const int *>(a), y = *static_cast<const int *>(b);
    return x < y ? -1 : x > y;
}

TEST(Tree, InsertsInOrderAndWalksLikeASortedSet) {
    std::mt19937 rng(7);
    std::vector<int> values(3000);
    for (int &v : values) v = int(rng() % 2000);  // duplicates included
    plat_tree *tree = tree_create(by_value);
    ASSERT_NE(tree, nullptr);
    std::set<int> model;
    for (int &v : values) {
        const bool fresh = model.insert(v).second;
        EXPECT_EQ(tree_insert(tree, &v), fresh ? 0 : TREE_ERR_EXISTS) << v;
    }
    EXPECT_EQ(tree_count(tree), model.size());
    tree_walker w{0};
    std::vector<int> walked;
    while (const void *e = tree_walk(tree, &w)) walked.push_back(*static_cast<const int *>(e));
    EXPECT_TRUE(std::equal(walked.begin(), walked.end(), model.begin(), model.end()));
    EXPECT_EQ(tree_walk(tree, &w), nullptr);  // stays at the end

    EXPECT_EQ(tree_insert(tree, nullptr), TREE_ERR_INVALID);
    EXPECT_EQ(tree_insert(nullptr, &values[0]), TREE_ERR_INVALID);
    EXPECT_EQ(tree_walk(nullptr, &w), nullptr);
    EXPECT_EQ(tree_walk(tree, nullptr), nullptr);
    EXPECT_EQ(tree_count(nullptr), 0u);
    EXPECT_EQ(tree_create(nullptr), nullptr);
    tree_destroy(tree);
    tree_destroy(nullptr);
}

TEST(Fmt, WwnAndLunText) {
    char buf[FMT_WWN_SIZE + 8];
    std::memset(buf, 'x', sizeof buf);
    EXPECT_STREQ(fmt_wwn(buf, plat_wwn{{0x20, 0, 0, 0x11, 0xAB, 0x33, 0x44, 0xFF}}), "20:00:00:11:ab:33:44:ff");
    EXPECT_EQ(buf[FMT_WWN_SIZE], 'x');
    EXPECT_EQ(fmt_wwn(nullptr, plat_wwn{}), nullptr);

    const std::pair<std::vector<uint8_t>, std::string> luns[] = {
        {{0, 1, 0, 0, 0, 0, 0, 0}, "0x0001"},
        {{0, 0, 0, 0, 0, 0, 0, 0}, "0x0000"},
        {{0x40, 0x12, 0, 5, 0, 0, 0, 0}, "0x4012-0005"},
        {{0, 0, 0, 0, 0, 0, 0, 7}, "0x0000-0000-0000-0007"},
        {{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}, "0xffff-ffff-ffff-ffff"},
    };
    for (const auto &[lun, text] : luns) {
        char out[FMT_LUN_SIZE];
        EXPECT_EQ(fmt_lun(out, lun.data()), out);
        EXPECT_EQ(out, text);
    }
    char out[FMT_LUN_SIZE] = "z";
    EXPECT_STREQ(fmt_lun(out, nullptr), "");
}

// Both bounded copies: at most limit bytes (the string copy one less, for its terminator), nothing
// written past them, nothing from a missing source or to a missing buffer.
TEST(Fmt, BoundedCopiesStopAtTheLimit) {
    const struct {
        uint32_t limit, len, copied;
        const char *text;
    } cases[] = {{0, 6, 0, nullptr}, {1, 6, 1, ""}, {3, 6, 3, "ab"}, {4, 6, 4, "abc"}, {9, 6, 6, "abc"}, {4, 0, 0, nullptr}};
    const char src[] = "abcdef";
    for (const auto &c : cases) {
        char dst[10];
        std::memset(dst, 'x', sizeof dst);
        EXPECT_EQ(copy_mem_to_buf(c.limit, dst, src, c.len), c.copied) << c.limit;
        EXPECT_EQ(std::string(dst, sizeof dst), std::string(src, c.copied) + std::string(10 - c.copied, 'x'));
        if (c.text == nullptr) continue;
        for (const char *from : {"abc", static_cast<const char *>(nullptr)}) {
            std::memset(dst, 'x', sizeof dst);
            const std::string want = from != nullptr ? c.text : "";
            EXPECT_EQ(copy_str_to_buf(c.limit, dst, from), want.size());
            EXPECT_EQ(std::string(dst), want);
            EXPECT_EQ(dst[c.limit], 'x') << c.limit;
        }
    }
    char untouched = 'x';
    EXPECT_EQ(copy_str_to_buf(0, &untouched, "abc"), 0u);
    EXPECT_EQ(untouched, 'x');
    EXPECT_EQ(copy_str_to_buf(5, nullptr, "abc"), 0u);
    EXPECT_EQ(copy_mem_to_buf(4, nullptr, src, 4), 0u);
    EXPECT_EQ(copy_mem_to_buf(4, &untouched, nullptr, 4), 0u);
}

}  // namespace
