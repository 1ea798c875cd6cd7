/// The least that a program does to export templates with the library: it brings a platform, says
/// what is configured and what its records look like, and makes the root reactors.
///
///   tarnflow listen &
///   embed 127.0.0.1 127.0.0.1     # from one address to port 4739 of the other, until interrupted
#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <csignal>
#include <cstdio>

#include "Ipfix/CollectorStats.h"
#include "Ipfix/FlowTrackerInfoSm.h"
#include "Ipfix/FlowTrackerTemplateSm.h"
#include "Ipfix/IpfixSm.h"
#include "platform/linux/EventLoop.h"
#include "platform/linux/LinuxPlatform.h"
#include "platform/linux/ShmTable.h"

namespace {

/// Where the library's lines go.
class Output : public platform::TraceSink, public platform::LogSink {
 public:
  bool enabled(int level) const override { return level <= platform::TraceLevel::error; }
  void line(int, std::string_view text) override { print(std::string(text)); }
  void log(const platform::LogMessage& message, std::span<const std::string> args) override {
    print(logText(message, args));
  }

 private:
  static void print(const std::string& text) { std::fprintf(stderr, "%s\n", text.c_str()); }
};

/// A record of four fields: source, destination, octets, packets.
platform::Ptr<HwFlowTracking::TemplateStatus> flowTemplate(const Ipfix::ElementIdColl& registry) {
  auto status = HwFlowTracking::templateStatusFactory(FlowTracking::TemplateId(300));
  uint32_t position = 0;
  for (const uint16_t id : {8, 12, 1, 2}) {
    const Ipfix::ElementId& element = registry.elementIdColl(Ipfix::RecordType(id));
    HwFlowTracking::FtTemplateEntry entry(position++, element.id());
    entry.fieldLenIs(static_cast<uint16_t>(element.len()));
    status->ftTemplateEntryIs(entry);
  }
  return status;
}

int run(platform::IpAddr source, platform::IpAddr collector) {
  using Tarn::Ipfix::CollectorStatistics;
  // The host's side: one thread with its loop, sockets, shared memory for the counters.
  Output output;
  const auto loop = platform::eventLoopFactory();
  const auto platform = platform::linuxPlatform(loop, output, output);
  platform::Platform::install(platform.get());
  const auto statistics = Tarn::Ipfix::collectorStatisticsFactory(platform::shmTableFactory(
      "/tarnflow-embed", CollectorStatistics::keyLen, CollectorStatistics::valueLen, 16));
  const auto shared = Ipfix::ipfixInitSmFactory();

  // What is configured: exporter "main" of tracker "flows" (observation domain 1). All of it may
  // change at any time, and what runs follows.
  const auto exporter = HwFlowTracking::exporterConfigFactory("main");
  exporter->srcIpAddrIs(source);
  exporter->collectorIpAndPortIs("one", {collector, 4739});
  exporter->templateIntervalIs(10'000);
  const auto config = HwFlowTracking::configFactory();
  const auto tracker = HwFlowTracking::ftConfigFactory("flows", 1);
  tracker->expConfigIs(exporter);
  config->ftConfigIs(tracker);
  const auto status = HwFlowTracking::statusFactory();
  const auto trackerStatus = HwFlowTracking::ftStatusFactory("flows");
  trackerStatus->templateStatusIs(flowTemplate(*shared->elementIdCollection()));
  status->ftStatusIs(trackerStatus);

  // The library's side: the information tree opens the endpoints, the template tree sends.
  const auto info = flowTrackingInfoFactory(FlowTracking::FlowTrackingType::software);
  const auto infoSm = flowTrackingInfoSmFactory(loop, config, info, shared->agentInfo());
  const auto templates =
      templateSmFactory(FlowTracking::configReqFactory(), config, status, info,
                        shared->elementIdCollection(), statistics, loop->taskScheduler());

  sigset_t stops;
  sigemptyset(&stops);
  for (const int s : {SIGINT, SIGTERM}) sigaddset(&stops, s);
  sigprocmask(SIG_BLOCK, &stops, nullptr);
  const auto watch = loop->fdWatch(signalfd(-1, &stops, SFD_NONBLOCK | SFD_CLOEXEC), EPOLLIN,
                                   [&](uint32_t) { loop->stop(); });
  loop->run();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const auto source = platform::IpAddr::fromString(argc == 3 ? argv[1] : "");
  const auto collector = platform::IpAddr::fromString(argc == 3 ? argv[2] : "");
  if (!source || !collector) {
    std::fprintf(stderr, "usage: embed SOURCE COLLECTOR (IPv4 addresses)\n");
    return 2;
  }
  try {
    return run(*source, *collector);
  } catch (const platform::ErrnoException& e) {
    std::fprintf(stderr, "%s\n", e.what());
    return 1;
  }
}
