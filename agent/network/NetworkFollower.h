#pragma once
#include <functional>
#include <map>
#include <memory>
#include <string>

#include "agent/network/Network.h"

namespace agent {

/// Watches a list of networks and every network in it, those that join later included. Its owner
/// declares it behind the members that the handlers use.
class NetworkFollower {
 public:
  struct Handlers {
    /// The network joined the list, or came or went as `VrfNetwork::present` says. The constructor
    /// calls it for every network that is listed already.
    std::function<void(const VrfNetwork&)> present;
    /// The VRF's network left the list. If another one took its place, `present` is called next.
    std::function<void(const VrfName&)> gone;
    /// The network's link of this name came, went or changed. May be empty.
    std::function<void(const VrfNetwork&, const std::string& name)> link;
  };
  NetworkFollower(Ptr<const NetworkList> networks, Handlers handlers);
  ~NetworkFollower();
  NetworkFollower(const NetworkFollower&) = delete;
  NetworkFollower& operator=(const NetworkFollower&) = delete;

 private:
  class ListWatcher;
  class NetworkWatcher;

  void handleNetwork(const VrfName& vrf);

  const Ptr<const NetworkList> networks_;
  const Handlers handlers_;
  std::map<VrfName, std::unique_ptr<NetworkWatcher>> watchers_;
  std::unique_ptr<ListWatcher> listWatcher_;
};

}  // namespace agent
