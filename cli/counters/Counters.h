#pragma once
#include <array>
#include <functional>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "Ipfix/CollectorStats.h"
#include "platform/EndpointCounters.h"
#include "platform/FlowPathCounters.h"
#include "platform/linux/ShmTable.h"

namespace cli {

/// What the agent's counters were at one moment.
struct Counters {
  using Table = platform::ShmTableReader::Snapshot;
  using State = Table::State;

  /// The statistics table without its records, which are in `entries`. Those that are damaged count
  /// as unreadable, too.
  Table table;
  std::vector<Tarn::Ipfix::CollectorStatisticsEntry> entries;  ///< by tracker, exporter, collector
  double now = 0;  ///< what ages count from, UTC seconds
  /// What became of the datagrams in the kernel, by tracker, exporter, family. Empty where the
  /// agent keeps no such table.
  std::vector<FlowTracking::EndpointRecord> endpoints;
};
Counters countersFrom(Counters::Table table, double now);

/// The records of a table, those of another length than a `Record` left out.
template <class Record>
std::vector<Record> recordsOf(const Counters::Table& table) {
  std::vector<Record> records;
  for (const auto& octets : table.records)
    if (const auto record = Record::fromOctets(octets.value)) records.push_back(*record);
  return records;
}

/// The agent's tables in shared memory. Reading one throws ErrnoException where it may not be read.
class CounterTables {
 public:
  /// `name`: of the statistics table, beside which the others stand.
  explicit CounterTables(const std::string& name);
  /// Of this moment, the endpoints included.
  Counters counters();
  /// Of FlowPathRecord.
  Counters::Table flows() { return flows_->snapshot(); }

 private:
  const std::unique_ptr<platform::ShmTableReader> collectors_;
  const std::unique_ptr<platform::ShmTableReader> endpoints_;
  const std::unique_ptr<platform::ShmTableReader> flows_;
};

/// The name of an errno: "ENETUNREACH"; "other" for 0, which stands for several.
std::string causeName(uint64_t error);

/// Why no living agent's entries are shown, or what to think of those that are; empty when all is
/// well. `name`: of the statistics table.
std::string countersNote(const Counters& counters, const std::string& name);

/// By how much the messages, records and octets of one entry grew per second.
using CounterRates = std::array<double, 3>;
/// By key; an entry that is new, or was cleared in between, has none.
using RatesByKey = std::map<Tarn::Ipfix::CollectorStatisticsKey, CounterRates>;
/// The rates between two looks. Empty when they are of different runs of the agent.
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
/// What one look at the agent's tables shows.
struct Look {
  std::string text;  ///< for standard output: lines for people, or JSON
  std::string note;  ///< for standard error, where `text` is for people; may be empty
  int status = 0;    ///< the exit status, if this is the last look
};
/// Shows one look, or one each `options.watch` seconds until SIGINT or SIGTERM. Returns the exit
/// status: 1 where the tables may not be read, else that of the last look.
int showTables(const CountersOptions& options, const std::function<Look(CounterTables&)>& look);

std::string_view stateName(Counters::State state);
/// Why a table is not live; empty when it is.
std::string stateNote(const Counters::Table& table, const std::string& name);

/// Returns the exit status: 1 without a living agent or without entries, also when a dead agent's
/// last values are shown.
int showCounters(const CountersOptions& options);

}  // namespace cli
