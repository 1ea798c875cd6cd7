#include <benchmark/benchmark.h>

#include <chrono>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "Ipfix/FlowTrackerTemplateSm.h"
#include "Ipfix/IpfixSm.h"
#include "Ipfix/MessageBuilder.h"
#include "Ipfix/OptionsDataManagerSm.h"
#include "platform/linux/LinuxPlatform.h"
#include "platform/linux/ShmTable.h"
#include "platform/sim/SimPlatform.h"
#include "tests/support/Net.h"

using namespace platform;
using namespace FlowTracking;

namespace {

struct Installed {
  Installed() { Platform::install(sim.get()); }
  ~Installed() { Platform::install(nullptr); }
  std::unique_ptr<SimPlatform> sim = simPlatform();
};

// --- Notification: what one change of an attribute costs, by the number of watchers ---

class Counting final : public HwFlowTracking::ExporterConfig::Watcher {
 public:
  using Watcher::Watcher;
  void handleDscp() override { ++heard; }
  uint64_t heard = 0;
};
void notification(benchmark::State& state) {
  const auto config = HwFlowTracking::exporterConfigFactory("e");
  std::vector<std::unique_ptr<Counting>> watchers;
  for (int64_t i = 0; i < state.range(0); ++i)
    watchers.push_back(std::make_unique<Counting>(config));
  unsigned dscp = 0;
  for (auto _ : state) config->dscpIs(DscpValue(++dscp & 63));
  if (!watchers.empty() && watchers.front()->heard + 1 < uint64_t(state.iterations()))
    state.SkipWithError("a watcher did not hear");
}
BENCHMARK(notification)->Arg(0)->Arg(1)->Arg(4)->Arg(64);

/// Watchers of one entity leave, the first first: each costs the same, however many there are.
void watchersLeave(benchmark::State& state) {
  const auto config = HwFlowTracking::exporterConfigFactory("e");
  std::vector<std::unique_ptr<Counting>> watchers(size_t(state.range(0)));
  for (auto _ : state) {
    for (auto& w : watchers) w = std::make_unique<Counting>(config);
    for (auto& w : watchers) w.reset();
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(watchersLeave)->Arg(100)->Arg(10000)->Arg(100000);

// --- Message building, beside copying the same octets and nothing else ---

constexpr size_t recordLen = 17;
constexpr uint16_t maxMsg = 1452;

std::vector<Ptr<DataRecord>> someRecords(size_t n) {
  std::vector<Ptr<DataRecord>> records;
  for (size_t i = 0; i < n; ++i)
    records.push_back(dataRecordFactory(std::string(recordLen, static_cast<char>(i))));
  return records;
}
void messageBuilding(benchmark::State& state) {
  const Installed host;
  const auto records = someRecords(size_t(state.range(0)));
  for (auto _ : state) {
    const auto builder = messageBuilderFactory(maxMsg, 1);
    builder->startMsg();
    for (const auto& r : records) {
      if (builder->addSetRecord(256, *r)) continue;
      benchmark::DoNotOptimize(builder->finalizeMsg());
      builder->startMsg();
      builder->addSetRecord(256, *r);
    }
    benchmark::DoNotOptimize(builder->finalizeMsg());
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(messageBuilding)->Arg(1000)->Arg(100000);

void copyingTheSameOctets(benchmark::State& state) {
  const auto records = someRecords(size_t(state.range(0)));
  for (auto _ : state) {
    std::unique_ptr<char[]> block(new char[maxMsg]);
    size_t at = 20;
    for (const auto& r : records) {
      if (at + r->dataLen() > maxMsg) {
        benchmark::DoNotOptimize(block.get());
        block.reset(new char[maxMsg]);
        at = 20;
      }
      std::memcpy(block.get() + at, r->data().data(), r->dataLen());
      at += r->dataLen();
    }
    benchmark::DoNotOptimize(block.get());
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(copyingTheSameOctets)->Arg(1000)->Arg(100000);

// --- One template transmission to N collectors: real sockets on loopback, real shared memory ---

class NoTrace final : public TraceSink {
 public:
  bool enabled(int) const override { return false; }
  void line(int, std::string_view) override {}
};
class NoLog final : public LogSink {
 public:
  void log(const LogMessage&, std::span<const std::string>) override {}
};

void templateSend(benchmark::State& state) {
  NoTrace noTrace;
  NoLog noLog;
  const auto loop = eventLoopFactory();
  const auto linux = linuxPlatform(loop, noTrace, noLog, {.paceBurst = 0});
  Platform::install(linux.get());
  {
    const auto init = ::Ipfix::ipfixInitSmFactory();
    const auto config = HwFlowTracking::configFactory();
    const auto status = HwFlowTracking::statusFactory();
    const auto info = flowTrackingInfoFactory(FlowTrackingType::software);
    const auto stats = Tarn::Ipfix::collectorStatisticsFactory(
        shmTableFactory("/tarnflow-bench", Tarn::Ipfix::CollectorStatistics::keyLen,
                        Tarn::Ipfix::CollectorStatistics::valueLen, 4096));
    const auto tracker = HwFlowTracking::ftConfigFactory("ft", 1);
    const auto exporter = HwFlowTracking::exporterConfigFactory("exp");
    exporter->srcIpAddrIs(IpAddr(0x7f000001));
    // Whom nobody reads: a closed port would answer each message with an error.
    std::vector<std::unique_ptr<support::Receiver>> collectors;
    for (int64_t i = 0; i < state.range(0); ++i) {
      collectors.push_back(std::make_unique<support::Receiver>(IpAddr(0x7f000001)));
      exporter->collectorIpAndPortIs("c" + std::to_string(i),
                                     {IpAddr(0x7f000001), collectors.back()->port()});
    }
    tracker->expConfigIs(exporter);
    config->ftConfigIs(tracker);
    const auto ftStatus = HwFlowTracking::ftStatusFactory("ft");
    const auto tmpl = HwFlowTracking::templateStatusFactory(256);
    for (uint32_t i = 0; i < 12; ++i) {
      HwFlowTracking::FtTemplateEntry e(i, 8);
      e.fieldLenIs(4);
      tmpl->ftTemplateEntryIs(e);
    }
    ftStatus->templateStatusIs(tmpl);
    status->ftStatusIs(ftStatus);
    const auto infoSm = flowTrackingInfoSmFactory(loop, config, info, init->agentInfo());
    const auto templateSm =
        templateSmFactory(configReqFactory(), config, status, info, init->elementIdCollection(),
                          stats, loop->taskScheduler());
    loop->runOnce(Seconds(0));
    uint32_t gen = 1;
    for (auto _ : state) {  // a new generation: the message is rebuilt and sent to everybody
      tmpl->genIdIs(++gen);
      loop->runOnce(Seconds(0));
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
    const auto sent = templateSm->ftTemplateSm("ft")->ftExporterSm("exp")->templateTxCount();
    if (sent < state.iterations() * state.range(0)) state.SkipWithError("not everybody was sent");
  }
  Platform::install(nullptr);
}
BENCHMARK(templateSend)->Arg(1)->Arg(8)->Arg(64)->Arg(512);

// --- Trackers and exporters that go: each costs the same, however many there are ---

void removal(benchmark::State& state) {
  const auto name = [](int64_t i) { return "n" + std::to_string(i); };
  const int64_t trackers = state.range(0);
  const int64_t exporters = state.range(1);
  for (auto _ : state) {
    const Installed host;
    const auto init = ::Ipfix::ipfixInitSmFactory();
    const auto config = HwFlowTracking::configFactory();
    const auto status = HwFlowTracking::statusFactory();
    const auto info = flowTrackingInfoFactory(FlowTrackingType::software);
    const auto stats = Tarn::Ipfix::collectorStatisticsFactory(
        simTableFactory(Tarn::Ipfix::CollectorStatistics::keyLen,
                        Tarn::Ipfix::CollectorStatistics::valueLen, 65536));
    for (int64_t t = 0; t < trackers; ++t) {
      const auto tracker = HwFlowTracking::ftConfigFactory(name(t), uint32_t(t));
      for (int64_t e = 0; e < exporters; ++e) {
        const auto exporter = HwFlowTracking::exporterConfigFactory(name(e));
        exporter->srcIpAddrIs(IpAddr(0x7f000001));
        exporter->collectorIpAndPortIs("c", {IpAddr(0x7f000001), 4739});
        tracker->expConfigIs(exporter);
      }
      config->ftConfigIs(tracker);
      status->ftStatusIs(HwFlowTracking::ftStatusFactory(name(t)));
    }
    const auto scheduler = host.sim->scheduler();
    const auto infoSm =
        flowTrackingInfoSmFactory(host.sim->schedulerRoot(), config, info, init->agentInfo());
    const auto templates = templateSmFactory(configReqFactory(), config, status, info,
                                             init->elementIdCollection(), stats, scheduler);
    const auto manager =
        optionsDataManagerSmFactory(config, status, info, intfIndexMapFactory(),
                                    Vrf::VrfIdMap::statusFactory(), stats, scheduler);
    host.sim->advance(Seconds(2));
    const auto begun = std::chrono::steady_clock::now();
    if (exporters > 1) {
      for (int64_t e = 0; e < exporters; ++e) config->ftConfig(name(0))->expConfigDel(name(e));
    } else {
      for (int64_t t = 0; t < trackers; ++t) config->ftConfigDel(name(t));
    }
    host.sim->runDue();
    state.SetIterationTime(
        std::chrono::duration<double>(std::chrono::steady_clock::now() - begun).count());
    if (host.sim->openEndpoints() > 0) state.SkipWithError("an endpoint stayed open");
  }
  state.SetItemsProcessed(state.iterations() * trackers * exporters);
}
BENCHMARK(removal)
    ->ArgNames({"trackers", "exporters"})
    ->Args({1000, 1})
    ->Args({10000, 1})
    ->Args({1, 1000})
    ->Args({1, 10000})
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

// --- Statistics: read, add, write back one entry ---

void statisticsUpdate(benchmark::State& state) {
  const Installed host;
  using namespace Tarn::Ipfix;
  const auto stats = collectorStatisticsFactory(shmTableFactory(
      "/tarnflow-bench", CollectorStatistics::keyLen, CollectorStatistics::valueLen, 4096));
  std::vector<CollectorStatisticsKey> keys;
  for (int64_t i = 0; i < state.range(0); ++i)
    keys.emplace_back("tracker", "exporter",
                      Tarn::Ipfix::CollectorInfo(IpAddr(uint32_t(i + 1)), 4739));
  size_t next = 0;
  for (auto _ : state) {
    const auto& key = keys[next++ % keys.size()];
    auto entry = stats->stats(key).value_or(CollectorStatisticsEntry(key));
    entry.exportedMessageTotalCountInc(1);
    auto set = entry.setEntry(SetId(256));
    set.setIdIs(256);
    set.exportedFlowRecordCountInc(10);
    entry.setEntryIs(set);
    stats->statsIs(entry);
  }
}
BENCHMARK(statisticsUpdate)->Arg(1)->Arg(1000);

}  // namespace
