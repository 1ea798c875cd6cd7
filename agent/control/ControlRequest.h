#pragma once
#include <unistd.h>

#include <nlohmann/json.hpp>
#include <string>

#include "agent/control/ControlSocket.h"
#include "agent/host/Printable.h"
#include "agent/settings/Settings.h"

namespace agent {

/// A request that cannot be served; thrown, and becomes the answer.
struct Refusal {
  std::string code;
  std::string text;
};

/// One request, a JSON object, and who sent it. What it has in another form than its key wants
/// throws Refusal.
struct ControlRequest {
  using Json = nlohmann::ordered_json;

  const Json& json;
  const ControlPeer& peer;

  bool has(const char* key) const { return json.contains(key) && !json.at(key).is_null(); }
  /// Null when it is not given.
  Json at(const char* key) const { return has(key) ? json.at(key) : Json(); }
  /// Empty when it is not given.
  std::string text(const char* key) const {
    if (!has(key)) return {};
    const Json& v = json.at(key);
    if (!v.is_string())
      throw Refusal{"badRequest", std::string("'") + key + "' is a text, not " + v.dump()};
    return v.get<std::string>();
  }
  /// The tracker or exporter that is asked for; empty: all.
  std::string tracker(const Settings& settings) const {
    std::string name = text("tracker");
    if (name.empty() || settings.trackers.contains(name)) return name;
    throw Refusal{"notFound", "there is no tracker " + inQuotes(name)};
  }
  std::string exporter(const Settings& settings) const {
    std::string name = text("exporter");
    if (name.empty()) return name;
    const std::string of = tracker(settings);
    for (const auto& [trackerName, t] : settings.trackers)
      if ((of.empty() || of == trackerName) && t.exporters.contains(name)) return name;
    throw Refusal{"notFound", "there is no exporter " + inQuotes(name) +
                                  (of.empty() ? "" : " of tracker " + inQuotes(of))};
  }
  void mustMayChange() const {
    if (peer.mayChange) return;
    throw Refusal{"notAllowed", "only root and user " + std::to_string(geteuid()) +
                                    " may ask for this; you are user " + std::to_string(peer.uid)};
  }
};

}  // namespace agent
