#include "Ipfix/OptionsDataTransmission.h"

#include <algorithm>

namespace FlowTracking {
namespace {
constexpr size_t turn = 128;            // messages handed over for a collector at a time: they are
                                        // neighbours in the endpoint, which leave cheaper together
constexpr size_t handedOverMax = 4096;  // messages in one call
constexpr uint64_t backlogMax = 256;
constexpr Seconds pollMin{0.001};
constexpr Seconds pollMax{0.1};
}  // namespace

Backlog::Backlog(const HwFlowTracking::ExporterConfig& config)
    : limited(false), max(backlogMax), poll(pollMin) {
  const RateLimit& limit = config.rateLimit();
  auto perSecond = static_cast<double>(limit.perSecond);
  if (limit.unit == RateLimit::Unit::octets) {
    perSecond /= config.ipfixMtu();
  } else if (limit.unit != RateLimit::Unit::messages) {
    return;
  }
  limited = true;
  max = static_cast<uint64_t>(std::clamp(perSecond, 1.0, double{backlogMax}));
  // By then an eighth of what waits has left: the endpoint does not run dry.
  poll = std::clamp(Seconds(static_cast<double>(max) / perSecond / 8), pollMin, pollMax);
}

void OptionsDataTransmissions::begin(const Ptr<Collector>& collector,
                                     std::shared_ptr<const BuiltTables> tables, bool periodic) {
  std::erase_if(transmission_, [&](const auto& t) { return t.collector == collector; });
  transmission_.push_back({collector, std::move(tables), periodic});
}
bool OptionsDataTransmissions::periodic() const {
  return std::any_of(transmission_.begin(), transmission_.end(),
                     [](const auto& t) { return t.periodic; });
}
std::optional<Seconds> OptionsDataTransmissions::handOver(
    const ExporterInfo& expInfo, const HwFlowTracking::ExporterConfig& hwExpConfig) {
  const Backlog backlog(hwExpConfig);
  size_t handedOver = 0;
  for (bool more = true; more && handedOver < handedOverMax;) {
    more = false;
    for (Transmission& t : transmission_) {
      const std::span messages = std::span(t.tables->messages).subspan(t.next);
      // Asked before every piece: counting the last one ran watchers, which may have removed the
      // collector or closed its endpoint.
      if (!t.collector->reachable(expInfo, hwExpConfig)) {
        t.next += messages.size();
        continue;
      }
      const Ptr<UdpPam>& pam = t.collector->isIpv4() ? expInfo.udpPam4() : expInfo.udpPam6();
      if (messages.empty() || handedOver >= handedOverMax || backlog.full(pam)) continue;
      const uint64_t room = backlog.limited ? backlog.max - pam->counters().queued : turn;
      const SentMessages sent = t.collector->transmit(
          expInfo, hwExpConfig, messages.first(std::min({messages.size(), turn, size_t{room}})));
      t.next += sent.messages;
      handedOver += sent.messages;
      more = true;
      t.collector->updateStats(sent);
    }
    std::erase_if(transmission_, [](const Transmission& t) {
      return t.next == t.tables->messages.size() || t.collector->retired();
    });
  }
  if (transmission_.empty()) return std::nullopt;
  // What was handed over may leave when this task is over: then it goes on at once.
  return handedOver > 0 ? Seconds(0) : backlog.poll;
}

}  // namespace FlowTracking
