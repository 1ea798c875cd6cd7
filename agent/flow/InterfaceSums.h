#pragma once
#include <array>
#include <cstdint>
#include <map>
#include <utility>
#include <vector>

namespace agent::flow {

/// Packets and octets of each interface. Counting costs a comparison and two additions in a cache
/// line, unless packets alternate between interfaces that share a slot.
class InterfaceSums {
 public:
  struct Sum {
    uint32_t interface = 0;  ///< the exported index; 0: not known
    uint64_t packets = 0;
    uint64_t octets = 0;
  };
  using Sums = std::vector<Sum>;

  void count(uint32_t interface, uint32_t packets, uint32_t octets) {
    Sum& sum = slots_[interface % slots_.size()];
    if (sum.interface != interface) [[unlikely]]
      change(sum, interface);
    sum.packets += packets;
    sum.octets += octets;
  }
  /// Replaces `to`, in no order. Add up: an interface that shares a slot may be there twice.
  void copyTo(Sums& to) const {
    to.clear();
    for (const auto& [interface, sum] : others_) to.push_back(sum);
    for (const Sum& sum : slots_)
      if (sum.packets > 0) to.push_back(sum);
  }

 private:
  [[gnu::noinline]] void change(Sum& sum, uint32_t interface) {
    Sum& other = others_.try_emplace(sum.interface, Sum{sum.interface}).first->second;
    other.packets += sum.packets;
    other.octets += sum.octets;
    sum = {interface};
  }

  std::array<Sum, 256> slots_{};
  std::map<uint32_t, Sum> others_;  // of interfaces that lost their slot, up to then
};

}  // namespace agent::flow
