// The configuration-text service: element order, joining of pieces, indentation, lines of other
// groups, delivery, and the statuses of bad calls.
#include <cstdlib>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/ptxt.h"

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

struct OrderCase {
    const char *name;
    std::vector<uint32_t> declared;                // element numbers, group 1, in this order
    std::vector<std::vector<uint32_t>> deps;       // {element, group, other}
    std::string expected;                          // one letter per element: 'a' + number
};

TEST(Ptxt, ElementsRenderInDependencyOrderWithDeclarationOrderBreakingTies) {
    const OrderCase cases[] = {
        {"declaration order", {3, 1, 2}, {}, "dbc"},
        {"dependency moves later", {1, 2, 3}, {{1, 1, 3}}, "cdb"},
        {"chain", {1, 2, 3}, {{1, 1, 2}, {2, 1, 3}}, "dcb"},
        {"undeclared ignored", {1, 2}, {{1, 9, 9}, {1, 1, 7}}, "bc"},
        {"declared before the element", {2, 1}, {{2, 1, 1}}, "bc"},
        {"cycle: earliest declared goes on", {1, 2, 3}, {{1, 1, 2}, {2, 1, 1}}, "dbc"},
    };
    for (const OrderCase &c : cases) {
        Gen g;
        for (const auto &d : c.deps) ptxt_elem_dependency_add(g.h, d[0], d[1], d[2]);
        for (uint32_t e : c.declared) {
            ASSERT_EQ(ptxt_elem_add(g.h, 1, e, 11), 0);
            ASSERT_EQ(ptxt_elem_str_add(g.h, e, std::string(1, char('a' + e)).c_str()), 0);
        }
        std::string got = g.text();
        std::erase(got, '\n');
        EXPECT_EQ(got, c.expected) << c.name;
    }
}

TEST(Ptxt, PiecesJoinUntilTheLineEndsAndLinesTakeTheirFirstPiecesLevel) {
    Gen g;
    ptxt_elem_add(g.h, 180, 2, 11);
    ptxt_elem_add(g.h, 180, 3, 11);
    ptxt_elem_str_add_indent(g.h, 2, "zone\n", 0);
    ptxt_elem_str_add_indent(g.h, 2, "member a ", 1);
    ptxt_elem_str_add_indent(g.h, 3, "other\n", 2);  // another element's line does not interrupt
    ptxt_elem_str_add_indent(g.h, 2, "   ", 2);
    ptxt_elem_str_add_indent(g.h, 2, "vsan 1\nnext\n\n", 1);
    ptxt_elem_str_add_indent(g.h, 2, "open", 3);
    ptxt_elem_group_config_str_add(g.h, 115, 0, 3, "logging level zfx 7\n");
    ptxt_elem_group_config_str_add(g.h, 115, 0, 3, "second");
    ptxt_elem_group_config_str_add(g.h, 115, 0, 3, "");
    EXPECT_EQ(g.text(),
              "zone\n  member a    vsan 1\n  next\n\n      open\n    other\nlogging level zfx 7\nsecond\n");
}

// The configuration-text entry point's tests see the text delivered; here what passes through.
TEST(Ptxt, RespondHandsTheMessageToTheSinkAndEndsTheGeneration) {
    void *seen = nullptr;
    ptxt_request req{"mem:a", "mem:b", [](void *arg, void *msg, const char *, uint32_t) {
                         *static_cast<void **>(arg) = msg;
                         return int32_t(42);
                     }, &seen};
    uint32_t h;
    ASSERT_EQ(ptxt_hdl_init(&h), 0);
    int msg;
    EXPECT_EQ(ptxt_respond(h, &msg, &req), 42);
    EXPECT_EQ(seen, &msg);
    EXPECT_EQ(ptxt_respond(h, nullptr, &req), PTXT_ERR_HANDLE);
    EXPECT_STREQ(ptxt_startup_debug_cfg_uri_prefix_get(&req), "mem:b");
    EXPECT_EQ(ptxt_startup_cfg_uri_prefix_get(nullptr), nullptr);
}

TEST(Ptxt, BadCallsAnswerTheirStatuses) {
    Gen g;
    EXPECT_EQ(ptxt_hdl_init(nullptr), PTXT_ERR_INVALID);
    EXPECT_EQ(ptxt_elem_add(0xDEAD, 1, 1, 1), PTXT_ERR_HANDLE);
    EXPECT_EQ(ptxt_elem_str_add(g.h, 1, "x"), PTXT_ERR_NO_ELEMENT);
    EXPECT_EQ(ptxt_elem_add(g.h, 1, 1, 1), 0);
    EXPECT_EQ(ptxt_elem_add(g.h, 1, 1, 1), 0);
    EXPECT_EQ(ptxt_elem_add(g.h, 2, 1, 1), PTXT_ERR_EXISTS);
    EXPECT_EQ(ptxt_elem_str_add(g.h, 1, nullptr), PTXT_ERR_INVALID);
    EXPECT_EQ(ptxt_elem_str_add_indent(g.h, 1, "x", PTXT_LEVEL_MAX + 1), PTXT_ERR_INVALID);
    EXPECT_EQ(ptxt_render(g.h, nullptr, nullptr), PTXT_ERR_INVALID);
    uint32_t h2;
    ASSERT_EQ(ptxt_hdl_init(&h2), 0);
    EXPECT_NE(h2, g.h);
    EXPECT_EQ(ptxt_respond(h2, nullptr, nullptr), PTXT_ERR_INVALID);
    EXPECT_EQ(ptxt_hdl_release(h2), PTXT_ERR_HANDLE);  // respond ended it anyway
    EXPECT_EQ(g.text(), "");
}

}  // namespace
