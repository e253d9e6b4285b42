// tools/common holds what every program of the project shares: command-line
// parsing, exit codes, the terminal, whole files, JSON look-ups and owned
// descriptors; one header each.
//
// A file descriptor owned by one object and closed once, for the sockets,
// pipes and files of the tools.
#ifndef UOZ_TOOLS_SCOPED_FD_H
#define UOZ_TOOLS_SCOPED_FD_H

#include <unistd.h>

namespace uoztools {

class ScopedFd {
  public:
    ScopedFd() = default;
    explicit ScopedFd(int fd) : fd_(fd) {}
    ~ScopedFd() { reset(); }
    ScopedFd(ScopedFd &&other) noexcept : fd_(other.release()) {}
    ScopedFd &operator=(ScopedFd &&other) noexcept {
        if (this != &other)
            reset(other.release());
        return *this;
    }
    ScopedFd(const ScopedFd &) = delete;
    ScopedFd &operator=(const ScopedFd &) = delete;

    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }
    // Gives the descriptor up without closing it.
    int release() {
        int fd = fd_;
        fd_ = -1;
        return fd;
    }
    // Closes the descriptor held, if any, and holds fd instead.
    void reset(int fd = -1) {
        if (fd_ >= 0)
            close(fd_);
        fd_ = fd;
    }

  private:
    int fd_ = -1;
};

}  // namespace uoztools

#endif
