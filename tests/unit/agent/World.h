#pragma once
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>

#include <chrono>
#include <functional>
#include <random>
#include <stdexcept>
#include <string>

#include "agent/host/AgentLog.h"
#include "platform/linux/EventLoop.h"
#include "tests/support/Net.h"
#include "tests/support/Random.h"

namespace agent {

/// What the agent said, all of it.
struct Heard {
  std::string text;
  AgentLog log{AgentLog::Style::journal, [this](std::string_view line) { text += line; }};
  bool has(std::string_view part) const { return text.find(part) != text.npos; }
};

/// Each test in a network of its own, with its own /run and /dev/shm: what is made there is seen
/// by nobody else and gone with the process, whatever ends it. Root is not needed where users may
/// make namespaces.
class World : public testing::Test {
 protected:
  void SetUp() override {
    if (!support::unshareAsRoot(CLONE_NEWNET | CLONE_NEWNS) ||
        mount("none", "/", "none", MS_REC | MS_PRIVATE, nullptr) < 0 ||
        mount("tmpfs", "/run", "tmpfs", 0, nullptr) < 0 ||
        mount("tmpfs", "/dev/shm", "tmpfs", 0, nullptr) < 0)
      GTEST_SKIP() << "no namespaces and mounts of its own (run as root)";
  }

  /// A failing command ends the test.
  static void run(const std::string& command) {
    if (!support::sh(command)) throw std::runtime_error("failed: " + command);
  }

  /// Runs rounds of the loop until `done`; false when the time is over.
  bool until(const std::function<bool()>& done,
             std::chrono::milliseconds limit = std::chrono::seconds(5)) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!done()) {
      if (std::chrono::steady_clock::now() > end) return false;
      loop->runOnce(Seconds(0.01));
    }
    return true;
  }
  void pass(std::chrono::milliseconds time) {
    until([] { return false; }, time);
  }
  /// `now()` is `wanted` soon.
  testing::AssertionResult becomes(const std::function<std::string()>& now,
                                   const std::string& wanted) {
    if (until([&] { return now() == wanted; })) return testing::AssertionSuccess();
    return testing::AssertionFailure() << now() << '\n' << heard.text;
  }

  const Ptr<EventLoop> loop = eventLoopFactory();
  Heard heard;
};

/// Random numbers. TARN_SEED chooses them, and a failure tells which it was.
class Random {
 public:
  /// One below `n`.
  uint32_t operator()(size_t n) { return static_cast<uint32_t>(engine_() % n); }
  std::mt19937& engine() { return engine_; }

 private:
  const unsigned seed_ = support::firstSeed();
  const testing::ScopedTrace trace_{__FILE__, __LINE__, "TARN_SEED=" + std::to_string(seed_)};
  std::mt19937 engine_{seed_};
};

}  // namespace agent
