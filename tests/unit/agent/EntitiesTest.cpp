#include "agent/exports/Entities.h"

#include <net/if.h>

#include <set>

#include "RandomSettings.h"
#include "agent/control/StateTree.h"
#include "agent/exports/AddressChoice.h"
#include "agent/settings/SettingsFile.h"
#include "tests/unit/ipfix/Tree.h"

namespace agent {
namespace {
using namespace std::chrono_literals;
using FlowTracking::FlowTrackingType;
using HwFlowTracking::ExporterConfig;

IpGenAddr ip(const std::string& text) { return *IpGenAddr::fromString(text); }
LinkAddress on(const std::string& address) { return {ip(address), ip(address), 24, 0, 0}; }

/// Networks made by hand: eth0 and eth1 in VRFs default and red. Other VRFs never come.
class Nets {
 public:
  Nets() {
    for (const char* vrf : {"default", "red"}) {
      const auto n = of(VrfName(vrf));
      for (const uint32_t index : {1, 2}) {
        n->linkIs(index, "eth" + std::to_string(index - 1), IFF_UP);
        n->addressIs(index, on("10.0.0." + std::to_string(index)));
        n->addressIs(index, on("2001:db8::1"));
      }
      n->presentIs(true);
    }
  }
  Ptr<VrfNetwork> of(const VrfName& vrf) {
    auto& n = all_[vrf];
    if (!n) n = vrfNetworkFactory(vrf);
    return n;
  }
  /// Something changes that exporters depend on.
  void change(Random& pick) {
    const auto n = of(VrfName(pick(2) ? "default" : "red"));
    const uint32_t index = 1 + pick(2);
    const LinkAddress addresses[] = {on("10.0.0." + std::to_string(index)), on("2001:db8::1")};
    const LinkAddress& address = addresses[pick(2)];
    const uint32_t what = pick(12);
    if (what == 0) n->presentIs(!n->present());
    if (what == 1) n->linkDel(index);
    if (what == 2) n->linkIs(index, "eth7", IFF_UP);
    if (what == 3) n->addressDel(index, address);
    if (what == 4) n->linkIs(index, "eth" + std::to_string(index - 1), 0);
    if (what > 4) n->linkIs(index, "eth" + std::to_string(index - 1), IFF_UP);
    if (what > 8) n->addressIs(index, address);
    n->tell();
  }

 private:
  std::map<VrfName, Ptr<VrfNetwork>> all_;
};

Settings base() {
  return *parseSettings(R"(
[tracker.edge]
id = 7
exporter.spare.local-interface = "eth1"
exporter.main.local-interface = "eth0"
exporter.main.collector.one.address = "192.0.2.1"
exporter.main.collector.two.address = "192.0.2.2"
exporter.main.collector.six.address = "2001:db8::99"
)",
                        "base")
              .settings;
}

/// Hears what one exporter's configuration tells.
struct Ear final : ExporterConfig::Watcher {
  explicit Ear(Ptr<const ExporterConfig> e) : Watcher(std::move(e)) {}
  void handleVrfName() override { other = true; }
  void handleDscp() override { other = true; }
  void handleIpfixMtu() override { other = true; }
  void handleTemplateInterval() override { other = true; }
  void handleSrcIpAddr() override { other = true; }
  void handleSrcIp6Addr() override { other = true; }
  void handleCollectorIpAndPort(const std::string& name) override { collectors.insert(name); }
  void handleCollectorIp6AndPort(const std::string& name) override { collectors.insert(name); }
  std::set<std::string> collectors;
  bool other = false;
};

/// All configuration and status entities as text.
std::string dump(const LibraryTrees& trees) {
  std::string out;
  for (const auto& [type, tree] : trees.all()) {
    if (tree.config->ftConfig().empty() && tree.status->ftStatus().empty()) continue;
    out += FlowTracking::toText(type) + '\n';
    const StateTree all({{"config", tree.config}, {"status", tree.status}});
    const auto page = all.page("", "", {.rows = 1 << 20, .octets = 1 << 30, .time = 10min});
    for (const StateRow& row : page.rows) out += row.path + ' ' + row.text.value_or("") + '\n';
  }
  return out;
}

class EntitiesTest : public FlowTracking::TreeTest {
 protected:
  std::unique_ptr<Entities> make(LibraryTrees& of) {
    return std::make_unique<Entities>(
        of, [this](const VrfName& vrf) { return nets.of(vrf); }, init->elementIdCollection(),
        heard.log, [] {});
  }

  Heard heard;
  Nets nets;
  LibraryTrees trees{LibraryHost{}};
};

TEST_F(EntitiesTest, AHostsAddressIsOneThatTheExporterCanSendTo) {
  const auto entities = make(trees);
  std::map<std::string, std::vector<IpGenAddr>> known;
  int asked = 0;
  const auto addresses = [&](const std::string& host) {
    const auto it = known.find(host);
    return it == known.end() ? nullptr : &it->second;
  };
  AddressChoice choice(*entities, trees, heard.log, {addresses, [&] { ++asked; }});
  Settings settings = base();
  CollectorSettings& named = settings.trackers["edge"].exporters["main"].collectors["named"];
  named.host = "coll";
  choice.apply(settings);
  const auto main = trees.tree(FlowTrackingType::software).exporterConfig("edge", "main");
  const auto now = [&] {
    choice.review();
    std::string all;
    if (main->collectorIpAndPort().contains("named"))
      all += main->collectorIpAndPort().at("named").stringValue();
    if (main->collectorIp6AndPort().contains("named"))
      all += main->collectorIp6AndPort().at("named").stringValue();
    return all;
  };
  const IpGenAddr four = ip("192.0.2.5");
  const IpGenAddr six = ip("2001:db8::5");
  EXPECT_EQ(now(), "") << "not known yet";
  known["coll"] = {six, four};
  EXPECT_EQ(now(), "[2001:db8::5]:4739");
  EXPECT_EQ(describe(choice.apply(settings)), "nothing changed");
  known["coll"] = {four, six};
  EXPECT_EQ(now(), "[2001:db8::5]:4739") << "another order is no reason to move";
  const auto home = nets.of(VrfName("default"));
  for (const char* source : {"2001:db8::1", "10.0.0.1"}) {
    home->addressDel(1, on(source));
    home->tell();
    EXPECT_EQ(now(), "192.0.2.5:4739") << "from nowhere nothing can be sent elsewhere either";
  }
  EXPECT_EQ(asked, 2);
  home->addressIs(1, on("10.0.0.1"));
  home->tell();
  known["coll"] = {ip("192.0.2.1"), ip("192.0.2.2")};
  EXPECT_EQ(now(), "") << "both are other collectors'";
  EXPECT_TRUE(heard.has("<4>collector named of exporter main of tracker edge: waits: no address"));
  known["coll"].push_back(ip("192.0.2.6"));
  EXPECT_EQ(now(), "192.0.2.6:4739");
  Ear ear(main);
  named.port = 1;
  EXPECT_EQ(describe(choice.apply(settings)), "collectors: 1 changed");
  EXPECT_EQ(ear.collectors, std::set<std::string>{"named"});
  EXPECT_EQ(now(), "192.0.2.6:1");
}

// The entities end as after a fresh start, and what is the same in both files hears nothing.
TEST_F(EntitiesTest, RandomReloadsTellTheDifferenceOnly) {
  RandomSettings random;
  const auto entities = make(trees);
  Settings settings;
  for (int round = 0; round < 500; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    const Settings before = settings;
    for (uint32_t n = random.pick(3); n > 0; --n) nets.change(random.pick);
    std::map<std::pair<std::string, std::string>, Ear> ears;
    for (const auto& [type, tree] : trees.all())
      for (const auto& [ftName, ft] : tree.config->ftConfig())
        for (const auto& [name, e] : ft->expConfig()) ears.try_emplace({ftName, name}, e);
    random.mutate(settings);
    EXPECT_EQ(describe(entities->apply(settings)) == "nothing changed",
              settings.trackers == before.trackers);
    LibraryTrees freshTrees{LibraryHost{}};
    make(freshTrees)->apply(settings);
    ASSERT_EQ(dump(trees), dump(freshTrees));
    for (const auto& [names, ear] : ears) {
      const TrackerSettings& then = before.trackers.at(names.first);
      if (!settings.trackers.contains(names.first)) continue;
      const TrackerSettings& t = settings.trackers.at(names.first);
      if (!t.exporters.contains(names.second)) continue;
      const bool anew = !sameKeys(t, then, Effect::trackerAnew);
      const auto now = trees.tree(t.type).config->ftConfig(names.first);
      ASSERT_EQ(now->expConfig(names.second).get() != ear.entity(), anew);
      if (anew) continue;
      const ExporterSettings& e = t.exporters.at(names.second);
      ExporterSettings old = then.exporters.at(names.second);
      for (const std::string& name : ear.collectors)
        ASSERT_TRUE(!e.collectors.contains(name) || !old.collectors.contains(name) ||
                    e.collectors.at(name) != old.collectors.at(name))
            << name;
      old.collectors = e.collectors;
      ASSERT_TRUE(!ear.other || e != old);
    }
  }
  entities->apply({});
  for (const char* vrf : {"default", "red", "r\"é"}) EXPECT_EQ(nets.of(VrfName(vrf))->refs(), 2u);
}

}  // namespace
}  // namespace agent
