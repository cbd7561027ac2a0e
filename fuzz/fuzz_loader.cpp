// The loader of zfx-store over arbitrary text. Whatever the text, it ends, reads nothing outside
// it and leaks nothing. Skipping other features' lines only ever lets more text through: text
// accepted without it loads the same with it, nothing skipped. Text it accepts writes stores
// whose generated text loads again and generates the same text (the round trip the tools
// promise), and so does that text rewritten as a person or another tool would have it.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "fabric.hpp"
#include "load.hpp"
#include "messy_text.hpp"
#include "platform/kvdb.h"
#include "platform/ptxt.h"
#include "zfx_ascii_cfg.h"

namespace {

constexpr char kDir[] = "mem:fuzz-loader";

int32_t append(void *sink, void *, const char *text, uint32_t len) {
    static_cast<std::string *>(sink)->append(text, len);
    return 0;
}

[[noreturn]] void fail(const char *what, const std::string &detail) {
    std::fprintf(stderr, "%s\n%s", what, detail.c_str());
    __builtin_trap();
}

// The text of a fabric's stores, written afresh.
std::string text_of(const zfxtool::Fabric &f) {
    kvdb_destroy(zfxtool::config_location(kDir).c_str());
    kvdb_destroy(zfxtool::debug_location(kDir).c_str());
    if (!zfxtool::write_fabric(f, kDir, kDir, false).empty()) fail("an accepted text could not be written", "");
    std::string text;
    ptxt_request request{kDir, kDir, append, &text};
    zfx_ptxt_gen_func(nullptr, &request);
    return text;
}

bool same(const zfxtool::Fabric &a, const zfxtool::Fabric &b) {
    return zfxtool::config_records(a) == zfxtool::config_records(b) && zfxtool::debug_records(a) == zfxtool::debug_records(b);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string input(reinterpret_cast<const char *>(data), size);
    const zfxtool::LoadOptions skip{.skip_foreign = true};
    zfxtool::Fabric fabric, skipping;
    std::string error;
    size_t skipped = 0;
    const bool accepted = zfxtool::load_text(input, "fuzz", fabric, error);
    const bool accepted_skipping = zfxtool::load_text(input, "fuzz", skipping, error, skip, &skipped);
    if (accepted && (!accepted_skipping || skipped != 0 || !same(fabric, skipping)))
        fail("skipping other features' lines changed a text that has none", error);
    if (!accepted_skipping) return 0;
    const std::string first = text_of(skipping);
    zfxtool::Fabric again;
    if (!zfxtool::load_text(first, "generated", again, error) || text_of(again) != first)
        fail("generated text does not load back to itself", error + "\n" + first);
    uint64_t seed = size;
    for (size_t i = 0; i < size; ++i) seed = seed * 131 + data[i];
    const zfxtest::MessyText messy = zfxtest::messy_text(first, seed);
    zfxtool::Fabric from_messy;
    if (!zfxtool::load_text(messy.text, "messy", from_messy, error, skip, &skipped) || skipped != messy.foreign_lines ||
        !same(from_messy, again))
        fail("the rewritten text does not load as the generated one", error + "\n" + messy.text);
    return 0;
}
