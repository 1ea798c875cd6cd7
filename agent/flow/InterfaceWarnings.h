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

/// Warns in the log of what is probably not meant with the interfaces that a tracker takes: a
/// pattern that takes none, two interfaces of which one sees the packets of the other, and a filter
/// that has no meaning for an interface. The last two are logged when they become true, the first
/// when the list of patterns is new.
class InterfaceWarnings {
 public:
  InterfaceWarnings(std::string tracker, AgentLog& log) : tracker_(std::move(tracker)), log_(log) {}

  /// To be called with new settings, and when a network has changed; once all networks are known.
  void review(const TrackerSettings& settings, const NetworkList& networks);

 private:
  static constexpr size_t warningsMax = 20;  // of a kind at a time

  using Pair = std::pair<std::string, std::string>;  // an interface, and one that it is part of
  void say(const std::string& what) const;
  void sayNew(std::set<Pair>& said, std::set<Pair> now, const char* between,
              const std::string& what) const;

  const std::string tracker_;
  AgentLog& log_;
  InterfacePatterns patterns_;  // of the last review
  std::string filter_;          // the same
  std::string problem_;  // why the filter has no meaning without an Ethernet header, or empty
  std::set<Pair> doubles_;
  std::set<Pair> unfiltered_;  // the second of each is empty
};

}  // namespace agent::flow
