// What the command-line tools share: exit codes and argument reading.
#pragma once

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

namespace zfxtool {

// Exit codes of every tool (documented in the README).
constexpr int kExitOk = 0;
constexpr int kExitFailure = 1;  // the work failed: a store, a file or its input is bad
constexpr int kExitUsage = 2;    // the command line is wrong

// The arguments after the program name (and the command, for zfx-store), taken in order.
class Args {
public:
    Args(int argc, char **argv, int first) : items_(argv + first, argv + argc) {}
    bool done() const { return at_ >= items_.size(); }
    const std::string &peek() const { return items_[at_]; }
    std::string take() { return items_[at_++]; }
    // The value of option name: the next argument, or error set when there is none.
    bool value(const std::string &name, std::string &out, std::string &error) {
        if (done()) {
            error = name + " needs a value";
            return false;
        }
        out = take();
        return true;
    }
    // An unsigned number in min..max (decimal or 0x hexadecimal).
    bool number(const std::string &name, uint64_t max, uint64_t &out, std::string &error, uint64_t min = 0) {
        std::string text;
        if (!value(name, text, error)) return false;
        char *end = nullptr;
        errno = 0;
        const unsigned long long v = std::strtoull(text.c_str(), &end, 0);
        if (text.empty() || text[0] == '-' || *end != '\0' || errno != 0 || v > max || v < min) {
            error = name + " takes a number from " + std::to_string(min) + " to " + std::to_string(max) + ", not '" + text + "'";
            return false;
        }
        out = v;
        return true;
    }

private:
    std::vector<std::string> items_;
    size_t at_ = 0;
};

}  // namespace zfxtool
