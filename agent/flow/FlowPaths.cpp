#include "agent/flow/FlowPaths.h"

#include <algorithm>
#include <chrono>
#include <random>
#include <thread>

#include "agent/host/Printable.h"
#include "agent/host/Priorities.h"
#include "platform/UdpPam.h"

namespace agent::flow {
namespace {
using Clock = std::chrono::steady_clock;

constexpr Seconds poll{0.01};
constexpr std::chrono::milliseconds leaveShare{10};  // of the loop, at a reload
constexpr std::chrono::seconds finishMax{10};        // a million flows leave in half of it
}  // namespace

FlowPaths::FlowPaths(FlowPathHost host, Replay* replay, FlowTemplateIds templates,
                     std::function<void(const Settings& wanted)> reported)
    : host_(std::move(host)),
      replay_(replay),
      templates_(std::move(templates)),
      reported_(std::move(reported)),
      leavingTask_(host_.loop->taskScheduler()->timerTask("agent-leaving", afterAll,
                                                          [this] { handleLeaving(); })),
      surveys_(host_.loop) {}

bool FlowPaths::tracksPackets(const TrackerSettings& tracker) const {
  return tracker.type == FlowTracking::FlowTrackingType::software &&
         (!tracker.interfaces.empty() || replay_);
}

void FlowPaths::follow(const Settings& wanted, const LibraryTree& tree) {
  for (const auto& [name, tracker] : wanted.trackers) {
    if (!tracksPackets(tracker)) continue;
    auto& path = paths_[name];
    if (path) {
      path->settingsIs(tracker, templates_.first(name));
    } else {
      path = std::make_unique<FlowPath>(name, host_, tree, tracker, templates_.first(name));
      if (replay_) replay_->read(*path);
    }
  }
  forgetTemplates();
}

/// Templates of former records go when their last flow was reported.
void FlowPaths::forgetTemplates() {
  const bool any = templates_.forget([this](const std::string& tracker) {
    const auto path = paths_.find(tracker);
    return leaving_.empty() && (path == paths_.end() || path->second->formerRecordsSent());
  });
  if (any) leavingTask_->scheduleIs(poll);
}

Settings FlowPaths::leave(const Settings& wanted, const Settings& running) {
  for (auto it = paths_.begin(); it != paths_.end();) {
    const auto tracker = wanted.trackers.find(it->first);
    if (tracker != wanted.trackers.end() && tracksPackets(tracker->second)) {
      ++it;
      continue;
    }
    it->second->endSoon();
    it->second->hide();
    leaving_.push_back(std::move(it->second));
    it = paths_.erase(it);
  }
  // A few flows are reported here and now, so that the new settings hold when
  // this returns.
  const auto end = Clock::now() + leaveShare;
  const auto left = [](const auto& path) { return path->left(); };
  while (std::erase_if(leaving_, left), !leaving_.empty()) {
    if (Clock::now() >= end) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  Settings now = wanted;
  waiting_.reset();
  for (const auto& path : leaving_) {
    const auto old = running.trackers.find(path->tracker());
    const auto tracker = now.trackers.find(path->tracker());
    if (old == running.trackers.end() ||
        (tracker != now.trackers.end() && tracker->second.type == old->second.type))
      continue;
    now.trackers.insert_or_assign(old->first, old->second);
    waiting_ = wanted;
  }
  if (!leaving_.empty()) leavingTask_->scheduleIs(poll);
  return now;
}

void FlowPaths::handleLeaving() {
  std::erase_if(leaving_, [](const auto& path) { return path->ended(); });
  forgetTemplates();
  if (!leaving_.empty()) {
    leavingTask_->scheduleIs(poll);
  } else if (const auto wanted = std::exchange(waiting_, std::nullopt)) {
    reported_(*wanted);
  }
}

/// Asks every path, since a path goes on when it is asked.
bool FlowPaths::ended() const {
  bool all = true;
  for (const auto& [name, path] : paths_) all = path->ended() && all;
  for (const auto& path : leaving_) all = path->ended() && all;
  return all;
}

void FlowPaths::finish(std::function<void()> done) {
  leavingTask_->stop();
  for (const auto& [name, path] : paths_) path->endSoon();
  finishTask_ = host_.loop->taskScheduler()->timerTask(
      "agentFinish", afterAll, [this, done = std::move(done), end = Clock::now() + finishMax] {
        const bool all = ended();
        const bool late = Clock::now() >= end;
        if (late && !all)
          host_.log.warning(
              "flows under way are still being reported: the "
              "rest leaves at once");
        if (late || all) {
          done();
        } else {
          finishTask_->scheduleIs(poll);
        }
      });
  finishTask_->scheduleIs(Seconds(0));
}

// --- Looks at flows under way ---

FlowPath& FlowPaths::path(const std::string& name) {
  if (paths_.empty())
    throw FlowLookError("no tracker looks at packets: give one of type 'software' its interfaces");
  const auto names = [&] {
    return joined(paths_, [](const auto& p) { return inQuotes(p.first); });
  };
  if (name.empty() && paths_.size() > 1)
    throw FlowLookError("there are several trackers, name one of them: " + names());
  const auto found = name.empty() ? paths_.begin() : paths_.find(name);
  if (found == paths_.end())
    throw FlowLookError(
        "tracker " + inQuotes(name) + " does not look at packets; those that do: " + names(),
        "notFound");
  return *found->second;
}

FlowPart FlowPaths::look(const FlowLook& wanted) {
  FlowPath& chosen = path(wanted.tracker);
  using Map = FlowTracking::IntfIndexMap;
  // Indexes that stand for no interface, by their names; a real interface of the same name wins.
  const FlowSurvey::Names reserved = {{Map::cpuIndex, Map::cpuIntfName},
                                      {Map::multicastIndex, Map::multicastIntfName},
                                      {Map::discardIndex, Map::discardIntfName},
                                      {Map::unknownIndex, Map::unknownIntfName}};
  FlowFilter filter(wanted.filter, [&](const std::string& name) -> std::optional<uint32_t> {
    const auto& all = host_.indexes->intfIndex();
    if (const auto it = all.find(FlowTracking::IntfId(name)); it != all.end()) return it->second;
    for (const auto& [index, text] : reserved)
      if (text == name) return index;
    return std::nullopt;
  });
  surveys_.mustHaveRoom();
  FlowLook look = wanted;
  look.tracker = chosen.tracker();
  FlowSurvey::Names names = reserved;
  if (look.by != FlowLook::By::hosts && look.by != FlowLook::By::ports)
    for (const auto& [name, index] : host_.indexes->intfIndex())
      names.emplace(index, name.stringValue());
  std::random_device device;
  return surveys_.begin(std::make_unique<FlowSurvey>(std::move(look), std::move(filter),
                                                     chosen.feeds(), std::move(names),
                                                     uint64_t{device()} << 32 | device()));
}

std::vector<FlowRow> FlowPaths::tracked(const std::string& tracker, size_t first, size_t max) {
  std::vector<FlowRow> rows;
  if (!tracker.empty()) path(tracker);
  for (const auto& [name, path] : paths_)
    if (tracker.empty() || name == tracker) path->tracked(first, max, rows);
  return rows;
}

}  // namespace agent::flow
