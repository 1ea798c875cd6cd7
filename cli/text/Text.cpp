#include "cli/text/Text.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <chrono>
#include <cmath>

namespace cli {

std::string plural(uint64_t n, std::string_view noun) {
  return fmt::format("{} {}{}", n, noun, n == 1 ? "" : "s");
}

double utcNow() {
  return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

std::string utcText(double seconds) {
  const double whole = std::floor(seconds);
  return fmt::format("{:%Y-%m-%d %H:%M:%S}.{:03}Z", fmt::gmtime(static_cast<std::time_t>(whole)),
                     static_cast<int>((seconds - whole) * 1000));
}

std::string ageText(double now, double then) {
  if (then == 0) return "never";
  const double age = now - then;
  if (age < 0) return "in future";  // the clock was set back
  const auto s = static_cast<uint64_t>(age);
  if (s < 60) return fmt::format("{:.1f}s", age);
  if (s < 3600) return fmt::format("{}m{:02}s", s / 60, s % 60);
  if (s < 86400) return fmt::format("{}h{:02}m", s / 3600, s / 60 % 60);
  return fmt::format("{}d{:02}h", s / 86400, s / 3600 % 24);
}

std::string jsonLine(const nlohmann::ordered_json& value) {
  return value.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + '\n';
}

}  // namespace cli
