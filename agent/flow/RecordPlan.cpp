#include "agent/flow/RecordPlan.h"

#include <algorithm>
#include <cstddef>
#include <initializer_list>
#include <span>
#include <string_view>
#include <utility>

namespace agent::flow {
namespace {
// Element numbers of IANA's IPFIX registry, of fields that are no octets of a packet.
enum Element : uint16_t {
  octetDeltaCount = 1,
  packetDeltaCount = 2,
  tcpControlBits = 6,
  sourceIPv4Address = 8,
  sourceIPv4PrefixLength = 9,
  ingressInterface = 10,
  destinationIPv4Address = 12,
  destinationIPv4PrefixLength = 13,
  egressInterface = 14,
  ipNextHopIPv4Address = 15,
  minimumIpTotalLength = 25,
  maximumIpTotalLength = 26,
  sourceIPv6Address = 27,
  destinationIPv6Address = 28,
  sourceIPv6PrefixLength = 29,
  destinationIPv6PrefixLength = 30,
  samplingInterval = 34,
  minimumTTL = 52,
  maximumTTL = 53,
  flowDirection = 61,
  ipNextHopIPv6Address = 62,
  mplsTopLabelStackSection = 70,
  interfaceName = 82,
  octetTotalCount = 85,
  packetTotalCount = 86,
  flowEndReason = 136,
  flowStartSeconds = 150,
  flowEndSeconds = 151,
  flowStartMilliseconds = 152,
  flowEndMilliseconds = 153,
  flowStartMicroseconds = 154,
  flowEndMicroseconds = 155,
  flowStartNanoseconds = 156,
  flowEndNanoseconds = 157,
  ingressVRFID = 234,
  layer2SegmentId = 351,
  layer2OctetDeltaCount = 352,
  layer2OctetTotalCount = 353
};

/// Where a field's value lies in PacketFacts.
struct Place {
  uint16_t element;
  uint16_t at;
  uint8_t len;
  bool swapped;  // a number in this machine's order
};
using At = PacketFacts::At;
constexpr Place places[] = {
    {4, At::protocol, 1, false},
    {5, At::tos, 1, false},
    {7, At::srcPort, 2, true},
    {sourceIPv4Address, At::source, 4, false},
    {ingressInterface, At::ingress, 4, true},
    {11, At::dstPort, 2, true},
    {destinationIPv4Address, At::destination4, 4, false},
    {egressInterface, At::egress, 4, true},
    {sourceIPv6Address, At::source, 16, false},
    {destinationIPv6Address, At::destination6, 16, false},
    {31, At::flowLabel, 4, true},
    {32, At::icmp, 2, true},
    {56, At::srcMac, 6, false},
    {58, At::vlanId, 2, true},
    {flowDirection, At::direction, 1, false},
    {mplsTopLabelStackSection, At::mpls, 3, false},
    {80, At::dstMac, 6, false},
    {interfaceName, At::observed, 4, true},
    {139, At::icmp, 2, true},
    {243, At::vlanId, 2, true},
    {245, At::customerVlan, 2, true},
    {256, At::etherType, 2, false},
    {layer2SegmentId, At::segment, 8, true},
};
// And of what is computed, where it lies in the entry.
constexpr Place sums[] = {
    {octetDeltaCount, offsetof(PlannedEntry, octets), 8, true},
    {packetDeltaCount, offsetof(PlannedEntry, packets), 8, true},
    {maximumTTL, offsetof(PlannedEntry, mostTtl), 1, false},
};
/// Null: it is not in there.
const Place* placeOf(std::span<const Place> all, uint16_t element) {
  const auto it =
      std::find_if(all.begin(), all.end(), [&](const Place& p) { return p.element == element; });
  return it == all.end() ? nullptr : &*it;
}

/// The bits that count of the octet at `i` of an address; of other fields all.
uint8_t octetMask(uint16_t element, size_t i, uint32_t prefix4, uint32_t prefix6) {
  uint32_t bits = 128;
  if (element == sourceIPv4Address || element == destinationIPv4Address) bits = prefix4;
  if (element == sourceIPv6Address || element == destinationIPv6Address) bits = prefix6;
  if (bits >= 8 * (i + 1)) return 0xff;
  return bits <= 8 * i ? uint8_t{0} : static_cast<uint8_t>(0xff00 >> (bits - 8 * i));
}

/// Whether the key has whole addresses, the direction and both interfaces. Then the interface that
/// the packet was counted at says as much as both of them, in less room.
bool derivable(const RecordLayout& layout, uint32_t prefix4, uint32_t prefix6) {
  const auto key = [&](uint16_t element) {
    return std::any_of(layout.fields.begin(), layout.fields.end(),
                       [&](const auto& f) { return f.key && f.field->element == element; });
  };
  return key(ingressInterface) && key(egressInterface) && key(flowDirection) &&
         ((key(sourceIPv4Address) && key(destinationIPv4Address) && prefix4 == 32) ||
          (key(sourceIPv6Address) && key(destinationIPv6Address) && prefix6 == 128));
}
/// The interface that both are derived from, with the direction in the octet before it.
constexpr Place derived = {0, At::observed, 4, true};
static_assert(At::observed == At::direction + 1);
const Place* placeIn(uint16_t element, bool derivesInterfaces) {
  const bool interface = element == ingressInterface || element == egressInterface;
  return interface && derivesInterfaces ? &derived : placeOf(places, element);
}

bool isTotal(uint16_t element) {
  return element == octetTotalCount || element == packetTotalCount ||
         element == layer2OctetTotalCount;
}

constexpr uint16_t numberBits = 0x7fff;  // of a RecordField's element

/// For an element of the source that of the destination, and the reverse; others are unchanged.
uint16_t otherEnd(uint16_t element) {
  constexpr uint16_t ends[][2] = {{7, 11},
                                  {sourceIPv4Address, destinationIPv4Address},
                                  {sourceIPv6Address, destinationIPv6Address}};
  for (const auto& [source, destination] : ends)
    if (element == source || element == destination)
      return element == source ? destination : source;
  return element;
}

/// The NTP format of RFC 7011, 6.1.9 and 6.1.10: seconds since 1900, and their fraction, rounded
/// up, or who reads it would find a nanosecond less.
uint64_t ntpTime(int64_t ms, uint32_t ns) {
  constexpr uint64_t from1900To1970 = 2208988800;
  const auto now = static_cast<uint64_t>(std::max<int64_t>(ms, 0));
  const uint64_t fraction = (((now % 1000 * 1000000 + ns) << 32) + 999999999) / 1000000000;
  return (now / 1000 + from1900To1970) << 32 | fraction;
}
/// Of whole microseconds the last 11 bits of the fraction are 0 (RFC 7011, 6.1.9).
uint64_t ntpMicroseconds(int64_t ms, uint32_t ns) {
  return (ntpTime(ms, ns / 1000 * 1000) + 0x7ff) & ~uint64_t{0x7ff};
}

/// Of the interface whose index lies there; empty: it was never told.
std::string_view nameOf(const RecordContext& context, const char* observed) {
  uint32_t index = 0;
  std::memcpy(&index, observed, sizeof index);
  const auto name = context.interfaceNames.find(index);
  return name == context.interfaceNames.end() ? std::string_view() : name->second;
}
}  // namespace

PlannedFormat::PlannedFormat(const RecordLayout& layout, uint32_t prefix4, uint32_t prefix6,
                             uint8_t place)
    : recordLen_(static_cast<uint16_t>(layout.len())),
      place_(place),
      derivesInterfaces_(derivable(layout, prefix4, prefix6)),
      ipv6_(layout.kinds == ipv6Packets) {
  struct Chosen {
    std::array<uint8_t, PacketFacts::end> mask{};
    std::array<bool, PacketFacts::words> any{};
  };
  Chosen chosen[3];  // of the first packet, of the reverse direction's, of the key
  for (const auto& [field, key] : layout.fields) {
    const Place* const in = placeIn(field->element & numberBits, derivesInterfaces_);
    Chosen& own = chosen[key ? 2 : field->reverse()];
    for (size_t i = 0; in && i < in->len; ++i) {
      own.mask[in->at + i] |= octetMask(field->element, i, prefix4, prefix6);
      own.any[(in->at + i) / 8] = true;
    }
  }
  for (size_t which = 0; which < 3; ++which) {
    for (size_t i = 0; i < PacketFacts::words; ++i) {
      if (!chosen[which].any[i]) continue;
      Word word{i, 0};
      std::memcpy(&word.mask, &chosen[which].mask[8 * i], 8);
      if (which == 2) {
        key_[keyWords_++] = word;
      } else {
        first_[which].push_back(word);
      }
    }
  }
  const auto has = [&](std::initializer_list<uint16_t> elements) {
    return std::any_of(layout.fields.begin(), layout.fields.end(), [&](const auto& f) {
      return std::find(elements.begin(), elements.end(), f.field->element) != elements.end();
    });
  };
  size_t words = keyWords_;
  const auto reserve = [&](size_t n) { return std::exchange(words, words + n); };
  words += words == 0;  // place 0 says that there is none
  const bool both = has({biflowDirection});
  if (has({layer2OctetDeltaCount, layer2OctetTotalCount})) layer2_ = reserve(1 + both);
  if (has({flowStartMicroseconds, flowEndMicroseconds, flowStartNanoseconds, flowEndNanoseconds}))
    nanoseconds_ = reserve(1 + both);
  if (both) biflow_ = reserve(sizeof(Biflow) / 8);
  // A cache line, or few entries that begin in one and end in the next.
  const auto rounded = [](size_t n, size_t to) { return (n + to - 1) / to * to; };
  entryLen_ = std::max(rounded(sizeof(Entry) + 8 * words, 32), size_t{64});
  totals_ = 8 * (first_[0].size() + first_[1].size());
  hasTotals_ = has({octetTotalCount, packetTotalCount, layer2OctetTotalCount});
  links_ = totals_ + (hasTotals_ ? 24 * (1 + both) : 0);
  coldLen_ = rounded(links_ + sizeof(Links), 8);
  for (const bool turned : {false, true})
    for (const auto& field : layout.fields) addStep(field, prefix4, prefix6, turned);
}

void PlannedFormat::addStep(const RecordLayout::Field& field, uint32_t prefix4, uint32_t prefix6,
                            bool turned) {
  const bool reverse = field.field->reverse();
  uint16_t element = field.field->element & numberBits;
  if (turned && field.key) element = otherEnd(element);
  Step step{Step::computed, false, reverse, element, 0, field.field->len};
  const auto kindOf = [](const Place& p) {
    if (!p.swapped) return Step::octets;
    return p.len == 2 ? Step::swapped2 : p.len == 4 ? Step::swapped4 : Step::swapped8;
  };
  if (const Place* const in = placeIn(element, derivesInterfaces_)) {
    const auto at = [&](const Word* words, size_t n) {
      return static_cast<size_t>(
          std::find_if(words, words + n, [&](const Word& w) { return w.index == in->at / 8u; }) -
          words);
    };
    step.cold = !field.key;
    const auto& first = first_[reverse];
    const size_t word = !step.cold ? sizeof(Entry) + 8 * at(key_.data(), keyWords_)
                        : reverse  ? 8 * (first_[0].size() + at(first.data(), first.size()))
                                   : 8 * at(first.data(), first.size());
    step.from = static_cast<uint16_t>(word + in->at % 8u);
    if (element != interfaceName && in != &derived) step.kind = kindOf(*in);
  } else if (const Place* const sum = placeOf(sums, element)) {
    step.kind = kindOf(*sum);
    step.from = sum->at;
    if (reverse) step.from = static_cast<uint16_t>(step.from + sizeof(Entry) + 8 * biflow_);
  } else if (element == sourceIPv4PrefixLength || element == destinationIPv4PrefixLength) {
    step.from = static_cast<uint16_t>(prefix4);
  } else if (element == sourceIPv6PrefixLength || element == destinationIPv6PrefixLength) {
    step.from = static_cast<uint16_t>(prefix6);
  }
  std::vector<Step>& steps = steps_[turned];
  Step* const last = steps.empty() ? nullptr : &steps.back();
  if (step.kind == Step::octets && last && last->kind == Step::octets && last->cold == step.cold &&
      last->from + last->len == step.from) {
    last->len = static_cast<uint16_t>(last->len + step.len);
  } else {
    steps.push_back(step);
  }
}

void PlannedFormat::put(FieldWriter& w, const Step& step, const Entry& e, const char* cold,
                        EndReason reason, const RecordContext& context) const {
  const auto ms = [](int64_t t) { return static_cast<uint64_t>(std::max<int64_t>(t, 0)); };
  const auto [own, first, last, ns] = sideOf(e, step.reverse);
  if (step.reverse && own.packets == 0 && !isTotal(step.element)) return w.text({}, step.len);
  const size_t which = step.reverse;
  const auto* const total = reinterpret_cast<const uint64_t*>(cold + totals_) + 3 * which;
  const uint64_t layer2 = e.words()[layer2_ + which];
  switch (step.element) {
    case layer2OctetDeltaCount:
      return w.put(layer2);
    case octetTotalCount:
      return w.put(own.octets + total[0]);
    case layer2OctetTotalCount:
      return w.put(layer2 + total[1]);
    case packetTotalCount:
      return w.put(own.packets + total[2]);
    case tcpControlBits:
      return step.len == 1 ? w.put(uint8_t{own.tcpFlags}) : w.put(uint16_t{own.tcpFlags});
    case minimumIpTotalLength:
      return w.put(own.packets > 0 ? uint64_t{own.leastOctets} : 0);
    case maximumIpTotalLength:
      return w.put(uint64_t{own.mostOctets});
    case minimumTTL:
      return w.put(own.packets > 0 ? own.leastTtl : uint8_t{0});
    case biflowDirection:  // 1: who began it is known to be the source
      return w.put(static_cast<uint8_t>(e.sure));
    case flowEndReason:
      return w.put(static_cast<uint8_t>(reason));
    case ingressVRFID:
      return w.put(context.vrfId);
    case ingressInterface:
      return w.put(interfacesOf(e, step, context.host).ingress);
    case egressInterface:
      return w.put(interfacesOf(e, step, context.host).egress);
    case samplingInterval:
      return w.put(context.sampleRate);
    case ipNextHopIPv4Address:
    case ipNextHopIPv6Address:  // zeros, until EgressRoutes knows better
      return w.text({}, step.len);
    case interfaceName:
      return w.text(
          nameOf(context, (step.cold ? cold : reinterpret_cast<const char*>(&e)) + step.from),
          step.len);
    case flowStartSeconds:
      return w.put(static_cast<uint32_t>(ms(first) / 1000));
    case flowEndSeconds:
      return w.put(static_cast<uint32_t>(ms(last) / 1000));
    case flowStartMilliseconds:
      return w.put(ms(first));
    case flowEndMilliseconds:
      return w.put(ms(last));
    case flowStartMicroseconds:
      return w.put(ntpMicroseconds(first, ns.first));
    case flowEndMicroseconds:
      return w.put(ntpMicroseconds(last, ns.last));
    case flowStartNanoseconds:
      return w.put(ntpTime(first, ns.first));
    case flowEndNanoseconds:
      return w.put(ntpTime(last, ns.last));
    default:  // a prefix length
      return w.put(static_cast<uint8_t>(step.from));
  }
}

FlowInterfaces PlannedFormat::interfacesOf(const Entry& e, const Step& step,
                                           const HostAddresses& host) const {
  const char* const observed = reinterpret_cast<const char*>(&e) + step.from;
  uint32_t interface = 0;
  std::memcpy(&interface, observed, sizeof interface);
  const auto of = [&](auto src, auto dst) {
    std::memcpy(src.data(), e.words(), src.size());
    std::memcpy(dst.data(), reinterpret_cast<const char*>(e.words()) + src.size(), dst.size());
    return flowInterfaces(interface, observed[-1] != 0, src, dst, host);
  };
  using Address4 = std::array<uint8_t, 4>;
  using Address6 = std::array<uint8_t, 16>;
  return ipv6_ ? of(Address6{}, Address6{}) : of(Address4{}, Address4{});
}

size_t PlannedFormat::encode(const Entry& e, const char* cold, EndReason reason,
                             const RecordContext& context, char* to) const {
  FieldWriter w(to);
  for (const Step& step : steps_[e.turned]) {
    const char* const from = (step.cold ? cold : reinterpret_cast<const char*>(&e)) + step.from;
    switch (step.kind) {
      case Step::octets:
        w.octets(from, step.len);
        break;
      case Step::swapped2:
        w.swapped<uint16_t>(from);
        break;
      case Step::swapped4:
        w.swapped<uint32_t>(from);
        break;
      case Step::swapped8:
        w.swapped<uint64_t>(from);
        break;
      case Step::computed:
        put(w, step, e, cold, reason, context);
        break;
    }
  }
  return static_cast<size_t>(w.at() - to);
}

// --- RecordPlan ---

RecordPlan::RecordPlan(const RecordDefinition& definition, FlowTracking::TemplateId firstTemplate,
                       Tunnel tunnel)
    : layouts_(recordLayouts(definition)),
      firstTemplate_(firstTemplate),
      tunnel_(tunnel),
      standard_(tunnel == Tunnel::outer && definition == builtInRecords().at(standardRecordName)),
      biflow_(definition.biflow) {
  for (size_t place = 0; place < layouts_.size(); ++place) {
    const RecordLayout& layout = layouts_[place];
    if (layout.kinds == 0) continue;
    for (size_t kind = 0; kind < packetKinds; ++kind)
      if (layout.kinds >> kind & 1) formatOf_[kind] = static_cast<uint8_t>(formats_.size());
    formats_.emplace_back(layout, definition.prefix4, definition.prefix6,
                          static_cast<uint8_t>(place));
    for (const auto& [field, key] : layout.fields) {
      namesInterfaces_ = namesInterfaces_ || field->element == interfaceName;
      segments_ = segments_ || field->element == layer2SegmentId;
      mpls_ = mpls_ || field->element == mplsTopLabelStackSection;
      const bool interface =
          field->element == ingressInterface || field->element == egressInterface;
      tellsInterfaces_ = tellsInterfaces_ || (interface && !formats_.back().derivesInterfaces());
    }
  }
}

std::array<uint16_t, packetKinds> RecordPlan::recordLens() const {
  std::array<uint16_t, packetKinds> lens{};
  for (const PlannedFormat& format : formats_) lens[format.place()] = format.recordLen();
  return lens;
}

}  // namespace agent::flow
