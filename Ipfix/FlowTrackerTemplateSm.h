#pragma once
#include <map>
#include <memory>
#include <string>

#include "Ipfix/OptionsTemplate.h"
#include "Ipfix/OptionsTemplateExporterSm.h"
#include "Ipfix/TemplateSmBase.h"
#include "platform/FlowTracking.h"

/// Template export: the reactors that keep one data-template exporter and one options-template
/// exporter per configured (tracker, exporter), and the data templates' message.
namespace FlowTracking {

/// Appends one entry at the next position and completes it from the registry, which must hold the
/// element (asserted).
TARN_API void addScopeField(const Ptr<::Ipfix::ElementIdColl>& elementIdColl,
                            const Ptr<OptionsTemplate>& optionsTemplate,
                            ::Ipfix::RecordType elementId);
TARN_API void addField(const Ptr<::Ipfix::ElementIdColl>& elementIdColl,
                       const Ptr<OptionsTemplate>& optionsTemplate, ::Ipfix::RecordType elementId);

/// Sends the tracker's data templates, in ascending id, to the collectors of one exporter; builds
/// the message anew when a template comes, goes or changes its generation.
class TARN_API FtExporterSm final : public TemplateExporterSmBase {
 public:
  static Ptr<FtExporterSm> FtExporterSmIs(
      const std::string& expName, const std::string& ftName, FtId ftId,
      Ptr<const HwFlowTracking::ExporterConfig> hwExpConfig, Ptr<ExporterInfo> expInfo,
      Ptr<Tarn::Ipfix::CollectorStatistics> collStats, Ptr<TaskScheduler> taskScheduler,
      Ptr<const HwFlowTracking::FtStatus> hwFtStatus, Ptr<::Ipfix::ElementIdColl> elementIdColl);
  ~FtExporterSm() override;

  std::string taskPrefix() const override;
  uint16_t headerSetId() const override;

  bool initialized() const { return initialized_; }
  /// The message holds the tracker's templates as they are now. After a change it does not until
  /// the next task.
  bool current() const;
  /// Octets of all template records.
  uint32_t getFtTemplateLength() const;
  /// Octets of one template's record: its header and field specifiers (RFC 7011, 3.4.1).
  static uint32_t getTemplateLength(const HwFlowTracking::TemplateStatus& status);
  void handleInitialized();
  void handleTemplateStatus(TemplateId templateId);

 private:
  class FtStatusSm;
  class TemplateStatusSm;
  FtExporterSm(const std::string& expName, const std::string& ftName, FtId ftId,
               Ptr<const HwFlowTracking::ExporterConfig> hwExpConfig, Ptr<ExporterInfo> expInfo,
               Ptr<Tarn::Ipfix::CollectorStatistics> collStats, Ptr<TaskScheduler> taskScheduler,
               Ptr<const HwFlowTracking::FtStatus> hwFtStatus,
               Ptr<::Ipfix::ElementIdColl> elementIdColl);
  void handleTemplateCreationTask();

  Ptr<const HwFlowTracking::FtStatus> hwFtStatus_;
  Ptr<::Ipfix::ElementIdColl> elementIdColl_;
  bool initialized_ = false;
  std::unique_ptr<TimerTask> templateCreationTask_;
  std::map<TemplateId, std::unique_ptr<TemplateStatusSm>> templateStatus_;
  std::unique_ptr<FtStatusSm> ftStatusSm_;
};
TARN_API Ptr<FtExporterSm> ftExporterSmFactory(
    const std::string& expName, const std::string& ftName, FtId ftId,
    Ptr<const HwFlowTracking::ExporterConfig> hwExpConfig, Ptr<ExporterInfo> expInfo,
    Ptr<Tarn::Ipfix::CollectorStatistics> collStats, Ptr<TaskScheduler> taskScheduler,
    Ptr<const HwFlowTracking::FtStatus> hwFtStatus, Ptr<::Ipfix::ElementIdColl> elementIdColl);

/// What the template reactors share, from the agent.
struct TARN_API TemplateSmContext {
  Ptr<::Ipfix::ElementIdColl> elementIdColl;
  Ptr<OptionsTemplateConfig> optTemplateConfig;
  Ptr<Tarn::Ipfix::CollectorStatistics> collStats;
  Ptr<TaskScheduler> taskScheduler;
};

/// One tracker: both template exporters for each exporter that is configured and has its
/// information.
class TARN_API FtTemplateSm final : public Entity {
 public:
  static Ptr<FtTemplateSm> FtTemplateSmIs(Ptr<const HwFlowTracking::FtConfig> hwFtConfig,
                                          Ptr<const HwFlowTracking::FtStatus> hwFtStatus,
                                          Ptr<FlowTrackerInfo> ftInfo,
                                          const TemplateSmContext& context);
  ~FtTemplateSm() override;

  const Ptr<const HwFlowTracking::FtConfig>& hwFtConfig() const { return hwFtConfig_; }
  const Ptr<const HwFlowTracking::FtStatus>& hwFtStatus() const { return hwFtStatus_; }
  const Ptr<FlowTrackerInfo>& ftInfo() const { return ftInfo_; }
  bool initialized() const { return initialized_; }
  const std::map<std::string, Ptr<FtExporterSm>>& ftExporterSm() const { return ftExporterSm_; }
  Ptr<FtExporterSm> ftExporterSm(const std::string& name) const {
    return find(ftExporterSm_, name);
  }
  void ftExporterSmIs(const std::string& name,
                      const Ptr<const HwFlowTracking::ExporterConfig>& hwExpConfig,
                      const Ptr<ExporterInfo>& expInfo);
  void ftExporterSmDel(const std::string& name) { drop(ftExporterSm_, name); }
  void ftExporterSmDelAll() { dropAll(ftExporterSm_); }
  const std::map<std::string, Ptr<OptionsTemplateExporterSm>>& optTemplateExporterSm() const {
    return optTemplateExporterSm_;
  }
  void optTemplateExporterSmIs(const std::string& name,
                               const Ptr<const HwFlowTracking::ExporterConfig>& hwExpConfig,
                               const Ptr<ExporterInfo>& expInfo);
  void optTemplateExporterSmDel(const std::string& name) { drop(optTemplateExporterSm_, name); }
  void optTemplateExporterSmDelAll() { dropAll(optTemplateExporterSm_); }

  void handleInitialized();
  void handleExporters(const std::string& exporterName);

  AttrRows attrRows() const override;

 private:
  class FtConfigSm;
  class FtInfoSm;
  FtTemplateSm(Ptr<const HwFlowTracking::FtConfig> hwFtConfig,
               Ptr<const HwFlowTracking::FtStatus> hwFtStatus, Ptr<FlowTrackerInfo> ftInfo,
               const TemplateSmContext& context);

  Ptr<const HwFlowTracking::FtConfig> hwFtConfig_;
  Ptr<const HwFlowTracking::FtStatus> hwFtStatus_;
  Ptr<FlowTrackerInfo> ftInfo_;
  TemplateSmContext context_;
  bool initialized_ = false;
  std::map<std::string, Ptr<FtExporterSm>> ftExporterSm_;
  std::map<std::string, Ptr<OptionsTemplateExporterSm>> optTemplateExporterSm_;
  std::unique_ptr<FtConfigSm> ftConfigSm_;
  std::unique_ptr<FtInfoSm> ftInfoSm_;
};
TARN_API Ptr<FtTemplateSm> ftTemplateSmFactory(Ptr<const HwFlowTracking::FtConfig> hwFtConfig,
                                               Ptr<const HwFlowTracking::FtStatus> hwFtStatus,
                                               Ptr<FlowTrackerInfo> ftInfo,
                                               const TemplateSmContext& context);

/// The root of template export: follows the trackers that are configured, have status and have
/// their information, whichever comes last, and owns the agent's options templates.
class TARN_API TemplateSm final : public Entity {
 public:
  static Ptr<TemplateSm> TemplateSmIs(Ptr<const ConfigReq> flowTrackingConfigReq,
                                      Ptr<const HwFlowTracking::Config> hwConfig,
                                      Ptr<const HwFlowTracking::Status> hwStatus,
                                      Ptr<FlowTrackingInfo> flowTrackingInfo,
                                      Ptr<::Ipfix::ElementIdColl> elementIdColl,
                                      Ptr<Tarn::Ipfix::CollectorStatistics> collStats,
                                      Ptr<TaskScheduler> taskScheduler);
  ~TemplateSm() override;

  const Ptr<OptionsTemplateConfig>& optTemplateConfig() const { return context_.optTemplateConfig; }
  bool initialized() const { return initialized_; }
  const std::map<std::string, Ptr<FtTemplateSm>>& ftTemplateSm() const { return ftTemplateSm_; }
  Ptr<FtTemplateSm> ftTemplateSm(const std::string& name) const {
    return find(ftTemplateSm_, name);
  }
  void ftTemplateSmIs(const std::string& name, const Ptr<HwFlowTracking::FtConfig>& hwFtConfig,
                      const Ptr<HwFlowTracking::FtStatus>& hwFtStatus,
                      const Ptr<FlowTrackerInfo>& ftInfo);
  void ftTemplateSmDel(const std::string& name) { drop(ftTemplateSm_, name); }
  void ftTemplateSmDelAll() { dropAll(ftTemplateSm_); }

  void handleInitialized();
  void handleHwFtStatus(const std::string& trackerName);
  void initOptTemplateConfig();
  /// Zeroes the counters of every collector of every exporter.
  void clearCounters();

  AttrRows attrRows() const override;

 private:
  class ConfigReqSm;
  class ConfigSm;
  class StatusSm;
  class InfoSm;
  TemplateSm(Ptr<const ConfigReq> flowTrackingConfigReq, Ptr<const HwFlowTracking::Config> hwConfig,
             Ptr<const HwFlowTracking::Status> hwStatus, Ptr<FlowTrackingInfo> flowTrackingInfo,
             Ptr<::Ipfix::ElementIdColl> elementIdColl,
             Ptr<Tarn::Ipfix::CollectorStatistics> collStats, Ptr<TaskScheduler> taskScheduler);

  Ptr<const ConfigReq> flowTrackingConfigReq_;
  Ptr<const HwFlowTracking::Config> hwConfig_;
  Ptr<const HwFlowTracking::Status> hwStatus_;
  Ptr<FlowTrackingInfo> flowTrackingInfo_;
  TemplateSmContext context_;
  bool initialized_ = false;
  std::map<std::string, Ptr<FtTemplateSm>> ftTemplateSm_;
  std::unique_ptr<ConfigReqSm> configReqSm_;
  std::unique_ptr<ConfigSm> configSm_;
  std::unique_ptr<StatusSm> statusSm_;
  std::unique_ptr<InfoSm> infoSm_;
};
TARN_API Ptr<TemplateSm> templateSmFactory(Ptr<const ConfigReq> flowTrackingConfigReq,
                                           Ptr<const HwFlowTracking::Config> hwConfig,
                                           Ptr<const HwFlowTracking::Status> hwStatus,
                                           Ptr<FlowTrackingInfo> flowTrackingInfo,
                                           Ptr<::Ipfix::ElementIdColl> elementIdColl,
                                           Ptr<Tarn::Ipfix::CollectorStatistics> collStats,
                                           Ptr<TaskScheduler> taskScheduler);

}  // namespace FlowTracking
