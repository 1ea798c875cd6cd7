#include "agent/control/ControlRequests.h"

#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <nlohmann/json.hpp>
#include <optional>

#include "agent/control/ControlTables.h"
#include "agent/host/Printable.h"

namespace agent {
namespace {
using Json = nlohmann::ordered_json;

/// A request that cannot be served; becomes an answer.
struct Refusal {
  std::string code;
  std::string text;
};

// A collector takes about 20 us, so that a part takes little more than 2 ms.
constexpr size_t collectorsPerPart = 100;

template <class Names>
std::string joined(const Names& names) {
  std::string all;
  for (const auto& name : names) all += (all.empty() ? "" : ", ") + std::string(name);
  return all;
}
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
  Json at(const char* key) const { return has(key) ? json.at(key) : Json(); }
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

struct ControlRequests::Verb {
  std::string_view name;
  Json (ControlRequests::*run)(const Request&);
  bool changes;
  std::vector<std::string_view> keys;  // besides "request" and "id"
};

std::string ControlRequests::askedBy(const Request& request) {
  return ": asked for by user " + std::to_string(request.peer.uid) + ", pid " +
         std::to_string(request.peer.pid);
}

const ControlRequests::Verb ControlRequests::verbs[] = {
    {"agent", &ControlRequests::agent, false, {}},
    {"collectors", &ControlRequests::collectors, false, {"tracker", "exporter", "after"}},
    {"tables", &ControlRequests::tables, false, {"name", "tracker", "after"}},
    {"templates", &ControlRequests::templates, false, {"tracker", "after"}},
    {"state", &ControlRequests::state, false, {"path", "after"}},
    {"clearCounters", &ControlRequests::clearCounters, true, {}},
    {"resend", &ControlRequests::resend, true, {"tracker", "exporter"}},
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
      std::vector<std::string_view> all;
      for (const Verb& v : verbs) all.push_back(v.name);
      throw Refusal{"unknownRequest", "'request' is one of " + joined(all) +
                                          (name.empty() ? "" : ", not " + inQuotes(name))};
    }
    for (const auto& [key, value] : json.items()) {
      if (key == "request" || key == "id" ||
          std::find(verb->keys.begin(), verb->keys.end(), key) != verb->keys.end())
        continue;
      throw Refusal{"badRequest", inQuotes(key) + " is unknown to " + name +
                                      (verb->keys.empty() ? ", which takes nothing"
                                                          : "; it takes " + joined(verb->keys))};
    }
    if (verb->changes) request.mustMayChange();
    out = (this->*verb->run)(request);
    out["ok"] = true;
  } catch (const Refusal& r) {
    out = {{"ok", false}, {"code", r.code}, {"error", r.text}};
  } catch (const std::exception& e) {  // a fault of ours must not end the agent
    out = {{"ok", false}, {"code", "failed"}, {"error", printable(e.what())}};
  }
  if (!id.is_null()) out["id"] = id;
  return out.dump(-1, ' ', false, Json::error_handler_t::replace);
}

Json ControlRequests::agent(const Request& request) {
  return {{"pid", getpid()},          {"version", host_.version},
          {"config", host_.config},   {"startTime", host_.startTime},
          {"logLevel", log_.level()}, {"mayChange", request.peer.mayChange}};
}

Json ControlRequests::collectors(const Request& request) {
  const Settings& settings = host_.exports->runningSettings();
  const std::string tracker = request.tracker(settings);
  const std::string exporter = request.exporter(settings);
  CollectorName after{tracker, {}, {}};
  if (const Json at = request.at("after");
      at.is_array() && at.size() == 3 &&
      std::all_of(at.begin(), at.end(), [](const Json& part) { return part.is_string(); }))
    after = {at[0], at[1], at[2]};
  Json out = {{"collectors", Json::array()}, {"next", nullptr}};
  size_t looks = 0;
  CollectorStates::each(
      settings, after,
      [&](const CollectorName& name, const TrackerSettings& t, const ExporterSettings& e,
          const CollectorSettings& c) {
        if (!tracker.empty() && name.tracker != tracker) return false;
        if (exporter.empty() || name.exporter == exporter) {
          out["collectors"].push_back(collector(host_.exports->tree(t.type), name, t, e, c));
        }
        if (++looks < collectorsPerPart) return true;
        out["next"] = {name.tracker, name.exporter, name.collector};
        return false;
      });
  return out;
}

Json ControlRequests::collector(const LibraryTree& tree, const CollectorName& name,
                                const TrackerSettings& t, const ExporterSettings& e,
                                const CollectorSettings& c) {
  const CollectorState state = host_.states->state(name);
  Json out = {{"tracker", name.tracker},
              {"domain", t.id},
              {"exporter", name.exporter},
              {"collector", name.collector},
              {"host", c.host.empty() ? Json(nullptr) : Json(c.host)},
              {"address", c.address.stringValue()},
              {"port", c.port},
              {"vrf", e.vrf.stringValue()},
              {"interface", e.localInterface},
              {"state", statusText(state.status)},
              {"detail", state.detail},
              {"since", state.since},
              {"sourceAddress", nullptr},
              {"sourcePort", nullptr},
              {"sequence", nullptr},
              {"dataTemplatesSent", nullptr},
              {"optionsTemplatesSent", nullptr},
              {"queued", 0},
              {"refused", Json::object()},
              {"undelivered", 0}};
  const bool ipv6 = c.address.isIpv6();
  const auto config = tree.exporterConfig(name.tracker, name.exporter);
  const auto info = tree.exporterInfo(name.tracker, name.exporter);
  if (config && (ipv6 ? !config->srcIp6Addr().isZero() : !config->srcIpAddr().isZero()))
    out["sourceAddress"] =
        ipv6 ? config->srcIp6Addr().stringValue() : config->srcIpAddr().stringValue();
  if (info) {
    if (const auto collInfo = info->collInfo(name.collector))
      out["sequence"] = collInfo->ipfixMsgSeqNo().value();
    if (const auto& pam = ipv6 ? info->udpPam6() : info->udpPam4()) {
      out["sourcePort"] = pam->rxPort();
      out["queued"] = pam->counters().queued;
      for (const auto& [err, count] : pam->counters().dropByErrno) {
        const char* errName = strerrorname_np(err);
        out["refused"][errName ? errName : std::to_string(err)] = count;
      }
      const auto& undelivered = pam->counters().undeliveredByDst;
      if (const auto it = undelivered.find({c.address, c.port}); it != undelivered.end())
        out["undelivered"] = it->second.datagrams;
    }
  }
  const auto sms = tree.templateSm ? tree.templateSm->ftTemplateSm(name.tracker) : nullptr;
  const auto sent = [&](const char* key, const FlowTracking::TemplateExporterSmBase* sm) {
    if (!sm) return;
    const auto& times = sm->exportTimeU32();
    if (const auto it = times.find(name.collector); it != times.end()) out[key] = it->second;
  };
  if (sms) {
    sent("dataTemplatesSent", sms->ftExporterSm(name.exporter).get());
    const auto& options = sms->optTemplateExporterSm();
    const auto it = options.find(name.exporter);
    if (it != options.end()) sent("optionsTemplatesSent", it->second.get());
  }
  return out;
}

Json ControlRequests::tables(const Request& request) {
  const std::string name = request.text("name");
  const std::string tracker = request.tracker(host_.exports->runningSettings());
  if (name.empty()) return ControlTables::list(*host_.exports);
  const auto names = ControlTables::names();
  if (std::find(names.begin(), names.end(), name) == names.end())
    throw Refusal{"notFound",
                  "there is no table " + inQuotes(name) + ": there are " + joined(names)};
  return ControlTables::rows(*host_.exports, name, tracker, request.at("after"));
}

Json ControlRequests::templates(const Request& request) {
  return ControlTables::templates(*host_.exports, request.tracker(host_.exports->runningSettings()),
                                  request.at("after"));
}

Json ControlRequests::clearCounters(const Request& request) {
  host_.clearCounters();
  log_.info("counters cleared" + askedBy(request));
  return Json::object();
}

Json ControlRequests::resend(const Request& request) {
  const Settings& settings = host_.exports->runningSettings();
  const std::string tracker = request.tracker(settings);
  const std::string exporter = request.exporter(settings);
  size_t exporters = 0;
  for (const auto& [trackerName, t] : settings.trackers) {
    if (!tracker.empty() && tracker != trackerName) continue;
    const LibraryTree& tree = host_.exports->tree(t.type);
    const auto templates = tree.templateSm ? tree.templateSm->ftTemplateSm(trackerName) : nullptr;
    const auto data = tree.optionsDataSm ? tree.optionsDataSm->ftManagerSm(trackerName) : nullptr;
    if (!templates) continue;
    // In this order they are due: what describes data leaves before it.
    for (const auto& [name, sm] : templates->ftExporterSm()) {
      if (!exporter.empty() && exporter != name) continue;
      if (!sm->sending4_p() && !sm->sending6_p()) continue;
      ++exporters;
      sm->resend();
      const auto options = templates->optTemplateExporterSm().find(name);
      if (options != templates->optTemplateExporterSm().end()) options->second->resend();
      if (const auto tables = data ? data->exporterSm(name) : nullptr) tables->resend();
    }
  }
  log_.info("templates and tables of " + std::to_string(exporters) +
            (exporters == 1 ? " exporter" : " exporters") + " are sent again" + askedBy(request));
  return {{"exporters", exporters}};
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
                askedBy(request));
    log_.levelIs(number);
  }
  return {{"level", log_.level()}};
}

}  // namespace agent
