#pragma once
#include <fcntl.h>
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

/// Leads standard descriptors that are closed to /dev/null: the first file or socket that is opened
/// would take their place, and get what is meant for standard output or the log.
inline void fillStandardDescriptors() {
  int fd = 0;
  do {
    fd = ::open("/dev/null", O_RDONLY);  // not to be written to: output that is lost is an error
  } while (fd >= 0 && fd <= STDERR_FILENO);
  if (fd >= 0) ::close(fd);
}

}  // namespace platform
