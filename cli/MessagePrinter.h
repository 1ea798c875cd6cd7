#pragma once
#include <nlohmann/json.hpp>
#include <string>

#include "cli/UdpReceiver.h"
#include "cli/decoder/Decoder.h"

namespace cli {

struct PrintOptions {
  bool quietData = false;  ///< data sets by their count only
  bool colour = false;
  size_t width = 120;  ///< of a line; wider tables become lists
};

/// A message for people: a header line, then its sets, then what is wrong with it.
std::string messageText(const Datagram& from, const decoder::Message& message,
                        const PrintOptions& options);
/// The same for programs; docs/tarnflow.md has the keys.
nlohmann::ordered_json messageJson(const Datagram& from, const decoder::Message& message,
                                   bool quietData);

/// What was heard from start to end.
struct Summary {
  double seconds = 0;
  uint64_t drops = 0;  ///< datagrams lost in this host's buffers
  const decoder::Decoder& decoder;
};
std::string summaryText(const Summary& summary);
nlohmann::ordered_json summaryJson(const Summary& summary);
/// Nothing was malformed and no sequence number wrong.
bool flawless(const decoder::Decoder& decoder);

/// A value for programs: a number or a string where its type has one, else its text.
nlohmann::ordered_json valueJson(const decoder::Value& value);

/// "EF", "CS6", "AF41"; empty for a code point without a name.
std::string_view dscpName(uint8_t dscp);
/// 2025-11-21 11:44:03.123Z
std::string utcText(double seconds);
/// One line of JSON; octets that are no UTF-8 become replacement characters.
std::string jsonLine(const nlohmann::ordered_json& value);

}  // namespace cli
