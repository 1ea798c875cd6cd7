#pragma once
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <iostream>
#include <random>
#include <set>
#include <string>
#include <string_view>

/// Random tests explore something new each time they run, and say how to repeat what they found.
namespace support {

inline unsigned fromEnvironment(const char* name, unsigned otherwise) {
  const char* text = std::getenv(name);
  return text ? static_cast<unsigned>(std::strtoul(text, nullptr, 10)) : otherwise;
}

/// The seed of a test: drawn, unless TARN_SEED sets it. Told at once, since a crash would not.
inline unsigned firstSeed() {
  const unsigned seed = fromEnvironment("TARN_SEED", std::random_device{}());
  std::cout << "TARN_SEED=" << seed << std::endl;
  return seed;
}

/// Steps that a life which failed is lived again without: see `eachSeed`.
inline std::set<unsigned> leftOut;
constexpr unsigned stepsMax = 256;

/// Takes `n` steps, `stepsMax` at most, until something fails. Each has random numbers of its own,
/// so that the others stay what they are when it is left out.
template <class Step>
void eachStep(unsigned seed, unsigned n, std::mt19937& random, Step step) {
  for (unsigned i = 0; i < n && !testing::Test::HasFailure(); ++i) {
    if (leftOut.contains(i)) continue;
    SCOPED_TRACE("step " + std::to_string(i));
    std::seed_seq own{seed, i};
    random.seed(own);
    step();
  }
}
/// What a step does, for the reader of a shortened life.
inline void tell(std::string_view what) {
  if (!leftOut.empty()) std::cout << what << std::endl;
}

/// Whether the life fails in a process of its own, where it may crash or hang as well.
template <class Run>
bool fails(Run& run, unsigned seed) {
  const pid_t child = fork();
  if (child == 0) {
    if (!freopen("/dev/null", "w", stdout) || !freopen("/dev/null", "w", stderr)) _exit(2);
    alarm(300);  // far longer than any takes on a busy machine
    run(seed);
    _exit(testing::Test::HasFailure());
  }
  int status = 0;
  return waitpid(child, &status, 0) == child && status != 0;
}

/// Calls `run(seed)` with `n` seeds in a row from `firstSeed` on, until something fails.
/// TARN_FEWER, for tools that slow everything down: only one seed out of so many. TARN_SHRINK=1:
/// what fails is run again without all steps (`eachStep`) that can be left out, and tells the rest.
template <class Run>
void eachSeed(unsigned n, Run run) {
  n = (n + fromEnvironment("TARN_FEWER", 1) - 1) / fromEnvironment("TARN_FEWER", 1);
  const bool shrinks = fromEnvironment("TARN_SHRINK", 0) == 1;
  const unsigned first = firstSeed();
  for (unsigned seed = first; seed != first + n && !testing::Test::HasFailure(); ++seed) {
    if (shrinks && !fails(run, seed)) continue;
    SCOPED_TRACE("TARN_SEED=" + std::to_string(seed));
    for (unsigned size = shrinks ? stepsMax / 2 : 0; size > 0; size /= 2)
      for (unsigned at = 0; at < stepsMax; at += size) {
        const auto before = leftOut;
        for (unsigned i = 0; i < size; ++i) leftOut.insert(at + i);
        if (leftOut != before && !fails(run, seed)) leftOut = before;
      }
    tell("TARN_SEED=" + std::to_string(seed) + ", in its shortest form:");
    run(seed);
  }
}

}  // namespace support
