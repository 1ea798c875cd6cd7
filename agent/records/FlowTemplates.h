#pragma once
#include <string>
#include <vector>

#include "Ipfix/Ipfix.h"
#include "platform/HwFlowTracking.h"

namespace agent {
using namespace platform;

/// The templates of the software flow path's records: one for IPv4 flows, one for IPv6 flows.
inline constexpr FlowTracking::TemplateId ipv4FlowTemplate = 256;
inline constexpr FlowTracking::TemplateId ipv6FlowTemplate = 257;

/// One field as it is wanted; length and enterprise flag come from the element registry.
struct FlowField {
  Ipfix::RecordType element;
  bool key = false;
};

/// Makes a template of fields, positions from 0. What the library takes for granted of a published
/// template is checked here: the id is one of a data set and not reserved, there are fields, and
/// the registry knows each. Otherwise null, and `problem` says what is wrong.
Ptr<HwFlowTracking::TemplateStatus> flowTemplate(FlowTracking::TemplateId id,
                                                 const std::vector<FlowField>& fields,
                                                 const Ipfix::ElementIdColl& registry,
                                                 std::string& problem);

/// Both flow templates, or nothing and the problem.
std::vector<Ptr<HwFlowTracking::TemplateStatus>> flowTemplates(const Ipfix::ElementIdColl& registry,
                                                               std::string& problem);

}  // namespace agent
