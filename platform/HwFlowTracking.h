#pragma once
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "platform/Entity.h"
#include "platform/Ip.h"
#include "platform/IpfixTypes.h"
#include "platform/TaskScheduler.h"
#include "platform/UdpPam.h"
#include "platform/Values.h"

/// Configuration and status of flow tracking, as the host publishes them and the library reads
/// them. A factory or setter that is given a value out of the range stated here throws
/// std::range_error, whose text names the attribute, the value and the range, and changes nothing.
/// What only the element registry can judge, the host must have checked: a template entry's element
/// is registered, and its enterprise flag is the registered one.
namespace HwFlowTracking {

/// Octets of a tracker's or exporter's name: what the table of counters has room for.
inline constexpr size_t nameMax = 128;

namespace detail {
[[noreturn]] TARN_API void refuse(const char* attribute, const std::string& value,
                                  const char* allowed);
/// `value`, where `ok` holds.
template <class T>
T checked(bool ok, T value, const char* attribute, const char* allowed) {
  if (!ok) refuse(attribute, toText(value), allowed);
  return value;
}
inline std::string checkedName(std::string name, const char* attribute) {
  const bool ok = name.size() <= nameMax;
  return checked(ok, std::move(name), attribute, "at most 128 octets long");
}
/// The flow tracker table carries a time-out in 16 bits of whole seconds.
inline Seconds checkedTimeout(Seconds v, const char* attribute) {
  return checked(v.count() >= 0 && v.count() < 65535, v, attribute, "from 0 to below 65535 s");
}
}  // namespace detail

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

  /// `name`: at most `nameMax` octets.
  explicit ExporterConfig(std::string name)
      : name_(detail::checkedName(std::move(name), "ExporterConfig::name")) {}
  const std::string& name() const { return name_; }

  // The host writes the configuration.
  /// The VRF that the exporter's endpoints are opened in.
  const VrfName& vrfName() const { return vrfName_; }
  void vrfNameIs(const VrfName& v) { set(vrfName_, v, &Watcher::handleVrfName); }
  DscpValue dscp() const { return dscp_; }
  void dscpIs(DscpValue v) { set(dscp_, v, &Watcher::handleDscp); }
  /// Octets of the largest IP packet, `ipfixMtuMin` to 65535. Messages have 48 octets less, room
  /// for an IPv6 and a UDP header.
  uint32_t ipfixMtu() const { return ipfixMtu_; }
  void ipfixMtuIs(uint32_t v) {
    set(ipfixMtu_,
        detail::checked(v >= ipfixMtuMin && v <= 65535, v, "ExporterConfig::ipfixMtu",
                        "from 327 to 65535 octets"),
        &Watcher::handleIpfixMtu);
  }
  /// The headers, and the longest record that a message must be able to carry: an interface's index
  /// and its name of 254 octets behind their length.
  static constexpr uint32_t ipfixMtuMin = ::Ipfix::IpfixConst::ipUdpHeaderLen() +
                                          ::Ipfix::IpfixConst::messageHeaderLen() +
                                          ::Ipfix::IpfixConst::setHeaderLen() + 4 + 1 + 254;
  static_assert(ipfixMtuMin == 327);
  /// Milliseconds between two transmissions of the templates. The library rounds them down to whole
  /// seconds.
  uint32_t templateInterval() const { return templateInterval_; }
  void templateIntervalIs(uint32_t ms) {
    set(templateInterval_, ms, &Watcher::handleTemplateInterval);
  }
  /// The most that each of the two endpoints sends in a second.
  const RateLimit& rateLimit() const { return rateLimit_; }
  void rateLimitIs(const RateLimit& v) { set(rateLimit_, v, &Watcher::handleRateLimit); }
  /// The addresses of the exporter's local interface; zero while it has none of that family.
  IpAddr srcIpAddr() const { return srcIpAddr_; }
  void srcIpAddrIs(IpAddr v) { set(srcIpAddr_, v, &Watcher::handleSrcIpAddr); }
  const Ip6Addr& srcIp6Addr() const { return srcIp6Addr_; }
  void srcIp6AddrIs(const Ip6Addr& v) { set(srcIp6Addr_, v, &Watcher::handleSrcIp6Addr); }
  /// Collectors by name. A name stands in at most one of the two maps, except while the host moves
  /// the collector to the other family: it then adds the collector there first and removes it here
  /// afterwards, so that the collector keeps its sequence number. A lookup of a name that is not
  /// there returns the zero address and port 0.
  const std::map<std::string, IpAndPort>& collectorIpAndPort() const { return collectorIpAndPort_; }
  const std::map<std::string, Ip6AndPort>& collectorIp6AndPort() const {
    return collectorIp6AndPort_;
  }
  IpAndPort collectorIpAndPort(const std::string& name) const {
    return find(collectorIpAndPort_, name);
  }
  Ip6AndPort collectorIp6AndPort(const std::string& name) const {
    return find(collectorIp6AndPort_, name);
  }
  void collectorIpAndPortIs(const std::string& name, const IpAndPort& v) {
    put(collectorIpAndPort_, name, v, &Watcher::handleCollectorIpAndPort);
  }
  void collectorIpAndPortDel(const std::string& name) {
    del(collectorIpAndPort_, name, &Watcher::handleCollectorIpAndPort);
  }
  void collectorIpAndPortDelAll() {
    delAll(collectorIpAndPort_, &Watcher::handleCollectorIpAndPort);
  }
  void collectorIp6AndPortIs(const std::string& name, const Ip6AndPort& v) {
    put(collectorIp6AndPort_, name, v, &Watcher::handleCollectorIp6AndPort);
  }
  void collectorIp6AndPortDel(const std::string& name) {
    del(collectorIp6AndPort_, name, &Watcher::handleCollectorIp6AndPort);
  }
  void collectorIp6AndPortDelAll() {
    delAll(collectorIp6AndPort_, &Watcher::handleCollectorIp6AndPort);
  }

  // The library writes the status.
  /// The family has an endpoint, and so may send once it has collectors.
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
  std::map<std::string, IpAndPort> collectorIpAndPort_;
  std::map<std::string, Ip6AndPort> collectorIp6AndPort_;
  bool exporter4Ready_ = false;
  bool exporter6Ready_ = false;
  uint16_t rxPort4_ = 0;
  uint16_t rxPort6_ = 0;
};
TARN_API Ptr<ExporterConfig> exporterConfigFactory(const std::string& name);

/// Where the tracking side sends its records: to the local collector of one tracker, at the address
/// of one of its exporters. The library writes it; it is complete while `exporterReady` is true.
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
  /// The exporter that the local collector serves; empty while it serves none.
  const std::string& expName() const { return expName_; }
  void expNameIs(const std::string& v) { set(expName_, v, &Watcher::handleExpName); }
  const VrfName& vrfName() const { return vrfName_; }
  void vrfNameIs(const VrfName& v) { set(vrfName_, v, &Watcher::handleVrfName); }
  /// The endpoint's address and port. `destIp` and `destPort` are the same.
  const IpGenAddr& srcIp() const { return srcIp_; }
  void srcIpIs(const IpGenAddr& v) { set(srcIp_, v, &Watcher::handleSrcIp); }
  uint16_t srcPort() const { return srcPort_; }
  void srcPortIs(uint16_t v) { set(srcPort_, v, &Watcher::handleSrcPort); }
  /// Where the tracking side sends its records; no address while the local collector does not
  /// listen.
  const IpGenAddr& destIp() const { return destIp_; }
  void destIpIs(const IpGenAddr& v) { set(destIp_, v, &Watcher::handleDestIp); }
  uint16_t destPort() const { return destPort_; }
  void destPortIs(uint16_t v) { set(destPort_, v, &Watcher::handleDestPort); }
  DscpValue dscpValue() const { return dscpValue_; }
  void dscpValueIs(DscpValue v) { set(dscpValue_, v, &Watcher::handleDscpValue); }
  /// The local collector listens at `destIp` and `destPort`.
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

  /// `name`: at most `nameMax` octets.
  FtConfig(std::string name, FlowTracking::FtId ftId)
      : ftName_(detail::checkedName(std::move(name), "FtConfig::ftName")), ftId_(ftId) {}
  const std::string& ftName() const { return ftName_; }
  FlowTracking::FtId ftId() const { return ftId_; }
  /// Milliseconds, 1 or more, between two reports of a long flow, and between two transmissions of
  /// the options tables.
  uint32_t activeInterval() const { return activeInterval_; }
  void activeIntervalIs(uint32_t ms) {
    set(activeInterval_, detail::checked(ms > 0, ms, "FtConfig::activeInterval", "1 ms or more"),
        &Watcher::handleActiveInterval);
  }
  /// The UDP port of the local collector; 0: the kernel chooses.
  uint16_t localPort() const { return localPort_; }
  void localPortIs(uint16_t v) { set(localPort_, v, &Watcher::handleLocalPort); }
  /// This tracker's local collector; never null.
  const Ptr<LocalCollectorConfig>& localCollectorConfig() const { return localCollectorConfig_; }
  const std::map<std::string, Ptr<ExporterConfig>>& expConfig() const { return expConfig_; }
  Ptr<ExporterConfig> expConfig(const std::string& name) const { return find(expConfig_, name); }
  void expConfigIs(Ptr<ExporterConfig> config) {
    const std::string name = config->name();
    put(expConfig_, name, std::move(config), &Watcher::handleExpConfig);
  }
  void expConfigDel(const std::string& name) { del(expConfig_, name, &Watcher::handleExpConfig); }
  void expConfigDelAll() { delAll(expConfig_, &Watcher::handleExpConfig); }

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
/// length in octets (65535: variable; less than the element's own: RFC 7011, 6.2), whether the
/// element is the enterprise's, and whether it is a flow key.
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
  static std::optional<FtTemplateEntry> fromString(std::string_view text);
  bool operator==(const FtTemplateEntry&) const = default;

 private:
  uint32_t position_ = 0;
  Ipfix::RecordType fieldId_;
  uint16_t fieldLen_ = 0;
  bool enterpriseIe_ = false;
  bool flowKey_ = false;
};

/// One data template of a tracker. Editing the entries notifies nobody: the host sets another
/// `genId` afterwards, and that does.
class TARN_API TemplateStatus final : public Entity {
 public:
  class TARN_API Watcher : public EntityWatcher<TemplateStatus> {
   public:
    using EntityWatcher::EntityWatcher;
    virtual void handleGenId() {}
  };
  /// `templateId`: 256 or more (RFC 7011, 3.4.1), and none that is reserved for an options table.
  explicit TemplateStatus(FlowTracking::TemplateId templateId)
      : templateId_(detail::checked(templateId >= ::Ipfix::IpfixConst::firstDataSetId() &&
                                        !FlowTracking::Constants::isReserved(templateId),
                                    templateId, "TemplateStatus::templateId",
                                    "256 or more, outside of 65280 to 65283")) {}
  FlowTracking::TemplateId templateId() const { return templateId_; }
  const std::map<uint32_t, FtTemplateEntry>& ftTemplateEntry() const { return ftTemplateEntry_; }
  /// An entry of element 1 and no length where there is none at that position.
  FtTemplateEntry ftTemplateEntry(uint32_t position) const {
    return find(ftTemplateEntry_, position);
  }
  void ftTemplateEntryIs(const FtTemplateEntry& e) { ftTemplateEntry_[e.position()] = e; }
  void ftTemplateEntryDel(uint32_t position) { ftTemplateEntry_.erase(position); }
  void ftTemplateEntryDelAll() { ftTemplateEntry_.clear(); }
  uint32_t genId() const { return genId_; }
  void genIdIs(uint32_t v) { set(genId_, v, &Watcher::handleGenId); }

  AttrRows attrRows() const override;

 private:
  FlowTracking::TemplateId templateId_;
  std::map<uint32_t, FtTemplateEntry> ftTemplateEntry_;
  uint32_t genId_ = 0;
};
TARN_API Ptr<TemplateStatus> templateStatusFactory(FlowTracking::TemplateId templateId);

/// What the tracking side says of one tracker: its data templates, and the time-outs that it uses.
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
  /// `name`: at most `nameMax` octets.
  explicit FtStatus(std::string name)
      : name_(detail::checkedName(std::move(name), "FtStatus::name")) {}
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
  void templateStatusDelAll() { delAll(templateStatus_, &Watcher::handleTemplateStatus); }
  /// Each from 0 to below 65535 s. The flow tracker table carries whole seconds.
  Seconds activeInterval() const { return activeInterval_; }
  void activeIntervalIs(Seconds v) {
    set(activeInterval_, detail::checkedTimeout(v, "FtStatus::activeInterval"),
        &Watcher::handleActiveInterval);
  }
  Seconds inactiveTimeout() const { return inactiveTimeout_; }
  void inactiveTimeoutIs(Seconds v) {
    set(inactiveTimeout_, detail::checkedTimeout(v, "FtStatus::inactiveTimeout"),
        &Watcher::handleInactiveTimeout);
  }
  /// The tracker samples one packet out of this many; 0: the rate of `Status` is this tracker's
  /// too.
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
  /// Trackers whose own status says no other rate sample one packet out of this many, 1 or more.
  uint32_t sampleRate() const { return sampleRate_; }
  void sampleRateIs(uint32_t v) {
    set(sampleRate_, detail::checked(v > 0, v, "Status::sampleRate", "1 or more"),
        &Watcher::handleSampleRate);
  }

  AttrRows attrRows() const override;

 private:
  std::map<std::string, Ptr<FtStatus>> ftStatus_;
  uint32_t sampleRate_ = 1;
};
TARN_API Ptr<Status> statusFactory();

}  // namespace HwFlowTracking
