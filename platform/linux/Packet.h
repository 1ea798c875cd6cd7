#pragma once
#include <cstdint>

namespace platform {

/// What the first octet of a packet belongs to.
enum class LinkLayer : uint8_t {
  ethernet,  ///< LINKTYPE 1
  raw,       ///< an IPv4 or IPv6 header (LINKTYPE 101, 228, 229; devices without link layer)
  linuxSll,  ///< LINKTYPE 113, "cooked"
  linuxSll2  ///< LINKTYPE 276
};

/// One packet where it lies: in a capture ring or a mapped file. Nothing in it can be trusted.
struct Packet {
  const uint8_t* octets = nullptr;
  uint32_t capLen = 0;     ///< octets that are there
  uint32_t wireLen = 0;    ///< octets that were on the wire, without frame check sequence
  int64_t timeNs = 0;      ///< UTC, since 1970; never negative
  uint32_t interface = 0;  ///< the kernel's index, or the file's interface number from 1
  LinkLayer link = LinkLayer::ethernet;
  bool hasVlan = false;  ///< the outermost tag was taken off by the device; it stands in `vlanTci`
  uint16_t vlanTci = 0;
};

}  // namespace platform
