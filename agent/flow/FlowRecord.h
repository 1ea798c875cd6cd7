#pragma once
#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstring>
#include <map>
#include <string>
#include <string_view>

#include "agent/flow/FlowInterfaces.h"
#include "agent/flow/FlowTable.h"

namespace agent::flow {

/// Octets of a standard record, whose fields are those of builtInRecords().
inline constexpr size_t flowRecordLen4 = 64;
inline constexpr size_t flowRecordLen6 = 92;

/// A number of this machine in network byte order, and back.
template <class T>
T networkOrder(T v) {
  static_assert(std::endian::native == std::endian::little);
  if constexpr (sizeof(T) == 2) v = static_cast<T>(__builtin_bswap16(static_cast<uint16_t>(v)));
  if constexpr (sizeof(T) == 4) v = static_cast<T>(__builtin_bswap32(static_cast<uint32_t>(v)));
  if constexpr (sizeof(T) == 8) v = static_cast<T>(__builtin_bswap64(static_cast<uint64_t>(v)));
  return v;
}

/// What encoding a record needs besides the flow.
struct RecordContext {
  uint32_t vrfId = 0;
  uint32_t sampleRate = 1;
  /// Names of interfaces by the index that is exported, where the record has them.
  std::map<uint32_t, std::string> interfaceNames;
  HostAddresses host;
  bool operator==(const RecordContext&) const = default;
};

/// Writes fields in network byte order, one behind the other.
class FieldWriter {
 public:
  explicit FieldWriter(char* at) : at_(at) {}
  template <class T>
  void put(T v) {
    v = networkOrder(v);
    std::memcpy(at_, &v, sizeof v);
    at_ += sizeof v;
  }
  void octets(const void* from, size_t n) {
    // Lengths that the compiler knows are copied without a call.
    if (n == 1) {
      std::memcpy(at_, from, 1);
    } else if (n == 6) {
      std::memcpy(at_, from, 6);
    } else if (n == 8) {
      std::memcpy(at_, from, 8);
    } else {
      std::memcpy(at_, from, n);
    }
    at_ += n;
  }
  /// Numbers that lie in this machine's order.
  template <class T>
  void swapped(const char* from) {
    T v;
    std::memcpy(&v, from, sizeof v);
    put(v);
  }
  /// In a field of fixed length: cut between two characters of UTF-8, padded with zeros.
  void text(std::string_view from, size_t len) {
    size_t n = std::min(from.size(), len);
    while (n > 0 && n < from.size() && (from[n] & 0xc0) == 0x80) --n;
    std::copy_n(from.data(), n, at_);
    std::memset(at_ + n, 0, len - n);
    at_ += len;
  }
  const char* at() const { return at_; }

 private:
  char* at_;
};

/// Encodes one flow as a standard record where flowRecordLen4 or flowRecordLen6 octets have room;
/// returns its octets.
template <class Entry>
size_t encodeFlow(const Entry& e, EndReason reason, const RecordContext& context, char* to) {
  const FlowClass& c = e.key.rest;
  const auto [ingress, egress] =
      flowInterfaces(c.interface, c.leaves(), e.key.src, e.key.dst, context.host);
  FieldWriter w(to);
  w.octets(e.key.src.data(), e.key.src.size());
  w.octets(e.key.dst.data(), e.key.dst.size());
  w.put(c.srcPort);
  w.put(c.dstPort);
  w.put(c.protocol);
  w.put(c.tos);
  w.put(static_cast<uint16_t>(c.vlanId & 0xfff));
  w.put(ingress);
  w.put(context.vrfId);
  w.put(egress);
  w.put(static_cast<uint8_t>(c.leaves()));  // flowDirection, IANA element 61
  w.put(e.octets);
  w.put(e.packets);
  w.put(std::max<int64_t>(e.firstMs, 0));  // unsigned on the wire
  w.put(std::max<int64_t>(e.lastMs, 0));
  w.put(uint16_t{e.tcpFlags});
  w.put(static_cast<uint8_t>(reason));
  if constexpr (sizeof(e.key.src) == 16) w.put(e.flowLabel);
  return static_cast<size_t>(w.at() - to);
}

/// The flow table's view of entries of the standard record, whose layout the compiler knows.
template <class EntryType>
struct StandardFormat : FixedFormat<EntryType> {
  using Entry = EntryType;
  static constexpr bool ipv6 = sizeof(Entry::key.src) == 16;

  static constexpr uint8_t place() { return ipv6 ? 1 : 0; }
  template <class Sample>
  static void keep(Entry& e, char* /*cold*/, const Sample& s) {
    e.flowLabelIs(s.parsed.flowLabel);
  }
  template <class Sample>
  static void count(Entry& e, const Sample& s) {
    e.packets += s.parsed.packets;
    e.octets += s.parsed.ipOctets;
    e.firstMs = std::min(e.firstMs, s.timeMs);
    e.lastMs = std::max(e.lastMs, s.timeMs);
    e.tcpFlags |= s.parsed.tcpFlags;
  }
  template <class Sample>
  static constexpr bool lacks(const Entry&, const Sample&) {
    return false;
  }
  template <class Sample>
  static constexpr void keepOther(Entry&, char* /*cold*/, const Sample&) {}
  template <class Sample>
  static constexpr bool ends(const Entry&, const Sample& s) {
    return (s.flags() & (tcpFin | tcpRst)) != 0;
  }
  static uint64_t packets(const Entry& e) { return e.packets; }
  static constexpr bool goOn(const Entry&, char* /*cold*/) { return false; }
  static constexpr bool silent(const Entry&) { return false; }
  static size_t encode(const Entry& e, const char* /*cold*/, EndReason reason,
                       const RecordContext& context, char* to) {
    return encodeFlow(e, reason, context, to);
  }
};

}  // namespace agent::flow
