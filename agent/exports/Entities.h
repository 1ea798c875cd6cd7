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
  /// `readiness` is called when the count of ready exporters changed.
  Entities(LibraryTrees& trees, SourceFinder::NetworkOf networkOf,
           Ptr<Ipfix::ElementIdColl> registry, AgentLog& log, std::function<void()> readiness);
  /// Releases the trees' reactors first, so that each exporter still says that it is not ready.
  ~Entities();
  Entities(const Entities&) = delete;
  Entities& operator=(const Entities&) = delete;

  /// Removes first, then changes, then adds, so that what takes the place of another finds it
  /// free: the library keeps counters under tracker, exporter and collector address.
  Changes apply(Settings settings);
  /// Where the templates of a software tracker's record begin. Another record has others, and the
  /// former ones stay until `forgetTemplates`, for the flows that were begun with them.
  FlowTracking::TemplateId firstFlowTemplate(const std::string& tracker) const;
  /// Withdraws the former templates of the trackers for which `unused` is true. Returns whether
  /// there were any, so that the caller asks again.
  bool forgetTemplates(const std::function<bool(const std::string& tracker)>& unused);

  size_t readyExporters() const { return ready_; }
  /// As they were applied last.
  const Settings& settings() const { return settings_; }

 private:
  struct Exporter;
  struct Tracker;

  void removeTracker(const std::string& name, Tracker& tracker, Changes& changes);
  void removeFrom(Tracker& tracker, const TrackerSettings& wanted, Changes& changes);
  void change(const std::string& name, Tracker& tracker, const TrackerSettings& wanted,
              Changes& changes);
  void changeExporter(Exporter& exporter, const ExporterSettings& wanted, Changes& changes);
  void replaceTracker(const std::string& name, Tracker& tracker, const TrackerSettings& wanted,
                      Changes& changes);
  Tracker make(const std::string& name, const TrackerSettings& wanted,
               Ptr<HwFlowTracking::FtStatus> status, Changes& changes);
  void publishTemplates(const std::string& name, Tracker& tracker, const TrackerSettings& wanted);
  void addTracker(const std::string& name, const TrackerSettings& wanted, Changes& changes);
  void addExporters(const std::string& trackerName, Tracker& tracker, const TrackerSettings& wanted,
                    Changes& changes);

  LibraryTrees& trees_;
  SourceFinder finder_;
  Ptr<Ipfix::ElementIdColl> registry_;
  AgentLog& log_;
  std::function<void()> readiness_;
  Settings settings_;
  std::map<std::string, std::unique_ptr<Tracker>> trackers_;
  size_t ready_ = 0;
};

}  // namespace agent
