#include "Ipfix/LocalCollectorConfigSm.h"

#include "platform/Assert.h"
#include "platform/Platform.h"
#include "platform/Reactor.h"
#include "platform/Trace.h"

namespace FlowTracking {

namespace {
/// The band that the exporters' own endpoints use.
constexpr uint8_t trafficControlPrio = 2;
constexpr TaskPriority taskPriority = 2;
}  // namespace

AttrRows LocalCollectorPams::attrRows() const {
  using P = LocalCollectorPams;
  static constexpr AttrRow rows[] = {
      row<&P::name>("name"),
      childRow<&P::udpPam4>("udpPam4"),
      childRow<&P::udpPam6>("udpPam6"),
      row<&P::udpPam4Ready, &P::udpPam4ReadyIs>("udpPam4Ready"),
      row<&P::udpPam6Ready, &P::udpPam6ReadyIs>("udpPam6Ready"),
  };
  return rows;
}
Ptr<LocalCollectorPams> localCollectorPamsFactory(const std::string& name) {
  return make<LocalCollectorPams>(name);
}

class LocalCollectorConfigSm::FtConfigSm final
    : public NestedReactor<HwFlowTracking::FtConfig, LocalCollectorConfigSm> {
 public:
  using NestedReactor::NestedReactor;
  void handleExpConfig(const std::string& /*name*/) override { sm_.handleExporterConfig(); }
  void handleLocalPort() override { sm_.handleExporterConfig(); }
};

class LocalCollectorConfigSm::ExporterConfigSm final
    : public NestedReactor<HwFlowTracking::ExporterConfig, LocalCollectorConfigSm> {
 public:
  using NestedReactor::NestedReactor;
  void handleSrcIpAddr() override { changed(); }
  void handleSrcIp6Addr() override { changed(); }
  void handleVrfName() override { changed(); }
  void handleDscp() override { changed(); }
  void handleExporter4Ready() override { changed(); }
  void handleExporter6Ready() override { changed(); }

 private:
  void changed() { sm_.handleExporterReady(entity()->name()); }
};

class LocalCollectorConfigSm::VrfStatusSm final
    : public NestedReactor<Ip::AllVrfStatusLocal, LocalCollectorConfigSm> {
 public:
  using NestedReactor::NestedReactor;
  void handleVrf(const VrfName& vrf) override { sm_.handleVrf_p(vrf); }
};

LocalCollectorConfigSm::LocalCollectorConfigSm(const std::string& ftName, Ptr<const Config> config,
                                               Ptr<HwFlowTracking::FtConfig> ftHwConfig,
                                               Ptr<LocalCollectorPams> lcPams,
                                               Ptr<const Ip::AllVrfStatusLocal> allVrfStatusLocal,
                                               Ptr<TaskScheduler> scheduler)
    : ftName_(ftName),
      config_(std::move(config)),
      ftHwConfig_(std::move(ftHwConfig)),
      lcPams_(std::move(lcPams)),
      allVrfStatusLocal_(std::move(allVrfStatusLocal)),
      scheduler_(std::move(scheduler)),
      ftConfigSm_(std::make_unique<FtConfigSm>(ftHwConfig_, *this)),
      vrfStatusSm_(std::make_unique<VrfStatusSm>(allVrfStatusLocal_, *this)),
      pamRetryTask_(reactorTask(scheduler_, "ipfixLocalCollectorTask", taskPriority, *this,
                                &LocalCollectorConfigSm::reviewPamCreation)) {
  handleInitialized();
}
LocalCollectorConfigSm::~LocalCollectorConfigSm() = default;
void LocalCollectorConfigSm::handleRetired() {
  pamRetryTask_->stop();
  cleanup();
}

void LocalCollectorConfigSm::handleInitialized() {
  TARN_ASSERT(config()->swExport());
  initialized_ = true;
  handleExporterConfig();
}

std::map<std::string, Ptr<const HwFlowTracking::ExporterConfig>>
LocalCollectorConfigSm::exporterConfig() const {
  std::map<std::string, Ptr<const HwFlowTracking::ExporterConfig>> all;
  for (const auto& [name, sm] : exporterConfig_) all.emplace(name, sm->entity());
  return all;
}
Ptr<const HwFlowTracking::ExporterConfig> LocalCollectorConfigSm::exporterConfig(
    const std::string& name) const {
  const auto it = exporterConfig_.find(name);
  return Ptr(it == exporterConfig_.end() ? nullptr : it->second->entity());
}
void LocalCollectorConfigSm::exporterConfigIs(const std::string& name,
                                              Ptr<HwFlowTracking::ExporterConfig> config) {
  exporterConfig_[name] = std::make_unique<ExporterConfigSm>(std::move(config), *this);
}
void LocalCollectorConfigSm::exporterConfigDel(const std::string& name) {
  exporterConfig_.erase(name);
}
void LocalCollectorConfigSm::exporterConfigDelAll() { exporterConfig_.clear(); }

Ptr<HwFlowTracking::ExporterConfig> LocalCollectorConfigSm::chosen_p() const {
  for (const auto& [name, exporter] : ftHwConfig_->expConfig())
    if (!exporter->srcIpAddr().isZero() || !exporter->srcIp6Addr().isZero()) return exporter;
  return {};
}

void LocalCollectorConfigSm::handleExporterConfig() {
  if (retired()) return;
  std::erase_if(exporterConfig_, [this](const auto& watched) {
    return ftHwConfig_->expConfig(watched.first).get() != watched.second->entity();
  });
  for (const auto& [name, exporter] : ftHwConfig_->expConfig())
    if (!exporterConfig_.contains(name)) exporterConfigIs(name, exporter);
  if (const auto exporter = chosen_p()) {
    serve_p(*exporter);
  } else {
    cleanup();
  }
}

void LocalCollectorConfigSm::handleExporterConfig(const std::string& name) {
  if (retired()) return;
  const auto exporter = chosen_p();
  if (exporter && exporter->name() == name) {
    serve_p(*exporter);
  } else if (!exporter || served_.expName == name) {
    handleExporterConfig();
  }
}

// The local collector does not depend on the exporter's readiness: that concerns the way to the
// collectors, and the tracking side needs an address even where they cannot be reached. But
// readiness changes along with the address, the VRF and the endpoints, so this looks again.
void LocalCollectorConfigSm::handleExporterReady(const std::string& /*name*/) {
  handleExporterConfig();
}

void LocalCollectorConfigSm::handleVrf_p(const VrfName& vrf) {
  const auto exporter = chosen_p();
  if (exporter && exporter->vrfName() == vrf) handleExporterConfig();
}

void LocalCollectorConfigSm::serve_p(const HwFlowTracking::ExporterConfig& exporter) {
  const bool v4 = !exporter.srcIpAddr().isZero();
  const Place place{.expName = exporter.name(),
                    .vrf = exporter.vrfName(),
                    // An endpoint of a namespace that was replaced receives nothing any more.
                    .vrfInstance = allVrfStatusLocal_->vrf(exporter.vrfName()),
                    .addr = v4 ? IpGenAddr(exporter.srcIpAddr()) : IpGenAddr(exporter.srcIp6Addr()),
                    .localPort = ftHwConfig_->localPort()};
  if (lcConfig_p()->exporterReady() && served_ == place) {
    lcConfig_p()->dscpValueIs(exporter.dscp());
    return;
  }
  if (!cleanup_p()) return;
  served_ = place;
  v4 ? open_p<V4>(exporter) : open_p<V6>(exporter);
}
template <class F>
void LocalCollectorConfigSm::open_p(const HwFlowTracking::ExporterConfig& exporter) {
  const Place place = served_;
  const uint32_t change = change_;
  createPam_p<F>(place.expName, place.addr, place.vrf);
  if (change != change_) return;
  const auto& lcConfig = lcConfig_p();
  const uint16_t port = F::pam(*lcPams_)->rxPort();
  const bool written = inOrder_p(
      [&] { lcConfig->expNameIs(place.expName); }, [&] { lcConfig->vrfNameIs(place.vrf); },
      [&] { lcConfig->srcIpIs(place.addr); }, [&] { lcConfig->srcPortIs(port); },
      [&] { lcConfig->destIpIs(place.addr); }, [&] { lcConfig->destPortIs(port); },
      [&] { lcConfig->dscpValueIs(exporter.dscp()); }, [&] { lcConfig->exporterReadyIs(true); },
      [&] { F::pamReadyIs(*lcPams_, true); });
  if (written)
    traceOf(TraceLevel::event, "LocalCollectorConfigSm", "handleExporterConfig",
            traceId_p(place.expName), "Resolved ip/port ", place.addr.stringValue(), " ", port);
}

template <class F>
void LocalCollectorConfigSm::createPam_p(const std::string& name, const IpGenAddr& addr,
                                         const VrfName& vrf) {
  const std::string handler = std::string("createPam") + F::digit;
  const uint32_t change = change_;
  try {
    const auto pam = Platform::current().udpPam(std::string("StftPam") + F::digit + '-' + name);
    F::pamIs(*lcPams_, pam);
    if (change != change_) return;  // a handler has closed it
    pam->ipv6EnIs(F::ipv6);
    pam->txPrioIs(trafficControlPrio);
    pam->rxPortIs(ftHwConfig_->localPort());
    F::rxAddrIs(*pam, addr);
    pam->txPortIs(ftHwConfig_->localPort());
    const NamespaceName ns = namespaceOf(vrf);
    if (!ns.empty()) pam->netNsIs(ns);
    pam->modeIs(UdpPam::inService);
    lastRefusal_.clear();
    traceOf(TraceLevel::event, "LocalCollectorConfigSm", handler, traceId_p(name),
            "Created Pam: ", pam->name(), ", rxPort:", pam->rxPort(), ", fd:", pam->fd());
  } catch (const ErrnoException& e) {
    // Each reason is an error once, not each of the many attempts a second.
    const bool news = lastRefusal_ != e.what();
    lastRefusal_ = e.what();
    traceOf(news ? TraceLevel::error : TraceLevel::event, "LocalCollectorConfigSm", handler,
            traceId_p(name), "Caught ErrnoException: ", e.what());
    cleanup();
    if (!retired()) addToPamReviewList(name);
  }
}
void LocalCollectorConfigSm::createPam4(const std::string& name, const IpGenAddr& addr,
                                        const VrfName& vrf) {
  createPam_p<V4>(name, addr, vrf);
}
void LocalCollectorConfigSm::createPam6(const std::string& name, const IpGenAddr& addr,
                                        const VrfName& vrf) {
  createPam_p<V6>(name, addr, vrf);
}

void LocalCollectorConfigSm::addToPamReviewList(const std::string& name) {
  exporterReviewListIs(name, true);
  traceOf(TraceLevel::event, "LocalCollectorConfigSm", "addToPamReviewList", traceId_p(name),
          "scheduling review::");
  pamRetryTask_->scheduleLowestIs(Seconds(pamCreateRetryInterval_));
}

void LocalCollectorConfigSm::reviewPamCreation() {
  const auto say = [this](const char* what) {
    traceOf(TraceLevel::event, "LocalCollectorConfigSm", "reviewPamCreation", ftName_, what);
  };
  if (exporterReviewList_.empty()) return say("nothing to review ::");
  say("processing review::");
  // Those that are on the list now: one that is refused again comes back for the next run.
  for (const std::string& name : keysOf(exporterReviewList_)) {
    if (!exporterReviewList_.contains(name)) continue;
    exporterReviewListDel(name);
    handleExporterConfig(name);
    if (retired()) return;
    if (pamRetryTask_->shouldYield()) {
      say("YIELDING::");
      pamRetryTask_->scheduleIs(Seconds(pamCreateRetryInterval_));
      return;
    }
  }
  say("review done ::");
}

template <class F>
void LocalCollectorConfigSm::closePam_p() {
  const Ptr<UdpPam> pam = F::pam(*lcPams_);
  if (!pam) return;
  F::pamReadyIs(*lcPams_, false);
  pam->modeIs(UdpPam::outOfService);
  if (F::pam(*lcPams_) == pam) F::pamIs(*lcPams_, nullptr);
}
bool LocalCollectorConfigSm::cleanup_p() {
  traceOf(TraceLevel::event, "LocalCollectorConfigSm", "cleanup", ftName_);
  served_ = {};
  const auto& lcConfig = lcConfig_p();
  return inOrder_p([&] { lcConfig->exporterReadyIs(false); }, [&] { lcConfig->expNameIs({}); },
                   [&] { lcConfig->destIpIs({}); }, [&] { lcConfig->dscpValueIs({}); },
                   [this] { closePam_p<V4>(); }, [this] { closePam_p<V6>(); });
}
void LocalCollectorConfigSm::cleanup() { cleanup_p(); }

AttrRows LocalCollectorConfigSm::attrRows() const {
  using L = LocalCollectorConfigSm;
  static constexpr AttrRow rows[] = {
      row<&L::ftName>("ftName"),
      childRow<&L::lcPams>("lcPams"),
      mapRow<&L::exporterReviewList_>("exporterReviewList"),
      row<&L::pamCreateRetryInterval, &L::pamCreateRetryIntervalIs>("pamCreateRetryInterval"),
      row<&L::initialized>("initialized"),
  };
  return rows;
}
Ptr<LocalCollectorConfigSm> localCollectorConfigSmFactory(
    const std::string& ftName, Ptr<const Config> config, Ptr<HwFlowTracking::FtConfig> ftHwConfig,
    Ptr<LocalCollectorPams> lcPams, Ptr<const Ip::AllVrfStatusLocal> allVrfStatusLocal,
    Ptr<TaskScheduler> scheduler) {
  return make<LocalCollectorConfigSm>(ftName, std::move(config), std::move(ftHwConfig),
                                      std::move(lcPams), std::move(allVrfStatusLocal),
                                      std::move(scheduler));
}

}  // namespace FlowTracking
