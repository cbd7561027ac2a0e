// zfx-store dump: a store's records in readable form.
#pragma once

#include <cstdio>
#include <string>

#include "store_guard.hpp"

namespace zfxtool {

// Writes one line per record of the store at location, in key order: the record decoded (kind,
// ids, fields, VSAN range text), or with raw its key and value in hex. The store is walked whole
// first (walk_store), so a damaged store writes no line. Returns what the walks found, with error
// set to what to tell a person unless the store was readable.
StoreState dump_store(const std::string &location, bool raw, FILE *out, std::string &error);

}  // namespace zfxtool
