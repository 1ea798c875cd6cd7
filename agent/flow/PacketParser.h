#pragma once
#include <array>
#include <cstdint>
#include <string_view>

#include "agent/flow/FlowKey.h"
#include "agent/flow/Packet.h"

namespace agent::flow {

/// Why a packet belongs to no flow.
enum class ParseError : uint8_t {
  none,
  notIp,      ///< another network protocol: ARP, LLDP, MPLS, ...
  truncated,  ///< a header up to the transport ports does not lie within the captured octets
  malformed,  ///< a length or version contradicts the packet
};
inline constexpr size_t parseErrors = 4;
std::string_view toText(ParseError e);  ///< "notIp", ...

/// What a flow needs to know of one packet.
struct Parsed {
  ParseError error = ParseError::none;
  bool ipv6 = false;
  uint8_t tcpFlags = 0;    ///< of TCP; 0 of others, and of fragments without the header
  uint32_t ipOctets = 0;   ///< of the IP packet, headers included, as its header has it
  uint32_t flowLabel = 0;  ///< of IPv6, 20 bits
  FlowKey4 key4;           ///< when not `ipv6`
  FlowKey6 key6;           ///< when `ipv6`
};
}  // namespace agent::flow
