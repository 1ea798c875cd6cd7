#include "agent/settings/Settings.h"

namespace agent {
namespace {
std::string some(size_t n, const char* noun) {
  return std::to_string(n) + ' ' + noun + (n == 1 ? "" : "s");
}
}  // namespace

std::string timeText(std::chrono::milliseconds t) {
  return t.count() % 1000 == 0 ? std::to_string(t.count() / 1000) + 's'
                               : std::to_string(t.count()) + "ms";
}

SettingsCount count(const Settings& settings) {
  SettingsCount n;
  n.trackers = settings.trackers.size();
  for (const auto& [name, tracker] : settings.trackers) {
    n.exporters += tracker.exporters.size();
    for (const auto& [exporterName, exporter] : tracker.exporters)
      n.collectors += exporter.collectors.size();
  }
  return n;
}

std::string describe(const SettingsCount& n) {
  return some(n.trackers, "tracker") + ", " + some(n.exporters, "exporter") + ", " +
         some(n.collectors, "collector");
}

}  // namespace agent
