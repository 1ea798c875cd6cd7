#include "agent/control/ControlRequest.h"

#include <unistd.h>

#include "agent/host/Printable.h"

namespace agent {

std::string ControlRequest::text(const char* key) const {
  if (!has(key)) return {};
  const Json& v = json.at(key);
  if (!v.is_string())
    throw Refusal{"badRequest", std::string("'") + key + "' is a text, not " + v.dump()};
  return v.get<std::string>();
}

std::string ControlRequest::tracker(const Settings& settings) const {
  std::string name = text("tracker");
  if (name.empty() || settings.trackers.contains(name)) return name;
  throw Refusal{"notFound", "there is no tracker " + inQuotes(name)};
}
std::string ControlRequest::exporter(const Settings& settings) const {
  std::string name = text("exporter");
  if (name.empty()) return name;
  const std::string of = tracker(settings);
  for (const auto& [trackerName, t] : settings.trackers)
    if ((of.empty() || of == trackerName) && t.exporters.contains(name)) return name;
  throw Refusal{"notFound", "there is no exporter " + inQuotes(name) +
                                (of.empty() ? "" : " of tracker " + inQuotes(of))};
}
void ControlRequest::mustMayChange() const {
  if (peer.mayChange) return;
  throw Refusal{"notAllowed", "only root and user " + std::to_string(geteuid()) +
                                  " may ask for this; you are user " + std::to_string(peer.uid)};
}

}  // namespace agent
