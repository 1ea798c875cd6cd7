#pragma once
#include "Ipfix/OptionsTemplate.h"
#include "Ipfix/TemplateSmBase.h"

namespace FlowTracking {

/// Sends the agent's options templates to the collectors of one (tracker, exporter) and marks each
/// collector that has been sent them.
class TARN_API OptionsTemplateExporterSm final : public TemplateExporterSmBase {
 public:
  static Ptr<OptionsTemplateExporterSm> OptionsTemplateExporterSmIs(
      const std::string& expName, const std::string& ftName, FtId ftId,
      Ptr<const HwFlowTracking::ExporterConfig> hwExpConfig, Ptr<ExporterInfo> expInfo,
      Ptr<Tarn::Ipfix::CollectorStatistics> collStats, Ptr<TaskScheduler> taskScheduler,
      Ptr<const OptionsTemplateConfig> optTemplateConfig);
  ~OptionsTemplateExporterSm() override;

  std::string taskPrefix() const override;
  uint16_t headerSetId() const override;
  void updateCollectorOnTx(const std::string& collectorName) override;

  bool initialized() const { return initialized_; }
  /// Octets of all the configuration's template records.
  uint32_t getTemplateLength() const;
  void handleInitialized();
  void handleOptTemplateConfigVersion();

 private:
  class ConfigSm;
  OptionsTemplateExporterSm(const std::string& expName, const std::string& ftName, FtId ftId,
                            Ptr<const HwFlowTracking::ExporterConfig> hwExpConfig,
                            Ptr<ExporterInfo> expInfo,
                            Ptr<Tarn::Ipfix::CollectorStatistics> collStats,
                            Ptr<TaskScheduler> taskScheduler,
                            Ptr<const OptionsTemplateConfig> optTemplateConfig);
  void handleTemplateCreationTask();

  Ptr<const OptionsTemplateConfig> optTemplateConfig_;
  bool initialized_ = false;
  std::unique_ptr<TimerTask> templateCreationTask_;
  std::unique_ptr<ConfigSm> configSm_;
};
TARN_API Ptr<OptionsTemplateExporterSm> optionsTemplateExporterSmFactory(
    const std::string& expName, const std::string& ftName, FtId ftId,
    Ptr<const HwFlowTracking::ExporterConfig> hwExpConfig, Ptr<ExporterInfo> expInfo,
    Ptr<Tarn::Ipfix::CollectorStatistics> collStats, Ptr<TaskScheduler> taskScheduler,
    Ptr<const OptionsTemplateConfig> optTemplateConfig);

}  // namespace FlowTracking
