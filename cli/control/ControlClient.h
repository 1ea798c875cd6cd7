#pragma once
#include <functional>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>

#include "platform/linux/Fd.h"

namespace cli {

/// No agent answers: the text says why, and what to do.
class NoAgent : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};
/// The agent refuses the request; the text is its reason.
class Refused : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// A connection to an agent's control socket; docs/control-socket.md has the requests.
class ControlClient {
 public:
  using Json = nlohmann::ordered_json;

  /// Throws NoAgent.
  explicit ControlClient(const std::string& path);

  /// The answer to one request. Throws NoAgent when no answer comes, Refused when it is a refusal.
  Json ask(const Json& request);

  /// Asks for all parts of an answer that comes in several. `part` gets each of them and returns
  /// the "after" of the next request: null for the part's own "next", false when it wants no more.
  /// Throws as `ask`.
  void askAll(Json request, const std::function<Json(const Json& answer)>& part);

 private:
  std::string path_;
  platform::Fd fd_;
  std::string in_;
};

}  // namespace cli
