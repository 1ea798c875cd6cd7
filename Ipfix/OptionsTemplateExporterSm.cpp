#include "Ipfix/OptionsTemplateExporterSm.h"

#include "Ipfix/MessageBuilder.h"
#include "platform/Trace.h"

namespace FlowTracking {

namespace {
constexpr TaskPriority taskPriority = 2;

/// Template id, field count and scope field count (RFC 7011, 3.4.2.2).
class OptionsTemplateHeader : public HeaderView {
 public:
  OptionsTemplateHeader(Ptr<Pkt> pkt, uint32_t offset) : HeaderView(std::move(pkt), offset) {}
  void templateIdIs(uint16_t v) { u16Is(0, v); }
  void fieldCountIs(size_t v) { u16Is(2, static_cast<uint16_t>(v)); }
  void scopeFieldCountIs(size_t v) { u16Is(4, static_cast<uint16_t>(v)); }
  static constexpr uint32_t len = 6;
};
}  // namespace

class OptionsTemplateExporterSm::ConfigSm final : public OptionsTemplateConfig::Watcher {
 public:
  explicit ConfigSm(OptionsTemplateExporterSm& sm) : Watcher(sm.optTemplateConfig_), sm_(sm) {}
  void handleVersion() override { sm_.handleOptTemplateConfigVersion(); }

 private:
  OptionsTemplateExporterSm& sm_;
};

OptionsTemplateExporterSm::OptionsTemplateExporterSm(
    const std::string& expName, const std::string& ftName, FtId ftId,
    Ptr<const HwFlowTracking::ExporterConfig> hwExpConfig, Ptr<ExporterInfo> expInfo,
    Ptr<Tarn::Ipfix::CollectorStatistics> collStats, Ptr<TaskScheduler> taskScheduler,
    Ptr<const OptionsTemplateConfig> optTemplateConfig)
    : TemplateExporterSmBase(expName, ftName, ftId, std::move(hwExpConfig), std::move(expInfo),
                             std::move(collStats), std::move(taskScheduler)),
      optTemplateConfig_(std::move(optTemplateConfig)),
      configSm_(std::make_unique<ConfigSm>(*this)) {
  handleInitialized();
}
OptionsTemplateExporterSm::~OptionsTemplateExporterSm() = default;

std::string OptionsTemplateExporterSm::taskPrefix() const { return "optionsTemplateExporterSm"; }
uint16_t OptionsTemplateExporterSm::headerSetId() const {
  return ::Ipfix::IpfixConst::optionsTemplateSetId();
}
void OptionsTemplateExporterSm::updateCollectorOnTx(const std::string& collectorName) {
  expInfo()->collInfoIs(collectorName)->optTemplateSentIs(true);
}

void OptionsTemplateExporterSm::handleInitialized() {
  handleStartup();
  templateCreationTask_ = taskScheduler_->timerTask(
      taskName_p("TemplateCreationTask"), taskPriority, [this] { handleTemplateCreationTask(); });
  initialized_ = true;
  templateCreationTask_->scheduleIs(Seconds(0));
}
void OptionsTemplateExporterSm::handleOptTemplateConfigVersion() {
  templateCreationTask_->scheduleIs(Seconds(0));
}

uint32_t OptionsTemplateExporterSm::getTemplateLength() const {
  uint32_t len = 0;
  for (const auto& [name, entry] : optTemplateConfig_->templateEntry())
    len += getTemplateEntryLength(*entry);
  return len;
}

void OptionsTemplateExporterSm::handleTemplateCreationTask() {
  const auto say = [this](const auto&... what) {
    trace(TraceLevel::detail, "OptionsTemplateExporterSm::", "handleTemplateCreationTask ",
          traceId(), " ", what...);
  };
  templateLenDelAll();
  if (!startMessage_p(getTemplateLength())) {
    say("no options templates to send");
    return;
  }
  uint32_t offset = 0;
  uint16_t count = 0;
  for (const auto& [name, templateEntry] : optTemplateConfig_->templateEntry()) {
    TARN_ASSERT(templateEntry->scopeFields() > 0);
    TARN_ASSERT(templateEntry->fields() >= templateEntry->scopeFields());
    templateLenIs(templateEntry->templateId(), getTemplateEntryLength(*templateEntry));
    OptionsTemplateHeader header(templatePkt(), offset);
    header.templateIdIs(templateEntry->templateId());
    header.fieldCountIs(templateEntry->scopeFields() + templateEntry->fields());
    header.scopeFieldCountIs(templateEntry->scopeFields());
    offset += OptionsTemplateHeader::len;
    for (const auto& [position, entry] : templateEntry->scopeField()) {
      say("Scope field:", position, ", fieldId:", entry.fieldId().value(),
          ", enterprise:", entry.enterpriseIe());
      offset = addTemplateFieldSpecifier(templatePkt(), offset, entry);
    }
    for (const auto& [position, entry] : templateEntry->field()) {
      say("Field:", position, ", fieldId:", entry.fieldId().value(),
          ", enterprise:", entry.enterpriseIe());
      offset = addTemplateFieldSpecifier(templatePkt(), offset, entry);
    }
    ++count;
  }
  templatePktTemplateCountIs(count);
  finishMessage();
}

Ptr<OptionsTemplateExporterSm> OptionsTemplateExporterSm::OptionsTemplateExporterSmIs(
    const std::string& expName, const std::string& ftName, FtId ftId,
    Ptr<const HwFlowTracking::ExporterConfig> hwExpConfig, Ptr<ExporterInfo> expInfo,
    Ptr<Tarn::Ipfix::CollectorStatistics> collStats, Ptr<TaskScheduler> taskScheduler,
    Ptr<const OptionsTemplateConfig> optTemplateConfig) {
  return Ptr<OptionsTemplateExporterSm>::adopt(new OptionsTemplateExporterSm(
      expName, ftName, ftId, std::move(hwExpConfig), std::move(expInfo), std::move(collStats),
      std::move(taskScheduler), std::move(optTemplateConfig)));
}
Ptr<OptionsTemplateExporterSm> optionsTemplateExporterSmFactory(
    const std::string& expName, const std::string& ftName, FtId ftId,
    Ptr<const HwFlowTracking::ExporterConfig> hwExpConfig, Ptr<ExporterInfo> expInfo,
    Ptr<Tarn::Ipfix::CollectorStatistics> collStats, Ptr<TaskScheduler> taskScheduler,
    Ptr<const OptionsTemplateConfig> optTemplateConfig) {
  return OptionsTemplateExporterSm::OptionsTemplateExporterSmIs(
      expName, ftName, ftId, std::move(hwExpConfig), std::move(expInfo), std::move(collStats),
      std::move(taskScheduler), std::move(optTemplateConfig));
}

}  // namespace FlowTracking
