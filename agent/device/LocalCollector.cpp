#include "agent/device/LocalCollector.h"

#include <algorithm>
#include <utility>

#include "agent/host/Printable.h"
#include "platform/Platform.h"
#include "platform/Trace.h"

namespace agent {
namespace {
using FlowTracking::TemplateId;
using HwFlowTracking::ExporterConfig;
using HwFlowTracking::FtConfig;
using Ipfix::IpfixConst;

constexpr TaskPriority afterTemplates = 3;  // the library's template tasks have 2
/// How long records may gather into fuller messages.
constexpr Seconds flushDelay{0.1};
/// How soon the collector looks again whether it can read on.
constexpr Seconds pause{0.01};
/// How often the counters are written. Every `ticksPerTelling` times, old templates are forgotten
/// and the log gets a line about troubles.
constexpr Seconds tick{1};
constexpr int ticksPerTelling = 10;
constexpr uint32_t holdIntervals = 3;  // RFC 7011, 8.1: a collector may have missed two

std::string endpointText(const HwFlowTracking::LocalCollectorConfig& config) {
  const IpGenAddr& addr = config.destIp();
  const std::string where = addr.isIpv6()
                                ? Ip6AndPort{addr.ip6Addr(), config.destPort()}.stringValue()
                                : IpAndPort{addr.ipAddr(), config.destPort()}.stringValue();
  return where + " (exporter " + printable(config.expName()) + ", VRF " +
         printable(config.vrfName().stringValue()) + ')';
}

/// What an operator should know of, in words.
struct Trouble {
  uint64_t LocalCollectorCounters::*counter;
  const char* what;
};
constexpr Trouble troubles[] = {
    {&LocalCollectorCounters::badVersion, "datagrams that are not IPFIX"},
    {&LocalCollectorCounters::badLength, "messages of a wrong length"},
    {&LocalCollectorCounters::badSet, "messages with malformed sets"},
    {&LocalCollectorCounters::badTemplate, "malformed templates"},
    {&LocalCollectorCounters::badRecord, "malformed records"},
    {&LocalCollectorCounters::templatesWithoutField, "templates without a known field"},
    {&LocalCollectorCounters::templatesMixed, "templates with addresses of both families"},
    {&LocalCollectorCounters::templatesTooLarge, "templates whose records exceed the mtu"},
    {&LocalCollectorCounters::templatesWithoutRoom, "templates that exceed the mtu together"},
    {&LocalCollectorCounters::templatesOverLimit, "templates beyond what is kept"},
    {&LocalCollectorCounters::templatesDisplaced, "templates that gave way to others"},
    {&LocalCollectorCounters::recordsOfRefused, "records of refused templates"},
    {&LocalCollectorCounters::recordsTooLarge, "records that exceed the mtu"},
    {&LocalCollectorCounters::setsWithoutTemplate, "sets that came before their template"},
    {&LocalCollectorCounters::recordsMissing, "records missing by their sequence numbers"},
};
}  // namespace

class LocalCollector::PamsWatcher final : public FlowTracking::LocalCollectorPams::Watcher {
 public:
  explicit PamsWatcher(LocalCollector& c) : Watcher(c.pams_), c_(c) {}
  void handleUdpPam4Ready() override { c_.handlePam(); }
  void handleUdpPam6Ready() override { c_.handlePam(); }

 private:
  LocalCollector& c_;
};
class LocalCollector::ReadyWatcher final : public HwFlowTracking::LocalCollectorConfig::Watcher {
 public:
  explicit ReadyWatcher(LocalCollector& c) : Watcher(c.config_->localCollectorConfig()), c_(c) {}
  void handleExporterReady() override { c_.handleExporterReady(); }

 private:
  LocalCollector& c_;
};
class LocalCollector::ConfigWatcher final : public FtConfig::Watcher {
 public:
  explicit ConfigWatcher(LocalCollector& c) : Watcher(c.config_), c_(c) {}
  void handleExpConfig(const std::string& /*name*/) override { c_.handleExporters(); }

 private:
  LocalCollector& c_;
};
class LocalCollector::ExporterWatcher final : public ExporterConfig::Watcher {
 public:
  ExporterWatcher(LocalCollector& c, Ptr<const ExporterConfig> config)
      : Watcher(std::move(config)), c_(c) {}
  void handleIpfixMtu() override { c_.handleLimits(); }
  void handleTemplateInterval() override { c_.handleLimits(); }
  void handleSrcIpAddr() override { c_.handleSources(); }
  void handleSrcIp6Addr() override { c_.handleSources(); }
  void handleRxPort4() override { c_.handleSources(); }
  void handleRxPort6() override { c_.handleSources(); }
  void handleCollectorIpAndPort(const std::string& /*name*/) override { c_.handleSources(); }
  void handleCollectorIp6AndPort(const std::string& /*name*/) override { c_.handleSources(); }

 private:
  LocalCollector& c_;
};

LocalCollector::LocalCollector(std::string trackerName, Ptr<FtConfig> config,
                               Ptr<HwFlowTracking::FtStatus> status, const LocalCollectorHost& host,
                               LocalCollectorSink sink)
    : trackerName_(std::move(trackerName)),
      config_(std::move(config)),
      status_(std::move(status)),
      log_(host.log),
      table_(host.counters),
      loops_(host.loops),
      sink_(std::move(sink)),
      decoder_(host.registry,
               {.publish = [this](TemplateId id, const PassedLayout& l) { publish(id, l); },
                .withdraw = [this](TemplateId id) { withdraw(id); },
                .records = sink_.records}),
      pams_(FlowTracking::localCollectorPamsFactory(trackerName_)),
      settleTask_(task(*host.scheduler, "Settle", [this] { settle(); })),
      flushTask_(task(*host.scheduler, "Flush", [this] { sink_.flush(); })),
      reviewTask_(task(*host.scheduler, "Review", [this] { review(); })),
      tickTask_(task(*host.scheduler, "Tick", [this] { handleTick(); })),
      pamsWatcher_(std::make_unique<PamsWatcher>(*this)),
      readyWatcher_(std::make_unique<ReadyWatcher>(*this)),
      configWatcher_(std::make_unique<ConfigWatcher>(*this)) {
  decoder_.templates().exporterAddressIs(sink_.exporterAddress);
  handleExporters();
  tickTask_->scheduleIs(tick);
  sm_ = FlowTracking::localCollectorConfigSmFactory(trackerName_, host.config, config_, pams_,
                                                    host.vrfs, host.scheduler);
}

std::unique_ptr<TimerTask> LocalCollector::task(TaskScheduler& scheduler, const char* what,
                                                std::function<void()> run) const {
  return scheduler.timerTask(std::string("localCollector") + what + '-' + trackerName_,
                             afterTemplates, std::move(run));
}

LocalCollector::~LocalCollector() {
  if (heard_) heard_->rxPktHandlerIs(nullptr);
  readyWatcher_.reset();  // or the log would say that nobody listens any more
  pamsWatcher_.reset();
  configWatcher_.reset();
  exporterWatchers_.clear();
  sm_ = nullptr;
  loops_.trackerDel(trackerName_);
  sink_.end();
  tellTroubles("at its end, ");
  if (table_) {
    const FlowTracking::FlowPathKey key(trackerName_);
    table_->del(std::as_bytes(std::span(&key, 1)));
  }
  const auto published = status_->templateStatus();  // a copy: the loop notifies
  for (const auto& [id, status] : published) status_->templateStatusDel(id);
}

void LocalCollector::handleExporters() {
  const auto& exporters = config_->expConfig();
  std::erase_if(exporterWatchers_, [&](const auto& watched) {
    const auto it = exporters.find(watched.first);
    return it == exporters.end() || it->second.get() != watched.second->entity();
  });
  for (const auto& [name, exporter] : exporters)
    if (auto& watcher = exporterWatchers_[name]; !watcher)
      watcher = std::make_unique<ExporterWatcher>(*this, exporter);
  handleLimits();
  handleSources();
}

/// What has to fit into one message must fit into a message of the exporter with the smallest mtu.
void LocalCollector::handleLimits() {
  constexpr uint32_t headers =
      IpfixConst::ipUdpHeaderLen() + IpfixConst::messageHeaderLen() + IpfixConst::setHeaderLen();
  uint32_t mtu = UINT16_MAX;
  uint32_t interval = 0;
  for (const auto& [name, exporter] : config_->expConfig()) {
    mtu = std::min(mtu, exporter->ipfixMtu());
    interval = std::max(interval, exporter->templateInterval());
  }
  decoder_.templates().holdIs(std::chrono::milliseconds(uint64_t{holdIntervals} * interval));
  decoder_.templates().roomIs(mtu - std::min(mtu, headers));
}

void LocalCollector::handlePam() {
  Ptr<UdpPam> pam;
  if (pams_->udpPam4Ready()) pam = pams_->udpPam4();
  if (pams_->udpPam6Ready()) pam = pams_->udpPam6();
  if (pam == heard_) return;
  if (heard_) {
    heard_->rxPktHandlerIs(nullptr);
    lost_ += heard_->counters().rxDropped;
  }
  heard_ = pam;
  if (heard_) hear();
}

void LocalCollector::hear() {
  heard_->rxPktHandlerIs([this](std::string_view datagram, const IpGenAddr& from, uint16_t port) {
    handleDatagram(datagram, from, port);
  });
}

/// Reads on, or pauses. Runs as a task, not inside the packet handler: removing the handler there
/// would lose the datagrams that were read together with the current one.
void LocalCollector::review() {
  const bool full = sink_.queued() > queuedMax / 2;
  if (full) reviewTask_->scheduleIs(pause);
  if (!heard_) return;
  if (full) {
    heard_->rxPktHandlerIs(nullptr);
  } else {
    hear();
  }
}

void LocalCollector::handleExporterReady() {
  const auto& config = *config_->localCollectorConfig();
  if (config.exporterReady()) {
    heardAt_ = endpointText(config);
    log_.info("tracker " + printable(trackerName_) + ": devices send to " + heardAt_,
              {.tracker = trackerName_});
  } else if (!heardAt_.empty()) {
    log_.warning("tracker " + printable(trackerName_) + ": nobody listens any more at " + heardAt_,
                 {.tracker = trackerName_});
    heardAt_.clear();
  }
}

void LocalCollector::handleDatagram(std::string_view datagram, const IpGenAddr& from,
                                    uint16_t port) {
  if (std::string by = loops_.closedBy(trackerName_, from, port); !by.empty()) {
    ++looped_;
    loopedOf_ = std::move(by);
    return;
  }
  decoder_.decode(datagram, from, port);
  flushTask_->scheduleLowestIs(flushDelay);
  if (sink_.queued() > queuedMax) reviewTask_->scheduleLowestIs(Seconds(0));
}

void LocalCollector::publish(TemplateId id, const PassedLayout& layout) {
  const auto status = HwFlowTracking::templateStatusFactory(id);
  uint32_t position = 0;
  for (const PassedField& field : layout) {
    HwFlowTracking::FtTemplateEntry entry(position++, field.element);
    entry.fieldLenIs(field.len);
    entry.enterpriseIeIs(field.enterprise);
    status->ftTemplateEntryIs(entry);
  }
  status->genIdIs(1);
  trace(TraceLevel::event, "LocalCollector::", "publish ", trackerName_, " templateId: ", id,
        ", fields: ", layout.size());
  status_->templateStatusIs(status);
  settleTask_->scheduleLowestIs(Seconds(0));
}

/// The library's tasks, which `publish` scheduled, send the templates to the collectors and usually
/// run before this one. Not always: a round of tasks may end between two of them, and a template
/// that is published then is sent after this task has run.
void LocalCollector::settle() {
  if (sink_.told()) {
    decoder_.templates().settle();
  } else {
    settleTask_->scheduleIs(Seconds(0));
  }
}

void LocalCollector::withdraw(TemplateId id) {
  sink_.flush();  // its records leave before the withdrawal
  status_->templateStatusDel(id);
}

void LocalCollector::handleTick() {
  tickTask_->scheduleIs(tick);
  tellCounters();
  if (++ticks_ % ticksPerTelling != 0) return;
  decoder_.templates().advance(tick * ticksPerTelling);
  tellTroubles("");
}

void LocalCollector::tellCounters() {
  if (!table_) return;
  const LocalCollectorCounters& n = decoder_.counters();
  const FlowExport::Counters sent = sink_.counters();
  FlowTracking::FlowPathRecord r{.key = FlowTracking::FlowPathKey(trackerName_)};
  r.records = sent.records;
  r.recordsLost = sent.recordsLost;
  r.messages = sent.messages;
  r.deviceMessages = n.messages;
  r.deviceRecords = n.recordsIn;
  r.deviceRecordsRefused = n.recordsOfRefused + n.recordsTooLarge;
  r.deviceSetsUnknown = n.setsWithoutTemplate;
  r.deviceDatagramsBad = n.badVersion + n.badLength + n.badSet;
  r.deviceDatagramsLost = lostDatagrams();
  r.deviceDatagramsLooped = looped_;
  r.updatedTime = Platform::current().clock().now();
  table_->put(std::as_bytes(std::span(&r.key, 1)), std::as_bytes(std::span(&r, 1)));
}

/// Writes one line for all that was refused since the line before, however much that is. It names
/// the sender that takes most of whatever is full.
void LocalCollector::tellTroubles(const char* when) {
  const LocalCollectorCounters& now = decoder_.counters();
  const LocalCollectorTemplates& templates = decoder_.templates();
  std::string text;
  const auto add = [&](uint64_t n, const std::string& what) {
    if (n == 0) return;
    text += (text.empty() ? "" : ", ") + std::to_string(n) + ' ' + what;
  };
  for (const Trouble& t : troubles) add(now.*t.counter - told_.*t.counter, t.what);
  add(looped_ - std::exchange(loopedTold_, looped_),
      "datagrams of exporters of tracker " + printable(loopedOf_) +
          " that would come round for ever (a collector is given this tracker's address)");
  const uint64_t lost = lostDatagrams();
  add(lost - std::exchange(lostTold_, lost), "datagrams for which the receive buffer had no room");
  const uint64_t unsent = sink_.counters().recordsLost;
  add(unsent - std::exchange(unsentTold_, unsent),
      "records of exporters without a ready collector");
  if (now.templatesDisplaced > told_.templatesDisplaced ||
      now.templatesOverLimit > told_.templatesOverLimit) {
    const auto most = templates.mostTemplates();
    text += "; " + most.sender.stringValue() + " has " + std::to_string(most.templates) + " of " +
            std::to_string(templates.templates()) + " templates, " +
            std::to_string(templates.limits().templates) + " have room";
  }
  if (now.templatesWithoutRoom > told_.templatesWithoutRoom) {
    const auto most = templates.mostOctets();
    text += "; those of " + most.sender.stringValue() + " take " + std::to_string(most.octets) +
            " of the " + std::to_string(templates.room()) + " octets of the template message";
  }
  told_ = now;
  if (!text.empty())
    log_.warning(
        "tracker " + printable(trackerName_) + ": " + when + "from devices, not passed on: " + text,
        {.tracker = trackerName_});
}

// --- The local collectors of all trackers ---

namespace {
Ptr<const FlowTracking::Config> softwareExport() {
  const auto config = FlowTracking::configFactory();
  config->swExportIs(true);
  return config;
}
}  // namespace

LocalCollectors::LocalCollectors(Ptr<const NetworkList> networks,
                                 Ptr<const Ipfix::ElementIdColl> registry,
                                 Ptr<TaskScheduler> scheduler, AgentLog& log,
                                 Ptr<SharedTable> counters)
    : vrfs_(Ip::allVrfStatusLocalFactory()),
      host_{softwareExport(),
            std::move(registry),
            vrfs_,
            std::move(scheduler),
            log,
            std::move(counters),
            loops_},
      follower_(std::move(networks), {[this](const VrfNetwork& network) { handlePresent(network); },
                                      [this](const VrfName& vrf) { vrfs_->vrfDel(vrf); },
                                      {}}) {}
LocalCollectors::~LocalCollectors() = default;

void LocalCollectors::handlePresent(const VrfNetwork& network) {
  if (network.present()) {
    vrfs_->vrfIs(network.vrf(), ++instance_);
  } else {
    vrfs_->vrfDel(network.vrf());
  }
}

void LocalCollectors::keepOnly(const HwFlowTracking::Config& config) {
  std::erase_if(collectors_,
                [&](const auto& c) { return config.ftConfig(c.first) != c.second->config(); });
}

void LocalCollectors::follow(const HwFlowTracking::Config& config,
                             const HwFlowTracking::Status& status, const SinkOf& sinkOf) {
  for (const auto& [name, tracker] : config.ftConfig())
    if (auto& collector = collectors_[name]; !collector)
      collector = std::make_unique<LocalCollector>(name, tracker, status.ftStatus(name), host_,
                                                   sinkOf(name));
}

const LocalCollector* LocalCollectors::collector(const std::string& trackerName) const {
  const auto it = collectors_.find(trackerName);
  return it == collectors_.end() ? nullptr : it->second.get();
}

}  // namespace agent
