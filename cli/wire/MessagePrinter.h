#pragma once
#include <nlohmann/json.hpp>
#include <string>

#include "cli/text/Style.h"
#include "cli/text/Text.h"
#include "cli/wire/UdpReceiver.h"
#include "cli/wire/decoder/Decoder.h"

namespace cli {

struct PrintOptions {
  bool quietData = false;  ///< data sets by their count only
  Style style = Style(false);
  size_t width = 120;  ///< of a line; wider tables become lists

  /// With the colours that standard output may have, and the width of its terminal.
  static PrintOptions ofOutput(bool quietData);
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

}  // namespace cli
