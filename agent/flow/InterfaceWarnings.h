#pragma once
#include <set>
#include <string>
#include <utility>

#include "agent/host/AgentLog.h"
#include "agent/network/Network.h"
#include "agent/settings/Settings.h"

namespace agent::flow {

/// The name that patterns, and the interface table, know an interface by.
std::string exportedName(const VrfName& vrf, const std::string& name);

/// Says in the log what is probably not meant with the interfaces that a tracker takes: a pattern
/// that takes none, interfaces of which one sees the packets of the other, and a filter that has no
/// meaning for an interface. Each is said once, and again when it has ceased and is true anew;
/// patterns only when they are new.
class InterfaceWarnings {
 public:
  InterfaceWarnings(std::string tracker, AgentLog& log) : tracker_(std::move(tracker)), log_(log) {}

  /// For settings that are new, or networks that changed; these have been surveyed.
  void review(const TrackerSettings& settings, const NetworkList& networks);

 private:
  static constexpr size_t warningsMax = 20;  // of a kind at a time

  using Pair = std::pair<std::string, std::string>;  // an interface, and one that it is part of
  void say(const std::string& what) const;
  void sayNew(std::set<Pair>& said, std::set<Pair> now, const char* between,
              const std::string& what) const;

  const std::string tracker_;
  AgentLog& log_;
  InterfacePatterns patterns_;  // as the review before had them
  std::string filter_;          // the same
  std::string problem_;         // of the filter, where there is no Ethernet header
  std::set<Pair> doubles_;
  std::set<Pair> unfiltered_;  // an interface and nothing
};

}  // namespace agent::flow
