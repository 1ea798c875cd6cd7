#pragma once
#include "platform/Api.h"

namespace platform {
/// Prints the failed expression with its source file and line on standard error and aborts.
[[noreturn]] TARN_API void assertionFailed(const char* expression, const char* file, int line);
}  // namespace platform

/// Guards an invariant in every build, release included. What a user, a peer, the kernel or a
/// configuration can cause is never an invariant.
#define TARN_ASSERT(expr) TARN_ASSERT_AS(expr, #expr)
/// The same with the text that is printed, where it differs from the code.
#define TARN_ASSERT_AS(expr, text) \
  ((expr) ? static_cast<void>(0) : ::platform::assertionFailed(text, __FILE__, __LINE__))
