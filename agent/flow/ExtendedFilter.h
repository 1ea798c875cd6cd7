#pragma once
#include <linux/bpf.h>
#include <linux/filter.h>

#include <cstddef>
#include <cstdint>
#include <vector>

namespace agent::flow {

/// What chooses packets, as a program of the classic machine whose parts are kept apart. The parts
/// at `ethernet` and `raw` are one expression each, as its compiler made it, for packets with and
/// without an Ethernet header; what stands before them leads into one of them. Without an
/// expression both are empty, at the end of the code.
struct FilterSource {
  std::vector<sock_filter> code;
  size_t ethernet = 0;
  size_t raw = 0;
};

/// Of these sources only, not the kernel's: the index of the interface that the packet came in by;
/// 0 of packets that this machine made.
inline constexpr int adIngress = SKF_AD_MAX;

/// The program for the extended machine, which can tell by which interface a packet came, and how
/// many segments it has, as `segmentsOf` says. It sees a VLAN tag that the device took off where it
/// was in the frame. Empty: it is too long.
std::vector<bpf_insn> extendedProgram(const FilterSource& source, uint32_t snapLen);

}  // namespace agent::flow
