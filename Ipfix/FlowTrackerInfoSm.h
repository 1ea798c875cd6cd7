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
    virtual void handleOptTemplateSent() {}
  };
  explicit CollectorInfo(std::string name) : name_(std::move(name)) {}
  const std::string& name() const { return name_; }
  /// Data records sent to this collector so far, modulo 2^32. Not watched: it moves per message.
  ::Ipfix::IpfixMsgSeqNo ipfixMsgSeqNo() const { return ipfixMsgSeqNo_; }
  void ipfixMsgSeqNoIs(::Ipfix::IpfixMsgSeqNo v) { ipfixMsgSeqNo_ = v; }
  void ipfixMsgSeqNoInc(uint32_t n) { ipfixMsgSeqNo_ = ipfixMsgSeqNo_ + ::Ipfix::IpfixMsgSeqNo(n); }
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
  /// The entry of that name, made when there is none.
  Ptr<CollectorInfo> collInfoIs(const std::string& name);
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
  Ptr<ExporterInfo> expInfoIs(const std::string& name);
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
  Ptr<FlowTrackerInfo> ftInfoIs(const std::string& name);
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

/// Told by the host when an exporter's readiness changes; arguments: kind of tracking, exporter,
/// VRF, kind of tracking, tracker.
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
/// address is resolved, and its readiness in the configuration entity.
class TARN_API ExporterInfoSm final : public Entity {
 public:
  static Ptr<ExporterInfoSm> ExporterInfoSmIs(FlowTrackingType ftrType, const std::string& ftName,
                                              const std::string& expName,
                                              Ptr<HwFlowTracking::ExporterConfig> hwExpConfig,
                                              Ptr<ExporterInfo> expInfo,
                                              Ptr<TaskSchedulerRoot> scheduler,
                                              Ptr<::Ipfix::AgentInfo> agentInfo);
  /// Closes the endpoints, drops the collectors' state and writes not-ready back.
  ~ExporterInfoSm() override;

  FlowTrackingType ftrType() const { return ftrType_; }
  const Ptr<HwFlowTracking::ExporterConfig>& hwExpConfig() const { return hwExpConfig_; }
  const Ptr<ExporterInfo>& expInfo() const { return expInfo_; }
  bool initialized() const { return initialized_; }
  /// "<tracker> for <exporter>"
  const std::string& traceId() const { return traceId_; }
  /// Why the host refuses the family's endpoint, which is tried again; empty when it does not.
  const std::string& pam4Problem() const { return pam4Problem_; }
  const std::string& pam6Problem() const { return pam6Problem_; }

  void handleInitialized();
  void handleCollector(const std::string& name);
  void handleCollector4();
  void handleCollector6();
  /// The family's source or VRF changed: a fresh endpoint, or none while there is no source.
  void handlePam4Management();
  void handlePam6Management();
  void handlePam();
  void createPam4();
  void createPam6();
  void deletePam4();
  void deletePam6();
  void handleDestroyed();

  AttrRows attrRows() const override;

 private:
  class HwExpConfigSm;
  class ExpInfoSm;
  ExporterInfoSm(FlowTrackingType ftrType, const std::string& ftName, const std::string& expName,
                 Ptr<HwFlowTracking::ExporterConfig> hwExpConfig, Ptr<ExporterInfo> expInfo,
                 Ptr<TaskSchedulerRoot> scheduler, Ptr<::Ipfix::AgentInfo> agentInfo);
  /// A new endpoint in service, or null and the reason when the host refuses it.
  Ptr<UdpPam> openPam_p(const char* prefix, bool ipv6, std::string& problem);
  void retryPams_p();

  FlowTrackingType ftrType_;
  std::string ftName_;
  std::string expName_;
  Ptr<HwFlowTracking::ExporterConfig> hwExpConfig_;
  Ptr<ExporterInfo> expInfo_;
  Ptr<TaskSchedulerRoot> scheduler_;
  Ptr<::Ipfix::AgentInfo> agentInfo_;
  std::string traceId_;
  bool initialized_ = false;
  std::string pam4Problem_;
  std::string pam6Problem_;
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
  static Ptr<FlowTrackerInfoSm> FlowTrackerInfoSmIs(FlowTrackingType ftrType,
                                                    const std::string& ftName,
                                                    Ptr<HwFlowTracking::FtConfig> hwFtConfig,
                                                    Ptr<FlowTrackerInfo> ftInfo,
                                                    Ptr<TaskSchedulerRoot> scheduler,
                                                    Ptr<::Ipfix::AgentInfo> agentInfo);
  ~FlowTrackerInfoSm() override;

  const Ptr<HwFlowTracking::FtConfig>& hwFtConfig() const { return hwFtConfig_; }
  bool initialized() const { return initialized_; }
  Ptr<ExporterInfoSm> expInfoSm(const std::string& name) const { return find(expInfoSm_, name); }
  Ptr<ExporterInfoSm> expInfoSmIs(FlowTrackingType ftrType, const std::string& ftName,
                                  const std::string& expName,
                                  Ptr<HwFlowTracking::ExporterConfig> hwExpConfig,
                                  Ptr<ExporterInfo> expInfo, Ptr<TaskSchedulerRoot> scheduler,
                                  Ptr<::Ipfix::AgentInfo> agentInfo);
  void expInfoSmDel(const std::string& name);
  void expInfoSmDelAll();
  const std::map<std::string, Ptr<ExporterInfoSm>>& expInfoSms() const { return expInfoSm_; }

  void handleInitialized();
  void handleHwExpConfig(const std::string& exporterName);

  AttrRows attrRows() const override;

 private:
  class HwFtConfigSm;
  FlowTrackerInfoSm(FlowTrackingType ftrType, const std::string& ftName,
                    Ptr<HwFlowTracking::FtConfig> hwFtConfig, Ptr<FlowTrackerInfo> ftInfo,
                    Ptr<TaskSchedulerRoot> scheduler, Ptr<::Ipfix::AgentInfo> agentInfo);

  FlowTrackingType ftrType_;
  std::string ftName_;
  Ptr<HwFlowTracking::FtConfig> hwFtConfig_;
  Ptr<FlowTrackerInfo> ftInfo_;
  Ptr<TaskSchedulerRoot> scheduler_;
  Ptr<::Ipfix::AgentInfo> agentInfo_;
  bool initialized_ = false;
  std::map<std::string, Ptr<ExporterInfoSm>> expInfoSm_;
  std::unique_ptr<HwFtConfigSm> hwFtConfigSm_;
};
TARN_API Ptr<FlowTrackerInfoSm> flowTrackerInfoSmFactory(FlowTrackingType ftrType,
                                                         const std::string& ftName,
                                                         Ptr<HwFlowTracking::FtConfig> hwFtConfig,
                                                         Ptr<FlowTrackerInfo> ftInfo,
                                                         Ptr<TaskSchedulerRoot> scheduler,
                                                         Ptr<::Ipfix::AgentInfo> agentInfo);

/// The root reactor: follows the trackers of `hwConfig`.
class TARN_API FlowTrackingInfoSm final : public Entity {
 public:
  static Ptr<FlowTrackingInfoSm> FlowTrackingInfoSmIs(Ptr<TaskSchedulerRoot> scheduler,
                                                      Ptr<HwFlowTracking::Config> hwConfig,
                                                      Ptr<FlowTrackingInfo> flowTrackingInfo,
                                                      Ptr<::Ipfix::AgentInfo> agentInfo);
  ~FlowTrackingInfoSm() override;

  const Ptr<FlowTrackingInfo>& flowTrackingInfo() const { return flowTrackingInfo_; }
  bool initialized() const { return initialized_; }
  Ptr<FlowTrackerInfoSm> ftInfoSm(const std::string& name) const { return find(ftInfoSm_, name); }
  Ptr<FlowTrackerInfoSm> ftInfoSmIs(FlowTrackingType ftrType, const std::string& ftName,
                                    Ptr<HwFlowTracking::FtConfig> hwFtConfig,
                                    Ptr<FlowTrackerInfo> ftInfo, Ptr<TaskSchedulerRoot> scheduler,
                                    Ptr<::Ipfix::AgentInfo> agentInfo);
  void ftInfoSmDel(const std::string& name);
  void ftInfoSmDelAll();
  const std::map<std::string, Ptr<FlowTrackerInfoSm>>& ftInfoSms() const { return ftInfoSm_; }

  void handleInitialized();
  void handleHwFtConfig(const std::string& trackerName);

  AttrRows attrRows() const override;

 private:
  class HwConfigSm;
  FlowTrackingInfoSm(Ptr<TaskSchedulerRoot> scheduler, Ptr<HwFlowTracking::Config> hwConfig,
                     Ptr<FlowTrackingInfo> flowTrackingInfo, Ptr<::Ipfix::AgentInfo> agentInfo);

  Ptr<TaskSchedulerRoot> scheduler_;
  Ptr<HwFlowTracking::Config> hwConfig_;
  Ptr<FlowTrackingInfo> flowTrackingInfo_;
  Ptr<::Ipfix::AgentInfo> agentInfo_;
  bool initialized_ = false;
  std::map<std::string, Ptr<FlowTrackerInfoSm>> ftInfoSm_;
  std::unique_ptr<HwConfigSm> hwConfigSm_;
};
TARN_API Ptr<FlowTrackingInfoSm> flowTrackingInfoSmFactory(Ptr<TaskSchedulerRoot> scheduler,
                                                           Ptr<HwFlowTracking::Config> hwConfig,
                                                           Ptr<FlowTrackingInfo> flowTrackingInfo,
                                                           Ptr<::Ipfix::AgentInfo> agentInfo);

}  // namespace FlowTracking
