#pragma once
#include "cli/counters/Counters.h"

namespace cli {

/// What the software flow paths count, out of the segment beside the collectors' statistics:
/// `options.name` is that of the statistics. The exit status is 1 without a living agent or without
/// a tracker that looks at packets.
int showFlows(const CountersOptions& options);

}  // namespace cli
