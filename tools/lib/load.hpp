// zfx-store load: configuration text, as the library's generators write it or as a person or
// another tool has the same commands, parsed into a fabric.
#pragma once

#include <string>

#include "fabric.hpp"

namespace zfxtool {

struct LoadOptions {
    // Skip the lines of other features (a whole switch configuration holds them around the zfx
    // lines), with the indented lines under them, instead of refusing them.
    bool skip_foreign = false;
};

// Parses text into fabric (which should be empty). name is what error messages call the text.
// Returns false with error "NAME:LINE: what is wrong" at the first line that is not understood
// or holds a value out of range; fabric is then partly filled and must not be written. On
// success, *skipped (when given) is the number of other features' lines skipped.
bool load_text(const std::string &text, const std::string &name, Fabric &fabric, std::string &error,
               const LoadOptions &options = {}, size_t *skipped = nullptr);
// The same for the file at path ("-": standard input).
bool load_file(const std::string &path, Fabric &fabric, std::string &error, const LoadOptions &options = {},
               size_t *skipped = nullptr);

}  // namespace zfxtool
