#include "platform/linux/UdpMessages.h"

#include <netinet/udp.h>
#include <string.h>

#include <algorithm>

#include "platform/Assert.h"

namespace platform {
namespace {
template <class T>
void addControl(msghdr& hdr, int level, int type, const T& value) {
  auto* c = reinterpret_cast<cmsghdr*>(static_cast<char*>(hdr.msg_control) + hdr.msg_controllen);
  c->cmsg_level = level;
  c->cmsg_type = type;
  c->cmsg_len = CMSG_LEN(sizeof value);
  memcpy(CMSG_DATA(c), &value, sizeof value);
  hdr.msg_controllen += CMSG_SPACE(sizeof value);
}
}  // namespace

Destination destinationOf(const sockaddr_storage& from) {
  if (from.ss_family == AF_INET6) {
    const auto& v6 = reinterpret_cast<const sockaddr_in6&>(from);
    Ip6Addr::Octets octets;
    memcpy(octets.data(), &v6.sin6_addr, octets.size());
    return {Ip6Addr(octets), ntohs(v6.sin6_port)};
  }
  const auto& v4 = reinterpret_cast<const sockaddr_in&>(from);
  return {IpAddr(ntohl(v4.sin_addr.s_addr)), ntohs(v4.sin_port)};
}

in6_addr octetsOf(const Ip6Addr& a) {
  in6_addr out{};
  memcpy(&out, a.octets().data(), sizeof out);
  return out;
}

iovec* Datagram::pieces(iovec* to) const {
  TARN_ASSERT_AS(pkt->bytes() >= len, "a packet under transmission keeps its length");
  auto* octets = const_cast<uint8_t*>(pkt->data());
  const uint32_t headLen = std::min(len, UdpPam::restampLen);
  const bool whole = len >= UdpPam::restampLen
                         ? memcmp(octets, head.data(), UdpPam::restampLen) == 0
                         : memcmp(octets, head.data(), len) == 0;
  if (whole) {
    *to++ = {octets, len};
    return to;
  }
  *to++ = {const_cast<uint8_t*>(head.data()), headLen};
  if (len > headLen) *to++ = {octets + headLen, len - headLen};
  return to;
}

Run runOf(Ring<Datagram>::View queue, size_t at, size_t end, iovec* iov) {
  const Datagram* d = &queue[at];
  const uint32_t len = d->len;
  const uint32_t way = d->way;
  for (uint64_t octets = 0;;) {
    octets += d->len;
    iov = d->pieces(iov);
    ++at;
    if (at == end || d->len < len) return {at, iov, octets, d->len == len};
    d = &queue[at];
    if (d->way != way || d->len > len || d->len == 0) return {at, iov, octets, false};
  }
}

void TxSlot::address(const Way& way, size_t runLen, uint32_t len, msghdr& hdr) {
  memset(&to, 0, sizeof to);
  memset(control.data(), 0, control.size());
  segments = runLen;
  hdr.msg_name = &to;
  hdr.msg_control = control.data();
  hdr.msg_controllen = 0;
  hdr.msg_flags = 0;
  if (way.dst.addr.isIpv6()) {
    to.v6.sin6_family = AF_INET6;
    to.v6.sin6_port = htons(way.dst.port);
    to.v6.sin6_addr = octetsOf(way.dst.addr.ip6Addr());
    hdr.msg_namelen = sizeof to.v6;
    if (!way.src.ip6Addr().isZero()) {
      in6_pktinfo info{};
      info.ipi6_addr = octetsOf(way.src.ip6Addr());
      addControl(hdr, IPPROTO_IPV6, IPV6_PKTINFO, info);
    }
    addControl(hdr, IPPROTO_IPV6, IPV6_TCLASS, static_cast<int>(way.tos));
  } else {
    to.v4.sin_family = AF_INET;
    to.v4.sin_port = htons(way.dst.port);
    to.v4.sin_addr.s_addr = htonl(way.dst.addr.ipAddr().value());
    hdr.msg_namelen = sizeof to.v4;
    if (!way.src.ipAddr().isZero()) {
      in_pktinfo info{};
      info.ipi_spec_dst.s_addr = htonl(way.src.ipAddr().value());
      addControl(hdr, IPPROTO_IP, IP_PKTINFO, info);
    }
  }
  if (runLen > 1) addControl(hdr, SOL_UDP, UDP_SEGMENT, static_cast<uint16_t>(len));
}

RxRoom::RxRoom() {
  for (size_t i = 0; i < batch; ++i) {
    iov[i] = {octets.get() + i * len, len};
    msgs[i] = {};
    msgs[i].msg_hdr.msg_name = &from[i];
    msgs[i].msg_hdr.msg_iov = &iov[i];
    msgs[i].msg_hdr.msg_iovlen = 1;
  }
}

}  // namespace platform
