#pragma once
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "Ipfix/LocalCollectorConfigSm.h"
#include "agent/device/LocalCollectorDecoder.h"
#include "agent/device/LocalCollectorLoops.h"
#include "agent/host/AgentLog.h"
#include "agent/network/NetworkFollower.h"
#include "agent/records/FlowExport.h"
#include "platform/FlowPathCounters.h"
#include "platform/HwFlowTracking.h"
#include "platform/VrfStatus.h"

namespace agent {

/// Where a local collector's records go: to the exporters of its tracker.
struct LocalCollectorSink {
  /// Records, back to back, in the layout of data template `id`, which was published before.
  /// `lens`: the length that all of them have, or the length of each.
  std::function<void(FlowTracking::TemplateId id, std::span<const uint16_t> lens,
                     std::string_view records)>
      records;
  /// Sends the messages that records have gathered in.
  std::function<void()> flush;
  /// The same at the local collector's end: no call follows.
  std::function<void()> end;
  /// Whether the collectors have been told of the templates as they are published now.
  std::function<bool()> told;
  /// Datagrams that wait in the fullest endpoint to be sent.
  std::function<uint64_t()> queued;
  std::function<FlowExport::Counters()> counters;
  /// Records get the address of the device that sent them.
  bool exporterAddress = false;
};

struct LocalCollectorHost {
  Ptr<const FlowTracking::Config> config;  ///< in software-export mode
  Ptr<const Ipfix::ElementIdColl> registry;
  Ptr<const Ip::AllVrfStatusLocal> vrfs;
  Ptr<TaskScheduler> scheduler;
  AgentLog& log;
  Ptr<SharedTable> counters;  ///< of FlowPathRecord; null: not shown
  LocalCollectorLoops& loops;
};

/// The local collector of one tracker of type hardware: hears what devices send to the address of
/// one of the tracker's exporters, publishes their templates as the tracker's, and hands their
/// records on. What it has to refuse is counted, and told to the operator now and then. While more
/// waits to leave than `queuedMax` it does not read: what devices send then waits in the kernel's
/// buffer, and is lost and counted there when that is full.
class LocalCollector {
 public:
  static constexpr uint64_t queuedMax = 4096;  ///< datagrams; half a second at the usual pace

  LocalCollector(std::string trackerName, Ptr<HwFlowTracking::FtConfig> config,
                 Ptr<HwFlowTracking::FtStatus> status, const LocalCollectorHost& host,
                 LocalCollectorSink sink);
  /// Withdraws the templates, too.
  ~LocalCollector();
  LocalCollector(const LocalCollector&) = delete;
  LocalCollector& operator=(const LocalCollector&) = delete;

  const Ptr<HwFlowTracking::FtConfig>& config() const { return config_; }
  const LocalCollectorCounters& counters() const { return decoder_.counters(); }
  /// Datagrams of this agent's exporters that would come round for ever; they are not decoded.
  uint64_t loopedDatagrams() const { return looped_; }
  /// Datagrams for which the receive buffer had no room.
  uint64_t lostDatagrams() const { return lost_ + (heard_ ? heard_->counters().rxDropped : 0); }

 private:
  class PamsWatcher;
  class ReadyWatcher;
  class ConfigWatcher;
  class ExporterWatcher;

  std::unique_ptr<TimerTask> task(TaskScheduler& scheduler, const char* what,
                                  std::function<void()> run) const;
  void handlePam();
  void hear();
  void review();
  void handleExporterReady();
  void handleExporters();
  void handleLimits();
  void handleDatagram(std::string_view datagram, const IpGenAddr& from, uint16_t port);
  void handleSources() { loops_.exportersAre(trackerName_, *config_); }
  void handleTick();
  void publish(FlowTracking::TemplateId id, const PassedLayout& layout);
  void settle();
  void withdraw(FlowTracking::TemplateId id);
  void tellTroubles(const char* when);
  void tellCounters();

  const std::string trackerName_;
  const Ptr<HwFlowTracking::FtConfig> config_;
  const Ptr<HwFlowTracking::FtStatus> status_;
  AgentLog& log_;
  const Ptr<SharedTable> table_;
  LocalCollectorLoops& loops_;
  const LocalCollectorSink sink_;
  LocalCollectorDecoder decoder_;
  uint64_t looped_ = 0;
  std::string loopedOf_;  // the tracker that sent the last of them
  uint64_t lost_ = 0;     // in the receive buffers of endpoints that are gone
  // What the counters were when the log last had a line about them.
  LocalCollectorCounters told_;
  uint64_t loopedTold_ = 0;
  uint64_t lostTold_ = 0;
  uint64_t unsentTold_ = 0;
  int ticks_ = 0;
  std::string heardAt_;  // what the log said devices send to; empty: nothing
  Ptr<UdpPam> heard_;    // the endpoint whose datagrams come here

  const Ptr<FlowTracking::LocalCollectorPams> pams_;
  std::unique_ptr<TimerTask> settleTask_;
  std::unique_ptr<TimerTask> flushTask_;
  std::unique_ptr<TimerTask> reviewTask_;
  std::unique_ptr<TimerTask> tickTask_;
  std::unique_ptr<PamsWatcher> pamsWatcher_;
  std::unique_ptr<ReadyWatcher> readyWatcher_;
  std::unique_ptr<ConfigWatcher> configWatcher_;
  std::map<std::string, std::unique_ptr<ExporterWatcher>> exporterWatchers_;
  Ptr<FlowTracking::LocalCollectorConfigSm> sm_;
};

/// The local collectors of all trackers of type hardware, and what they need to know of VRFs.
class LocalCollectors {
 public:
  using SinkOf = std::function<LocalCollectorSink(const std::string& trackerName)>;

  LocalCollectors(Ptr<const NetworkList> networks, Ptr<const Ipfix::ElementIdColl> registry,
                  Ptr<TaskScheduler> scheduler, AgentLog& log, Ptr<SharedTable> counters = {});
  ~LocalCollectors();
  LocalCollectors(const LocalCollectors&) = delete;
  LocalCollectors& operator=(const LocalCollectors&) = delete;

  /// Drops those whose tracker is not in `config`, or is another one now.
  void keepOnly(const HwFlowTracking::Config& config);
  /// Adds one for each tracker that has none.
  void follow(const HwFlowTracking::Config& config, const HwFlowTracking::Status& status,
              const SinkOf& sinkOf);
  const LocalCollector* collector(const std::string& trackerName) const;

 private:
  void handlePresent(const VrfNetwork& network);

  const Ptr<Ip::AllVrfStatusLocal> vrfs_;
  LocalCollectorLoops loops_;
  const LocalCollectorHost host_;
  uint64_t instance_ = 0;
  NetworkFollower follower_;
  std::map<std::string, std::unique_ptr<LocalCollector>> collectors_;
};

}  // namespace agent
