#pragma once
#include <cstdint>
#include <optional>
#include <string>

namespace cli {

struct DecodeOptions {
  std::string file;
  /// Only datagrams to this port, whatever they hold; none: those that look like IPFIX.
  std::optional<uint16_t> port;
  std::optional<uint64_t> messages;  ///< ends after so many
  bool json = false;
  bool quietData = false;
  bool tables = false;  ///< print the options data as it is at the end, not the messages
};

/// Prints the IPFIX messages of a capture, pcap or pcapng, as `listen` prints those that arrive.
/// Returns the exit status: 1 when something in them is wrong or missing, 2 when the file cannot be
/// read.
int decode(const DecodeOptions& options);

}  // namespace cli
