#include "agent/exports/InterfaceIndexes.h"

namespace agent {
using FlowTracking::IntfIndexMap;

/// The link of this kernel index, unless another link has taken its name by now.
const Link* InterfaceIndexes::Namespace::live(uint32_t link) const {
  const auto it = network->links().find(link);
  return it != network->links().end() && network->link(it->second.name) == &it->second ? &it->second
                                                                                       : nullptr;
}

InterfaceIndexes::InterfaceIndexes(Ptr<const NetworkList> networks, AgentLog& log, uint32_t next)
    : log_(log),
      next_(next),
      follower_(std::move(networks),
                {[this](const VrfNetwork& network) { handlePresent(network); },
                 [this](const VrfName& vrf) { handleGone(vrf); },
                 [this](const VrfNetwork& n, const std::string& name) { handleLink(n, name); }}) {}

void InterfaceIndexes::handlePresent(const VrfNetwork& network) {
  Namespace& ns = namespaces_.try_emplace(network.vrf(), network).first->second;
  std::vector<uint32_t> links;
  links.reserve(ns.index.size() + network.links().size());
  for (const auto& [link, i] : ns.index) links.push_back(link);
  for (const auto& [link, l] : network.links())
    if (!ns.index.contains(link)) links.push_back(link);
  settle(ns, links);
}

void InterfaceIndexes::handleGone(const VrfName& vrf) {
  const auto it = namespaces_.find(vrf);
  for (const auto& [link, index] : it->second.index) {
    unname(index);
    owner_.erase(index);
  }
  namespaces_.erase(it);
}

void InterfaceIndexes::handleLink(const VrfNetwork& network, const std::string& name) {
  Namespace& ns = namespaces_.at(network.vrf());
  std::vector<uint32_t> links;
  // The link that has the name, and the one that had it.
  if (const Link* link = network.link(name)) links.push_back(link->index);
  const auto& known = map_->intfIndex();
  if (const auto it = known.find(IntfId(ns.prefix + name)); it != known.end()) {
    const uint32_t link = owner_.at(it->second).link;
    if (links.empty() || links[0] != link) links.push_back(link);
  }
  settle(ns, links);
}

/// Makes the map say of these links, by the kernel's index, what the network says.
void InterfaceIndexes::settle(Namespace& ns, const std::vector<uint32_t>& links) {
  // First give up names: another of these links may take one.
  for (const uint32_t link : links) giveUp(ns, link);
  for (const uint32_t link : links) {
    if (const Link* live = ns.live(link)) {
      name(ns, link, live->name);
    } else {
      ns.said.erase(link);
    }
  }
}

/// Takes the name off a link that lost it, and the index off a link that is gone.
void InterfaceIndexes::giveUp(Namespace& ns, uint32_t link) {
  const auto it = ns.index.find(link);
  if (it == ns.index.end()) return;
  const uint32_t index = it->second;
  const auto named = map_->intfId().find(index);
  const Link* live = ns.live(link);
  if (named != map_->intfId().end() &&
      (!live || named->second.stringValue() != ns.prefix + live->name))
    unname(index);
  if (ns.network->links().contains(link)) return;
  owner_.erase(index);
  ns.index.erase(it);
}

void InterfaceIndexes::name(Namespace& ns, uint32_t link, const std::string& name) {
  const IntfId id(ns.prefix + name);
  if (name.empty() || id.stringValue().size() > IntfIndexMap::nameMax) {
    const auto [said, fresh] = ns.said.try_emplace(link, name);
    if (fresh || std::exchange(said->second, name) != name)
      log_.warning("interface " + std::to_string(link) + " in VRF " +
                   ns.network->vrf().stringValue() + " is not exported: its name '" + name +
                   "' has not 1 to " + std::to_string(IntfIndexMap::nameMax) + " octets");
    return;
  }
  // The link that had the name has lost it. If it lives, `handleLink` will bring its new name.
  if (const auto it = map_->intfIndex().find(id); it != map_->intfIndex().end()) {
    const Owner owner = owner_.at(it->second);
    if (owner.link == link) return;
    giveUp(*owner.ns, owner.link);
  }
  const uint32_t index = take(ns, link);
  map_->intfIdIs(index, id);
  map_->intfIndexIs(id, index);
}

/// Takes the index's name off both maps; the index stays its owner's.
void InterfaceIndexes::unname(uint32_t index) {
  const auto it = map_->intfId().find(index);
  if (it == map_->intfId().end()) return;
  const IntfId id = it->second;
  map_->intfIdDel(index);
  map_->intfIndexDel(id);
}

/// The link's index. A link without one gets one.
uint32_t InterfaceIndexes::take(Namespace& ns, uint32_t link) {
  if (const auto it = ns.index.find(link); it != ns.index.end()) return it->second;
  uint32_t index = link;
  if (!ns.network->isDefault() || IntfIndexMap::isReserved(link)) {
    index = unused();
  } else if (owner_.contains(link)) {
    move(link);
  }
  owner_[index] = {&ns, link};
  ns.index[link] = index;
  return index;
}

/// Gives the owner of `index` another index.
void InterfaceIndexes::move(uint32_t index) {
  const Owner owner = owner_.at(index);
  const uint32_t other = unused();
  owner_.erase(index);
  owner_[other] = owner;
  owner.ns->index[owner.link] = other;
  const auto it = map_->intfId().find(index);
  if (it == map_->intfId().end()) return;
  const IntfId id = it->second;
  map_->intfIdDel(index);
  map_->intfIdIs(other, id);
  map_->intfIndexIs(id, other);
}

uint32_t InterfaceIndexes::unused() {
  for (;;) {
    const uint32_t index = next_;
    next_ = index == lastGiven ? firstGiven : index + 1;
    if (!IntfIndexMap::isReserved(index) && !owner_.contains(index)) return index;
  }
}

}  // namespace agent
