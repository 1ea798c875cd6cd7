#pragma once
#include "Ipfix/OptionsTemplate.h"
#include "Ipfix/TemplateSmBase.h"

namespace FlowTracking {

/// Octets of the template's record: its header and field specifiers (RFC 7011, 3.4.2.2).
TARN_API uint32_t getTemplateEntryLength(const OptionsTemplate& optionsTemplate);

/// Sends the agent's options templates to the collectors of one (tracker, exporter) and marks each
/// collector that has been sent them; builds the message anew when the configuration's `version`
/// changes. Each template must have a scope field, and at least as many other fields (asserted).
class TARN_API OptionsTemplateExporterSm final : public TemplateExporterSmBase {
 public:
  OptionsTemplateExporterSm(const std::string& expName, const std::string& ftName, FtId ftId,
                            Ptr<const HwFlowTracking::ExporterConfig> hwExpConfig,
                            Ptr<ExporterInfo> expInfo,
                            Ptr<Tarn::Ipfix::CollectorStatistics> collStats,
                            Ptr<TaskScheduler> taskScheduler,
                            Ptr<const OptionsTemplateConfig> optTemplateConfig);
  ~OptionsTemplateExporterSm() override;
  template <class... A>
  static Ptr<OptionsTemplateExporterSm> OptionsTemplateExporterSmIs(A&&... a) {
    return make<OptionsTemplateExporterSm>(std::forward<A>(a)...);
  }

  std::string taskPrefix() const override { return "optionsTemplateExporterSm"; }
  uint16_t headerSetId() const override { return ::Ipfix::IpfixConst::optionsTemplateSetId(); }
  /// Sets `optTemplateSent` of the collector's entry in `ExporterInfo`, made where it is missing.
  /// The base does not call this for a collector that was removed while it was being sent to, so
  /// this never brings the entry of such a collector back.
  void updateCollectorOnTx(const std::string& collectorName) override {
    expInfo()->collInfoIs(collectorName)->optTemplateSentIs(true);
  }

  const Ptr<const OptionsTemplateConfig>& optTemplateConfig() const { return optTemplateConfig_; }
  /// Octets of all the configuration's template records.
  uint32_t getTemplateLength() const;
  void handleInitialized();
  void handleOptTemplateConfigVersion() { scheduleTemplateCreation_p(); }

  AttrRows attrRows() const override;

 private:
  friend TARN_API uint32_t getTemplateEntryLength(const OptionsTemplate& optionsTemplate);
  class ConfigSm;
  static TemplateRecord record_p(const OptionsTemplate& entry) {
    return {entry.templateId(), &entry.scopeField(), &entry.field()};
  }
  const char* className_p() const override { return "OptionsTemplateExporterSm"; }
  const char* noTemplates_p() const override { return "no options templates to send"; }
  std::vector<TemplateRecord> templates_p() const override;
  void checkField_p(const HwFlowTracking::FtTemplateEntry& entry, bool scope) const override;

  Ptr<const OptionsTemplateConfig> optTemplateConfig_;
  std::unique_ptr<ConfigSm> configSm_;
};
TARN_API Ptr<OptionsTemplateExporterSm> optionsTemplateExporterSmFactory(
    const std::string& expName, const std::string& ftName, FtId ftId,
    Ptr<const HwFlowTracking::ExporterConfig> hwExpConfig, Ptr<ExporterInfo> expInfo,
    Ptr<Tarn::Ipfix::CollectorStatistics> collStats, Ptr<TaskScheduler> taskScheduler,
    Ptr<const OptionsTemplateConfig> optTemplateConfig);

}  // namespace FlowTracking
