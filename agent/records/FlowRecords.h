#pragma once
#include <array>
#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "Ipfix/Ipfix.h"

namespace agent {

/// The kinds of packets that a flow record may be about, a bit each.
using PacketKinds = uint8_t;
inline constexpr PacketKinds ipv4Packets = 1, ipv6Packets = 2, otherFrames = 4;
inline constexpr PacketKinds ipPackets = ipv4Packets | ipv6Packets;
inline constexpr PacketKinds allPackets = ipPackets | otherFrames;
inline constexpr size_t packetKinds = 3;

/// Which packets of its interfaces a tracker counts.
enum class Direction : uint8_t {
  ingress,  ///< those that arrive
  egress,   ///< those that leave: sent by this machine, or forwarded
  both,     ///< a forwarded packet once where it arrives and once where it leaves
  once,     ///< those that arrive, and of those that leave what this machine sends itself
};
inline constexpr Direction directions[] = {Direction::ingress, Direction::egress, Direction::both,
                                           Direction::once};
std::string_view toText(Direction d);  ///< "ingress", ...

/// Where a tracker knows from by which interface a packet for somebody else leaves.
enum class Egress : uint8_t {
  none,   ///< from nowhere
  route,  ///< from the kernel's routing tables
};
inline constexpr Egress egresses[] = {Egress::none, Egress::route};
std::string_view toText(Egress e);  ///< "none", ...

/// Which IP packet of those in each other is counted, where a packet is a tunnel's.
enum class Tunnel : uint8_t { outer, inner };
inline constexpr Tunnel tunnels[] = {Tunnel::outer, Tunnel::inner};
std::string_view toText(Tunnel t);  ///< "outer", "inner"

/// One information element that the software flow path knows to fill.
struct RecordField {
  const char* name;  ///< IANA's; with "/1" behind it, in one octet (RFC 7011, 6.2)
  /// Its number; with bit 15 it is the reverse element (RFC 5103) of that number.
  uint16_t element;
  uint16_t len;       ///< octets in a record
  PacketKinds kinds;  ///< the packets that have it; the records of others leave it out
  /// Each packet has a value of its own, so flows can be told apart by it; where it is no key, a
  /// record has that of the flow's first packet. False: a sum over the flow, the reason for its
  /// end, or a constant, none of which can be a key.
  bool ofPacket;

  /// It tells of a two-way flow's other direction.
  bool reverse() const { return (element & 0x8000) != 0; }
};
/// All that a record may be made of, by element number.
std::span<const RecordField> recordFields();
/// One of these, or of those that `biflowRecord` adds. Null: there is none of this name.
const RecordField* recordField(std::string_view name);

/// Adds the reverse elements of two-way flows to the registry.
void addReverseElements(Ipfix::ElementIdColl& registry);

/// A flow record as the configuration describes it.
struct RecordDefinition {
  std::vector<std::string> fields;  ///< names, in the order of the record
  std::vector<std::string> keys;    ///< those of the fields that tell flows apart
  uint32_t prefix4 = 32;            ///< leading bits of IPv4 addresses that count
  uint32_t prefix6 = 128;           ///< the same of IPv6 addresses
  bool biflow = false;              ///< a record tells of both directions of a conversation
  bool operator==(const RecordDefinition&) const = default;
};

/// The records that need no section in the configuration. `standard` is every tracker's default.
inline constexpr const char* standardRecordName = "standard";
const std::map<std::string, RecordDefinition>& builtInRecords();

inline constexpr uint16_t biflowDirection = 239;  ///< its element

/// The record of two-way flows that is made of another one: fields that depend on a packet's
/// direction are no keys, and biflowDirection and the reverse elements follow the record's fields.
RecordDefinition biflowRecord(RecordDefinition definition);
/// What a record lacks to tell of conversations; empty: nothing.
std::string biflowProblem(const RecordDefinition& definition);

/// A definition's record for some kinds of packets, with a template of its own.
struct RecordLayout {
  struct Field {
    const RecordField* field;
    bool key;
  };
  PacketKinds kinds = 0;
  std::vector<Field> fields;
  uint32_t len() const;          ///< octets of a record
  uint32_t templateLen() const;  ///< octets of its template
};

/// A definition's layouts by their place in its template ids: of IPv4 packets, of IPv6 packets and
/// of other frames. Kinds of packets whose records have the same fields share the first one's
/// layout; a place without a layout has no kinds. Frames that are not IP have a layout when no key
/// needs an IP packet. Names that are unknown are left out.
using RecordLayouts = std::array<RecordLayout, packetKinds>;
RecordLayouts recordLayouts(const RecordDefinition& definition);

/// Octets of a message that has room for the longest record, and for all templates together.
uint32_t messageLenFor(const RecordLayouts& layouts);

/// The rule that the name at index `at` of `fields` or `keys` breaks, in the definition as a whole;
/// empty: none.
std::string fieldProblem(const RecordDefinition& definition, size_t at);
std::string keyProblem(const RecordDefinition& definition, size_t at);
/// The rule that a record breaks together with where its tracker knows egress interfaces from.
std::string egressProblem(const RecordDefinition& definition, Egress egress);

}  // namespace agent
