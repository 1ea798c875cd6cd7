#include "agent/network/NetworkFollower.h"

namespace agent {

class NetworkFollower::ListWatcher final : public NetworkList::Watcher {
 public:
  explicit ListWatcher(NetworkFollower& all) : Watcher(all.networks_), all_(all) {}
  void handleNetwork(const VrfName& vrf) override { all_.handleNetwork(vrf); }

 private:
  NetworkFollower& all_;
};
class NetworkFollower::NetworkWatcher final : public VrfNetwork::Watcher {
 public:
  NetworkWatcher(const Handlers& handlers, Ptr<const VrfNetwork> network)
      : Watcher(std::move(network)), handlers_(handlers) {}
  void handlePresent() override { handlers_.present(*entity()); }
  void handleLink(const std::string& name) override {
    if (handlers_.link) handlers_.link(*entity(), name);
  }

 private:
  const Handlers& handlers_;
};

NetworkFollower::NetworkFollower(Ptr<const NetworkList> networks, Handlers handlers)
    : networks_(std::move(networks)),
      handlers_(std::move(handlers)),
      listWatcher_(std::make_unique<ListWatcher>(*this)) {
  for (const VrfName& vrf : keysOf(networks_->network())) handleNetwork(vrf);
}
NetworkFollower::~NetworkFollower() = default;

void NetworkFollower::handleNetwork(const VrfName& vrf) {
  const auto network = networks_->network(vrf);
  if (const auto it = watchers_.find(vrf); it != watchers_.end()) {
    if (it->second->entity() == network.get()) return;
    watchers_.erase(it);
    handlers_.gone(vrf);
  }
  if (!network) return;
  watchers_[vrf] = std::make_unique<NetworkWatcher>(handlers_, network);
  handlers_.present(*network);
}

}  // namespace agent
