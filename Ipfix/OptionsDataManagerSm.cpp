#include "Ipfix/OptionsDataManagerSm.h"

#include "platform/Assert.h"

namespace FlowTracking {

// --- FtOptionsDataManagerSm ---

class FtOptionsDataManagerSm::HwFtConfigSm final : public HwFlowTracking::FtConfig::Watcher {
 public:
  explicit HwFtConfigSm(FtOptionsDataManagerSm& sm) : Watcher(sm.hwFtConfig_), sm_(sm) {}
  void handleExpConfig(const std::string& name) override { sm_.handleExpConfig(name); }

 private:
  FtOptionsDataManagerSm& sm_;
};
class FtOptionsDataManagerSm::FlowTrackerInfoWatcher final : public FlowTrackerInfo::Watcher {
 public:
  explicit FlowTrackerInfoWatcher(FtOptionsDataManagerSm& sm)
      : Watcher(sm.flowTrackerInfo_), sm_(sm) {}
  void handleExpInfo(const std::string& name) override { sm_.handleExpConfig(name); }

 private:
  FtOptionsDataManagerSm& sm_;
};

FtOptionsDataManagerSm::FtOptionsDataManagerSm(
    const std::string& ftName, FtId ftId, Ptr<const HwFlowTracking::Config> hwConfig,
    Ptr<const HwFlowTracking::Status> hwStatus, Ptr<const HwFlowTracking::FtConfig> hwFtConfig,
    Ptr<const HwFlowTracking::FtStatus> hwFtStatus, Ptr<FlowTrackerInfo> flowTrackerInfo,
    FlowTrackingType ftrType, Ptr<Tarn::Ipfix::CollectorStatistics> collStats,
    Ptr<OptionsDataContainer> dataContainer, Ptr<TaskScheduler> scheduler)
    : ftName_(ftName),
      ftId_(ftId),
      hwConfig_(std::move(hwConfig)),
      hwStatus_(std::move(hwStatus)),
      hwFtConfig_(std::move(hwFtConfig)),
      hwFtStatus_(std::move(hwFtStatus)),
      flowTrackerInfo_(std::move(flowTrackerInfo)),
      ftrType_(ftrType),
      collStats_(std::move(collStats)),
      dataContainer_(std::move(dataContainer)),
      scheduler_(std::move(scheduler)),
      hwFtConfigSm_(std::make_unique<HwFtConfigSm>(*this)),
      flowTrackerInfoSm_(std::make_unique<FlowTrackerInfoWatcher>(*this)) {
  handleInitialized();
}
FtOptionsDataManagerSm::~FtOptionsDataManagerSm() = default;

void FtOptionsDataManagerSm::initFlowKeySm() {
  TARN_ASSERT_AS(!initialized(), "!initialized()");
  const auto data = dataContainer_->data().at(OptionsDataScope::scopeTracker);
  TARN_ASSERT(data);
  const auto source = data->sourceIs("FlowKey", FlowKeySm::setId());
  const auto update = dataContainer_->update().at(OptionsDataScope::scopeTracker);
  TARN_ASSERT(update);
  flowKeySm_ = flowKeySmFactory(source, update, hwFtStatus_);
}
void FtOptionsDataManagerSm::initFlowTrackerTableSm() {
  TARN_ASSERT_AS(!initialized(), "!initialized()");
  const auto data = dataContainer_->data().at(OptionsDataScope::scopeTracker);
  TARN_ASSERT(data);
  const auto source = data->sourceIs("FlowTrackerTable", FlowTrackerTableSm::setId());
  const auto update = dataContainer_->update().at(OptionsDataScope::scopeTracker);
  TARN_ASSERT(update);
  flowTrackerTableSm_ = flowTrackerTableSmFactory(source, update, hwStatus_, hwFtConfig_,
                                                  hwFtStatus_, ftrType_, scheduler_);
}
void FtOptionsDataManagerSm::handleInitialized() {
  initFlowKeySm();
  initFlowTrackerTableSm();
  initialized_ = true;
  const auto exporters = hwFtConfig_->expConfig();  // a copy: the loop notifies
  for (const auto& [name, config] : exporters) handleExpConfig(name);
}
void FtOptionsDataManagerSm::handleExpConfig(const std::string& exporterName) {
  TARN_ASSERT_AS(initialized(), "initialized()");
  const std::string name = exporterName;
  const Ptr<const HwFlowTracking::ExporterConfig> config = hwFtConfig_->expConfig(name);
  const auto info = flowTrackerInfo_->expInfo(name);
  if (const auto sm = exporterSm(name);
      sm && (sm->hwExpConfig() != config || sm->expInfo() != info))
    drop(exporterSm_, name);
  if (!config || !info || exporterSm(name)) return;
  exporterSm_[name] = optionsDataExporterSmFactory(name, ftName_, ftId_, hwFtConfig_, config, info,
                                                   collStats_, dataContainer_, scheduler_);
}

namespace {
using ExporterMap =
    const std::map<std::string, Ptr<OptionsDataExporterSm>>& (FtOptionsDataManagerSm::*)() const;
using FtManagerMap =
    const std::map<std::string, Ptr<FtOptionsDataManagerSm>>& (OptionsDataManagerSm::*)() const;
}  // namespace
AttrRows FtOptionsDataManagerSm::attrRows() const {
  using M = FtOptionsDataManagerSm;
  static constexpr AttrRow rows[] = {
      childRow<&M::flowKeySm>("flowKeySm"),
      childRow<&M::flowTrackerTableSm>("flowTrackerTableSm"),
      mapRow<static_cast<ExporterMap>(&M::exporterSm)>("exporterSm"),
      row<&M::initialized>("initialized"),
  };
  return rows;
}
Ptr<FtOptionsDataManagerSm> FtOptionsDataManagerSm::FtOptionsDataManagerSmIs(
    const std::string& ftName, FtId ftId, Ptr<const HwFlowTracking::Config> hwConfig,
    Ptr<const HwFlowTracking::Status> hwStatus, Ptr<const HwFlowTracking::FtConfig> hwFtConfig,
    Ptr<const HwFlowTracking::FtStatus> hwFtStatus, Ptr<FlowTrackerInfo> flowTrackerInfo,
    FlowTrackingType ftrType, Ptr<Tarn::Ipfix::CollectorStatistics> collStats,
    Ptr<OptionsDataContainer> dataContainer, Ptr<TaskScheduler> scheduler) {
  return Ptr<FtOptionsDataManagerSm>::adopt(new FtOptionsDataManagerSm(
      ftName, ftId, std::move(hwConfig), std::move(hwStatus), std::move(hwFtConfig),
      std::move(hwFtStatus), std::move(flowTrackerInfo), ftrType, std::move(collStats),
      std::move(dataContainer), std::move(scheduler)));
}
Ptr<FtOptionsDataManagerSm> ftOptionsDataManagerSmFactory(
    const std::string& ftName, FtId ftId, Ptr<const HwFlowTracking::Config> hwConfig,
    Ptr<const HwFlowTracking::Status> hwStatus, Ptr<const HwFlowTracking::FtConfig> hwFtConfig,
    Ptr<const HwFlowTracking::FtStatus> hwFtStatus, Ptr<FlowTrackerInfo> flowTrackerInfo,
    FlowTrackingType ftrType, Ptr<Tarn::Ipfix::CollectorStatistics> collStats,
    Ptr<OptionsDataContainer> dataContainer, Ptr<TaskScheduler> scheduler) {
  return FtOptionsDataManagerSm::FtOptionsDataManagerSmIs(
      ftName, ftId, std::move(hwConfig), std::move(hwStatus), std::move(hwFtConfig),
      std::move(hwFtStatus), std::move(flowTrackerInfo), ftrType, std::move(collStats),
      std::move(dataContainer), std::move(scheduler));
}

// --- OptionsDataManagerSm ---

class OptionsDataManagerSm::HwConfigSm final : public HwFlowTracking::Config::Watcher {
 public:
  explicit HwConfigSm(OptionsDataManagerSm& sm) : Watcher(sm.hwConfig_), sm_(sm) {}
  void handleFtConfig(const std::string& name) override { sm_.handleTracker(name); }

 private:
  OptionsDataManagerSm& sm_;
};
class OptionsDataManagerSm::HwStatusSm final : public HwFlowTracking::Status::Watcher {
 public:
  explicit HwStatusSm(OptionsDataManagerSm& sm) : Watcher(sm.hwStatus_), sm_(sm) {}
  void handleFtStatus(const std::string& name) override { sm_.handleTracker(name); }

 private:
  OptionsDataManagerSm& sm_;
};
class OptionsDataManagerSm::FlowTrackingInfoWatcher final : public FlowTrackingInfo::Watcher {
 public:
  explicit FlowTrackingInfoWatcher(OptionsDataManagerSm& sm)
      : Watcher(sm.flowTrackingInfo_), sm_(sm) {}
  void handleFtInfo(const std::string& name) override { sm_.handleTracker(name); }

 private:
  OptionsDataManagerSm& sm_;
};

OptionsDataManagerSm::OptionsDataManagerSm(Ptr<const HwFlowTracking::Config> hwConfig,
                                           Ptr<const HwFlowTracking::Status> hwStatus,
                                           Ptr<FlowTrackingInfo> flowTrackingInfo,
                                           Ptr<const IntfIndexMap> intfIndexMap,
                                           Ptr<const Vrf::VrfIdMap::Status> vrfIdMapStatus,
                                           Ptr<Tarn::Ipfix::CollectorStatistics> collStats,
                                           Ptr<TaskScheduler> scheduler)
    : hwConfig_(std::move(hwConfig)),
      hwStatus_(std::move(hwStatus)),
      flowTrackingInfo_(std::move(flowTrackingInfo)),
      intfIndexMap_(std::move(intfIndexMap)),
      vrfIdMapStatus_(std::move(vrfIdMapStatus)),
      collStats_(std::move(collStats)),
      scheduler_(std::move(scheduler)),
      hwConfigSm_(std::make_unique<HwConfigSm>(*this)),
      hwStatusSm_(std::make_unique<HwStatusSm>(*this)),
      flowTrackingInfoSm_(std::make_unique<FlowTrackingInfoWatcher>(*this)) {
  handleInitialized();
}
OptionsDataManagerSm::~OptionsDataManagerSm() = default;

void OptionsDataManagerSm::initIntfTableSm() {
  TARN_ASSERT_AS(!initialized(), "!initialized()");
  const auto data = dataAll_->globalData();
  TARN_ASSERT(data);
  const auto update = dataAll_->globalUpdate();
  TARN_ASSERT(update);
  const auto source = data->sourceIs("InterfaceTable", InterfaceTableSm::setId());
  intfTableSm_ = interfaceTableSmFactory(source, update, intfIndexMap_);
}
void OptionsDataManagerSm::initVrfTableSm() {
  TARN_ASSERT_AS(!initialized(), "!initialized()");
  const auto data = dataAll_->globalData();
  TARN_ASSERT(data);
  const auto update = dataAll_->globalUpdate();
  TARN_ASSERT(update);
  const auto source = data->sourceIs("VrfTable", VrfTableSm::setId());
  vrfTableSm_ = vrfTableSmFactory(source, update, vrfIdMapStatus_);
}
void OptionsDataManagerSm::handleInitialized() {
  dataAll_ = optionsDataAllFactory();
  dataAll_->globalDataIs(OptionsDataScope::scopeGlobal);
  dataAll_->globalUpdateIs(OptionsDataScope::scopeGlobal);
  initIntfTableSm();
  initVrfTableSm();
  initialized_ = true;
  const auto trackers = hwConfig_->ftConfig();  // a copy: the loop notifies
  for (const auto& [name, config] : trackers) handleTracker(name);
}
void OptionsDataManagerSm::handleTracker(const std::string& trackerName) {
  TARN_ASSERT_AS(initialized(), "initialized()");
  const std::string name = trackerName;
  const Ptr<const HwFlowTracking::FtConfig> config = hwConfig_->ftConfig(name);
  const Ptr<const HwFlowTracking::FtStatus> status = hwStatus_->ftStatus(name);
  const auto info = flowTrackingInfo_->ftInfo(name);
  if (const auto sm = ftManagerSm(name);
      sm &&
      (sm->hwFtConfig() != config || sm->hwFtStatus() != status || sm->flowTrackerInfo() != info)) {
    // The manager first: its exporters read what goes after it.
    drop(ftManagerSm_, name);
    dataAll_->trackerDataDel(name);
    drop(dataContainer_, name);
  }
  if (!config || !status || !info || ftManagerSm(name)) return;
  const auto data = dataAll_->trackerDataIs(name);
  if (!data->data()) data->dataIs(OptionsDataScope::scopeTracker);
  if (!data->update()) data->updateIs(OptionsDataScope::scopeTracker);
  auto container = find(dataContainer_, name);
  if (!container) container = dataContainer_[name] = optionsDataContainerFactory(name);
  container->dataIs(dataAll_->globalData());
  container->dataIs(data->data());
  container->updateIs(dataAll_->globalUpdate());
  container->updateIs(data->update());
  ftManagerSm_[name] = ftOptionsDataManagerSmFactory(
      name, config->ftId(), hwConfig_, hwStatus_, config, status, info,
      flowTrackingInfo_->flowTrackingType(), collStats_, container, scheduler_);
}

AttrRows OptionsDataManagerSm::attrRows() const {
  using M = OptionsDataManagerSm;
  static constexpr AttrRow rows[] = {
      childRow<&M::dataAll>("dataAll"),
      childRow<&M::intfTableSm>("intfTableSm"),
      childRow<&M::vrfTableSm>("vrfTableSm"),
      mapRow<&M::dataContainer>("dataContainer"),
      mapRow<static_cast<FtManagerMap>(&M::ftManagerSm)>("ftManagerSm"),
      row<&M::initialized>("initialized"),
  };
  return rows;
}
Ptr<OptionsDataManagerSm> OptionsDataManagerSm::OptionsDataManagerSmIs(
    Ptr<const HwFlowTracking::Config> hwConfig, Ptr<const HwFlowTracking::Status> hwStatus,
    Ptr<FlowTrackingInfo> flowTrackingInfo, Ptr<const IntfIndexMap> intfIndexMap,
    Ptr<const Vrf::VrfIdMap::Status> vrfIdMapStatus,
    Ptr<Tarn::Ipfix::CollectorStatistics> collStats, Ptr<TaskScheduler> scheduler) {
  return Ptr<OptionsDataManagerSm>::adopt(new OptionsDataManagerSm(
      std::move(hwConfig), std::move(hwStatus), std::move(flowTrackingInfo),
      std::move(intfIndexMap), std::move(vrfIdMapStatus), std::move(collStats),
      std::move(scheduler)));
}
Ptr<OptionsDataManagerSm> optionsDataManagerSmFactory(
    Ptr<const HwFlowTracking::Config> hwConfig, Ptr<const HwFlowTracking::Status> hwStatus,
    Ptr<FlowTrackingInfo> flowTrackingInfo, Ptr<const IntfIndexMap> intfIndexMap,
    Ptr<const Vrf::VrfIdMap::Status> vrfIdMapStatus,
    Ptr<Tarn::Ipfix::CollectorStatistics> collStats, Ptr<TaskScheduler> scheduler) {
  return OptionsDataManagerSm::OptionsDataManagerSmIs(
      std::move(hwConfig), std::move(hwStatus), std::move(flowTrackingInfo),
      std::move(intfIndexMap), std::move(vrfIdMapStatus), std::move(collStats),
      std::move(scheduler));
}

}  // namespace FlowTracking
