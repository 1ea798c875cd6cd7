#include "Ipfix/FlowTrackerInfoSm.h"

#include "platform/Platform.h"
#include "platform/Trace.h"

namespace FlowTracking {

namespace {
/// The kernel's "interactive bulk" band: export yields to control traffic.
constexpr uint8_t trafficControlPrio = 2;
constexpr TaskPriority taskPriority = 2;
/// How soon the reactor tries again to open an endpoint that the host refused.
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
  return make<CollectorInfo>(name);
}

AttrRows ExporterInfo::attrRows() const {
  using E = ExporterInfo;
  static constexpr AttrRow rows[] = {
      row<&E::name>("name"),
      mapRow<&E::collInfo_>("collInfo"),
      childRow<&E::udpPam4>("udpPam4"),
      childRow<&E::udpPam6>("udpPam6"),
      row<&E::rxPort4, &E::rxPort4Is>("rxPort4"),
      row<&E::rxPort6, &E::rxPort6Is>("rxPort6"),
  };
  return rows;
}
Ptr<ExporterInfo> exporterInfoFactory(const std::string& name) { return make<ExporterInfo>(name); }

AttrRows FlowTrackerInfo::attrRows() const {
  static constexpr AttrRow rows[] = {
      row<&FlowTrackerInfo::name>("name"),
      mapRow<&FlowTrackerInfo::expInfo_>("expInfo"),
  };
  return rows;
}
Ptr<FlowTrackerInfo> flowTrackerInfoFactory(const std::string& name) {
  return make<FlowTrackerInfo>(name);
}

AttrRows FlowTrackingInfo::attrRows() const {
  static constexpr AttrRow rows[] = {
      row<&FlowTrackingInfo::flowTrackingType>("flowTrackingType"),
      mapRow<&FlowTrackingInfo::ftInfo_>("ftInfo"),
  };
  return rows;
}
Ptr<FlowTrackingInfo> flowTrackingInfoFactory(FlowTrackingType type) {
  return make<FlowTrackingInfo>(type);
}

// --- ExporterInfoSm ---

class ExporterInfoSm::HwExpConfigSm final
    : public NestedReactor<HwFlowTracking::ExporterConfig, ExporterInfoSm> {
 public:
  using NestedReactor::NestedReactor;
  void handleCollectorIpAndPort(const std::string& name) override { sm_.handleCollector(name); }
  void handleCollectorIp6AndPort(const std::string& name) override { sm_.handleCollector(name); }
  void handleSrcIpAddr() override { sm_.handlePam4Management(); }
  void handleSrcIp6Addr() override { sm_.handlePam6Management(); }
  void handleVrfName() override {
    sm_.handleVrfName_p<V4>();
    sm_.handleVrfName_p<V6>();
  }
  void handleRateLimit() override {
    for (const auto& pam : {sm_.expInfo_->udpPam4(), sm_.expInfo_->udpPam6()})
      if (pam) pam->txRateLimitIs(entity()->rateLimit());
  }
};

class ExporterInfoSm::ExpInfoSm final : public NestedReactor<ExporterInfo, ExporterInfoSm> {
 public:
  using NestedReactor::NestedReactor;
  void handleUdpPam4() override { sm_.handlePam(); }
  void handleUdpPam6() override { sm_.handlePam(); }
  void handleRxPort4() override { sm_.handlePam(); }
  void handleRxPort6() override { sm_.handlePam(); }
};

ExporterInfoSm::ExporterInfoSm(FlowTrackingType ftrType, const std::string& ftName,
                               const std::string& expName,
                               Ptr<HwFlowTracking::ExporterConfig> hwExpConfig,
                               Ptr<ExporterInfo> expInfo, Ptr<TaskSchedulerRoot> scheduler,
                               Ptr<::Ipfix::AgentInfo> agentInfo,
                               ChildMap<ExporterInfoSm>* siblings)
    : ftrType_(ftrType),
      ftName_(ftName),
      expName_(expName),
      hwExpConfig_(std::move(hwExpConfig)),
      expInfo_(std::move(expInfo)),
      scheduler_(std::move(scheduler)),
      agentInfo_(std::move(agentInfo)),
      traceId_(ftName + " for " + expName),
      hwExpConfigSm_(std::make_unique<HwExpConfigSm>(hwExpConfig_, *this)),
      expInfoSm_(std::make_unique<ExpInfoSm>(expInfo_, *this)),
      pamRetryTask_(reactorTask(scheduler_->taskScheduler(),
                                "ExporterInfoSmPamRetry-" + ftName + "-" + expName, taskPriority,
                                *this, &ExporterInfoSm::retryPams_p)) {
  if (siblings) siblings->beingMade(expName_, *this);
  handleInitialized();
}
ExporterInfoSm::~ExporterInfoSm() = default;

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
    traceOf(TraceLevel::event, "ExporterInfoSm", "handleCollector", traceId_,
            "for, collector: ", name, " ", what...);
  };
  if (!hwExpConfig_->collectorIpAndPort().contains(name) &&
      !hwExpConfig_->collectorIp6AndPort().contains(name)) {
    say("Deleted sequence number for ", name);
    expInfo_->collInfoDel(name);
  } else if (const auto info = expInfo_->collInfo(name)) {
    say("Using existing collectorInfo for ", name, ", seqNo: ", info->ipfixMsgSeqNo());
  } else {
    expInfo_->collInfoIs(name);
    say("Initiated sequence number for ", name);
  }
}
template <class F>
void ExporterInfoSm::handleCollectors_p() {
  for (const auto& name : keysOf(F::collectors(*hwExpConfig_))) {
    if (retired()) return;
    handleCollector(name);
  }
}
void ExporterInfoSm::handleCollector4() { handleCollectors_p<V4>(); }
void ExporterInfoSm::handleCollector6() { handleCollectors_p<V6>(); }

template <class F>
void ExporterInfoSm::managePam_p() {
  if (retired()) return;
  Side& side = side_p<F>();
  side.problem.clear();
  if (F::src(*hwExpConfig_).isZero()) return deletePam_p<F>();
  const uint32_t change = ++side.change;
  handleCollectors_p<F>();
  if (change == side.change) createPam_p<F>();
}
void ExporterInfoSm::handlePam4Management() { managePam_p<V4>(); }
void ExporterInfoSm::handlePam6Management() { managePam_p<V6>(); }

// An endpoint stays in the namespace that it was opened in: the other VRF needs another one.
template <class F>
void ExporterInfoSm::handleVrfName_p() {
  deletePam_p<F>();
  if (!F::pam(*expInfo_)) managePam_p<F>();
}

template <class F>
Ptr<UdpPam> ExporterInfoSm::openPam_p() {
  const std::string handler = std::string("createPam") + F::digit;
  std::string& problem = side_p<F>().problem;
  try {
    auto pam = Platform::current().udpPam(std::string("udpPam") + F::digit + '-' + ftName_ + '-' +
                                          expName_);
    const NamespaceName ns = namespaceOf(hwExpConfig_->vrfName());
    if (!ns.empty()) pam->netNsIs(ns);
    pam->ipv6EnIs(F::ipv6);
    pam->txPrioIs(trafficControlPrio);
    pam->txRateLimitIs(hwExpConfig_->rateLimit());
    pam->modeIs(UdpPam::inService);
    problem.clear();
    traceOf(TraceLevel::event, "ExporterInfoSm", handler, traceId_, "Created Pam:", pam->name(),
            ", txPrio:", int{pam->txPrio()}, ", fd:", pam->fd());
    return pam;
  } catch (const ErrnoException& e) {
    traceOf(TraceLevel::event, "ExporterInfoSm", handler, traceId_,
            "Caught ErrnoException:", e.what());
    problem = e.what();
    pamRetryTask_->scheduleLowestIs(pamRetryInterval);
    return {};
  }
}
template <class F>
void ExporterInfoSm::createPam_p() {
  Side& side = side_p<F>();
  const uint32_t change = ++side.change;
  const auto pam = openPam_p<F>();
  if (!pam) return deletePam_p<F>();
  const auto old = F::pam(*expInfo_);
  // Set the port before the endpoint: `handlePam` declares the family ready once both are there.
  F::rxPortIs(*expInfo_, pam->rxPort());
  if (change == side.change) F::pamIs(*expInfo_, pam);
  if (old) old->modeIs(UdpPam::outOfService);
}
template <class F>
void ExporterInfoSm::deletePam_p() {
  Side& side = side_p<F>();
  const uint32_t change = ++side.change;
  if (const auto& pam = F::pam(*expInfo_)) pam->modeIs(UdpPam::outOfService);
  F::pamIs(*expInfo_, nullptr);
  if (change == side.change) F::rxPortIs(*expInfo_, 0);
}
void ExporterInfoSm::createPam4() { createPam_p<V4>(); }
void ExporterInfoSm::createPam6() { createPam_p<V6>(); }
void ExporterInfoSm::deletePam4() { deletePam_p<V4>(); }
void ExporterInfoSm::deletePam6() { deletePam_p<V6>(); }
void ExporterInfoSm::retryPams_p() {
  if (!expInfo_->udpPam4()) handlePam4Management();
  if (!expInfo_->udpPam6()) handlePam6Management();
}

// Each write notifies, and a handler may open or close the endpoint or remove the exporter. So the
// next write asks again, and a retired reactor leaves the configuration to its successor.
template <class F>
void ExporterInfoSm::writeReady_p() {
  const auto port = [this] { return F::pam(*expInfo_) ? F::rxPort(*expInfo_) : uint16_t{0}; };
  const auto writePort = [&] {
    if (!retired()) F::rxPortIs(*hwExpConfig_, port());
  };
  const bool portFirst = !F::ipv6 && port() != 0;
  if (portFirst) writePort();
  if (!retired()) F::readyIs(*hwExpConfig_, port() != 0);
  if (!portFirst) writePort();
}
void ExporterInfoSm::handlePam() {
  traceOf(TraceLevel::detail, "ExporterInfoSm", "handlePam", traceId_,
          "exporter4Resolved: ", !hwExpConfig_->srcIpAddr().isZero(),
          ", rxPort4: ", expInfo_->rxPort4(), ", pam4 exists: ", bool{expInfo_->udpPam4()},
          ", rxPort6: ", expInfo_->rxPort6(), ", pam6 exists: ", bool{expInfo_->udpPam6()},
          ", multiThreaded: ", agentInfo_->multiThreaded());
  writeReady_p<V4>();
  writeReady_p<V6>();
}

AttrRows ExporterInfoSm::attrRows() const {
  using E = ExporterInfoSm;
  static constexpr AttrRow rows[] = {
      row<&E::ftrType>("ftrType"),
      row<&E::traceId>("traceId"),
      row<&E::initialized>("initialized"),
      row<&E::pam4Problem>("pam4Problem"),
      row<&E::pam6Problem>("pam6Problem"),
      childRow<&E::expInfo>("expInfo"),
      childRow<&E::hwExpConfig>("hwExpConfig"),
      actionRow<&E::createPam4>("createPam4"),
      actionRow<&E::createPam6>("createPam6"),
      actionRow<&E::deletePam4>("deletePam4"),
      actionRow<&E::deletePam6>("deletePam6"),
  };
  return rows;
}
Ptr<ExporterInfoSm> exporterInfoSmFactory(FlowTrackingType ftrType, const std::string& ftName,
                                          const std::string& expName,
                                          Ptr<HwFlowTracking::ExporterConfig> hwExpConfig,
                                          Ptr<ExporterInfo> expInfo,
                                          Ptr<TaskSchedulerRoot> scheduler,
                                          Ptr<::Ipfix::AgentInfo> agentInfo) {
  return make<ExporterInfoSm>(ftrType, ftName, expName, std::move(hwExpConfig), std::move(expInfo),
                              std::move(scheduler), std::move(agentInfo));
}

// --- FlowTrackerInfoSm ---

class FlowTrackerInfoSm::HwFtConfigSm final
    : public NestedReactor<HwFlowTracking::FtConfig, FlowTrackerInfoSm> {
 public:
  using NestedReactor::NestedReactor;
  void handleExpConfig(const std::string& name) override { sm_.handleHwExpConfig(name); }
};

FlowTrackerInfoSm::FlowTrackerInfoSm(FlowTrackingType ftrType, const std::string& ftName,
                                     Ptr<HwFlowTracking::FtConfig> hwFtConfig,
                                     Ptr<FlowTrackerInfo> ftInfo, Ptr<TaskSchedulerRoot> scheduler,
                                     Ptr<::Ipfix::AgentInfo> agentInfo,
                                     ChildMap<FlowTrackerInfoSm>* siblings)
    : ftrType_(ftrType),
      ftName_(ftName),
      hwFtConfig_(std::move(hwFtConfig)),
      ftInfo_(std::move(ftInfo)),
      scheduler_(std::move(scheduler)),
      agentInfo_(std::move(agentInfo)),
      hwFtConfigSm_(std::make_unique<HwFtConfigSm>(hwFtConfig_, *this)) {
  if (siblings) siblings->beingMade(ftName_, *this);
  handleInitialized();
}
FlowTrackerInfoSm::~FlowTrackerInfoSm() = default;

void FlowTrackerInfoSm::handleInitialized() {
  for (const auto& name : keysOf(hwFtConfig_->expConfig())) handleHwExpConfig(name);
  initialized_ = true;
}
void FlowTrackerInfoSm::handleHwExpConfig(const std::string& exporterName) {
  const auto say = [this](const char* what, const std::string& name) {
    traceOf(TraceLevel::event, "FlowTrackerInfoSm", "handleHwExpConfig", ftName_, what,
            " ExporterInfoSm for ", name);
  };
  const auto fits = [this](const ExporterInfoSm& sm) {
    return sm.hwExpConfig() == hwFtConfig_->expConfig(sm.expName());
  };
  const auto gone = [&](const std::string& name) {
    ftInfo_->expInfoDel(name);
    say("Deleted", name);
  };
  const auto made = [&](const std::string& name) -> Ptr<ExporterInfoSm> {
    const auto config = hwFtConfig_->expConfig(name);
    if (!config) {
      if (ftInfo_->expInfo(name)) gone(name);
      return {};
    }
    const auto info = ftInfo_->expInfoIs(name);
    if (retired() || hwFtConfig_->expConfig(name) != config) return {};
    auto sm = make<ExporterInfoSm>(ftrType_, ftName_, name, config, info, scheduler_, agentInfo_,
                                   &expInfoSm_);
    say("Created", name);
    return sm;
  };
  expInfoSm_.reconcile(*this, exporterName, fits, gone, made);
}
Ptr<ExporterInfoSm> FlowTrackerInfoSm::expInfoSmIs(
    FlowTrackingType ftrType, const std::string& ftName, const std::string& expName,
    Ptr<HwFlowTracking::ExporterConfig> hwExpConfig, Ptr<ExporterInfo> expInfo,
    Ptr<TaskSchedulerRoot> scheduler, Ptr<::Ipfix::AgentInfo> agentInfo) {
  auto sm = exporterInfoSmFactory(ftrType, ftName, expName, std::move(hwExpConfig),
                                  std::move(expInfo), std::move(scheduler), std::move(agentInfo));
  expInfoSm_.put(expName, sm);
  return sm;
}

AttrRows FlowTrackerInfoSm::attrRows() const {
  using F = FlowTrackerInfoSm;
  static constexpr AttrRow rows[] = {
      row<&F::ftrType>("ftrType"),
      row<&F::ftName>("ftName"),
      row<&F::initialized>("initialized"),
      mapRow<&F::expInfoSm_>("expInfoSm"),
  };
  return rows;
}
Ptr<FlowTrackerInfoSm> flowTrackerInfoSmFactory(FlowTrackingType ftrType, const std::string& ftName,
                                                Ptr<HwFlowTracking::FtConfig> hwFtConfig,
                                                Ptr<FlowTrackerInfo> ftInfo,
                                                Ptr<TaskSchedulerRoot> scheduler,
                                                Ptr<::Ipfix::AgentInfo> agentInfo) {
  return make<FlowTrackerInfoSm>(ftrType, ftName, std::move(hwFtConfig), std::move(ftInfo),
                                 std::move(scheduler), std::move(agentInfo));
}

// --- FlowTrackingInfoSm ---

class FlowTrackingInfoSm::HwConfigSm final
    : public NestedReactor<HwFlowTracking::Config, FlowTrackingInfoSm> {
 public:
  using NestedReactor::NestedReactor;
  void handleFtConfig(const std::string& name) override { sm_.handleHwFtConfig(name); }
};

FlowTrackingInfoSm::FlowTrackingInfoSm(Ptr<TaskSchedulerRoot> scheduler,
                                       Ptr<HwFlowTracking::Config> hwConfig,
                                       Ptr<FlowTrackingInfo> flowTrackingInfo,
                                       Ptr<::Ipfix::AgentInfo> agentInfo)
    : scheduler_(std::move(scheduler)),
      hwConfig_(std::move(hwConfig)),
      flowTrackingInfo_(std::move(flowTrackingInfo)),
      agentInfo_(std::move(agentInfo)),
      hwConfigSm_(std::make_unique<HwConfigSm>(hwConfig_, *this)) {
  handleInitialized();
}
FlowTrackingInfoSm::~FlowTrackingInfoSm() = default;

void FlowTrackingInfoSm::handleInitialized() {
  for (const auto& name : keysOf(hwConfig_->ftConfig())) handleHwFtConfig(name);
  initialized_ = true;
}
void FlowTrackingInfoSm::handleHwFtConfig(const std::string& trackerName) {
  const auto say = [](const char* what, const std::string& name) {
    traceOf(TraceLevel::event, "FlowTrackingInfoSm", "handleHwFtConfig", {}, what,
            " FlowTrackerInfoSm for ", name);
  };
  const auto fits = [this](const FlowTrackerInfoSm& sm) {
    return sm.hwFtConfig() == hwConfig_->ftConfig(sm.ftName());
  };
  const auto gone = [&](const std::string& name) {
    flowTrackingInfo_->ftInfoDel(name);
    say("Deleted", name);
  };
  const auto made = [&](const std::string& name) -> Ptr<FlowTrackerInfoSm> {
    const auto config = hwConfig_->ftConfig(name);
    if (!config) {
      if (flowTrackingInfo_->ftInfo(name)) gone(name);
      return {};
    }
    const auto info = flowTrackingInfo_->ftInfoIs(name);
    if (retired() || hwConfig_->ftConfig(name) != config) return {};
    auto sm = make<FlowTrackerInfoSm>(flowTrackingInfo_->flowTrackingType(), name, config, info,
                                      scheduler_, agentInfo_, &ftInfoSm_);
    say("Created", name);
    return sm;
  };
  ftInfoSm_.reconcile(*this, trackerName, fits, gone, made);
}
Ptr<FlowTrackerInfoSm> FlowTrackingInfoSm::ftInfoSmIs(FlowTrackingType ftrType,
                                                      const std::string& ftName,
                                                      Ptr<HwFlowTracking::FtConfig> hwFtConfig,
                                                      Ptr<FlowTrackerInfo> ftInfo,
                                                      Ptr<TaskSchedulerRoot> scheduler,
                                                      Ptr<::Ipfix::AgentInfo> agentInfo) {
  auto sm = flowTrackerInfoSmFactory(ftrType, ftName, std::move(hwFtConfig), std::move(ftInfo),
                                     std::move(scheduler), std::move(agentInfo));
  ftInfoSm_.put(ftName, sm);
  return sm;
}

AttrRows FlowTrackingInfoSm::attrRows() const {
  static constexpr AttrRow rows[] = {
      row<&FlowTrackingInfoSm::initialized>("initialized"),
      childRow<&FlowTrackingInfoSm::flowTrackingInfo>("flowTrackingInfo"),
      mapRow<&FlowTrackingInfoSm::ftInfoSm_>("ftInfoSm"),
  };
  return rows;
}
Ptr<FlowTrackingInfoSm> flowTrackingInfoSmFactory(Ptr<TaskSchedulerRoot> scheduler,
                                                  Ptr<HwFlowTracking::Config> hwConfig,
                                                  Ptr<FlowTrackingInfo> flowTrackingInfo,
                                                  Ptr<::Ipfix::AgentInfo> agentInfo) {
  return make<FlowTrackingInfoSm>(std::move(scheduler), std::move(hwConfig),
                                  std::move(flowTrackingInfo), std::move(agentInfo));
}

}  // namespace FlowTracking
