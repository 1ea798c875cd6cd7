#include "agent/records/FlowExport.h"

#include <algorithm>

#include "Ipfix/FlowTrackerPktTxUtil.h"
#include "platform/Platform.h"

namespace agent {
using FlowTracking::Message;
using FlowTracking::TemplateId;
using HwFlowTracking::ExporterConfig;
using HwFlowTracking::FtConfig;
using Tarn::Ipfix::CollectorStatisticsEntry;
using Tarn::Ipfix::CollectorStatisticsKey;

namespace {
// Above the options tables' ids and those of the software flow path.
constexpr TemplateId samplingTemplateId = 65284;
static_assert(FlowTracking::Constants::isReserved(samplingTemplateId - 1) &&
              !FlowTracking::Constants::isReserved(samplingTemplateId));
// RFC 7011, 3.4.2.2: the id; two fields, the first of them a scope; observationDomainId (149) and
// samplingInterval (34), four octets each.
constexpr std::string_view samplingTemplate("\xff\x04\0\2\0\1\0\x95\0\4\0\x22\0\4", 14);
}  // namespace

/// One exporter as it stands in the trees at this moment.
struct FlowExport::Route {
  Ptr<ExporterConfig> config;
  Ptr<FlowTracking::ExporterInfo> info;
  Ptr<FlowTracking::FtExporterSm> templates;

  /// Calls `visit(collectorInfo, destination)` for each collector that has the templates.
  template <class Visit>
  void eachReady(Visit visit) const {
    const auto family = [&](const auto& collectors) {
      for (const auto& [name, dst] : collectors)
        if (templates->hasTemplates(name)) visit(*info->collInfo(name), dst);
    };
    family(config->collectorIpAndPort());
    family(config->collectorIp6AndPort());
  }
  bool anyReady() const {
    bool any = false;
    eachReady([&](const auto&, const auto&) { any = true; });
    return any;
  }
};

bool FlowExport::route(const Ptr<ExporterConfig>& config, Route& out) const {
  const auto tracker = tree_.info->ftInfo(trackerName_);
  const auto templates = tree_.templateSm->ftTemplateSm(trackerName_);
  if (!tracker || !templates) return false;
  out = {config, tracker->expInfo(config->name()), templates->ftExporterSm(config->name())};
  return out.info && out.templates;
}

void FlowExport::recordsIs(TemplateId id, RecordLens lens, std::string_view records) {
  const auto tracker = ftConfig();
  if (!tracker || tracker->expConfig().empty()) {
    counters_.recordsLost += recordCount(lens, records);
    return;
  }
  if (exporters_.size() > tracker->expConfig().size()) forgetGone(tracker.get());
  for (const auto& [name, config] : tracker->expConfig()) {
    Route to;
    if (route(config, to)) {
      Exporter& exporter = exporters_[name];
      pack(exporter, *tracker, to, id, lens, records);
      send(exporter, to);
    } else {
      counters_.recordsLost += recordCount(lens, records);
    }
  }
}

void FlowExport::pack(Exporter& exporter, const FtConfig& tracker, const Route& to, TemplateId id,
                      RecordLens lens, std::string_view records) {
  const auto maxSize = static_cast<uint16_t>(to.config->ipfixMtu() - 48);  // as options data
  auto& builder = exporter.builders[id];
  if (builder &&
      (builder->maxSize() != maxSize || builder->observationDomainId() != tracker.ftId())) {
    finish(exporter, to, id);
    builder = nullptr;
  }
  if (!builder) builder = FlowTracking::messageBuilderFactory(maxSize, tracker.ftId());
  const bool equal = lens.size() == 1;
  size_t at = 0;
  for (size_t n = recordCount(lens, records), i = 0; i < n; ++i) {
    const std::string_view record = records.substr(at, lens[equal ? 0 : i]);
    at += record.size();
    if (!builder->pkt()) builder->startMsg();
    if (builder->addSetRecordStr(id, record) > 0) continue;
    finish(exporter, to, id);
    builder->startMsg();
    if (builder->addSetRecordStr(id, record) == 0) ++counters_.recordsLost;
  }
}

/// Closes the message under construction, if it holds anything, and sends it.
void FlowExport::finish(Exporter& exporter, const Route& to, TemplateId id) {
  const auto& builder = exporter.builders[id];
  if (!builder || builder->recordCount() == 0) return;
  exporter.held.push_back({id, builder->finalizeMsg()});
  if (exporter.held.size() >= batch) send(exporter, to);
}

void FlowExport::flush() {
  const auto tracker = ftConfig();
  if (!tracker) return;
  forgetGone(tracker.get());
  for (auto& [name, exporter] : exporters_) {
    Route to;
    if (!route(tracker->expConfig(name), to)) continue;
    for (const auto& [id, builder] : exporter.builders) finish(exporter, to, id);
    send(exporter, to);
  }
}

void FlowExport::end() {
  flush();
  forgetGone(nullptr);
}

/// Each collector gets all that is held before the next one does: messages of one length to one
/// place are cheapest behind each other, and are counted at one go.
void FlowExport::send(Exporter& exporter, const Route& to) {
  if (exporter.held.empty()) return;
  // Templates that changed in this task are told in the next: records wait behind them.
  const bool current = to.templates->current();
  if (!current && exporter.held.size() <= heldMax) return;
  const auto held = std::exchange(exporter.held, {});
  if (current && transmit(to, held, false)) return;
  for (const auto& [id, message] : held) counters_.recordsLost += message->recordCount();
}

bool FlowExport::transmit(const Route& to, const std::vector<Held>& messages, bool options) {
  bool any = false;
  const DscpValue dscp = to.config->dscp();
  to.eachReady([&](FlowTracking::CollectorInfo& collector, const auto& dst) {
    any = true;
    using Dst = std::decay_t<decltype(dst)>;
    for (const auto& [id, message] : messages) {
      const uint32_t seq = collector.ipfixMsgSeqNo().value();
      collector.ipfixMsgSeqNoInc(message->recordCount());
      const Ptr<Pkt> packet = message->pkt(seq);
      if constexpr (std::is_same_v<Dst, IpAndPort>) {
        FlowTracking::sendPkt4(packet, to.info->udpPam4(), to.config->srcIpAddr(), dst, dscp);
      } else {
        FlowTracking::sendPkt6(packet, to.info->udpPam6(), to.config->srcIp6Addr(), dst, dscp);
      }
    }
    count(to, Tarn::Ipfix::CollectorInfo(dst.addr, dst.port), messages, options);
  });
  return any;
}

void FlowExport::samplingIs(uint32_t rate) {
  const auto tracker = ftConfig();
  if (!tracker || rate == 0) return;
  for (const auto& [name, config] : tracker->expConfig()) {
    Route to;
    SamplingTold& told = exporters_[name].sampling;
    if (!route(config, to) || !to.templates->current() || !to.anyReady()) {
      told = {};  // the next template reactor may be a new one, which counts from 0
      continue;
    }
    const SamplingTold now{config, to.templates->templateTxCount(), rate};
    if (std::exchange(told, now) == now) continue;
    // Two messages, since some collectors learn a template only after the whole message. The
    // builder counts a record in the first, and templates raise no sequence number (RFC 7011, 3.1).
    std::vector<Held> messages;
    const auto builder = FlowTracking::messageBuilderFactory(64, tracker->ftId());
    const auto add = [&](FlowTracking::TemplateId set, std::string_view octets) {
      builder->startMsg();
      builder->addSetRecordStr(set, octets);
      messages.push_back({set, builder->finalizeMsg()});
    };
    std::string record;
    for (const uint32_t value : {tracker->ftId(), rate})
      for (int shift = 24; shift >= 0; shift -= 8) record += static_cast<char>(value >> shift);
    add(::Ipfix::IpfixConst::optionsTemplateSetId(), samplingTemplate);
    messages.back().message->recordCountIs(0);
    add(samplingTemplateId, record);
    transmit(to, messages, true);
  }
}

void FlowExport::count(const Route& to, const Tarn::Ipfix::CollectorInfo& collector,
                       const std::vector<Held>& sent, bool options) {
  const CollectorStatisticsKey key(trackerName_, to.config->name(), collector);
  auto entry = tree_.statistics->stats(key).value_or(CollectorStatisticsEntry(key));
  for (const auto& [id, message] : sent) {
    counters_.messages += !options;
    counters_.records += options ? 0 : message->recordCount();
    entry.exportedMessageTotalCountInc(1);
    entry.exportedFlowRecordTotalCountInc(message->recordCount());
    entry.exportedOctetTotalCountInc(message->len());
    entry.setEntryInc(Tarn::Ipfix::SetId(id), message->recordCount(),
                      id == ::Ipfix::IpfixConst::optionsTemplateSetId());
  }
  const double now = Platform::current().clock().now();
  entry.lastSentTimeIs(now);
  if (options) {
    entry.lastOptionsDataSentTimeIs(now);
  } else {
    entry.lastDataRecordSentTimeIs(now);
  }
  tree_.statistics->statsIs(entry);
}

bool FlowExport::templatesTold() const {
  const auto templates = tree_.templateSm->ftTemplateSm(trackerName_);
  if (!templates) return true;
  const auto& all = templates->ftExporterSm();
  return std::none_of(all.begin(), all.end(), [](const auto& exporter) {
    return exporter.second->templateCreationTask()->scheduled();
  });
}

bool FlowExport::ready() const {
  const auto tracker = ftConfig();
  if (!tracker) return false;
  const auto& all = tracker->expConfig();
  return std::any_of(all.begin(), all.end(), [&](const auto& exporter) {
    Route to;
    return route(exporter.second, to) && to.templates->current() && to.anyReady();
  });
}

uint64_t FlowExport::queued() const {
  uint64_t most = 0;
  const auto tracker = tree_.info->ftInfo(trackerName_);
  if (!tracker) return most;
  for (const auto& [name, exporter] : tracker->expInfo())
    for (const auto& pam : {exporter->udpPam4(), exporter->udpPam6()})
      if (pam) most = std::max(most, pam->counters().queued);
  return most;
}

/// Forgets the exporters that `tracker` no longer has; null: all.
void FlowExport::forgetGone(const FtConfig* tracker) {
  std::erase_if(exporters_, [&](const auto& entry) {
    if (tracker && tracker->expConfig(entry.first)) return false;
    for (const auto& [id, builder] : entry.second.builders)
      counters_.recordsLost += builder->recordCount();
    for (const auto& held : entry.second.held) counters_.recordsLost += held.message->recordCount();
    return true;
  });
}

}  // namespace agent
