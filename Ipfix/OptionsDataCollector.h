#pragma once
#include <span>
#include <string>

#include "Ipfix/FlowTrackerInfoSm.h"
#include "Ipfix/OptionsDataMessages.h"

/// One destination of an options data exporter.
namespace FlowTracking {

class OptionsDataExporterSm;

/// What a collector was sent at one go.
struct TARN_API SentMessages {
  uint64_t messages = 0;
  uint64_t records = 0;
  uint64_t octets = 0;
  SetRecords sets;

  void add(const MessageWrapper& m) {
    ++messages;
    records += m.message()->recordCount();
    octets += m.message()->len();
    sets.add(m.setRecord());
  }
};

/// Numbers, stamps, sends and counts what its exporter hands to it. Retired by the exporter, which
/// owns it: then nothing is counted any more, as its statistics entry may be gone.
class TARN_API Collector final : public Entity {
 public:
  /// `Sm` is OptionsDataExporterSm; a template, since that class is defined behind this one. Where
  /// `ipv4` does not say it, a port in `dst4` makes it an IPv4 collector.
  template <class Sm>
  Collector(std::string name, Ptr<CollectorInfo> collInfo, const IpAndPort& dst4,
            const Ip6AndPort& dst6, Sm* exporterSm, std::optional<bool> ipv4 = std::nullopt)
      : name_(std::move(name)),
        collInfo_(std::move(collInfo)),
        dst4_(dst4),
        dst6_(dst6),
        ipv4_(ipv4.value_or(dst4.port != 0)),
        exporterSm_(exporterSm),
        collStats_(exporterSm->collStats()),
        key_(exporterSm->ftName(), exporterSm->expName(), ipv4_ ? V4::info(dst4) : V6::info(dst6)),
        traceId_(exporterSm->traceId()) {}
  const std::string& name() const { return name_; }
  const Ptr<CollectorInfo>& collInfo() const { return collInfo_; }
  const IpAndPort& dst4() const { return dst4_; }
  const Ip6AndPort& dst6() const { return dst6_; }
  bool isIpv4() const { return ipv4_; }
  /// Null once the collector is retired.
  OptionsDataExporterSm* exporterSm() const { return exporterSm_; }

  /// Not retired, and the family has an endpoint and a source address.
  bool reachable(const ExporterInfo& expInfo,
                 const HwFlowTracking::ExporterConfig& hwExpConfig) const;
  /// Numbers, stamps and sends one message, and counts it. The family's endpoint and source must be
  /// there (asserted).
  void sendMessage(const ExporterInfo& expInfo, const HwFlowTracking::ExporterConfig& hwExpConfig,
                   const Ptr<MessageWrapper>& msgWrap);
  /// The same for many, without counting: no watcher of the statistics runs between two messages.
  /// The caller counts them at one go.
  SentMessages transmit(const ExporterInfo& expInfo,
                        const HwFlowTracking::ExporterConfig& hwExpConfig,
                        std::span<const Ptr<MessageWrapper>> messages);
  /// Adds to the statistics entry, whose watchers may retire this collector and its exporter. An
  /// entry counts 20 set ids. Records of a further one are in the totals only, and one trace line
  /// tells of it: to stop the agent for a tracker with many templates, or to drop the counters of a
  /// template that is in use, would be worse.
  void updateStats(const SentMessages& sent);
  void updateStats(const Ptr<MessageWrapper>& msgWrap);

  AttrRows attrRows() const override;

 private:
  void handleRetired() override;
  template <class Family>
  SentMessages transmit_p(const typename Family::Dst& dst, const ExporterInfo& expInfo,
                          const HwFlowTracking::ExporterConfig& hwExpConfig,
                          std::span<const Ptr<MessageWrapper>> messages);

  std::string name_;
  Ptr<CollectorInfo> collInfo_;
  IpAndPort dst4_;
  Ip6AndPort dst6_;
  bool ipv4_;
  bool made_ = false;  // the statistics entry was not there before
  bool skippedTraced_ = false;
  OptionsDataExporterSm* exporterSm_;
  Ptr<Tarn::Ipfix::CollectorStatistics> collStats_;
  Tarn::Ipfix::CollectorStatisticsKey key_;
  std::string traceId_;
};

}  // namespace FlowTracking
