#include "cli/control/ControlCommands.h"

#include <optional>
#include <string>
#include <utility>

#include "cli/control/ControlClient.h"
#include "cli/control/ControlShow.h"
#include "cli/control/FlowRows.h"
#include "cli/control/Top.h"
#include "cli/text/Arguments.h"
#include "cli/text/Output.h"
#include "cli/text/Quoted.h"
#include "cli/text/Text.h"

namespace cli {
namespace {
using Json = ControlClient::Json;

constexpr int exitFault = 1;    // the answer shows a fault
constexpr int exitFailure = 2;  // there is no answer
// Of each collection, and of each table, when the text is for people and has no --limit.
constexpr size_t membersShown = 20;
constexpr size_t rowsShown = 20;
constexpr size_t flowsShown = 100;

/// The options of all commands that ask the agent, and what each command does with them.
struct ControlCommand {
  using Run = int (ControlCommand::*)(ControlClient&) const;

  std::string socket = "/run/tarnflow/control.sock";
  bool json = false;
  std::string path;
  std::string tracker;
  std::string exporter;
  std::string table;
  std::string level;
  std::string filter;
  std::optional<size_t> limit;
  TopOptions heaviest;

  int ask(Run run) const {
    try {
      ControlClient agent(socket);
      return (this->*run)(agent);
    } catch (const NoAgent& e) {
      complain("tarnflow: {}\n", e.what());
    } catch (const Refused& e) {
      complain("tarnflow: the agent refuses: {}\n", shown(e.what()));
    } catch (const Json::exception& e) {
      complain("tarnflow: the agent's answer is not understood: {}\n", shown(e.what()));
    }
    return exitFailure;
  }

  /// How many items to show, 0 for all: as JSON all, as text `forText`, unless --limit says.
  size_t limitOr(size_t forText) const { return limit.value_or(json ? 0 : forText); }

  /// A request about the tracker and the exporter that were given.
  Json request(const char* name) const {
    Json r = {{"request", name}};
    if (!tracker.empty()) r["tracker"] = tracker;
    if (!exporter.empty()) r["exporter"] = exporter;
    return r;
  }
  /// Puts together the list that comes in parts under `key`; of its members the first `max`, 0:
  /// all.
  static Json whole(ControlClient& agent, Json request, const char* key, size_t max = 0) {
    Json all = Json::array();
    agent.askAll(std::move(request), [&](const Json& answer) -> Json {
      for (const Json& one : answer.at(key)) {
        if (max > 0 && all.size() == max) return false;
        all.push_back(one);
      }
      return nullptr;
    });
    return all;
  }

  /// Writes the list `all`, which the JSON has under `key`; `none` says that it is empty.
  int show(const Json& all, const char* key, const char* none,
           std::string (*text)(const Json& all, double now, const Style& style)) const {
    if (json) {
      Output::write(jsonLine({{"time", utcNow()}, {key, all}}));
    } else if (all.empty()) {
      complain("tarnflow: {}\n", none);
    } else {
      Output::write(text(all, utcNow(), Style::ofOutput()));
    }
    return all.empty() ? exitFault : 0;
  }

  int showCollectors(ControlClient& agent) const {
    const Json all = whole(agent, request("collectors"), "collectors");
    const int status = show(all, "collectors", "no collector is configured", collectorsText);
    for (const Json& c : all)
      if (c.at("state") != "sending") return exitFault;
    return status;
  }

  int showTables(ControlClient& agent) const {
    const Style style = Style::ofOutput();
    Json tables = Json::array();
    Json list = agent.ask({{"request", "tables"}}).at("tables");
    if (!table.empty()) {
      // If there is no table of this name, the agent's refusal lists the names.
      agent.ask({{"request", "tables"}, {"name", table}});
      for (const Json& t : Json(list))
        if (t.at("name") == table) list = Json::array({t});
    }
    for (Json& t : list) {
      const auto name = t.at("name").get<std::string>();
      Json r = request("tables");
      r["name"] = name;
      t["rows"] = whole(agent, r, "rows", limitOr(table.empty() ? rowsShown : 0));
      if (!tracker.empty()) t["records"] = t["rows"].size();
      if (!json)
        Output::write(fmt::format("{}\n", tableText(name, t["records"], t["rows"], style)));
    }
    if (json) Output::write(jsonLine({{"time", utcNow()}, {"tables", list}}));
    return 0;
  }

  int showTemplates(ControlClient& agent) const {
    return show(whole(agent, request("templates"), "templates"), "templates",
                "there is no template: no tracker is configured", templatesText);
  }

  int clearCounters(ControlClient& agent) const {
    agent.ask({{"request", "clearCounters"}});
    Output::write(json ? jsonLine({{"cleared", true}}) : "the counters of all collectors are 0\n");
    return 0;
  }

  int resend(ControlClient& agent) const {
    const auto n = agent.ask(request("resend")).at("exporters").get<uint64_t>();
    if (json) {
      Output::write(jsonLine({{"exporters", n}}));
    } else if (n > 0) {
      Output::write(fmt::format("{} {} templates and tables again\n", n,
                                n == 1 ? "exporter sends its" : "exporters send their"));
    } else {
      complain("tarnflow: nobody is being sent to: see 'tarnflow show collectors'\n");
    }
    return n > 0 ? 0 : exitFault;
  }

  int logLevel(ControlClient& agent) const {
    Json r = {{"request", "logLevel"}};
    if (!level.empty()) r["level"] = level;
    const auto now = agent.ask(r).at("level").get<int>();
    Output::write(json ? jsonLine({{"level", now}}) : fmt::format("{}\n", now));
    return 0;
  }

  int showState(ControlClient& agent) const {
    StateView view(json ? StateView::Form::json : StateView::Form::text, limitOr(membersShown));
    const Style style = Style::ofOutput();
    agent.askAll({{"request", "state"}, {"path", path}}, [&](const Json& answer) {
      Json next = view.take(answer.at("rows"));
      if (!json) Output::write(view.takeText(style));
      return next;
    });
    if (json) Output::write(jsonLine(view.json()));
    return 0;
  }

  int showTop(ControlClient& agent) const {
    TopOptions options = heaviest;
    options.socket = socket;
    options.tracker = tracker;
    options.filter = filter;
    options.json = json;
    return top(agent, options);
  }

  int listFlows(ControlClient& agent) const {
    Json r = request("flows");
    if (!filter.empty()) r["filter"] = filter;
    const FlowRows found = FlowRows::ask(agent, r, limitOr(flowsShown));
    if (json) {
      Output::write(jsonLine(found.json()));
    } else {
      const Style style = Style::ofOutput();
      Output::write(found.table().text(0, [&](size_t row, const std::string& line) {
        return row == 0 ? style.strong(line) : line;
      }));
      if (found.more)
        complain("tarnflow: these are the first {}, --limit 0 shows all\n", found.rows.size());
      if (!found.incomplete.is_null())
        complain("tarnflow: flows are missing: {}\n", shown(found.incomplete.get<std::string>()));
    }
    return found.incomplete.is_null() ? 0 : exitFault;
  }

  int reload(ControlClient& agent) const {
    Json answer = agent.ask({{"request", "reload"}});
    answer.erase("ok");
    const bool done = answer.at("done").get<bool>();
    if (json) {
      Output::write(jsonLine(answer));
    } else {
      for (const Json& error : answer.at("errors"))
        complain("{}\n", shown(error.get<std::string>()));
      const std::string summary = shown(answer.at("summary").get<std::string>()) + '\n';
      if (done) {
        Output::write(summary);
      } else {
        complainLine(summary);
      }
      for (const Json& warning : answer.at("warnings"))
        complain("tarnflow: {}\n", shown(warning.get<std::string>()));
    }
    return done ? 0 : exitFault;
  }
};

/// Adds a command to `to`, with the options that all of them have.
std::pair<CLI::App*, ControlCommand&> add(CLI::App& to, const char* name, const char* what,
                                          int& status, ControlCommand::Run run) {
  auto [cmd, options] = addCommand<ControlCommand>(
      to, name, what, status, [run](const ControlCommand& command) { return command.ask(run); });
  addSocket(cmd, options.socket);
  addJson(cmd, options.json);
  return {cmd, options};
}
void addTop(CLI::App& app, int& status) {
  auto [cmd, options] = add(app, "top", "The heaviest flows, hosts, ports or interfaces, live",
                            status, &ControlCommand::showTop);
  TopOptions& o = options.heaviest;
  addTracker(cmd, options.tracker);
  cmd->add_option("--by", o.by, "What is listed: flows, hosts, ports or interfaces")
      ->type_name("WHAT")
      ->capture_default_str()
      ->check(CLI::IsMember({"flows", "hosts", "ports", "interfaces"}));
  cmd->add_option("--order", o.order, "What makes them heavy: octets or packets")
      ->type_name("SUM")
      ->capture_default_str()
      ->check(CLI::IsMember({"octets", "packets"}));
  addFilter(cmd, options.filter);
  cmd->add_option("--count", o.count, "Rows to show, 1 to 1000 [20; on a terminal what fits]")
      ->type_name("N")
      ->check(CLI::Range(1, 1000));
  cmd->add_option("--interval", o.interval, "Look again every S seconds, on a terminal")
      ->type_name("S")
      ->capture_default_str()
      ->check(positive());
  cmd->add_flag("--once", o.once, "Look once and end, as where standard output is no terminal");
  cmd->footer("Exit status: 0; 1 when flows are missing; 2 no agent, or it refuses.");
}
void addLimit(CLI::App* cmd, ControlCommand& options, const char* what) {
  cmd->add_option("--limit", options.limit, what)->type_name("N");
}
}  // namespace

void addControl(CLI::App& app, CLI::App& show, int& status) {
  auto [state, stateOptions] =
      add(show, "state", "Everything that runs, as the agent's own objects have it, live", status,
          &ControlCommand::showState);
  state
      ->add_option("PATH", stateOptions.path,
                   "Only what is there and below, such as interfaces/intfIndex")
      ->type_name("");
  addLimit(state, stateOptions, "Members shown of each collection; 0: all [20; with --json all]");

  auto [collectors, collectorsOptions] =
      add(show, "collectors", "Whether each collector is sent to, and if not, what is missing",
          status, &ControlCommand::showCollectors);
  addTracker(collectors, collectorsOptions.tracker);
  addExporter(collectors, collectorsOptions.exporter);
  collectors->footer(
      "Exit status: 0; 1 when a collector is not sent to, or there is none; 2 no agent.");

  auto [tables, tablesOptions] = add(show, "tables", "The options tables as they are now, decoded",
                                     status, &ControlCommand::showTables);
  tables
      ->add_option("NAME", tablesOptions.table,
                   "Only this one: interfaces, vrfs, trackers or flow-keys")
      ->type_name("");
  addTracker(tables, tablesOptions.tracker);
  addLimit(tables, tablesOptions,
           "Records shown of each table; 0: all [20; of one table all; with --json all]");

  auto [templates, templatesOptions] =
      add(show, "templates", "Data and options templates with their fields", status,
          &ControlCommand::showTemplates);
  addTracker(templates, templatesOptions.tracker);

  CLI::App* clear = app.add_subcommand("clear", "Set to zero what a running agent counts");
  clear->require_subcommand(1);
  add(*clear, "counters", "The counters of all collectors", status, &ControlCommand::clearCounters);

  auto [resend, resendOptions] =
      add(app, "resend", "Have the agent send templates and full tables again now", status,
          &ControlCommand::resend);
  addTracker(resend, resendOptions.tracker);
  addExporter(resend, resendOptions.exporter);
  resend->footer("Exit status: 0; 1 when nobody is being sent to; 2 no agent, or not allowed.");

  auto [logLevel, levelOptions] =
      add(app, "log-level", "Show, or set, how much of its inside the agent logs", status,
          &ControlCommand::logLevel);
  logLevel
      ->add_option("LEVEL", levelOptions.level,
                   "0 to 9, or error (0), event (3), detail (5), packet (8)")
      ->type_name("");

  addTop(app, status);
  add(app, "reload", "Have the agent read its configuration again", status, &ControlCommand::reload)
      .first->footer(
          "Exit status: 0 reloaded; 1 the configuration has errors, and what ran before runs "
          "on; 2 no agent, or\nnot allowed.");
}

int listFlows(const FlowListOptions& o) {
  ControlCommand command;
  command.socket = o.socket;
  command.tracker = o.tracker;
  command.filter = o.filter;
  command.limit = o.limit;
  command.json = o.json;
  return command.ask(&ControlCommand::listFlows);
}
Json trackedInterfaces(const std::string& socket, int pid) {
  try {
    ControlClient agent(socket, std::chrono::seconds(1));
    if (agent.ask({{"request", "agent"}}).at("pid") != pid) return nullptr;
    return ControlCommand::whole(agent, {{"request", "tracked"}}, "interfaces");
  } catch (const std::exception&) {
    return nullptr;
  }
}

}  // namespace cli
