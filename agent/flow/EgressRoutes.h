#pragma once
#include <array>
#include <cstdint>
#include <map>
#include <span>
#include <vector>

#include "agent/flow/RecordPlan.h"
#include "agent/flow/RouteLookups.h"

namespace agent::flow {

/// Fills egressInterface and the address of the next hop in records that the meter has written, for
/// flows that arrived for somebody else: as the kernel would forward such packets.
class EgressRoutes {
 public:
  /// For the network namespace of the calling thread. Throws what RouteLookups does.
  explicit EgressRoutes(const RecordPlan& plan);

  /// The exported indexes of all interfaces of the namespace, by the kernel's index.
  void interfacesIs(const std::map<uint32_t, uint32_t>& exported);
  /// `records` are back to back, of the plan's layout at `place`.
  void complete(uint8_t place, std::span<char> records);

 private:
  /// Where the fields lie in a record; `none`: the record has no such field.
  struct Offsets {
    static constexpr size_t none = SIZE_MAX;
    size_t src = none, dst = none, tos = none, ingress = none, egress = none, nextHop = none;
    size_t recordLen = 0;
    size_t addressLen = 0;  ///< 0: an address or the ingress interface is missing
  };
  bool question(const Offsets& o, const char* record, RouteQuestion& q) const;
  void answer(const Offsets& o, const Route& route, char* record) const;

  std::array<Offsets, packetKinds> offsets_;  // by place
  std::map<uint32_t, uint32_t> exported_;     // indexes by the kernel's
  std::map<uint32_t, uint32_t> kernel_;       // the kernel's by the exported ones
  RouteLookups lookups_;
  std::vector<RouteQuestion> questions_;
  std::vector<Route> answers_;
  std::vector<char*> records_;  // each is what the question at the same place is about
};

}  // namespace agent::flow
