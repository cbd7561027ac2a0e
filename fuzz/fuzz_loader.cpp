// The loader of zfx-store over arbitrary text. Whatever the text, it ends, reads nothing outside
// it and leaks nothing; and text it accepts writes stores whose generated text loads again and
// generates the same text (the round trip the tools promise).
#include <cstdio>
#include <cstdlib>
#include <string>

#include "fabric.hpp"
#include "load.hpp"
#include "platform/kvdb.h"
#include "platform/ptxt.h"
#include "zfx_ascii_cfg.h"

namespace {

constexpr char kDir[] = "mem:fuzz-loader";

int32_t append(void *sink, void *, const char *text, uint32_t len) {
    static_cast<std::string *>(sink)->append(text, len);
    return 0;
}

// The text of a fabric's stores, written afresh.
std::string text_of(const zfxtool::Fabric &f) {
    kvdb_destroy(zfxtool::config_location(kDir).c_str());
    kvdb_destroy(zfxtool::debug_location(kDir).c_str());
    if (!zfxtool::write_fabric(f, kDir, kDir, false).empty()) {
        std::fprintf(stderr, "an accepted text could not be written\n");
        __builtin_trap();
    }
    std::string text;
    ptxt_request request{kDir, kDir, append, &text};
    zfx_ptxt_gen_func(nullptr, &request);
    return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string input(reinterpret_cast<const char *>(data), size);
    zfxtool::Fabric fabric;
    std::string error;
    if (!zfxtool::load_text(input, "fuzz", fabric, error)) return 0;
    const std::string first = text_of(fabric);
    zfxtool::Fabric again;
    if (!zfxtool::load_text(first, "generated", again, error) || text_of(again) != first) {
        std::fprintf(stderr, "generated text does not load back to itself: %s\n%s", error.c_str(), first.c_str());
        __builtin_trap();
    }
    return 0;
}
