#include "agent/records/FlowTemplates.h"

#include "platform/IpfixTypes.h"

namespace agent {
namespace {
using FlowTracking::TemplateId;
using HwFlowTracking::FtTemplateEntry;
using HwFlowTracking::TemplateStatus;
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
    entry.fieldLenIs(field.len > 0 ? field.len : static_cast<uint16_t>(element.len()));
    entry.enterpriseIeIs(element.enterpriseIe());
    entry.flowKeyIs(field.key);
    status->ftTemplateEntryIs(entry);
  }
  status->genIdIs(1);
  return status;
}

std::vector<Ptr<TemplateStatus>> flowTemplates(const RecordLayouts& layouts, TemplateId first,
                                               const Ipfix::ElementIdColl& registry,
                                               std::string& problem) {
  std::vector<Ptr<TemplateStatus>> all;
  for (size_t place = 0; place < layouts.size(); ++place) {
    if (layouts[place].kinds == 0) continue;
    std::vector<FlowField> fields;
    for (const RecordLayout::Field& f : layouts[place].fields)
      fields.push_back({f.field->element, f.key, f.field->len});
    auto one = flowTemplate(static_cast<TemplateId>(first + place), fields, registry, problem);
    if (!one) return {};
    all.push_back(std::move(one));
  }
  return all;
}

TemplateId nextFlowTemplate(TemplateId id) {
  // After 16,000 changes they begin anew; what stood there is long forgotten.
  const auto next = static_cast<TemplateId>(id + flowTemplateStep);
  return FlowTracking::Constants::isReserved(next) ? firstFlowTemplate : next;
}

}  // namespace agent
