#pragma once
#include <map>
#include <memory>
#include <string>

#include "Ipfix/OptionsDataExporterSm.h"
#include "Ipfix/OptionsDataSourceFlowKeySm.h"
#include "Ipfix/OptionsDataSourceFlowTrackerTableSm.h"
#include "Ipfix/OptionsDataSourceIntfTableSm.h"
#include "Ipfix/OptionsDataSourceVrfTableSm.h"
#include "platform/Reactor.h"

/// Decides which options data sources and exporters exist: two global tables per agent, two tables
/// per tracker, one exporter per exporter of a tracker. Sources are made before the exporters that
/// read them.
namespace FlowTracking {

/// One tracker that is configured, has status and its information.
class TARN_API FtOptionsDataManagerSm final : public Entity {
 public:
  /// `dataContainer` holds a collection and an update slot of scope `scopeTracker` (asserted). The
  /// others may be shared, and none is null but `hwConfig`, which is kept for whoever asks.
  FtOptionsDataManagerSm(std::string ftName, FtId ftId, Ptr<const HwFlowTracking::Config> hwConfig,
                         Ptr<const HwFlowTracking::Status> hwStatus,
                         Ptr<const HwFlowTracking::FtConfig> hwFtConfig,
                         Ptr<const HwFlowTracking::FtStatus> hwFtStatus,
                         Ptr<FlowTrackerInfo> flowTrackerInfo, FlowTrackingType ftrType,
                         Ptr<Tarn::Ipfix::CollectorStatistics> collStats,
                         Ptr<OptionsDataContainer> dataContainer, Ptr<TaskScheduler> scheduler);
  ~FtOptionsDataManagerSm() override;
  template <class... A>
  static Ptr<FtOptionsDataManagerSm> FtOptionsDataManagerSmIs(A&&... a) {
    return make<FtOptionsDataManagerSm>(std::forward<A>(a)...);
  }

  const std::string& ftName() const { return ftName_; }
  FtId ftId() const { return ftId_; }
  const Ptr<const HwFlowTracking::Config>& hwConfig() const { return hwConfig_; }
  const Ptr<const HwFlowTracking::Status>& hwStatus() const { return hwStatus_; }
  const Ptr<const HwFlowTracking::FtConfig>& hwFtConfig() const { return hwFtConfig_; }
  const Ptr<const HwFlowTracking::FtStatus>& hwFtStatus() const { return hwFtStatus_; }
  const Ptr<FlowTrackerInfo>& flowTrackerInfo() const { return flowTrackerInfo_; }
  FlowTrackingType ftrType() const { return ftrType_; }
  const Ptr<Tarn::Ipfix::CollectorStatistics>& collStats() const { return collStats_; }
  const Ptr<OptionsDataContainer>& dataContainer() const { return dataContainer_; }
  const Ptr<TaskScheduler>& scheduler() const { return scheduler_; }
  const Ptr<FlowKeySm>& flowKeySm() const { return flowKeySm_; }
  const Ptr<FlowTrackerTableSm>& flowTrackerTableSm() const { return flowTrackerTableSm_; }
  const std::map<std::string, Ptr<OptionsDataExporterSm>>& exporterSm() const {
    return exporterSm_.all();
  }
  Ptr<OptionsDataExporterSm> exporterSm(const std::string& name) const {
    return exporterSm_.find(name);
  }
  bool initialized() const { return initialized_; }

  /// The constructor calls it, once.
  void handleInitialized();
  void handleExpConfig(const std::string& exporterName);

  AttrRows attrRows() const override;

 private:
  class HwFtConfigSm;
  class FlowTrackerInfoWatcher;
  void handleRetired() override;
  void initFlowKeySm();
  void initFlowTrackerTableSm();

  std::string ftName_;
  FtId ftId_;
  Ptr<const HwFlowTracking::Config> hwConfig_;
  Ptr<const HwFlowTracking::Status> hwStatus_;
  Ptr<const HwFlowTracking::FtConfig> hwFtConfig_;
  Ptr<const HwFlowTracking::FtStatus> hwFtStatus_;
  Ptr<FlowTrackerInfo> flowTrackerInfo_;
  FlowTrackingType ftrType_;
  Ptr<Tarn::Ipfix::CollectorStatistics> collStats_;
  Ptr<OptionsDataContainer> dataContainer_;
  Ptr<TaskScheduler> scheduler_;
  Ptr<FlowKeySm> flowKeySm_;
  Ptr<FlowTrackerTableSm> flowTrackerTableSm_;
  ChildMap<OptionsDataExporterSm> exporterSm_;
  bool initialized_ = false;
  std::unique_ptr<HwFtConfigSm> hwFtConfigSm_;
  std::unique_ptr<FlowTrackerInfoWatcher> flowTrackerInfoSm_;
};
TARN_API Ptr<FtOptionsDataManagerSm> ftOptionsDataManagerSmFactory(
    const std::string& ftName, FtId ftId, Ptr<const HwFlowTracking::Config> hwConfig,
    Ptr<const HwFlowTracking::Status> hwStatus, Ptr<const HwFlowTracking::FtConfig> hwFtConfig,
    Ptr<const HwFlowTracking::FtStatus> hwFtStatus, Ptr<FlowTrackerInfo> flowTrackerInfo,
    FlowTrackingType ftrType, Ptr<Tarn::Ipfix::CollectorStatistics> collStats,
    Ptr<OptionsDataContainer> dataContainer, Ptr<TaskScheduler> scheduler);

/// The root of options data: one per agent and kind of tracking.
class TARN_API OptionsDataManagerSm final : public Entity {
 public:
  OptionsDataManagerSm(Ptr<const HwFlowTracking::Config> hwConfig,
                       Ptr<const HwFlowTracking::Status> hwStatus,
                       Ptr<FlowTrackingInfo> flowTrackingInfo, Ptr<const IntfIndexMap> intfIndexMap,
                       Ptr<const Vrf::VrfIdMap::Status> vrfIdMapStatus,
                       Ptr<Tarn::Ipfix::CollectorStatistics> collStats,
                       Ptr<TaskScheduler> scheduler);
  ~OptionsDataManagerSm() override;
  template <class... A>
  static Ptr<OptionsDataManagerSm> OptionsDataManagerSmIs(A&&... a) {
    return make<OptionsDataManagerSm>(std::forward<A>(a)...);
  }

  const Ptr<const HwFlowTracking::Config>& hwConfig() const { return hwConfig_; }
  const Ptr<const HwFlowTracking::Status>& hwStatus() const { return hwStatus_; }
  const Ptr<FlowTrackingInfo>& flowTrackingInfo() const { return flowTrackingInfo_; }
  const Ptr<const IntfIndexMap>& intfIndexMap() const { return intfIndexMap_; }
  const Ptr<const Vrf::VrfIdMap::Status>& vrfIdMapStatus() const { return vrfIdMapStatus_; }
  const Ptr<Tarn::Ipfix::CollectorStatistics>& collStats() const { return collStats_; }
  const Ptr<TaskScheduler>& scheduler() const { return scheduler_; }
  const Ptr<OptionsDataAll>& dataAll() const { return dataAll_; }
  const Ptr<InterfaceTableSm>& intfTableSm() const { return intfTableSm_; }
  const Ptr<VrfTableSm>& vrfTableSm() const { return vrfTableSm_; }
  const std::map<std::string, Ptr<OptionsDataContainer>>& dataContainer() const {
    return dataContainer_;
  }
  Ptr<OptionsDataContainer> dataContainer(const std::string& name) const {
    return find(dataContainer_, name);
  }
  const std::map<std::string, Ptr<FtOptionsDataManagerSm>>& ftManagerSm() const {
    return ftManagerSm_.all();
  }
  Ptr<FtOptionsDataManagerSm> ftManagerSm(const std::string& name) const {
    return ftManagerSm_.find(name);
  }
  bool initialized() const { return initialized_; }

  /// The constructor calls it, once.
  void handleInitialized();
  void handleTracker(const std::string& trackerName);

  AttrRows attrRows() const override;

 private:
  class HwConfigSm;
  class HwStatusSm;
  class FlowTrackingInfoWatcher;
  void handleRetired() override;
  void initIntfTableSm();
  void initVrfTableSm();

  Ptr<const HwFlowTracking::Config> hwConfig_;
  Ptr<const HwFlowTracking::Status> hwStatus_;
  Ptr<FlowTrackingInfo> flowTrackingInfo_;
  Ptr<const IntfIndexMap> intfIndexMap_;
  Ptr<const Vrf::VrfIdMap::Status> vrfIdMapStatus_;
  Ptr<Tarn::Ipfix::CollectorStatistics> collStats_;
  Ptr<TaskScheduler> scheduler_;
  Ptr<OptionsDataAll> dataAll_;
  Ptr<InterfaceTableSm> intfTableSm_;
  Ptr<VrfTableSm> vrfTableSm_;
  std::map<std::string, Ptr<OptionsDataContainer>> dataContainer_;
  ChildMap<FtOptionsDataManagerSm> ftManagerSm_;
  bool initialized_ = false;
  std::unique_ptr<HwConfigSm> hwConfigSm_;
  std::unique_ptr<HwStatusSm> hwStatusSm_;
  std::unique_ptr<FlowTrackingInfoWatcher> flowTrackingInfoSm_;
};
TARN_API Ptr<OptionsDataManagerSm> optionsDataManagerSmFactory(
    Ptr<const HwFlowTracking::Config> hwConfig, Ptr<const HwFlowTracking::Status> hwStatus,
    Ptr<FlowTrackingInfo> flowTrackingInfo, Ptr<const IntfIndexMap> intfIndexMap,
    Ptr<const Vrf::VrfIdMap::Status> vrfIdMapStatus,
    Ptr<Tarn::Ipfix::CollectorStatistics> collStats, Ptr<TaskScheduler> scheduler);

}  // namespace FlowTracking
