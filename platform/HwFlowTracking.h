#pragma once
#include <map>
#include <string>

#include "platform/Entity.h"
#include "platform/Ip.h"
#include "platform/IpfixTypes.h"
#include "platform/TaskScheduler.h"
#include "platform/UdpPam.h"
#include "platform/Values.h"

/// Configuration and status of flow tracking, as the host publishes them and the library reads
/// them. The host has validated what stands here: tracker and exporter names of 1 to 128 octets,
/// template entries that the element registry knows, intervals within their ranges.
namespace HwFlowTracking {

/// One exporter of one tracker: where it sends from, where to, and how.
class TARN_API ExporterConfig final : public Entity {
 public:
  class TARN_API Watcher : public EntityWatcher<ExporterConfig> {
   public:
    using EntityWatcher::EntityWatcher;
    virtual void handleVrfName() {}
    virtual void handleDscp() {}
    virtual void handleIpfixMtu() {}
    virtual void handleTemplateInterval() {}
    virtual void handleRateLimit() {}
    virtual void handleSrcIpAddr() {}
    virtual void handleSrcIp6Addr() {}
    virtual void handleCollectorIpAndPort(const std::string& /*collectorName*/) {}
    virtual void handleCollectorIp6AndPort(const std::string& /*collectorName*/) {}
    virtual void handleExporter4Ready() {}
    virtual void handleExporter6Ready() {}
    virtual void handleRxPort4() {}
    virtual void handleRxPort6() {}
  };

  explicit ExporterConfig(std::string name) : name_(std::move(name)) {}
  const std::string& name() const { return name_; }

  // Configuration, written by the host.
  const VrfName& vrfName() const { return vrfName_; }
  void vrfNameIs(const VrfName& v) { set(vrfName_, v, &Watcher::handleVrfName); }
  DscpValue dscp() const { return dscp_; }
  void dscpIs(DscpValue v) { set(dscp_, v, &Watcher::handleDscp); }
  /// The largest IP packet, octets; messages are up to 48 octets smaller.
  uint32_t ipfixMtu() const { return ipfixMtu_; }
  void ipfixMtuIs(uint32_t v) { set(ipfixMtu_, v, &Watcher::handleIpfixMtu); }
  /// Milliseconds between template transmissions; the library uses whole seconds of it.
  uint32_t templateInterval() const { return templateInterval_; }
  void templateIntervalIs(uint32_t ms) {
    set(templateInterval_, ms, &Watcher::handleTemplateInterval);
  }
  /// How fast each of the two endpoints may send.
  const RateLimit& rateLimit() const { return rateLimit_; }
  void rateLimitIs(const RateLimit& v) { set(rateLimit_, v, &Watcher::handleRateLimit); }
  /// What the exporter's local interface resolves to; zero while it does not.
  IpAddr srcIpAddr() const { return srcIpAddr_; }
  void srcIpAddrIs(IpAddr v) { set(srcIpAddr_, v, &Watcher::handleSrcIpAddr); }
  const Ip6Addr& srcIp6Addr() const { return srcIp6Addr_; }
  void srcIp6AddrIs(const Ip6Addr& v) { set(srcIp6Addr_, v, &Watcher::handleSrcIp6Addr); }
  /// Collectors by name, in at most one of the two maps; to move one between the families, add it
  /// to the new map before it leaves the old one and it keeps its sequence number.
  const std::map<std::string, IpAndPort>& collectorIpAndPort() const { return collector4_; }
  const std::map<std::string, Ip6AndPort>& collectorIp6AndPort() const { return collector6_; }
  void collectorIpAndPortIs(const std::string& name, const IpAndPort& v) {
    put(collector4_, name, v, &Watcher::handleCollectorIpAndPort);
  }
  void collectorIpAndPortDel(const std::string& name) {
    del(collector4_, name, &Watcher::handleCollectorIpAndPort);
  }
  void collectorIp6AndPortIs(const std::string& name, const Ip6AndPort& v) {
    put(collector6_, name, v, &Watcher::handleCollectorIp6AndPort);
  }
  void collectorIp6AndPortDel(const std::string& name) {
    del(collector6_, name, &Watcher::handleCollectorIp6AndPort);
  }

  // Status, written by the library.
  bool exporter4Ready() const { return exporter4Ready_; }
  void exporter4ReadyIs(bool v) { set(exporter4Ready_, v, &Watcher::handleExporter4Ready); }
  bool exporter6Ready() const { return exporter6Ready_; }
  void exporter6ReadyIs(bool v) { set(exporter6Ready_, v, &Watcher::handleExporter6Ready); }
  /// The local port of each family's endpoint; 0 while that family is not ready.
  uint16_t rxPort4() const { return rxPort4_; }
  void rxPort4Is(uint16_t v) { set(rxPort4_, v, &Watcher::handleRxPort4); }
  uint16_t rxPort6() const { return rxPort6_; }
  void rxPort6Is(uint16_t v) { set(rxPort6_, v, &Watcher::handleRxPort6); }

  AttrRows attrRows() const override;

 private:
  std::string name_;
  VrfName vrfName_{std::string(defaultVrf)};
  DscpValue dscp_;
  uint32_t ipfixMtu_ = 1500;
  uint32_t templateInterval_ = 60000;
  RateLimit rateLimit_;
  IpAddr srcIpAddr_;
  Ip6Addr srcIp6Addr_;
  std::map<std::string, IpAndPort> collector4_;
  std::map<std::string, Ip6AndPort> collector6_;
  bool exporter4Ready_ = false;
  bool exporter6Ready_ = false;
  uint16_t rxPort4_ = 0;
  uint16_t rxPort6_ = 0;
};
TARN_API Ptr<ExporterConfig> exporterConfigFactory(const std::string& name);

/// Where the tracking side sends its records: the local collector of one tracker, on the address of
/// one of its exporters. Written by the library; all of it holds while `exporterReady` is true.
class TARN_API LocalCollectorConfig final : public Entity {
 public:
  class TARN_API Watcher : public EntityWatcher<LocalCollectorConfig> {
   public:
    using EntityWatcher::EntityWatcher;
    virtual void handleExpName() {}
    virtual void handleVrfName() {}
    virtual void handleSrcIp() {}
    virtual void handleSrcPort() {}
    virtual void handleDestIp() {}
    virtual void handleDestPort() {}
    virtual void handleDscpValue() {}
    virtual void handleExporterReady() {}
  };
  /// The exporter whose address it is; empty while there is none.
  const std::string& expName() const { return expName_; }
  void expNameIs(const std::string& v) { set(expName_, v, &Watcher::handleExpName); }
  const VrfName& vrfName() const { return vrfName_; }
  void vrfNameIs(const VrfName& v) { set(vrfName_, v, &Watcher::handleVrfName); }
  /// The endpoint's address and port, in both places.
  const IpGenAddr& srcIp() const { return srcIp_; }
  void srcIpIs(const IpGenAddr& v) { set(srcIp_, v, &Watcher::handleSrcIp); }
  uint16_t srcPort() const { return srcPort_; }
  void srcPortIs(uint16_t v) { set(srcPort_, v, &Watcher::handleSrcPort); }
  /// Where records are to be sent; no address while the local collector does not listen.
  const IpGenAddr& destIp() const { return destIp_; }
  void destIpIs(const IpGenAddr& v) { set(destIp_, v, &Watcher::handleDestIp); }
  uint16_t destPort() const { return destPort_; }
  void destPortIs(uint16_t v) { set(destPort_, v, &Watcher::handleDestPort); }
  DscpValue dscpValue() const { return dscpValue_; }
  void dscpValueIs(DscpValue v) { set(dscpValue_, v, &Watcher::handleDscpValue); }
  /// The local collector listens there.
  bool exporterReady() const { return exporterReady_; }
  void exporterReadyIs(bool v) { set(exporterReady_, v, &Watcher::handleExporterReady); }

  AttrRows attrRows() const override;

 private:
  std::string expName_;
  VrfName vrfName_{std::string(defaultVrf)};
  IpGenAddr srcIp_;
  uint16_t srcPort_ = 0;
  IpGenAddr destIp_;
  uint16_t destPort_ = 0;
  DscpValue dscpValue_;
  bool exporterReady_ = false;
};
TARN_API Ptr<LocalCollectorConfig> localCollectorConfigFactory();

/// One flow tracker: its identity, its time-outs and its exporters.
class TARN_API FtConfig final : public Entity {
 public:
  class TARN_API Watcher : public EntityWatcher<FtConfig> {
   public:
    using EntityWatcher::EntityWatcher;
    virtual void handleActiveInterval() {}
    virtual void handleLocalPort() {}
    virtual void handleExpConfig(const std::string& /*exporterName*/) {}
  };

  FtConfig(std::string name, FlowTracking::FtId ftId) : ftName_(std::move(name)), ftId_(ftId) {}
  const std::string& ftName() const { return ftName_; }
  FlowTracking::FtId ftId() const { return ftId_; }
  /// Milliseconds: how often a long flow, and every options table, is reported.
  uint32_t activeInterval() const { return activeInterval_; }
  void activeIntervalIs(uint32_t ms) { set(activeInterval_, ms, &Watcher::handleActiveInterval); }
  /// The UDP port of the local collector; 0: the kernel chooses.
  uint16_t localPort() const { return localPort_; }
  void localPortIs(uint16_t v) { set(localPort_, v, &Watcher::handleLocalPort); }
  /// Where this tracker's local collector is; never null.
  const Ptr<LocalCollectorConfig>& localCollectorConfig() const { return localCollectorConfig_; }
  const std::map<std::string, Ptr<ExporterConfig>>& expConfig() const { return expConfig_; }
  Ptr<ExporterConfig> expConfig(const std::string& name) const { return find(expConfig_, name); }
  void expConfigIs(Ptr<ExporterConfig> config) {
    const std::string name = config->name();
    put(expConfig_, name, std::move(config), &Watcher::handleExpConfig);
  }
  void expConfigDel(const std::string& name) { del(expConfig_, name, &Watcher::handleExpConfig); }

  AttrRows attrRows() const override;

 private:
  std::string ftName_;
  FlowTracking::FtId ftId_;
  uint32_t activeInterval_ = 300000;
  uint16_t localPort_ = 0;
  Ptr<LocalCollectorConfig> localCollectorConfig_ = localCollectorConfigFactory();
  std::map<std::string, Ptr<ExporterConfig>> expConfig_;
};
TARN_API Ptr<FtConfig> ftConfigFactory(const std::string& name, FlowTracking::FtId ftId);

/// All configured trackers, by name.
class TARN_API Config final : public Entity {
 public:
  class TARN_API Watcher : public EntityWatcher<Config> {
   public:
    using EntityWatcher::EntityWatcher;
    virtual void handleFtConfig(const std::string& /*trackerName*/) {}
  };
  const std::map<std::string, Ptr<FtConfig>>& ftConfig() const { return ftConfig_; }
  Ptr<FtConfig> ftConfig(const std::string& name) const { return find(ftConfig_, name); }
  void ftConfigIs(Ptr<FtConfig> config) {
    const std::string name = config->ftName();
    put(ftConfig_, name, std::move(config), &Watcher::handleFtConfig);
  }
  void ftConfigDel(const std::string& name) { del(ftConfig_, name, &Watcher::handleFtConfig); }
  void ftConfigDelAll() { delAll(ftConfig_, &Watcher::handleFtConfig); }

  AttrRows attrRows() const override;

 private:
  std::map<std::string, Ptr<FtConfig>> ftConfig_;
};
TARN_API Ptr<Config> configFactory();

/// One field of a template: its place in the record, counted from 0, its information element, its
/// length in octets (65535: variable), and whether it is a flow key.
class TARN_API FtTemplateEntry {
 public:
  FtTemplateEntry() = default;
  FtTemplateEntry(uint32_t position, Ipfix::RecordType fieldId)
      : position_(position), fieldId_(fieldId) {}
  uint32_t position() const { return position_; }
  Ipfix::RecordType fieldId() const { return fieldId_; }
  uint16_t fieldLen() const { return fieldLen_; }
  void fieldLenIs(uint16_t v) { fieldLen_ = v; }
  bool enterpriseIe() const { return enterpriseIe_; }
  void enterpriseIeIs(bool v) { enterpriseIe_ = v; }
  bool flowKey() const { return flowKey_; }
  void flowKeyIs(bool v) { flowKey_ = v; }
  /// Octets of this field's specifier in a template (RFC 7011, 3.2).
  uint32_t specifierLen() const { return enterpriseIe_ ? 8 : 4; }
  std::string stringValue() const;
  bool operator==(const FtTemplateEntry&) const = default;

 private:
  uint32_t position_ = 0;
  Ipfix::RecordType fieldId_;
  uint16_t fieldLen_ = 0;
  bool enterpriseIe_ = false;
  bool flowKey_ = false;
};

/// One data template of a tracker. The host edits the entries and then sets a new `genId`; only
/// that is told.
class TARN_API TemplateStatus final : public Entity {
 public:
  class TARN_API Watcher : public EntityWatcher<TemplateStatus> {
   public:
    using EntityWatcher::EntityWatcher;
    virtual void handleGenId() {}
  };
  explicit TemplateStatus(FlowTracking::TemplateId templateId) : templateId_(templateId) {}
  FlowTracking::TemplateId templateId() const { return templateId_; }
  const std::map<uint32_t, FtTemplateEntry>& ftTemplateEntry() const { return entry_; }
  void ftTemplateEntryIs(const FtTemplateEntry& e) { entry_[e.position()] = e; }
  void ftTemplateEntryDel(uint32_t position) { entry_.erase(position); }
  void ftTemplateEntryDelAll() { entry_.clear(); }
  uint32_t genId() const { return genId_; }
  void genIdIs(uint32_t v) { set(genId_, v, &Watcher::handleGenId); }

  AttrRows attrRows() const override;

 private:
  FlowTracking::TemplateId templateId_;
  std::map<uint32_t, FtTemplateEntry> entry_;
  uint32_t genId_ = 0;
};
TARN_API Ptr<TemplateStatus> templateStatusFactory(FlowTracking::TemplateId templateId);

/// What the tracking side says of one tracker: its data templates and its time-outs in force.
class TARN_API FtStatus final : public Entity {
 public:
  class TARN_API Watcher : public EntityWatcher<FtStatus> {
   public:
    using EntityWatcher::EntityWatcher;
    virtual void handleTemplateStatus(FlowTracking::TemplateId /*templateId*/) {}
    virtual void handleActiveInterval() {}
    virtual void handleInactiveTimeout() {}
    virtual void handleSampleRate() {}
  };
  explicit FtStatus(std::string name) : name_(std::move(name)) {}
  const std::string& name() const { return name_; }
  const std::map<FlowTracking::TemplateId, Ptr<TemplateStatus>>& templateStatus() const {
    return templateStatus_;
  }
  Ptr<TemplateStatus> templateStatus(FlowTracking::TemplateId id) const {
    return find(templateStatus_, id);
  }
  void templateStatusIs(Ptr<TemplateStatus> status) {
    const FlowTracking::TemplateId id = status->templateId();
    put(templateStatus_, id, std::move(status), &Watcher::handleTemplateStatus);
  }
  void templateStatusDel(FlowTracking::TemplateId id) {
    del(templateStatus_, id, &Watcher::handleTemplateStatus);
  }
  /// Each below 65535 s: exported in 16 bits of whole seconds.
  Seconds activeInterval() const { return activeInterval_; }
  void activeIntervalIs(Seconds v) { set(activeInterval_, v, &Watcher::handleActiveInterval); }
  Seconds inactiveTimeout() const { return inactiveTimeout_; }
  void inactiveTimeoutIs(Seconds v) { set(inactiveTimeout_, v, &Watcher::handleInactiveTimeout); }
  /// One packet out of this many is sampled; 0: the rate of `Status` holds for this tracker too.
  uint32_t sampleRate() const { return sampleRate_; }
  void sampleRateIs(uint32_t v) { set(sampleRate_, v, &Watcher::handleSampleRate); }

  AttrRows attrRows() const override;

 private:
  std::string name_;
  std::map<FlowTracking::TemplateId, Ptr<TemplateStatus>> templateStatus_;
  Seconds activeInterval_{0};
  Seconds inactiveTimeout_{0};
  uint32_t sampleRate_ = 0;
};
TARN_API Ptr<FtStatus> ftStatusFactory(const std::string& name);

/// The tracking side's status: every tracker it runs, and the sampling rate.
class TARN_API Status final : public Entity {
 public:
  class TARN_API Watcher : public EntityWatcher<Status> {
   public:
    using EntityWatcher::EntityWatcher;
    virtual void handleFtStatus(const std::string& /*trackerName*/) {}
    virtual void handleSampleRate() {}
  };
  const std::map<std::string, Ptr<FtStatus>>& ftStatus() const { return ftStatus_; }
  Ptr<FtStatus> ftStatus(const std::string& name) const { return find(ftStatus_, name); }
  void ftStatusIs(Ptr<FtStatus> status) {
    const std::string name = status->name();
    put(ftStatus_, name, std::move(status), &Watcher::handleFtStatus);
  }
  void ftStatusDel(const std::string& name) { del(ftStatus_, name, &Watcher::handleFtStatus); }
  void ftStatusDelAll() { delAll(ftStatus_, &Watcher::handleFtStatus); }
  /// One packet out of this many is sampled, where the tracker's own status says no other.
  uint32_t sampleRate() const { return sampleRate_; }
  void sampleRateIs(uint32_t v) { set(sampleRate_, v, &Watcher::handleSampleRate); }

  AttrRows attrRows() const override;

 private:
  std::map<std::string, Ptr<FtStatus>> ftStatus_;
  uint32_t sampleRate_ = 1;
};
TARN_API Ptr<Status> statusFactory();

}  // namespace HwFlowTracking
