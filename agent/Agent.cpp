#include "agent/Agent.h"

#include <stdexcept>
#include <utility>

#include "agent/control/Control.h"
#include "agent/device/LocalCollector.h"
#include "agent/exports/Exports.h"
#include "agent/exports/SharedTables.h"
#include "agent/flow/FlowPaths.h"
#include "agent/flow/Replay.h"
#include "agent/host/Printable.h"
#include "agent/host/Readiness.h"
#include "agent/host/ServiceManager.h"
#include "agent/network/Networks.h"
#include "agent/records/FlowRecords.h"
#include "agent/settings/SettingsFile.h"
#include "platform/linux/LinuxPlatform.h"

namespace agent {
namespace {
using FlowTracking::FlowTrackingType;

Ptr<Ipfix::IpfixInitSm> makeIpfix() {
  auto ipfix = Ipfix::ipfixInitSmFactory();
  addIanaElements(*ipfix->elementIdCollection());
  addReverseElements(*ipfix->elementIdCollection());
  return ipfix;
}

/// What a device sends to the tracker goes out as the tracker's own records.
LocalCollectorSink sinkOf(const std::string& tracker, const LibraryTree& tree,
                          const TrackerSettings& settings) {
  const auto exporters = std::make_shared<FlowExport>(tracker, tree);
  return {[exporters](FlowTracking::TemplateId id, RecordLens lens, std::string_view records) {
            exporters->recordsIs(id, lens, records);
          },
          [exporters] { exporters->flush(); },
          [exporters] { exporters->end(); },
          [exporters] { return exporters->templatesTold(); },
          [exporters] { return exporters->queued(); },
          [exporters] { return exporters->counters(); },
          settings.exporterAddress};
}
}  // namespace

/// All that runs. Each member stands on those before it, so they are released from the last to the
/// first: nobody asks over the control socket any more, what tracks flows ends, then the library's
/// reactors go, so that endpoints close and counters are removed, and then what these stood on.
struct Agent::Parts {
  /// Throws std::exception: why it cannot start, in words.
  Parts(Agent& agent, const Settings& settings)
      : log(agent.log_),
        readiness(agent.loop_->taskScheduler(), log),
        tables(settings, agent.loop_->taskScheduler(), log),
        replay(agent.options_.readFile.empty()
                   ? nullptr
                   : std::make_unique<flow::Replay>(agent.options_.readFile, settings,
                                                    agent.configName(), agent.loop_, log)),
        networks(agent.loop_, agent.options_.netnsDir, log),
        exports({agent.loop_, log, networks, replay ? replay->networks() : networks.list(), ipfix,
                 configReq, tables.statistics},
                [this] { readiness.statusChanged(); }),
        localCollectors(networks.list(), ipfix->elementIdCollection(), agent.loop_->taskScheduler(),
                        log, tables.flows),
        flowPaths(
            {agent.loop_, networks.list(), exports.interfaces(), exports.vrfs(),
             agent.options_.netnsDir, tables.flows, captures, log,
             [this] { return networks.settled(); }},
            replay.get(),
            {[this](const std::string& tracker) { return exports.firstFlowTemplate(tracker); },
             [this](const flow::FlowTemplateIds::Unused& unused) {
               return exports.forgetTemplates(unused);
             }},
            [this](const Settings& wanted) {
              log.info("the reload is complete, flows under way were reported: " +
                       describe(apply(wanted)));
            }) {}

  /// Makes what runs equal to the settings: from here on every part follows them.
  Changes apply(const Settings& wanted) {
    const Changes changes = exports.apply(flowPaths.leave(wanted, exports.settings()), [this] {
      if (const auto& config = exports.tree(FlowTrackingType::hardware).config)
        localCollectors.keepOnly(*config);
    });
    flowPaths.follow(wanted, exports.tree(FlowTrackingType::software));
    const LibraryTree& devices = exports.tree(FlowTrackingType::hardware);
    if (devices.config)
      localCollectors.follow(*devices.config, *devices.status, [&](const std::string& tracker) {
        return sinkOf(tracker, devices, exports.settings().trackers.at(tracker));
      });
    if (control) control->settingsAre();
    return changes;
  }

  std::string status() const {
    const SettingsCount n = count(exports.settings());
    return std::to_string(exports.readyExporters()) + " of " + std::to_string(n.exporters) +
           " exporters ready, " + std::to_string(n.collectors) + " collectors";
  }

  AgentLog& log;
  Readiness readiness;
  const Ptr<Ipfix::IpfixInitSm> ipfix = makeIpfix();
  SharedTables tables;
  const std::unique_ptr<flow::Replay> replay;  // null: the interfaces' packets are tracked
  const Ptr<FlowTracking::ConfigReq> configReq = FlowTracking::configReqFactory();
  Networks networks;
  Exports exports;
  LocalCollectors localCollectors;
  const Ptr<flow::FlowCaptures> captures = flow::flowCapturesFactory();
  flow::FlowPaths flowPaths;
  std::unique_ptr<Control> control;  // null until the first settings are applied
};

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
  try {
    parts_ = std::make_unique<Parts>(*this, *settings);
  } catch (const std::exception& e) {
    log_.error("not started: " + std::string(e.what()));
    return false;
  }
  parts_->apply(*settings);
  log_.tell(Severity::info, "started with " + configName() + ": " + describe(count(*settings)));
  startControl(settings->control);
  parts_->readiness.start([parts = parts_.get()] { return parts->networks.settled(); },
                          [parts = parts_.get()] { return parts->status(); });
  return true;
}

void Agent::startControl(const std::string& path) {
  const Parts& p = *parts_;
  const auto clear = [req = p.configReq] { req->clearCountersIs(req->clearCounters() + 1); };
  parts_->control =
      std::make_unique<Control>(ControlHost{.config = configName(),
                                            .exports = &p.exports,
                                            .roots = {{"interfaces", p.exports.interfaces()},
                                                      {"vrfs", p.exports.vrfs()},
                                                      {"networks", p.networks.list()},
                                                      {"captures", p.captures},
                                                      {"requests", p.configReq},
                                                      {"statistics", p.tables.statistics},
                                                      {"elements", p.ipfix},
                                                      {"loop", loop_}},
                                            .reload = [this] { return reload(); },
                                            .clearCounters = clear,
                                            .flows = &parts_->flowPaths},
                                path, loop_, log_, platform_->clock(), p.tables.endpoints);
}

ReloadOutcome Agent::reload() {
  ReloadOutcome outcome;
  if (!parts_ || finishing_) {
    outcome.summary = "not reloaded: the agent is stopping";
    return outcome;
  }
  parts_->tables.restore();
  parts_->control->restore();
  if (options_.configFile.empty()) {
    outcome.done = true;
    outcome.summary = "nothing to reload: the built-in configuration runs";
    log_.tell(Severity::info, outcome.summary);
    return outcome;
  }
  if (parts_->replay) {
    outcome.summary = "not reloaded: " + printable(options_.readFile) +
                      " is read to its end with the settings that it was begun with";
    log_.tell(Severity::warning, outcome.summary);
    return outcome;
  }
  ServiceManager::reloading();
  if (const auto settings = readConfig(&outcome.errors)) {
    applyReload(*settings, outcome);
  } else {
    outcome.summary =
        "not reloaded: " + configName() + " is not valid; everything runs on as it was before";
    log_.tell(Severity::error, outcome.summary);
  }
  parts_->readiness.reloaded();
  return outcome;
}

void Agent::applyReload(const Settings& settings, ReloadOutcome& outcome) {
  const Settings before = parts_->exports.settings();
  outcome.summary = "reloaded " + configName() + ": " + describe(parts_->apply(settings));
  outcome.done = true;
  if (before.vrfs != settings.vrfs) outcome.summary += "; VRF ids changed";
  log_.tell(Severity::info, outcome.summary);
  if (before.statistics != settings.statistics || before.control != settings.control)
    outcome.warnings.emplace_back(
        "agent.statistics and agent.control take effect at the next start");
  const size_t kept = parts_->tables.collectors->capacity();
  const size_t collectors = count(settings).collectors;
  if (collectors > kept)
    outcome.warnings.push_back("counters of " + std::to_string(kept) + " of " +
                               std::to_string(collectors) +
                               " collectors are kept: the table grows at the next start");
  for (const std::string& warning : outcome.warnings) log_.tell(Severity::warning, warning);
}

void Agent::finish() {
  if (std::exchange(finishing_, true)) {
    loop_->stop();
    return;
  }
  ServiceManager::stopping();
  log_.tell(Severity::info, "stopping");
  parts_->flowPaths.finish([this] { loop_->stop(); });
}

void Agent::stop() {
  if (!parts_) return;
  if (!finishing_) {
    ServiceManager::stopping();
    log_.tell(Severity::info, "stopping");
  }
  fileFailed_ = parts_->replay && parts_->replay->failed();
  parts_.reset();
  log_.tell(Severity::info, "stopped");
}

}  // namespace agent
