// A reader over a fuzzer's input: numbers and byte runs taken from the front, zeros once the
// input is used up, so that every input drives a harness to the end.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <vector>

namespace zfxfuzz {

class Input {
public:
    Input(const uint8_t *data, size_t size) : p_(data), end_(data + size) {}

    size_t left() const { return size_t(end_ - p_); }

    template <typename T>
    T take() {
        T v{};
        const size_t n = left() < sizeof v ? left() : sizeof v;
        std::memcpy(&v, p_, n);
        p_ += n;
        return v;
    }

    // Up to n bytes (fewer when the input ends).
    std::vector<uint8_t> bytes(size_t n) {
        if (n > left()) n = left();
        std::vector<uint8_t> out(p_, p_ + n);
        p_ += n;
        return out;
    }

    // The rest of the input.
    std::vector<uint8_t> rest() { return bytes(left()); }

private:
    const uint8_t *p_;
    const uint8_t *end_;
};

// Stops the harness with a finding when an invariant of the code under test does not hold.
[[noreturn]] inline void finding(const char *what) {
    // On standard error, unbuffered: the trap comes before any buffer would be flushed.
    std::fprintf(stderr, "invariant broken: %s\n", what);
    __builtin_trap();
}

}  // namespace zfxfuzz
