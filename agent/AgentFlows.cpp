// The agent's software flow paths: where their packets come from, how they begin and how they end.
#include <algorithm>
#include <chrono>
#include <set>
#include <thread>

#include "agent/Agent.h"
#include "agent/host/Printable.h"
#include "agent/host/Priorities.h"
#include "agent/host/ServiceManager.h"
#include "platform/UdpPam.h"

namespace agent {
namespace {
constexpr int piecesMax = 64;  // of a capture, some 16 MiB, to find its interfaces in
constexpr Seconds finishPoll{0.01};
constexpr std::chrono::milliseconds leaveShare{10};  // of the loop, at a reload
constexpr std::chrono::seconds finishMax{10};        // a million flows leave in half of it
}  // namespace

void Agent::startFlows(const Settings& settings) {
  for (const auto& [name, tracker] : settings.trackers) {
    if (!tracksPackets(tracker)) continue;
    auto& path = flowPaths_[name];
    if (path) {
      path->settingsIs(tracker);
      continue;
    }
    path = std::make_unique<flow::FlowPath>(
        name,
        flow::FlowPathHost{loop_, networks_->list(), interfaceIndexes_->map(), vrfIds_->status(),
                           options_.netnsDir, tables_->flows, flowCaptures_, log_},
        trees_->tree(tracker.type), tracker);
    if (options_.readFile.empty()) continue;
    ++filesUnderWay_;
    path->fileIs(std::make_unique<CaptureFile>(options_.readFile),
                 [this](bool sent) { handleFileDone(sent); });
  }
}

bool Agent::tracksPackets(const TrackerSettings& tracker) const {
  return tracker.type == FlowTracking::FlowTrackingType::software &&
         (!tracker.interfaces.empty() || !options_.readFile.empty());
}

/// Looks at the file that is to be read, and lets its interfaces stand for this machine's.
bool Agent::openFile(const Settings& settings) {
  if (options_.readFile.empty()) return true;
  const auto& all = settings.trackers;
  if (std::none_of(all.begin(), all.end(),
                   [this](const auto& t) { return tracksPackets(t.second); })) {
    log_.error("not started: " + configName() + " has no tracker of type \"software\" to read " +
               printable(options_.readFile) + " with");
    return false;
  }
  try {
    CaptureFile file(options_.readFile);
    Packet packet;
    // Interfaces stand before their packets; a file without any is not read to its end for that.
    file.goOnIs([pieces = 0]() mutable { return ++pieces < piecesMax; });
    file.next(packet);
    const auto network = vrfNetworkFactory(VrfName(std::string(defaultVrf)));
    const auto slash = options_.readFile.rfind('/');
    const std::string base = options_.readFile.substr(slash + 1);  // npos + 1 is 0
    for (uint32_t n = 1; n <= file.interfaces(); ++n) {
      std::string name(file.interfaceName(n));
      if (name.empty()) name = base.substr(0, 200) + ':' + std::to_string(n);
      network->linkIs(n, name, 0);
    }
    network->presentIs(true);
    fileNetworks_ = networkListFactory();
    fileNetworks_->networkIs(network);
  } catch (const std::exception& e) {
    log_.error("not started: " + std::string(e.what()));
    return false;
  }
  return true;
}

void Agent::handleFileDone(bool sent) {
  fileFailed_ = fileFailed_ || !sent;
  if (--filesUnderWay_ > 0) return;
  std::set<std::string> said;  // each tracker read the same file
  for (const auto& [name, path] : flowPaths_) {
    if (!path->file()) continue;
    if (path->file()->done()) {
      const CaptureFile& file = path->file()->file();
      for (const std::string& warning : file.warnings())
        if (said.insert(warning).second) log_.warning(warning);
      if (!file.error().empty() && said.insert(file.error()).second) log_.error(file.error());
      fileFailed_ = fileFailed_ || !file.error().empty();
    }
    log_.info("tracker " + printable(name) + ": " + path->summary());
  }
  loop_->stop();
}

/// Ends the paths of trackers that track packets no more. Their flows are reported while their
/// exporters are there: returns the settings with those trackers as they were, until `later_`.
Settings Agent::leaveFlows(const Settings& settings) {
  for (auto it = flowPaths_.begin(); it != flowPaths_.end();) {
    const auto tracker = settings.trackers.find(it->first);
    if (tracker != settings.trackers.end() && tracksPackets(tracker->second)) {
      ++it;
      continue;
    }
    it->second->endSoon();
    it->second->hide();
    leavingPaths_.push_back(std::move(it->second));
    it = flowPaths_.erase(it);
  }
  // Few flows are reported here and now, and the new settings hold as soon as this returns.
  const auto end = std::chrono::steady_clock::now() + leaveShare;
  const auto left = [](const auto& path) { return path->left(); };
  while (std::erase_if(leavingPaths_, left), !leavingPaths_.empty()) {
    if (std::chrono::steady_clock::now() >= end) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  Settings now = settings;
  later_.reset();
  for (const auto& path : leavingPaths_) {
    const auto& before = entities_->settings().trackers;
    const auto old = before.find(path->tracker());
    const auto tracker = now.trackers.find(path->tracker());
    if (old == before.end() ||
        (tracker != now.trackers.end() && tracker->second.type == old->second.type))
      continue;
    now.trackers.insert_or_assign(old->first, old->second);
    later_ = settings;
  }
  if (!leavingPaths_.empty()) leavingTask_->scheduleIs(finishPoll);
  return now;
}

void Agent::handleLeaving() {
  std::erase_if(leavingPaths_, [](const auto& path) { return path->ended(); });
  if (!leavingPaths_.empty()) {
    leavingTask_->scheduleIs(finishPoll);
  } else if (const auto settings = std::exchange(later_, std::nullopt)) {
    log_.info("the reload is complete, flows under way were reported: " +
              describe(apply(*settings)));
  }
}

void Agent::finish() {
  if (std::exchange(finishing_, true)) {
    loop_->stop();
    return;
  }
  ServiceManager::stopping();
  log_.tell(Severity::info, "stopping");
  leavingTask_->stop();
  for (const auto& [name, path] : flowPaths_) path->endSoon();
  const auto end = std::chrono::steady_clock::now() + finishMax;
  finishTask_ = loop_->taskScheduler()->timerTask("agentFinish", afterAll, [this, end] {
    bool ended = true;
    for (const auto& [name, path] : flowPaths_) ended = path->ended() && ended;
    for (const auto& path : leavingPaths_) ended = path->ended() && ended;
    const bool late = std::chrono::steady_clock::now() >= end;
    if (late && !ended)
      log_.warning("flows under way are still being reported: the rest leaves at once");
    if (late || ended) {
      loop_->stop();
    } else {
      finishTask_->scheduleIs(finishPoll);
    }
  });
  finishTask_->scheduleIs(Seconds(0));
}

}  // namespace agent
