#pragma once
#include <algorithm>
#include <cstdint>
#include <cstring>

#include "agent/flow/FlowTable.h"

namespace agent::flow {

/// Octets of a flow's record in the layout of its template (agent/records/FlowTemplates.h).
inline constexpr size_t flowRecordLen4 = 63;
inline constexpr size_t flowRecordLen6 = 91;

/// Writes fields in network byte order, one behind the other.
class FieldWriter {
 public:
  explicit FieldWriter(char* at) : at_(at) {}
  template <class T>
  void put(T v) {
    if constexpr (sizeof(T) == 2) v = static_cast<T>(__builtin_bswap16(static_cast<uint16_t>(v)));
    if constexpr (sizeof(T) == 4) v = static_cast<T>(__builtin_bswap32(static_cast<uint32_t>(v)));
    if constexpr (sizeof(T) == 8) v = static_cast<T>(__builtin_bswap64(static_cast<uint64_t>(v)));
    std::memcpy(at_, &v, sizeof v);
    at_ += sizeof v;
  }
  void octets(const void* from, size_t n) {
    std::memcpy(at_, from, n);
    at_ += n;
  }
  const char* at() const { return at_; }

 private:
  char* at_;
};

/// Encodes one flow where flowRecordLen4 or flowRecordLen6 octets have room; returns its octets.
template <class Entry>
size_t encodeFlow(const Entry& e, EndReason reason, uint32_t vrfId, char* to) {
  const FlowClass& c = e.key.rest;
  FieldWriter w(to);
  w.octets(e.key.src.data(), e.key.src.size());
  w.octets(e.key.dst.data(), e.key.dst.size());
  w.put(c.srcPort);
  w.put(c.dstPort);
  w.put(c.protocol);
  w.put(c.tos);
  w.put(c.vlanId);
  w.put(c.interface);
  w.put(vrfId);
  w.put(uint32_t{0});  // the egress interface is not known at the ingress
  w.put(e.octets);
  w.put(e.packets);
  w.put(std::max<int64_t>(e.firstMs, 0));  // unsigned on the wire
  w.put(std::max<int64_t>(e.lastMs, 0));
  w.put(uint16_t{e.tcpFlags});
  w.put(static_cast<uint8_t>(reason));
  if constexpr (sizeof(e.key.src) == 16) w.put(e.flowLabel);
  return static_cast<size_t>(w.at() - to);
}

}  // namespace agent::flow
