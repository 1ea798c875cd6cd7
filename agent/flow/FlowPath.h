#pragma once
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Ipfix/FlowTrackingTypes.h"
#include "agent/flow/EgressRoutes.h"
#include "agent/flow/FileMeter.h"
#include "agent/flow/FlowCaptures.h"
#include "agent/flow/FlowSurvey.h"
#include "agent/flow/InterfaceWarnings.h"
#include "agent/host/AgentLog.h"
#include "agent/network/NetworkFollower.h"
#include "agent/records/FlowExport.h"
#include "agent/settings/Settings.h"
#include "platform/FlowPathCounters.h"
#include "platform/SharedTable.h"
#include "platform/Vrf.h"
#include "platform/linux/EventLoop.h"

namespace agent::flow {

/// What a flow path stands on.
struct FlowPathHost {
  Ptr<EventLoop> loop;
  Ptr<const NetworkList> networks;
  Ptr<const FlowTracking::IntfIndexMap> indexes;
  Ptr<const Vrf::VrfIdMap::Status> vrfs;
  std::string netnsDir;
  Ptr<SharedTable> counters;  ///< of FlowPathRecord; null: not shown
  Ptr<FlowCaptures> captures;
  AgentLog& log;
  std::function<bool()> surveyed;  ///< whether all networks that exist are known
};

/// The software flow path of one tracker, on the agent's thread: a meter in each network that has
/// an interface of the tracker's patterns, and what they report on its way to the collectors. Flows
/// are held back while no collector is ready, and while the endpoints have much to send.
class FlowPath {
 public:
  /// `firstTemplate`: where the published templates of the tracker's record begin.
  FlowPath(std::string tracker, FlowPathHost host, const LibraryTree& tree,
           const TrackerSettings& settings, FlowTracking::TemplateId firstTemplate);
  /// Ends at once: flows under way that `endSoon` left no time to report are lost.
  ~FlowPath();
  FlowPath(const FlowPath&) = delete;
  FlowPath& operator=(const FlowPath&) = delete;

  /// The times, the sampling and the interfaces apply from now on; another `maxFlows` or record
  /// starts anew. Flows under way are reported as they were begun, by the templates of then.
  void settingsIs(const TrackerSettings& settings, FlowTracking::TemplateId firstTemplate);
  /// Asked again and again: no flow that was begun with another record is under way, and their
  /// records are with the endpoints.
  bool formerRecordsSent();
  /// Reads a file instead of interfaces. `done` is called once: true, all of it was sent; false, no
  /// collector was ready for `readyMax`, as the log says then. Throws what the meter's constructor
  /// does.
  void fileIs(std::unique_ptr<CaptureFile> file, std::function<void(bool sent)> done);
  /// No packet is counted from here on; the flows under way are reported at the exporters' pace,
  /// for `leaveMax` at most.
  void endSoon();
  /// After `endSoon`, asked again and again: nothing is under way, all is with the endpoints.
  bool left();
  /// The same, and all is sent, or nobody is there to take it.
  bool ended();
  /// The counters are no longer shown to other processes; another path may show its own.
  void hide();
  const std::string& tracker() const { return tracker_; }
  const TrackerSettings& settings() const { return settings_; }
  /// Has each of its meters write its flows to a feed.
  std::vector<FlowSource> feeds();
  /// Adds a row for each interface that it captures from, by VRF and index, with what was counted
  /// there, until there are `max` rows. Leaves out the first `skip` interfaces, and reduces `skip`
  /// by the number of those left out.
  void tracked(size_t& skip, size_t max, std::vector<FlowRow>& rows) const;
  /// What the path did, in words.
  std::string summary() const;
  /// The file's meter, or null.
  const FileMeter* file() const { return file_; }

 private:
  static constexpr std::chrono::seconds readyMax{15};
  static constexpr std::chrono::seconds leaveMax{10};  // a million flows leave in half of it

  struct Live {
    std::unique_ptr<FlowMeter> meter;
    std::unique_ptr<EgressRoutes> routes;  // null: records leave as the meter made them
    std::unique_ptr<EventLoop::FdWatch> watch;
  };
  struct Source : Live {
    NetnsId netns;                         // that the meter's sockets are in
    std::map<uint32_t, uint32_t> tracked;  // the interfaces, as they were told
    std::chrono::steady_clock::time_point nextTry;
    std::string problem;                          // why there is no meter, as it was told
    int filterError = 0;                          // of the meter, as it was told
    std::pair<uint32_t, int> promiscuousError{};  // the same
  };
  /// A meter that counts no more and has flows to report.
  struct Leaving : Live {
    std::chrono::steady_clock::time_point end;  // when the rest is lost
  };

  void reviewSoon() { reviewTask_->scheduleLowestIs(Seconds(0.01)); }
  void review();
  void reviewNetwork(const VrfName& vrf, Source& source);
  bool openMeter(const VrfName& vrf, Source& source, const MeterOrders& wanted);
  MeterOrders orders(const VrfName& vrf) const;
  std::map<uint32_t, uint32_t> exportedLinks(const VrfNetwork& network,
                                             const InterfacePatterns& patterns) const;
  void tellProgramError(const VrfName& vrf, const Source& source) const;
  void watchQueue(Source& source);
  void release(Source& source);
  void captureIs(const VrfName& vrf, const std::string& state) {
    host_.captures->captureIs(tracker_ + " in VRF " + vrf.stringValue(), state);
  }
  void forgetLeft();
  void tellFailures();
  std::string placeText(const VrfName& vrf) const;  ///< what a line about it begins with
  /// False: more waits than can be sent now.
  bool drain(FlowMeter& meter, EgressRoutes* routes);
  bool drain(const Live& l) { return drain(*l.meter, l.routes.get()); }
  void drainAll();
  void handleTick();
  /// There is no exporter: flows can be looked at while they last, and records are thrown away.
  bool toNobody() const { return !file_ && settings_.exporters.empty(); }
  void followFile();
  FlowTracking::FlowPathRecord record() const;
  void tellCounters();
  void tellFilterErrors();
  void tellPromiscuousError(const VrfName& vrf, Source& source, const MeterCounters& counters);
  void tellLosses() const;
  void addCounters(const FlowMeter& meter, FlowTracking::FlowPathRecord& to) const;

  std::string tracker_;
  FlowPathHost host_;
  TrackerSettings settings_;
  FlowMeter::RecordPlanPtr plan_;
  FlowExport export_;
  InterfaceWarnings warnings_;
  bool hold_ = true;
  bool ending_ = false;
  bool opened_ = false;  // a meter, in the review under way
  std::map<VrfName, Source> sources_;
  std::vector<Leaving> leaving_;
  FlowTracking::FlowPathRecord ended_;  // of meters that are gone
  FileMeter* file_ = nullptr;
  std::function<void(bool sent)> fileDone_;
  std::chrono::steady_clock::time_point heldSince_ = std::chrono::steady_clock::now();
  std::chrono::steady_clock::time_point progressTold_ = heldSince_;
  std::unique_ptr<TimerTask> reviewTask_;
  std::unique_ptr<TimerTask> drainTask_;
  std::unique_ptr<TimerTask> flushTask_;
  std::unique_ptr<TimerTask> tickTask_;
  std::unique_ptr<NetworkFollower> follower_;
  int ticks_ = 0;
};

}  // namespace agent::flow
