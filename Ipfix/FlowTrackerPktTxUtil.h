#pragma once
#include "platform/Ip.h"
#include "platform/Pkt.h"
#include "platform/UdpPam.h"
#include "platform/Values.h"

namespace FlowTracking {

/// Hands one stamped packet to an exporter's endpoint, towards one collector. The endpoint is
/// shared by all collectors of the exporter, so all addressing is set again for each packet.
/// Without result: export over UDP has no delivery confirmation, and what the endpoint could not
/// send stands in its own counters.
inline void sendPkt4(const Ptr<Pkt>& pkt, const Ptr<UdpPam>& udpPam, IpAddr src,
                     const IpAndPort& dst, DscpValue dscp) {
  UdpPam& pam = *udpPam;
  pam.txSrcIpAddrIs(src);
  pam.txDstIpAddrIs(dst.addr);
  pam.txPortIs(dst.port);
  pam.txTosIs(dscp.tos());
  pam.txPktIs(pkt);
}
inline void sendPkt6(const Ptr<Pkt>& pkt, const Ptr<UdpPam>& udpPam, const Ip6Addr& src,
                     const Ip6AndPort& dst, DscpValue dscp) {
  UdpPam& pam = *udpPam;
  pam.txSrcIp6AddrIs(src);
  pam.txDstIp6AddrIs(dst.addr);
  pam.txPortIs(dst.port);
  pam.txTosIs(dscp.tos());
  pam.txPktIs(pkt);
}

}  // namespace FlowTracking
