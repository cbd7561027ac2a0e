// zfx-store dump: a store's records in readable form.
#pragma once

#include <cstdio>
#include <string>

namespace zfxtool {

// Writes one line per record of the store at location, in key order: the record decoded (kind,
// ids, fields, VSAN range text), or with raw its key and value in hex. Returns the number of
// records, or -1 with error set when there is no store at location.
int dump_store(const std::string &location, bool raw, FILE *out, std::string &error);

}  // namespace zfxtool
