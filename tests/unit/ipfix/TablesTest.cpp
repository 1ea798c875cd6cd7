#include <functional>
#include <set>

#include "Receiver.h"

/// The four options tables at their limits, what they announce, and the tree by name. What watchers
/// may do meanwhile is RestlessTest's.
namespace FlowTracking {
namespace {

std::string octetsOf(const Ptr<const DataRecord>& r) { return std::string(r->data()); }

class TablesTest : public TreeTest {
 protected:
  Ptr<FlowTrackerTableSm> trackerTableSm() {
    return flowTrackerTableSmFactory(optionsDataSourceFactory("t", 3), slot, hwStatus, tracker,
                                     ftStatus, FlowTrackingType::software, sim->scheduler());
  }
  Ptr<OptionsDataUpdate> slot = optionsDataUpdateFactory(OptionsDataScope::scopeTracker);
};

// What a record looks like in general is for the random worlds; here what is at the edges.
TEST_F(TablesTest, RecordsAtTheirLimits) {
  const auto source = [](TemplateId id) { return optionsDataSourceFactory("s", id); };
  const auto intf = interfaceTableSmFactory(source(1), slot, intfs);
  EXPECT_EQ(intf->makeDataRecord(std::string(254, 'n'), 1)->dataLen(), 259u);
  EXPECT_DEATH(intf->makeDataRecord(std::string(255, 'n'), 1), "intfNameLen < 255");
  EXPECT_DEATH(intf->makeDataRecord("", 1), "pos \\+ sizeof\\( U8 \\) < max");

  const auto vrf = vrfTableSmFactory(source(2), slot, vrfs);
  EXPECT_EQ(octetsOf(vrf->makeDataRecord(10, "")), netOctets(10, 4) + std::string(1, '\0'));
  EXPECT_DEATH(vrf->makeDataRecord(10, std::string(255, 'n')), "vrfName.bytes\\(\\) < 255");

  const auto table = trackerTableSm();
  hwStatus->sampleRateIs(16384);
  for (const auto& [seconds, exported] :
       std::map<double, uint16_t>{{65534.9, 65534}, {15.9, 15}, {0.9, 0}, {0, 0}}) {
    ftStatus->activeIntervalIs(Seconds(seconds));
    ftStatus->inactiveTimeoutIs(Seconds(seconds));
    EXPECT_EQ(octetsOf(table->makeDataRecord()),
              netOctets(7, 4) + "\3ft1" + netOctets(exported, 2) + netOctets(exported, 2) +
                  netOctets(3, 2) + netOctets(1, 4) + netOctets(16384, 4) + netOctets(1, 2))
        << seconds;
  }
}

TEST_F(TablesTest, FlowKeyBitsAreWidenedAsCollectorsExpect) {
  const auto flowKey = flowKeySmFactory(optionsDataSourceFactory("k", 1), slot, ftStatus);
  const std::pair<std::set<uint32_t>, uint64_t> rows[] = {{{}, 0},
                                                          {{0, 1, 2}, 7},
                                                          {{30}, 0x40000000},
                                                          {{31}, 0xffffffff80000000},
                                                          {{0, 31}, 0xffffffff80000001},
                                                          {{32}, 1},
                                                          {{40}, 0x100},
                                                          {{63}, 0xffffffff80000000}};
  for (const auto& [keys, indicator] : rows) {
    auto status = HwFlowTracking::templateStatusFactory(256);
    for (uint32_t position = 0; position < 64; ++position) {
      HwFlowTracking::FtTemplateEntry e(position, ::Ipfix::RecordType(1));
      e.flowKeyIs(keys.contains(position));
      status->ftTemplateEntryIs(e);
    }
    ftStatus->templateStatusIs(status);
    EXPECT_EQ(octetsOf(flowKey->makeDataRecord(256)), netOctets(256, 2) + netOctets(indicator, 8));
  }
  // Mixed families: the record goes, and with it the old one.
  const uint32_t before = flowKey->dataSource()->version();
  ftStatus->templateStatusIs(templateOf(256, {8, 28}));
  EXPECT_FALSE(flowKey->makeDataRecord(256));
  EXPECT_EQ(flowKey->dataRecords(), 0u);
  EXPECT_EQ(flowKey->dataSource()->version(), before + 1);
  ftStatus->templateStatusIs(templateOf(256, {27, 28, 1}));
  EXPECT_EQ(flowKey->dataRecords(), 1u);
  ftStatus->templateStatusDel(256);
  EXPECT_EQ(flowKey->dataSource()->dataRecords(), 0u);
}

/// Calls `visit` with `root` and each entity beneath it, once.
void walk(const Entity& root, std::set<const Entity*>& seen,
          const std::function<void(const Entity&)>& visit) {
  if (!seen.insert(&root).second) return;
  visit(root);
  for (const AttrRow& row : root.attrRows()) {
    if (!row.each) continue;
    row.each(root, [&](const std::string&, const Entity* child, const std::string&) {
      if (child) walk(*child, seen, visit);
    });
  }
}

TEST_F(TablesTest, EverythingIsListedByNameWholeAndInParts) {
  exporter->collectorIpAndPortIs("a", dst4(1));
  exporter->collectorIp6AndPortIs("b", dst6(1));
  for (uint32_t i = 1; i <= 5; ++i) intfs->intfIndexIs(IntfId("e" + std::to_string(i)), i);
  vrfs->vrfIs(1, VrfName("red"));
  makeReadyTree();
  makeManager();
  sim->runDue();
  std::set<const Entity*> seen;
  size_t values = 0, members = 0;
  const Entity* const roots[] = {manager.get(), templateSm.get(), infoSm.get(), hwConfig.get()};
  for (const Entity* root : roots)
    walk(*root, seen, [&](const Entity& e) {
      std::set<std::string_view> names;
      for (const AttrRow& row : e.attrRows()) {
        SCOPED_TRACE(row.name);
        EXPECT_TRUE(names.insert(row.name).second) << "twice";
        EXPECT_TRUE(row.get || row.each || row.from || row.run);
        if (row.get) values += !row.get(e).empty();
        std::vector<std::string> whole, parts;
        if (row.each)
          row.each(e, [&](const std::string& key, const Entity*, const std::string& text) {
            whole.push_back(key + '=' + text);
          });
        members += whole.size();
        if (!row.from) continue;
        std::string last;
        for (bool more = true; more;) {
          more = false;
          row.from(e, parts.empty() ? nullptr : &last, true,
                   [&](const std::string& key, const Entity*, const std::string& text) {
                     parts.push_back((last = key) + '=' + text);
                     more = parts.size() % 2 == 0;
                     return !more;
                   });
        }
        EXPECT_TRUE(parts == whole || !row.each);
      }
    });
  EXPECT_GE(seen.size(), 50u);
  EXPECT_GE(values, 190u);
  EXPECT_GE(members, 220u);
  const auto table = manager->dataAll()->globalData()->source("InterfaceTable");
  const auto e3 = manager->intfTableSm()->dataRecord(IntfId("e3"));
  EXPECT_EQ(octetsOf(e3), netOctets(3, 4) + "\2e3");
  EXPECT_EQ(table->dataRecord(e3), e3);
  EXPECT_FALSE(manager->intfTableSm()->dataRecord(IntfId("CPU")));
}

}  // namespace
}  // namespace FlowTracking
