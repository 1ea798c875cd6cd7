#pragma once
#include <chrono>
#include <functional>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <vector>

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

/// The user wants something else than to wait for the answer.
class Interrupted : public std::runtime_error {
 public:
  Interrupted() : std::runtime_error("interrupted") {}
};

/// A connection to an agent's control socket; docs/control-socket.md has the requests.
class ControlClient {
 public:
  using Json = nlohmann::ordered_json;

  /// How long it waits for a connection, and for each answer but that to `reload`.
  static constexpr std::chrono::milliseconds patience{10000};

  /// Throws NoAgent. `most`: instead of `patience`. `inputs`: descriptors that interrupt a wait for
  /// the agent when they become readable.
  explicit ControlClient(const std::string& path, std::chrono::milliseconds most = patience,
                         std::vector<int> inputs = {});

  /// The answer to one request. Throws NoAgent when no answer comes, Refused when it is a refusal,
  /// and Interrupted, after which nothing more can be asked.
  Json ask(const Json& request);

  /// Throws Interrupted.
  void pause(std::chrono::milliseconds time) const { wait(-1, time); }

  /// Asks for all parts of an answer that comes in several. `part` gets each of them and returns
  /// the "after" of the next request: null for the part's own "next", false when it wants no more.
  /// Throws as `ask`.
  void askAll(Json request, const std::function<Json(const Json& answer)>& part);

 private:
  int wait(int fd, std::chrono::milliseconds most) const;

  std::string path_;
  std::chrono::milliseconds most_;
  std::vector<int> inputs_;
  platform::Fd fd_;
  std::string in_;
};

}  // namespace cli
