#include <net/if.h>

#include <set>

#include "World.h"
#include "agent/exports/InterfaceIndexes.h"
#include "agent/exports/VrfIds.h"
#include "agent/network/Networks.h"

namespace agent {
namespace {
using FlowTracking::IntfIndexMap;
using Ids = std::map<std::string, uint32_t>;

constexpr uint32_t first = InterfaceIndexes::firstGiven;
constexpr uint32_t last = InterfaceIndexes::lastGiven;

/// Networks written by hand.
class Made {
 public:
  Ptr<VrfNetwork> add(const std::string& vrf, bool present = true) {
    const auto n = vrfNetworkFactory(VrfName(vrf));
    n->presentIs(present);
    list->networkIs(n);
    return n;
  }
  void del(const std::string& vrf) { list->networkDel(VrfName(vrf)); }
  const Ptr<NetworkList> list = networkListFactory();
  Heard heard;
};
Ids indexes(const InterfaceIndexes& all) {
  Ids found;
  for (const auto& [id, index] : all.map()->intfIndex()) {
    found[id.stringValue()] = index;
    const auto back = all.map()->intfId().find(index);
    if (back == all.map()->intfId().end() || back->second != id)
      ADD_FAILURE() << index << " does not lead back to " << id.stringValue();
  }
  EXPECT_EQ(all.map()->intfId().size(), found.size());
  return found;
}

TEST(InterfaceIndexes, RandomLives) {
  Random below;
  for (int life = 0; life < 60; ++life) {
    Made made;
    const uint32_t starts[] = {first, last - below(20), IntfIndexMap::cpuIndex - below(20)};
    InterfaceIndexes all(made.list, made.heard.log, starts[life % 3]);
    std::map<std::pair<VrfName, uint32_t>, uint32_t> before;  // by the kernel's index
    std::set<uint32_t> everGiven;
    // Mostly small; in the default namespace sometimes one that was given out, or is about to be.
    const auto kernelIndex = [&](bool isDefault) {
      const uint32_t special[] = {first + below(12), last - below(12),
                                  IntfIndexMap::cpuIndex + below(2)};
      const uint32_t which = isDefault ? below(6) : 5;
      return which < std::size(special) ? special[which] : 1 + below(8);
    };
    for (int step = 0; step < 150; ++step) {
      const std::string vrf = std::array{"default", "red", "blue"}[below(3)];
      const auto network = made.list->network(VrfName(vrf));
      const uint32_t what = below(20);
      if (!network) {
        made.add(vrf, below(2) == 0);
      } else if (what == 0) {
        made.del(vrf);
      } else if (what == 1) {
        network->presentIs(!network->present());
      } else if (network->present()) {
        // Several changes of one round. No kernel gives an index again in so short a time.
        std::set<uint32_t> removed;
        for (uint32_t changes = 1 + below(6); changes > 0; --changes) {
          const auto links = network->links();
          if (links.size() > 1 && below(4) == 0) {  // two change places
            network->linkIs(links.begin()->first, links.rbegin()->second.name, IFF_UP);
            network->linkIs(links.rbegin()->first, links.begin()->second.name, IFF_UP);
          }
          const uint32_t k = kernelIndex(vrf == "default");
          const std::string name(1, static_cast<char>('a' + below(6)));
          if (links.contains(k) && below(2) == 0) {
            network->linkDel(k);
            removed.insert(k);
          } else if (!network->link(name) && !removed.contains(k)) {
            network->linkIs(k, name, IFF_UP);
          }
        }
        network->tell();
      }

      const Ids now = indexes(all);
      const auto home = made.list->network(VrfName("default"));
      std::map<std::pair<VrfName, uint32_t>, uint32_t> after;
      for (const auto& [of, n] : made.list->network())
        for (const auto& [k, link] : n->links()) {
          const bool isDefault = of.stringValue() == "default";
          const std::string id = (isDefault ? "" : of.stringValue() + '/') + link.name;
          ASSERT_TRUE(now.contains(id)) << id;
          const uint32_t index = after[{of, k}] = now.at(id);
          ASSERT_FALSE(IntfIndexMap::isReserved(index)) << id;
          const auto was = before.find({of, k});
          if (isDefault && !IntfIndexMap::isReserved(k)) {
            ASSERT_EQ(index, k) << id;
          } else if (was == before.end() || index != was->second) {
            // New, or its index is now the kernel's of another one; never one that was given out.
            ASSERT_TRUE(was == before.end() || (home && home->links().contains(was->second)));
            ASSERT_TRUE(index >= first && index <= last) << id << ' ' << index;
            ASSERT_TRUE(everGiven.insert(index).second) << id << ' ' << index;
          }
        }
      ASSERT_EQ(now.size(), after.size());
      before = after;
    }
  }
}

// --- VRFs ---

Ids vrfs(const VrfIds& ids) {
  Ids found;
  for (const auto& [id, name] : ids.status()->vrf())
    EXPECT_TRUE(found.emplace(name.stringValue(), id).second) << name.stringValue();
  return found;
}

TEST(VrfIds, IdsAreHeldBackForAWhile) {
  Made made;
  VrfIds ids(made.list, made.heard.log);
  const auto comes = [&](const std::string& name) {
    made.add(name);
    return vrfs(ids)[name];
  };
  const auto comeAndGo = [&](const std::string& prefix, size_t n) {
    for (size_t i = 0; i < n; ++i) {
      EXPECT_NE(comes(prefix + std::to_string(i)), 2u);
      made.del(prefix + std::to_string(i));
    }
  };
  ASSERT_EQ(comes("v1"), 1u);
  ASSERT_EQ(comes("v2"), 2u);
  made.del("v1");
  made.del("v2");
  // One more than are kept: the oldest is free, and the lowest.
  comeAndGo("w", VrfIds::heldMax - 1);
  EXPECT_EQ(comes("most"), 1u);
  EXPECT_EQ(comes("v1"), VrfIds::heldMax + 2);
  // Gone a second time: held from then on.
  EXPECT_EQ(comes("v2"), 2u);
  made.del("v2");
  comeAndGo("x", VrfIds::heldMax - 1);
  EXPECT_EQ(comes("v2"), 2u);
}

/// Ids of random lives against the rules.
TEST(VrfIds, RandomLives) {
  Random below;
  for (int life = 0; life < 60; ++life) {
    Made made;
    VrfIds ids(made.list, made.heard.log);
    Ids configured;
    std::map<uint32_t, std::string> lastOwner;
    Ids before;
    for (int step = 0; step < 200; ++step) {
      bool reloaded = false;
      const std::string name(1, static_cast<char>('a' + below(8)));
      if (below(4) == 0) {
        reloaded = true;
        configured.clear();
        std::set<uint32_t> taken;
        for (uint32_t n = below(5); n > 0; --n) {
          const uint32_t id = below(2) ? 1 + below(12) : VrfIds::idMax - below(2);
          const std::string other(1, static_cast<char>('a' + below(8)));
          if (!configured.contains(other) && taken.insert(id).second) configured[other] = id;
        }
        if (below(2)) configured["default"] = 0;
        ids.configuredIs(configured);
      } else if (!made.list->network(VrfName(name))) {
        made.add(name);
      } else if (below(2)) {
        made.del(name);
      } else {
        const auto network = made.list->network(VrfName(name));
        network->presentIs(!network->present());
      }

      const Ids now = vrfs(ids);
      Ids expected = configured;
      expected.emplace("default", 0);
      for (const auto& [vrfName, network] : made.list->network()) {
        const std::string vrf = vrfName.stringValue();
        if (!network->present() || configured.contains(vrf)) continue;
        ASSERT_TRUE(now.contains(vrf)) << vrf;
        const uint32_t id = now.at(vrf);
        ASSERT_TRUE(id >= 1 && id <= VrfIds::idMax) << vrf << ' ' << id;
        // Stable, unless a configuration claimed it; and nobody else's before.
        if (!before.contains(vrf) || before.at(vrf) != id) {
          ASSERT_TRUE(!before.contains(vrf) || reloaded) << vrf;
          const auto owner = lastOwner.find(id);
          ASSERT_TRUE(owner == lastOwner.end() || owner->second == vrf) << vrf << ' ' << id;
        }
        expected[vrf] = id;
      }
      ASSERT_EQ(now, expected);
      for (const auto& [vrf, id] : now) lastOwner[id] = vrf;
      before = now;
    }
  }
}

}  // namespace
}  // namespace agent
