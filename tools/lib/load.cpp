#include "load.hpp"
namespace zfxtool {
bool load_text(const std::string &, const std::string &name, Fabric &, std::string &error) { error = name + ": not yet"; return false; }
bool load_file(const std::string &path, Fabric &f, std::string &error) { return load_text("", path, f, error); }
}
