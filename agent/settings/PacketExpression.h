#pragma once
#include <linux/filter.h>

#include <string>
#include <vector>

#include "platform/linux/Packet.h"

namespace agent {
using platform::LinkLayer;
using platform::Packet;

/// Octets that an expression may have. The time to compile one grows with the cube of its length:
/// 0.2 s for a list of ports of this length, 9 s for four times as much.
inline constexpr size_t packetExpressionMax = 1000;

/// An expression that chooses packets, in the language of packet captures (pcap-filter(7)), as a
/// program of the classic packet filter machine. The program is about a packet as it was on the
/// wire, VLAN tags included, and ends with 0 for a packet that the expression does not choose. All
/// its jumps lead forward, and its fixed offsets are at most `packetOffsetMax`.
struct PacketProgram {
  std::vector<sock_filter> code;  ///< empty when there is a problem
  std::string problem;            ///< what is wrong with the expression
};
inline constexpr uint32_t packetOffsetMax = 0x7ffff;

/// Whether an instruction loads octets of the packet.
bool loadsPacket(const sock_filter& f);

/// Names of hosts, networks, ports and protocols are a problem, since nothing is to be looked up.
/// So is an expression that has no meaning for `link`, such as Ethernet addresses for `raw`.
PacketProgram compilePacketExpression(const std::string& text, LinkLayer link);

/// Whether the program, which was compiled for the packet's link layer, chooses it.
bool chooses(const std::vector<sock_filter>& program, const Packet& packet);

}  // namespace agent
