#include "cli/ControlCommands.h"

#include <fmt/format.h>

#include <cstdio>
#include <functional>
#include <vector>

#include "cli/ControlClient.h"
#include "cli/ControlShow.h"
#include "cli/MessagePrinter.h"

namespace cli {
namespace {
using Json = ControlClient::Json;

constexpr int exitFault = 1;
constexpr int exitFailure = 2;
constexpr size_t membersShown = 20;
}  // namespace

struct ControlCommands::Command {
  CLI::App* app;
  std::function<int(ControlClient&)> run;
};

struct ControlCommands::Parts {
  std::string socket = "/run/tarnflow/control.sock";
  bool json = false;
  std::string path;
  std::optional<size_t> limit;
  std::vector<Command> commands;

  CLI::App* add(CLI::App& to, const char* name, const char* what,
                std::function<int(ControlClient&)> run) {
    CLI::App* cmd = to.add_subcommand(name, what);
    cmd->add_option("--socket", socket, "The agent's control socket (agent.control)")
        ->type_name("PATH")
        ->envname("TARNFLOW_SOCKET")
        ->capture_default_str();
    cmd->add_flag("--json", json, "One JSON object, on one line");
    commands.push_back({cmd, std::move(run)});
    return cmd;
  }

  int showState(ControlClient& agent) const {
    StateView view(json ? StateView::Form::json : StateView::Form::text,
                   limit.value_or(json ? 0 : membersShown));
    const Style style = Style::ofOutput();
    agent.askAll({{"request", "state"}, {"path", path}}, [&](const Json& answer) {
      Json next = view.take(answer.at("rows"));
      if (!json) fmt::print("{}", view.takeText(style));
      return next;
    });
    if (json) fmt::print("{}", jsonLine(view.json()));
    return 0;
  }

  int reload(ControlClient& agent) const {
    Json answer = agent.ask({{"request", "reload"}});
    answer.erase("ok");
    const bool done = answer.at("done").get<bool>();
    if (json) {
      fmt::print("{}", jsonLine(answer));
    } else {
      for (const Json& error : answer.at("errors"))
        fmt::print(stderr, "{}\n", shown(error.get<std::string>()));
      fmt::print(done ? stdout : stderr, "{}\n", shown(answer.at("summary").get<std::string>()));
      for (const Json& warning : answer.at("warnings"))
        fmt::print(stderr, "tarnflow: {}\n", shown(warning.get<std::string>()));
    }
    return done ? 0 : exitFault;
  }
};

ControlCommands::ControlCommands(CLI::App& app, CLI::App& show)
    : parts_(std::make_unique<Parts>()) {
  Parts& p = *parts_;
  CLI::App* state =
      p.add(show, "state", "Everything that runs, as the agent's own objects have it, live",
            [&p](ControlClient& agent) { return p.showState(agent); });
  state->add_option("PATH", p.path, "Only what is there and below, such as interfaces/intfIndex")
      ->type_name("");
  state
      ->add_option("--limit", p.limit,
                   "Members shown of each collection; 0: all "
                   "[20; with --json all]")
      ->type_name("N");
  p.add(app, "reload", "Have the agent read its configuration again",
        [&p](ControlClient& agent) { return p.reload(agent); })
      ->footer(
          "Exit status: 0 reloaded; 1 the configuration has errors, and what ran before runs "
          "on; 2 no agent, or\nnot allowed.");
}
ControlCommands::~ControlCommands() = default;

std::optional<int> ControlCommands::run() {
  for (const Command& command : parts_->commands) {
    if (!*command.app) continue;
    try {
      ControlClient agent(parts_->socket);
      return command.run(agent);
    } catch (const NoAgent& e) {
      fmt::print(stderr, "tarnflow: {}\n", e.what());
    } catch (const Refused& e) {
      fmt::print(stderr, "tarnflow: the agent refuses: {}\n", shown(e.what()));
    } catch (const Json::exception& e) {
      fmt::print(stderr, "tarnflow: the agent's answer is not understood: {}\n", e.what());
    }
    return exitFailure;
  }
  return std::nullopt;
}

}  // namespace cli
