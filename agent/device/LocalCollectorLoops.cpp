#include "agent/device/LocalCollectorLoops.h"

#include <algorithm>

namespace agent {

void LocalCollectorLoops::exportersAre(const std::string& tracker,
                                       const HwFlowTracking::FtConfig& config) {
  trackerDel(tracker);
  const auto add = [&](const IpGenAddr& address, uint16_t port) {
    if (port == 0) return;  // not ready
    sources_[tracker].insert({address, port});
    trackerOf_[{address, port}] = tracker;
  };
  for (const auto& [name, exporter] : config.expConfig()) {
    add(exporter->srcIpAddr(), exporter->rxPort4());
    add(exporter->srcIp6Addr(), exporter->rxPort6());
  }
}

void LocalCollectorLoops::trackerDel(const std::string& tracker) {
  for (const Source& source : sources_[tracker]) trackerOf_.erase(source);
  sources_.erase(tracker);
  heard_.clear();  // who sends to whom is another matter now
}

std::string LocalCollectorLoops::closedBy(const std::string& tracker, const IpGenAddr& from,
                                          uint16_t port) {
  const auto it = trackerOf_.find({from, port});
  if (it == trackerOf_.end()) return {};
  std::set<std::string> seen;
  if (it->second == tracker || hears(it->second, tracker, seen)) return it->second;
  heard_[tracker].insert(it->second);
  return {};
}

/// `tracker` hears what `of` exports, by way of others or at once.
bool LocalCollectorLoops::hears(const std::string& tracker, const std::string& of,
                                std::set<std::string>& seen) const {
  const auto it = heard_.find(tracker);
  if (it == heard_.end() || !seen.insert(tracker).second) return false;
  return it->second.contains(of) ||
         std::any_of(it->second.begin(), it->second.end(),
                     [&](const std::string& next) { return hears(next, of, seen); });
}

}  // namespace agent
