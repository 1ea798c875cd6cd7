#pragma once
#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "Ipfix/CollectorStats.h"
#include "platform/EndpointCounters.h"
#include "platform/linux/ShmTable.h"

namespace cli {

/// What the statistics table held at one moment.
struct Counters {
  using State = platform::ShmTableReader::Snapshot::State;
  State state = State::absent;
  int writerPid = 0;
  double startTime = 0;  ///< UTC seconds
  uint64_t generation = 0;
  size_t unreadable = 0;  ///< entries under change at every try, or damaged
  std::vector<Tarn::Ipfix::CollectorStatisticsEntry> entries;  ///< by tracker, exporter, collector
  double now = 0;                                              ///< what ages count from
  std::vector<FlowTracking::EndpointRecord> endpoints;         ///< by tracker, exporter, family
};
/// What became of the datagrams in the kernel; none where the agent keeps no such table.
std::vector<FlowTracking::EndpointRecord> endpointsFrom(
    const platform::ShmTableReader::Snapshot& snapshot);
/// "ENETUNREACH"; "other" for 0.
std::string causeName(uint64_t error);
Counters countersFrom(const platform::ShmTableReader::Snapshot& snapshot, double now);

/// A living agent's entries, at least one.
bool showable(const Counters& counters);
/// Why not, or what to think of the entries that are shown; empty when all is well.
std::string countersNote(const Counters& counters, const std::string& name);
/// What changed per second between two snapshots of one agent's counters.
struct CounterRates {
  double messages = 0;
  double records = 0;
  double octets = 0;
};
/// By key; an entry that is new, or was cleared in between, has none.
using RatesByKey = std::map<Tarn::Ipfix::CollectorStatisticsKey, CounterRates>;
/// Empty when the two snapshots are of different runs of the agent.
RatesByKey countersRates(const Counters& before, const Counters& now);

std::string countersText(const Counters& counters, const RatesByKey* rates = nullptr);
/// The same for programs; docs/tarnflow.md has the keys.
nlohmann::ordered_json countersJson(const Counters& counters, const std::string& name,
                                    const RatesByKey* rates = nullptr);

struct CountersOptions {
  std::string name = "/tarnflow";  ///< of the shared memory
  bool json = false;
  std::optional<double> watch;  ///< seconds between two snapshots; none: one snapshot
  std::string tracker;          ///< only its entries; empty: all
  std::string exporter;         ///< only its entries; empty: all
};
/// Shows a table of the agent's once, or again and again; `look` shows one snapshot, on a cleared
/// screen or not, and returns the exit status so far.
using Look =
    std::function<int(platform::ShmTableReader&, const CountersOptions&, bool clearScreen)>;
int showTable(const CountersOptions& options, size_t keyLen, size_t valueLen, const Look& look);

// What the tables have in common.
std::string_view stateName(Counters::State state);
/// Why a table that is not live is not; empty when it is.
std::string stateNote(Counters::State state, int writerPid, const std::string& name);

/// Returns the exit status: 1 without a living agent or without entries, also when a dead agent's
/// last values are shown.
int showCounters(const CountersOptions& options);

}  // namespace cli
