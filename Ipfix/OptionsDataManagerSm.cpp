#include "Ipfix/OptionsDataManagerSm.h"

#include "platform/Assert.h"
#include "platform/Trace.h"

namespace FlowTracking {

namespace {
/// Makes the reactor of a table: its source in `data`, its update slot, its inputs.
template <class Sm, class... Inputs>
Ptr<Sm> tableSm(std::string_view manager, std::string_view handler, std::string_view id,
                const char* name, const Ptr<OptionsDataSourceColl>& data,
                const Ptr<OptionsDataUpdate>& update, const Inputs&... inputs) {
  TARN_ASSERT(data);
  TARN_ASSERT(update);
  traceOf(TraceLevel::event, manager, handler, id, "source ", name, ", setId: ", Sm::setId());
  auto sm = make<Sm>(data->sourceIs(name, Sm::setId()), update, inputs...);
  sm->setIdValIs(Sm::setId());
  return sm;
}
}  // namespace

// --- FtOptionsDataManagerSm ---

class FtOptionsDataManagerSm::HwFtConfigSm final
    : public NestedReactor<HwFlowTracking::FtConfig, FtOptionsDataManagerSm> {
 public:
  using NestedReactor::NestedReactor;
  void handleExpConfig(const std::string& name) override { sm_.handleExpConfig(name); }
};
class FtOptionsDataManagerSm::FlowTrackerInfoWatcher final
    : public NestedReactor<FlowTrackerInfo, FtOptionsDataManagerSm> {
 public:
  using NestedReactor::NestedReactor;
  void handleExpInfo(const std::string& name) override { sm_.handleExpConfig(name); }
};

FtOptionsDataManagerSm::FtOptionsDataManagerSm(
    std::string ftName, FtId ftId, Ptr<const HwFlowTracking::Config> hwConfig,
    Ptr<const HwFlowTracking::Status> hwStatus, Ptr<const HwFlowTracking::FtConfig> hwFtConfig,
    Ptr<const HwFlowTracking::FtStatus> hwFtStatus, Ptr<FlowTrackerInfo> flowTrackerInfo,
    FlowTrackingType ftrType, Ptr<Tarn::Ipfix::CollectorStatistics> collStats,
    Ptr<OptionsDataContainer> dataContainer, Ptr<TaskScheduler> scheduler)
    : ftName_(std::move(ftName)),
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
      hwFtConfigSm_(std::make_unique<HwFtConfigSm>(hwFtConfig_, *this)),
      flowTrackerInfoSm_(std::make_unique<FlowTrackerInfoWatcher>(flowTrackerInfo_, *this)) {
  handleInitialized();
}
FtOptionsDataManagerSm::~FtOptionsDataManagerSm() = default;
void FtOptionsDataManagerSm::handleRetired() {
  exporterSm_.delAll();
  flowKeySm_->retire();
  flowTrackerTableSm_->retire();
}

void FtOptionsDataManagerSm::initFlowKeySm() {
  TARN_ASSERT_AS(!initialized(), "!initialized()");
  flowKeySm_ =
      tableSm<FlowKeySm>("FtOptionsDataManagerSm", "initFlowKeySm", ftName_, "FlowKey",
                         dataContainer_->data(OptionsDataScope::scopeTracker),
                         dataContainer_->update(OptionsDataScope::scopeTracker), hwFtStatus_);
}
void FtOptionsDataManagerSm::initFlowTrackerTableSm() {
  TARN_ASSERT_AS(!initialized(), "!initialized()");
  flowTrackerTableSm_ = tableSm<FlowTrackerTableSm>(
      "FtOptionsDataManagerSm", "initFlowTrackerTableSm", ftName_, "FlowTrackerTable",
      dataContainer_->data(OptionsDataScope::scopeTracker),
      dataContainer_->update(OptionsDataScope::scopeTracker), hwStatus_, hwFtConfig_, hwFtStatus_,
      ftrType_, scheduler_);
}
void FtOptionsDataManagerSm::handleInitialized() {
  initFlowKeySm();
  initFlowTrackerTableSm();
  initialized_ = true;
  for (const auto& name : keysOf(hwFtConfig_->expConfig())) handleExpConfig(name);
}
void FtOptionsDataManagerSm::handleExpConfig(const std::string& exporterName) {
  TARN_ASSERT_AS(initialized(), "initialized()");
  const auto say = [this](const std::string& name, const char* what) {
    traceOf(TraceLevel::event, "FtOptionsDataManagerSm", "handleExpConfig", name, "for ", ftName_,
            what);
  };
  const std::string name = exporterName;  // a handler may destroy what it refers to
  exporterSm_.reconcile(
      *this, name,
      [&](const OptionsDataExporterSm& sm) {
        return sm.hwExpConfig() == hwFtConfig_->expConfig(name) &&
               sm.expInfo() == flowTrackerInfo_->expInfo(name);
      },
      [&](const std::string&) { say(name, " deleted"); },
      [&](const std::string&) -> Ptr<OptionsDataExporterSm> {
        const auto config = hwFtConfig_->expConfig(name);
        const auto info = flowTrackerInfo_->expInfo(name);
        if (!config || !info) return {};
        say(name, " created");
        return optionsDataExporterSmFactory(name, ftName_, ftId_, hwFtConfig_, config, info,
                                            collStats_, dataContainer_, scheduler_);
      });
}

AttrRows FtOptionsDataManagerSm::attrRows() const {
  using M = FtOptionsDataManagerSm;
  static constexpr AttrRow rows[] = {row<&M::ftName_>("ftName"),
                                     row<&M::ftId_>("ftId"),
                                     refRow<&M::hwConfig_>("hwConfig"),
                                     refRow<&M::hwStatus_>("hwStatus"),
                                     refRow<&M::hwFtConfig_>("hwFtConfig"),
                                     refRow<&M::hwFtStatus_>("hwFtStatus"),
                                     refRow<&M::flowTrackerInfo_>("flowTrackerInfo"),
                                     row<&M::ftrType_>("ftrType"),
                                     refRow<&M::collStats_>("collStats"),
                                     refRow<&M::dataContainer_>("dataContainer"),
                                     refRow<&M::scheduler_>("scheduler"),
                                     childRow<&M::flowKeySm_>("flowKeySm"),
                                     childRow<&M::flowTrackerTableSm_>("flowTrackerTableSm"),
                                     mapRow<&M::exporterSm_>("exporterSm"),
                                     row<&M::initialized_>("initialized")};
  return rows;
}
Ptr<FtOptionsDataManagerSm> ftOptionsDataManagerSmFactory(
    const std::string& ftName, FtId ftId, Ptr<const HwFlowTracking::Config> hwConfig,
    Ptr<const HwFlowTracking::Status> hwStatus, Ptr<const HwFlowTracking::FtConfig> hwFtConfig,
    Ptr<const HwFlowTracking::FtStatus> hwFtStatus, Ptr<FlowTrackerInfo> flowTrackerInfo,
    FlowTrackingType ftrType, Ptr<Tarn::Ipfix::CollectorStatistics> collStats,
    Ptr<OptionsDataContainer> dataContainer, Ptr<TaskScheduler> scheduler) {
  return make<FtOptionsDataManagerSm>(ftName, ftId, std::move(hwConfig), std::move(hwStatus),
                                      std::move(hwFtConfig), std::move(hwFtStatus),
                                      std::move(flowTrackerInfo), ftrType, std::move(collStats),
                                      std::move(dataContainer), std::move(scheduler));
}

// --- OptionsDataManagerSm ---

class OptionsDataManagerSm::HwConfigSm final
    : public NestedReactor<HwFlowTracking::Config, OptionsDataManagerSm> {
 public:
  using NestedReactor::NestedReactor;
  void handleFtConfig(const std::string& name) override { sm_.handleTracker(name); }
};
class OptionsDataManagerSm::HwStatusSm final
    : public NestedReactor<HwFlowTracking::Status, OptionsDataManagerSm> {
 public:
  using NestedReactor::NestedReactor;
  void handleFtStatus(const std::string& name) override { sm_.handleTracker(name); }
};
class OptionsDataManagerSm::FlowTrackingInfoWatcher final
    : public NestedReactor<FlowTrackingInfo, OptionsDataManagerSm> {
 public:
  using NestedReactor::NestedReactor;
  void handleFtInfo(const std::string& name) override { sm_.handleTracker(name); }
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
      hwConfigSm_(std::make_unique<HwConfigSm>(hwConfig_, *this)),
      hwStatusSm_(std::make_unique<HwStatusSm>(hwStatus_, *this)),
      flowTrackingInfoSm_(std::make_unique<FlowTrackingInfoWatcher>(flowTrackingInfo_, *this)) {
  handleInitialized();
}
OptionsDataManagerSm::~OptionsDataManagerSm() = default;
void OptionsDataManagerSm::handleRetired() {
  ftManagerSm_.delAll();
  intfTableSm_->retire();
  vrfTableSm_->retire();
}

void OptionsDataManagerSm::initIntfTableSm() {
  TARN_ASSERT_AS(!initialized(), "!initialized()");
  intfTableSm_ =
      tableSm<InterfaceTableSm>("OptionsDataManagerSm", "initIntfTableSm", {}, "InterfaceTable",
                                dataAll_->globalData(), dataAll_->globalUpdate(), intfIndexMap_);
}
void OptionsDataManagerSm::initVrfTableSm() {
  TARN_ASSERT_AS(!initialized(), "!initialized()");
  vrfTableSm_ =
      tableSm<VrfTableSm>("OptionsDataManagerSm", "initVrfTableSm", {}, "VrfTable",
                          dataAll_->globalData(), dataAll_->globalUpdate(), vrfIdMapStatus_);
}
void OptionsDataManagerSm::handleInitialized() {
  dataAll_ = optionsDataAllFactory();
  dataAll_->globalDataIs(OptionsDataScope::scopeGlobal);
  dataAll_->globalUpdateIs(OptionsDataScope::scopeGlobal);
  initIntfTableSm();
  initVrfTableSm();
  initialized_ = true;
  for (const auto& name : keysOf(hwConfig_->ftConfig())) handleTracker(name);
}
void OptionsDataManagerSm::handleTracker(const std::string& trackerName) {
  TARN_ASSERT_AS(initialized(), "initialized()");
  const auto say = [](const std::string& name, const char* what) {
    traceOf(TraceLevel::event, "OptionsDataManagerSm", "handleTracker", name, what);
  };
  const std::string name = trackerName;  // a handler may destroy what it refers to
  ftManagerSm_.reconcile(
      *this, name,
      [&](const FtOptionsDataManagerSm& sm) {
        if (sm.hwFtConfig() == hwConfig_->ftConfig(name) &&
            sm.hwFtStatus() == hwStatus_->ftStatus(name) &&
            sm.flowTrackerInfo() == flowTrackingInfo_->ftInfo(name))
          return true;
        dataAll_->trackerDataDel(name);  // before its manager, which is deleted next
        return false;
      },
      [&](const std::string&) {
        drop(dataContainer_, name);
        say(name, "deleted");
      },
      [&](const std::string&) -> Ptr<FtOptionsDataManagerSm> {
        const auto config = hwConfig_->ftConfig(name);
        const auto status = hwStatus_->ftStatus(name);
        const auto info = flowTrackingInfo_->ftInfo(name);
        if (!config || !status || !info) return {};
        say(name, "created");
        const auto data = dataAll_->trackerDataIs(name);
        const auto container = optionsDataContainerFactory(name);
        dataContainer_[name] = container;
        container->dataIs(dataAll_->globalData());
        container->dataIs(data->dataIs(OptionsDataScope::scopeTracker));
        container->updateIs(dataAll_->globalUpdate());
        container->updateIs(data->updateIs(OptionsDataScope::scopeTracker));
        return ftOptionsDataManagerSmFactory(name, config->ftId(), hwConfig_, hwStatus_, config,
                                             status, info, flowTrackingInfo_->flowTrackingType(),
                                             collStats_, container, scheduler_);
      });
}

AttrRows OptionsDataManagerSm::attrRows() const {
  using M = OptionsDataManagerSm;
  static constexpr AttrRow rows[] = {refRow<&M::hwConfig_>("hwConfig"),
                                     refRow<&M::hwStatus_>("hwStatus"),
                                     refRow<&M::flowTrackingInfo_>("flowTrackingInfo"),
                                     refRow<&M::intfIndexMap_>("intfIndexMap"),
                                     refRow<&M::vrfIdMapStatus_>("vrfIdMapStatus"),
                                     refRow<&M::collStats_>("collStats"),
                                     refRow<&M::scheduler_>("scheduler"),
                                     childRow<&M::dataAll_>("dataAll"),
                                     childRow<&M::intfTableSm_>("intfTableSm"),
                                     childRow<&M::vrfTableSm_>("vrfTableSm"),
                                     mapRow<&M::dataContainer_>("dataContainer"),
                                     mapRow<&M::ftManagerSm_>("ftManagerSm"),
                                     row<&M::initialized_>("initialized")};
  return rows;
}
Ptr<OptionsDataManagerSm> optionsDataManagerSmFactory(
    Ptr<const HwFlowTracking::Config> hwConfig, Ptr<const HwFlowTracking::Status> hwStatus,
    Ptr<FlowTrackingInfo> flowTrackingInfo, Ptr<const IntfIndexMap> intfIndexMap,
    Ptr<const Vrf::VrfIdMap::Status> vrfIdMapStatus,
    Ptr<Tarn::Ipfix::CollectorStatistics> collStats, Ptr<TaskScheduler> scheduler) {
  return make<OptionsDataManagerSm>(std::move(hwConfig), std::move(hwStatus),
                                    std::move(flowTrackingInfo), std::move(intfIndexMap),
                                    std::move(vrfIdMapStatus), std::move(collStats),
                                    std::move(scheduler));
}

}  // namespace FlowTracking
