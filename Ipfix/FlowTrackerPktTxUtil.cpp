#include "Ipfix/FlowTrackerPktTxUtil.h"

namespace FlowTracking {

void sendPkt4(const Ptr<Pkt>& pkt, const Ptr<UdpPam>& udpPam, IpAddr src, const IpAndPort& dst,
              DscpValue dscp) {
  udpPam->txSrcIpAddrIs(src);
  udpPam->txDstIpAddrIs(dst.addr);
  udpPam->txPortIs(dst.port);
  udpPam->txTosIs(dscp.tos());
  udpPam->txPktIs(pkt);
}

void sendPkt6(const Ptr<Pkt>& pkt, const Ptr<UdpPam>& udpPam, const Ip6Addr& src,
              const Ip6AndPort& dst, DscpValue dscp) {
  udpPam->txSrcIp6AddrIs(src);
  udpPam->txDstIp6AddrIs(dst.addr);
  udpPam->txPortIs(dst.port);
  udpPam->txTosIs(dscp.tos());
  udpPam->txPktIs(pkt);
}

}  // namespace FlowTracking
