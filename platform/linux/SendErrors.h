#pragma once
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>

#include "platform/UdpPam.h"
#include "platform/linux/UdpMessages.h"

namespace platform {

/// What became of an endpoint's datagrams that did not arrive, as far as this host can know: the
/// kernel refuses some at once, and of others, which it took, an ICMP message says later that they
/// were not delivered. Both are counted; the first and the last of a row of failures are told.
///
/// Sockets ask for their error queue (`enable`), for the kernel then also says ENOBUFS where its
/// queueing discipline drops a datagram. The price: after an ICMP message about one destination the
/// next send, to whichever destination, fails with that message's error. The endpoint asks
/// `wasOfAnother` and sends again.
class SendErrors {
 public:
  using Tell = std::function<void(const std::string& line)>;
  SendErrors(UdpPamCounters& counters, Tell tell) : counters_(counters), tell_(std::move(tell)) {}

  static bool enable(int fd, bool ipv6);

  /// Takes what is in the socket's error queue, a bounded number at a time, and counts what ICMP
  /// says. True: there was some of that. As long as there is more the socket reports EPOLLERR.
  bool drain(int fd);

  /// Whether a send that failed with `err` may have met the error of an earlier datagram. Answers
  /// true a bounded number of times until `leftFront` is called.
  bool wasOfAnother(int fd, int err);
  /// The datagram that comes first now is another one.
  void leftFront() { tries_ = 0; }

  void drop(int err);
  void refused(const Destination& dst, uint32_t len, int err);
  /// A datagram got through, and what went wrong on its way may be over.
  void recovered(const Destination& dst, uint32_t len);
  bool failing() const { return !failing_.empty(); }
  void clear() { failing_.clear(); }

 private:
  struct Failure {
    uint64_t count = 0;
    uint32_t minLen = 0;  // a datagram at least this long must get through to end it
    uint32_t left = 1;    // so many of them must
  };

  UdpPamCounters& counters_;
  const Tell tell_;
  unsigned tries_ = 0;
  std::map<Destination, std::map<int, Failure>> failing_;
};

}  // namespace platform
