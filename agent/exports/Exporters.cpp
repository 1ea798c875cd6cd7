#include "agent/exports/Exporters.h"

#include <array>
#include <utility>
#include <vector>

#include "Ipfix/FlowTrackerInfoSm.h"

namespace agent {

/// One VRF's exporters, by the name of their interface.
class SourceFinder::VrfSides final : public VrfNetwork::Watcher {
 public:
  explicit VrfSides(Ptr<VrfNetwork> network) : Watcher(network), network_(std::move(network)) {}
  const Ptr<VrfNetwork>& network() const { return network_; }
  Sides::iterator add(const std::string& interface, ExporterSide* side) {
    return sides_.emplace(interface, side);
  }
  /// True: no side is left.
  bool del(Sides::iterator side) {
    sides_.erase(side);
    return sides_.empty();
  }

  void handlePresent() override { resolve(sides_.begin(), sides_.end()); }
  void handleLink(const std::string& name) override {
    const auto [first, last] = sides_.equal_range(name);
    resolve(first, last);
  }

 private:
  void resolve(Sides::iterator first, Sides::iterator last) {
    std::vector<ExporterSide*> concerned;  // a copy: `resolve` may add and remove sides
    for (; first != last; ++first) concerned.push_back(first->second);
    for (ExporterSide* side : concerned) side->resolve();
  }

  Ptr<VrfNetwork> network_;
  Sides sides_;
};

SourceFinder::SourceFinder(NetworkOf networkOf) : networkOf_(std::move(networkOf)) {}
SourceFinder::~SourceFinder() = default;

SourceFinder::Entry SourceFinder::enter(const VrfName& vrf, const std::string& interface,
                                        ExporterSide* side) {
  auto& sides = vrfs_[vrf];
  if (!sides) sides = std::make_unique<VrfSides>(networkOf_(vrf));
  return {sides.get(), sides->add(interface, side)};
}
void SourceFinder::leave(const Entry& entry) {
  const VrfName vrf = entry.vrf->network()->vrf();  // a copy: `erase` may delete the network
  if (entry.vrf->del(entry.position)) vrfs_.erase(vrf);
}

class ExporterSide::Readiness final : public HwFlowTracking::ExporterConfig::Watcher {
 public:
  explicit Readiness(ExporterSide& side) : Watcher(side.config_), side_(side) {}
  void handleExporter4Ready() override { side_.handleReadiness(); }
  void handleExporter6Ready() override { side_.handleReadiness(); }

 private:
  ExporterSide& side_;
};

ExporterSide::ExporterSide(SourceFinder& finder, FlowTracking::FlowTrackingType type,
                           std::string tracker, Ptr<HwFlowTracking::ExporterConfig> config,
                           AgentLog& log, std::function<void(bool ready)> readiness)
    : finder_(finder),
      type_(type),
      tracker_(std::move(tracker)),
      config_(std::move(config)),
      log_(log),
      readinessChanged_(std::move(readiness)),
      readiness_(std::make_unique<Readiness>(*this)) {}
ExporterSide::~ExporterSide() {
  readiness_.reset();
  if (network_) finder_.leave(entry_);
}

void ExporterSide::placeIs(const VrfName& vrf, const std::string& interface) {
  const bool moves{network_};
  // Enter before leaving: the watcher of the network stays when only the interface changes.
  const SourceFinder::Entry before = std::exchange(entry_, finder_.enter(vrf, interface, this));
  network_ = entry_.vrf->network();
  if (moves) finder_.leave(before);
  interface_ = interface;
  if (config_->vrfName() != vrf) {
    // The endpoint moves to the other VRF. Addresses that are not valid there are removed first.
    const SourceAddresses there = find();
    if (there.v4 != config_->srcIpAddr()) config_->srcIpAddrIs(IpAddr());
    if (there.v6 != config_->srcIp6Addr()) config_->srcIp6AddrIs(Ip6Addr());
    config_->vrfNameIs(vrf);
  }
  resolve();
}

SourceAddresses ExporterSide::find() const {
  const Link* link = network_->present() ? network_->link(interface_) : nullptr;
  if (!link) return {};
  return chooseSource(*link, {config_->srcIpAddr(), config_->srcIp6Addr()});
}

void ExporterSide::resolve() {
  const SourceAddresses found = find();
  tellSource(found);
  config_->srcIpAddrIs(found.v4);
  config_->srcIp6AddrIs(found.v6);
}

void ExporterSide::tellSource(const SourceAddresses& found) {
  const bool has4 = !found.v4.isZero();
  const bool has6 = !found.v6.isZero();
  const std::string where = linkPlace(*network_, interface_);
  std::string text;
  if (has4 || has6) {
    text = "sends from ";
    if (has4) text += found.v4.stringValue();
    if (has4 && has6) text += " and ";
    if (has6) text += found.v6.stringValue();
    text += " (" + where + ')';
  } else if (!network_->present()) {
    if (told_.empty()) return;  // nothing is known of the network yet
    text =
        "has no source address: the namespace of VRF " + network_->vrf().stringValue() + " is gone";
  } else {
    const std::string problem = linkProblem(*network_, interface_);
    text = "has no source address: " +
           (problem.empty() ? "interface " + where + " has none that can be used" : problem);
  }
  if (text == told_) return;
  told_ = text;
  log_.say(
      has4 || has6 ? Severity::info : Severity::warning,
      "exporter " + config_->name() + " of tracker " + tracker_ + ' ' + text,
      {.tracker = tracker_, .exporter = config_->name(), .vrf = network_->vrf().stringValue()});
}

void ExporterSide::handleReadiness() {
  const bool ready = config_->exporter4Ready() || config_->exporter6Ready();
  if (ready == ready_) return;
  ready_ = ready;
  const std::string type = FlowTracking::toText(type_);
  const std::array<std::string, 5> args = {type, config_->name(), config_->vrfName().stringValue(),
                                           type, tracker_};
  log_.log(ready ? FlowTracking::exporterActiveMessage : FlowTracking::exporterInactiveMessage,
           args, {.tracker = tracker_, .exporter = args[1], .vrf = args[2]});
  readinessChanged_(ready);
}

}  // namespace agent
