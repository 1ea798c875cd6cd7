#include "cli/counters/CountersCommands.h"

#include "cli/counters/Counters.h"
#include "cli/counters/Flows.h"
#include "cli/counters/Metrics.h"
#include "cli/text/Arguments.h"

namespace cli {
namespace {
void addName(CLI::App* cmd, std::string& to) {
  cmd->add_option("--name", to, "Shared memory of the agent's statistics")
      ->type_name("/NAME")
      ->capture_default_str()
      ->check([](const std::string& name) {
        return name.size() > 1 && name[0] == '/' && name.find('/', 1) == std::string::npos
                   ? std::string()
                   : "\"" + name +
                         "\" is no name of shared memory: it begins with '/' and has no other, "
                         "such as /tarnflow";
      });
}
CLI::Option* addTableOptions(CLI::App* cmd, CountersOptions& options) {
  addName(cmd, options.name);
  addJson(cmd, options.json);
  return cmd->add_option("--watch", options.watch, "Show again every S seconds")
      ->type_name("S")
      ->check(positive());
}
}  // namespace

void addCounters(CLI::App& show, int& status) {
  auto [cmd, options] = addCommand<CountersOptions>(
      show, "counters", "What was exported, per tracker, exporter and collector", status,
      showCounters);
  addTableOptions(cmd, options);
  addTracker(cmd, options.tracker);
  addExporter(cmd, options.exporter);
  cmd->footer(
      "Reads shared memory; the agent notices nothing. Exit status: 0; 1 when no agent runs or "
      "nothing was sent yet.");
}

void addFlows(CLI::App& show, int& status, const FlowsAtAgent& agent) {
  auto [cmd, options] = addCommand<FlowsOptions>(
      show, "flows", "What the software flow path saw, dropped, holds and reported, per tracker",
      status, [agent](const FlowsOptions& o) { return showFlows(o, agent); });
  CLI::Option* const watch = addTableOptions(cmd, options);
  CLI::Option* const list =
      cmd->add_flag("--list", options.list, "List the flows under way instead")->excludes(watch);
  addTracker(cmd, options.tracker)->needs(list);
  addFilter(cmd, options.filter)->needs(list);
  cmd->add_option("--limit", options.limit, "Flows that are listed; 0: all [100; with --json all]")
      ->type_name("N")
      ->needs(list);
  addSocket(cmd, options.socket);
  cmd->footer(
      "Reads shared memory, and asks the agent for interfaces and flows. Exit status: 0; 1 when no "
      "agent runs or no tracker\nlooks at packets, or listed flows are missing; 2 no agent answers "
      "--list, or it refuses.");
}

void addMetrics(CLI::App& app, int& status) {
  auto [cmd, options] = addCommand<MetricsOptions>(
      app, "metrics", "Serve what the agent counts to Prometheus, over HTTP or as a file", status,
      metrics);
  addName(cmd, options.name);
  auto* listenOption = cmd->add_option("--listen", options.listen, "Where to serve /metrics")
                           ->type_name("ADDR:PORT")
                           ->capture_default_str()
                           ->check(listenError);
  auto* textFile = cmd->add_option("--textfile", options.textFile,
                                   "Write this file instead, once, for node-exporter's text-file "
                                   "collector")
                       ->type_name("FILE")
                       ->excludes(listenOption);
  cmd->add_option("--interval", options.interval, "Write the file again every S seconds")
      ->type_name("S")
      ->check(positive())
      ->needs(textFile);
  cmd->footer(
      "Reads shared memory; goes on while the agent is stopped and started. Exit status: 0; 1 when "
      "it could not listen or write.");
}

}  // namespace cli
