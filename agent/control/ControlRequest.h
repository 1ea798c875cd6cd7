#pragma once
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "agent/control/ControlSocket.h"
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
  std::string text(const char* key) const;
  /// The tracker or exporter that is asked for; empty: all.
  std::string tracker(const Settings& settings) const;
  std::string exporter(const Settings& settings) const;
  void mustMayChange() const;
};

/// "a, b, c"
template <class Names>
std::string joined(const Names& names) {
  std::string all;
  for (const auto& name : names) all += (all.empty() ? "" : ", ") + std::string(name);
  return all;
}

}  // namespace agent
