#pragma once
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>

#include "agent/host/AgentLog.h"
#include "agent/network/NetworkFollower.h"
#include "agent/settings/Settings.h"
#include "platform/Vrf.h"

namespace agent {

/// Keeps the library's list of VRFs: those of the configuration, whether their namespaces are there
/// or not, and those of the namespaces that are there.
///
/// A VRF that the configuration gives no id has the lowest free one from 1 while its namespace
/// lives. An id that falls free stays reserved for its VRF's name until another 4096 ids have
/// fallen free after it; only the configuration may give it to another VRF before.
class VrfIds {
 public:
  static constexpr VrfId idMax = vrfIdMax;
  static constexpr size_t heldMax = 4096;

  VrfIds(Ptr<const NetworkList> networks, AgentLog& log);
  VrfIds(const VrfIds&) = delete;
  VrfIds& operator=(const VrfIds&) = delete;

  const Ptr<Vrf::VrfIdMap::Status>& status() const { return status_; }
  /// The ids of the configuration, valid and each of one name; without "default" that one has 0.
  void configuredIs(const std::map<std::string, VrfId>& ids);

 private:
  struct Held {
    VrfName name;
    uint64_t turn;
  };

  void handlePresent(const VrfNetwork& network);
  void give(const VrfName& vrf);
  void release(const VrfName& vrf);
  void hold(VrfId id, const VrfName& vrf);
  void unhold(VrfId id);
  VrfId lowestFree();

  Ptr<const NetworkList> networks_;
  AgentLog& log_;
  Ptr<Vrf::VrfIdMap::Status> status_ = Vrf::VrfIdMap::statusFactory();
  std::map<VrfName, VrfId> configured_;
  std::map<VrfName, VrfId> given_;
  std::map<VrfId, Held> held_;
  std::map<VrfName, VrfId> heldFor_;  // the last id of each name
  std::deque<std::pair<VrfId, uint64_t>> turns_;
  uint64_t turn_ = 0;
  VrfId lowest_ = 1;  // all ids below are listed or reserved
  std::unique_ptr<NetworkFollower> follower_;
};

}  // namespace agent
