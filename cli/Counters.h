#pragma once
#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "Ipfix/CollectorStats.h"
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
};
Counters countersFrom(const platform::ShmTableReader::Snapshot& snapshot, double now);

/// A living agent's entries, at least one.
bool showable(const Counters& counters);
/// Why not, or what to think of the entries that are shown; empty when all is well.
std::string countersNote(const Counters& counters, const std::string& name);
std::string countersText(const Counters& counters);
/// The same for programs; docs/tarnflow.md has the keys.
nlohmann::ordered_json countersJson(const Counters& counters, const std::string& name);

struct CountersOptions {
  std::string name = "/tarnflow";  ///< of the shared memory
  bool json = false;
  std::optional<double> watch;  ///< seconds between two looks; none: one look
};
/// Shows a table of the agent's once, or again and again; `look` shows one snapshot, on a cleared
/// screen or not, and returns the exit status so far.
using Look =
    std::function<int(platform::ShmTableReader&, const CountersOptions&, bool clearScreen)>;
int showTable(const CountersOptions& options, size_t keyLen, size_t valueLen, const Look& look);

// What the tables have in common.
double utcNow();
std::string nameText(std::string_view name);
std::string_view stateName(Counters::State state);
/// Why a table that is not live is not; empty when it is.
std::string stateNote(Counters::State state, int writerPid, const std::string& name);

/// Returns the exit status: 1 without a living agent or without entries, also when a dead agent's
/// last values are shown.
int showCounters(const CountersOptions& options);

}  // namespace cli
