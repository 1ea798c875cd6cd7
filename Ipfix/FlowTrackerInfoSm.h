#pragma once
#include <map>
#include <memory>
#include <string>

#include "Ipfix/CollectorStats.h"
#include "Ipfix/FlowTrackerPktTxUtil.h"
#include "Ipfix/Ipfix.h"
#include "platform/FlowTracking.h"
#include "platform/HwFlowTracking.h"
#include "platform/Log.h"
#include "platform/Reactor.h"
#include "platform/TaskScheduler.h"
#include "platform/UdpPam.h"

/// The run-time state behind the configured trackers, exporters and collectors: the information
/// tree (`FlowTrackingInfo` → `FlowTrackerInfo` → `ExporterInfo` → `CollectorInfo`) and the
/// reactors that keep it in step with the configuration, open and close the exporters' endpoints
/// and write readiness back.
namespace FlowTracking {

/// What the senders keep for one collector.
class TARN_API CollectorInfo final : public Entity {
 public:
  class TARN_API Watcher : public EntityWatcher<CollectorInfo> {
   public:
    using EntityWatcher::EntityWatcher;
    virtual void handleIpfixMsgSeqNo() {}
    virtual void handleOptTemplateSent() {}
  };
  explicit CollectorInfo(std::string name) : name_(std::move(name)) {}
  const std::string& name() const { return name_; }
  /// Data records sent to this collector so far, modulo 2^32. Senders advance it once for each
  /// message, or once for a run of messages.
  ::Ipfix::IpfixMsgSeqNo ipfixMsgSeqNo() const { return ipfixMsgSeqNo_; }
  void ipfixMsgSeqNoIs(::Ipfix::IpfixMsgSeqNo v) {
    set(ipfixMsgSeqNo_, v, &Watcher::handleIpfixMsgSeqNo);
  }
  void ipfixMsgSeqNoInc(uint32_t n) { ipfixMsgSeqNoIs(ipfixMsgSeqNo_ + ::Ipfix::IpfixMsgSeqNo(n)); }
  /// The collector has been sent the options templates.
  bool optTemplateSent() const { return optTemplateSent_; }
  void optTemplateSentIs(bool v) { set(optTemplateSent_, v, &Watcher::handleOptTemplateSent); }

  AttrRows attrRows() const override;

 private:
  std::string name_;
  ::Ipfix::IpfixMsgSeqNo ipfixMsgSeqNo_;
  bool optTemplateSent_ = false;
};
TARN_API Ptr<CollectorInfo> collectorInfoFactory(const std::string& name);

/// What the senders share for one exporter.
class TARN_API ExporterInfo final : public Entity {
 public:
  class TARN_API Watcher : public EntityWatcher<ExporterInfo> {
   public:
    using EntityWatcher::EntityWatcher;
    virtual void handleCollInfo(const std::string& /*collectorName*/) {}
    virtual void handleUdpPam4() {}
    virtual void handleUdpPam6() {}
    virtual void handleRxPort4() {}
    virtual void handleRxPort6() {}
  };
  explicit ExporterInfo(std::string name) : name_(std::move(name)) {}
  const std::string& name() const { return name_; }
  const std::map<std::string, Ptr<CollectorInfo>>& collInfo() const { return collInfo_; }
  Ptr<CollectorInfo> collInfo(const std::string& name) const { return find(collInfo_, name); }
  /// The entry of that name, which this makes when there is none.
  Ptr<CollectorInfo> collInfoIs(const std::string& name) {
    return made(collInfo_, name, &Watcher::handleCollInfo);
  }
  void collInfoDel(const std::string& name) { del(collInfo_, name, &Watcher::handleCollInfo); }
  void collInfoDelAll() { delAll(collInfo_, &Watcher::handleCollInfo); }
  /// The open endpoint of each family, or null.
  const Ptr<UdpPam>& udpPam4() const { return udpPam4_; }
  void udpPam4Is(Ptr<UdpPam> v) { set(udpPam4_, std::move(v), &Watcher::handleUdpPam4); }
  const Ptr<UdpPam>& udpPam6() const { return udpPam6_; }
  void udpPam6Is(Ptr<UdpPam> v) { set(udpPam6_, std::move(v), &Watcher::handleUdpPam6); }
  /// The endpoint's local port; 0 where there is none.
  uint16_t rxPort4() const { return rxPort4_; }
  void rxPort4Is(uint16_t v) { set(rxPort4_, v, &Watcher::handleRxPort4); }
  uint16_t rxPort6() const { return rxPort6_; }
  void rxPort6Is(uint16_t v) { set(rxPort6_, v, &Watcher::handleRxPort6); }

  AttrRows attrRows() const override;

 private:
  std::string name_;
  std::map<std::string, Ptr<CollectorInfo>> collInfo_;
  Ptr<UdpPam> udpPam4_;
  Ptr<UdpPam> udpPam6_;
  uint16_t rxPort4_ = 0;
  uint16_t rxPort6_ = 0;
};
TARN_API Ptr<ExporterInfo> exporterInfoFactory(const std::string& name);

/// The exporters of one tracker.
class TARN_API FlowTrackerInfo final : public Entity {
 public:
  class TARN_API Watcher : public EntityWatcher<FlowTrackerInfo> {
   public:
    using EntityWatcher::EntityWatcher;
    virtual void handleExpInfo(const std::string& /*exporterName*/) {}
  };
  explicit FlowTrackerInfo(std::string name) : name_(std::move(name)) {}
  const std::string& name() const { return name_; }
  const std::map<std::string, Ptr<ExporterInfo>>& expInfo() const { return expInfo_; }
  Ptr<ExporterInfo> expInfo(const std::string& name) const { return find(expInfo_, name); }
  Ptr<ExporterInfo> expInfoIs(const std::string& name) {
    return made(expInfo_, name, &Watcher::handleExpInfo);
  }
  void expInfoDel(const std::string& name) { del(expInfo_, name, &Watcher::handleExpInfo); }
  void expInfoDelAll() { delAll(expInfo_, &Watcher::handleExpInfo); }

  AttrRows attrRows() const override;

 private:
  std::string name_;
  std::map<std::string, Ptr<ExporterInfo>> expInfo_;
};
TARN_API Ptr<FlowTrackerInfo> flowTrackerInfoFactory(const std::string& name);

/// The root: all trackers of one kind.
class TARN_API FlowTrackingInfo final : public Entity {
 public:
  class TARN_API Watcher : public EntityWatcher<FlowTrackingInfo> {
   public:
    using EntityWatcher::EntityWatcher;
    virtual void handleFtInfo(const std::string& /*trackerName*/) {}
  };
  explicit FlowTrackingInfo(FlowTrackingType type) : flowTrackingType_(type) {}
  FlowTrackingType flowTrackingType() const { return flowTrackingType_; }
  const std::map<std::string, Ptr<FlowTrackerInfo>>& ftInfo() const { return ftInfo_; }
  Ptr<FlowTrackerInfo> ftInfo(const std::string& name) const { return find(ftInfo_, name); }
  Ptr<FlowTrackerInfo> ftInfoIs(const std::string& name) {
    return made(ftInfo_, name, &Watcher::handleFtInfo);
  }
  void ftInfoDel(const std::string& name) { del(ftInfo_, name, &Watcher::handleFtInfo); }
  void ftInfoDelAll() { delAll(ftInfo_, &Watcher::handleFtInfo); }

  AttrRows attrRows() const override;

 private:
  FlowTrackingType flowTrackingType_;
  std::map<std::string, Ptr<FlowTrackerInfo>> ftInfo_;
};
TARN_API Ptr<FlowTrackingInfo> flowTrackingInfoFactory(FlowTrackingType type);

/// The two address families of an exporter: what code that serves either of them needs to know. An
/// `Info` is an `ExporterInfo` or a `LocalCollectorPams`.
struct V4 {
  static constexpr bool ipv6 = false;
  static constexpr char digit = '4';
  using Addr = IpAddr;
  using Dst = IpAndPort;
  using Config = HwFlowTracking::ExporterConfig;
  static Addr src(const Config& c) { return c.srcIpAddr(); }
  static bool ready(const Config& c) { return c.exporter4Ready(); }
  static void readyIs(Config& c, bool v) { c.exporter4ReadyIs(v); }
  static void rxPortIs(Config& c, uint16_t port) { c.rxPort4Is(port); }
  static const std::map<std::string, Dst>& collectors(const Config& c) {
    return c.collectorIpAndPort();
  }
  template <class Info>
  static const Ptr<UdpPam>& pam(const Info& i) {
    return i.udpPam4();
  }
  template <class Info>
  static void pamIs(Info& i, Ptr<UdpPam> pam) {
    i.udpPam4Is(std::move(pam));
  }
  template <class Info>
  static void pamReadyIs(Info& i, bool v) {
    i.udpPam4ReadyIs(v);
  }
  static void rxAddrIs(UdpPam& pam, const IpGenAddr& a) { pam.rxIpAddrIs(a.ipAddr()); }
  static uint16_t rxPort(const ExporterInfo& i) { return i.rxPort4(); }
  static void rxPortIs(ExporterInfo& i, uint16_t port) { i.rxPort4Is(port); }
  static Tarn::Ipfix::CollectorInfo info(const Dst& d) {
    return Tarn::Ipfix::CollectorInfo::fromIpAndPort(d);
  }
  static void send(const Ptr<Pkt>& pkt, const Ptr<UdpPam>& pam, const Addr& src, const Dst& dst,
                   DscpValue dscp) {
    sendPkt4(pkt, pam, src, dst, dscp);
  }
};
struct V6 {
  static constexpr bool ipv6 = true;
  static constexpr char digit = '6';
  using Addr = Ip6Addr;
  using Dst = Ip6AndPort;
  using Config = HwFlowTracking::ExporterConfig;
  static const Addr& src(const Config& c) { return c.srcIp6Addr(); }
  static bool ready(const Config& c) { return c.exporter6Ready(); }
  static void readyIs(Config& c, bool v) { c.exporter6ReadyIs(v); }
  static void rxPortIs(Config& c, uint16_t port) { c.rxPort6Is(port); }
  static const std::map<std::string, Dst>& collectors(const Config& c) {
    return c.collectorIp6AndPort();
  }
  template <class Info>
  static const Ptr<UdpPam>& pam(const Info& i) {
    return i.udpPam6();
  }
  template <class Info>
  static void pamIs(Info& i, Ptr<UdpPam> pam) {
    i.udpPam6Is(std::move(pam));
  }
  template <class Info>
  static void pamReadyIs(Info& i, bool v) {
    i.udpPam6ReadyIs(v);
  }
  static void rxAddrIs(UdpPam& pam, const IpGenAddr& a) { pam.rxIp6AddrIs(a.ip6Addr()); }
  static uint16_t rxPort(const ExporterInfo& i) { return i.rxPort6(); }
  static void rxPortIs(ExporterInfo& i, uint16_t port) { i.rxPort6Is(port); }
  static Tarn::Ipfix::CollectorInfo info(const Dst& d) {
    return Tarn::Ipfix::CollectorInfo::fromIp6AndPort(d);
  }
  static void send(const Ptr<Pkt>& pkt, const Ptr<UdpPam>& pam, const Addr& src, const Dst& dst,
                   DscpValue dscp) {
    sendPkt6(pkt, pam, src, dst, dscp);
  }
};

/// The host logs one of these two messages when an exporter's readiness changes. Arguments: kind of
/// tracking, exporter, VRF, kind of tracking, tracker.
inline constexpr LogMessage exporterActiveMessage{
    .name = "FLOWTRACKING_EXPORTER_ACTIVE",
    .severity = 6,
    .format = "%s exporter %s in VRF %s, in %s flow tracker %s is active.",
    .explanation = "This exporter is ready to export packets.",
    .recommendedAction = ""};
inline constexpr LogMessage exporterInactiveMessage{
    .name = "FLOWTRACKING_EXPORTER_INACTIVE",
    .severity = 6,
    .format = "%s exporter %s in VRF %s, in %s flow tracker %s is inactive.",
    .explanation = "This exporter is not ready to export packets.",
    .recommendedAction =
        "Ensure that both the local interface, and at least one collector, have been configured, "
        "and that both have valid IP addresses."};

/// Keeps one exporter: its collectors' sequence numbers, an endpoint per family whose source
/// address is resolved, and its readiness in the configuration entity. When it is retired it closes
/// the endpoints, drops the collectors' state and writes not-ready back.
class TARN_API ExporterInfoSm final : public Entity {
 public:
  /// `siblings`: the map that its owner will keep it in.
  ExporterInfoSm(FlowTrackingType ftrType, const std::string& ftName, const std::string& expName,
                 Ptr<HwFlowTracking::ExporterConfig> hwExpConfig, Ptr<ExporterInfo> expInfo,
                 Ptr<TaskSchedulerRoot> scheduler, Ptr<::Ipfix::AgentInfo> agentInfo,
                 ChildMap<ExporterInfoSm>* siblings = nullptr);
  ~ExporterInfoSm() override;
  template <class... A>
  static Ptr<ExporterInfoSm> ExporterInfoSmIs(A&&... a) {
    return make<ExporterInfoSm>(std::forward<A>(a)...);
  }

  FlowTrackingType ftrType() const { return ftrType_; }
  const std::string& ftName() const { return ftName_; }
  const std::string& expName() const { return expName_; }
  const Ptr<HwFlowTracking::ExporterConfig>& hwExpConfig() const { return hwExpConfig_; }
  const Ptr<ExporterInfo>& expInfo() const { return expInfo_; }
  const Ptr<TaskSchedulerRoot>& scheduler() const { return scheduler_; }
  const Ptr<::Ipfix::AgentInfo>& agentInfo() const { return agentInfo_; }
  bool initialized() const { return initialized_; }
  /// "<tracker> for <exporter>"
  const std::string& traceId() const { return traceId_; }
  /// Why the host refuses the family's endpoint, which the reactor tries to open again every
  /// second; empty when the host does not refuse it.
  const std::string& pam4Problem() const { return side_[V4::ipv6].problem; }
  const std::string& pam6Problem() const { return side_[V6::ipv6].problem; }

  void handleInitialized();
  void handleCollector(const std::string& name);
  void handleCollector4();
  void handleCollector6();
  /// The family's source changed: opens a new endpoint, which takes the place of the old one, or
  /// closes it where there is no source any more.
  void handlePam4Management();
  void handlePam6Management();
  void handlePam();
  /// Opens an endpoint in place of one that there may be. Refused, the family has none.
  void createPam4();
  void createPam6();
  void deletePam4();
  void deletePam6();
  void handleDestroyed();

  AttrRows attrRows() const override;

 private:
  class HwExpConfigSm;
  class ExpInfoSm;
  /// What there is once for each family.
  struct Side {
    std::string problem;
    /// Counts the changes of the endpoint. A change notifies; a handler may make another one, and
    /// the first then leaves what remains of it undone.
    uint32_t change = 0;
  };
  template <class F>
  Side& side_p() {
    return side_[F::ipv6];
  }
  template <class F>
  void handleCollectors_p();
  template <class F>
  void managePam_p();
  template <class F>
  void createPam_p();
  template <class F>
  void deletePam_p();
  template <class F>
  void handleVrfName_p();
  template <class F>
  void writeReady_p();
  /// A new endpoint in service, or null and the problem noted when the host refuses it.
  template <class F>
  Ptr<UdpPam> openPam_p();
  void retryPams_p();
  void handleRetired() override { handleDestroyed(); }

  FlowTrackingType ftrType_;
  std::string ftName_;
  std::string expName_;
  Ptr<HwFlowTracking::ExporterConfig> hwExpConfig_;
  Ptr<ExporterInfo> expInfo_;
  Ptr<TaskSchedulerRoot> scheduler_;
  Ptr<::Ipfix::AgentInfo> agentInfo_;
  std::string traceId_;
  bool initialized_ = false;
  Side side_[2];
  std::unique_ptr<HwExpConfigSm> hwExpConfigSm_;
  std::unique_ptr<ExpInfoSm> expInfoSm_;
  std::unique_ptr<TimerTask> pamRetryTask_;
};
TARN_API Ptr<ExporterInfoSm> exporterInfoSmFactory(
    FlowTrackingType ftrType, const std::string& ftName, const std::string& expName,
    Ptr<HwFlowTracking::ExporterConfig> hwExpConfig, Ptr<ExporterInfo> expInfo,
    Ptr<TaskSchedulerRoot> scheduler, Ptr<::Ipfix::AgentInfo> agentInfo);

/// Keeps one tracker: an `ExporterInfoSm` and an `ExporterInfo` per configured exporter.
class TARN_API FlowTrackerInfoSm final : public Entity {
 public:
  /// `siblings`: the map that its owner will keep it in.
  FlowTrackerInfoSm(FlowTrackingType ftrType, const std::string& ftName,
                    Ptr<HwFlowTracking::FtConfig> hwFtConfig, Ptr<FlowTrackerInfo> ftInfo,
                    Ptr<TaskSchedulerRoot> scheduler, Ptr<::Ipfix::AgentInfo> agentInfo,
                    ChildMap<FlowTrackerInfoSm>* siblings = nullptr);
  ~FlowTrackerInfoSm() override;
  template <class... A>
  static Ptr<FlowTrackerInfoSm> FlowTrackerInfoSmIs(A&&... a) {
    return make<FlowTrackerInfoSm>(std::forward<A>(a)...);
  }

  FlowTrackingType ftrType() const { return ftrType_; }
  const std::string& ftName() const { return ftName_; }
  const Ptr<HwFlowTracking::FtConfig>& hwFtConfig() const { return hwFtConfig_; }
  const Ptr<FlowTrackerInfo>& ftInfo() const { return ftInfo_; }
  const Ptr<TaskSchedulerRoot>& scheduler() const { return scheduler_; }
  const Ptr<::Ipfix::AgentInfo>& agentInfo() const { return agentInfo_; }
  bool initialized() const { return initialized_; }
  const std::map<std::string, Ptr<ExporterInfoSm>>& expInfoSm() const { return expInfoSm_.all(); }
  Ptr<ExporterInfoSm> expInfoSm(const std::string& name) const { return expInfoSm_.find(name); }
  /// Makes the reactor of that exporter in place of one that there may be.
  Ptr<ExporterInfoSm> expInfoSmIs(FlowTrackingType ftrType, const std::string& ftName,
                                  const std::string& expName,
                                  Ptr<HwFlowTracking::ExporterConfig> hwExpConfig,
                                  Ptr<ExporterInfo> expInfo, Ptr<TaskSchedulerRoot> scheduler,
                                  Ptr<::Ipfix::AgentInfo> agentInfo);
  void expInfoSmDel(const std::string& name) { expInfoSm_.del(name); }
  void expInfoSmDelAll() { expInfoSm_.delAll(); }

  void handleInitialized();
  void handleHwExpConfig(const std::string& exporterName);

  AttrRows attrRows() const override;

 private:
  class HwFtConfigSm;
  void handleRetired() override { expInfoSmDelAll(); }

  FlowTrackingType ftrType_;
  std::string ftName_;
  Ptr<HwFlowTracking::FtConfig> hwFtConfig_;
  Ptr<FlowTrackerInfo> ftInfo_;
  Ptr<TaskSchedulerRoot> scheduler_;
  Ptr<::Ipfix::AgentInfo> agentInfo_;
  bool initialized_ = false;
  ChildMap<ExporterInfoSm> expInfoSm_;
  std::unique_ptr<HwFtConfigSm> hwFtConfigSm_;
};
TARN_API Ptr<FlowTrackerInfoSm> flowTrackerInfoSmFactory(FlowTrackingType ftrType,
                                                         const std::string& ftName,
                                                         Ptr<HwFlowTracking::FtConfig> hwFtConfig,
                                                         Ptr<FlowTrackerInfo> ftInfo,
                                                         Ptr<TaskSchedulerRoot> scheduler,
                                                         Ptr<::Ipfix::AgentInfo> agentInfo);

/// The root reactor: a `FlowTrackerInfoSm` and a `FlowTrackerInfo` per tracker of `hwConfig`.
class TARN_API FlowTrackingInfoSm final : public Entity {
 public:
  FlowTrackingInfoSm(Ptr<TaskSchedulerRoot> scheduler, Ptr<HwFlowTracking::Config> hwConfig,
                     Ptr<FlowTrackingInfo> flowTrackingInfo, Ptr<::Ipfix::AgentInfo> agentInfo);
  ~FlowTrackingInfoSm() override;
  template <class... A>
  static Ptr<FlowTrackingInfoSm> FlowTrackingInfoSmIs(A&&... a) {
    return make<FlowTrackingInfoSm>(std::forward<A>(a)...);
  }

  const Ptr<TaskSchedulerRoot>& scheduler() const { return scheduler_; }
  const Ptr<HwFlowTracking::Config>& hwConfig() const { return hwConfig_; }
  const Ptr<FlowTrackingInfo>& flowTrackingInfo() const { return flowTrackingInfo_; }
  const Ptr<::Ipfix::AgentInfo>& agentInfo() const { return agentInfo_; }
  bool initialized() const { return initialized_; }
  const std::map<std::string, Ptr<FlowTrackerInfoSm>>& ftInfoSm() const { return ftInfoSm_.all(); }
  Ptr<FlowTrackerInfoSm> ftInfoSm(const std::string& name) const { return ftInfoSm_.find(name); }
  /// Makes the reactor of that tracker in place of one that there may be.
  Ptr<FlowTrackerInfoSm> ftInfoSmIs(FlowTrackingType ftrType, const std::string& ftName,
                                    Ptr<HwFlowTracking::FtConfig> hwFtConfig,
                                    Ptr<FlowTrackerInfo> ftInfo, Ptr<TaskSchedulerRoot> scheduler,
                                    Ptr<::Ipfix::AgentInfo> agentInfo);
  void ftInfoSmDel(const std::string& name) { ftInfoSm_.del(name); }
  void ftInfoSmDelAll() { ftInfoSm_.delAll(); }

  void handleInitialized();
  void handleHwFtConfig(const std::string& trackerName);

  AttrRows attrRows() const override;

 private:
  class HwConfigSm;
  void handleRetired() override { ftInfoSmDelAll(); }

  Ptr<TaskSchedulerRoot> scheduler_;
  Ptr<HwFlowTracking::Config> hwConfig_;
  Ptr<FlowTrackingInfo> flowTrackingInfo_;
  Ptr<::Ipfix::AgentInfo> agentInfo_;
  bool initialized_ = false;
  ChildMap<FlowTrackerInfoSm> ftInfoSm_;
  std::unique_ptr<HwConfigSm> hwConfigSm_;
};
TARN_API Ptr<FlowTrackingInfoSm> flowTrackingInfoSmFactory(Ptr<TaskSchedulerRoot> scheduler,
                                                           Ptr<HwFlowTracking::Config> hwConfig,
                                                           Ptr<FlowTrackingInfo> flowTrackingInfo,
                                                           Ptr<::Ipfix::AgentInfo> agentInfo);

}  // namespace FlowTracking
