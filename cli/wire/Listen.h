#pragma once
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace cli {

struct ListenOptions {
  std::vector<std::string> addresses;  ///< none: all of this host's
  uint16_t port = 4739;                // registered for IPFIX
  bool json = false;
  bool quietData = false;
  bool tables = false;               ///< print the options data as tables, not the messages
  std::optional<uint64_t> messages;  ///< ends after so many
  std::optional<double> seconds;     ///< ends after so long
};

/// Prints what arrives until SIGINT, SIGTERM or a limit. Returns the exit status: 1 when something
/// was malformed or a sequence number wrong, 2 when it could not listen.
int listen(const ListenOptions& options);

}  // namespace cli
