#include <benchmark/benchmark.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "Ipfix/IpfixSm.h"
#include "Ipfix/OptionsDataManagerSm.h"
#include "platform/sim/SimPlatform.h"

/// Options data: packing, queueing, flushing, resending; each at several sizes, to show that the
/// cost per record stays.
namespace FlowTracking {
namespace {

constexpr uint32_t maxMsg = 1452;

/// One exporter over an interface table of `n` records, on simulated time; endpoints that only
/// count.
class Bed {
 public:
  explicit Bed(size_t n, size_t collectors = 0) {
    Platform::install(sim_.get());
    init_ = ::Ipfix::ipfixInitSmFactory();
    for (uint32_t i = 1; i <= n; ++i) intfs->intfIndexIs(IntfId("Ethernet" + std::to_string(i)), i);
    const auto tracker = HwFlowTracking::ftConfigFactory("ft", 1);
    exporter->srcIpAddrIs(IpAddr(1));
    for (size_t i = 0; i < collectors; ++i)
      exporter->collectorIpAndPortIs("c" + std::to_string(i),
                                     {IpAddr(2), static_cast<uint16_t>(1 + i)});
    tracker->expConfigIs(exporter);
    hwConfig_->ftConfigIs(tracker);
    hwStatus_->ftStatusIs(HwFlowTracking::ftStatusFactory("ft"));
    info = flowTrackingInfoFactory(FlowTrackingType::software);
    infoSm_ = flowTrackingInfoSmFactory(sim_->schedulerRoot(), hwConfig_, info, init_->agentInfo());
    manager_ =
        optionsDataManagerSmFactory(hwConfig_, hwStatus_, info, intfs,
                                    Vrf::VrfIdMap::statusFactory(), stats_, sim_->scheduler());
    for (const auto& [name, collector] : info->ftInfo("ft")->expInfo("e")->collInfo())
      collector->optTemplateSentIs(true);
    run();
  }
  ~Bed() {
    manager_ = nullptr;
    infoSm_ = nullptr;
    info = nullptr;
    Platform::install(nullptr);
  }
  void run() {
    sim_->runDue();
    sim_->takeSent();
  }
  void pass(double seconds) { sim_->advance(Seconds(seconds)); }
  size_t sent() { return sim_->takeSent().size(); }
  Ptr<OptionsDataSource> table() {
    return manager_->dataAll()->globalData()->source("InterfaceTable");
  }
  Ptr<OptionsDataUpdate> slot() { return manager_->dataAll()->globalUpdate(); }
  Ptr<OptionsDataExporterSm> exporterSm() { return manager_->ftManagerSm("ft")->exporterSm("e"); }

  Ptr<IntfIndexMap> intfs = intfIndexMapFactory();
  Ptr<HwFlowTracking::ExporterConfig> exporter = HwFlowTracking::exporterConfigFactory("e");
  Ptr<FlowTrackingInfo> info;

 private:
  std::unique_ptr<SimPlatform> sim_ = simPlatform();
  Ptr<::Ipfix::IpfixInitSm> init_;
  Ptr<HwFlowTracking::Config> hwConfig_ = HwFlowTracking::configFactory();
  Ptr<HwFlowTracking::Status> hwStatus_ = HwFlowTracking::statusFactory();
  Ptr<Tarn::Ipfix::CollectorStatistics> stats_ = Tarn::Ipfix::collectorStatisticsFactory(
      simTableFactory(Tarn::Ipfix::CollectorStatistics::keyLen,
                      Tarn::Ipfix::CollectorStatistics::valueLen, 1024));
  Ptr<FlowTrackingInfoSm> infoSm_;
  Ptr<OptionsDataManagerSm> manager_;
};

/// What the exporter does to fill its cache, from one source.
void packing(benchmark::State& state) {
  Bed bed(static_cast<size_t>(state.range(0)));
  const auto table = bed.table();
  std::vector<Ptr<MessageWrapper>> cache;
  for (auto _ : state) {
    cache.clear();
    BuilderWrapper builder(maxMsg, 1);
    builder.startMsg();
    const auto places = table->places();
    for (auto it = places.begin();;) {
      it = builder.addSetRecords(table->dataSetId(), it, places.end());
      if (it == places.end()) break;
      cache.push_back(builder.finalizeMsg());
      builder.startMsg();
    }
    cache.push_back(builder.finalizeMsg());
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(table->dataRecords()));
}
/// The same octets into the same number of blocks, kept as long, and nothing else.
void copying(benchmark::State& state) {
  Bed bed(static_cast<size_t>(state.range(0)));
  const auto table = bed.table();
  std::vector<std::unique_ptr<char[]>> cache;
  for (auto _ : state) {
    cache.clear();
    std::unique_ptr<char[]> block(new char[maxMsg]);
    size_t at = 20;
    table->eachDataRecord([&](const Ptr<const DataRecord>& r) {
      const auto octets = r->data();
      if (at + octets.size() > maxMsg) {
        cache.push_back(std::move(block));
        block.reset(new char[maxMsg]);
        at = 20;
      }
      std::memcpy(block.get() + at, octets.data(), octets.size());
      at += octets.size();
    });
    cache.push_back(std::move(block));
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(table->dataRecords()));
}
BENCHMARK(packing)->Arg(1000)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMicrosecond);
BENCHMARK(copying)->Arg(1000)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMicrosecond);

/// A changed record on its way into the exporter's queue, with `n` already there.
void addUpdateToQueue(benchmark::State& state) {
  Bed bed(0, 1);
  bed.exporterSm()->updateDataCoalesceTimeIs(1e6);
  const auto record = dataRecordFactory(std::string(17, 'x'));
  for (auto _ : state) {
    state.PauseTiming();
    bed.run();
    state.ResumeTiming();
    for (int64_t i = 0; i < state.range(0); ++i) bed.slot()->addUpdate(300, record);
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(addUpdateToQueue)->Arg(1000)->Arg(100000);

void flush(benchmark::State& state) {
  Bed bed(0, 1);
  const auto record = dataRecordFactory(std::string(17, 'x'));
  for (auto _ : state) {
    state.PauseTiming();
    for (int64_t i = 0; i < state.range(0); ++i) bed.slot()->addUpdate(300, record);
    state.ResumeTiming();
    bed.pass(0);
    state.PauseTiming();
    if (bed.sent() == 0) state.SkipWithError("nothing was flushed");
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(flush)->Arg(1000)->Arg(100000);

/// A full transmission out of the cache: per message and collector.
void resend(benchmark::State& state) {
  Bed bed(static_cast<size_t>(state.range(0)), static_cast<size_t>(state.range(1)));
  const size_t messages = bed.exporterSm()->msgCacheSize() * static_cast<size_t>(state.range(1));
  for (auto _ : state) {
    bed.pass(300);
    state.PauseTiming();
    if (bed.sent() != messages) state.SkipWithError("not every message was sent");
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(messages));
}
BENCHMARK(resend)
    ->Args({1000, 1})
    ->Args({100000, 1})
    ->Args({100000, 8})
    ->Unit(benchmark::kMicrosecond);

/// One interface changes among `n`: what the table's keeper and the exporter do at once.
void oneChange(benchmark::State& state) {
  Bed bed(static_cast<size_t>(state.range(0)), 1);
  bed.exporterSm()->updateDataCoalesceTimeIs(1e6);
  uint32_t index = 5000000;
  for (auto _ : state) bed.intfs->intfIndexIs(IntfId("Ethernet1"), ++index);
}
BENCHMARK(oneChange)->Arg(1000)->Arg(100000)->Arg(1000000);

}  // namespace
}  // namespace FlowTracking
