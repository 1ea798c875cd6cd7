#pragma once
#include <string>
#include <string_view>

#include "agent/control/ControlAnswers.h"
#include "agent/control/ControlSocket.h"

namespace agent {

/// Reads the requests of the control socket, refuses those that are wrong or not allowed, and has
/// ControlAnswers answer the others.
class ControlDispatcher {
 public:
  explicit ControlDispatcher(ControlAnswers answers) : answers_(std::move(answers)) {}

  /// The answer's line to a request's line, both without their newline. Never throws.
  std::string answer(const ControlPeer& peer, std::string_view line);

 private:
  ControlAnswers answers_;
};

}  // namespace agent
