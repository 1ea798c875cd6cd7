#include "agent/exports/SharedTables.h"

#include <algorithm>
#include <cerrno>
#include <stdexcept>

#include "agent/host/Priorities.h"
#include "agent/host/ServiceManager.h"
#include "platform/EndpointCounters.h"
#include "platform/FlowPathCounters.h"
#include "platform/UdpPam.h"
#include "platform/linux/ShmTable.h"

namespace agent {
namespace {
using Tarn::Ipfix::CollectorStatistics;

constexpr Seconds restoreInterval{10};
constexpr size_t capacityMin = 1024;  // records; of trackers there are never more

Ptr<SharedTable> make(const Settings& settings, std::string_view suffix, size_t keyLen,
                      size_t valueLen, size_t capacity) {
  try {
    return shmTableFactory(settings.statistics + std::string(suffix), keyLen, valueLen,
                           std::max(capacityMin, capacity),
                           ServiceManager::runtimeDirectory("/dev/shm"));
  } catch (const ErrnoException& e) {
    if (e.code().value() != EBUSY) throw;
    throw std::runtime_error(
        "the statistics " + settings.statistics +
        " have a living writer; stop it, or give this agent others in agent.statistics (" +
        e.what() + ')');
  }
}
}  // namespace

// There is room for twice the collectors and exporters of the settings, since reloads may bring
// more.
SharedTables::SharedTables(const Settings& settings, const Ptr<TaskScheduler>& scheduler,
                           AgentLog& log)
    : collectors(make(settings, "", CollectorStatistics::keyLen, CollectorStatistics::valueLen,
                      2 * count(settings).collectors)),
      statistics(Tarn::Ipfix::collectorStatisticsFactory(collectors)),
      flows(make(settings, FlowTracking::flowPathSuffix, sizeof(FlowTracking::FlowPathKey),
                 sizeof(FlowTracking::FlowPathRecord), capacityMin)),
      endpoints(make(settings, FlowTracking::endpointSuffix, sizeof(FlowTracking::EndpointKey),
                     sizeof(FlowTracking::EndpointRecord),
                     4 * count(settings).exporters)),  // two families each
      log_(log),
      restoreTask_(scheduler->timerTask("agent-restore", afterAll, [this] { restore(); })) {
  restoreTask_->scheduleIs(restoreInterval);
}

void SharedTables::restore() {
  restoreTask_->scheduleIs(restoreInterval);
  std::string failed;
  for (const auto& table : {collectors, flows, endpoints}) {
    try {
      if (const std::string wrong = shmTableRestore(*table); !wrong.empty())
        log_.warning(wrong + ": it is made again");
    } catch (const ErrnoException& e) {
      failed = e.what();
      if (failed != problem_) log_.warning("counters reach nobody: " + failed);
    }
  }
  problem_ = failed;
}

}  // namespace agent
