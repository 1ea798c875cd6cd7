#include "agent/flow/Mapping.h"

#include <sys/mman.h>

#include <new>
#include <string>

namespace agent::flow {
namespace {
class NoMemory final : public std::bad_alloc {
 public:
  explicit NoMemory(size_t octets)
      : text_("no memory for a table of " + std::to_string(octets) + " octets (see max-flows)") {}
  const char* what() const noexcept override { return text_.c_str(); }

 private:
  std::string text_;
};
}  // namespace

void* mapZeroed(size_t octets) {
  void* at = mmap(nullptr, octets, PROT_READ | PROT_WRITE,
                  MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (at == MAP_FAILED) throw NoMemory(octets);
  // Random access over hundreds of megabytes: without large pages each look-up misses the TLB too.
  madvise(at, octets, MADV_HUGEPAGE);
  return at;
}
void unmap(void* at, size_t octets) noexcept { munmap(at, octets); }
void zeroPages(void* at, size_t octets) noexcept { madvise(at, octets, MADV_DONTNEED); }

}  // namespace agent::flow
