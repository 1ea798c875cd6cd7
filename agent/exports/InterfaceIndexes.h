#pragma once
#include <cstdint>
#include <map>
#include <string>
#include <unordered_map>
#include <vector>

#include "Ipfix/FlowTrackingTypes.h"
#include "agent/host/AgentLog.h"
#include "agent/network/NetworkFollower.h"

namespace agent {

/// Gives every interface of every network the index that stands for it in what is exported, and
/// keeps the library's map of them in step with the networks.
///
/// In the default namespace the index is the kernel's. Elsewhere it is one that no other interface
/// has. These are given out upwards, so that the index of an interface that is gone stands for no
/// other one for as long as possible. An interface keeps its index while it lives, also under a new
/// name, with one exception: if the kernel gives an interface of the default namespace an index
/// that was given out elsewhere, the interface there gets a new one. A kernel index that is
/// reserved is not used: such an interface gets one like those of other namespaces.
///
/// The reverse map is written first: watchers of the forward map find both in step.
class InterfaceIndexes {
 public:
  // Above what kernels count up to, and no more than 31 bits: the range of ifIndex (RFC 2863).
  static constexpr uint32_t firstGiven = 0x01000000;
  static constexpr uint32_t lastGiven = 0x7fffffff;

  /// `next`: the first index to give out.
  InterfaceIndexes(Ptr<const NetworkList> networks, AgentLog& log, uint32_t next = firstGiven);
  InterfaceIndexes(const InterfaceIndexes&) = delete;
  InterfaceIndexes& operator=(const InterfaceIndexes&) = delete;

  const Ptr<FlowTracking::IntfIndexMap>& map() const { return map_; }

 private:
  /// One network and the indexes of its links.
  struct Namespace {
    explicit Namespace(const VrfNetwork& n)
        : network(&n), prefix(n.isDefault() ? "" : n.vrf().stringValue() + '/') {}
    const Link* live(uint32_t link) const;

    Ptr<const VrfNetwork> network;
    std::string prefix;                              // of its interfaces' exported names
    std::unordered_map<uint32_t, uint32_t> index;    // by the kernel's
    std::unordered_map<uint32_t, std::string> said;  // names that the log said are not exported
  };
  struct Owner {
    Namespace* ns;
    uint32_t link;  // the kernel's index
  };

  void handlePresent(const VrfNetwork& network);
  void handleGone(const VrfName& vrf);
  void handleLink(const VrfNetwork& network, const std::string& name);
  void settle(Namespace& ns, const std::vector<uint32_t>& links);
  void giveUp(Namespace& ns, uint32_t link);
  void name(Namespace& ns, uint32_t link, const std::string& name);
  void unname(uint32_t index);
  uint32_t take(Namespace& ns, uint32_t link);
  void move(uint32_t index);
  uint32_t unused();

  AgentLog& log_;
  Ptr<FlowTracking::IntfIndexMap> map_ = FlowTracking::intfIndexMapFactory();
  uint32_t next_;
  std::unordered_map<uint32_t, Owner> owner_;  // of every index in use, named or not
  std::map<VrfName, Namespace> namespaces_;
  NetworkFollower follower_;
};

}  // namespace agent
