#pragma once
#include <cstdint>
#include <map>
#include <system_error>

#include "platform/Entity.h"
#include "platform/Ip.h"
#include "platform/Pkt.h"
#include "platform/Values.h"

namespace platform {

/// The platform refused an operation; `code().value()` is the errno, `what()` its text.
class TARN_API ErrnoException : public std::system_error {
 public:
  ErrnoException(int err, const std::string& what)
      : std::system_error(err, std::generic_category(), what) {}
};

/// What an endpoint did since it was made; counts never go down, not even when it reopens.
struct UdpPamCounters {
  uint64_t sent = 0;        ///< datagrams that the kernel took
  uint64_t sentOctets = 0;  ///< their UDP payload
  uint64_t sends = 0;       ///< what they went in: one send takes a run of datagrams of one length
  uint64_t dropped = 0;     ///< datagrams that it refused or that found no room
  uint64_t queued = 0;      ///< waiting for room or their turn now
  uint64_t queuedMax = 0;   ///< the most that ever waited
  /// `dropped` by cause. Besides what the kernel says (ENETUNREACH, EMSGSIZE, EPERM, EINVAL or
  /// ENETUNREACH: the source address is not this host's, ...): ENOBUFS, the endpoint's own queue
  /// was full, or that of the interface (its queueing discipline dropped the datagram); EAGAIN,
  /// still queued when the endpoint closed; ECANCELED, still queued when its destination was taken
  /// away (`txDstDel`); EDESTADDRREQ, no destination address or port; EBADF, out of service.
  std::map<int, uint64_t> dropByErrno;
  /// Of `sent`, datagrams that ICMP messages say were not delivered. Hosts and routers limit how
  /// often they say so: there may be more.
  uint64_t undelivered = 0;
  struct Undelivered {
    uint64_t datagrams = 0;
    int error = 0;  ///< errno of the last
  };
  /// The same by destination, of the first 256 destinations.
  std::map<std::pair<IpGenAddr, uint16_t>, Undelivered> undeliveredByDst;
  uint64_t received = 0;        ///< datagrams that the receive handler was given
  uint64_t receivedOctets = 0;  ///< their UDP payload
  uint64_t rxDropped = 0;       ///< that found no room in the receive buffer, handler or not, or
                                ///< were read and not handed on when the endpoint closed
};

/// How fast an endpoint sends at most. What is beyond waits in its queue.
struct TARN_API RateLimit {
  enum class Unit : uint8_t { hostsChoice, none, octets, messages };
  Unit unit = Unit::hostsChoice;
  uint64_t perSecond = 0;  ///< octets of UDP payload, or datagrams; 1 to 10^12
  /// "default", "none", "125000 octets/s", "8000 messages/s".
  std::string stringValue() const;
  /// Reads those, and "1 Mbit/s", "12.5 MB/s", "8k messages/s": k, M and G are powers of 1000.
  static std::optional<RateLimit> fromString(std::string_view text);
  bool operator==(const RateLimit&) const = default;
};

/// Takes one datagram that arrived: its payload, which is there during the call only, and who sent
/// it. Must not throw.
using RxPktHandler =
    std::function<void(std::string_view datagram, const IpGenAddr& from, uint16_t fromPort)>;

/// One UDP endpoint, unconnected: every datagram carries its own addressing. Order of use:
///
///   pam->netNsIs(ns); pam->ipv6EnIs(v6); pam->txPrioIs(2);   // while out of service
///   pam->modeIs(UdpPam::inService);                            // opens; may throw ErrnoException
///   pam->rxPort();                                            // the bound local port, never 0 now
///   pam->txSrcIpAddrIs(..); pam->txDstIpAddrIs(..); pam->txPortIs(..); pam->txTosIs(..);
///   pam->txPktIs(pkt);
///   pam->rxPktHandlerIs(handler);                              // to hear what arrives at rxPort
///   pam->modeIs(UdpPam::outOfService);                         // closes; so does the destructor
class TARN_API UdpPam : public Entity {
 public:
  enum Mode : uint8_t { outOfService = 0, inService = 1 };
  /// The octets of a packet that its owner may write again once `txPktIs` returned.
  static constexpr uint32_t restampLen = 16;

  virtual const std::string& name() const = 0;

  // Settled before the endpoint goes in service; changing one in service takes effect at the next
  // opening.
  virtual void netNsIs(const NamespaceName& ns) = 0;  ///< empty: the namespace the agent started in
  virtual void ipv6EnIs(bool on) = 0;                 ///< one family per endpoint
  virtual void txPrioIs(uint8_t prio) = 0;            ///< the kernel's traffic-control priority
  virtual void rxIpAddrIs(IpAddr addr) = 0;           ///< local address; zero: any
  virtual void rxIp6AddrIs(const Ip6Addr& addr) = 0;
  virtual void rxPortIs(uint16_t port) = 0;  ///< local port; zero: the kernel chooses

  /// In service: opens and binds the socket in the namespace; throws ErrnoException when refused
  /// (ENOENT: no such namespace; EINVAL: the file is no namespace (yet); EMFILE; EACCES;
  /// EADDRINUSE; EADDRNOTAVAIL) and stays out of service. Out of service: sends what is queued if
  /// the socket takes it at once, then closes.
  virtual void modeIs(Mode mode) = 0;
  virtual Mode mode() const = 0;
  virtual uint8_t txPrio() const = 0;
  virtual uint16_t rxPort() const = 0;  ///< the bound port; out of service what `rxPortIs` said
  virtual int fd() const = 0;           ///< -1 when out of service

  // The next datagram's addressing; each stays until it is set again.
  virtual void txSrcIpAddrIs(IpAddr addr) = 0;
  virtual void txSrcIp6AddrIs(const Ip6Addr& addr) = 0;
  virtual void txDstIpAddrIs(IpAddr addr) = 0;
  virtual void txDstIp6AddrIs(const Ip6Addr& addr) = 0;
  virtual void txPortIs(uint16_t port) = 0;
  virtual void txTosIs(uint8_t tos) = 0;  ///< IPv4 TOS or IPv6 traffic class

  /// Takes effect with the next datagram that leaves. A host that does not pace ignores it.
  virtual void txRateLimitIs(const RateLimit& /*limit*/) {}

  /// Takes the datagram over with the addressing of this moment and returns at once: copies the
  /// first `restampLen` octets and shares the rest, which must not change any more. It leaves in
  /// the order of the calls, when the current task or handler of the agent's loop is over, or,
  /// behind many others, at the host's pace. A socket without room keeps it queued (bounded); any
  /// other refusal drops and counts it; a datagram too large for its path is refused (EMSGSIZE),
  /// never fragmented. Never throws, never blocks.
  virtual void txPktIs(const Ptr<Pkt>& pkt) = 0;

  /// Nobody is there any more: drops what waits for that destination now, at the latest when the
  /// current task is over. What is handed over later is sent. A host without a queue ignores it.
  virtual void txDstDel(const IpGenAddr& /*addr*/, uint16_t /*port*/) {}

  /// While there is a handler, the loop reads what arrives and hands it over, in order, so much per
  /// round that other work gets its turn. Without one (default; null takes it away) nothing is read
  /// and the socket's buffer fills up. The handler may close and drop the endpoint, and replace
  /// itself. A handler stays over closing and opening.
  virtual void rxPktHandlerIs(RxPktHandler handler) = 0;

  virtual const UdpPamCounters& counters() const = 0;
};

}  // namespace platform
