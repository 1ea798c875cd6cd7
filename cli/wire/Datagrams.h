#pragma once
#include <array>
#include <optional>
#include <span>

#include "cli/wire/UdpReceiver.h"
#include "platform/linux/Packet.h"

namespace cli {

/// What stood in the way of finding whole datagrams in packets.
struct DatagramCounts {
  uint64_t packets = 0;
  uint64_t udp = 0;        ///< whole datagrams
  uint64_t cutShort = 0;   ///< UDP whose packet was not captured whole
  uint64_t fragments = 0;  ///< of IP packets: not put together
  uint64_t malformed = 0;  ///< IP or UDP with lengths that contradict each other
};

/// The UDP datagram in a captured packet, over IPv4 or IPv6, behind VLAN tags; nothing when there
/// is none. Trusts no length in it. `counts` learns of every packet.
std::optional<Datagram> datagramIn(const platform::Packet& packet, DatagramCounts& counts);

}  // namespace cli
