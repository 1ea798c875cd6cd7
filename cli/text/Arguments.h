#pragma once
#include <CLI/CLI.hpp>
#include <memory>
#include <string>
#include <utility>

/// What the tool's commands have in common on the command line.
namespace cli {

/// Adds a command to `to`. Returns it with its options, which the command line fills and which live
/// as long as the command. When the command is given, `status` becomes what `run` returns for them.
template <class Options, class Run>
std::pair<CLI::App*, Options&> addCommand(CLI::App& to, const char* name, const char* what,
                                          int& status, Run run) {
  const auto options = std::make_shared<Options>();
  CLI::App* const cmd = to.add_subcommand(name, what);
  cmd->callback([options, run, &status] { status = run(*options); });
  return {cmd, *options};
}

inline CLI::Option* addTracker(CLI::App* cmd, std::string& tracker) {
  return cmd->add_option("--tracker", tracker, "Only this tracker's")->type_name("NAME");
}
inline void addSocket(CLI::App* cmd, std::string& socket) {
  cmd->add_option("--socket", socket, "The agent's control socket (agent.control)")
      ->type_name("PATH")
      ->envname("TARNFLOW_SOCKET")
      ->capture_default_str();
}
/// Of flows under way; the agent reads it.
inline CLI::Option* addFilter(CLI::App* cmd, std::string& filter) {
  return cmd
      ->add_option("--filter", filter,
                   "Only flows that match terms joined by 'and': host ADDRESS[/LENGTH], port N, "
                   "protocol N or NAME, interface NAME, vrf NAME")
      ->type_name("TEXT");
}
inline void addExporter(CLI::App* cmd, std::string& exporter) {
  cmd->add_option("--exporter", exporter, "Only exporters of this name")->type_name("NAME");
}
inline void addJson(CLI::App* cmd, bool& json) {
  cmd->add_flag("--json", json, "One JSON object, on one line");
}
/// Accepts numbers above 0.
inline CLI::Validator positive() {
  return {[](const std::string& text) {
            double v = 0;
            return CLI::detail::lexical_cast(text, v) && v > 0 ? std::string()
                                                               : text + " is not a number above 0";
          },
          ""};
}

}  // namespace cli
