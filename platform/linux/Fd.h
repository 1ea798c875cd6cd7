#pragma once
#include <unistd.h>

#include <utility>

namespace platform {

/// Owns a file descriptor.
class Fd {
 public:
  Fd() = default;
  explicit Fd(int fd) : fd_(fd) {}
  Fd(Fd&& o) noexcept : fd_(std::exchange(o.fd_, -1)) {}
  Fd& operator=(Fd&& o) noexcept {
    std::swap(fd_, o.fd_);
    return *this;
  }
  ~Fd() {
    if (fd_ >= 0) ::close(fd_);
  }
  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }
  void close() { *this = Fd(); }
  int release() { return std::exchange(fd_, -1); }

 private:
  int fd_ = -1;
};

}  // namespace platform
