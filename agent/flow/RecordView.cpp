#include "agent/flow/RecordView.h"

#include <algorithm>
#include <cstring>
#include <string_view>

#include "platform/Ip.h"

namespace agent::flow {
namespace {
constexpr uint16_t flowEndReason = 136;
/// A member of RecordView, and IANA's elements that can give it, the preferred one first.
struct Wanted {
  RecordView::Place RecordView::*place;
  std::array<uint16_t, 4> elements;
  RecordView::Place RecordView::*reverse = nullptr;  // of the reverse element
};
constexpr Wanted wanted[] = {
    {&RecordView::octets, {1, 85, 352, 353}, &RecordView::reverseOctets},
    {&RecordView::packets, {2, 86}, &RecordView::reversePackets},
    {&RecordView::start, {156, 154, 152, 150}, &RecordView::reverseStart},
    {&RecordView::last, {157, 155, 153, 151}, &RecordView::reverseLast},
    {&RecordView::protocol, {4}},
    {&RecordView::source, {8, 27}},
    {&RecordView::destination, {12, 28}},
    {&RecordView::sourcePort, {7}},
    {&RecordView::destinationPort, {11}},
    {&RecordView::ingress, {10}},
    {&RecordView::egress, {14}},
};
uint16_t numberOf(uint16_t element) { return element & 0x7fff; }  // that of a reverse element
bool isTime(uint16_t element) { return numberOf(element) >= 150 && numberOf(element) <= 157; }
bool isMac(uint16_t element) { return element == 56 || element == 80; }
bool isAddress(uint16_t element) {
  constexpr uint16_t addresses[] = {8, 12, 15, 27, 28, 62};
  return std::find(std::begin(addresses), std::end(addresses), element) != std::end(addresses);
}
constexpr uint16_t interfaceName = 82;

std::string macText(const char* octets) {
  static constexpr char digits[] = "0123456789abcdef";
  std::string text;
  for (size_t i = 0; i < 6; ++i) {
    if (i > 0) text += ':';
    text += digits[static_cast<uint8_t>(octets[i]) >> 4];
    text += digits[octets[i] & 15];
  }
  return text;
}
}  // namespace

RecordView::RecordView(const RecordLayout& layout) : layout_(layout) {
  for (const Wanted& w : wanted) {
    for (const uint16_t element : w.elements) {
      uint16_t at = 0;
      for (const auto& [field, key] : layout.fields) {
        const auto place = field->reverse() ? w.reverse : w.place;
        if (numberOf(field->element) == element && element != 0 && place && !(this->*place))
          this->*place = {at, field->len, field->element};
        at = static_cast<uint16_t>(at + field->len);
      }
    }
  }
}

uint64_t RecordView::number(const char* record, Place place) {
  uint64_t value = 0;
  for (size_t i = 0; i < place.len; ++i)
    value = value << 8 | static_cast<uint8_t>(record[place.at + i]);
  return value;
}

int64_t RecordView::timeMs(const char* record, Place place) {
  constexpr uint64_t from1900To1970 = 2208988800;
  const uint64_t value = number(record, place);
  if (numberOf(place.element) <= 151) return static_cast<int64_t>(value * 1000);
  if (numberOf(place.element) <= 153) return static_cast<int64_t>(value);
  // Microseconds and nanoseconds have the NTP format (RFC 7011, 6.1.9).
  const uint64_t fraction = (value & 0xffffffff) * 1000 >> 32;
  return static_cast<int64_t>(((value >> 32) - from1900To1970) * 1000 + fraction);
}

int64_t RecordView::startMs(const char* record) const {
  if (!start) return INT64_MAX;
  const int64_t ms = timeMs(record, start);
  const bool both = reverseStart && number(record, reverseStart) != 0;
  return both ? std::min(ms, timeMs(record, reverseStart)) : ms;
}

int64_t RecordView::lastMs(const char* record) const {
  const int64_t ms = timeMs(record, last);
  const bool both = reverseLast && number(record, reverseLast) != 0;
  return both ? std::max(ms, timeMs(record, reverseLast)) : ms;
}

bool RecordView::hasPorts(const char* record) const {
  static constexpr uint8_t with[] = {6, 17, 33, 132, 136};  // TCP, UDP, DCCP, SCTP, UDP-Lite
  return !protocol ||
         std::find(std::begin(with), std::end(with), number(record, protocol)) != std::end(with);
}

std::string addressText(const char* octets, size_t len) {
  if (len == 4)
    return platform::IpAddr(
               static_cast<uint32_t>(RecordView::number(octets, {.at = 0, .len = 4, .element = 8})))
        .stringValue();
  platform::Ip6Addr::Octets v6;
  std::copy_n(octets, v6.size(), reinterpret_cast<char*>(v6.data()));
  return platform::Ip6Addr(v6).stringValue();
}

void RecordView::addFields(const char* record, FlowRow& to) const {
  uint16_t at = 0;
  for (const auto& [field, key] : layout_.fields) {
    const Place place{at, field->len, field->element};
    at = static_cast<uint16_t>(at + field->len);
    const char* const from = record + place.at;
    const std::string name(field->name, std::strcspn(field->name, "/"));  // without its length
    const auto shown = {octets, packets, reverseOctets, reversePackets};
    if (place.element == flowEndReason || isTime(place.element) ||
        std::any_of(shown.begin(), shown.end(),
                    [&](const Place& p) { return p && p.element == place.element; }))
      continue;
    if (isAddress(place.element)) {
      to.emplace_back(name, addressText(from, place.len));
    } else if (isMac(place.element)) {
      to.emplace_back(name, macText(from));
    } else if (place.element == interfaceName) {
      const std::string_view text(from, place.len);
      to.emplace_back(name, std::string(text.substr(0, text.find('\0'))));
    } else {
      to.emplace_back(name, number(record, place));
    }
  }
}

}  // namespace agent::flow
