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
  std::vector<uint32_t> withoutEthernet{};  ///< interfaces without that header; sorted
  bool operator==(const PacketChoice&) const = default;
};

/// A choice, and the programs by which the kernel makes it.
struct PacketFilter {
  PacketChoice choice;
  /// Programs of the kernel's extended machine (eBPF). `anyInterface` accepts packets of all
  /// interfaces, among which the ring then chooses: it is there where `program` is, or may be, too
  /// long for the kernel or for a socket's room. Where this process may load neither, the ring
  /// makes a program of the classic machine.
  platform::Fd program{};
  platform::Fd anyInterface{};
  int error = 0;  ///< errno: the kernel took neither
};

/// The number of a packet's segments, by the octets that the ring hands over of it. These are
/// `snapLen`, or the whole packet where it is shorter. A packet that is yet to be cut into n
/// segments, or that was put together from them, has n - 1 octets more: a packet socket has no
/// other way to pass on what a program knows of a packet. A packet that is too short for that
/// counts as one segment, and so does every packet that a classic program accepted.
inline uint32_t segmentsOf(uint32_t captured, uint32_t snapLen) {
  return captured > snapLen ? captured - snapLen + 1 : 1;
}

/// Loads the programs. Needs CAP_BPF or CAP_SYS_ADMIN where the kernel lets nobody else, and for
/// more than 4096 instructions.
PacketFilter extendedFilter(PacketChoice choice, Direction direction, uint32_t snapLen);

/// A program of the classic machine, for every direction but `once`. `any`: for all interfaces. Its
/// expression does not see a VLAN tag that the device took off, and takes the number of bits to
/// shift by modulo 32.
std::vector<sock_filter> classicFilter(const PacketChoice& choice, Direction direction,
                                       uint32_t snapLen, bool any);

}  // namespace agent::flow
