#include "agent/flow/FlowFilter.h"

#include <arpa/inet.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <sstream>

#include "agent/host/Printable.h"

namespace agent::flow {
namespace {
constexpr size_t termsMax = 16;
struct Protocol {
  std::string_view name;
  uint8_t number;  // IANA's protocol numbers
};
constexpr Protocol protocols[] = {{"icmp", 1}, {"igmp", 2}, {"tcp", 6},     {"udp", 17},
                                  {"gre", 47}, {"esp", 50}, {"icmpv6", 58}, {"sctp", 132}};

[[noreturn]] void refuse(const std::string& what) {
  throw FlowLookError(
      "filter: " + what +
      ": a filter is terms joined by 'and', each of them host ADDRESS[/LENGTH], port 0 to 65535, "
      "protocol 0 to 255 or one of " +
      joined(protocols, &Protocol::name) + ", interface NAME, vrf NAME");
}
/// The decimal number that the text is; nothing where it is none, or greater than `most`.
std::optional<uint64_t> numberIn(std::string_view text, uint64_t most) {
  uint64_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size() || value > most) return std::nullopt;
  return value;
}
bool samePrefix(const char* a, const char* b, uint64_t bits) {
  if (std::memcmp(a, b, bits / 8) != 0) return false;
  return bits % 8 == 0 || ((a[bits / 8] ^ b[bits / 8]) & 0xff << (8 - bits % 8) & 0xff) == 0;
}
}  // namespace

FlowFilter::Term FlowFilter::term(const std::string& kind, const std::string& value,
                                  const IndexOf& indexOf) {
  const auto number = [&](uint64_t most) {
    const auto n = numberIn(value, most);
    if (!n) refuse(kind + ' ' + inQuotes(value) + " is not allowed");
    return *n;
  };
  Term t{};
  if (kind == "host") {
    const size_t slash = value.find('/');
    const std::string address = value.substr(0, slash);
    t.kind = Term::host;
    if (inet_pton(AF_INET, address.c_str(), t.address.data()) == 1) t.addressLen = 4;
    if (inet_pton(AF_INET6, address.c_str(), t.address.data()) == 1) t.addressLen = 16;
    const auto bits = slash == std::string::npos
                          ? 8 * t.addressLen
                          : numberIn(value.substr(slash + 1), 8 * t.addressLen);
    if (t.addressLen == 0 || !bits) refuse("host " + inQuotes(value) + " is not allowed");
    t.number = *bits;
  } else if (kind == "port") {
    t.kind = Term::port;
    t.number = number(65535);
  } else if (kind == "protocol") {
    const auto* const named = std::find_if(std::begin(protocols), std::end(protocols),
                                           [&](const Protocol& p) { return p.name == value; });
    t.kind = Term::protocol;
    t.number = named != std::end(protocols) ? named->number : number(255);
  } else if (kind == "interface") {
    t.kind = Term::interface;
    const auto index = indexOf(value);
    if (!index)
      throw FlowLookError("filter: there is no interface " + inQuotes(value) +
                              "; 'tarnflow show tables interfaces' lists them",
                          "notFound");
    t.number = *index;
  } else if (kind == "vrf") {
    t.kind = Term::vrf;
    t.name = value;
  } else {
    refuse(inQuotes(kind) + " is not allowed");
  }
  return t;
}

FlowFilter::FlowFilter(std::string_view text, const IndexOf& indexOf) {
  std::istringstream words{std::string(text)};
  std::string kind, value, joint;
  while (words >> kind) {
    if (!(words >> value)) refuse(inQuotes(kind) + " has no value");
    terms_.push_back(term(kind, value, indexOf));
    if (terms_.size() > termsMax) refuse("it has more than " + std::to_string(termsMax) + " terms");
    if (!(words >> joint)) return;
    if (joint != "and") refuse(inQuotes(joint) + " is where 'and' belongs");
  }
  if (!terms_.empty()) refuse("nothing follows the last 'and'");
}

std::string FlowFilter::missing(const std::vector<RecordView>& layouts) const {
  const auto none = [&](auto has) { return std::none_of(layouts.begin(), layouts.end(), has); };
  for (const Term& t : terms_) {
    if (t.kind == Term::host && none([](const auto& v) { return v.source || v.destination; }))
      return "addresses";
    if (t.kind == Term::port &&
        none([](const auto& v) { return v.sourcePort || v.destinationPort; }))
      return "ports";
    if (t.kind == Term::protocol && none([](const auto& v) { return bool(v.protocol); }))
      return "protocol";
    if (t.kind == Term::interface && none([](const auto& v) { return v.ingress || v.egress; }))
      return "interfaces";
  }
  return {};
}

std::string FlowFilter::vrfNotIn(const std::set<std::string>& among) const {
  for (const Term& t : terms_)
    if (t.kind == Term::vrf && !among.contains(t.name)) return t.name;
  return {};
}

bool FlowFilter::matches(const Term& t, const RecordView& view, const char* record) {
  const auto is = [&](RecordView::Place place) {
    return place && RecordView::number(record, place) == t.number;
  };
  const auto in = [&](RecordView::Place place) {
    return place.len == t.addressLen && samePrefix(record + place.at, t.address.data(), t.number);
  };
  switch (t.kind) {
    case Term::host:
      return in(view.source) || in(view.destination);
    case Term::port:
      return (is(view.sourcePort) || is(view.destinationPort)) && view.hasPorts(record);
    case Term::protocol:
      return is(view.protocol);
    case Term::interface:
      return is(view.ingress) || is(view.egress);
    case Term::vrf:
      break;
  }
  return true;
}

bool FlowFilter::matches(const RecordView& view, const char* record, const std::string& vrf) const {
  return std::all_of(terms_.begin(), terms_.end(), [&](const Term& t) {
    return t.kind == Term::vrf ? t.name == vrf : matches(t, view, record);
  });
}

}  // namespace agent::flow
