#include "Ipfix/Ipfix.h"

#include "platform/Trace.h"

namespace Ipfix {

std::string ElementId::stringValue() const {
  return ValueWriter("Ipfix::ElementId")
      .attr("enterpriseIe", enterpriseIe_)
      .attr("id", id_)
      .attr("len", len_)
      .attr("str", str_)
      .str();
}
std::optional<ElementId> ElementId::fromString(std::string_view text) {
  ElementId e;
  ValueReader reader("Ipfix::ElementId", text);
  reader.attr("enterpriseIe", e.enterpriseIe_).attr("id", e.id_).attr("len", e.len_);
  reader.attr("str", e.str_);
  if (!reader.ok()) return std::nullopt;
  return e;
}
std::ostream& operator<<(std::ostream& out, const ElementId& e) { return out << e.stringValue(); }

std::optional<IpfixMsgSeqNo> IpfixMsgSeqNo::fromString(std::string_view text) {
  uint32_t value = 0;
  if (!fromValueText("Ipfix::IpfixMsgSeqNo", text, value)) return std::nullopt;
  return IpfixMsgSeqNo(value);
}
std::ostream& operator<<(std::ostream& out, IpfixMsgSeqNo n) { return out << n.value(); }

ElementId ElementIdColl::elementIdCollDel(RecordType id) {
  ElementId old = elementIdColl(id);
  del(elementIdColl_, id, &Watcher::handleElementIdColl);
  return old;
}
const ElementId& ElementIdColl::elementIdColl(RecordType id) const {
  static const ElementId absent;
  auto it = elementIdColl_.find(id);
  return it == elementIdColl_.end() ? absent : it->second;
}

namespace {
struct ElementRow {
  const char* str;
  uint32_t id;
  uint32_t len;
  bool enterpriseIe;
};
constexpr uint32_t variable = IpfixConst::variableLen();

// Up to 368 IANA's (https://www.iana.org/assignments/ipfix), the lengths full-size; from 1001 on
// the enterprise's own, of which 1029 and 1030 are nevertheless sent without its number.
constexpr ElementRow elementRows[] = {
    {"octetDeltaCount", 1, 8, false},
    {"packetDeltaCount", 2, 8, false},
    {"protocolIdentifier", 4, 1, false},
    {"ipClassOfService", 5, 1, false},
    {"tcpControlBits", 6, 2, false},
    {"sourceTransportPort", 7, 2, false},
    {"innerSourceTransportPort", 1029, 2, false},
    {"sourceIPv4Address", 8, 4, false},
    {"sourceIPv4PrefixLength", 9, 1, false},
    {"ingressInterface", 10, 4, false},
    {"destinationTransportPort", 11, 2, false},
    {"innerDestinationTransportPort", 1030, 2, false},
    {"destinationIPv4Address", 12, 4, false},
    {"destinationIPv4PrefixLength", 13, 1, false},
    {"egressInterface", 14, 4, false},
    {"ipNextHopIPv4Address", 15, 4, false},
    {"bgpSourceAsNumber", 16, 4, false},
    {"bgpDestinationAsNumber", 17, 4, false},
    {"bgpNextHopIPv4Address", 18, 4, false},
    {"sourceIPv6Address", 27, 16, false},
    {"destinationIPv6Address", 28, 16, false},
    {"sourceIPv6PrefixLength", 29, 1, false},
    {"destinationIPv6PrefixLength", 30, 1, false},
    {"flowLabelIPv6", 31, 4, false},
    {"flowActiveTimeout", 36, 2, false},
    {"flowIdleTimeout", 37, 2, false},
    {"sourceMacAddress", 56, 6, false},
    {"postDestinationMacAddress", 57, 6, false},
    {"vlanId", 58, 2, false},
    {"postVlanId", 59, 2, false},
    {"ipNextHopIPv6Address", 62, 16, false},
    {"bgpNextHopIPv6Address", 63, 16, false},
    {"interfaceName", 82, variable, false},
    {"templateId", 145, 2, false},
    {"observationDomainId", 149, 4, false},
    {"flowStartMilliseconds", 152, 8, false},
    {"flowEndMilliseconds", 153, 8, false},
    {"flowEndReason", 136, 1, false},
    {"flowKeyIndicator", 173, 8, false},
    {"paddingOctets", 210, variable, false},
    {"ingressVRFID", 234, 4, false},
    {"VRFname", 236, variable, false},
    {"dot1qVlanId", 243, 2, false},
    {"opaqueOctets", 266, variable, false},
    {"observationDomainName", 300, variable, false},
    {"selectorAlgorithm", 304, 2, false},
    {"samplingSize", 309, 4, false},
    {"samplingPopulation", 310, 4, false},
    {"layer2SegmentId", 351, 8, false},
    {"ingressInterfaceType", 368, 4, false},
    {"flowTrackingType", 1001, 2, true},
    {"tunnelState", 1002, 1, true},
    {"innerSrcIp", 1024, 4, true},
    {"innerDstIp", 1025, 4, true},
    {"innerIpProtocol", 1028, 1, true},
    {"innerSrcIp6", 1026, 16, true},
    {"innerDstIp6", 1027, 16, true},
    {"vorlixBscanExportReason", 1036, 2, true},
    {"vorlixBscanExportFlags", 1037, 1, true},
    {"vorlixBscanTsFlowStart", 1038, 6, true},
    {"vorlixBscanTsFlowEnd", 1039, 6, true},
    {"vorlixBscanTsNewLearn", 1040, 6, true},
    {"vxlanNetworkId", 1041, 3, true},
    {"vorlixBscanTagControl", 1042, 2, true},
    {"vorlixBscanFlowGroupId", 1043, 2, true},
    {"inbandTelemetryPathId", 2000, 4, true},
    {"inbandTelemetryPathNumberOfBytes", 2001, 8, true},
    {"inbandTelemetryPathNumberOfPackets", 2002, 8, true},
    {"inbandTelemetryPathNumberOfNodes", 2003, 1, true},
    {"inbandTelemetryPathOverflowed", 2005, 1, true},
    {"inbandTelemetryAggregationInterval", 2006, 4, true},
    {"inbandTelemetryLastIntervalExportedTimestamp", 2007, 8, true},
    {"inbandTelemetryPathNumberOfIntervals", 2004, 1, true},
    {"inbandTelemetryDeviceId", 2008, 4, true},
    {"inbandTelemetryNodeIngressPort", 2009, 2, true},
    {"inbandTelemetryNodeEgressPort", 2010, 2, true},
    {"inbandTelemetryNodeEgressQueueId", 2011, 4, true},
    {"inbandTelemetryTTL", 2012, 1, true},
    {"inbandTelemetryLastPacketCongestion", 2013, 1, true},
    {"inbandTelemetryLastPacketLatency", 2014, 4, true},
    {"inbandTelemetryIntervalStartTime", 2015, 8, true},
    {"inbandTelemetryIntervalNumberOfBytes", 2017, 8, true},
    {"inbandTelemetryIntervalNumberOfPackets", 2018, 8, true},
    {"inbandTelemetryNodeCongestion", 2019, 1, true},
    {"inbandTelemetryNodeAverageLatency", 2020, 4, true},
    {"inbandTelemetryNodeMaximumLatency", 2021, 4, true},
    {"inbandTelemetryNodeMinimumLatency", 2022, 4, true},
};
static_assert(std::size(elementRows) == 87);
}  // namespace

void ElementIdColl::doInitialize() {
  trace(TraceLevel::event, "ElementIdColl::doInitialize");
  for (const ElementRow& r : elementRows)
    elementIdCollIs(ElementId(r.enterpriseIe, RecordType(r.id), r.len, r.str));
}
AttrRows ElementIdColl::attrRows() const {
  static constexpr AttrRow rows[] = {mapRow<&ElementIdColl::elementIdColl_>("elementIdColl")};
  return rows;
}
Ptr<ElementIdColl> elementIdCollFactory() { return make<ElementIdColl>(); }

AttrRows AgentInfo::attrRows() const {
  static constexpr AttrRow rows[] = {
      row<&AgentInfo::multiThreaded, &AgentInfo::multiThreadedIs>("multiThreaded")};
  return rows;
}
Ptr<AgentInfo> agentInfoFactory() { return make<AgentInfo>(); }

}  // namespace Ipfix
