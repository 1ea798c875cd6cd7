#include "agent/host/Names.h"

#include <algorithm>
#include <array>

#include "platform/Values.h"

namespace agent {

bool hasControl(std::string_view text) {
  return std::any_of(text.begin(), text.end(),
                     [](unsigned char c) { return c < 0x20 || c == 0x7f; });
}
bool hasControlOrBlank(std::string_view text) {
  return hasControl(text) || text.find(' ') != text.npos;
}
std::string collectorAddressProblem(const IpGenAddr& address) {
  if (address.isIpv4()) {
    const uint32_t a = address.ipAddr().value();
    if (a == 0) return "the unspecified address";
    if (a == 0xffffffff) return "the broadcast address";
    if (a >> 28 == 0xe) return "a multicast address";
    return {};
  }
  const auto& a = address.ip6Addr().octets();
  static constexpr std::array<uint8_t, 12> mapped = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};
  if (address.ip6Addr().isZero()) return "the unspecified address";
  if (a[0] == 0xff) return "a multicast address";
  if (std::equal(mapped.begin(), mapped.end(), a.begin()))
    return "an IPv4 address inside IPv6: write it as IPv4";
  if (address.ip6Addr().isLinkLocal())
    return "a link-local address, which is good on one link only";
  return {};
}

bool isBareKey(std::string_view key) {
  return !key.empty() && std::all_of(key.begin(), key.end(), [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
           c == '_';
  });
}

bool isHostName(std::string_view text) {
  if (text.ends_with('.')) text.remove_suffix(1);
  if (text.empty() || text.size() > 253) return false;
  std::string_view label;
  for (size_t at = 0; at <= text.size();) {
    const size_t end = std::min(text.find('.', at), text.size());
    label = text.substr(at, end - at);
    if (!isBareKey(label) || label.size() > 63 || label.front() == '-' || label.back() == '-')
      return false;
    at = end + 1;
  }
  return !std::all_of(label.begin(), label.end(), [](char c) { return c >= '0' && c <= '9'; });
}

std::string vrfNameProblem(std::string_view name) {
  if (!name.empty() && name.size() <= VrfName::maxLength && name.find('/') == name.npos &&
      !hasControlOrBlank(name))
    return {};
  return "a VRF's name has 1 to " + std::to_string(VrfName::maxLength) +
         " octets, without blank, '/' and control characters: its namespace is ns-NAME";
}

}  // namespace agent
