#include "platform/UdpPam.h"

#include <cmath>

#include "platform/Text.h"

namespace platform {

std::string RateLimit::stringValue() const {
  switch (unit) {
    case Unit::none:
      return "none";
    case Unit::octets:
      return std::to_string(perSecond) + " octets/s";
    case Unit::messages:
      return std::to_string(perSecond) + " messages/s";
    case Unit::hostsChoice:
      break;
  }
  return "default";
}

std::optional<RateLimit> RateLimit::fromString(std::string_view text) {
  if (text == "none") return RateLimit{.unit = Unit::none};
  if (text == "default") return RateLimit{};
  const size_t digits = std::min(text.find_first_not_of("0123456789."), text.size());
  double number = 0;
  if (digits == 0 || !fromText(text.substr(0, digits), number)) return std::nullopt;
  text.remove_prefix(digits);
  if (text.starts_with(' ')) text.remove_prefix(1);
  if (text.empty()) return std::nullopt;
  // "k" is no unit's first letter, nor are "M" and "G".
  if (const size_t power = std::string_view(" kMG").find(text.front());
      power > 0 && power != std::string_view::npos) {
    number *= std::pow(1000.0, static_cast<double>(power));
    text.remove_prefix(1);
  }
  if (text == "bit/s") number /= 8;
  const bool octets = text == "bit/s" || text == "B/s" || text == "octets/s";
  if (!octets && text != "messages/s") return std::nullopt;
  number = std::round(number);
  if (!(number >= 1 && number <= 1e12)) return std::nullopt;
  return RateLimit{.unit = octets ? Unit::octets : Unit::messages,
                   .perSecond = static_cast<uint64_t>(number)};
}

}  // namespace platform
