/// A complete agent: it tells a collector the templates of its records and the names of this
/// machine's interfaces.
///
///   tarnflow listen --tables &
///   minimal_agent 127.0.0.1 127.0.0.1   # from one address to port 4739 of the other
#include <net/if.h>
#include <sys/epoll.h>

#include <cstdio>

#include "Ipfix/CollectorStats.h"
#include "Ipfix/FlowTrackerTemplateSm.h"
#include "Ipfix/IpfixSm.h"
#include "Ipfix/OptionsDataManagerSm.h"
#include "platform/linux/EventLoop.h"
#include "platform/linux/LinuxPlatform.h"
#include "platform/linux/ShmTable.h"
#include "platform/linux/SignalDescriptor.h"

/// Where the library's lines go.
struct Output : platform::TraceSink, platform::LogSink {
  bool enabled(int level) const override { return level <= platform::TraceLevel::error; }
  void line(int, std::string_view text) override { std::puts(std::string(text).c_str()); }
  void log(const platform::LogMessage& message, std::span<const std::string> args) override {
    std::puts(logText(message, args).c_str());
  }
};

/// A record of four fields: source, destination, octets, packets.
platform::Ptr<HwFlowTracking::TemplateStatus> flowTemplate(const Ipfix::ElementIdColl& registry) {
  auto status = HwFlowTracking::templateStatusFactory(FlowTracking::TemplateId(300));
  uint32_t position = 0;
  for (const uint16_t id : {8, 12, 1, 2}) {
    HwFlowTracking::FtTemplateEntry entry(position++, id);
    entry.fieldLenIs(registry.elementIdColl(Ipfix::RecordType(id)).len());
    status->ftTemplateEntryIs(entry);
  }
  return status;
}

void run(platform::IpAddr source, platform::IpAddr collector) {
  using Tarn::Ipfix::CollectorStatistics;
  // The host's side: one thread with its loop, sockets, shared memory for the counters.
  Output output;
  const auto loop = platform::eventLoopFactory();
  const auto platform = platform::linuxPlatform(loop, output, output);
  platform::Platform::install(platform.get());
  const auto statistics = Tarn::Ipfix::collectorStatisticsFactory(platform::shmTableFactory(
      "/minimal-agent", CollectorStatistics::keyLen, CollectorStatistics::valueLen, 16));
  const auto shared = Ipfix::ipfixInitSmFactory();

  // What is configured, and what is there: all of it may change, and what runs follows.
  const auto exporter = HwFlowTracking::exporterConfigFactory("main");
  exporter->srcIpAddrIs(source);
  exporter->collectorIpAndPortIs("one", {collector, 4739});
  exporter->templateIntervalIs(10'000);
  const auto tracker = HwFlowTracking::ftConfigFactory("flows", 1);  // observation domain 1
  tracker->expConfigIs(exporter);
  const auto config = HwFlowTracking::configFactory();
  config->ftConfigIs(tracker);
  const auto trackerStatus = HwFlowTracking::ftStatusFactory("flows");
  trackerStatus->templateStatusIs(flowTemplate(*shared->elementIdCollection()));
  const auto status = HwFlowTracking::statusFactory();
  status->ftStatusIs(trackerStatus);
  const auto interfaces = FlowTracking::intfIndexMapFactory();
  const auto links = if_nameindex();
  for (auto link = links; link && link->if_index; ++link)
    interfaces->intfIndexIs(platform::IntfId(link->if_name), link->if_index);
  if_freenameindex(links);
  const auto vrfs = Vrf::VrfIdMap::statusFactory();  // this agent knows of none

  // The library's side: information opens the endpoints, templates and options data use them.
  const auto scheduler = loop->taskScheduler();
  const auto info = flowTrackingInfoFactory(FlowTracking::FlowTrackingType::software);
  const auto infoSm = flowTrackingInfoSmFactory(loop, config, info, shared->agentInfo());
  const auto templates = templateSmFactory(FlowTracking::configReqFactory(), config, status, info,
                                           shared->elementIdCollection(), statistics, scheduler);
  const auto optionsData =
      optionsDataManagerSmFactory(config, status, info, interfaces, vrfs, statistics, scheduler);

  const auto stops = platform::signalDescriptor({SIGINT, SIGTERM});
  const auto watch = loop->fdWatch(stops.get(), EPOLLIN, [&](uint32_t) { loop->stop(); });
  loop->run();
}

int main(int argc, char** argv) try {
  const auto source = platform::IpAddr::fromString(argc == 3 ? argv[1] : "");
  const auto collector = platform::IpAddr::fromString(argc == 3 ? argv[2] : "");
  if (source && collector) return run(*source, *collector), 0;
  return std::fputs("usage: minimal_agent SOURCE COLLECTOR\n", stderr), 2;
} catch (const platform::ErrnoException& e) {
  return std::fprintf(stderr, "%s\n", e.what()), 1;
}
