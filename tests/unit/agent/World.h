#pragma once
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>

#include <chrono>
#include <cstdlib>
#include <functional>
#include <random>
#include <stdexcept>
#include <string>

#include "agent/AgentLog.h"
#include "platform/linux/EventLoop.h"
#include "tests/support/Net.h"

namespace agent {

/// Each test in a network of its own, with its own /run and /dev/shm: what is made there is seen
/// by nobody else and gone with the process, whatever ends it. Root is not needed where users may
/// make namespaces.
class World : public testing::Test {
 protected:
  void SetUp() override {
    const std::string problem = enter();
    if (!problem.empty()) GTEST_SKIP() << problem;
  }

  /// A failing command ends the test.
  static void run(const std::string& command) {
    if (!support::sh(command)) throw std::runtime_error("failed: " + command);
  }

  /// A pair of devices, `name` and `name`-peer, the latter up. (Not every kernel has dummies.)
  static void makeLink(const std::string& name, const std::string& netns = {}) {
    const std::string ip = netns.empty() ? "ip " : "ip -n " + netns + ' ';
    run(ip + "link add " + name + " type veth peer name " + name + "-peer");
    run(ip + "link set " + name + "-peer up");
  }

 private:
  static std::string enter() {
    if (!support::unshareAsRoot(CLONE_NEWNET | CLONE_NEWNS)) return "no namespaces (run as root)";
    if (mount("none", "/", "none", MS_REC | MS_PRIVATE, nullptr) < 0) return "no private mounts";
    if (mount("tmpfs", "/run", "tmpfs", 0, nullptr) < 0) return "no private /run";
    if (mount("tmpfs", "/dev/shm", "tmpfs", 0, nullptr) < 0) return "no private /dev/shm";
    return {};
  }
};

/// Random numbers. TARN_SEED chooses them, and a failure tells which it was.
class Random {
 public:
  /// One below `n`.
  uint32_t operator()(size_t n) { return static_cast<uint32_t>(engine_() % n); }
  std::mt19937& engine() { return engine_; }

 private:
  static unsigned seed() {
    const char* given = std::getenv("TARN_SEED");
    return given ? static_cast<unsigned>(std::stoul(given)) : std::random_device{}();
  }
  const unsigned seed_ = seed();
  const testing::ScopedTrace trace_{__FILE__, __LINE__, "TARN_SEED=" + std::to_string(seed_)};
  std::mt19937 engine_{seed_};
};

/// Runs rounds of the loop until `done`; false after five seconds.
inline bool until(EventLoop& loop, const std::function<bool()>& done,
                  std::chrono::milliseconds limit = std::chrono::seconds(5)) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!done()) {
    if (std::chrono::steady_clock::now() > end) return false;
    loop.runOnce(Seconds(0.01));
  }
  return true;
}

/// What the agent said, all of it.
struct Heard {
  std::string text;
  AgentLog log{AgentLog::Style::journal, [this](std::string_view line) { text += line; }};
  bool has(std::string_view part) const { return text.find(part) != text.npos; }
};

}  // namespace agent
