#pragma once
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "agent/flow/FlowPath.h"
#include "agent/flow/FlowSurveys.h"
#include "agent/flow/Replay.h"
#include "agent/records/FlowLook.h"

namespace agent::flow {

/// Who publishes the templates of the trackers' records.
struct FlowTemplateIds {
  using Unused = std::function<bool(const std::string& tracker)>;
  /// Where those of a tracker's record begin.
  std::function<FlowTracking::TemplateId(const std::string& tracker)> first;
  /// Withdraws those of former records of the trackers for which `unused` is true. Returns whether
  /// there were any, so that the caller asks again.
  std::function<bool(const Unused& unused)> forget;
};

/// The software flow paths, one for each tracker that tracks packets. A path
/// that ends reports its flows at the exporters' pace, and its tracker keeps
/// its exporters until then.
///
///   const Settings now = paths.leave(wanted, running);
///   ...                               // apply `now` to the entities
///   paths.follow(wanted, tree);
class FlowPaths final : public FlowLooks {
 public:
  /// `replay`: reads a file in place of interfaces; null: there is none.
  /// `reported` is called when settings that had to wait for flows can be
  /// applied whole.
  FlowPaths(FlowPathHost host, Replay* replay, FlowTemplateIds templates,
            std::function<void(const Settings& wanted)> reported);

  /// Begins to end the paths of trackers that no longer track packets. Returns
  /// the settings to apply now: `wanted`, but with a tracker as it is in
  /// `running` as long as its flows are under way.
  Settings leave(const Settings& wanted, const Settings& running);
  /// Starts the paths of new trackers, and gives the others their settings.
  /// `tree`: of software tracking.
  void follow(const Settings& wanted, const LibraryTree& tree);
  /// Ends all paths, and calls `done` when their flows were reported, or after
  /// some seconds.
  void finish(std::function<void()> done);

  FlowPart look(const FlowLook& look) override;
  FlowPart more(const std::string& survey, size_t next) override {
    return surveys_.more(survey, next);
  }
  std::vector<FlowRow> tracked(const std::string& tracker, size_t first, size_t max) override;

 private:
  using Paths = std::vector<std::unique_ptr<FlowPath>>;

  bool tracksPackets(const TrackerSettings& tracker) const;
  void handleLeaving();
  void forgetTemplates();
  bool ended() const;
  /// The path of this tracker; empty name: the only one. Throws FlowLookError, which lists names.
  FlowPath& path(const std::string& name);

  const FlowPathHost host_;
  Replay* const replay_;
  const FlowTemplateIds templates_;
  const std::function<void(const Settings& wanted)> reported_;
  Paths leaving_;
  std::optional<Settings> waiting_;  // for the end of those
  std::map<std::string, std::unique_ptr<FlowPath>> paths_;
  std::unique_ptr<TimerTask> leavingTask_;
  std::unique_ptr<TimerTask> finishTask_;
  FlowSurveys surveys_;
};

}  // namespace agent::flow
