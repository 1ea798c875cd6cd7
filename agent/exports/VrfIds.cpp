#include "agent/exports/VrfIds.h"

#include <algorithm>

namespace agent {

VrfIds::VrfIds(Ptr<const NetworkList> networks, AgentLog& log)
    : networks_(std::move(networks)), log_(log) {
  configuredIs({});
  follower_ = std::make_unique<NetworkFollower>(
      networks_,
      NetworkFollower::Handlers{[this](const VrfNetwork& network) { handlePresent(network); },
                                [this](const VrfName& vrf) { release(vrf); },
                                {}});
}

/// Takes the id that was given to the VRF, if one was, off the list.
void VrfIds::release(const VrfName& vrf) {
  const auto it = given_.find(vrf);
  if (it == given_.end()) return;
  hold(it->second, vrf);
  given_.erase(it);
}

void VrfIds::handlePresent(const VrfNetwork& network) {
  const VrfName& vrf = network.vrf();
  if (!network.present()) {
    release(vrf);
  } else if (!given_.contains(vrf) && !configured_.contains(vrf)) {
    give(vrf);
  }
}

void VrfIds::configuredIs(const std::map<std::string, VrfId>& ids) {
  std::map<VrfName, VrfId> wanted;
  std::map<VrfId, VrfName> nameOf;
  for (const auto& [name, id] : ids) wanted.emplace(name, id);
  wanted.emplace(std::string(defaultVrf), 0);
  for (const auto& [name, id] : wanted) nameOf.emplace(id, name);
  configured_ = std::move(wanted);

  // First take off the list what falls free, then list the configured ids, then give new ids to
  // the VRFs that lost theirs to the configuration.
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
  const auto all = networks_->network();  // a copy: the loop notifies
  for (const auto& [vrf, network] : all) handlePresent(*network);
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

/// Takes the id off the list and reserves it for the name.
void VrfIds::hold(VrfId id, const VrfName& vrf) {
  status_->vrfDel(id);
  if (id == 0 || id > idMax) return;  // `give` never gives such an id
  unhold(id);
  held_[id] = {vrf, ++turn_};
  heldFor_[vrf] = id;
  turns_.emplace_back(id, turn_);
  if (turns_.size() <= heldMax) return;
  const auto [oldest, turn] = turns_.front();
  turns_.pop_front();
  const auto it = held_.find(oldest);
  if (it == held_.end() || it->second.turn != turn) return;  // the id was given out meanwhile
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
