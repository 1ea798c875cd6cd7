#pragma once
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "Ipfix/Ipfix.h"
#include "agent/exports/Exporters.h"
#include "agent/exports/LibraryTrees.h"
#include "agent/settings/Settings.h"
#include "platform/HwFlowTracking.h"

namespace agent {

/// What applying settings did.
struct Changes {
  struct Count {
    size_t added = 0;
    size_t removed = 0;
    size_t changed = 0;
    bool any() const { return added + removed + changed > 0; }
    bool operator==(const Count&) const = default;
  };
  Count trackers;
  Count exporters;
  Count collectors;
  bool operator==(const Changes&) const = default;
};
/// "trackers: 1 added; collectors: 2 added, 1 removed", or "nothing changed".
std::string describe(const Changes& changes);

/// The configuration and status entities that the library reads, kept equal to the settings by the
/// smallest change: what did not change keeps its entities and hears nothing.
class Entities {
 public:
  /// Where the addresses of collectors come from that are given by the name of their host.
  struct Hosts {
    /// The addresses in the order to be tried; null as long as there are none.
    std::function<const std::vector<IpGenAddr>*(const std::string& host)> addresses;
    /// Asks for a call of `addressesAre`, later: an exporter has other source addresses.
    std::function<void()> later;
  };

  /// `readiness` is called when the count of ready exporters changed.
  Entities(LibraryTrees& trees, SourceFinder::NetworkOf networkOf,
           Ptr<Ipfix::ElementIdColl> registry, AgentLog& log, std::function<void()> readiness,
           Hosts hosts = {});
  /// Releases the trees' reactors first, so that each exporter still says that it is not ready.
  ~Entities();
  Entities(const Entities&) = delete;
  Entities& operator=(const Entities&) = delete;

  /// Removes first, then changes, then adds, so that what takes the place of another finds it
  /// free: the library keeps counters under tracker, exporter and collector address.
  Changes apply(const Settings& settings);
  /// Gives each collector with a host the address it is to have now: of the host's the first in a
  /// family that its exporter has a source address for, but no other as long as the one it has
  /// still is such. Another address is another session: its sequence numbers start at 0.
  void addressesAre();

  size_t readyExporters() const { return ready_; }
  /// Tracker, exporter and collector names with their settings, for comparison.
  const Settings& settings() const { return settings_; }
  /// The same with the address that each collector with a host has now, if it has one.
  const Settings& placedSettings() const { return placed_; }

 private:
  class Sources;
  struct Exporter;
  struct Tracker;

  Changes applyPlaced(Settings settings);
  Settings placed(const Settings& settings);
  void place(const std::string& tracker, const std::string& exporter, ExporterSettings& settings,
             std::map<std::string, std::string>& told);
  void removeTracker(const std::string& name, Tracker& tracker, Changes& changes);
  void removeFrom(Tracker& tracker, const TrackerSettings& wanted, Changes& changes);
  void change(const std::string& name, Tracker& tracker, const TrackerSettings& wanted,
              Changes& changes);
  void changeExporter(Exporter& exporter, const ExporterSettings& wanted, Changes& changes);
  void replaceTracker(const std::string& name, Tracker& tracker, const TrackerSettings& wanted,
                      Changes& changes);
  void addTracker(const std::string& name, const TrackerSettings& wanted, Changes& changes);
  void addExporters(const std::string& trackerName, Tracker& tracker, const TrackerSettings& wanted,
                    Changes& changes);

  LibraryTrees& trees_;
  SourceFinder finder_;
  Ptr<Ipfix::ElementIdColl> registry_;
  AgentLog& log_;
  std::function<void()> readiness_;
  Hosts hosts_;
  Settings settings_;                             // as given: without the hosts' addresses
  Settings placed_;                               // with them
  std::map<std::string, std::string> toldPlace_;  // by collector, what the log said last
  std::map<std::string, std::unique_ptr<Tracker>> trackers_;
  size_t ready_ = 0;
};

}  // namespace agent
