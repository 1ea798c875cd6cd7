#include "agent/Agent.h"

#include "agent/host/Printable.h"
#include "agent/host/Priorities.h"
#include "agent/host/ServiceManager.h"
#include "agent/records/FlowTemplates.h"
#include "platform/linux/LinuxPlatform.h"

namespace agent {
namespace {}  // namespace

Agent::Agent(Ptr<EventLoop> loop, AgentLog& log, AgentOptions options)
    : loop_(std::move(loop)), log_(log), options_(std::move(options)) {
  platform_ = linuxPlatform(loop_, log_, log_, {.netnsDir = options_.netnsDir});
  Platform::install(platform_.get());
}
Agent::~Agent() {
  stop();
  Platform::install(nullptr);
}

std::string Agent::configName() const {
  return options_.configFile.empty() ? "the built-in configuration" : options_.configFile;
}

std::optional<Settings> Agent::readConfig(std::vector<std::string>* errors) const {
  SettingsResult read = options_.configFile.empty()
                            ? parseSettings(defaultSettingsText(), configName())
                            : readSettings(options_.configFile);
  for (const std::string& error : read.errors) log_.tell(Severity::error, error);
  if (errors) *errors = std::move(read.errors);
  return std::move(read.settings);
}

bool Agent::start() {
  const auto settings = readConfig();
  if (!settings) {
    log_.error("not started: " + configName() + " is not valid");
    return false;
  }
  const SettingsCount n = count(*settings);
  try {
    readiness_ = std::make_unique<Readiness>(loop_->taskScheduler(), log_);
    ipfixInit_ = Ipfix::ipfixInitSmFactory();
    std::string problem;
    if (flowTemplates(*ipfixInit_->elementIdCollection(), problem).empty()) {
      log_.error("not started: " + problem);
      return false;
    }
    tables_ = std::make_unique<SharedTables>(*settings, loop_->taskScheduler(), log_);
    if (!options_.readFile.empty())
      replay_ =
          std::make_unique<flow::Replay>(options_.readFile, *settings, configName(), loop_, log_);
    configReq_ = FlowTracking::configReqFactory();
    networks_ = std::make_unique<Networks>(loop_, options_.netnsDir, log_);
    localCollectors_ =
        std::make_unique<LocalCollectors>(networks_->list(), ipfixInit_->elementIdCollection(),
                                          loop_->taskScheduler(), log_, tables_->flows);
    exports_ = std::make_unique<Exports>(
        ExportsHost{loop_, log_, *networks_, replay_ ? replay_->networks() : networks_->list(),
                    ipfixInit_, configReq_, tables_->statistics},
        [this] { readiness_->statusChanged(); });
  } catch (const std::exception& e) {
    log_.error("not started: " + std::string(e.what()));
    return false;
  }
  flowPaths_ = std::make_unique<flow::FlowPaths>(
      flow::FlowPathHost{loop_, networks_->list(), exports_->interfaces(), exports_->vrfs(),
                         options_.netnsDir, tables_->flows, flowCaptures_, log_},
      replay_.get(), [this](const Settings& wanted) {
        log_.info("the reload is complete, flows under way were reported: " +
                  describe(apply(wanted)));
      });
  running_ = true;
  apply(*settings);
  log_.tell(Severity::info, "started with " + configName() + ": " + describe(n));
  startControl(settings->control);
  readiness_->start([this] { return networks_->settled(); }, [this] { return status(); });
  return true;
}

std::string Agent::status() const {
  const SettingsCount n = count(exports_->settings());
  return std::to_string(exports_->readyExporters()) + " of " + std::to_string(n.exporters) +
         " exporters ready, " + std::to_string(n.collectors) + " collectors";
}

Changes Agent::apply(const Settings& wanted) {
  const Changes changes = exports_->apply(flowPaths_->leave(wanted, exports_->settings()), [this] {
    if (const auto& config = exports_->tree(FlowTracking::FlowTrackingType::hardware).config)
      localCollectors_->keepOnly(*config);
  });
  flowPaths_->follow(wanted, exports_->tree(FlowTracking::FlowTrackingType::software));
  startLocalCollectors();
  if (collectorStates_) collectorStates_->settingsAre();
  return changes;
}

/// Devices track for the trackers of type hardware; what they send goes out as the trackers' own.
void Agent::startLocalCollectors() {
  const LibraryTree& tree = exports_->tree(FlowTracking::FlowTrackingType::hardware);
  if (!tree.config) return;
  localCollectors_->follow(*tree.config, *tree.status, [&](const std::string& trackerName) {
    const auto exporters = std::make_shared<FlowExport>(trackerName, tree);
    return LocalCollectorSink{
        [exporters](FlowTracking::TemplateId id, RecordLens lens, std::string_view records) {
          exporters->recordsIs(id, lens, records);
        },
        [exporters] { exporters->flush(); },
        [exporters] { exporters->end(); },
        [exporters] { return exporters->templatesTold(); },
        [exporters] { return exporters->queued(); },
        [exporters] { return exporters->counters(); }};
  });
}

ReloadOutcome Agent::reload() {
  ReloadOutcome outcome;
  if (!running_ || finishing_) {
    outcome.summary = "not reloaded: the agent is stopping";
    return outcome;
  }
  tables_->restore();
  if (control_) control_->restore();
  if (options_.configFile.empty()) {
    outcome.done = true;
    outcome.summary = "nothing to reload: the built-in configuration runs";
    log_.tell(Severity::info, outcome.summary);
    return outcome;
  }
  if (replay_) {
    outcome.summary = "not reloaded: " + printable(replay_->fileName()) +
                      " is read to its end with the settings that it was begun with";
    log_.tell(Severity::warning, outcome.summary);
    return outcome;
  }
  ServiceManager::reloading();
  if (const auto settings = readConfig(&outcome.errors)) {
    const Settings before = exports_->settings();
    const Changes changes = apply(*settings);
    outcome.done = true;
    outcome.summary = "reloaded " + configName() + ": " + describe(changes);
    if (before.vrfs != settings->vrfs) outcome.summary += "; VRF ids changed";
    log_.tell(Severity::info, outcome.summary);
    if (before.statistics != settings->statistics || before.control != settings->control)
      outcome.warnings.emplace_back(
          "agent.statistics and agent.control take effect at the next start");
    const size_t collectors = count(*settings).collectors;
    if (collectors > tables_->collectors->capacity())
      outcome.warnings.push_back("counters of " + std::to_string(tables_->collectors->capacity()) +
                                 " of " + std::to_string(collectors) +
                                 " collectors are kept: the table grows at the next start");
    for (const std::string& warning : outcome.warnings) log_.tell(Severity::warning, warning);
  } else {
    outcome.summary =
        "not reloaded: " + configName() + " is not valid; everything runs on as it was before";
    log_.tell(Severity::error, outcome.summary);
  }
  readiness_->reloaded();
  return outcome;
}

void Agent::startControl(const std::string& path) {
  collectorStates_ = std::make_unique<CollectorStates>(
      *exports_, loop_->taskScheduler(), platform_->clock(), log_, tables_->endpoints);
  ControlHost host;
  host.version = TARN_VERSION;
  host.config = configName();
  host.startTime = platform_->clock().now();
  host.exports = exports_.get();
  host.states = collectorStates_.get();
  host.clearCounters = [this] { configReq_->clearCountersIs(configReq_->clearCounters() + 1); };
  host.roots = [this] { return stateRoots(); };
  host.reload = [this] { return reload(); };
  controlRequests_ = std::make_unique<ControlRequests>(std::move(host), log_);
  control_ = std::make_unique<ControlSocket>(
      loop_, log_, [this](const ControlPeer& peer, std::string_view line) {
        return controlRequests_->answer(peer, line);
      });
  control_->listen(path);
}

std::vector<StateTree::Root> Agent::stateRoots() const {
  std::vector<StateTree::Root> roots;
  const auto add = [&](std::string name, Ptr<const Entity> entity) {
    if (entity) roots.push_back({std::move(name), std::move(entity)});
  };
  for (const auto& [type, tree] : exports_->trees().all()) {
    const std::string kind = FlowTracking::toText(type) + '-';
    add(kind + "config", tree.config);
    add(kind + "status", tree.status);
    add(kind + "info", tree.info);
    add(kind + "info-reactors", tree.infoSm);
    add(kind + "templates", tree.templateSm);
    add(kind + "options-data", tree.optionsDataSm);
  }
  add("interfaces", exports_->interfaces());
  add("vrfs", exports_->vrfs());
  add("networks", networks_->list());
  add("captures", flowCaptures_);
  add("requests", configReq_);
  add("statistics", tables_->statistics);
  add("elements", ipfixInit_);
  add("loop", loop_);
  return roots;
}

void Agent::finish() {
  if (std::exchange(finishing_, true)) {
    loop_->stop();
    return;
  }
  ServiceManager::stopping();
  log_.tell(Severity::info, "stopping");
  flowPaths_->finish([this] { loop_->stop(); });
}

void Agent::stop() {
  if (running_ && !finishing_) {
    ServiceManager::stopping();
    log_.tell(Severity::info, "stopping");
  }
  control_.reset();  // nobody asks from here on
  controlRequests_.reset();
  collectorStates_.reset();
  flowPaths_.reset();
  localCollectors_.reset();
  exports_.reset();
  networks_.reset();
  configReq_ = nullptr;
  tables_.reset();
  ipfixInit_ = nullptr;
  readiness_.reset();
  if (std::exchange(running_, false)) log_.tell(Severity::info, "stopped");
}

}  // namespace agent
