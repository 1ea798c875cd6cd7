#include "agent/exports/VrfIds.h"

#include <algorithm>

namespace agent {

class VrfIds::ListWatcher final : public NetworkList::Watcher {
 public:
  explicit ListWatcher(VrfIds& ids) : Watcher(ids.networks_), ids_(ids) {}
  void handleNetwork(const VrfName& vrf) override { ids_.handleNetwork(vrf); }

 private:
  VrfIds& ids_;
};
class VrfIds::NetworkWatcher final : public VrfNetwork::Watcher {
 public:
  NetworkWatcher(VrfIds& ids, Ptr<const VrfNetwork> network)
      : Watcher(std::move(network)), ids_(ids) {}
  void handlePresent() override { ids_.handlePresent(*entity()); }

 private:
  VrfIds& ids_;
};

VrfIds::VrfIds(Ptr<const NetworkList> networks, AgentLog& log)
    : networks_(std::move(networks)),
      log_(log),
      listWatcher_(std::make_unique<ListWatcher>(*this)) {
  configuredIs({});
  const auto all = networks_->network();
  for (const auto& [vrf, network] : all) handleNetwork(vrf);
}
VrfIds::~VrfIds() = default;

void VrfIds::handleNetwork(const VrfName& vrf) {
  const auto network = networks_->network(vrf);
  auto& watcher = watchers_[vrf];
  if (watcher && watcher->entity() == network.get()) return;
  if (const auto it = given_.find(vrf); it != given_.end()) {
    hold(it->second, vrf);
    given_.erase(it);
  }
  if (network) {
    watcher = std::make_unique<NetworkWatcher>(*this, network);
    handlePresent(*network);
  } else {
    watchers_.erase(vrf);
  }
}

void VrfIds::handlePresent(const VrfNetwork& network) {
  const VrfName& vrf = network.vrf();
  const auto it = given_.find(vrf);
  if (network.present() && it == given_.end() && !configured_.contains(vrf)) {
    give(vrf);
  } else if (!network.present() && it != given_.end()) {
    hold(it->second, vrf);
    given_.erase(it);
  }
}

void VrfIds::configuredIs(const std::map<std::string, VrfId>& ids) {
  std::map<VrfName, VrfId> wanted;
  std::map<VrfId, VrfName> nameOf;
  for (const auto& [name, id] : ids) wanted.emplace(name, id);
  wanted.emplace(std::string(defaultVrf), 0);
  for (const auto& [name, id] : wanted) nameOf.emplace(id, name);
  configured_ = std::move(wanted);

  // Ids that fall free, then those of the configuration, then others for those that lost theirs.
  std::erase_if(given_, [&](const auto& g) {
    return configured_.contains(g.first) || nameOf.contains(g.second);
  });
  const auto listed = status_->vrf();
  for (const auto& [id, name] : listed) {
    const auto given = given_.find(name);
    if (!nameOf.contains(id) && (given == given_.end() || given->second != id)) hold(id, name);
  }
  for (const auto& [id, name] : nameOf) {
    unhold(id);
    status_->vrfIs(id, name);
  }
  for (const auto& [vrf, watcher] : watchers_) handlePresent(*watcher->entity());
}

/// Lists the VRF under an id of its own: its last one, or the lowest that is free.
void VrfIds::give(const VrfName& vrf) {
  const auto last = heldFor_.find(vrf);
  const VrfId id = last != heldFor_.end() ? last->second : lowestFree();
  if (id > idMax) {
    log_.error("VRF " + vrf.stringValue() + " is not exported: no id is left");
    return;
  }
  unhold(id);
  given_[vrf] = id;
  log_.info("VRF " + vrf.stringValue() + " has id " + std::to_string(id) + ", none is configured");
  status_->vrfIs(id, vrf);
}

/// Takes the id off the list and keeps it for the name.
void VrfIds::hold(VrfId id, const VrfName& vrf) {
  status_->vrfDel(id);
  if (id == 0 || id > idMax) return;  // never given out
  unhold(id);
  held_[id] = {vrf, ++turn_};
  heldFor_[vrf] = id;
  turns_.emplace_back(id, turn_);
  if (turns_.size() <= heldMax) return;
  const auto [oldest, turn] = turns_.front();
  turns_.pop_front();
  const auto it = held_.find(oldest);
  if (it == held_.end() || it->second.turn != turn) return;  // taken meanwhile
  unhold(oldest);
  lowest_ = std::min(lowest_, oldest);
}

void VrfIds::unhold(VrfId id) {
  const auto it = held_.find(id);
  if (it == held_.end()) return;
  const auto last = heldFor_.find(it->second.name);
  if (last != heldFor_.end() && last->second == id) heldFor_.erase(last);
  held_.erase(it);
}

VrfId VrfIds::lowestFree() {
  while (status_->vrf().contains(lowest_) || held_.contains(lowest_)) ++lowest_;
  return lowest_;
}

}  // namespace agent
