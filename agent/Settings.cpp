#include "agent/Settings.h"

#include <algorithm>

namespace agent {
namespace {
std::string some(size_t n, const char* noun) {
  return std::to_string(n) + ' ' + noun + (n == 1 ? "" : "s");
}
}  // namespace

bool hasControl(std::string_view text) {
  return std::any_of(text.begin(), text.end(),
                     [](unsigned char c) { return c < 0x20 || c == 0x7f; });
}
bool hasControlOrBlank(std::string_view text) {
  return hasControl(text) || text.find(' ') != text.npos;
}
std::string vrfNameProblem(std::string_view name) {
  if (!name.empty() && name.size() <= VrfName::maxLength && name.find('/') == name.npos &&
      !hasControlOrBlank(name))
    return {};
  return "a VRF's name has 1 to " + std::to_string(VrfName::maxLength) +
         " octets, without blank, '/' and control characters: its namespace is ns-NAME";
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
