#pragma once
#include <map>
#include <memory>
#include <string>

#include "Ipfix/OptionsDataExporterSm.h"
#include "Ipfix/OptionsDataSourceFlowKeySm.h"
#include "Ipfix/OptionsDataSourceFlowTrackerTableSm.h"
#include "Ipfix/OptionsDataSourceIntfTableSm.h"
#include "Ipfix/OptionsDataSourceVrfTableSm.h"

/// Decides which options data sources and exporters exist: two global tables per agent, two tables
/// per tracker, one exporter per exporter of a tracker. Sources are made before the exporters that
/// read them.
namespace FlowTracking {

/// One tracker that is configured, has status and its information.
class TARN_API FtOptionsDataManagerSm final : public Entity {
 public:
  static Ptr<FtOptionsDataManagerSm> FtOptionsDataManagerSmIs(
      const std::string& ftName, FtId ftId, Ptr<const HwFlowTracking::Config> hwConfig,
      Ptr<const HwFlowTracking::Status> hwStatus, Ptr<const HwFlowTracking::FtConfig> hwFtConfig,
      Ptr<const HwFlowTracking::FtStatus> hwFtStatus, Ptr<FlowTrackerInfo> flowTrackerInfo,
      FlowTrackingType ftrType, Ptr<Tarn::Ipfix::CollectorStatistics> collStats,
      Ptr<OptionsDataContainer> dataContainer, Ptr<TaskScheduler> scheduler);
  ~FtOptionsDataManagerSm() override;

  const Ptr<const HwFlowTracking::FtConfig>& hwFtConfig() const { return hwFtConfig_; }
  const Ptr<const HwFlowTracking::FtStatus>& hwFtStatus() const { return hwFtStatus_; }
  const Ptr<FlowTrackerInfo>& flowTrackerInfo() const { return flowTrackerInfo_; }
  const Ptr<FlowKeySm>& flowKeySm() const { return flowKeySm_; }
  const Ptr<FlowTrackerTableSm>& flowTrackerTableSm() const { return flowTrackerTableSm_; }
  const std::map<std::string, Ptr<OptionsDataExporterSm>>& exporterSm() const {
    return exporterSm_;
  }
  Ptr<OptionsDataExporterSm> exporterSm(const std::string& name) const {
    return find(exporterSm_, name);
  }
  bool initialized() const { return initialized_; }

  void handleInitialized();
  void handleExpConfig(const std::string& exporterName);

  AttrRows attrRows() const override;

 private:
  class HwFtConfigSm;
  class FlowTrackerInfoWatcher;
  FtOptionsDataManagerSm(const std::string& ftName, FtId ftId,
                         Ptr<const HwFlowTracking::Config> hwConfig,
                         Ptr<const HwFlowTracking::Status> hwStatus,
                         Ptr<const HwFlowTracking::FtConfig> hwFtConfig,
                         Ptr<const HwFlowTracking::FtStatus> hwFtStatus,
                         Ptr<FlowTrackerInfo> flowTrackerInfo, FlowTrackingType ftrType,
                         Ptr<Tarn::Ipfix::CollectorStatistics> collStats,
                         Ptr<OptionsDataContainer> dataContainer, Ptr<TaskScheduler> scheduler);
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
  std::map<std::string, Ptr<OptionsDataExporterSm>> exporterSm_;
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
  static Ptr<OptionsDataManagerSm> OptionsDataManagerSmIs(
      Ptr<const HwFlowTracking::Config> hwConfig, Ptr<const HwFlowTracking::Status> hwStatus,
      Ptr<FlowTrackingInfo> flowTrackingInfo, Ptr<const IntfIndexMap> intfIndexMap,
      Ptr<const Vrf::VrfIdMap::Status> vrfIdMapStatus,
      Ptr<Tarn::Ipfix::CollectorStatistics> collStats, Ptr<TaskScheduler> scheduler);
  ~OptionsDataManagerSm() override;

  const Ptr<OptionsDataAll>& dataAll() const { return dataAll_; }
  const Ptr<InterfaceTableSm>& intfTableSm() const { return intfTableSm_; }
  const Ptr<VrfTableSm>& vrfTableSm() const { return vrfTableSm_; }
  const std::map<std::string, Ptr<OptionsDataContainer>>& dataContainer() const {
    return dataContainer_;
  }
  const std::map<std::string, Ptr<FtOptionsDataManagerSm>>& ftManagerSm() const {
    return ftManagerSm_;
  }
  Ptr<FtOptionsDataManagerSm> ftManagerSm(const std::string& name) const {
    return find(ftManagerSm_, name);
  }
  bool initialized() const { return initialized_; }

  void handleInitialized();
  void handleTracker(const std::string& trackerName);

  AttrRows attrRows() const override;

 private:
  class HwConfigSm;
  class HwStatusSm;
  class FlowTrackingInfoWatcher;
  OptionsDataManagerSm(Ptr<const HwFlowTracking::Config> hwConfig,
                       Ptr<const HwFlowTracking::Status> hwStatus,
                       Ptr<FlowTrackingInfo> flowTrackingInfo, Ptr<const IntfIndexMap> intfIndexMap,
                       Ptr<const Vrf::VrfIdMap::Status> vrfIdMapStatus,
                       Ptr<Tarn::Ipfix::CollectorStatistics> collStats,
                       Ptr<TaskScheduler> scheduler);
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
  std::map<std::string, Ptr<FtOptionsDataManagerSm>> ftManagerSm_;
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
