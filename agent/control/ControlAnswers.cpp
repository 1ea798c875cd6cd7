#include "agent/control/ControlAnswers.h"

#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "agent/control/ControlRequest.h"
#include "agent/control/ControlTables.h"
#include "agent/host/Printable.h"

namespace agent {
namespace {
using Json = nlohmann::ordered_json;

// A collector takes about 20 us, so that a part takes little more than 2 ms.
constexpr size_t collectorsPerPart = 100;

/// Who asked, for the log.
std::string askedBy(const ControlRequest& request) {
  return ": asked for by user " + std::to_string(request.peer.uid) + ", pid " +
         std::to_string(request.peer.pid);
}
}  // namespace

std::span<const ControlAnswers::Verb> ControlAnswers::verbs() {
  static const Verb all[] = {
      {"agent", &ControlAnswers::agent, false, {}},
      {"collectors", &ControlAnswers::collectors, false, {"tracker", "exporter", "after"}},
      {"tables", &ControlAnswers::tables, false, {"name", "tracker", "after"}},
      {"templates", &ControlAnswers::templates, false, {"tracker", "after"}},
      {"flows",
       &ControlAnswers::flows,
       true,
       {"tracker", "by", "order", "count", "filter", "after"}},
      {"tracked", &ControlAnswers::tracked, false, {"tracker", "after"}},
      {"state", &ControlAnswers::state, false, {"path", "after"}},
      {"clearCounters", &ControlAnswers::clearCounters, true, {}},
      {"resend", &ControlAnswers::resend, true, {"tracker", "exporter"}},
      {"reload", &ControlAnswers::reload, true, {}},
      {"logLevel", &ControlAnswers::logLevel, false, {"level"}},
  };
  return all;
}

/// The library's trees come and go with the trackers; all else is there from the start.
std::vector<StateTree::Root> ControlAnswers::roots() const {
  std::vector<StateTree::Root> roots;
  const auto add = [&](std::string name, Ptr<const Entity> entity) {
    if (entity) roots.push_back({std::move(name), std::move(entity)});
  };
  for (const auto& [type, tree] : host_.exports->trees().all()) {
    const std::string kind = FlowTracking::toText(type) + '-';
    add(kind + "config", tree.config);
    add(kind + "status", tree.status);
    add(kind + "info", tree.info);
    add(kind + "info-reactors", tree.infoSm);
    add(kind + "templates", tree.templateSm);
    add(kind + "options-data", tree.optionsDataSm);
  }
  roots.insert(roots.end(), host_.roots.begin(), host_.roots.end());
  return roots;
}

Json ControlAnswers::agent(const ControlRequest& request) {
  return {{"pid", getpid()},          {"version", TARN_VERSION},
          {"config", host_.config},   {"startTime", startTime_},
          {"logLevel", log_.level()}, {"mayChange", request.peer.mayChange}};
}

Json ControlAnswers::collectors(const ControlRequest& request) {
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

Json ControlAnswers::collector(const LibraryTree& tree, const CollectorName& name,
                               const TrackerSettings& t, const ExporterSettings& e,
                               const CollectorSettings& c) {
  const CollectorState state = states_->state(name);
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

Json ControlAnswers::tables(const ControlRequest& request) {
  const std::string name = request.text("name");
  const std::string tracker = request.tracker(host_.exports->runningSettings());
  if (name.empty()) return ControlTables::list(*host_.exports);
  const auto names = ControlTables::names();
  if (std::find(names.begin(), names.end(), name) == names.end())
    throw Refusal{"notFound",
                  "there is no table " + inQuotes(name) + ": there are " + joined(names)};
  return ControlTables::rows(*host_.exports, name, tracker, request.at("after"));
}

Json ControlAnswers::templates(const ControlRequest& request) {
  return ControlTables::templates(*host_.exports, request.tracker(host_.exports->runningSettings()),
                                  request.at("after"));
}

Json ControlAnswers::clearCounters(const ControlRequest& request) {
  host_.clearCounters();
  log_.info("counters cleared" + askedBy(request));
  return Json::object();
}

Json ControlAnswers::resend(const ControlRequest& request) {
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
  log_.info("templates and tables of " + counted(exporters, "exporter") + " are sent again" +
            askedBy(request));
  return {{"exporters", exporters}};
}

Json ControlAnswers::state(const ControlRequest& request) {
  const StateTree tree(roots());
  const auto page = tree.page(request.text("path"), request.text("after"));
  if (!page.problem.empty()) throw Refusal{"notFound", page.problem};
  Json rows = Json::array();
  for (const StateRow& row : page.rows)
    rows.push_back({row.path, row.text ? Json(*row.text) : Json(nullptr)});
  return {{"rows", std::move(rows)},
          {"next", page.done || page.rows.empty() ? Json(nullptr) : Json(page.rows.back().path)}};
}

Json ControlAnswers::reload(const ControlRequest&) {
  const ReloadOutcome outcome = host_.reload();
  return {{"done", outcome.done},
          {"summary", outcome.summary},
          {"errors", outcome.errors},
          {"warnings", outcome.warnings}};
}

Json ControlAnswers::logLevel(const ControlRequest& request) {
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
