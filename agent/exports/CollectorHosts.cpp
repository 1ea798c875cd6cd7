#include "agent/exports/CollectorHosts.h"

#include <set>
#include <utility>

#include "agent/host/Priorities.h"

namespace agent {
namespace {
constexpr Seconds sendErrorsPoll{5};
}  // namespace

CollectorHosts::CollectorHosts(const Ptr<EventLoop>& loop, AgentLog& log, const LibraryTrees& trees,
                               std::function<void()> changed)
    : trees_(trees),
      changedTask_(
          loop->taskScheduler()->timerTask("agent-addresses", afterAll, std::move(changed))),
      sendErrorsTask_(loop->taskScheduler()->timerTask("agent-send-errors", afterAll,
                                                       [this] { handleSendErrors(); })),
      resolver_(loop, log, [this] { changedSoon(); }) {}

void CollectorHosts::follow(const Settings& settings) {
  std::set<std::string> hosts;
  for (const auto& [trackerName, tracker] : settings.trackers)
    for (const auto& [name, exporter] : tracker.exporters)
      for (const auto& [collectorName, collector] : exporter.collectors)
        if (!collector.host.empty()) hosts.insert(collector.host);
  resolver_.hostsAre(hosts, settings.resolveInterval);
  if (hosts.empty()) {
    sendErrorsTask_->stop();
  } else {
    sendErrorsTask_->scheduleLowestIs(sendErrorsPoll);
  }
}

void CollectorHosts::handleSendErrors() {
  uint64_t errors = 0;
  for (const auto& [type, tree] : trees_.all()) {
    if (!tree.info) continue;
    for (const auto& [trackerName, tracker] : tree.info->ftInfo())
      for (const auto& [name, exporter] : tracker->expInfo())
        for (const auto& pam : {exporter->udpPam4(), exporter->udpPam6()})
          if (pam) errors += pam->counters().dropped;
  }
  if (errors > std::exchange(sendErrors_, errors)) resolver_.lookUpAll();
  sendErrorsTask_->scheduleIs(sendErrorsPoll);
}

}  // namespace agent
