#include "agent/network/Network.h"

#include <linux/if_addr.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <net/if_arp.h>

#include <algorithm>

namespace agent {

std::string Link::stringValue() const {
  std::string all;
  for (const LinkAddress& a : addresses) {
    if (!all.empty()) all += ", ";
    all += a.local.stringValue() + '/' + std::to_string(a.prefixLen);
  }
  return ValueWriter("agent::Link")
      .attr("index", index)
      .attr("name", name)
      .attr("up", (flags & IFF_UP) != 0)
      .raw("addresses", '[' + all + ']')
      .str();
}

bool Link::hasEthernetHeader() const {
  return relations.type == ARPHRD_ETHER || relations.type == ARPHRD_LOOPBACK;
}

void VrfNetwork::presentIs(bool v) {
  if (!v) {
    links_.clear();
    byName_.clear();
    staleLinks_.clear();
    staleAddresses_.clear();
    changed_.clear();
  }
  set(present_, v, &Watcher::handlePresent);
}

void VrfNetwork::netnsIs(const NetnsId& v) {
  if (netns_ == v) return;
  presentIs(false);
  netns_ = v;
}

const Link* VrfNetwork::link(const std::string& name) const {
  auto it = byName_.find(name);
  return it == byName_.end() ? nullptr : &links_.at(it->second);
}

void VrfNetwork::changed(const std::string& name) {
  if (present_) changed_.insert(name);
}

void VrfNetwork::linkIs(uint32_t index, const std::string& name, uint32_t flags) {
  staleLinks_.erase(index);
  const auto [at, fresh] = links_.try_emplace(index);
  Link& link = at->second;
  if (fresh) link.arrival = ++arrivals_;
  if (link.index == index && link.name == name && link.flags == flags) return;
  if (link.name != name) {
    if (auto it = byName_.find(link.name); it != byName_.end() && it->second == index) {
      changed(link.name);
      byName_.erase(it);
    }
    // Where a name moved from a link that is still listed, the news of that one is on its way.
    byName_[name] = index;
  }
  link.index = index;
  link.name = name;
  link.flags = flags;
  changed(name);
}

void VrfNetwork::relationsIs(uint32_t index, const LinkRelations& relations) {
  const auto it = links_.find(index);
  if (it == links_.end() || it->second.relations == relations) return;
  it->second.relations = relations;
  changed(it->second.name);
}

void VrfNetwork::linkDel(uint32_t index) {
  staleLinks_.erase(index);
  staleAddresses_.erase(index);
  auto node = links_.extract(index);
  if (node.empty()) return;
  const std::string& name = node.mapped().name;
  if (auto it = byName_.find(name); it != byName_.end() && it->second == index) {
    byName_.erase(it);
    changed(name);
  }
}

void VrfNetwork::addressIs(uint32_t index, const LinkAddress& address) {
  const auto same = [&](const LinkAddress& a) { return a.sameName(address); };
  if (auto it = staleAddresses_.find(index); it != staleAddresses_.end())
    std::erase_if(it->second, same);
  auto it = links_.find(index);
  if (it == links_.end()) return;
  auto& all = it->second.addresses;
  auto at = std::find_if(all.begin(), all.end(), same);
  if (at == all.end()) {
    all.push_back(address);
  } else if (*at == address) {
    return;
  } else {
    *at = address;
  }
  changed(it->second.name);
}

void VrfNetwork::addressDel(uint32_t index, const LinkAddress& address) {
  auto it = links_.find(index);
  if (it == links_.end()) return;
  if (std::erase_if(it->second.addresses,
                    [&](const LinkAddress& a) { return a.sameName(address); }) > 0)
    changed(it->second.name);
}

void VrfNetwork::tell() {
  const auto names = std::move(changed_);
  changed_.clear();
  const Ptr<Entity> hold(this);
  for (const std::string& name : names) notify(&Watcher::handleLink, name);
}

void VrfNetwork::surveyBegin() {
  staleLinks_.clear();
  staleAddresses_.clear();
  for (const auto& [index, link] : links_) {
    staleLinks_.insert(index);
    if (!link.addresses.empty()) staleAddresses_[index] = link.addresses;
  }
}
void VrfNetwork::surveyLinksEnd() {
  for (const uint32_t index : std::set<uint32_t>(std::move(staleLinks_))) linkDel(index);
  staleLinks_.clear();
}
void VrfNetwork::surveyAddressesEnd() {
  const auto stale = std::move(staleAddresses_);
  staleAddresses_.clear();
  for (const auto& [index, addresses] : stale)
    for (const LinkAddress& a : addresses) addressDel(index, a);
}

AttrRows VrfNetwork::attrRows() const {
  static constexpr AttrRow rows[] = {
      row<&VrfNetwork::vrf>("vrf"),
      row<&VrfNetwork::present>("present"),
      mapRow<&VrfNetwork::links>("links"),
  };
  return rows;
}
Ptr<VrfNetwork> vrfNetworkFactory(const VrfName& vrf) {
  return Ptr<VrfNetwork>::adopt(new VrfNetwork(vrf));
}

namespace {
using NetworkMap = const std::map<VrfName, Ptr<VrfNetwork>>& (NetworkList::*)() const;
}  // namespace
AttrRows NetworkList::attrRows() const {
  static constexpr AttrRow rows[] = {
      mapRow<static_cast<NetworkMap>(&NetworkList::network)>("network")};
  return rows;
}
Ptr<NetworkList> networkListFactory() { return Ptr<NetworkList>::adopt(new NetworkList); }

std::string linkPlace(const VrfNetwork& network, const std::string& link) {
  return link + " in VRF " + network.vrf().stringValue();
}
std::string linkProblem(const VrfNetwork& network, const std::string& link) {
  const Link* const found = network.link(link);
  if (!found) return "there is no interface " + linkPlace(network, link);
  return found->flags & IFF_UP ? "" : "interface " + linkPlace(network, link) + " is down";
}

namespace {
constexpr int unusable = 0;

/// How well an address serves as a source: 0 not at all, else the more the better.
int fitness(const Link& link, const LinkAddress& a) {
  const bool loopback = (link.flags & IFF_LOOPBACK) != 0;
  if (a.scope == RT_SCOPE_LINK || a.scope == RT_SCOPE_NOWHERE) return unusable;
  // ::1 and 127.0.0.1: good for collectors on this machine only.
  if (a.scope == RT_SCOPE_HOST && !loopback) return unusable;
  if (a.local.isIpv6()) {
    if (a.local.ip6Addr().isZero() || a.local.ip6Addr().isLinkLocal()) return unusable;
    // Duplicate address detection is under way, or found one; or the lifetime is ending.
    if ((a.flags & (IFA_F_TENTATIVE | IFA_F_DADFAILED | IFA_F_DEPRECATED)) != 0) return unusable;
  } else if (!a.local.isIpv4() || a.local.ipAddr().isZero()) {
    return unusable;
  }
  if (a.scope == RT_SCOPE_HOST) return 1;
  // IPv4: not the prefix's primary address. IPv6: temporary (RFC 8981), so it will go.
  if ((a.flags & IFA_F_SECONDARY) != 0) return 2;
  return 3;
}
}  // namespace

SourceAddresses chooseSource(const Link& link, const SourceAddresses& current) {
  SourceAddresses chosen;
  if ((link.flags & IFF_UP) == 0) return chosen;
  int best4 = unusable;
  int best6 = unusable;
  for (const LinkAddress& a : link.addresses) {
    const int fit = fitness(link, a);
    if (fit == unusable) continue;
    constexpr int keep = 9;
    if (a.local.isIpv4()) {
      const int value = a.local.ipAddr() == current.v4 ? keep : fit;
      if (value > best4) {
        best4 = value;
        chosen.v4 = a.local.ipAddr();
      }
    } else {
      const int value = a.local.ip6Addr() == current.v6 ? keep : fit;
      if (value > best6) {
        best6 = value;
        chosen.v6 = a.local.ip6Addr();
      }
    }
  }
  return chosen;
}

}  // namespace agent
