#pragma once
#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <compare>
#include <cstdint>
#include <memory>
#include <string>

#include "platform/Ip.h"
#include "platform/Pkt.h"
#include "platform/Ring.h"
#include "platform/UdpPam.h"

/// The datagrams of an endpoint as the kernel takes and gives them: many per system call.
namespace platform {

struct Destination {
  IpGenAddr addr;
  uint16_t port = 0;
  auto operator<=>(const Destination&) const = default;
  std::string stringValue() const {
    return addr.isIpv6() ? Ip6AndPort{addr.ip6Addr(), port}.stringValue()
                         : IpAndPort{addr.ipAddr(), port}.stringValue();
  }
};
/// What a sockaddr_in or sockaddr_in6 says.
Destination destinationOf(const sockaddr_storage& from);
in6_addr octetsOf(const Ip6Addr& a);

/// Where datagrams go, and how.
struct Way {
  IpGenAddr src;
  Destination dst;
  uint8_t tos = 0;
};

struct Datagram {
  Ptr<Pkt> pkt;
  uint32_t len = 0;
  uint32_t way = 0;  // number of its way, modulo 2^32: neighbours of one number go the same way
  std::array<uint8_t, UdpPam::restampLen> head{};

  /// Where its octets are. One piece costs the kernel a tenth less than two, which it takes when
  /// its packet no longer has the beginning that this datagram took over.
  iovec* pieces(iovec* to) const;
};

/// What one send can take of a queue: all to the same place and of one length, but for the last,
/// which may be shorter.
struct Run {
  size_t end;  // behind its last
  iovec* iov;  // behind its pieces
  uint64_t octets;
  bool open;  // one more could join it
};
Run runOf(Ring<Datagram>::View queue, size_t at, size_t end, iovec* iov);

/// What sendmmsg is told of one send: a datagram, or a run of them that the kernel, or the device,
/// cuts into segments of the first one's length.
struct TxSlot {
  /// Of `segments` datagrams, the first of which has `len` octets.
  void address(const Way& way, size_t segments, uint32_t len, msghdr& hdr);

  union {
    sockaddr_in v4;
    sockaddr_in6 v6;
  } to;
  alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(in6_pktinfo)) + CMSG_SPACE(sizeof(int)) +
                                        CMSG_SPACE(sizeof(uint16_t))> control;
  size_t segments;
  uint64_t octets;
};

/// Everything that one system call takes.
struct TxRoom {
  static constexpr size_t batchMax = 128;  // datagrams
  std::array<mmsghdr, batchMax> msgs;
  std::array<TxSlot, batchMax> slots;
  std::array<iovec, 2 * batchMax> iov;
};

/// Where recvmmsg puts datagrams. Pages that no datagram reached cost nothing.
struct RxRoom {
  static constexpr size_t batch = 16;     // datagrams per system call
  static constexpr size_t len = 1 << 16;  // octets: any UDP payload fits
  RxRoom();
  std::unique_ptr<char[]> octets{new char[batch * len]};
  std::array<sockaddr_storage, batch> from;
  std::array<iovec, batch> iov;
  std::array<mmsghdr, batch> msgs;
};

}  // namespace platform
