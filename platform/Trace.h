#pragma once
#include <cstdint>
#include <ostream>
#include <span>
#include <sstream>
#include <string>
#include <string_view>

#include "platform/Api.h"

namespace platform {

/// Where trace lines go. Levels: 0 what an operator must see, 3 events, 5 decisions, 8 octets.
class TARN_API TraceSink {
 public:
  virtual ~TraceSink() = default;
  virtual bool enabled(int level) const = 0;
  virtual void line(int level, std::string_view text) = 0;
};

namespace TraceLevel {
inline constexpr int error = 0;
inline constexpr int event = 3;
inline constexpr int detail = 5;
inline constexpr int packet = 8;
}  // namespace TraceLevel

/// The sink of the installed platform.
TARN_API TraceSink& traceSink();

/// Streams octets as hexadecimal, 16 to a line behind their offset.
struct HexDump {
  std::span<const uint8_t> octets;
};
TARN_API std::ostream& operator<<(std::ostream& out, const HexDump& dump);

/// Writes one line made of its arguments; they are only formatted when the level is enabled.
template <class... A>
inline void trace(int level, const A&... parts) {
  TraceSink& sink = traceSink();
  if (!sink.enabled(level)) return;
  [&]() __attribute__((noinline, cold)) {
    std::ostringstream out;
    (out << ... << parts);
    sink.line(level, out.view());
  }
  ();
}

/// A line of one object: "Class::handler for id " and what follows. `id` names what the object
/// serves; objects that serve the whole agent have none and leave " for " away with it.
template <class... A>
inline void traceOf(int level, std::string_view className, std::string_view handler,
                    std::string_view id, const A&... parts) {
  trace(level, className, "::", handler, id.empty() ? "" : " for ", id, " ", parts...);
}

}  // namespace platform
