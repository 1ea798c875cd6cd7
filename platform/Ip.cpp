#include "platform/Ip.h"

#include <charconv>

namespace platform {
namespace {
template <class T>
bool parseNumber(std::string_view s, T& v, int base = 10) {
  auto [end, err] = std::from_chars(s.data(), s.data() + s.size(), v, base);
  return err == std::errc{} && end == s.data() + s.size();
}
/// The decimal port behind the last colon; shortens `text` to what stands before it.
std::optional<uint16_t> takePort(std::string_view& text) {
  const size_t colon = text.rfind(':');
  uint16_t port = 0;
  if (colon == std::string_view::npos || !parseNumber(text.substr(colon + 1), port))
    return std::nullopt;
  text = text.substr(0, colon);
  return port;
}
}  // namespace

std::string IpAddr::stringValue() const {
  return std::to_string(value_ >> 24) + '.' + std::to_string(value_ >> 16 & 255) + '.' +
         std::to_string(value_ >> 8 & 255) + '.' + std::to_string(value_ & 255);
}
std::optional<IpAddr> IpAddr::fromString(std::string_view text) {
  uint32_t value = 0;
  for (int i = 0; i < 4; ++i) {
    const size_t len = i < 3 ? text.find('.') : text.size();
    uint8_t octet = 0;
    if (len == std::string_view::npos || len > 3 || !parseNumber(text.substr(0, len), octet))
      return std::nullopt;
    if (len > 1 && text[0] == '0') return std::nullopt;  // octal or decimal? refused, as RFC 6943
    value = value << 8 | octet;
    text = text.substr(i < 3 ? len + 1 : len);
  }
  return IpAddr(value);
}

std::string Ip6Addr::stringValue() const {
  std::array<uint16_t, 8> group{};
  for (size_t i = 0; i < 8; ++i)
    group[i] = static_cast<uint16_t>(octets_[2 * i] << 8 | octets_[2 * i + 1]);
  // RFC 5952, 4.2: shorten the longest run of zero groups, the first of equals, never a single one.
  size_t bestStart = 8;
  size_t bestLen = 1;
  for (size_t i = 0; i < 8;) {
    size_t end = i;
    while (end < 8 && group[end] == 0) ++end;
    if (end - i > bestLen) {
      bestStart = i;
      bestLen = end - i;
    }
    i = end > i ? end : i + 1;
  }
  const bool mapped = bestStart == 0 && bestLen == 5 && group[5] == 0xffff;  // RFC 5952, 5
  if (mapped) {
    const uint32_t v4 = static_cast<uint32_t>(group[6]) << 16 | group[7];
    return "::ffff:" + IpAddr(v4).stringValue();
  }
  std::string out;
  for (size_t i = 0; i < 8; ++i) {
    if (i == bestStart) {
      out += "::";
      i += bestLen - 1;
      continue;
    }
    if (!out.empty() && out.back() != ':') out += ':';
    char buf[4];
    auto r = std::to_chars(buf, buf + sizeof buf, group[i], 16);
    out.append(buf, r.ptr);
  }
  return out;
}
std::optional<Ip6Addr> Ip6Addr::fromString(std::string_view text) {
  // Two lists of octets, before and after "::".
  std::array<uint8_t, 16> head{};
  std::array<uint8_t, 16> tail{};
  size_t headLen = 0;
  size_t tailLen = 0;
  bool gap = false;
  if (text.starts_with("::")) {
    gap = true;
    text.remove_prefix(2);
  } else if (text.empty() || text.front() == ':') {
    return std::nullopt;
  }
  while (!text.empty()) {
    auto& list = gap ? tail : head;
    size_t& len = gap ? tailLen : headLen;
    const size_t end = std::min(text.find(':'), text.size());
    const std::string_view item = text.substr(0, end);
    if (item.find('.') != std::string_view::npos) {
      auto v4 = IpAddr::fromString(item);
      if (!v4 || end != text.size() || len + 4 > 16) return std::nullopt;
      for (int shift = 24; shift >= 0; shift -= 8)
        list[len++] = static_cast<uint8_t>(v4->value() >> shift);
      break;
    }
    uint16_t group = 0;
    if (item.empty() || item.size() > 4 || !parseNumber(item, group, 16) || len + 2 > 16)
      return std::nullopt;
    list[len++] = static_cast<uint8_t>(group >> 8);
    list[len++] = static_cast<uint8_t>(group);
    text = text.substr(end);
    if (text.empty()) break;
    text.remove_prefix(1);
    if (text.empty()) return std::nullopt;  // one colon at the end
    if (text.front() == ':') {
      if (gap) return std::nullopt;
      gap = true;
      text.remove_prefix(1);
    }
  }
  if (gap ? headLen + tailLen > 14 : headLen != 16) return std::nullopt;
  std::copy_n(tail.begin(), tailLen, head.end() - static_cast<ptrdiff_t>(tailLen));
  return Ip6Addr(head);
}

std::string IpGenAddr::stringValue() const {
  if (isIpv4()) return v4_.stringValue();
  if (isIpv6()) return v6_.stringValue();
  return {};
}
std::optional<IpGenAddr> IpGenAddr::fromString(std::string_view text) {
  if (text.empty()) return IpGenAddr();
  if (auto v4 = IpAddr::fromString(text)) return IpGenAddr(*v4);
  if (auto v6 = Ip6Addr::fromString(text)) return IpGenAddr(*v6);
  return std::nullopt;
}

std::string IpAndPort::stringValue() const {
  return addr.stringValue() + ':' + std::to_string(port);
}
std::optional<IpAndPort> IpAndPort::fromString(std::string_view text) {
  const auto port = takePort(text);
  const auto addr = IpAddr::fromString(text);
  if (!port || !addr) return std::nullopt;
  return IpAndPort{*addr, *port};
}
std::string Ip6AndPort::stringValue() const {
  return '[' + addr.stringValue() + "]:" + std::to_string(port);
}
std::optional<Ip6AndPort> Ip6AndPort::fromString(std::string_view text) {
  const auto port = takePort(text);
  if (!port || text.size() < 2 || text.front() != '[' || text.back() != ']') return std::nullopt;
  const auto addr = Ip6Addr::fromString(text.substr(1, text.size() - 2));
  if (!addr) return std::nullopt;
  return Ip6AndPort{*addr, *port};
}

}  // namespace platform
