#pragma once
#include <string>
#include <vector>

#include "Ipfix/Ipfix.h"
#include "agent/records/FlowRecords.h"
#include "platform/HwFlowTracking.h"

namespace agent {
using namespace platform;

/// The software flow path's first template. The ids of a record's layouts follow each other; with
/// other fields a tracker has the next ones, since collectors may hold on to a template.
inline constexpr FlowTracking::TemplateId firstFlowTemplate = 256;
inline constexpr FlowTracking::TemplateId flowTemplateStep = 4;
/// The first template id of the record after the one that begins at `id`.
FlowTracking::TemplateId nextFlowTemplate(FlowTracking::TemplateId id);

/// One field as it is wanted; the enterprise flag comes from the element registry.
struct FlowField {
  Ipfix::RecordType element;
  bool key = false;
  uint16_t len = 0;  ///< 0: as the registry has it
};

/// Makes a template of fields, positions from 0. What the library takes for granted of a published
/// template is checked here: the id is one of a data set and not reserved, there are fields, and
/// the registry knows each. Otherwise null, and `problem` says what is wrong.
Ptr<HwFlowTracking::TemplateStatus> flowTemplate(FlowTracking::TemplateId id,
                                                 const std::vector<FlowField>& fields,
                                                 const Ipfix::ElementIdColl& registry,
                                                 std::string& problem);

/// The templates of a record's layouts, the first place with id `first`; or nothing and the
/// problem.
std::vector<Ptr<HwFlowTracking::TemplateStatus>> flowTemplates(const RecordLayouts& layouts,
                                                               FlowTracking::TemplateId first,
                                                               const Ipfix::ElementIdColl& registry,
                                                               std::string& problem);

}  // namespace agent
