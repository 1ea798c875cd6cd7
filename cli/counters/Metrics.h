#pragma once
#include <optional>
#include <string>
#include <vector>

#include "cli/counters/Counters.h"
#include "cli/counters/MetricsServer.h"

namespace cli {

/// Everything that is known of the agent, by the naming rules of Prometheus. For an agent that does
/// not run there is `tarnflow_up 0` and no counter: its last values are out of date.
std::string metricsText(const Counters& collectors,
                        const std::vector<FlowTracking::FlowPathRecord>& flows,
                        MetricsFormat format);

struct MetricsOptions {
  std::string name = "/tarnflow";  ///< of the shared memory
  std::string listen = "127.0.0.1:9739";
  std::string textFile;            ///< instead of listening
  std::optional<double> interval;  ///< seconds between two writings of the file; none: write once
};

/// Serves the metrics over HTTP, or writes them into a file, until SIGINT or SIGTERM. The exit
/// status: 0; 1 when it could not begin, or when a file that is written once could not be.
int metrics(const MetricsOptions& options);

}  // namespace cli
