// Captures what the code under test writes to standard output or standard error, at the file
// descriptor level, so that printf, puts and perror are all seen exactly as a terminal would.
#pragma once

#include <string>

namespace zfxtest {

class Capture {
public:
    explicit Capture(int fd = 1);  // 1: standard output, 2: standard error
    ~Capture();
    Capture(const Capture &) = delete;
    Capture &operator=(const Capture &) = delete;
    // Stops capturing (once) and returns everything written since construction.
    std::string text();

private:
    int fd_, saved_, file_;  // the descriptor captured, its saved copy, the capture file
    bool done_ = false;
    std::string text_;
};

}  // namespace zfxtest
