#include "agent/control/StateTree.h"

#include <gtest/gtest.h>

#include <chrono>
#include <set>

#include "Ipfix/FlowTrackingTypes.h"
#include "agent/network/Network.h"
#include "platform/HwFlowTracking.h"

namespace agent {
namespace {

using Rows = std::vector<std::pair<std::string, std::string>>;

Rows all(const StateTree& tree, const std::string& path, const StateTree::Limits& limits) {
  Rows rows;
  std::string after;
  for (;;) {
    const auto page = tree.page(path, after, limits);
    EXPECT_EQ(page.problem, "");
    EXPECT_LE(page.rows.size(), limits.rows);
    for (const StateRow& row : page.rows) rows.emplace_back(row.path, row.text.value_or("(none)"));
    if (page.done || page.rows.empty()) return rows;
    after = page.rows.back().path;
  }
}

/// Values, members that are values, and collections without members.
size_t leaves(const Entity& e) {
  size_t n = 0;
  for (const AttrRow& row : e.attrRows()) {
    if (row.get) ++n;
    if (!row.each) continue;
    const size_t before = n;
    row.each(e, [&](const std::string&, const Entity* child, const std::string&) {
      n += child ? leaves(*child) : 1;
    });
    if (n == before) ++n;
  }
  return n;
}

TEST(StateTree, PagesOfAnySizeMakeTheWhole) {
  const auto config = HwFlowTracking::configFactory();
  for (const char* tracker : {"edge", "a/b %", "'q'"}) {
    config->ftConfigIs(HwFlowTracking::ftConfigFactory(tracker, 7));
    for (const char* name : {"main", "x"}) {
      const auto e = HwFlowTracking::exporterConfigFactory(name);
      for (const char* c : {"c1", "c2"}) e->collectorIpAndPortIs(c, {IpAddr(0x0a000001), 4739});
      config->ftConfig(tracker)->expConfigIs(e);
    }
  }
  const auto interfaces = FlowTracking::intfIndexMapFactory();
  for (uint32_t i = 1; i <= 30; ++i) {
    const IntfId id(i % 3 ? "eth" + std::to_string(i) : "\xff\x01/" + std::to_string(i));
    interfaces->intfIndexIs(id, i);
    interfaces->intfIdIs(i, id);
  }
  const std::vector<StateTree::Root> roots = {
      {"config", config}, {"interfaces", interfaces}, {"networks", networkListFactory()}};
  const StateTree tree(roots);
  const Rows whole = all(tree, "", {});
  size_t expected = 0;
  for (const StateTree::Root& root : roots) expected += leaves(*root.entity);
  EXPECT_EQ(whole.size(), expected);
  EXPECT_EQ((std::set<Rows::value_type>(whole.begin(), whole.end()).size()), whole.size());
  for (const size_t rows : {1, 2, 3, 7, 50})
    EXPECT_EQ(all(tree, "", {.rows = rows}), whole) << rows;
  EXPECT_EQ(all(tree, "", {.octets = 1}), whole);
  EXPECT_EQ(all(tree, "", {.time = std::chrono::microseconds(0)}), whole);
  EXPECT_EQ(tree.page("interfaces", "interfaces/intfIndex").rows.at(0).path.substr(0, 19),
            "interfaces/intfId/=")
      << "a collection can be skipped";
  // Each row's path leads to that row, and so does what a person would write.
  for (const auto& [path, text] : whole)
    EXPECT_EQ(all(tree, path, {}), (Rows{{path, text}})) << path;
  EXPECT_EQ(all(tree, "config/ftConfig/a%2Fb %/expConfig/main/dscp", {})[0].second, "0");
  EXPECT_EQ(all(tree, "interfaces/intfIndex/eth1", {})[0].second, "1");
}

}  // namespace
}  // namespace agent
