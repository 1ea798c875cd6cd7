#include "agent/records/FlowTemplates.h"

#include "platform/IpfixTypes.h"

namespace agent {
namespace {
using FlowTracking::TemplateId;
using HwFlowTracking::FtTemplateEntry;
using HwFlowTracking::TemplateStatus;

// Element numbers of IANA's IPFIX registry.
constexpr Ipfix::RecordType octetDeltaCount = 1, packetDeltaCount = 2, protocolIdentifier = 4,
                            ipClassOfService = 5, tcpControlBits = 6, sourceTransportPort = 7,
                            sourceIPv4Address = 8, ingressInterface = 10,
                            destinationTransportPort = 11, destinationIPv4Address = 12,
                            egressInterface = 14, sourceIPv6Address = 27,
                            destinationIPv6Address = 28, flowLabelIPv6 = 31, flowEndReason = 136,
                            vlanId = 58, flowStartMilliseconds = 152, flowEndMilliseconds = 153,
                            ingressVRFID = 234;

std::vector<FlowField> flowFields(Ipfix::RecordType source, Ipfix::RecordType destination) {
  return {{source, true},
          {destination, true},
          {sourceTransportPort, true},
          {destinationTransportPort, true},
          {protocolIdentifier, true},
          {ipClassOfService, true},
          {vlanId, true},
          {ingressInterface, true},
          {ingressVRFID, true},
          {egressInterface},
          {octetDeltaCount},
          {packetDeltaCount},
          {flowStartMilliseconds},
          {flowEndMilliseconds},
          {tcpControlBits},
          {flowEndReason}};
}
}  // namespace

Ptr<TemplateStatus> flowTemplate(TemplateId id, const std::vector<FlowField>& fields,
                                 const Ipfix::ElementIdColl& registry, std::string& problem) {
  const std::string where = "template " + std::to_string(id) + ": ";
  if (id < Ipfix::IpfixConst::firstDataSetId() || FlowTracking::Constants::isReserved(id)) {
    problem = where + "this id is not for data templates";
    return {};
  }
  if (fields.empty()) {
    problem = where + "no fields";
    return {};
  }
  auto status = HwFlowTracking::templateStatusFactory(id);
  uint32_t position = 0;
  for (const FlowField& field : fields) {
    if (!registry.elementIdCollHas(field.element)) {
      problem = where + "element " + field.element.stringValue() + " is not in the registry";
      return {};
    }
    const Ipfix::ElementId& element = registry.elementIdColl(field.element);
    FtTemplateEntry entry(position++, field.element);
    entry.fieldLenIs(static_cast<uint16_t>(element.len()));
    entry.enterpriseIeIs(element.enterpriseIe());
    entry.flowKeyIs(field.key);
    status->ftTemplateEntryIs(entry);
  }
  status->genIdIs(1);
  return status;
}

std::vector<Ptr<TemplateStatus>> flowTemplates(const Ipfix::ElementIdColl& registry,
                                               std::string& problem) {
  auto ipv6Fields = flowFields(sourceIPv6Address, destinationIPv6Address);
  ipv6Fields.push_back({flowLabelIPv6});
  auto ipv4 = flowTemplate(ipv4FlowTemplate, flowFields(sourceIPv4Address, destinationIPv4Address),
                           registry, problem);
  if (!ipv4) return {};
  auto ipv6 = flowTemplate(ipv6FlowTemplate, ipv6Fields, registry, problem);
  if (!ipv6) return {};
  return {ipv4, ipv6};
}

}  // namespace agent
