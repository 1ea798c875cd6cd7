#pragma once
#include <compare>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "agent/exports/Exports.h"
#include "agent/host/AgentLog.h"
#include "platform/Clock.h"
#include "platform/EndpointCounters.h"
#include "platform/SharedTable.h"
#include "platform/TaskScheduler.h"
#include "platform/UdpPam.h"

namespace agent {

struct CollectorName {
  std::string tracker;
  std::string exporter;
  std::string collector;
  auto operator<=>(const CollectorName&) const = default;
};

/// Whether a collector is sent to, and if not, what is missing.
struct CollectorState {
  enum class Status {
    sending,
    waitingForNamespace,  ///< its exporter's VRF is not there
    waitingForAddress,    ///< its exporter's interface has no usable address of its family
    waitingForTemplate,   ///< there is no data template to send, or it has not been sent yet
    refused               ///< the kernel refuses the endpoint, or the last datagrams
  };
  Status status = Status::sending;
  std::string detail;  ///< what exactly, for people; may be empty
  double since = 0;    ///< UTC seconds
};
/// "sending", "waiting for address", and so on.
std::string_view statusText(CollectorState::Status status);

/// Follows the state of all collectors, so that it can be told since when it is so: looks at all of
/// them every second, some at a time. A look costs what the settings have, never more than a few
/// milliseconds at once.
class CollectorStates {
 public:
  /// The operator is told when a collector comes to be refused, and when it is no longer.
  /// `counters` gets an EndpointRecord for each exporter and family that has collectors, written at
  /// each look; it may be null.
  CollectorStates(const Exports& exports, const Ptr<TaskScheduler>& scheduler, const Clock& clock,
                  AgentLog& log, Ptr<SharedTable> counters);
  CollectorStates(const CollectorStates&) = delete;
  CollectorStates& operator=(const CollectorStates&) = delete;

  /// As it is at this moment, with the time at which it was first seen so. Valid until the next
  /// call and until the loop runs on.
  const CollectorState& state(const CollectorName& name);

  /// There are other settings: what is new in them is looked at, and followed, from now on.
  void settingsAre() { task_->scheduleIs(Seconds(0)); }

  class Watch;
  /// What an endpoint had done when it was looked at last.
  struct Endpoint {
    /// What became of the datagrams since the last call. The pointer is only compared.
    void follow(const UdpPam* endpoint, const UdpPamCounters& now);

    const UdpPam* pam = nullptr;
    /// Of its exporter and family, in order, those that were there since the last look: an endpoint
    /// that is closed keeps its counts until they were looked at.
    std::vector<Ptr<const UdpPam>> came;
    std::shared_ptr<Watch> watch;  ///< adds to them
    uint64_t sent = 0;
    uint64_t undelivered = 0;
    std::map<int, uint64_t> dropByErrno;
    int refused = 0;  ///< the errno of all that was to be sent last; 0: some was taken
    int partly = 0;   ///< the errno of some of it
    uint64_t turn = 0;
    FlowTracking::EndpointRecord total;  ///< of this endpoint and those before it
    bool inTable = false;
  };

  /// All collectors of the settings behind `after`, in order, until `visit` returns false.
  using Visit = std::function<bool(const CollectorName&, const TrackerSettings&,
                                   const ExporterSettings&, const CollectorSettings&)>;
  static void each(const Settings& settings, const CollectorName& after, const Visit& visit);

 private:
  struct Known {
    CollectorState state;
    uint64_t turn = 0;
  };
  using EndpointKey = std::pair<std::pair<std::string, std::string>, bool>;  // exporter, IPv6

  void look();
  void lookAt(const EndpointKey& key, const Ptr<FlowTracking::ExporterInfo>& info);
  CollectorState find(const CollectorName& name);
  void tellChange(const CollectorName& name, CollectorState::Status before,
                  const CollectorState& now);

  const Exports& exports_;
  const Clock& clock_;
  AgentLog& log_;
  const Ptr<SharedTable> counters_;
  std::map<CollectorName, Known> known_;
  std::map<EndpointKey, Endpoint> endpoints_;
  CollectorName last_;  // of the look under way
  uint64_t turn_ = 1;   // counts whole looks
  std::unique_ptr<TimerTask> task_;
};

}  // namespace agent
