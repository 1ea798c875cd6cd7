#pragma once
#include <functional>
#include <string>

#include "agent/network/Network.h"
#include "agent/records/LibraryTree.h"
#include "agent/settings/Settings.h"

namespace agent {

/// The running agent as those see it who tell of what it exports.
struct ExportsView {
  std::function<const Settings&()> settings;
  std::function<const LibraryTree&(FlowTracking::FlowTrackingType)> tree;
  /// Why a host cannot be looked up; empty: it can, or it is not known yet.
  std::function<std::string(const std::string& host)> hostProblem;
  Ptr<const Ipfix::ElementIdColl> elements;
  Ptr<const NetworkList> networks;
};

}  // namespace agent
