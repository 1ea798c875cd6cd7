#pragma once
#include <array>
#include <cstddef>
#include <cstdint>
#include <set>

#include "Ipfix/FlowTrackingTypes.h"
#include "platform/Ip.h"

namespace agent::flow {

/// The addresses of this machine in one network, in network byte order.
struct HostAddresses {
  std::set<std::array<uint8_t, 4>> ipv4;
  std::set<std::array<uint8_t, 16>> ipv6;
  /// The packets counted where they leave are this machine's own, none is forwarded.
  bool onlyOwnLeave = false;

  void addressIs(const platform::IpGenAddr& a) {
    const uint32_t v = a.ipAddr().value();
    if (a.isIpv6()) ipv6.insert(a.ip6Addr().octets());
    if (a.isIpv4())
      ipv4.insert({static_cast<uint8_t>(v >> 24), static_cast<uint8_t>(v >> 16),
                   static_cast<uint8_t>(v >> 8), static_cast<uint8_t>(v)});
  }
  bool has(const std::array<uint8_t, 4>& a) const { return a[0] == 127 || ipv4.count(a) > 0; }
  bool has(const std::array<uint8_t, 16>& a) const { return ipv6.count(a) > 0; }
  bool operator==(const HostAddresses&) const = default;
};

inline bool isGroup(const std::array<uint8_t, 4>& a) { return a[0] >> 4 == 14; }
inline bool isGroup(const std::array<uint8_t, 16>& a) { return a[0] == 0xff; }

/// What ingressInterface and egressInterface say of a packet; 0: not known.
struct FlowInterfaces {
  uint32_t ingress = 0;
  uint32_t egress = 0;
};

/// Of a packet that leaves by the interface of this index, or arrives there. What arrives for a
/// group may leave by several interfaces; what leaves for one is counted at each.
template <class Address>
FlowInterfaces flowInterfaces(uint32_t interface, bool leaves, const Address& src,
                              const Address& dst, const HostAddresses& host) {
  using Map = FlowTracking::IntfIndexMap;
  if (leaves) return {host.onlyOwnLeave || host.has(src) ? Map::cpuIndex : 0, interface};
  if (isGroup(dst)) return {interface, Map::multicastIndex};
  return {interface, host.has(dst) ? Map::cpuIndex : 0};
}

}  // namespace agent::flow
