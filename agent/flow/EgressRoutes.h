#pragma once
#include <array>
#include <cstdint>
#include <map>
#include <span>
#include <vector>

#include "agent/flow/RecordPlan.h"
#include "agent/flow/RouteLookups.h"

namespace agent::flow {

/// Completes records, once they have left the meter, by where the kernel sends such packets on:
/// egressInterface and the address of the next hop, of flows that arrived for somebody else.
class EgressRoutes {
 public:
  /// In the namespace that the thread is in. Throws what RouteLookups does.
  explicit EgressRoutes(const RecordPlan& plan);

  /// All interfaces of the namespace: those that records tell of, by the kernel's index.
  void interfacesIs(const std::map<uint32_t, uint32_t>& exported);
  /// Back to back, of the layout at this place.
  void complete(uint8_t place, std::span<char> records);

 private:
  /// Where a record has the field; `none`: nowhere.
  struct Offsets {
    static constexpr size_t none = SIZE_MAX;
    size_t src = none, dst = none, tos = none, ingress = none, egress = none, nextHop = none;
    size_t recordLen = 0;
    size_t addressLen = 0;  ///< 0: such records tell too little
  };
  bool question(const Offsets& o, const char* record, RouteQuestion& q) const;
  void answer(const Offsets& o, const Route& route, char* record) const;

  std::array<Offsets, packetKinds> offsets_;  // by place
  std::map<uint32_t, uint32_t> exported_;
  std::map<uint32_t, uint32_t> kernel_;  // the same, by the exported index
  RouteLookups lookups_;
  std::vector<RouteQuestion> questions_;
  std::vector<Route> answers_;
  std::vector<char*> records_;  // that the questions are about
};

}  // namespace agent::flow
