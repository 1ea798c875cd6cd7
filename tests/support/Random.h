#pragma once
#include <gtest/gtest.h>

#include <cstdlib>
#include <random>
#include <string>

/// Random tests explore something new each time they run, and say how to repeat what they found.
namespace support {

inline unsigned fromEnvironment(const char* name, unsigned otherwise) {
  const char* text = std::getenv(name);
  return text ? static_cast<unsigned>(std::strtoul(text, nullptr, 10)) : otherwise;
}

/// Calls `run(seed)` with `n` seeds in a row, until something fails. The first is drawn; the
/// environment variable TARN_SEED sets it. TARN_FEWER, for tools that slow everything down: only
/// one seed out of so many.
template <class Run>
void eachSeed(unsigned n, Run run) {
  n = (n + fromEnvironment("TARN_FEWER", 1) - 1) / fromEnvironment("TARN_FEWER", 1);
  const unsigned first = fromEnvironment("TARN_SEED", std::random_device{}());
  for (unsigned seed = first; seed != first + n && !testing::Test::HasFailure(); ++seed) {
    SCOPED_TRACE("TARN_SEED=" + std::to_string(seed));
    run(seed);
  }
}

}  // namespace support
