#pragma once
#include <map>
#include <memory>
#include <string>

#include "Ipfix/FlowTrackerInfoSm.h"
#include "platform/FlowTracking.h"
#include "platform/HwFlowTracking.h"
#include "platform/TaskScheduler.h"
#include "platform/UdpPam.h"
#include "platform/VrfStatus.h"

/// The local collector of a tracker whose records are exported in software: an endpoint on the
/// address of one of the tracker's exporters, to which the tracking side sends its records.
namespace FlowTracking {

/// The local collector's endpoint, in one of the two families; the other is null.
class TARN_API LocalCollectorPams final : public Entity {
 public:
  class TARN_API Watcher : public EntityWatcher<LocalCollectorPams> {
   public:
    using EntityWatcher::EntityWatcher;
    virtual void handleUdpPam4() {}
    virtual void handleUdpPam6() {}
    virtual void handleUdpPam4Ready() {}
    virtual void handleUdpPam6Ready() {}
  };
  explicit LocalCollectorPams(std::string name) : name_(std::move(name)) {}
  const std::string& name() const { return name_; }
  const Ptr<UdpPam>& udpPam4() const { return udpPam4_; }
  void udpPam4Is(Ptr<UdpPam> v) { set(udpPam4_, std::move(v), &Watcher::handleUdpPam4); }
  const Ptr<UdpPam>& udpPam6() const { return udpPam6_; }
  void udpPam6Is(Ptr<UdpPam> v) { set(udpPam6_, std::move(v), &Watcher::handleUdpPam6); }
  /// The endpoint is in service and its address stands in the LocalCollectorConfig.
  bool udpPam4Ready() const { return udpPam4Ready_; }
  void udpPam4ReadyIs(bool v) { set(udpPam4Ready_, v, &Watcher::handleUdpPam4Ready); }
  bool udpPam6Ready() const { return udpPam6Ready_; }
  void udpPam6ReadyIs(bool v) { set(udpPam6Ready_, v, &Watcher::handleUdpPam6Ready); }

  AttrRows attrRows() const override;

 private:
  std::string name_;
  Ptr<UdpPam> udpPam4_;
  Ptr<UdpPam> udpPam6_;
  bool udpPam4Ready_ = false;
  bool udpPam6Ready_ = false;
};
TARN_API Ptr<LocalCollectorPams> localCollectorPamsFactory(const std::string& name);

/// Opens the endpoint and writes its place into the tracker's `LocalCollectorConfig`. It serves the
/// first exporter, by name, that has a source address: its IPv4 address, or else its IPv6 address,
/// in its VRF, at the tracker's `localPort`, and follows changes of all of these. While the host
/// refuses the endpoint of that exporter, it tries again every `pamCreateRetryInterval`. When it is
/// retired it closes the endpoint and clears the configuration.
class TARN_API LocalCollectorConfigSm final : public Entity {
 public:
  /// Asserts that `config` is in software-export mode.
  LocalCollectorConfigSm(const std::string& ftName, Ptr<const Config> config,
                         Ptr<HwFlowTracking::FtConfig> ftHwConfig, Ptr<LocalCollectorPams> lcPams,
                         Ptr<const Ip::AllVrfStatusLocal> allVrfStatusLocal,
                         Ptr<TaskScheduler> scheduler);
  ~LocalCollectorConfigSm() override;
  template <class... A>
  static Ptr<LocalCollectorConfigSm> LocalCollectorConfigSmIs(A&&... a) {
    return make<LocalCollectorConfigSm>(std::forward<A>(a)...);
  }

  const std::string& ftName() const { return ftName_; }
  const Ptr<const Config>& config() const { return config_; }
  const Ptr<HwFlowTracking::FtConfig>& ftHwConfig() const { return ftHwConfig_; }
  const Ptr<LocalCollectorPams>& lcPams() const { return lcPams_; }
  const Ptr<const Ip::AllVrfStatusLocal>& allVrfStatusLocal() const { return allVrfStatusLocal_; }
  const Ptr<TaskScheduler>& scheduler() const { return scheduler_; }
  bool initialized() const { return initialized_; }
  /// Exporters whose endpoint the next review tries to open again.
  const std::map<std::string, bool>& exporterReviewList() const { return exporterReviewList_; }
  bool exporterReviewList(const std::string& name) const { return find(exporterReviewList_, name); }
  void exporterReviewListIs(const std::string& name, bool v) { exporterReviewList_[name] = v; }
  void exporterReviewListDel(const std::string& name) { exporterReviewList_.erase(name); }
  void exporterReviewListDelAll() { exporterReviewList_.clear(); }
  /// Seconds, 0.001 to 3600; any other value raises std::range_error.
  double pamCreateRetryInterval() const { return pamCreateRetryInterval_; }
  void pamCreateRetryIntervalIs(double seconds) {
    pamCreateRetryInterval_ = HwFlowTracking::detail::checked(
        seconds >= 0.001 && seconds <= 3600, seconds,
        "LocalCollectorConfigSm::pamCreateRetryInterval", "from 0.001 to 3600 s");
  }
  const TimerTask* pamRetryTask() const { return pamRetryTask_.get(); }

  void handleInitialized();
  /// Brings the local collector up to date with all of the tracker's exporters.
  void handleExporterConfig();
  /// The same for one exporter: nothing, where another one is to be served.
  void handleExporterConfig(const std::string& name);
  /// The exporter's readiness, source address, VRF or DSCP changed.
  void handleExporterReady(const std::string& name);
  void addToPamReviewList(const std::string& name);
  void reviewPamCreation();
  void createPam4(const std::string& name, const IpGenAddr& addr, const VrfName& vrf);
  void createPam6(const std::string& name, const IpGenAddr& addr, const VrfName& vrf);
  void cleanup();

  /// The exporters' configurations that it watches.
  std::map<std::string, Ptr<const HwFlowTracking::ExporterConfig>> exporterConfig() const;
  Ptr<const HwFlowTracking::ExporterConfig> exporterConfig(const std::string& name) const;
  void exporterConfigIs(const std::string& name, Ptr<HwFlowTracking::ExporterConfig> config);
  void exporterConfigDel(const std::string& name);
  void exporterConfigDelAll();

  AttrRows attrRows() const override;

 private:
  class FtConfigSm;
  class ExporterConfigSm;
  class VrfStatusSm;
  /// The exporter that the local collector serves, and where.
  struct Place {
    std::string expName;
    VrfName vrf;
    uint64_t vrfInstance = 0;
    IpGenAddr addr;
    uint16_t localPort = 0;
    bool operator==(const Place&) const = default;
  };

  Ptr<HwFlowTracking::ExporterConfig> chosen_p() const;
  void serve_p(const HwFlowTracking::ExporterConfig& exporter);
  template <class F>
  void open_p(const HwFlowTracking::ExporterConfig& exporter);
  template <class F>
  void createPam_p(const std::string& name, const IpGenAddr& addr, const VrfName& vrf);
  template <class F>
  void closePam_p();
  /// False: a handler of one of its notifications has brought all up to date again.
  bool cleanup_p();
  /// Runs the steps in order. Each notifies, and a handler may change what the local collector
  /// serves: the remaining steps are then left out. False: some were.
  template <class... Step>
  bool inOrder_p(Step&&... steps) {
    const uint32_t change = ++change_;
    return ((steps(), change == change_) && ...);
  }
  void handleVrf_p(const VrfName& vrf);
  void handleRetired() override;
  std::string traceId_p(const std::string& expName) const { return expName + " for " + ftName_; }
  const Ptr<HwFlowTracking::LocalCollectorConfig>& lcConfig_p() const {
    return ftHwConfig_->localCollectorConfig();
  }

  std::string ftName_;
  Ptr<const Config> config_;
  Ptr<HwFlowTracking::FtConfig> ftHwConfig_;
  Ptr<LocalCollectorPams> lcPams_;
  Ptr<const Ip::AllVrfStatusLocal> allVrfStatusLocal_;
  Ptr<TaskScheduler> scheduler_;
  bool initialized_ = false;
  double pamCreateRetryInterval_ = 0.05;
  std::map<std::string, bool> exporterReviewList_;
  Place served_;             // as long as there is an endpoint
  uint32_t change_ = 0;      // counts the times that `served_` was begun or ended
  std::string lastRefusal_;  // traced as an error already; empty once an endpoint has opened
  std::map<std::string, std::unique_ptr<ExporterConfigSm>> exporterConfig_;
  std::unique_ptr<FtConfigSm> ftConfigSm_;
  std::unique_ptr<VrfStatusSm> vrfStatusSm_;
  std::unique_ptr<TimerTask> pamRetryTask_;
};
TARN_API Ptr<LocalCollectorConfigSm> localCollectorConfigSmFactory(
    const std::string& ftName, Ptr<const Config> config, Ptr<HwFlowTracking::FtConfig> ftHwConfig,
    Ptr<LocalCollectorPams> lcPams, Ptr<const Ip::AllVrfStatusLocal> allVrfStatusLocal,
    Ptr<TaskScheduler> scheduler);

}  // namespace FlowTracking
