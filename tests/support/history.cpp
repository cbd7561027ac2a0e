#include "history.hpp"

#include <gtest/gtest.h>

#include <cstring>

#include "bytes.hpp"
#include "platform/tlg.h"

namespace zfxtest {

std::vector<std::string> alloc_failures() {
    std::vector<std::string> out;
    tlg_hist_entry e;
    for (uint32_t i = 0; tlg_hist_get(i, &e) == 0; ++i) {
        EXPECT_EQ(e.event, 0x730000u);
        EXPECT_EQ(bytes_of(e.record, 4), le32(102));  // the subtype word
        const char *text = reinterpret_cast<const char *>(e.record) + 4;
        const size_t len = strnlen(text, sizeof e.record - 4);
        EXPECT_EQ(e.length, len + 5);
        out.emplace_back(text, len);
    }
    return out;
}

}  // namespace zfxtest
