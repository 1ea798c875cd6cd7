#pragma once
#include <CLI/CLI.hpp>
#include <memory>
#include <optional>

namespace cli {

/// The commands that ask a running agent over its control socket.
class ControlCommands {
 public:
  /// Adds them to the tool and to its "show".
  ControlCommands(CLI::App& app, CLI::App& show);
  ~ControlCommands();
  ControlCommands(const ControlCommands&) = delete;
  ControlCommands& operator=(const ControlCommands&) = delete;

  /// Runs the one that was given, if one was, and returns the exit status.
  std::optional<int> run();

 private:
  struct Command;
  struct Parts;
  std::unique_ptr<Parts> parts_;
};

}  // namespace cli
