#include "platform/Assert.h"

#include <cstdio>
#include <cstdlib>

namespace platform {
void assertionFailed(const char* expression, const char* file, int line) {
  std::fprintf(stderr, "assertion failed: \"%s\", file %s, line %d\n", expression, file, line);
  std::fflush(stderr);
  std::abort();
}
}  // namespace platform
