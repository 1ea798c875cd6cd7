#include "Ipfix/FlowTrackerInfoSm.h"

#include "platform/Platform.h"
#include "platform/Trace.h"

namespace FlowTracking {

namespace {
/// The kernel's "interactive bulk" band: export yields to control traffic.
constexpr uint8_t trafficControlPrio = 2;
constexpr TaskPriority taskPriority = 2;
/// How soon an endpoint that the host refused is tried again.
constexpr Seconds pamRetryInterval{1.0};
}  // namespace

// --- The information tree ---

AttrRows CollectorInfo::attrRows() const {
  using C = CollectorInfo;
  static constexpr AttrRow rows[] = {
      row<&C::name>("name"),
      row<&C::ipfixMsgSeqNo, &C::ipfixMsgSeqNoIs>("ipfixMsgSeqNo"),
      row<&C::optTemplateSent, &C::optTemplateSentIs>("optTemplateSent"),
  };
  return rows;
}
Ptr<CollectorInfo> collectorInfoFactory(const std::string& name) {
  return Ptr<CollectorInfo>::adopt(new CollectorInfo(name));
}

Ptr<CollectorInfo> ExporterInfo::collInfoIs(const std::string& name) {
  auto info = collInfo(name);
  if (!info) {
    info = collectorInfoFactory(name);
    put(collInfo_, name, info, &Watcher::handleCollInfo);
  }
  return info;
}
namespace {
using CollInfoMap = const std::map<std::string, Ptr<CollectorInfo>>& (ExporterInfo::*)() const;
using ExpInfoMap = const std::map<std::string, Ptr<ExporterInfo>>& (FlowTrackerInfo::*)() const;
using FtInfoMap = const std::map<std::string, Ptr<FlowTrackerInfo>>& (FlowTrackingInfo::*)() const;
}  // namespace
AttrRows ExporterInfo::attrRows() const {
  using E = ExporterInfo;
  static constexpr AttrRow rows[] = {
      row<&E::name>("name"),
      mapRow<static_cast<CollInfoMap>(&E::collInfo)>("collInfo"),
      childRow<&E::udpPam4>("udpPam4"),
      childRow<&E::udpPam6>("udpPam6"),
      row<&E::rxPort4, &E::rxPort4Is>("rxPort4"),
      row<&E::rxPort6, &E::rxPort6Is>("rxPort6"),
  };
  return rows;
}
Ptr<ExporterInfo> exporterInfoFactory(const std::string& name) {
  return Ptr<ExporterInfo>::adopt(new ExporterInfo(name));
}

Ptr<ExporterInfo> FlowTrackerInfo::expInfoIs(const std::string& name) {
  auto info = expInfo(name);
  if (!info) {
    info = exporterInfoFactory(name);
    put(expInfo_, name, info, &Watcher::handleExpInfo);
  }
  return info;
}
AttrRows FlowTrackerInfo::attrRows() const {
  static constexpr AttrRow rows[] = {
      row<&FlowTrackerInfo::name>("name"),
      mapRow<static_cast<ExpInfoMap>(&FlowTrackerInfo::expInfo)>("expInfo"),
  };
  return rows;
}
Ptr<FlowTrackerInfo> flowTrackerInfoFactory(const std::string& name) {
  return Ptr<FlowTrackerInfo>::adopt(new FlowTrackerInfo(name));
}

Ptr<FlowTrackerInfo> FlowTrackingInfo::ftInfoIs(const std::string& name) {
  auto info = ftInfo(name);
  if (!info) {
    info = flowTrackerInfoFactory(name);
    put(ftInfo_, name, info, &Watcher::handleFtInfo);
  }
  return info;
}
AttrRows FlowTrackingInfo::attrRows() const {
  static constexpr AttrRow rows[] = {
      row<&FlowTrackingInfo::flowTrackingType>("flowTrackingType"),
      mapRow<static_cast<FtInfoMap>(&FlowTrackingInfo::ftInfo)>("ftInfo"),
  };
  return rows;
}
Ptr<FlowTrackingInfo> flowTrackingInfoFactory(FlowTrackingType type) {
  return Ptr<FlowTrackingInfo>::adopt(new FlowTrackingInfo(type));
}

// --- ExporterInfoSm ---

class ExporterInfoSm::HwExpConfigSm final : public HwFlowTracking::ExporterConfig::Watcher {
 public:
  explicit HwExpConfigSm(ExporterInfoSm& sm) : Watcher(sm.hwExpConfig_), sm_(sm) {}
  void handleCollectorIpAndPort(const std::string& name) override { sm_.handleCollector(name); }
  void handleCollectorIp6AndPort(const std::string& name) override { sm_.handleCollector(name); }
  void handleSrcIpAddr() override { sm_.handlePam4Management(); }
  void handleSrcIp6Addr() override { sm_.handlePam6Management(); }
  void handleVrfName() override {
    sm_.handlePam4Management();
    sm_.handlePam6Management();
  }
  void handleRateLimit() override {
    for (const auto& pam : {sm_.expInfo_->udpPam4(), sm_.expInfo_->udpPam6()})
      if (pam) pam->txRateLimitIs(entity()->rateLimit());
  }

 private:
  ExporterInfoSm& sm_;
};

class ExporterInfoSm::ExpInfoSm final : public ExporterInfo::Watcher {
 public:
  explicit ExpInfoSm(ExporterInfoSm& sm) : Watcher(sm.expInfo_), sm_(sm) {}
  void handleUdpPam4() override { sm_.handlePam(); }
  void handleUdpPam6() override { sm_.handlePam(); }
  void handleRxPort4() override { sm_.handlePam(); }
  void handleRxPort6() override { sm_.handlePam(); }

 private:
  ExporterInfoSm& sm_;
};

ExporterInfoSm::ExporterInfoSm(FlowTrackingType ftrType, const std::string& ftName,
                               const std::string& expName,
                               Ptr<HwFlowTracking::ExporterConfig> hwExpConfig,
                               Ptr<ExporterInfo> expInfo, Ptr<TaskSchedulerRoot> scheduler,
                               Ptr<::Ipfix::AgentInfo> agentInfo)
    : ftrType_(ftrType),
      ftName_(ftName),
      expName_(expName),
      hwExpConfig_(std::move(hwExpConfig)),
      expInfo_(std::move(expInfo)),
      scheduler_(std::move(scheduler)),
      agentInfo_(std::move(agentInfo)),
      traceId_(ftName + " for " + expName),
      hwExpConfigSm_(std::make_unique<HwExpConfigSm>(*this)),
      expInfoSm_(std::make_unique<ExpInfoSm>(*this)),
      pamRetryTask_(
          scheduler_->taskScheduler()->timerTask("ExporterInfoSmPamRetry-" + ftName + "-" + expName,
                                                 taskPriority, [this] { retryPams_p(); })) {
  handleInitialized();
}
ExporterInfoSm::~ExporterInfoSm() {
  hwExpConfigSm_.reset();  // no handler may run on what is going away
  expInfoSm_.reset();
  handleDestroyed();
}

void ExporterInfoSm::handleInitialized() {
  handlePam4Management();
  handlePam6Management();
  initialized_ = true;
}
void ExporterInfoSm::handleDestroyed() {
  deletePam4();
  deletePam6();
  expInfo_->collInfoDelAll();
  hwExpConfig_->rxPort4Is(0);
  hwExpConfig_->exporter4ReadyIs(false);
  hwExpConfig_->rxPort6Is(0);
  hwExpConfig_->exporter6ReadyIs(false);
}

void ExporterInfoSm::handleCollector(const std::string& name) {
  const auto say = [&](const auto&... what) {
    trace(TraceLevel::event, "ExporterInfoSm::", "handleCollector", " for ", traceId_,
          " for, collector: ", name, " ", what...);
  };
  if (!hwExpConfig_->collectorIpAndPort().contains(name) &&
      !hwExpConfig_->collectorIp6AndPort().contains(name)) {
    say("Deleted sequence number for ", name);
    expInfo_->collInfoDel(name);
  } else if (const auto info = expInfo_->collInfo(name)) {
    say("Using existing collectorInfo for ", name, ", seqNo: ", info->ipfixMsgSeqNo());
  } else {
    say("Initiated sequence number for ", name);
    expInfo_->collInfoIs(name);
  }
}
void ExporterInfoSm::handleCollector4() {
  const auto collectors = hwExpConfig_->collectorIpAndPort();  // a copy: the loop notifies
  for (const auto& [name, dst] : collectors) handleCollector(name);
}
void ExporterInfoSm::handleCollector6() {
  const auto collectors = hwExpConfig_->collectorIp6AndPort();
  for (const auto& [name, dst] : collectors) handleCollector(name);
}

void ExporterInfoSm::handlePam4Management() {
  const Ptr<ExporterInfoSm> hold(this);  // who hears of this may delete the exporter
  deletePam4();
  pam4Problem_.clear();
  if (hwExpConfig_->srcIpAddr().isZero()) return;
  handleCollector4();
  createPam4();
}
void ExporterInfoSm::handlePam6Management() {
  const Ptr<ExporterInfoSm> hold(this);
  deletePam6();
  pam6Problem_.clear();
  if (hwExpConfig_->srcIp6Addr().isZero()) return;
  handleCollector6();
  createPam6();
}

Ptr<UdpPam> ExporterInfoSm::openPam_p(const char* prefix, bool ipv6, std::string& problem) {
  try {
    auto pam = Platform::current().udpPam(prefix + ftName_ + "-" + expName_);
    const NamespaceName ns = namespaceOf(hwExpConfig_->vrfName());
    if (!ns.empty()) pam->netNsIs(ns);
    pam->ipv6EnIs(ipv6);
    pam->txPrioIs(trafficControlPrio);
    pam->txRateLimitIs(hwExpConfig_->rateLimit());
    pam->modeIs(UdpPam::inService);
    problem.clear();
    trace(TraceLevel::event, "ExporterInfoSm::", "Created Pam:", pam->name(),
          ", txPrio:", int{pam->txPrio()}, ", fd:", pam->fd());
    return pam;
  } catch (const ErrnoException& e) {
    trace(TraceLevel::event, "ExporterInfoSm::", " for ", traceId_,
          " Caught ErrnoException:", e.what());
    problem = e.what();
    pamRetryTask_->scheduleLowestIs(pamRetryInterval);
    return {};
  }
}
// The port goes first: when the endpoint appears, readiness finds both.
void ExporterInfoSm::createPam4() {
  const auto pam = openPam_p("udpPam4-", false, pam4Problem_);
  if (!pam) return;
  expInfo_->rxPort4Is(pam->rxPort());
  expInfo_->udpPam4Is(pam);
}
void ExporterInfoSm::createPam6() {
  const auto pam = openPam_p("udpPam6-", true, pam6Problem_);
  if (!pam) return;
  expInfo_->rxPort6Is(pam->rxPort());
  expInfo_->udpPam6Is(pam);
}
void ExporterInfoSm::deletePam4() {
  if (expInfo_->udpPam4()) expInfo_->udpPam4()->modeIs(UdpPam::outOfService);
  expInfo_->udpPam4Is(nullptr);
  expInfo_->rxPort4Is(0);
}
void ExporterInfoSm::deletePam6() {
  if (expInfo_->udpPam6()) expInfo_->udpPam6()->modeIs(UdpPam::outOfService);
  expInfo_->udpPam6Is(nullptr);
  expInfo_->rxPort6Is(0);
}
void ExporterInfoSm::retryPams_p() {
  if (!expInfo_->udpPam4()) handlePam4Management();
  if (!expInfo_->udpPam6()) handlePam6Management();
}

void ExporterInfoSm::handlePam() {
  const Ptr<ExporterInfoSm> hold(this);
  trace(TraceLevel::detail, "ExporterInfoSm::", "handlePam", " for ", traceId_,
        " exporter4Resolved: ", !hwExpConfig_->srcIpAddr().isZero(),
        ", rxPort4: ", expInfo_->rxPort4(), ", pam4 exists: ", bool{expInfo_->udpPam4()},
        ", rxPort6: ", expInfo_->rxPort6(), ", pam6 exists: ", bool{expInfo_->udpPam6()},
        ", multiThreaded: ", agentInfo_->multiThreaded());
  if (expInfo_->udpPam4() && expInfo_->rxPort4() != 0) {
    hwExpConfig_->rxPort4Is(expInfo_->rxPort4());
    hwExpConfig_->exporter4ReadyIs(true);
  } else {
    hwExpConfig_->exporter4ReadyIs(false);
    hwExpConfig_->rxPort4Is(0);
  }
  if (expInfo_->udpPam6() && expInfo_->rxPort6() != 0) {
    hwExpConfig_->rxPort6Is(expInfo_->rxPort6());
    hwExpConfig_->exporter6ReadyIs(true);
  } else {
    hwExpConfig_->exporter6ReadyIs(false);
    hwExpConfig_->rxPort6Is(0);
  }
}

AttrRows ExporterInfoSm::attrRows() const {
  static constexpr AttrRow rows[] = {
      row<&ExporterInfoSm::traceId>("traceId"),
      row<&ExporterInfoSm::initialized>("initialized"),
      row<&ExporterInfoSm::pam4Problem>("pam4Problem"),
      row<&ExporterInfoSm::pam6Problem>("pam6Problem"),
      childRow<&ExporterInfoSm::expInfo>("expInfo"),
      childRow<&ExporterInfoSm::hwExpConfig>("hwExpConfig"),
  };
  return rows;
}
Ptr<ExporterInfoSm> ExporterInfoSm::ExporterInfoSmIs(
    FlowTrackingType ftrType, const std::string& ftName, const std::string& expName,
    Ptr<HwFlowTracking::ExporterConfig> hwExpConfig, Ptr<ExporterInfo> expInfo,
    Ptr<TaskSchedulerRoot> scheduler, Ptr<::Ipfix::AgentInfo> agentInfo) {
  return Ptr<ExporterInfoSm>::adopt(new ExporterInfoSm(ftrType, ftName, expName,
                                                       std::move(hwExpConfig), std::move(expInfo),
                                                       std::move(scheduler), std::move(agentInfo)));
}
Ptr<ExporterInfoSm> exporterInfoSmFactory(FlowTrackingType ftrType, const std::string& ftName,
                                          const std::string& expName,
                                          Ptr<HwFlowTracking::ExporterConfig> hwExpConfig,
                                          Ptr<ExporterInfo> expInfo,
                                          Ptr<TaskSchedulerRoot> scheduler,
                                          Ptr<::Ipfix::AgentInfo> agentInfo) {
  return ExporterInfoSm::ExporterInfoSmIs(ftrType, ftName, expName, std::move(hwExpConfig),
                                          std::move(expInfo), std::move(scheduler),
                                          std::move(agentInfo));
}

// --- FlowTrackerInfoSm ---

class FlowTrackerInfoSm::HwFtConfigSm final : public HwFlowTracking::FtConfig::Watcher {
 public:
  explicit HwFtConfigSm(FlowTrackerInfoSm& sm) : Watcher(sm.hwFtConfig_), sm_(sm) {}
  void handleExpConfig(const std::string& name) override { sm_.handleHwExpConfig(name); }

 private:
  FlowTrackerInfoSm& sm_;
};

FlowTrackerInfoSm::FlowTrackerInfoSm(FlowTrackingType ftrType, const std::string& ftName,
                                     Ptr<HwFlowTracking::FtConfig> hwFtConfig,
                                     Ptr<FlowTrackerInfo> ftInfo, Ptr<TaskSchedulerRoot> scheduler,
                                     Ptr<::Ipfix::AgentInfo> agentInfo)
    : ftrType_(ftrType),
      ftName_(ftName),
      hwFtConfig_(std::move(hwFtConfig)),
      ftInfo_(std::move(ftInfo)),
      scheduler_(std::move(scheduler)),
      agentInfo_(std::move(agentInfo)),
      hwFtConfigSm_(std::make_unique<HwFtConfigSm>(*this)) {
  handleInitialized();
}
FlowTrackerInfoSm::~FlowTrackerInfoSm() {
  hwFtConfigSm_.reset();
  expInfoSmDelAll();
}

void FlowTrackerInfoSm::handleInitialized() {
  const auto exporters = hwFtConfig_->expConfig();  // a copy: the loop notifies
  for (const auto& [name, config] : exporters) handleHwExpConfig(name);
  initialized_ = true;
}
void FlowTrackerInfoSm::handleHwExpConfig(const std::string& exporterName) {
  const std::string name = exporterName;
  const auto config = hwFtConfig_->expConfig(name);
  const auto sm = expInfoSm(name);
  if (sm && sm->hwExpConfig() != config) {  // gone, or another exporter took the name
    expInfoSmDel(name);
    ftInfo_->expInfoDel(name);
    trace(TraceLevel::event, "FlowTrackerInfoSm::", "handleHwExpConfig", " for ", ftName_,
          " Deleted ExporterInfoSm for ", name);
  }
  if (!config) return;
  const auto info = ftInfo_->expInfoIs(name);
  if (expInfoSm(name)) return;
  expInfoSmIs(ftrType_, ftName_, name, config, info, scheduler_, agentInfo_);
  trace(TraceLevel::event, "FlowTrackerInfoSm::", "handleHwExpConfig", " for ", ftName_,
        " Created ExporterInfoSm for ", name);
}
Ptr<ExporterInfoSm> FlowTrackerInfoSm::expInfoSmIs(
    FlowTrackingType ftrType, const std::string& ftName, const std::string& expName,
    Ptr<HwFlowTracking::ExporterConfig> hwExpConfig, Ptr<ExporterInfo> expInfo,
    Ptr<TaskSchedulerRoot> scheduler, Ptr<::Ipfix::AgentInfo> agentInfo) {
  auto sm = exporterInfoSmFactory(ftrType, ftName, expName, std::move(hwExpConfig),
                                  std::move(expInfo), std::move(scheduler), std::move(agentInfo));
  expInfoSm_[expName] = sm;
  return sm;
}
void FlowTrackerInfoSm::expInfoSmDel(const std::string& name) { drop(expInfoSm_, name); }
void FlowTrackerInfoSm::expInfoSmDelAll() { dropAll(expInfoSm_); }

AttrRows FlowTrackerInfoSm::attrRows() const {
  static constexpr AttrRow rows[] = {
      row<&FlowTrackerInfoSm::initialized>("initialized"),
      mapRow<&FlowTrackerInfoSm::expInfoSms>("expInfoSm"),
  };
  return rows;
}
Ptr<FlowTrackerInfoSm> FlowTrackerInfoSm::FlowTrackerInfoSmIs(
    FlowTrackingType ftrType, const std::string& ftName, Ptr<HwFlowTracking::FtConfig> hwFtConfig,
    Ptr<FlowTrackerInfo> ftInfo, Ptr<TaskSchedulerRoot> scheduler,
    Ptr<::Ipfix::AgentInfo> agentInfo) {
  return Ptr<FlowTrackerInfoSm>::adopt(
      new FlowTrackerInfoSm(ftrType, ftName, std::move(hwFtConfig), std::move(ftInfo),
                            std::move(scheduler), std::move(agentInfo)));
}
Ptr<FlowTrackerInfoSm> flowTrackerInfoSmFactory(FlowTrackingType ftrType, const std::string& ftName,
                                                Ptr<HwFlowTracking::FtConfig> hwFtConfig,
                                                Ptr<FlowTrackerInfo> ftInfo,
                                                Ptr<TaskSchedulerRoot> scheduler,
                                                Ptr<::Ipfix::AgentInfo> agentInfo) {
  return FlowTrackerInfoSm::FlowTrackerInfoSmIs(ftrType, ftName, std::move(hwFtConfig),
                                                std::move(ftInfo), std::move(scheduler),
                                                std::move(agentInfo));
}

// --- FlowTrackingInfoSm ---

class FlowTrackingInfoSm::HwConfigSm final : public HwFlowTracking::Config::Watcher {
 public:
  explicit HwConfigSm(FlowTrackingInfoSm& sm) : Watcher(sm.hwConfig_), sm_(sm) {}
  void handleFtConfig(const std::string& name) override { sm_.handleHwFtConfig(name); }

 private:
  FlowTrackingInfoSm& sm_;
};

FlowTrackingInfoSm::FlowTrackingInfoSm(Ptr<TaskSchedulerRoot> scheduler,
                                       Ptr<HwFlowTracking::Config> hwConfig,
                                       Ptr<FlowTrackingInfo> flowTrackingInfo,
                                       Ptr<::Ipfix::AgentInfo> agentInfo)
    : scheduler_(std::move(scheduler)),
      hwConfig_(std::move(hwConfig)),
      flowTrackingInfo_(std::move(flowTrackingInfo)),
      agentInfo_(std::move(agentInfo)),
      hwConfigSm_(std::make_unique<HwConfigSm>(*this)) {
  handleInitialized();
}
FlowTrackingInfoSm::~FlowTrackingInfoSm() {
  hwConfigSm_.reset();
  ftInfoSmDelAll();
}

void FlowTrackingInfoSm::handleInitialized() {
  const auto trackers = hwConfig_->ftConfig();  // a copy: the loop notifies
  for (const auto& [name, config] : trackers) handleHwFtConfig(name);
  initialized_ = true;
}
void FlowTrackingInfoSm::handleHwFtConfig(const std::string& trackerName) {
  const std::string name = trackerName;
  const auto config = hwConfig_->ftConfig(name);
  const auto sm = ftInfoSm(name);
  if (sm && sm->hwFtConfig() != config) {  // gone, or another tracker took the name
    ftInfoSmDel(name);
    flowTrackingInfo_->ftInfoDel(name);
    trace(TraceLevel::event, "FlowTrackingInfoSm::", "handleHwFtConfig",
          " Deleted FlowTrackerInfoSm for ", name);
  }
  if (!config) return;
  const auto info = flowTrackingInfo_->ftInfoIs(name);
  if (ftInfoSm(name)) return;
  ftInfoSmIs(flowTrackingInfo_->flowTrackingType(), name, config, info, scheduler_, agentInfo_);
  trace(TraceLevel::event, "FlowTrackingInfoSm::", "handleHwFtConfig",
        " Created FlowTrackerInfoSm for ", name);
}
Ptr<FlowTrackerInfoSm> FlowTrackingInfoSm::ftInfoSmIs(FlowTrackingType ftrType,
                                                      const std::string& ftName,
                                                      Ptr<HwFlowTracking::FtConfig> hwFtConfig,
                                                      Ptr<FlowTrackerInfo> ftInfo,
                                                      Ptr<TaskSchedulerRoot> scheduler,
                                                      Ptr<::Ipfix::AgentInfo> agentInfo) {
  auto sm = flowTrackerInfoSmFactory(ftrType, ftName, std::move(hwFtConfig), std::move(ftInfo),
                                     std::move(scheduler), std::move(agentInfo));
  ftInfoSm_[ftName] = sm;
  return sm;
}
void FlowTrackingInfoSm::ftInfoSmDel(const std::string& name) { drop(ftInfoSm_, name); }
void FlowTrackingInfoSm::ftInfoSmDelAll() { dropAll(ftInfoSm_); }

AttrRows FlowTrackingInfoSm::attrRows() const {
  static constexpr AttrRow rows[] = {
      row<&FlowTrackingInfoSm::initialized>("initialized"),
      childRow<&FlowTrackingInfoSm::flowTrackingInfo>("flowTrackingInfo"),
      mapRow<&FlowTrackingInfoSm::ftInfoSms>("ftInfoSm"),
  };
  return rows;
}
Ptr<FlowTrackingInfoSm> FlowTrackingInfoSm::FlowTrackingInfoSmIs(
    Ptr<TaskSchedulerRoot> scheduler, Ptr<HwFlowTracking::Config> hwConfig,
    Ptr<FlowTrackingInfo> flowTrackingInfo, Ptr<::Ipfix::AgentInfo> agentInfo) {
  return Ptr<FlowTrackingInfoSm>::adopt(
      new FlowTrackingInfoSm(std::move(scheduler), std::move(hwConfig), std::move(flowTrackingInfo),
                             std::move(agentInfo)));
}
Ptr<FlowTrackingInfoSm> flowTrackingInfoSmFactory(Ptr<TaskSchedulerRoot> scheduler,
                                                  Ptr<HwFlowTracking::Config> hwConfig,
                                                  Ptr<FlowTrackingInfo> flowTrackingInfo,
                                                  Ptr<::Ipfix::AgentInfo> agentInfo) {
  return FlowTrackingInfoSm::FlowTrackingInfoSmIs(
      std::move(scheduler), std::move(hwConfig), std::move(flowTrackingInfo), std::move(agentInfo));
}

}  // namespace FlowTracking
