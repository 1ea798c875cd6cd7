#pragma once
#include <chrono>
#include <cstdint>

#include "platform/Api.h"

namespace platform {

/// The wall clock. Timers do not follow it: see TaskScheduler.
class TARN_API Clock {
 public:
  virtual ~Clock() = default;
  /// Seconds since 1970-01-01 00:00 UTC, with fractions.
  virtual double now() const = 0;
  /// The same in whole seconds modulo 2^32, as an IPFIX export time is (RFC 7011, 3.1). Asked for
  /// each message: a host may have a cheaper way, that is late by a few milliseconds.
  virtual uint32_t nowU32() const { return static_cast<uint32_t>(static_cast<uint64_t>(now())); }
};

}  // namespace platform
