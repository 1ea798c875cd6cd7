#pragma once
#include <cstddef>
#include <cstdint>

namespace platform::shm {

/// A segment in memory. Its owner, or root, may truncate the file at any moment, and an access
/// behind its new end raises SIGBUS, which ends a process. (Seals would forbid it, but only a memfd
/// takes them, which has no name for readers to open.) The first mapping installs a handler of
/// SIGBUS for the whole process: at a fault inside a mapping it puts zeros of this process's own in
/// place of all of it, so that the access goes on, and `lost` says so. Other faults reach the
/// handler that was there before. At most `mappingsMax` at a time.
class Mapping {
 public:
  static constexpr size_t mappingsMax = 256;

  Mapping() = default;
  /// Maps the first `len` octets. Throws ErrnoException.
  Mapping(int fd, size_t len, bool writable);
  Mapping(Mapping&& o) noexcept { *this = static_cast<Mapping&&>(o); }
  Mapping& operator=(Mapping&& o) noexcept;
  ~Mapping();

  uint8_t* base() const { return base_; }  ///< null: nothing is mapped
  /// What it held is gone, for this process; what is written to it reaches nobody.
  bool lost() const;

 private:
  uint8_t* base_ = nullptr;
  size_t len_ = 0;
  size_t guard_ = 0;
};

}  // namespace platform::shm
