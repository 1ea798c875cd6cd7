#pragma once
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <utility>

#include "platform/HwFlowTracking.h"
#include "platform/Ip.h"

namespace agent {
using namespace platform;

/// Finds what would come round for ever: records that a tracker of type hardware sends to its own
/// local collector, or to another tracker's, whose exporters send them back, directly or through
/// more of them. What one tracker passes to the next without coming back is left alone.
///
/// Sources are compared by address and port alone: a datagram may come from another VRF's
/// exporter by way of a router. Loops through other hosts cannot be told from devices.
class LocalCollectorLoops {
 public:
  /// The exporters of a tracker, as they are now.
  void exportersAre(const std::string& tracker, const HwFlowTracking::FtConfig& config);
  void trackerDel(const std::string& tracker);
  /// The tracker whose exporter this is, if `tracker` shall not hear it since that closes a loop;
  /// otherwise empty.
  std::string closedBy(const std::string& tracker, const IpGenAddr& from, uint16_t port);

 private:
  using Source = std::pair<IpGenAddr, uint16_t>;
  bool hears(const std::string& tracker, const std::string& of, std::set<std::string>& seen) const;

  std::map<Source, std::string> trackerOf_;
  std::map<std::string, std::set<Source>> sources_;
  std::map<std::string, std::set<std::string>> heard_;  // by tracker, those whose exports it hears
};

}  // namespace agent
