#pragma once
#include <array>
#include <optional>
#include <span>

#include "cli/wire/UdpReceiver.h"
#include "platform/linux/Packet.h"

namespace cli {

/// How many packets were looked at, and what became of those that carry UDP.
struct DatagramCounts {
  uint64_t packets = 0;
  uint64_t udp = 0;        ///< whole datagrams
  uint64_t cutShort = 0;   ///< UDP whose packet was not captured whole
  uint64_t fragments = 0;  ///< of IP packets, which are not put together again
  uint64_t malformed = 0;  ///< IP or UDP with lengths that contradict each other
};

/// The UDP datagram in a captured packet, over IPv4 or IPv6, also behind VLAN tags; nothing when
/// there is no whole one. Trusts no length in the packet, and counts it in `counts`.
std::optional<Datagram> datagramIn(const platform::Packet& packet, DatagramCounts& counts);

}  // namespace cli
