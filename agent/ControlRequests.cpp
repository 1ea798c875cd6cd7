#include "agent/ControlRequests.h"

#include <unistd.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <optional>

#include "agent/Printable.h"

namespace agent {
namespace {
using Json = nlohmann::json;

/// A request that cannot be served; becomes an answer.
struct Refusal {
  std::string code;
  std::string text;
};
}  // namespace

struct ControlRequests::Request {
  const Json& json;
  const ControlPeer& peer;

  bool has(const char* key) const { return json.contains(key) && !json.at(key).is_null(); }
  /// Empty when it is not given.
  std::string text(const char* key) const {
    if (!has(key)) return {};
    const Json& v = json.at(key);
    if (!v.is_string())
      throw Refusal{"badRequest", std::string("'") + key + "' is a text, not " + v.dump()};
    return v.get<std::string>();
  }
  void mustMayChange() const {
    if (peer.mayChange) return;
    throw Refusal{"notAllowed", "only root and user " + std::to_string(geteuid()) +
                                    " may ask for this; you are user " + std::to_string(peer.uid)};
  }
};

struct ControlRequests::Verb {
  std::string_view name;
  Json (ControlRequests::*run)(const Request&);
  bool changes;
  std::vector<std::string_view> keys;  // besides "request" and "id"
};

const ControlRequests::Verb ControlRequests::verbs[] = {
    {"agent", &ControlRequests::agent, false, {}},
    {"state", &ControlRequests::state, false, {"path", "after"}},
    {"reload", &ControlRequests::reload, true, {}},
    {"logLevel", &ControlRequests::logLevel, false, {"level"}},
};

std::string ControlRequests::answer(const ControlPeer& peer, std::string_view line) {
  Json out;
  Json id;
  try {
    const Json json = Json::parse(line, nullptr, false);
    if (!json.is_object())
      throw Refusal{"badRequest",
                    "a request is one JSON object on one line, such as "
                    "{\"request\":\"agent\"}"};
    const Request request{json, peer};
    if (json.contains("id")) id = json.at("id");
    const std::string name = request.text("request");
    const auto verb = std::find_if(std::begin(verbs), std::end(verbs),
                                   [&](const Verb& v) { return v.name == name; });
    if (verb == std::end(verbs)) {
      std::string all;
      for (const Verb& v : verbs) all += (all.empty() ? "" : ", ") + std::string(v.name);
      throw Refusal{"unknownRequest", "'request' is one of " + all +
                                          (name.empty() ? "" : ", not '" + printable(name) + "'")};
    }
    for (const auto& [key, value] : json.items()) {
      if (key == "request" || key == "id" ||
          std::find(verb->keys.begin(), verb->keys.end(), key) != verb->keys.end())
        continue;
      std::string all;
      for (const std::string_view k : verb->keys) all += (all.empty() ? "" : ", ") + std::string(k);
      throw Refusal{"badRequest",
                    "'" + printable(key) + "' is unknown to " + name +
                        (all.empty() ? ", which takes nothing" : "; it takes " + all)};
    }
    if (verb->changes) request.mustMayChange();
    out = (this->*verb->run)(request);
    out["ok"] = true;
  } catch (const Refusal& r) {
    out = {{"ok", false}, {"code", r.code}, {"error", r.text}};
  }
  if (!id.is_null()) out["id"] = id;
  return out.dump(-1, ' ', false, Json::error_handler_t::replace);
}

Json ControlRequests::agent(const Request& request) {
  return {{"pid", getpid()},          {"version", host_.version},
          {"config", host_.config},   {"startTime", host_.startTime},
          {"logLevel", log_.level()}, {"mayChange", request.peer.mayChange}};
}

Json ControlRequests::state(const Request& request) {
  const StateTree tree(host_.roots());
  const auto page = tree.page(request.text("path"), request.text("after"));
  if (!page.problem.empty()) throw Refusal{"notFound", page.problem};
  Json rows = Json::array();
  for (const StateRow& row : page.rows)
    rows.push_back({row.path, row.text ? Json(*row.text) : Json(nullptr)});
  return {{"rows", std::move(rows)},
          {"next", page.done || page.rows.empty() ? Json(nullptr) : Json(page.rows.back().path)}};
}

Json ControlRequests::reload(const Request&) {
  const ReloadOutcome outcome = host_.reload();
  return {{"done", outcome.done},
          {"summary", outcome.summary},
          {"errors", outcome.errors},
          {"warnings", outcome.warnings}};
}

Json ControlRequests::logLevel(const Request& request) {
  if (request.has("level")) {
    request.mustMayChange();
    const Json& level = request.json.at("level");
    const int number =
        traceLevelFromText(level.is_string() ? level.get<std::string>() : level.dump());
    if (number < 0)
      throw Refusal{"badRequest",
                    "'level' is 0 to 9, error, event, detail or packet, not " + level.dump()};
    if (number != log_.level())
      log_.info("log level " + std::to_string(number) + ", was " + std::to_string(log_.level()) +
                ": asked for by user " + std::to_string(request.peer.uid) + ", pid " +
                std::to_string(request.peer.pid));
    log_.levelIs(number);
  }
  return {{"level", log_.level()}};
}

}  // namespace agent
