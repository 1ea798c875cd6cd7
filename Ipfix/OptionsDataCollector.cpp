#include "Ipfix/OptionsDataCollector.h"

#include "platform/Platform.h"
#include "platform/Trace.h"

namespace FlowTracking {

bool Collector::reachable(const ExporterInfo& expInfo,
                          const HwFlowTracking::ExporterConfig& hwExpConfig) const {
  if (retired()) return false;
  return ipv4_ ? expInfo.udpPam4() && !hwExpConfig.srcIpAddr().isZero()
               : expInfo.udpPam6() && !hwExpConfig.srcIp6Addr().isZero();
}
void Collector::sendMessage(const ExporterInfo& expInfo,
                            const HwFlowTracking::ExporterConfig& hwExpConfig,
                            const Ptr<MessageWrapper>& msgWrap) {
  updateStats(transmit(expInfo, hwExpConfig, std::span(&msgWrap, 1)));
}
SentMessages Collector::transmit(const ExporterInfo& expInfo,
                                 const HwFlowTracking::ExporterConfig& hwExpConfig,
                                 std::span<const Ptr<MessageWrapper>> messages) {
  return ipv4_ ? transmit_p<V4>(dst4_, expInfo, hwExpConfig, messages)
               : transmit_p<V6>(dst6_, expInfo, hwExpConfig, messages);
}
template <class Family>
SentMessages Collector::transmit_p(const typename Family::Dst& dst, const ExporterInfo& expInfo,
                                   const HwFlowTracking::ExporterConfig& hwExpConfig,
                                   std::span<const Ptr<MessageWrapper>> messages) {
  const DscpValue dscp = hwExpConfig.dscp();
  const Ptr<UdpPam> _pam = Family::pam(expInfo);
  TARN_ASSERT(_pam);
  const typename Family::Addr src = Family::src(hwExpConfig);
  TARN_ASSERT_AS(!src.isZero(), Family::ipv6 ? "!src.isZero()" : "src != IpAddr::ipAddrZero()");
  const uint32_t now = Platform::current().clock().nowU32();
  const bool traced = traceSink().enabled(TraceLevel::packet);
  SentMessages sent;
  const Ptr<Collector> hold(this);
  uint32_t seq = collInfo_->ipfixMsgSeqNo().value();
  for (const Ptr<MessageWrapper>& m : messages) {
    const Ptr<Pkt>& packet = m->message()->pkt(seq, now);
    seq += m->message()->recordCount();
    if (traced)
      traceOf(TraceLevel::packet, "Collector", "sendMessage", traceId_, name_, " TX IPv",
              Family::digit, HexDump{packet->octets()});
    Family::send(packet, _pam, src, dst, dscp);
    sent.add(*m);
  }
  // Stored once, behind the last: it notifies, and whoever hears it may remove this collector.
  collInfo_->ipfixMsgSeqNoIs(::Ipfix::IpfixMsgSeqNo(seq));
  return sent;
}
void Collector::updateStats(const SentMessages& sent) {
  if (retired()) return;
  auto known = collStats_->stats(key_);
  if (!known) {
    known.emplace(key_);
    made_ = true;
  }
  auto& entry = *known;
  entry.exportedMessageTotalCountInc(sent.messages);
  entry.exportedFlowRecordTotalCountInc(sent.records);
  entry.exportedOctetTotalCountInc(sent.octets);
  sent.sets.each([&](const SetRecord& r) {
    if (entry.setEntryInc(Tarn::Ipfix::SetId(r.setId()), r.count(), 0)) return;
    if (std::exchange(skippedTraced_, true)) return;
    traceOf(TraceLevel::event, "Collector", "updateStats", traceId_, name_, " counts ",
            Tarn::Ipfix::CollectorStatisticsEntry::slots,
            " set ids; only in the totals: ", r.setId());
  });
  const double now = Platform::current().clock().now();
  entry.lastSentTimeIs(now);
  entry.lastOptionsDataSentTimeIs(now);
  collStats_->statsIs(entry);
}
void Collector::updateStats(const Ptr<MessageWrapper>& msgWrap) {
  SentMessages sent;
  sent.add(*msgWrap);
  updateStats(sent);
}
/// The statistics entry is the template exporters', and goes with them. Where none has counted in
/// it, because the tracker's status went before they sent anything, it goes with its maker.
void Collector::handleRetired() {
  exporterSm_ = nullptr;
  if (!made_) return;
  const auto entry = collStats_->stats(key_);
  if (entry && entry->lastTemplateSentTime() == 0) collStats_->statsDel(key_);
}
AttrRows Collector::attrRows() const {
  using C = Collector;
  static constexpr AttrRow rows[] = {
      row<&C::name>("name"),
      childRow<&C::collInfo>("collInfo"),
      row<&C::dst4>("dst4"),
      row<&C::dst6>("dst6"),
  };
  return rows;
}

}  // namespace FlowTracking
