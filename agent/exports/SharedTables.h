#pragma once
#include <memory>
#include <string>

#include "Ipfix/CollectorStats.h"
#include "agent/host/AgentLog.h"
#include "agent/settings/Settings.h"
#include "platform/SharedTable.h"
#include "platform/TaskScheduler.h"

namespace agent {

/// The shared memory in which other processes read the agent's counters.
class SharedTables {
 public:
  /// Throws std::runtime_error when another agent writes the tables of these settings, and
  /// ErrnoException when they cannot be made.
  SharedTables(const Settings& settings, const Ptr<TaskScheduler>& scheduler, AgentLog& log);

  /// Makes a table again that somebody removed or truncated. Runs by itself every 10 s, too.
  void restore();

  const Ptr<SharedTable> collectors;  ///< holds the statistics; cannot grow
  const Ptr<Tarn::Ipfix::CollectorStatistics> statistics;
  const Ptr<SharedTable> flows;      ///< a FlowPathRecord for each tracker
  const Ptr<SharedTable> endpoints;  ///< an EndpointRecord for each exporter and family

 private:
  AgentLog& log_;
  std::string problem_;  // why a table could not be made again, as the log has it
  const std::unique_ptr<TimerTask> restoreTask_;
};

}  // namespace agent
