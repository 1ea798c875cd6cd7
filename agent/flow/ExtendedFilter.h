#pragma once
#include <linux/bpf.h>
#include <linux/filter.h>

#include <cstddef>
#include <cstdint>
#include <vector>

namespace agent::flow {

/// A program of the classic machine that chooses packets. What stands before `ethernet` rejects a
/// packet, or leads into one of two parts, which are the operator's expression as its compiler made
/// it: from `ethernet` to `raw` for packets with an Ethernet header, and from `raw` to the end for
/// packets without one. Without an expression both begin at the end of the code.
struct FilterSource {
  std::vector<sock_filter> code;
  size_t ethernet = 0;
  size_t raw = 0;
};

/// Data about a packet that these sources can load and the kernel's classic machine cannot: the
/// index of the interface that the packet came in by; 0 of packets that this machine made.
inline constexpr int adIngress = SKF_AD_MAX;

/// The same as a program of the extended machine. That can load `adIngress`, adds the number of
/// segments to its result (see `segmentsOf`), and has a VLAN tag that the device took off back at
/// its place in the frame. Empty: the program would be too long.
std::vector<bpf_insn> extendedProgram(const FilterSource& source, uint32_t snapLen);

}  // namespace agent::flow
