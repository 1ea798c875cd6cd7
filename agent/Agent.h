#pragma once
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "agent/control/ControlRequests.h"
#include "agent/control/ControlSocket.h"
#include "agent/device/LocalCollector.h"
#include "agent/exports/CollectorStates.h"
#include "agent/exports/Exports.h"
#include "agent/exports/SharedTables.h"
#include "agent/flow/FlowPaths.h"
#include "agent/host/AgentLog.h"
#include "agent/host/Readiness.h"
#include "agent/network/Networks.h"
#include "agent/settings/SettingsFile.h"
#include "platform/Platform.h"
#include "platform/linux/EventLoop.h"

namespace agent {

struct AgentOptions {
  std::string configFile;  ///< empty: the embedded default
  std::string netnsDir = "/run/netns";
  /// A capture whose packets the software trackers see; empty: they see the interfaces'.
  std::string readFile = {};
};

/// The running agent: the platform, the networks, the entities, and the library's root reactors.
///
///   Agent agent(loop, log, options);
///   if (!agent.start()) return 1;   // it said why
///   loop->run();                    // reload() from inside, as often as asked, and finish()
///   agent.stop();
class Agent {
 public:
  Agent(Ptr<EventLoop> loop, AgentLog& log, AgentOptions options);
  ~Agent();
  Agent(const Agent&) = delete;
  Agent& operator=(const Agent&) = delete;

  /// Reads the configuration and starts on it. False: the reasons are in the log, and nothing runs.
  bool start();
  /// Reads the configuration again. A valid one is applied by difference; an invalid one changes
  /// nothing. What happened is in the log and returned.
  ReloadOutcome reload();
  /// Reports the flows under way at the exporters' pace, for some seconds at most, and stops the
  /// loop. Asked for again, at once.
  void finish();
  /// Releases the library's reactors, then what they stood on. Nothing after the first time.
  void stop();

  /// A file was to be read, and what was exported is not all of it.
  bool fileFailed() const { return replay_ && replay_->failed(); }

 private:
  void startLocalCollectors();
  std::optional<Settings> readConfig(std::vector<std::string>* errors = nullptr) const;
  std::string configName() const;
  Changes apply(const Settings& settings);
  std::string status() const;
  void startControl(const std::string& path);
  std::vector<StateTree::Root> stateRoots() const;

  Ptr<EventLoop> loop_;
  AgentLog& log_;
  AgentOptions options_;
  bool running_ = false;
  bool finishing_ = false;

  std::unique_ptr<Platform> platform_;
  Ptr<Ipfix::IpfixInitSm> ipfixInit_;
  std::unique_ptr<SharedTables> tables_;
  Ptr<FlowTracking::ConfigReq> configReq_;
  std::unique_ptr<Networks> networks_;
  std::unique_ptr<Exports> exports_;
  std::unique_ptr<LocalCollectors> localCollectors_;
  const Ptr<flow::FlowCaptures> flowCaptures_ = flow::flowCapturesFactory();
  std::unique_ptr<flow::FlowPaths> flowPaths_;
  std::unique_ptr<flow::Replay> replay_;  // null: the interfaces' packets are tracked
  std::unique_ptr<Readiness> readiness_;
  std::unique_ptr<CollectorStates> collectorStates_;
  std::unique_ptr<ControlRequests> controlRequests_;
  std::unique_ptr<ControlSocket> control_;
};

}  // namespace agent
