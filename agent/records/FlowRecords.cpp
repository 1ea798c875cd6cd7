#include "agent/records/FlowRecords.h"

#include <algorithm>
#include <deque>

#include "platform/HwFlowTracking.h"

namespace agent {
namespace {
using ::Ipfix::IpfixConst;

// Names, numbers and lengths are those of IANA's registry (https://www.iana.org/assignments/ipfix).
// An interface's name is a text of any length there; here it has a fixed one, padded with zeros,
// since collectors that do not read options data rarely read fields of variable length either.
constexpr RecordField fieldTable[] = {
    {"octetDeltaCount", 1, 8, ipPackets, false},
    {"packetDeltaCount", 2, 8, allPackets, false},
    {"protocolIdentifier", 4, 1, ipPackets, true},
    {"ipClassOfService", 5, 1, ipPackets, true},
    {"tcpControlBits", 6, 2, ipPackets, false},
    {"tcpControlBits/1", 6, 1, ipPackets, false},
    {"sourceTransportPort", 7, 2, ipPackets, true},
    {"sourceIPv4Address", 8, 4, ipv4Packets, true},
    {"sourceIPv4PrefixLength", 9, 1, ipv4Packets, false},
    {"ingressInterface", 10, 4, allPackets, true},
    {"destinationTransportPort", 11, 2, ipPackets, true},
    {"destinationIPv4Address", 12, 4, ipv4Packets, true},
    {"destinationIPv4PrefixLength", 13, 1, ipv4Packets, false},
    {"egressInterface", 14, 4, allPackets, true},
    {"ipNextHopIPv4Address", 15, 4, ipv4Packets, false},
    {"minimumIpTotalLength", 25, 8, ipPackets, false},
    {"maximumIpTotalLength", 26, 8, ipPackets, false},
    {"sourceIPv6Address", 27, 16, ipv6Packets, true},
    {"destinationIPv6Address", 28, 16, ipv6Packets, true},
    {"sourceIPv6PrefixLength", 29, 1, ipv6Packets, false},
    {"destinationIPv6PrefixLength", 30, 1, ipv6Packets, false},
    {"flowLabelIPv6", 31, 4, ipv6Packets, true},
    {"icmpTypeCodeIPv4", 32, 2, ipv4Packets, true},
    {"samplingInterval", 34, 4, allPackets, false},
    {"minimumTTL", 52, 1, ipPackets, false},
    {"maximumTTL", 53, 1, ipPackets, false},
    {"sourceMacAddress", 56, 6, allPackets, true},
    {"vlanId", 58, 2, allPackets, true},
    {"flowDirection", 61, 1, allPackets, true},
    {"ipNextHopIPv6Address", 62, 16, ipv6Packets, false},
    {"mplsTopLabelStackSection", 70, 3, allPackets, true},
    {"destinationMacAddress", 80, 6, allPackets, true},
    {"interfaceName", 82, 32, allPackets, true},
    {"octetTotalCount", 85, 8, ipPackets, false},
    {"packetTotalCount", 86, 8, allPackets, false},
    {"flowEndReason", 136, 1, allPackets, false},
    {"icmpTypeCodeIPv6", 139, 2, ipv6Packets, true},
    {"flowStartSeconds", 150, 4, allPackets, false},
    {"flowEndSeconds", 151, 4, allPackets, false},
    {"flowStartMilliseconds", 152, 8, allPackets, false},
    {"flowEndMilliseconds", 153, 8, allPackets, false},
    {"flowStartMicroseconds", 154, 8, allPackets, false},
    {"flowEndMicroseconds", 155, 8, allPackets, false},
    {"flowStartNanoseconds", 156, 8, allPackets, false},
    {"flowEndNanoseconds", 157, 8, allPackets, false},
    {"ingressVRFID", 234, 4, allPackets, true},
    {"dot1qVlanId", 243, 2, allPackets, true},
    {"dot1qCustomerVlanId", 245, 2, allPackets, true},
    {"ethernetType", 256, 2, allPackets, true},
    {"layer2SegmentId", 351, 8, allPackets, true},
    {"layer2OctetDeltaCount", 352, 8, allPackets, false},
    {"layer2OctetTotalCount", 353, 8, allPackets, false},
};

// What a field says nothing without: itself or the other has to be a key.
struct Need {
  std::string_view field;
  std::string_view key;
};
constexpr Need needs[] = {
    {"sourceIPv4PrefixLength", "sourceIPv4Address"},
    {"destinationIPv4PrefixLength", "destinationIPv4Address"},
    {"sourceIPv6PrefixLength", "sourceIPv6Address"},
    {"destinationIPv6PrefixLength", "destinationIPv6Address"},
    {"interfaceName", "ingressInterface"},
};

// Collectors are told of keys by their bits of flowKeyIndicator; beyond these they are ambiguous.
constexpr size_t keyPlaces = 31;

using Names = std::vector<std::string>;
bool has(const Names& names, std::string_view name) {
  return std::find(names.begin(), names.end(), name) != names.end();
}
bool repeated(const Names& names, size_t at) {
  return std::find(names.begin(), names.begin() + static_cast<ptrdiff_t>(at), names[at]) !=
         names.begin() + static_cast<ptrdiff_t>(at);
}
Names operator+(Names a, const Names& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

std::map<std::string, RecordDefinition> makeBuiltIn() {
  const Names addresses = {"sourceIPv4Address", "destinationIPv4Address", "sourceIPv6Address",
                           "destinationIPv6Address"};
  const Names ports = {"sourceTransportPort", "destinationTransportPort", "protocolIdentifier"};
  const Names counts = {"octetDeltaCount", "packetDeltaCount", "flowStartMilliseconds",
                        "flowEndMilliseconds"};
  const Names keys =
      addresses + ports + Names{"ipClassOfService", "vlanId",          "ingressInterface",
                                "ingressVRFID",     "egressInterface", "flowDirection"};
  const Names standard = keys + counts + Names{"tcpControlBits", "flowEndReason", "flowLabelIPv6"};
  const Names interfaces = {"ingressInterface", "egressInterface", "flowDirection"};
  const Names macs = {"sourceMacAddress", "destinationMacAddress", "ethernetType", "dot1qVlanId",
                      "dot1qCustomerVlanId"};
  return {
      {"minimal", {addresses + ports + counts, addresses + ports}},
      {standardRecordName, {standard, keys}},
      {"layer2",
       {macs + interfaces + Names{"layer2OctetDeltaCount"} + counts + Names{"flowEndReason"},
        macs + interfaces}},
      {"full",
       {standard + macs +
            Names{"minimumTTL", "maximumTTL", "minimumIpTotalLength", "maximumIpTotalLength",
                  "icmpTypeCodeIPv4", "icmpTypeCodeIPv6", "mplsTopLabelStackSection"},
        keys + Names{"dot1qCustomerVlanId"}}},
  };
}

bool sameFields(const RecordLayout& a, const RecordLayout& b) {
  return std::equal(a.fields.begin(), a.fields.end(), b.fields.begin(), b.fields.end(),
                    [](const auto& x, const auto& y) { return x.field == y.field; });
}
}  // namespace

std::string_view toText(Direction d) {
  static constexpr std::string_view names[] = {"ingress", "egress", "both", "once"};
  return names[static_cast<size_t>(d)];
}

std::string_view toText(Egress e) { return e == Egress::none ? "none" : "route"; }
std::string_view toText(Tunnel t) { return t == Tunnel::inner ? "inner" : "outer"; }

namespace {
/// Elements whose value depends on the direction, so that they are no keys of two-way flows.
constexpr uint16_t ofOneDirection[] = {5,  10, 14, 31, 32, 56,
                                       61, 70, 80, 82, 139};  // classes, interfaces, labels, ...
/// Of each sum, and of class of service and flow label, RFC 5103 has a reverse element. Prefix
/// lengths, next hops, the sampling interval and the reason of the end occur once.
bool hasReverse(const RecordField& f) {
  const auto once = {9, 13, 15, 29, 30, 34, 62, 136};
  if (f.ofPacket) return f.element == 5 || f.element == 31;
  return std::find(once.begin(), once.end(), f.element) == once.end();
}
std::string reverseName(std::string_view name) {
  std::string reverse = "reverse" + std::string(name);
  reverse[7] = static_cast<char>(reverse[7] - 'a' + 'A');
  return reverse;
}
/// biflowDirection and the reverse elements.
const std::vector<RecordField>& biflowFields() {
  static const auto fields = [] {
    static std::deque<std::string> names;
    std::vector<RecordField> all = {{"biflowDirection", biflowDirection, 1, ipPackets, false}};
    for (const RecordField& f : fieldTable)
      if (hasReverse(f))
        all.push_back({names.emplace_back(reverseName(f.name)).c_str(),
                       static_cast<uint16_t>(IpfixConst::reverseElement(f.element).value()), f.len,
                       f.kinds, false});
    return all;
  }();
  return fields;
}
}  // namespace

std::span<const RecordField> recordFields() { return fieldTable; }
const RecordField* recordField(std::string_view name) {
  for (const auto& fields : {recordFields(), std::span<const RecordField>(biflowFields())}) {
    const auto it = std::find_if(fields.begin(), fields.end(),
                                 [&](const RecordField& f) { return f.name == name; });
    if (it != fields.end()) return &*it;
  }
  return nullptr;
}

void addReverseElements(Ipfix::ElementIdColl& registry) {
  for (const RecordField& f : biflowFields())
    if (f.reverse() && !registry.elementIdCollHas(f.element))
      registry.elementIdCollIs(Ipfix::ElementId(true, f.element, f.len, f.name));
}

const std::map<std::string, RecordDefinition>& builtInRecords() {
  static const auto records = makeBuiltIn();
  return records;
}

uint32_t RecordLayout::len() const {
  uint32_t len = 0;
  for (const Field& f : fields) len += f.field->len;
  return len;
}
uint32_t RecordLayout::templateLen() const {  // RFC 7011, 3.4.1
  uint32_t len = kinds == 0 ? 0 : 4;
  for (const Field& f : fields) len += f.field->reverse() ? 8 : 4;
  return len;
}

RecordLayouts recordLayouts(const RecordDefinition& definition) {
  PacketKinds wanted = allPackets;
  for (const std::string& key : definition.keys)
    if (const RecordField* f = recordField(key); f && !(f->kinds & otherFrames)) wanted = ipPackets;
  RecordLayouts layouts;
  for (size_t place = 0; place < packetKinds; ++place) {
    const auto kind = static_cast<PacketKinds>(1 << place);
    RecordLayout& own = layouts[place];
    if (!(wanted & kind)) continue;
    for (const std::string& name : definition.fields)
      if (const RecordField* f = recordField(name); f && f->kinds & kind)
        own.fields.push_back({f, has(definition.keys, name)});
    RecordLayout* const like =
        std::find_if(layouts.begin(), &own, [&](const auto& l) { return sameFields(l, own); });
    like->kinds |= own.fields.empty() ? PacketKinds{0} : kind;
    if (like != &own) own.fields.clear();
  }
  return layouts;
}

uint32_t messageLenFor(const RecordLayouts& layouts) {
  uint32_t longest = 0;
  uint32_t templates = 0;
  for (const RecordLayout& l : layouts) {
    longest = std::max(longest, l.len());
    templates += l.templateLen();
  }
  return IpfixConst::messageHeaderLen() + IpfixConst::setHeaderLen() + std::max(longest, templates);
}

std::string fieldProblem(const RecordDefinition& definition, size_t at) {
  const std::string& name = definition.fields[at];
  if (repeated(definition.fields, at)) return "a record has each field once";
  if (has(definition.keys, name)) {
    const auto layouts = recordLayouts(definition);
    for (const RecordLayout& l : layouts)
      for (size_t i = keyPlaces; i < l.fields.size(); ++i)
        if (l.fields[i].field->name == name)
          return "keys are among the first " + std::to_string(keyPlaces) + " fields of a record";
  }
  for (const Need& need : needs)
    if (need.field == name && !has(definition.keys, name) && !has(definition.keys, need.key))
      return "it needs " + std::string(need.key) + " among the keys";
  return {};
}

RecordDefinition biflowRecord(RecordDefinition definition) {
  const auto oneWay = [](const std::string& name) {
    const auto& all = ofOneDirection;
    const RecordField* const f = recordField(name);
    return f && std::find(std::begin(all), std::end(all), f->element) != std::end(all);
  };
  std::erase_if(definition.keys, oneWay);
  const Names fields = definition.fields;
  definition.fields.emplace_back("biflowDirection");
  for (const std::string& name : fields)
    if (const RecordField* f = recordField(name); f && hasReverse(*f))
      definition.fields.push_back(reverseName(name));
  definition.biflow = true;
  return definition;
}

std::string biflowProblem(const RecordDefinition& definition) {
  for (const char* wanted :
       {"sourceIPv4Address", "destinationIPv4Address", "sourceIPv6Address",
        "destinationIPv6Address", "sourceTransportPort", "destinationTransportPort"})
    if (!has(definition.keys, wanted))
      return "has no " + std::string(wanted) +
             " among its keys: both directions are found by both addresses, of IPv4 and IPv6, and "
             "both ports";
  if (definition.prefix4 < 32 || definition.prefix6 < 128)
    return "has prefixes for addresses: both directions are found by whole addresses";
  return {};
}

std::string egressProblem(const RecordDefinition& definition, Egress egress) {
  const auto& fields = definition.fields;
  const auto hop = std::find_if(fields.begin(), fields.end(), [](const std::string& name) {
    return name == "ipNextHopIPv4Address" || name == "ipNextHopIPv6Address";
  });
  if (egress == Egress::none)
    return hop == fields.end() ? std::string() : "has " + *hop + ", which only \"route\" can tell";
  for (const char* wanted : {"ingressInterface", "sourceIPv4Address", "destinationIPv4Address",
                             "sourceIPv6Address", "destinationIPv6Address"})
    if (!has(fields, wanted))
      return "has no " + std::string(wanted) + ", and routes are looked up by it";
  if (definition.prefix4 < 32 || definition.prefix6 < 128)
    return "has prefixes for addresses, and routes are looked up by whole ones";
  if (hop == fields.end() && !has(fields, "egressInterface"))
    return "has neither egressInterface nor the address of a next hop";
  return {};
}

std::string keyProblem(const RecordDefinition& definition, size_t at) {
  const std::string& name = definition.keys[at];
  if (repeated(definition.keys, at)) return "a record has each key once";
  if (!has(definition.fields, name)) return "each key is one of the record's fields";
  if (const RecordField* f = recordField(name); f && !f->ofPacket)
    return "flows cannot be told apart by it: no single packet has it";
  return {};
}

}  // namespace agent
