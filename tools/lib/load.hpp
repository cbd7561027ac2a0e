// zfx-store load: configuration text, as the library's generators write it, parsed into a fabric.
#pragma once

#include <string>

#include "fabric.hpp"

namespace zfxtool {

// Parses text into fabric (which should be empty). name is what error messages call the text.
// Returns false with error "NAME:LINE: what is wrong" at the first line that is not understood
// or holds a value out of range; fabric is then partly filled and must not be written.
bool load_text(const std::string &text, const std::string &name, Fabric &fabric, std::string &error);
// The same for the file at path ("-": standard input).
bool load_file(const std::string &path, Fabric &fabric, std::string &error);

}  // namespace zfxtool
