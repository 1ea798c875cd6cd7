#include "platform/linux/ShmMapping.h"

#include <signal.h>
#include <sys/mman.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <utility>

#include "platform/UdpPam.h"

namespace platform::shm {
namespace {

/// A range of addresses that the handler may replace.
struct Guard {
  std::atomic<bool> taken = false;
  std::atomic<char*> base = nullptr;  // null: none yet
  std::atomic<size_t> len = 0;
  std::atomic<bool> lost = false;
};
std::array<Guard, Mapping::mappingsMax> guards;
struct sigaction before;

void handleBus(int signal, siginfo_t* info, void*) {
  const int err = errno;
  const bool fault = info->si_code > 0;  // or somebody sent the signal
  const auto at = reinterpret_cast<uintptr_t>(info->si_addr);
  for (Guard& g : guards) {
    char* const base = g.base;
    const auto from = reinterpret_cast<uintptr_t>(base);
    if (!fault || !base || at < from || at - from >= g.len) continue;
    if (::mmap(base, g.len, PROT_READ | PROT_WRITE,
               MAP_FIXED | MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0) == MAP_FAILED)
      break;
    g.lost = true;
    errno = err;
    return;
  }
  // The access is made again behind this handler, and faults again.
  ::sigaction(SIGBUS, &before, nullptr);
  if (!fault) ::raise(signal);
}

void installHandler() {
  struct sigaction ours {};
  ours.sa_sigaction = handleBus;
  ours.sa_flags = SA_SIGINFO;
  sigemptyset(&ours.sa_mask);
  ::sigaction(SIGBUS, &ours, &before);
}

}  // namespace

Mapping::Mapping(int fd, size_t len, bool writable) {
  static const bool once = (installHandler(), true);
  static_cast<void>(once);
  while (guard_ < guards.size() && guards[guard_].taken.exchange(true)) ++guard_;
  if (guard_ == guards.size()) throw ErrnoException(ENOMEM, "too many shared tables");
  void* base =
      ::mmap(nullptr, len, writable ? PROT_READ | PROT_WRITE : PROT_READ, MAP_SHARED, fd, 0);
  Guard& g = guards[guard_];
  if (base == MAP_FAILED) {
    g.taken = false;
    throw ErrnoException(errno, "mmap");
  }
  base_ = static_cast<uint8_t*>(base);
  len_ = len;
  g.lost = false;
  g.len = len;
  g.base = static_cast<char*>(base);
}

Mapping& Mapping::operator=(Mapping&& o) noexcept {
  std::swap(base_, o.base_);
  std::swap(len_, o.len_);
  std::swap(guard_, o.guard_);
  return *this;
}

Mapping::~Mapping() {
  if (!base_) return;
  ::munmap(base_, len_);
  guards[guard_].base = nullptr;
  guards[guard_].taken = false;
}

bool Mapping::lost() const { return base_ && guards[guard_].lost; }

}  // namespace platform::shm
