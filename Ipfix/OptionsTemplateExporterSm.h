#pragma once
#include "Ipfix/OptionsTemplate.h"
#include "Ipfix/TemplateSmBase.h"
#include "platform/Reactor.h"

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
                            Ptr<const OptionsTemplateConfig> optTemplateConfig)
      : TemplateExporterSmBase(expName, ftName, ftId, std::move(hwExpConfig), std::move(expInfo),
                               std::move(collStats), std::move(taskScheduler)),
        optTemplateConfig_(std::move(optTemplateConfig)),
        configSm_(optTemplateConfig_, *this) {
    handleInitialized();
  }
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
  uint32_t getTemplateLength() const { return templatesLen_p(); }
  void handleInitialized() {
    handleStartup();
    startTemplateCreation_p();
  }
  void handleOptTemplateConfigVersion() { scheduleTemplateCreation_p(); }

  AttrRows attrRows() const override;

 private:
  class ConfigSm final : public NestedReactor<OptionsTemplateConfig, OptionsTemplateExporterSm> {
   public:
    using NestedReactor::NestedReactor;
    void handleVersion() override { sm_.handleOptTemplateConfigVersion(); }
  };
  const char* className_p() const override { return "OptionsTemplateExporterSm"; }
  const char* noTemplates_p() const override { return "no options templates to send"; }
  std::vector<TemplateRecord> templates_p() const override;
  void checkField_p(const HwFlowTracking::FtTemplateEntry& entry, bool scope) const override;

  Ptr<const OptionsTemplateConfig> optTemplateConfig_;
  ConfigSm configSm_;
};
TARN_API Ptr<OptionsTemplateExporterSm> optionsTemplateExporterSmFactory(
    const std::string& expName, const std::string& ftName, FtId ftId,
    Ptr<const HwFlowTracking::ExporterConfig> hwExpConfig, Ptr<ExporterInfo> expInfo,
    Ptr<Tarn::Ipfix::CollectorStatistics> collStats, Ptr<TaskScheduler> taskScheduler,
    Ptr<const OptionsTemplateConfig> optTemplateConfig);

}  // namespace FlowTracking
