#pragma once
#include <algorithm>
#include <chrono>

namespace platform {

/// How fast an endpoint may send: a burst, and so much a second. `perSecond` 0: no limit.
struct Pace {
  double perSecond = 0;
  double burst = 0;
  bool octets = false;  ///< what is counted: octets of UDP payload, or datagrams
};

/// A bucket of credit that fills up at the pace and is spent by sending. The last datagram of a
/// burst may overdraw it, and is paid for before the next: the mean is exact for any length.
class Pacer {
 public:
  using Clock = std::chrono::steady_clock;

  /// What may be spent at `now`; nothing when it is not above zero.
  double credit(const Pace& pace, Clock::time_point now) {
    const std::chrono::duration<double> passed = now - filled_;
    filled_ = now;
    return credit_ = std::min(pace.burst, credit_ + passed.count() * pace.perSecond);
  }
  void spend(double amount) { credit_ -= amount; }
  /// Until a whole burst may leave: waking up for single datagrams would cost more than they do.
  std::chrono::duration<double> wait(const Pace& pace) const {
    return std::chrono::duration<double>((pace.burst - credit_) / pace.perSecond);
  }

 private:
  double credit_ = 0;
  Clock::time_point filled_{};  // long ago: full at first
};

}  // namespace platform
