#include <arpa/inet.h>

#include <bit>
#include <charconv>
#include <cstdio>
#include <ctime>

#include "cli/text/Quoted.h"
#include "cli/wire/decoder/Decoder.h"

namespace decoder {
namespace {

uint64_t bigEndian(std::span<const uint8_t> octets) {
  uint64_t v = 0;
  for (const uint8_t c : octets) v = v << 8 | c;
  return v;
}
std::string hex(std::span<const uint8_t> octets) {
  static constexpr char digits[] = "0123456789abcdef";
  if (octets.empty()) return "(none)";
  std::string out = "0x";
  out.reserve(2 + 2 * octets.size());
  for (const uint8_t c : octets) {
    out += digits[c >> 4];
    out += digits[c & 15];
  }
  return out;
}
std::string address(int family, std::span<const uint8_t> octets) {
  char buf[INET6_ADDRSTRLEN];
  return inet_ntop(family, octets.data(), buf, sizeof buf) ? buf : hex(octets);
}
std::string mac(std::span<const uint8_t> o) {
  char buf[18];
  std::snprintf(buf, sizeof buf, "%02x:%02x:%02x:%02x:%02x:%02x", o[0], o[1], o[2], o[3], o[4],
                o[5]);
  return buf;
}
/// RFC 3339 with `digits` of a second's fraction; the plain number beyond the year 9999.
std::string utc(int64_t seconds, uint32_t fraction, int digits) {
  constexpr int64_t yearTenThousand = 253402300800;
  if (seconds >= yearTenThousand) return std::to_string(seconds) + " s after 1970";
  const auto t = static_cast<time_t>(seconds);
  tm parts{};
  gmtime_r(&t, &parts);
  char buf[64];
  size_t n = std::strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%S", &parts);
  if (digits > 0)
    n += static_cast<size_t>(std::snprintf(buf + n, sizeof buf - n, ".%0*u", digits, fraction));
  return std::string(buf, n) + "Z";
}
/// The 64-bit format of RFC 5905: seconds since 1900 and a binary fraction. Numbers below 2^31 are
/// of the era that begins in 2036.
std::string ntp(uint64_t stamp, uint32_t perSecond, int digits) {
  constexpr int64_t from1900 = 2208988800;
  auto seconds = static_cast<int64_t>(stamp >> 32);
  if (seconds < 1LL << 31) seconds += 1LL << 32;
  const auto fraction = static_cast<uint32_t>((stamp & 0xffffffff) * perSecond >> 32);
  return utc(seconds - from1900, fraction, digits);
}

}  // namespace

Type Value::type() const {
  if (!field->element || !typeAllows(field->element->type, octets.size())) return Type::octetArray;
  return field->element->type;
}
std::optional<uint64_t> Value::unsignedValue() const {
  const Type t = type();
  if (t < Type::unsigned8 || t > Type::unsigned64) return std::nullopt;
  return bigEndian(octets);
}
std::optional<int64_t> Value::signedValue() const {
  const Type t = type();
  if (t < Type::signed8 || t > Type::signed64) return std::nullopt;
  const auto unused = static_cast<int>(64 - 8 * octets.size());
  return static_cast<int64_t>(bigEndian(octets) << unused) >> unused;
}
std::optional<double> Value::floatValue() const {
  const Type t = type();
  if (t != Type::float32 && t != Type::float64) return std::nullopt;
  const uint64_t bits = bigEndian(octets);
  return octets.size() == 8 ? std::bit_cast<double>(bits)
                            : std::bit_cast<float>(static_cast<uint32_t>(bits));
}
std::optional<std::string_view> Value::stringValue() const {
  if (type() != Type::string) return std::nullopt;
  std::string_view s(reinterpret_cast<const char*>(octets.data()), octets.size());
  if (!field->variable()) s = s.substr(0, s.find_last_not_of('\0') + 1);
  return s;
}

std::string Value::text() const {
  switch (type()) {
    case Type::unsigned8:
    case Type::unsigned16:
    case Type::unsigned32:
    case Type::unsigned64:
      return field->element->semantics == elements::Semantics::flags
                 ? hex(octets)
                 : std::to_string(bigEndian(octets));
    case Type::signed8:
    case Type::signed16:
    case Type::signed32:
    case Type::signed64:
      return std::to_string(*signedValue());
    case Type::float32:
    case Type::float64: {
      char buf[32];
      return {buf, std::to_chars(buf, buf + sizeof buf, *floatValue()).ptr};
    }
    case Type::boolean:  // RFC 7011, 6.1.5
      return octets[0] == 1 ? "true" : octets[0] == 2 ? "false" : hex(octets);
    case Type::macAddress:
      return mac(octets);
    case Type::string:
      return cli::quoted(*stringValue());
    case Type::dateTimeSeconds:
      return utc(static_cast<int64_t>(bigEndian(octets)), 0, 0);
    case Type::dateTimeMilliseconds: {
      const uint64_t ms = bigEndian(octets);
      return utc(static_cast<int64_t>(ms / 1000), static_cast<uint32_t>(ms % 1000), 3);
    }
    case Type::dateTimeMicroseconds:
      return ntp(bigEndian(octets), 1'000'000, 6);
    case Type::dateTimeNanoseconds:
      return ntp(bigEndian(octets), 1'000'000'000, 9);
    case Type::ipv4Address:
      return address(AF_INET, octets);
    case Type::ipv6Address:
      return address(AF_INET6, octets);
    case Type::octetArray:
    case Type::basicList:
    case Type::subTemplateList:
    case Type::subTemplateMultiList:
      break;
  }
  return hex(octets);
}

}  // namespace decoder
