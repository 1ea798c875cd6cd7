#include "agent/settings/Settings.h"

#include "agent/host/Printable.h"

namespace agent {

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
  return counted(n.trackers, "tracker") + ", " + counted(n.exporters, "exporter") + ", " +
         counted(n.collectors, "collector");
}

}  // namespace agent
