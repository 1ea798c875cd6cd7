#include "Ipfix/OptionsTemplate.h"

namespace FlowTracking {

AttrRows OptionsTemplate::attrRows() const {
  using T = OptionsTemplate;
  static constexpr AttrRow rows[] = {
      row<&T::name_>("name"),
      row<&T::templateId_>("templateId"),
      mapRow<&T::scopeField_>("scopeField"),
      mapRow<&T::field_>("field"),
  };
  return rows;
}
Ptr<OptionsTemplate> optionsTemplateFactory(const std::string& name, TemplateId templateId) {
  return make<OptionsTemplate>(name, templateId);
}

AttrRows OptionsTemplateConfig::attrRows() const {
  using C = OptionsTemplateConfig;
  static constexpr AttrRow rows[] = {
      mapRow<&C::templateEntry_>("templateEntry"),
      row<&C::version, &C::versionIs>("version"),
  };
  return rows;
}
Ptr<OptionsTemplateConfig> optionsTemplateConfigFactory() { return make<OptionsTemplateConfig>(); }

}  // namespace FlowTracking
