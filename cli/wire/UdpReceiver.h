#pragma once
#include <sys/socket.h>

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "platform/linux/Fd.h"

namespace cli {

/// An address of either family with a port.
struct Endpoint {
  std::string address;  ///< numeric; a link-local one with %interface
  uint16_t port = 0;
  std::string stringValue() const;  ///< 10.0.0.1:4739 or [2001:db8::1]:4739
};

struct Datagram {
  std::span<const uint8_t> octets;  ///< until the next `receive`
  double time = 0;                  ///< of arrival, UTC seconds
  Endpoint source;
  Endpoint destination;
  std::optional<uint8_t> tos;  ///< IPv4 TOS or IPv6 traffic class
};

/// UDP sockets of both families on one port.
class UdpReceiver {
 public:
  /// Without addresses: all of this host's, IPv4 and IPv6 (one of the two may be missing). Port 0:
  /// the kernel chooses. Throws std::runtime_error, which says what cannot be opened and why.
  UdpReceiver(const std::vector<std::string>& addresses, uint16_t port);

  const std::vector<Endpoint>& bound() const { return bound_; }
  const std::vector<platform::Fd>& fds() const { return fds_; }
  /// The next datagram of that socket; nothing when none waits.
  std::optional<Datagram> receive(size_t socket);
  /// Datagrams that the kernel dropped since the start because a socket's buffer was full. Costs a
  /// system call for each socket.
  uint64_t drops() const;

 private:
  void open_p(const std::string& address, uint16_t port);

  std::vector<platform::Fd> fds_;
  std::vector<Endpoint> bound_;
  std::vector<uint8_t> buffer_;
};

}  // namespace cli
