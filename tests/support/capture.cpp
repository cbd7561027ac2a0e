#include "capture.hpp"

#include <cstdio>
#include <stdexcept>
#include <unistd.h>

namespace zfxtest {

Capture::Capture(int fd) : fd_(fd) {
    std::fflush(nullptr);
    FILE *tmp = std::tmpfile();
    if (tmp == nullptr) throw std::runtime_error("tmpfile");
    file_ = dup(fileno(tmp));
    std::fclose(tmp);
    saved_ = dup(fd_);
    dup2(file_, fd_);
}

Capture::~Capture() { text(); }

std::string Capture::text() {
    if (done_) return text_;
    done_ = true;
    std::fflush(nullptr);
    dup2(saved_, fd_);
    close(saved_);
    lseek(file_, 0, SEEK_SET);
    char buf[4096];
    for (ssize_t n; (n = read(file_, buf, sizeof buf)) > 0;) text_.append(buf, size_t(n));
    close(file_);
    return text_;
}

}  // namespace zfxtest
