#pragma once
#include <functional>
#include <map>
#include <memory>
#include <string>

#include "agent/host/AgentLog.h"
#include "agent/network/Network.h"
#include "platform/FlowTracking.h"
#include "platform/HwFlowTracking.h"

namespace agent {

class ExporterSide;

/// Lets each exporter look for its source addresses again when its interface or network changes.
class SourceFinder {
 public:
  using NetworkOf = std::function<Ptr<VrfNetwork>(const VrfName&)>;
  explicit SourceFinder(NetworkOf networkOf);
  ~SourceFinder();

 private:
  friend class ExporterSide;
  class VrfSides;
  using Sides = std::multimap<std::string, ExporterSide*>;  // by interface
  /// A side's entry among those of its VRF. It has the position, since thousands of sides may
  /// follow one interface.
  struct Entry {
    VrfSides* vrf = nullptr;
    Sides::iterator position;
  };
  Entry enter(const VrfName& vrf, const std::string& interface, ExporterSide* side);
  void leave(const Entry& entry);

  NetworkOf networkOf_;
  std::map<VrfName, std::unique_ptr<VrfSides>> vrfs_;
};

/// The host's side of one exporter: writes the source addresses that its local interface has, as
/// they come and go, and tells the operator of them and of the exporter's readiness.
class ExporterSide {
 public:
  /// Calls `readiness` when the exporter becomes ready in its first family or unready in its last.
  ExporterSide(SourceFinder& finder, FlowTracking::FlowTrackingType type, std::string tracker,
               Ptr<HwFlowTracking::ExporterConfig> config, AgentLog& log,
               std::function<void(bool ready)> readiness);
  ~ExporterSide();
  ExporterSide(const ExporterSide&) = delete;
  ExporterSide& operator=(const ExporterSide&) = delete;

  /// Sets the interface that the exporter sends from; writes its VRF and source addresses.
  void placeIs(const VrfName& vrf, const std::string& interface);
  bool ready() const { return ready_; }

 private:
  friend class SourceFinder;
  class Readiness;

  SourceAddresses find() const;
  void resolve();
  void tellSource(const SourceAddresses& found);
  void handleReadiness();

  SourceFinder& finder_;
  FlowTracking::FlowTrackingType type_;
  std::string tracker_;
  Ptr<HwFlowTracking::ExporterConfig> config_;
  AgentLog& log_;
  std::function<void(bool)> readinessChanged_;
  std::string interface_;
  SourceFinder::Entry entry_;
  Ptr<VrfNetwork> network_;  // null before the first `placeIs`
  std::string told_;         // what the log last said of the source addresses
  bool ready_ = false;
  std::unique_ptr<Readiness> readiness_;
};

}  // namespace agent
