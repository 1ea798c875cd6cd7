#include <algorithm>
#include <numeric>
#include <span>
#include <string>
#include <system_error>
#include <utility>

#include "agent/flow/FlowPath.h"
#include "agent/host/Printable.h"
#include "platform/Platform.h"

/// What a path did, in numbers and in the log.
namespace agent::flow {

void FlowPath::addCounters(const FlowMeter& meter, FlowTracking::FlowPathRecord& to) const {
  const MeterCounters c = meter.counters();
  const auto ended = [&](EndReason r) { return c.cache.expired[static_cast<size_t>(r)]; };
  const auto errors = [&](ParseError e) { return c.errors[static_cast<size_t>(e)]; };
  to.packetsSeen += std::accumulate(c.errors.begin(), c.errors.end(), c.cache.packets + c.drops);
  to.kernelDrops += c.drops;
  to.notIp += errors(ParseError::notIp);
  to.truncated += errors(ParseError::truncated);
  to.malformed += errors(ParseError::malformed);
  to.packets += c.cache.packets;
  to.octets += c.cache.octets;
  to.flowsCreated += c.cache.created;
  to.endedIdle += ended(EndReason::idleTimeout);
  to.endedActive += ended(EndReason::activeTimeout);
  to.endedEndOfFlow += ended(EndReason::endOfFlow);
  to.endedForced += ended(EndReason::forcedEnd);
  to.endedResources += ended(EndReason::lackOfResources);
  to.lostNoCollector += c.cache.lost[static_cast<size_t>(Loss::noCollector)];
  to.lostQueueFull += c.cache.lost[static_cast<size_t>(Loss::queueFull)];
  to.lostPackets += c.cache.lostPackets;
}

FlowTracking::FlowPathRecord FlowPath::record() const {
  FlowTracking::FlowPathRecord r = ended_;
  const auto add = [&](const FlowMeter& meter) {
    addCounters(meter, r);
    r.flowsActive += meter.counters().active;
  };
  for (const auto& [vrf, source] : sources_) {
    if (!source.meter) continue;
    add(*source.meter);
    r.flowsMax += settings_.maxFlows;
  }
  for (const Leaving& l : leaving_) add(*l.meter);
  r.records = export_.counters().records;
  r.recordsLost = export_.counters().recordsLost;
  r.messages = export_.counters().messages;
  r.sampleRate = settings_.sampleRate;
  r.updatedTime = Platform::current().clock().now();
  return r;
}
void FlowPath::tellCounters() {
  if (!host_.counters) return;
  const auto r = record();
  host_.counters->put(std::as_bytes(std::span(&r.key, 1)), std::as_bytes(std::span(&r, 1)));
}
/// Logs what was lost in all. To be called at the end, when the counters disappear.
void FlowPath::tellLosses() const {
  const auto r = record();
  if (r.lostNoCollector + r.lostQueueFull + r.recordsLost == 0) return;
  host_.log.warning("tracker " + printable(tracker_) +
                        ": at its end, lost in all: " + std::to_string(r.lostNoCollector) +
                        " flows since no collector was ready, " + std::to_string(r.lostQueueFull) +
                        " that could not be sent in time, " + std::to_string(r.recordsLost) +
                        " records of exporters without a ready collector",
                    {.tracker = tracker_});
}
void FlowPath::tellFilterErrors() {
  for (auto& [vrf, source] : sources_) {
    const MeterCounters counters = source.meter ? source.meter->counters() : MeterCounters();
    tellPromiscuousError(vrf, source, counters);
    const int now = counters.filterError;
    if (now != 0 && now != source.filterError)
      host_.log.warning(
          placeText(vrf) +
              "the kernel refuses the new choice of interfaces, sampling or filter, trying "
              "again; until then the choice before holds: " +
              std::generic_category().message(now),
          {.tracker = tracker_, .vrf = vrf.stringValue()});
    source.filterError = now;
    if (now != 0) reviewSoon();  // which makes the filter anew
  }
}
void FlowPath::tellPromiscuousError(const VrfName& vrf, Source& source,
                                    const MeterCounters& counters) {
  const std::pair now(counters.promiscuousRefused, counters.promiscuousError);
  if (std::exchange(source.promiscuousError, now) == now || now.second == 0) return;
  const auto network = host_.networks->network(vrf);
  if (!network || !network->links().contains(now.first)) return;  // it is gone
  host_.log.warning(placeText(vrf) + printable(network->links().at(now.first).name) +
                        " refuses to be promiscuous, so packets for other stations may be "
                        "missing; trying again: " +
                        std::generic_category().message(now.second),
                    {.tracker = tracker_, .vrf = vrf.stringValue()});
}
std::string FlowPath::summary() const {
  const auto r = record();
  const auto n = [](uint64_t v, const char* noun) { return std::to_string(v) + ' ' + noun; };
  std::string text = n(r.packetsSeen, "packets seen, ") + n(r.packets, "in flows, ") +
                     n(r.flowsCreated, "flows, ") + n(r.records, "records sent in ") +
                     n(r.messages, "messages");
  for (const auto& [count, what] :
       {std::pair(r.notIp, "packets not IP"), std::pair(r.truncated, "packets truncated"),
        std::pair(r.malformed, "packets malformed"),
        std::pair(r.lostNoCollector + r.lostQueueFull, "flows lost"),
        std::pair(r.recordsLost, "records lost")})
    if (count > 0) text += ", " + n(count, what);
  return text;
}

}  // namespace agent::flow
