#include <benchmark/benchmark.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <new>
#include <span>
#include <vector>

#include "Ipfix/CollectorStats.h"
#include "platform/linux/ShmTable.h"
#include "platform/sim/SimPlatform.h"

/// Publishing a collector's counters while other processes read them without a pause.
namespace bench {
namespace {
using namespace Tarn::Ipfix;
using Entry = CollectorStatisticsEntry;
constexpr size_t collectorsMax = 1000;
constexpr uint16_t lastSet = 256 + Entry::slots - 1;
const std::string tableName = "/tarnflow-bench-readers";

std::vector<Entry> entries(size_t n) {
  std::vector<Entry> all;
  for (size_t i = 0; i < n; ++i) {
    const CollectorInfo collector(platform::IpAddr(uint32_t(i + 1)), 4739);
    all.emplace_back(CollectorStatisticsKey("tracker", "exporter", collector));
    for (uint16_t set = 256; set <= lastSet; ++set) all.back().setEntryInc(SetId(set), 0, 0);
  }
  return all;
}
/// One more message of ten records. Their set is the last one of the entry: what is at its two ends
/// tells whether a copy is whole.
void raise(Entry& entry) {
  entry.exportedMessageTotalCountInc(1);
  entry.exportedFlowRecordTotalCountInc(10);
  entry.exportedOctetTotalCountInc(1400);
  entry.setEntryInc(SetId(lastSet), 10, 0);
}
bool whole(const Entry& entry, const CollectorStatisticsKey& key) {
  const uint64_t n = entry.exportedMessageTotalCount();
  return entry.key() == key && entry.exportedFlowRecordTotalCount() == 10 * n &&
         entry.exportedOctetTotalCount() == 1400 * n &&
         entry.setEntry(SetId(lastSet)).exportedFlowRecordCount() == 10 * n;
}

/// What writer and readers tell each other beside the table.
struct Shared {
  std::atomic<bool> stop;
  std::atomic<int> running;
  std::atomic<uint64_t> reads, torn, stale, unreadable;
  std::atomic<uint64_t> published[collectorsMax];  // messages that the entry has at least
};
Shared& sharedAnew() {
  static void* const memory =
      ::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  return *new (memory) Shared{};
}
/// One process. An entry is stale when it is older than what was published before the read began,
/// or than an earlier read.
void readOn(Shared& shared, const std::vector<Entry>& table) {
  const auto reader = platform::shmTableReader(tableName, CollectorStatistics::keyLen,
                                               CollectorStatistics::valueLen);
  std::vector<uint64_t> last(table.size());
  std::vector<std::byte> value;
  ++shared.running;
  for (size_t i = 0; !shared.stop; i = (i + 1) % table.size()) {
    const CollectorStatisticsKey& key = table[i].key();
    const uint64_t least = std::max(last[i], shared.published[i].load());
    if (!reader->get(std::as_bytes(std::span(&key, 1)), value)) {
      ++shared.unreadable;
      continue;
    }
    ++shared.reads;
    const auto entry = Entry::fromOctets(value);
    if (!entry || !whole(*entry, key)) {
      ++shared.torn;
    } else {
      last[i] = entry->exportedMessageTotalCount();
      if (last[i] < least) ++shared.stale;
    }
  }
}

void publish(benchmark::State& state) {
  const auto sim = platform::simPlatform();
  platform::Platform::install(sim.get());
  Shared& shared = sharedAnew();
  {
    const auto table = entries(size_t(state.range(0)));
    const auto stats = collectorStatisticsFactory(platform::shmTableFactory(
        tableName, CollectorStatistics::keyLen, CollectorStatistics::valueLen, 1024));
    for (const Entry& e : table) stats->statsIs(e);
    std::vector<pid_t> readers;
    for (int64_t n = 0; n < state.range(1); ++n) {
      readers.push_back(::fork());
      if (readers.back() != 0) continue;
      ::prctl(PR_SET_PDEATHSIG, SIGKILL);
      readOn(shared, table);
      ::_exit(0);
    }
    while (shared.running < state.range(1)) ::usleep(1000);
    size_t next = 0;
    for (auto _ : state) {  // as the sending does it
      const CollectorStatisticsKey& key = table[next].key();
      auto entry = stats->stats(key).value_or(Entry(key));
      raise(entry);
      stats->statsIs(entry);
      shared.published[next].store(entry.exportedMessageTotalCount(), std::memory_order_release);
      next = next + 1 == table.size() ? 0 : next + 1;
    }
    shared.stop = true;
    for (const pid_t pid : readers) ::waitpid(pid, nullptr, 0);
  }
  if (shared.torn > 0 || shared.stale > 0) state.SkipWithError("a torn or stale entry was read");
  state.counters["reads"] = double(shared.reads);
  state.counters["unreadable"] = double(shared.unreadable);
  platform::Platform::install(nullptr);
}
/// The same copies out and in, of memory that is the process's own.
void bareCopies(benchmark::State& state) {
  auto table = entries(size_t(state.range(0)));
  size_t next = 0;
  for (auto _ : state) {
    Entry entry = table[next];
    benchmark::DoNotOptimize(entry);
    raise(entry);
    std::memcpy(static_cast<void*>(&table[next]), &entry, sizeof entry);
    benchmark::ClobberMemory();
    next = next + 1 == table.size() ? 0 : next + 1;
  }
}
BENCHMARK(publish)
    ->ArgNames({"collectors", "readers"})
    ->ArgsProduct({{1, collectorsMax}, {0, 1, 4}});
BENCHMARK(bareCopies)->ArgName("collectors")->Arg(1)->Arg(collectorsMax);

}  // namespace
}  // namespace bench
