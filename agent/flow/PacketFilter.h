#pragma once
#include <linux/filter.h>

#include <cstdint>
#include <string>
#include <vector>

#include "agent/records/FlowRecords.h"
#include "platform/linux/Fd.h"

namespace agent::flow {

/// Which packets a ring accepts.
struct PacketChoice {
  std::vector<uint32_t> interfaces{};  ///< sorted
  uint32_t sampleRate = 1;
  std::string expression{};                 ///< see `PacketProgram`; empty: all packets
  std::vector<uint32_t> withoutEthernet{};  ///< those of the interfaces; sorted
  bool operator==(const PacketChoice&) const = default;
};

/// The same, and the programs that tell the kernel.
struct PacketFilter {
  PacketChoice choice;
  /// Programs of the kernel's extended machine (eBPF). The second is for packets of all interfaces:
  /// the first may be too long for the kernel, or for the room that a socket has. Without either
  /// the ring makes a program of the classic machine.
  platform::Fd program{};
  platform::Fd anyInterface{};
  int error = 0;  ///< errno: the kernel took neither
};

/// What the ring hands over of a packet: `snapLen` octets, or the whole packet where it is shorter.
/// A packet that is yet to be cut into n segments, or that was put together from them, has n - 1
/// octets more: a packet socket has no other way to pass on what a program knows of a packet.
/// Without them are packets that are shorter than that, and those of classic programs.
inline uint32_t segmentsOf(uint32_t captured, uint32_t snapLen) {
  return captured > snapLen ? captured - snapLen + 1 : 1;
}

/// Loads the programs. Needs CAP_BPF or CAP_SYS_ADMIN where the kernel lets nobody else, and for
/// more than 4096 instructions.
PacketFilter extendedFilter(PacketChoice choice, Direction direction, uint32_t snapLen);

/// A program of the classic machine, for every direction but `once`. `any`: for all interfaces. The
/// expression does not see a VLAN tag that the device took off, and shifts by a number modulo 32.
std::vector<sock_filter> classicFilter(const PacketChoice& choice, Direction direction,
                                       uint32_t snapLen, bool any);

}  // namespace agent::flow
