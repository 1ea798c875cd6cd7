#include "Ipfix/OptionsTemplateExporterSm.h"

#include "platform/Trace.h"

namespace FlowTracking {

using HwFlowTracking::FtTemplateEntry;

class OptionsTemplateExporterSm::ConfigSm final
    : public NestedReactor<OptionsTemplateConfig, OptionsTemplateExporterSm> {
 public:
  using NestedReactor::NestedReactor;
  void handleVersion() override { sm_.handleOptTemplateConfigVersion(); }
};

OptionsTemplateExporterSm::OptionsTemplateExporterSm(
    const std::string& expName, const std::string& ftName, FtId ftId,
    Ptr<const HwFlowTracking::ExporterConfig> hwExpConfig, Ptr<ExporterInfo> expInfo,
    Ptr<Tarn::Ipfix::CollectorStatistics> collStats, Ptr<TaskScheduler> taskScheduler,
    Ptr<const OptionsTemplateConfig> optTemplateConfig)
    : TemplateExporterSmBase(expName, ftName, ftId, std::move(hwExpConfig), std::move(expInfo),
                             std::move(collStats), std::move(taskScheduler)),
      optTemplateConfig_(std::move(optTemplateConfig)),
      configSm_(std::make_unique<ConfigSm>(optTemplateConfig_, *this)) {
  handleInitialized();
}
OptionsTemplateExporterSm::~OptionsTemplateExporterSm() = default;

void OptionsTemplateExporterSm::handleInitialized() {
  handleStartup();
  startTemplateCreation_p();
}

uint32_t getTemplateEntryLength(const OptionsTemplate& optionsTemplate) {
  return OptionsTemplateExporterSm::record_p(optionsTemplate).len();
}
uint32_t OptionsTemplateExporterSm::getTemplateLength() const {
  uint32_t len = 0;
  for (const auto& [name, entry] : optTemplateConfig_->templateEntry())
    len += getTemplateEntryLength(*entry);
  return len;
}

std::vector<TemplateExporterSmBase::TemplateRecord> OptionsTemplateExporterSm::templates_p() const {
  std::vector<TemplateRecord> records;
  for (const auto& [name, templateEntry] : optTemplateConfig_->templateEntry()) {
    TARN_ASSERT(templateEntry->scopeFields() > 0);
    TARN_ASSERT(templateEntry->fields() >= templateEntry->scopeFields());
    records.push_back(record_p(*templateEntry));
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
