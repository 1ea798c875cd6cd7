#include "Ipfix/OptionsTemplateExporterSm.h"

#include "platform/Trace.h"

namespace FlowTracking {

using HwFlowTracking::FtTemplateEntry;

namespace {
TemplateExporterSmBase::TemplateRecord recordOf(const OptionsTemplate& t) {
  return {t.templateId(), &t.scopeField(), &t.field()};
}
}  // namespace

uint32_t getTemplateEntryLength(const OptionsTemplate& optionsTemplate) {
  return recordOf(optionsTemplate).len();
}

std::vector<TemplateExporterSmBase::TemplateRecord> OptionsTemplateExporterSm::templates_p() const {
  std::vector<TemplateRecord> records;
  for (const auto& [name, templateEntry] : optTemplateConfig_->templateEntry()) {
    TARN_ASSERT(templateEntry->scopeFields() > 0);
    TARN_ASSERT(templateEntry->fields() >= templateEntry->scopeFields());
    records.push_back(recordOf(*templateEntry));
  }
  return records;
}
void OptionsTemplateExporterSm::checkField_p(const FtTemplateEntry& entry, bool scope) const {
  traceOf(TraceLevel::detail, "OptionsTemplateExporterSm", "handleTemplateCreationTask", traceId(),
          scope ? "Scope field:" : "Field:", entry.position(),
          ", fieldId:", entry.fieldId().value(), ", enterprise:", entry.enterpriseIe());
}

AttrRows OptionsTemplateExporterSm::attrRows() const {
  static const auto rows =
      rowsWith_p({childRow<&OptionsTemplateExporterSm::optTemplateConfig_>("optTemplateConfig")});
  return rows;
}
Ptr<OptionsTemplateExporterSm> optionsTemplateExporterSmFactory(
    const std::string& expName, const std::string& ftName, FtId ftId,
    Ptr<const HwFlowTracking::ExporterConfig> hwExpConfig, Ptr<ExporterInfo> expInfo,
    Ptr<Tarn::Ipfix::CollectorStatistics> collStats, Ptr<TaskScheduler> taskScheduler,
    Ptr<const OptionsTemplateConfig> optTemplateConfig) {
  return make<OptionsTemplateExporterSm>(expName, ftName, ftId, std::move(hwExpConfig),
                                         std::move(expInfo), std::move(collStats),
                                         std::move(taskScheduler), std::move(optTemplateConfig));
}

}  // namespace FlowTracking
