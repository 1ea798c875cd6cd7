#pragma once
#include <unistd.h>

#include <cstdio>
#include <string>

#include "Ipfix/FlowTrackerTemplateSm.h"
#include "Ipfix/IpfixSm.h"
#include "Ipfix/OptionsDataManagerSm.h"
#include "bench/Wire.h"
#include "platform/linux/ShmTable.h"

/// The library's reactors over real sockets and real shared memory.
namespace bench {
using namespace FlowTracking;

inline int64_t residentKib() {
  long pages = 0;
  if (FILE* f = std::fopen("/proc/self/statm", "r")) {
    if (std::fscanf(f, "%*s %ld", &pages) != 1) pages = 0;
    std::fclose(f);
  }
  return pages * (::sysconf(_SC_PAGESIZE) / 1024);
}

class Tree {
 public:
  /// `interfaces` records, one tracker with exporters that have collectors on ports of the wire.
  Tree(Host& host, uint32_t interfaces, size_t exporters, size_t collectors, bool veth = true)
      : host_(host) {
    for (uint32_t i = 1; i <= interfaces; ++i)
      intfs->intfIndexIs(IntfId("Ethernet" + std::to_string(i)), i);
    residentWithIndexMap = residentKib();
    const auto tracker = HwFlowTracking::ftConfigFactory("ft", 1);
    tracker->activeIntervalIs(3600000);
    for (size_t e = 0; e < exporters; ++e) {
      const auto exporter = HwFlowTracking::exporterConfigFactory("e" + std::to_string(e));
      exporter->srcIpAddrIs(Wire::source(veth));
      exporter->templateIntervalIs(3600000);
      for (size_t c = 0; c < collectors; ++c)
        exporter->collectorIpAndPortIs("c" + std::to_string(c),
                                       {Wire::address(veth), uint16_t(firstPort + c % ports)});
      tracker->expConfigIs(exporter);
    }
    config->ftConfigIs(tracker);
    status->ftStatusIs(HwFlowTracking::ftStatusFactory("ft"));
    infoSm = flowTrackingInfoSmFactory(host.loop, config, info, init->agentInfo());
    templates = templateSmFactory(configReqFactory(), config, status, info,
                                  init->elementIdCollection(), stats, host.loop->taskScheduler());
    manager =
        optionsDataManagerSmFactory(config, status, info, intfs, Vrf::VrfIdMap::statusFactory(),
                                    stats, host.loop->taskScheduler());
  }
  Ptr<OptionsDataExporterSm> exporter(size_t n = 0) const {
    return manager->ftManagerSm("ft")->exporterSm("e" + std::to_string(n));
  }
  Ptr<UdpPam> pam(size_t n = 0) const {
    return info->ftInfo("ft")->expInfo("e" + std::to_string(n))->udpPam4();
  }
  void settle() {
    for (int quiet = 0; quiet < 3;) {
      const uint64_t before = sent();
      host_.loop->runOnce(Seconds(0.002));
      quiet = sent() == before ? quiet + 1 : 0;
    }
  }
  uint64_t sent() const {
    uint64_t all = 0;
    for (const auto& [name, e] : info->ftInfo("ft")->expInfo())
      if (e->udpPam4()) all += e->udpPam4()->counters().sent;
    return all;
  }
  /// Sends each collector of the exporter its tables, and returns when the kernel has them.
  void sendTables(size_t n = 0) {
    const auto sm = exporter(n);
    for (const auto& [name, collector] : sm->collector()) sm->handleCollector(name);
    do {
      host_.loop->runOnce(Seconds(0));
    } while (sm->transmissions() > 0 || pam(n)->counters().queued > 0);
  }

  Ptr<::Ipfix::IpfixInitSm> init = ::Ipfix::ipfixInitSmFactory();
  Ptr<HwFlowTracking::Config> config = HwFlowTracking::configFactory();
  Ptr<HwFlowTracking::Status> status = HwFlowTracking::statusFactory();
  Ptr<FlowTrackingInfo> info = flowTrackingInfoFactory(FlowTrackingType::software);
  Ptr<Tarn::Ipfix::CollectorStatistics> stats =
      Tarn::Ipfix::collectorStatisticsFactory(shmTableFactory(
          "/tarnflow-bench-" + std::to_string(::getpid()), Tarn::Ipfix::CollectorStatistics::keyLen,
          Tarn::Ipfix::CollectorStatistics::valueLen, 8192));
  Ptr<IntfIndexMap> intfs = intfIndexMapFactory();
  Ptr<FlowTrackingInfoSm> infoSm;
  Ptr<TemplateSm> templates;
  Ptr<OptionsDataManagerSm> manager;
  int64_t residentWithIndexMap = 0;  // KiB

 private:
  Host& host_;
};

}  // namespace bench
