#pragma once
#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <type_traits>
#include <vector>

#include "agent/flow/Conversation.h"
#include "agent/flow/FlowRecord.h"
#include "agent/flow/PacketParser.h"
#include "agent/records/FlowRecords.h"
#include "platform/FlowTracking.h"

namespace agent::flow {

/// What records may tell of one packet: fields in whole words, so that one word is written and read
/// at a time. Addresses, MAC addresses, the Ethernet type and the MPLS label are as on the wire,
/// other numbers in this machine's order. Of another kind of packet than a field is for, the
/// field's octets mean nothing.
struct PacketFacts {
  enum At : size_t {  // octets from the beginning
    source = 0,
    destination4 = 4,
    destination6 = 16,
    srcPort = 32,
    dstPort = 34,
    protocol = 36,
    tos = 37,
    vlanId = 38,
    ingress = 40,
    mpls = 44,
    dstMac = 48,
    etherType = 54,
    srcMac = 56,
    icmp = 62,
    egress = 64,
    flowLabel = 68,
    customerVlan = 72,
    direction = 75,
    observed = 76,  // the interface that the packet was counted at
    segment = 80,
    end = 88
  };
  static constexpr size_t words = end / 8;
  std::array<uint64_t, words> word;
};

/// One packet on its way through the cache, of a record that has a plan.
struct PlannedSample {
  PacketFacts facts;
  std::array<uint64_t, PacketFacts::words> key;
  uint32_t hash;
  uint32_t place;
  int64_t timeMs;
  uint32_t timeNs;  ///< of the millisecond
  uint32_t segments;
  uint32_t ipOctets;      ///< of all segments
  uint32_t layer2Octets;  ///< of all segments, with the link layer
  uint16_t packetOctets;  ///< of an IP packet: of segments on average, of 65536 and more 65535
  uint8_t layout;         ///< its index among the plan's formats
  uint8_t tcpFlags;
  uint8_t ttl;
  Conversation side;  ///< of a two-way flow

  uint8_t flags() const { return tcpFlags; }
  uint32_t octets() const { return ipOctets; }
  uint32_t packets() const { return segments; }
};

/// The counters of one flow; all of them are kept, whatever its record tells. Behind it
/// lie words: the key, and where the record has them the octets with link layer and the nanoseconds
/// of first and last packet. With up to three words it is a cache line. The cold part has, in
/// words, the values of the first packet and the totals of earlier reports (octets, octets with
/// link layer, packets), and the links of a FlowTable.
///
/// A two-way flow has behind that a `Biflow`, and each of these words, values and totals twice. Its
/// entry counts the packets from the initiator; its times are those of both directions.
struct PlannedEntry {
  uint64_t octets;
  uint64_t packets;
  int64_t firstMs;
  int64_t lastMs;
  uint16_t leastOctets;  ///< of an IP packet; what is longer than 65535 counts as that
  uint16_t mostOctets;
  uint8_t leastTtl;
  uint8_t mostTtl;
  uint8_t tcpFlags;
  bool used : 1;
  bool ending : 1;
  // Of two-way flows.
  bool turned : 1;     ///< the destination in the key began it
  bool sure : 1;       ///< `Conversation::sure` of the first packet
  uint8_t begun : 2;   ///< bit 0: the forward direction had a packet; bit 1: the reverse one
  uint8_t closed : 2;  ///< the same bits: it had a FIN

  uint64_t* words() { return reinterpret_cast<uint64_t*>(this + 1); }
  const uint64_t* words() const { return reinterpret_cast<const uint64_t*>(this + 1); }
};
static_assert(sizeof(PlannedEntry) == 40);

/// What a two-way flow has besides.
struct Biflow {
  PlannedEntry reverse;  ///< counters and times of the reverse direction, and nothing else
  int64_t firstMs;       ///< of the forward direction
  int64_t lastMs;
};

/// The flow table's view of entries whose record is known only at run time: a layout, compiled to
/// the words of PacketFacts that are a flow's key, those that are kept of its first packet, and the
/// steps that write a record.
class PlannedFormat {
 public:
  using Entry = PlannedEntry;
  using Key = const uint64_t*;

  PlannedFormat(const RecordLayout& layout, uint32_t prefix4, uint32_t prefix6, uint8_t place);

  size_t entryLen() const { return entryLen_; }
  size_t coldLen() const { return coldLen_; }
  FlowLinks links(Entry& /*e*/, char* cold) const {
    auto* const own = reinterpret_cast<Links*>(cold + links_);
    return {own->next, own->prev, own->list};
  }
  Key keyOf(const Entry& e) const { return e.words(); }
  bool same(const Entry& e, Key key) const {
    const uint64_t* own = e.words();
    return ofKey([&](auto n) {
      uint64_t differ = 0;
      for (size_t i = 0; i < n; ++i) differ |= own[i] ^ key[i];
      return differ == 0;
    });
  }
  void begin(Entry& e, Key key) const {
    std::memset(static_cast<void*>(&e), 0, entryLen_);
    std::memcpy(e.words(), key, 8 * keyWords_);
    e.leastTtl = UINT8_MAX;
    e.leastOctets = UINT16_MAX;
  }
  uint32_t hash(Key key) const {
    return ofKey([&](auto n) { return static_cast<uint32_t>(wordsHash(key, n, seed_)); });
  }
  void seedIs(uint64_t v) { seed_ = v; }

  uint8_t place() const { return place_; }
  /// Both interfaces are derived from the key when a record is written.
  bool derivesInterfaces() const { return derivesInterfaces_; }
  uint16_t recordLen() const { return recordLen_; }
  void takeKey(PlannedSample& s) const {
    ofKey([&](auto n) {
      for (size_t i = 0; i < n; ++i) s.key[i] = s.facts.word[key_[i].index] & key_[i].mask;
    });
  }
  /// Stores what the record tells of a flow's first packet; the entry already has its key.
  void keep(Entry& e, char* cold, const PlannedSample& s) const {
    std::memset(cold + totals_, 0, links_ - totals_);
    if (biflow_ > 0) return beginBoth(e, cold, s);
    auto* to = reinterpret_cast<uint64_t*>(cold);
    for (const Word& w : first_[0]) *to++ = s.facts.word[w.index] & w.mask;
    if (nanoseconds_ > 0) *nanoseconds(e) = {s.timeNs, s.timeNs};
  }
  /// It is the first packet of its direction of a two-way flow; then call `keepOther`.
  bool lacks(const Entry& e, const PlannedSample& s) const {
    return biflow_ > 0 && (e.begun >> (s.side.turned != e.turned) & 1) == 0;
  }
  void keepOther(Entry& e, char* cold, const PlannedSample& s) const;
  void count(Entry& e, const PlannedSample& s) const {
    if (biflow_ > 0) return countEither(e, s);
    if (nanoseconds_ > 0) countNanoseconds(*nanoseconds(e), e, s);
    if (layer2_ > 0) e.words()[layer2_] += s.layer2Octets;
    countIn(e, s);
  }
  /// This packet, already counted, ends the flow: RST or FIN; FIN of both sides of a two-way flow.
  bool ends(Entry& e, const PlannedSample& s) const {
    if (biflow_ > 0 && (s.tcpFlags & (tcpFin | tcpRst)) == tcpFin) {
      e.closed |= s.side.turned != e.turned ? 2 : 1;
      return e.closed == 3;
    }
    return (s.tcpFlags & (tcpFin | tcpRst)) != 0;
  }
  /// Prepares a flow that was reported to count on, where it has totals or is a two-way flow.
  /// False: it is to be removed.
  bool goOn(Entry& e, char* cold) const;
  uint64_t packets(const Entry& e) const {
    return e.packets + (biflow_ > 0 ? biflow(e).reverse.packets : 0);
  }
  /// It was reported, and no packet came since.
  bool silent(const Entry& e) const { return packets(e) == 0; }
  size_t encode(const Entry& e, const char* cold, EndReason reason, const RecordContext& context,
                char* to) const;

 private:
  static void countIn(Entry& e, const PlannedSample& s) {
    e.packets += s.segments;
    e.octets += s.ipOctets;
    e.tcpFlags |= s.tcpFlags;
    e.leastTtl = std::min(e.leastTtl, s.ttl);
    e.mostTtl = std::max(e.mostTtl, s.ttl);
    e.leastOctets = std::min(e.leastOctets, s.packetOctets);
    e.mostOctets = std::max(e.mostOctets, s.packetOctets);
    e.firstMs = std::min(e.firstMs, s.timeMs);
    e.lastMs = std::max(e.lastMs, s.timeMs);
  }
  struct Word {
    size_t index;  // in PacketFacts
    uint64_t mask;
  };
  /// Writes one field, or several that lie behind each other.
  struct Step {
    enum Kind : uint8_t { octets, swapped2, swapped4, swapped8, computed } kind;
    bool cold;
    bool reverse;
    uint16_t element;  // of what is computed, without the bit of reverse elements
    uint16_t from;     // octets of the entry or its cold part; of a constant its value
    uint16_t len;
  };
  struct Links {
    uint32_t next;
    uint32_t prev;
    uint16_t list;
  };
  struct Nanoseconds {  // of the milliseconds
    uint32_t first;
    uint32_t last;
  };
  /// What is reported of one direction. Where it had no packet, the times are the other's.
  struct Side {
    const Entry& own;
    int64_t firstMs;
    int64_t lastMs;
    const Nanoseconds& ns;
  };
  Side sideOf(const Entry& e, bool reverse) const;
  Nanoseconds* nanoseconds(Entry& e) const {
    return reinterpret_cast<Nanoseconds*>(e.words() + nanoseconds_);
  }
  /// Calls with the number of the key's words. Most keys have three, for which the compiler writes
  /// the loop out.
  template <class Do>
  auto ofKey(Do what) const -> decltype(what(size_t{})) {
    return keyWords_ == 3 ? what(std::integral_constant<size_t, 3>()) : what(keyWords_);
  }
  FlowInterfaces interfacesOf(const Entry& e, const Step& step, const HostAddresses& host) const;
  Biflow& biflow(Entry& e) const { return *reinterpret_cast<Biflow*>(e.words() + biflow_); }
  const Biflow& biflow(const Entry& e) const {
    return *reinterpret_cast<const Biflow*>(e.words() + biflow_);
  }
  static void countNanoseconds(Nanoseconds& ns, const Entry& e, const PlannedSample& s);
  void beginBoth(Entry& e, char* cold, const PlannedSample& s) const;
  void countEither(Entry& e, const PlannedSample& s) const;
  void addStep(const RecordLayout::Field& field, uint32_t prefix4, uint32_t prefix6, bool turned);
  void put(FieldWriter& w, const Step& step, const Entry& e, const char* cold, EndReason reason,
           const RecordContext& context) const;

  std::array<Word, PacketFacts::words> key_;
  size_t keyWords_ = 0;
  std::array<std::vector<Word>, 2> first_;  // [1]: of the reverse direction
  std::array<std::vector<Step>, 2> steps_;  // [1]: of turned flows
  uint64_t seed_ = 0;
  size_t entryLen_ = 0;
  size_t coldLen_ = 0;
  size_t layer2_ = 0;       // place of its word behind the entry; 0: it has none
  size_t nanoseconds_ = 0;  // the same of these
  size_t biflow_ = 0;       // the same of this
  size_t totals_ = 0;       // offset in the cold part
  bool hasTotals_ = false;
  size_t links_ = 0;  // offset in the cold part
  uint16_t recordLen_ = 0;
  uint8_t place_;
  bool derivesInterfaces_;
  bool ipv6_;
};

/// A record, compiled once: per packet only the format is chosen, by the packet's kind. It also
/// says whether the packet itself or the one inside counts, where a packet is a tunnel's.
class RecordPlan {
 public:
  RecordPlan(const RecordDefinition& definition, FlowTracking::TemplateId firstTemplate,
             Tunnel tunnel = Tunnel::outer);

  /// The record of builtInRecords() that has entries and code of its own, which cost least; they
  /// know nothing of tunnels.
  bool standard() const { return standard_; }
  FlowTracking::TemplateId templateId(size_t place) const {
    return static_cast<FlowTracking::TemplateId>(firstTemplate_ + place);
  }
  /// Octets of a record of the layout at this place; 0: there is none.
  std::array<uint16_t, packetKinds> recordLens() const;
  const RecordLayouts& layouts() const { return layouts_; }
  /// By its place; a place may have none.
  const std::vector<PlannedFormat>& formats() const { return formats_; }
  bool namesInterfaces() const { return namesInterfaces_; }
  /// The parser is to look for IP packets behind MPLS labels.
  bool mpls() const { return mpls_; }
  /// The parser is to look into tunnels, and the inner packet is what counts.
  bool inner() const { return tunnel_ == Tunnel::inner; }
  /// The parser is to look into tunnels, for the inner packet or the segment.
  bool tunnels() const { return inner() || segments_; }

  /// Fills all of the sample but hash and place. `parsed` is what the parser said of the packet,
  /// and `interface` what is exported. False: the record is not about packets like this.
  bool sample(const Packet& packet, const Parsed& parsed, uint32_t interface,
              const HostAddresses& host, PlannedSample& out) const;
  /// The same where the parser is to look into tunnels, with what it found there.
  bool sample(const Packet& packet, const Parsed& parsed, uint32_t interface,
              const HostAddresses& host, PlannedSample& out, const TunnelFacts& tunnel) const;

 private:
  static constexpr uint8_t noLayout = UINT8_MAX;
  RecordLayouts layouts_;
  FlowTracking::TemplateId firstTemplate_;
  Tunnel tunnel_;
  bool standard_;
  bool segments_ = false;
  bool namesInterfaces_ = false;
  bool mpls_ = false;
  bool tellsInterfaces_ = false;  // a format needs interfaces found for each packet
  bool biflow_;
  std::vector<PlannedFormat> formats_;                                       // without gaps
  std::array<uint8_t, packetKinds> formatOf_{noLayout, noLayout, noLayout};  // by kind of packet
};

}  // namespace agent::flow
