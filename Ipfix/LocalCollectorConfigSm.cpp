#include "Ipfix/LocalCollectorConfigSm.h"

#include <functional>
#include <vector>

#include "platform/Assert.h"
#include "platform/Platform.h"
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
  return Ptr<LocalCollectorPams>::adopt(new LocalCollectorPams(name));
}

class LocalCollectorConfigSm::FtConfigSm final : public HwFlowTracking::FtConfig::Watcher {
 public:
  explicit FtConfigSm(LocalCollectorConfigSm& sm) : Watcher(sm.ftHwConfig_), sm_(sm) {}
  void handleExpConfig(const std::string& /*name*/) override { sm_.handleExporterConfig(); }
  void handleLocalPort() override { sm_.handleExporterConfig(); }

 private:
  LocalCollectorConfigSm& sm_;
};

class LocalCollectorConfigSm::ExporterConfigSm final
    : public HwFlowTracking::ExporterConfig::Watcher {
 public:
  ExporterConfigSm(LocalCollectorConfigSm& sm, Ptr<HwFlowTracking::ExporterConfig> config)
      : Watcher(std::move(config)), sm_(sm) {}
  void handleSrcIpAddr() override { changed(); }
  void handleSrcIp6Addr() override { changed(); }
  void handleVrfName() override { changed(); }
  void handleDscp() override { changed(); }
  void handleExporter4Ready() override { changed(); }
  void handleExporter6Ready() override { changed(); }

 private:
  void changed() { sm_.handleExporterReady(std::string(entity()->name())); }
  LocalCollectorConfigSm& sm_;
};

class LocalCollectorConfigSm::VrfStatusSm final : public Ip::AllVrfStatusLocal::Watcher {
 public:
  explicit VrfStatusSm(LocalCollectorConfigSm& sm) : Watcher(sm.allVrfStatusLocal_), sm_(sm) {}
  void handleVrf(const VrfName& vrf) override { sm_.handleVrf_p(vrf); }

 private:
  LocalCollectorConfigSm& sm_;
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
      ftConfigSm_(std::make_unique<FtConfigSm>(*this)),
      vrfStatusSm_(std::make_unique<VrfStatusSm>(*this)),
      pamRetryTask_(scheduler_->timerTask("ipfixLocalCollectorTask", taskPriority,
                                          [this] { reviewPamCreation(); })) {
  handleInitialized();
}
LocalCollectorConfigSm::~LocalCollectorConfigSm() {
  vrfStatusSm_.reset();  // no handler may run on what is going away
  ftConfigSm_.reset();
  exporterConfigDelAll();
  pamRetryTask_.reset();
  cleanup();
}

void LocalCollectorConfigSm::handleInitialized() {
  TARN_ASSERT(config()->swExport());
  initialized_ = true;
  handleExporterConfig();
}

void LocalCollectorConfigSm::exporterConfigIs(const std::string& name,
                                              Ptr<HwFlowTracking::ExporterConfig> config) {
  exporterConfig_[name] = std::make_unique<ExporterConfigSm>(*this, std::move(config));
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
  const Ptr<LocalCollectorConfigSm> hold(this);  // who hears of this may delete the tracker
  const auto exporters = ftHwConfig_->expConfig();
  std::erase_if(exporterConfig_, [&](const auto& watched) {
    const auto it = exporters.find(watched.first);
    return it == exporters.end() || it->second.get() != watched.second->entity();
  });
  for (const auto& [name, exporter] : exporters)
    if (!exporterConfig_.contains(name)) exporterConfigIs(name, exporter);
  if (const auto exporter = chosen_p()) {
    serve_p(*exporter);
  } else {
    cleanup();
  }
}

void LocalCollectorConfigSm::handleExporterConfig(const std::string& name) {
  const Ptr<LocalCollectorConfigSm> hold(this);
  const auto exporter = chosen_p();
  if (exporter && exporter->name() == name) {
    serve_p(*exporter);
  } else if (!exporter || served_.expName == name) {
    handleExporterConfig();
  }
}

// Readiness itself is no condition: it tells of the exporter's way to its collectors, and where
// those cannot be reached the tracking side still needs an address. Its changes come with those of
// the address, the VRF and the endpoints.
void LocalCollectorConfigSm::handleExporterReady(const std::string& /*name*/) {
  handleExporterConfig();
}

void LocalCollectorConfigSm::handleVrf_p(const VrfName& vrf) {
  const auto exporter = chosen_p();
  if (exporter && exporter->vrfName() == vrf) handleExporterConfig();
}

void LocalCollectorConfigSm::serve_p(const HwFlowTracking::ExporterConfig& exporter) {
  const bool v4 = !exporter.srcIpAddr().isZero();
  Place place{.expName = exporter.name(),
              .vrf = exporter.vrfName(),
              .vrfInstance = 0,
              .addr = v4 ? IpGenAddr(exporter.srcIpAddr()) : IpGenAddr(exporter.srcIp6Addr()),
              .localPort = ftHwConfig_->localPort()};
  // An endpoint of a namespace that was replaced hears nothing more.
  if (const auto& all = allVrfStatusLocal_->vrf(); all.contains(place.vrf))
    place.vrfInstance = all.at(place.vrf);
  const auto& lcConfig = lcConfig_p();
  if (lcConfig->exporterReady() && served_ == place) {
    lcConfig->dscpValueIs(exporter.dscp());
    return;
  }
  cleanup();
  served_ = place;
  if (v4) {
    createPam4(place.expName, place.addr, place.vrf);
  } else {
    createPam6(place.expName, place.addr, place.vrf);
  }
  const Ptr<UdpPam> pam = v4 ? lcPams_->udpPam4() : lcPams_->udpPam6();
  if (!pam) return;
  const uint16_t port = pam->rxPort();
  const DscpValue dscp = exporter.dscp();
  const std::function<void()> steps[] = {
      [&] { lcConfig->expNameIs(place.expName); },
      [&] { lcConfig->vrfNameIs(place.vrf); },
      [&] { lcConfig->srcIpIs(place.addr); },
      [&] { lcConfig->srcPortIs(port); },
      [&] { lcConfig->destIpIs(place.addr); },
      [&] { lcConfig->destPortIs(port); },
      [&] { lcConfig->dscpValueIs(dscp); },
      [&] { lcConfig->exporterReadyIs(true); },
      [&] { v4 ? lcPams_->udpPam4ReadyIs(true) : lcPams_->udpPam6ReadyIs(true); },
  };
  for (const auto& step : steps) {
    if (served_ != place) return;  // who heard of the last step changed everything
    step();
  }
  trace(TraceLevel::event, "LocalCollectorConfigSm::", "handleExporterConfig ",
        traceId_p(place.expName), " Resolved ip/port ", place.addr.stringValue(), " ", port);
}

// What differs between the families.
namespace {
struct Family4 {
  static constexpr const char* prefix = "StftPam4-";
  static constexpr bool ipv6 = false;
  static void store(LocalCollectorPams& pams, const Ptr<UdpPam>& pam) { pams.udpPam4Is(pam); }
  static void bind(UdpPam& pam, const IpGenAddr& addr) { pam.rxIpAddrIs(addr.ipAddr()); }
};
struct Family6 {
  static constexpr const char* prefix = "StftPam6-";
  static constexpr bool ipv6 = true;
  static void store(LocalCollectorPams& pams, const Ptr<UdpPam>& pam) { pams.udpPam6Is(pam); }
  static void bind(UdpPam& pam, const IpGenAddr& addr) { pam.rxIp6AddrIs(addr.ip6Addr()); }
};
}  // namespace

template <class Family>
void LocalCollectorConfigSm::createPam_p(const char* handler, const std::string& name,
                                         const IpGenAddr& addr, const VrfName& vrf) {
  try {
    const auto pam = Platform::current().udpPam(Family::prefix + name);
    Family::store(*lcPams_, pam);
    pam->ipv6EnIs(Family::ipv6);
    pam->txPrioIs(trafficControlPrio);
    pam->rxPortIs(ftHwConfig_->localPort());
    Family::bind(*pam, addr);
    pam->txPortIs(ftHwConfig_->localPort());
    const NamespaceName ns = namespaceOf(vrf);
    if (!ns.empty()) pam->netNsIs(ns);
    pam->modeIs(UdpPam::inService);
    lastRefusal_.clear();
    trace(TraceLevel::event, "LocalCollectorConfigSm::", handler, " ", traceId_p(name),
          " Created Pam: ", pam->name(), ", rxPort:", pam->rxPort(), ", fd:", pam->fd());
  } catch (const ErrnoException& e) {
    // The operator hears of each reason once; it is tried again many times a second.
    const bool news = lastRefusal_ != e.what();
    lastRefusal_ = e.what();
    trace(news ? TraceLevel::error : TraceLevel::event, "LocalCollectorConfigSm::", handler, " ",
          traceId_p(name), " Caught ErrnoException: ", e.what());
    cleanup();
    addToPamReviewList(name);
  }
}
void LocalCollectorConfigSm::createPam4(const std::string& name, const IpGenAddr& addr,
                                        const VrfName& vrf) {
  createPam_p<Family4>("createPam4", name, addr, vrf);
}
void LocalCollectorConfigSm::createPam6(const std::string& name, const IpGenAddr& addr,
                                        const VrfName& vrf) {
  createPam_p<Family6>("createPam6", name, addr, vrf);
}

void LocalCollectorConfigSm::addToPamReviewList(const std::string& name) {
  exporterReviewListIs(name, true);
  trace(TraceLevel::event, "LocalCollectorConfigSm::", "addToPamReviewList ", traceId_p(name), " ",
        "scheduling review::");
  if (pamRetryTask_) pamRetryTask_->scheduleLowestIs(Seconds(pamCreateRetryInterval_));
}

void LocalCollectorConfigSm::reviewPamCreation() {
  const auto say = [this](const auto&... what) {
    trace(TraceLevel::event, "LocalCollectorConfigSm::", "reviewPamCreation ", ftName_, " ",
          what...);
  };
  const Ptr<LocalCollectorConfigSm> hold(this);
  if (exporterReviewList_.empty()) {
    say("nothing to review ::");
    return;
  }
  say("processing review::");
  // Those that are on the list now: one that is refused again comes back for the next run.
  std::vector<std::string> names;
  for (const auto& [name, v] : exporterReviewList_) names.push_back(name);
  for (const std::string& name : names) {
    if (!exporterReviewList_.contains(name)) continue;
    exporterReviewListDel(name);
    handleExporterConfig(name);
    if (pamRetryTask_ && pamRetryTask_->shouldYield()) {
      say("YIELDING::");
      pamRetryTask_->scheduleIs(Seconds(pamCreateRetryInterval_));
      return;
    }
  }
  say("review done ::");
}

void LocalCollectorConfigSm::cleanup() {
  trace(TraceLevel::event, "LocalCollectorConfigSm::", "cleanup ", ftName_);
  served_ = {};
  const auto& lcConfig = lcConfig_p();
  lcConfig->exporterReadyIs(false);
  lcConfig->expNameIs({});
  lcConfig->destIpIs({});
  lcConfig->dscpValueIs(DscpValue());
  if (const Ptr<UdpPam> pam = lcPams_->udpPam4()) {
    lcPams_->udpPam4ReadyIs(false);
    pam->modeIs(UdpPam::outOfService);
    lcPams_->udpPam4Is(nullptr);
  }
  if (const Ptr<UdpPam> pam = lcPams_->udpPam6()) {
    lcPams_->udpPam6ReadyIs(false);
    pam->modeIs(UdpPam::outOfService);
    lcPams_->udpPam6Is(nullptr);
  }
}

AttrRows LocalCollectorConfigSm::attrRows() const {
  using L = LocalCollectorConfigSm;
  static constexpr AttrRow rows[] = {
      row<&L::ftName>("ftName"),
      childRow<&L::lcPams>("lcPams"),
      mapRow<&L::exporterReviewList>("exporterReviewList"),
      row<&L::pamCreateRetryInterval, &L::pamCreateRetryIntervalIs>("pamCreateRetryInterval"),
      row<&L::initialized>("initialized"),
  };
  return rows;
}
Ptr<LocalCollectorConfigSm> LocalCollectorConfigSm::LocalCollectorConfigSmIs(
    const std::string& ftName, Ptr<const Config> config, Ptr<HwFlowTracking::FtConfig> ftHwConfig,
    Ptr<LocalCollectorPams> lcPams, Ptr<const Ip::AllVrfStatusLocal> allVrfStatusLocal,
    Ptr<TaskScheduler> scheduler) {
  return Ptr<LocalCollectorConfigSm>::adopt(new LocalCollectorConfigSm(
      ftName, std::move(config), std::move(ftHwConfig), std::move(lcPams),
      std::move(allVrfStatusLocal), std::move(scheduler)));
}
Ptr<LocalCollectorConfigSm> localCollectorConfigSmFactory(
    const std::string& ftName, Ptr<const Config> config, Ptr<HwFlowTracking::FtConfig> ftHwConfig,
    Ptr<LocalCollectorPams> lcPams, Ptr<const Ip::AllVrfStatusLocal> allVrfStatusLocal,
    Ptr<TaskScheduler> scheduler) {
  return LocalCollectorConfigSm::LocalCollectorConfigSmIs(
      ftName, std::move(config), std::move(ftHwConfig), std::move(lcPams),
      std::move(allVrfStatusLocal), std::move(scheduler));
}

}  // namespace FlowTracking
