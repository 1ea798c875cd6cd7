#pragma once
#include <array>
#include <cstdint>
#include <cstring>

namespace agent::flow {

/// What distinguishes flows besides addresses. Ports and VLAN id in host order.
struct FlowClass {
  uint16_t srcPort = 0;
  uint16_t dstPort = 0;  ///< of ICMP and ICMPv6: type * 256 + code
  uint8_t protocol = 0;  ///< of the innermost header that is no IPv6 extension
  uint8_t tos = 0;       ///< IPv4 TOS or IPv6 traffic class
  /// Of the outermost tag, 12 bits; 0: untagged or priority-tagged. And `leaving`, of packets that
  /// leave by the interface, so that they are other flows than those that arrive there.
  uint16_t vlanId = 0;
  uint32_t interface = 0;
  static constexpr uint16_t leaving = 0x8000;
  bool leaves() const { return (vlanId & leaving) != 0; }
  bool operator==(const FlowClass&) const = default;
};
static_assert(sizeof(FlowClass) == 12);

/// A flow's key; no padding, so that equal keys are equal octets. Addresses as on the wire.
template <size_t addressLen>
struct FlowKey {
  static constexpr size_t ipLen = addressLen;
  std::array<uint8_t, addressLen> src{};
  std::array<uint8_t, addressLen> dst{};
  FlowClass rest;
  bool operator==(const FlowKey& o) const { return std::memcmp(this, &o, sizeof o) == 0; }
};
using FlowKey4 = FlowKey<4>;
using FlowKey6 = FlowKey<16>;
static_assert(sizeof(FlowKey4) == 20);
static_assert(sizeof(FlowKey6) == 44);

}  // namespace agent::flow
