#pragma once
#include <chrono>
#include <cstddef>
#include <string>

namespace platform {

struct LinuxPlatformOptions {
  /// Where network namespaces are mounted, as `ip netns` does.
  std::string netnsDir = "/run/netns";
  /// Datagrams that one endpoint may hold while its socket is full.
  size_t endpointQueueMax = 1 << 20;
  /// An endpoint without a rate limit of its own sends at most so many datagrams per
  /// `paceInterval`; 0: as fast as the kernel takes them. A full table is
  /// thousands of messages: in one burst they overrun what a collector's socket holds (about 90
  /// messages by default), and nobody would know. 32 in 4 ms are 8000 messages a second.
  unsigned paceBurst = 32;
  std::chrono::nanoseconds paceInterval = std::chrono::milliseconds(4);
  /// Datagrams of one length that one segmented send may take (UDP_SEGMENT); 1: none are segmented.
  size_t segmentsMax = 64;
  /// Octets of the kernel's receive buffer that an endpoint with a handler asks for; the kernel
  /// doubles it for its own needs. 8 MiB hold about 10000 datagrams of 1400 octets, a tenth of a
  /// second of a Gbit/s. Without CAP_NET_ADMIN it is at most net.core.rmem_max.
  int rxBufferSize = 8 << 20;
};

}  // namespace platform
