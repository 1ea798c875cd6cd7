#pragma once
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "platform/Entity.h"
#include "platform/Ip.h"
#include "platform/Values.h"
#include "platform/linux/Netns.h"

namespace agent {
using namespace platform;

/// One address of a link, as rtnetlink tells it. What names it: local and peer address, length.
struct LinkAddress {
  IpGenAddr local;        ///< this machine's
  IpGenAddr peer;         ///< the other end's on a point-to-point link, else the same
  uint8_t prefixLen = 0;  ///< of the peer's prefix
  uint8_t scope = 0;      ///< RT_SCOPE_*
  uint32_t flags = 0;     ///< IFA_F_*

  bool sameName(const LinkAddress& o) const {
    return local == o.local && peer == o.peer && prefixLen == o.prefixLen;
  }
  bool operator==(const LinkAddress&) const = default;
};

/// What a link is, and what it stands on, by the kernel's indexes in its namespace.
struct LinkRelations {
  uint16_t type = 1;    ///< ARPHRD_*
  uint32_t master = 0;  ///< the bridge, bond, team or VRF device that has it as a member; 0: none
  uint32_t lower = 0;   ///< of a VLAN or MACVLAN, and the like: what carries it; 0: none
  bool operator==(const LinkRelations&) const = default;
};

struct Link {
  uint32_t index = 0;    ///< the kernel's, in its namespace
  uint64_t arrival = 0;  ///< counts the links that came: another one may have the same index later
  std::string name;
  uint32_t flags = 0;                  ///< IFF_*
  std::vector<LinkAddress> addresses;  ///< in the kernel's order
  LinkRelations relations = {};

  bool hasEthernetHeader() const;
  std::string stringValue() const;
  bool operator==(const Link&) const = default;
};

/// The network of one VRF: whether its namespace is there, and its links and addresses. Written by
/// what listens to the kernel; watched by whoever needs to know.
///
/// Changes are collected while they are written and told together by `tell`, by name: of a rename
/// both names are told.
class VrfNetwork final : public Entity {
 public:
  class Watcher : public EntityWatcher<VrfNetwork> {
   public:
    using EntityWatcher::EntityWatcher;
    /// It came, with all its links, or went with all of them; `handleLink` is not called then.
    virtual void handlePresent() {}
    /// The link of this name came, went or changed.
    virtual void handleLink(const std::string& /*name*/) {}
  };

  explicit VrfNetwork(VrfName vrf) : vrf_(std::move(vrf)) {}
  const VrfName& vrf() const { return vrf_; }
  bool isDefault() const { return vrf_.stringValue() == defaultVrf; }
  /// The namespace is there and its links are known.
  bool present() const { return present_; }
  /// False forgets all links.
  void presentIs(bool v);
  /// The namespace that the links are in. Another one of the same name is another network, whose
  /// interfaces may have the same indexes: what holds sockets in this one opens them anew.
  const NetnsId& netns() const { return netns_; }
  /// To be set before the links. Another one than before ends the presence of the one before.
  void netnsIs(const NetnsId& v);
  const std::map<uint32_t, Link>& links() const { return links_; }
  const Link* link(const std::string& name) const;  ///< null: there is none

  void linkIs(uint32_t index, const std::string& name, uint32_t flags);
  /// Of an unknown link: ignored.
  void relationsIs(uint32_t index, const LinkRelations& relations);
  void linkDel(uint32_t index);
  /// Of an unknown link: ignored.
  void addressIs(uint32_t index, const LinkAddress& address);
  void addressDel(uint32_t index, const LinkAddress& address);
  void tell();

  // A repeated survey: what nobody mentions between begin and end is gone.
  void surveyBegin();
  void surveyLinksEnd();
  void surveyAddressesEnd();

  AttrRows attrRows() const override;

 private:
  void changed(const std::string& name);

  VrfName vrf_;
  bool present_ = false;
  NetnsId netns_;
  std::map<uint32_t, Link> links_;
  uint64_t arrivals_ = 0;
  std::map<std::string, uint32_t> byName_;
  std::set<std::string> changed_;
  // Not mentioned yet in the survey under way.
  std::set<uint32_t> staleLinks_;
  std::map<uint32_t, std::vector<LinkAddress>> staleAddresses_;
};
Ptr<VrfNetwork> vrfNetworkFactory(const VrfName& vrf);

/// The networks that are looked at, by VRF; they need not be there.
class NetworkList final : public Entity {
 public:
  class Watcher : public EntityWatcher<NetworkList> {
   public:
    using EntityWatcher::EntityWatcher;
    virtual void handleNetwork(const VrfName& /*vrf*/) {}
  };
  const std::map<VrfName, Ptr<VrfNetwork>>& network() const { return network_; }
  Ptr<VrfNetwork> network(const VrfName& vrf) const { return find(network_, vrf); }
  void networkIs(const Ptr<VrfNetwork>& network) {
    put(network_, network->vrf(), network, &Watcher::handleNetwork);
  }
  void networkDel(const VrfName& vrf) { del(network_, vrf, &Watcher::handleNetwork); }

  AttrRows attrRows() const override;

 private:
  std::map<VrfName, Ptr<VrfNetwork>> network_;
};
Ptr<NetworkList> networkListFactory();

/// "eth0 in VRF red".
std::string linkPlace(const VrfNetwork& network, const std::string& link);
/// Why nothing can be sent from the link of a network that is present, in words; empty: it is up.
std::string linkProblem(const VrfNetwork& network, const std::string& link);

/// The addresses that an exporter sends from; zero: none.
struct SourceAddresses {
  IpAddr v4;
  Ip6Addr v6;
  bool operator==(const SourceAddresses&) const = default;
};

/// Picks them among the link's: of each family the first that may leave the machine, and on a
/// loopback link, failing that, one of its own. A link that is down has none. `current` stays as
/// long as the link has it and it is usable.
SourceAddresses chooseSource(const Link& link, const SourceAddresses& current);

}  // namespace agent
