#include "agent/exports/InterfaceIndexes.h"

namespace agent {
using FlowTracking::IntfIndexMap;

class InterfaceIndexes::ListWatcher final : public NetworkList::Watcher {
 public:
  explicit ListWatcher(InterfaceIndexes& all) : Watcher(all.networks_), all_(all) {}
  void handleNetwork(const VrfName& vrf) override { all_.handleNetwork(vrf); }

 private:
  InterfaceIndexes& all_;
};

/// One network and the indexes of its links.
class InterfaceIndexes::Place final : public VrfNetwork::Watcher {
 public:
  Place(InterfaceIndexes& all, Ptr<const VrfNetwork> network)
      : Watcher(network),
        network(std::move(network)),
        prefix(this->network->isDefault() ? "" : this->network->vrf().stringValue() + '/'),
        all_(all) {}
  /// Its link of this kernel index, if it has a name that is nobody else's by now.
  const Link* live(uint32_t link) const {
    const auto it = network->links().find(link);
    return it != network->links().end() && network->link(it->second.name) == &it->second
               ? &it->second
               : nullptr;
  }
  void handlePresent() override {
    std::vector<uint32_t> links;
    links.reserve(index.size() + network->links().size());
    for (const auto& [link, i] : index) links.push_back(link);
    for (const auto& [link, l] : network->links())
      if (!index.contains(link)) links.push_back(link);
    all_.settle(*this, links);
  }
  void handleLink(const std::string& name) override {
    std::vector<uint32_t> links;
    // Who has the name, and who had it.
    if (const Link* link = network->link(name)) links.push_back(link->index);
    const auto& known = all_.map_->intfIndex();
    if (const auto it = known.find(IntfId(prefix + name)); it != known.end()) {
      const uint32_t link = all_.owner_.at(it->second).link;
      if (links.empty() || links[0] != link) links.push_back(link);
    }
    all_.settle(*this, links);
  }

  const Ptr<const VrfNetwork> network;
  const std::string prefix;
  std::unordered_map<uint32_t, uint32_t> index;    // by the kernel's
  std::unordered_map<uint32_t, std::string> said;  // names that cannot be exported, told of

 private:
  InterfaceIndexes& all_;
};

InterfaceIndexes::InterfaceIndexes(Ptr<const NetworkList> networks, AgentLog& log, uint32_t next)
    : networks_(std::move(networks)),
      log_(log),
      next_(next),
      listWatcher_(std::make_unique<ListWatcher>(*this)) {
  const auto all = networks_->network();
  for (const auto& [vrf, network] : all) handleNetwork(vrf);
}
InterfaceIndexes::~InterfaceIndexes() = default;

void InterfaceIndexes::handleNetwork(const VrfName& vrf) {
  const auto network = networks_->network(vrf);
  if (auto it = places_.find(vrf); it != places_.end() && it->second->network != network) {
    for (const auto& [link, index] : it->second->index) {
      unname(index);
      owner_.erase(index);
    }
    places_.erase(it);
  }
  if (!network || places_.contains(vrf)) return;
  const auto& place = places_[vrf] = std::make_unique<Place>(*this, network);
  place->handlePresent();
}

/// Makes the map say of these links, by the kernel's index, what the network says.
void InterfaceIndexes::settle(Place& place, const std::vector<uint32_t>& links) {
  // Names that are given up first: one of the others may take them.
  for (const uint32_t link : links) giveUp(place, link);
  for (const uint32_t link : links) {
    if (const Link* live = place.live(link)) {
      name(place, link, live->name);
    } else {
      place.said.erase(link);
    }
  }
}

/// Takes from the link what it no longer has: its name, and when it is gone its index.
void InterfaceIndexes::giveUp(Place& place, uint32_t link) {
  const auto it = place.index.find(link);
  if (it == place.index.end()) return;
  const uint32_t index = it->second;
  const auto named = map_->intfId().find(index);
  const Link* live = place.live(link);
  if (named != map_->intfId().end() &&
      (!live || named->second.stringValue() != place.prefix + live->name))
    unname(index);
  if (place.network->links().contains(link)) return;
  owner_.erase(index);
  place.index.erase(it);
}

void InterfaceIndexes::name(Place& place, uint32_t link, const std::string& name) {
  const IntfId id(place.prefix + name);
  if (name.empty() || id.stringValue().size() > IntfIndexMap::nameMax) {
    const auto [said, fresh] = place.said.try_emplace(link, name);
    if (fresh || std::exchange(said->second, name) != name)
      log_.warning("interface " + std::to_string(link) + " in VRF " +
                   place.network->vrf().stringValue() + " is not exported: its name '" + name +
                   "' has not 1 to " + std::to_string(IntfIndexMap::nameMax) + " octets");
    return;
  }
  // Its former owner has lost it; if that one lives, the news of its new name is on its way.
  if (const auto it = map_->intfIndex().find(id); it != map_->intfIndex().end()) {
    const Owner owner = owner_.at(it->second);
    if (owner.link == link) return;
    giveUp(*owner.place, owner.link);
  }
  const uint32_t index = take(place, link);
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

/// The link's index, from now on if it has none yet.
uint32_t InterfaceIndexes::take(Place& place, uint32_t link) {
  if (const auto it = place.index.find(link); it != place.index.end()) return it->second;
  uint32_t index = link;
  if (!place.network->isDefault() || IntfIndexMap::isReserved(link)) {
    index = unused();
  } else if (owner_.contains(link)) {
    move(link);
  }
  owner_[index] = {&place, link};
  place.index[link] = index;
  return index;
}

/// Gives the owner of `index` another one.
void InterfaceIndexes::move(uint32_t index) {
  const Owner owner = owner_.at(index);
  const uint32_t other = unused();
  owner_.erase(index);
  owner_[other] = owner;
  owner.place->index[owner.link] = other;
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
