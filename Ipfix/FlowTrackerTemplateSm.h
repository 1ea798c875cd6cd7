#pragma once
#include <map>
#include <memory>
#include <string>

#include "Ipfix/OptionsTemplate.h"
#include "Ipfix/OptionsTemplateExporterSm.h"
#include "Ipfix/TemplateSmBase.h"
#include "platform/FlowTracking.h"
#include "platform/Reactor.h"

/// Template export: the reactors that keep one data-template exporter and one options-template
/// exporter per configured (tracker, exporter), and the data templates' message.
namespace FlowTracking {

/// Completes the entry from the registry, which must hold the element (asserted).
TARN_API void updateFieldInfo(const Ptr<::Ipfix::ElementIdColl>& eic,
                              HwFlowTracking::FtTemplateEntry* field);
/// Appends one entry at the next position and completes it.
TARN_API void addScopeField(const Ptr<::Ipfix::ElementIdColl>& elementIdColl,
                            const Ptr<OptionsTemplate>& optionsTemplate,
                            ::Ipfix::RecordType elementId);
TARN_API void addField(const Ptr<::Ipfix::ElementIdColl>& elementIdColl,
                       const Ptr<OptionsTemplate>& optionsTemplate, ::Ipfix::RecordType elementId);

/// Sends the tracker's data templates, in ascending id, to the collectors of one exporter; builds
/// the message anew when a template comes, goes or changes its generation.
class TARN_API FtExporterSm final : public TemplateExporterSmBase {
 public:
  /// Watches one template of the tracker.
  class TARN_API TemplateStatusSm final
      : public NestedReactor<HwFlowTracking::TemplateStatus, FtExporterSm> {
   public:
    using NestedReactor::NestedReactor;
    TemplateRecord record() const {
      return {entity()->templateId(), nullptr, &entity()->ftTemplateEntry()};
    }
    /// Octets of the template's record: its header and field specifiers (RFC 7011, 3.4.1).
    uint32_t getTemplateLength() const { return record().len(); }
    void handleGenId() override { sm_.scheduleTemplateCreation_p(); }
  };
  using TemplateStatusMap = std::map<TemplateId, std::unique_ptr<TemplateStatusSm>>;

  FtExporterSm(const std::string& expName, const std::string& ftName, FtId ftId,
               Ptr<const HwFlowTracking::ExporterConfig> hwExpConfig, Ptr<ExporterInfo> expInfo,
               Ptr<Tarn::Ipfix::CollectorStatistics> collStats, Ptr<TaskScheduler> taskScheduler,
               Ptr<const HwFlowTracking::FtStatus> hwFtStatus,
               Ptr<::Ipfix::ElementIdColl> elementIdColl)
      : TemplateExporterSmBase(expName, ftName, ftId, std::move(hwExpConfig), std::move(expInfo),
                               std::move(collStats), std::move(taskScheduler)),
        hwFtStatus_(std::move(hwFtStatus)),
        elementIdColl_(std::move(elementIdColl)),
        ftStatusSm_(hwFtStatus_, *this) {
    handleInitialized();
  }
  template <class... A>
  static Ptr<FtExporterSm> FtExporterSmIs(A&&... a) {
    return make<FtExporterSm>(std::forward<A>(a)...);
  }

  std::string taskPrefix() const override { return "ftExporterSm"; }
  uint16_t headerSetId() const override { return ::Ipfix::IpfixConst::templateSetId(); }

  const Ptr<const HwFlowTracking::FtStatus>& hwFtStatus() const { return hwFtStatus_; }
  const Ptr<::Ipfix::ElementIdColl>& elementIdColl() const { return elementIdColl_; }
  const TemplateStatusMap& templateStatus() const { return templateStatus_; }
  /// Null for a template that the tracker does not have.
  const TemplateStatusSm* templateStatus(TemplateId id) const {
    const auto it = templateStatus_.find(id);
    return it == templateStatus_.end() ? nullptr : it->second.get();
  }
  /// Octets of all template records.
  uint32_t getFtTemplateLength() const { return templatesLen_p(); }
  void handleInitialized();
  void handleTemplateStatus(TemplateId templateId);

  AttrRows attrRows() const override;

 private:
  class FtStatusSm final : public NestedReactor<HwFlowTracking::FtStatus, FtExporterSm> {
   public:
    using NestedReactor::NestedReactor;
    void handleTemplateStatus(TemplateId id) override { sm_.handleTemplateStatus(id); }
  };
  const char* className_p() const override { return "FtExporterSm"; }
  const char* noTemplates_p() const override {
    return "Returning because no flow group configured.";
  }
  std::vector<TemplateRecord> templates_p() const override;
  void checkField_p(const HwFlowTracking::FtTemplateEntry& entry, bool scope) const override;
  const std::map<TemplateId, Ptr<HwFlowTracking::TemplateStatus>>& statuses_p() const {
    return hwFtStatus_->templateStatus();
  }

  Ptr<const HwFlowTracking::FtStatus> hwFtStatus_;
  Ptr<::Ipfix::ElementIdColl> elementIdColl_;
  TemplateStatusMap templateStatus_;
  FtStatusSm ftStatusSm_;
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
  FtTemplateSm(Ptr<const HwFlowTracking::FtConfig> hwFtConfig,
               Ptr<const HwFlowTracking::FtStatus> hwFtStatus, Ptr<FlowTrackerInfo> ftInfo,
               const TemplateSmContext& context);
  ~FtTemplateSm() override;
  template <class... A>
  static Ptr<FtTemplateSm> FtTemplateSmIs(A&&... a) {
    return make<FtTemplateSm>(std::forward<A>(a)...);
  }

  const Ptr<const HwFlowTracking::FtConfig>& hwFtConfig() const { return hwFtConfig_; }
  const Ptr<const HwFlowTracking::FtStatus>& hwFtStatus() const { return hwFtStatus_; }
  const Ptr<FlowTrackerInfo>& ftInfo() const { return ftInfo_; }
  bool initialized() const { return initialized_; }
  const std::map<std::string, Ptr<FtExporterSm>>& ftExporterSm() const {
    return ftExporterSm_.all();
  }
  Ptr<FtExporterSm> ftExporterSm(const std::string& name) const { return ftExporterSm_.find(name); }
  /// Makes and stores the exporter `name`, in place of one that has the name; `a` are the arguments
  /// of its factory behind the name.
  template <class... A>
  void ftExporterSmIs(const std::string& name, A&&... a) {
    ftExporterSm_.put(name, make<FtExporterSm>(name, std::forward<A>(a)...));
  }
  void ftExporterSmDel(const std::string& name) { ftExporterSm_.del(name); }
  void ftExporterSmDelAll() { ftExporterSm_.delAll(); }
  const std::map<std::string, Ptr<OptionsTemplateExporterSm>>& optTemplateExporterSm() const {
    return optTemplateExporterSm_.all();
  }
  Ptr<OptionsTemplateExporterSm> optTemplateExporterSm(const std::string& name) const {
    return optTemplateExporterSm_.find(name);
  }
  template <class... A>
  void optTemplateExporterSmIs(const std::string& name, A&&... a) {
    optTemplateExporterSm_.put(name, make<OptionsTemplateExporterSm>(name, std::forward<A>(a)...));
  }
  void optTemplateExporterSmDel(const std::string& name) { optTemplateExporterSm_.del(name); }
  void optTemplateExporterSmDelAll() { optTemplateExporterSm_.delAll(); }

  void handleInitialized();
  void handleExporters(const std::string& exporterName);
  /// Zeroes the counters of every collector of every exporter.
  void clearCounters();

  AttrRows attrRows() const override;

 private:
  class FtConfigSm;
  class FtInfoSm;
  void handleRetired() override;
  template <class Child, class... A>
  void reconcile_p(ChildMap<Child>& children, const std::string& name, const char* className,
                   const A&... more);

  Ptr<const HwFlowTracking::FtConfig> hwFtConfig_;
  Ptr<const HwFlowTracking::FtStatus> hwFtStatus_;
  Ptr<FlowTrackerInfo> ftInfo_;
  TemplateSmContext context_;
  bool initialized_ = false;
  ChildMap<FtExporterSm> ftExporterSm_;
  ChildMap<OptionsTemplateExporterSm> optTemplateExporterSm_;
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
  TemplateSm(Ptr<const ConfigReq> flowTrackingConfigReq, Ptr<const HwFlowTracking::Config> hwConfig,
             Ptr<const HwFlowTracking::Status> hwStatus, Ptr<FlowTrackingInfo> flowTrackingInfo,
             Ptr<::Ipfix::ElementIdColl> elementIdColl,
             Ptr<Tarn::Ipfix::CollectorStatistics> collStats, Ptr<TaskScheduler> taskScheduler);
  ~TemplateSm() override;
  template <class... A>
  static Ptr<TemplateSm> TemplateSmIs(A&&... a) {
    return make<TemplateSm>(std::forward<A>(a)...);
  }

  const Ptr<const ConfigReq>& flowTrackingConfigReq() const { return flowTrackingConfigReq_; }
  const Ptr<const HwFlowTracking::Config>& hwConfig() const { return hwConfig_; }
  const Ptr<const HwFlowTracking::Status>& hwStatus() const { return hwStatus_; }
  const Ptr<FlowTrackingInfo>& flowTrackingInfo() const { return flowTrackingInfo_; }
  const Ptr<OptionsTemplateConfig>& optTemplateConfig() const { return context_.optTemplateConfig; }
  bool initialized() const { return initialized_; }
  const std::map<std::string, Ptr<FtTemplateSm>>& ftTemplateSm() const {
    return ftTemplateSm_.all();
  }
  Ptr<FtTemplateSm> ftTemplateSm(const std::string& name) const { return ftTemplateSm_.find(name); }
  /// Makes and stores the tracker's reactor, in place of one that has the name; `a` are the
  /// arguments of its factory.
  template <class... A>
  void ftTemplateSmIs(const std::string& name, A&&... a) {
    ftTemplateSm_.put(name, make<FtTemplateSm>(std::forward<A>(a)...));
  }
  void ftTemplateSmDel(const std::string& name) { ftTemplateSm_.del(name); }
  void ftTemplateSmDelAll() { ftTemplateSm_.delAll(); }

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
  void handleRetired() override { ftTemplateSmDelAll(); }

  Ptr<const ConfigReq> flowTrackingConfigReq_;
  Ptr<const HwFlowTracking::Config> hwConfig_;
  Ptr<const HwFlowTracking::Status> hwStatus_;
  Ptr<FlowTrackingInfo> flowTrackingInfo_;
  TemplateSmContext context_;
  bool initialized_ = false;
  ChildMap<FtTemplateSm> ftTemplateSm_;
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
