// A file descriptor that closes itself and leaves errno as it is.
#pragma once

#include <unistd.h>

#include <cerrno>
#include <utility>

namespace vexa {

class Descriptor {
 public:
  // Takes ownership. A negative `fd`, the result of a failed call, is kept and not closed.
  explicit Descriptor(int fd = -1) : fd_(fd) {}
  Descriptor(Descriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  ~Descriptor() {
    const int error_number = errno;
    if (fd_ >= 0) ::close(fd_);
    errno = error_number;
  }

  int get() const { return fd_; }

 private:
  int fd_;
};

}  // namespace vexa
