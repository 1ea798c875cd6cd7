#pragma once
#include <array>
#include <chrono>
#include <cstdint>
#include <span>
#include <unordered_map>
#include <vector>

#include "agent/flow/KeyHash.h"
#include "platform/linux/Fd.h"

namespace agent::flow {

/// A packet that arrived and is not for this machine; asked is where the kernel sends it on.
struct RouteQuestion {
  std::array<uint8_t, 16> src{};  ///< in network byte order; of IPv4 the first four octets count
  std::array<uint8_t, 16> dst{};
  uint32_t interface = 0;  ///< where it arrived, by the kernel's index
  uint16_t family = 0;     ///< AF_INET or AF_INET6
  uint8_t tos = 0;         ///< IPv4 TOS or IPv6 traffic class
  uint8_t zero = 0;        // no padding: equal questions are equal octets
  bool operator==(const RouteQuestion&) const = default;
};
static_assert(sizeof(RouteQuestion) == 40);

struct Route {
  enum class To : uint8_t {
    nowhere,  ///< there is no route, or the kernel drops the packet
    here,     ///< to this machine: an address of its own, or a broadcast
    away,     ///< out of `interface`
  };
  To to = To::nowhere;
  uint32_t interface = 0;             ///< by the kernel's index
  std::array<uint8_t, 16> nextHop{};  ///< zeros: the destination is the link's neighbour
};

/// Asks the kernel's routing tables of one namespace, rules and VRF devices included. Where several
/// paths are equal the kernel chooses by the addresses. Answers are kept until a route, a rule, a
/// link or an address of the namespace changes, and for `ageMax` at most, since not all that
/// matters is told (redirects, sysctls). It never waits, and answers `nowhere` where the kernel
/// cannot.
class RouteLookups {
 public:
  static constexpr size_t keptMax = 65536;  ///< answers, some 120 octets each
  static constexpr std::chrono::seconds ageMax{30};

  /// In the namespace that the thread is in. Throws ErrnoException.
  RouteLookups();

  /// One answer to each question, in their order. Of those that it has no answer for it asks the
  /// kernel, dozens with a system call.
  void ask(std::span<const RouteQuestion> questions, std::span<Route> answers);
  /// Questions that the kernel was asked.
  uint64_t asked() const { return asked_; }

 private:
  struct Hash {
    uint64_t seed;
    size_t operator()(const RouteQuestion& q) const { return keyHash(q, seed); }
  };
  using Kept = std::unordered_map<RouteQuestion, Route, Hash>;
  using Open = std::vector<Kept::value_type*>;  // questions without an answer

  bool changed();
  void askKernel(std::span<Kept::value_type* const> open);

  platform::Fd fd_;
  platform::Fd news_;
  uint32_t seq_ = 0;
  uint64_t asked_ = 0;
  std::chrono::steady_clock::time_point since_ = std::chrono::steady_clock::now();
  Kept kept_;    // when half of `keptMax` are in it, it becomes ...
  Kept before_;  // ... this, whose answers come back when they are asked for
};

}  // namespace agent::flow
