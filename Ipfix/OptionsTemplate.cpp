#include "Ipfix/OptionsTemplate.h"

namespace FlowTracking {

using HwFlowTracking::FtTemplateEntry;

namespace {
constexpr uint32_t recordHeaderLen = 6;  // template id, field count, scope field count
}

FtTemplateEntry& OptionsTemplate::scopeFieldIs(uint32_t position, ::Ipfix::RecordType elementId) {
  return scopeField_[position] = FtTemplateEntry(position, elementId);
}
FtTemplateEntry& OptionsTemplate::fieldIs(uint32_t position, ::Ipfix::RecordType elementId) {
  return field_[position] = FtTemplateEntry(position, elementId);
}
AttrRows OptionsTemplate::attrRows() const {
  static constexpr AttrRow rows[] = {
      row<&OptionsTemplate::name>("name"),
      row<&OptionsTemplate::templateId>("templateId"),
      mapRow<&OptionsTemplate::scopeField>("scopeField"),
      mapRow<&OptionsTemplate::field>("field"),
  };
  return rows;
}

Ptr<OptionsTemplate> OptionsTemplateConfig::templateEntryIs(const std::string& name,
                                                            TemplateId templateId) {
  auto& entry = templateEntry_[name];
  entry = Ptr<OptionsTemplate>::adopt(new OptionsTemplate(name, templateId));
  return entry;
}
namespace {
using TemplateMap =
    const std::map<std::string, Ptr<OptionsTemplate>>& (OptionsTemplateConfig::*)() const;
}
AttrRows OptionsTemplateConfig::attrRows() const {
  using C = OptionsTemplateConfig;
  static constexpr AttrRow rows[] = {
      mapRow<static_cast<TemplateMap>(&C::templateEntry)>("templateEntry"),
      row<&C::version, &C::versionIs>("version"),
  };
  return rows;
}
Ptr<OptionsTemplateConfig> optionsTemplateConfigFactory() {
  return Ptr<OptionsTemplateConfig>::adopt(new OptionsTemplateConfig);
}

uint32_t getTemplateEntryLength(const OptionsTemplate& optionsTemplate) {
  uint32_t len = recordHeaderLen;
  for (const auto* fields : {&optionsTemplate.scopeField(), &optionsTemplate.field()})
    for (const auto& [position, entry] : *fields) len += entry.specifierLen();
  return len;
}

}  // namespace FlowTracking
