#pragma once
#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

/// Counts, times and JSON as all commands write them.
namespace cli {

/// "1 octet", "2 octets".
std::string plural(uint64_t n, std::string_view noun);
/// Seconds since 1970, UTC.
double utcNow();
/// Such seconds as "2025-11-21 11:44:03.123Z".
std::string utcText(double seconds);
/// The time from `then` to `now`, UTC seconds: "3.2s", "5m07s", "2h10m", "3d04h". "never" when
/// `then` is 0.
std::string ageText(double now, double then);
/// One line of JSON; octets that are no UTF-8 become replacement characters.
std::string jsonLine(const nlohmann::ordered_json& value);

}  // namespace cli
