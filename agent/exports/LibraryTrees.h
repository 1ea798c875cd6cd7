#pragma once
#include <map>

#include "Ipfix/IpfixSm.h"
#include "agent/records/LibraryTree.h"
#include "platform/linux/EventLoop.h"

namespace agent {

/// What the library's reactors of every kind of tracking stand on.
struct LibraryHost {
  Ptr<EventLoop> loop = {};
  Ptr<Ipfix::IpfixInitSm> ipfix = {};
  Ptr<FlowTracking::ConfigReq> configReq = {};
  Ptr<Tarn::Ipfix::CollectorStatistics> statistics = {};
  Ptr<FlowTracking::IntfIndexMap> interfaces = {};
  Ptr<Vrf::VrfIdMap::Status> vrfs = {};
};

/// The library's trees by kind of tracking. References to a kind's own tree stay valid.
class LibraryTrees {
 public:
  using Type = FlowTracking::FlowTrackingType;

  explicit LibraryTrees(LibraryHost host) : host_(std::move(host)) {}

  /// Those of the kinds that have, or had, a tracker.
  const std::map<Type, LibraryTree>& all() const { return trees_; }
  /// An empty one, which is never filled, where the kind never had a tracker.
  const LibraryTree& tree(Type type) const;
  /// The kind's tree. The first call makes its configuration and status.
  LibraryTree& make(Type type);
  /// Starts the reactors of each kind that has trackers now, and releases those of the others.
  void followTrackers();
  void releaseReactors();

 private:
  const LibraryHost host_;
  std::map<Type, LibraryTree> trees_;
};

}  // namespace agent
