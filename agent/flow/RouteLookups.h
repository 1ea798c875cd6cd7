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

/// A packet that arrived and is not for this machine. The question is where the kernel would
/// forward it.
struct RouteQuestion {
  std::array<uint8_t, 16> src{};  ///< in network byte order; IPv4: in the first four octets
  std::array<uint8_t, 16> dst{};
  uint32_t interface = 0;  ///< where the packet arrived, by the kernel's index
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
  std::array<uint8_t, 16> nextHop{};  ///< zeros: none, or of the other family
};

/// Asks the kernel's routing tables of one namespace, rules and VRF devices included. Of several
/// equal paths the kernel chooses one by the addresses. Answers are kept until a route, a rule, a
/// link or an address of the namespace changes, and for `ageMax` at most, since the kernel does not
/// report all that matters (redirects, sysctls). Never waits; where the kernel gives no answer, it
/// is `nowhere`.
class RouteLookups {
 public:
  static constexpr size_t keptMax = 65536;  ///< answers, some 120 octets each
  static constexpr std::chrono::seconds ageMax{30};

  /// For the network namespace of the calling thread. Throws ErrnoException.
  RouteLookups();

  /// Writes the answer to each question, in their order. Asks the kernel about those whose answers
  /// are not kept, dozens in one system call.
  void ask(std::span<const RouteQuestion> questions, std::span<Route> answers);
  /// How many questions the kernel was asked so far.
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

  platform::Fd fd_;    // for questions
  platform::Fd news_;  // for the kernel's notifications
  uint32_t seq_ = 0;
  uint64_t asked_ = 0;
  std::chrono::steady_clock::time_point since_ = std::chrono::steady_clock::now();
  Kept kept_;    // with half of `keptMax` in it, it replaces `before_` and begins empty
  Kept before_;  // an answer that is asked for again is copied to `kept_`
};

}  // namespace agent::flow
