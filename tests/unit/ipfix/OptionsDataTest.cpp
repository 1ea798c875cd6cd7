#include <algorithm>
#include <functional>
#include <set>

#include "Receiver.h"

/// What the random life of OptionsDataModelTest leaves open: when a change is sent, how much at
/// once, and what a collector gets that is new.
namespace FlowTracking {
namespace {

using Arrived = std::map<std::string, std::map<uint16_t, uint64_t>>;

class OptionsDataTest : public TreeTest {
 protected:
  OptionsDataTest() {
    tracker->activeIntervalIs(60000);
    ftStatus->activeIntervalIs(Seconds(60));
    ftStatus->inactiveTimeoutIs(Seconds(15));
  }
  /// A ready tree with one collector, which knows the tables.
  void makeTree() {
    exporter->collectorIpAndPortIs("a", dst4(1));
    makeReadyTree();
    makeManager();
    sim->runDue();
    arrived();
  }
  void intfsAre(uint32_t first, uint32_t last) {
    for (uint32_t i = first; i <= last; ++i) {
      intfs->intfIdIs(i, IntfId("eth" + std::to_string(i)));
      intfs->intfIndexIs(IntfId("eth" + std::to_string(i)), i);
    }
  }
  /// What has arrived since the last look: templates and records by set id, to each destination.
  Arrived arrived() {
    Receiver::Count none;
    for (auto& [to, count] : receiver.counts()) count = none;
    for (const auto& s : seen()) receiver.take(s);
    Arrived out;
    for (const auto& [to, count] : receiver.counts())
      for (const auto& bySet : {count.templatesBySet, count.recordsBySet})
        for (const auto& [set, n] : bySet)
          if (n > 0) out[to.substr(to.find('>') + 2)][set] += n;
    return out;
  }
  /// Nothing arrives within `seconds`; soon after, these do at the one collector.
  void after(double seconds, const std::map<uint16_t, uint64_t>& expected) {
    sim->advance(Seconds(seconds));
    EXPECT_EQ(arrived(), Arrived());
    sim->advance(Seconds(0.2));
    EXPECT_EQ(arrived(), (Arrived{{"10.0.0.1:4739", expected}}));
  }

  Receiver receiver;
};

TEST_F(OptionsDataTest, ChangesLeaveWithinTheCoalescingDelayOrWhenAMessageIsFull) {
  makeTree();
  intfsAre(1, 1);
  sim->advance(Seconds(0.1));
  intfsAre(2, 2);
  vrfs->vrfIs(10, VrfName("red"));
  after(0.8, {{intfTable, 2}, {vrfTable, 1}});
  EXPECT_EQ(statsOf(dst4(1))->exportedMessageTotalCount(), 4u) << "one message for the three";
  intfs->intfIndexDel(IntfId("eth1"));
  sim->advance(Seconds(5));
  EXPECT_EQ(arrived(), Arrived()) << "a removal has no form on the wire";

  exporter->ipfixMtuIs(48 + 20 + 30 * 10);
  intfsAre(10, 38);
  sim->runDue();
  EXPECT_EQ(arrived(), Arrived());
  intfsAre(39, 39);  // 20 octets of headers and 300 of records: full
  sim->runDue();
  EXPECT_EQ(arrived(), (Arrived{{"10.0.0.1:4739", {{intfTable, 30}}}}));
  sim->yieldAfterIs(10);
  intfsAre(1001, 2000);
  sim->runRound();
  const auto first = arrived()["10.0.0.1:4739"][intfTable];
  EXPECT_TRUE(first > 0 && first < 1000) << "a long flush yields";
  sim->runDue();
  EXPECT_EQ(first + arrived()["10.0.0.1:4739"][intfTable], 1000u);

  ftStatus->activeIntervalIs(Seconds(30));
  ftStatus->inactiveTimeoutIs(Seconds(5));
  ftStatus->sampleRateIs(100);
  after(2.9, {{trackerTable, 1}});
  hwStatus->sampleRateIs(9);
  sim->advance(Seconds(5));
  EXPECT_EQ(arrived(), Arrived()) << "the tracker's own rate hides that of all trackers";
  ftStatus->templateStatus(256)->genIdIs(5);
  sim->advance(Seconds(1.1));
  EXPECT_EQ(arrived(), (Arrived{{"10.0.0.1:4739", {{2, 1}, {flowKeyTable, 1}}}}));
}

TEST_F(OptionsDataTest, UnderARateLimitLittleWaitsInTheEndpoint) {
  intfsAre(1, 5000);
  exporter->rateLimitIs({RateLimit::Unit::messages, 5});
  exporter->ipfixMtuIs(400);
  sim->paceIs(2);  // the tables, some 180 messages, take 90 ms
  makeTree();
  manager->ftManagerSm("ft1")->exporterSm("exp1")->updateDataCoalesceTimeIs(0.01);
  uint64_t waited = 0;
  for (uint32_t i = 5001; i <= 5500; ++i) {
    intfsAre(i, i);
    sim->advance(Seconds(0.001));
    waited = std::max(waited, expInfo()->udpPam4()->counters().queued);
  }
  EXPECT_TRUE(waited > 0 && waited <= 5) << "what leaves within a second";
  sim->advance(Seconds(50));
  EXPECT_GE(arrived()["10.0.0.1:4739"][intfTable], 5500u);
}

TEST_F(OptionsDataTest, ASetIdTooManyIsTracedOnceAndInTheTotals) {
  Tarn::Ipfix::CollectorStatisticsEntry entry(Tarn::Ipfix::CollectorStatisticsKey(
      "ft1", "exp1", Tarn::Ipfix::CollectorInfo::fromIpAndPort(dst4(1))));
  for (uint16_t id = 300; id < 320; ++id) entry.setEntryInc(Tarn::Ipfix::SetId(id), 1, 0);
  stats->statsIs(entry);
  sim->traceLevelIs(TraceLevel::event);
  makeTree();
  sim->advance(Seconds(61));
  EXPECT_EQ(statsOf(dst4(1))->exportedFlowRecordTotalCount(), 14u);
  EXPECT_EQ(std::ranges::count_if(
                sim->takeTrace(),
                [](const std::string& line) { return line.find("in the totals") != line.npos; }),
            1);
}

// --- The four tables at their limits, what they announce, and the tree by name. ---

std::string octetsOf(const Ptr<const DataRecord>& r) { return std::string(r->data()); }

struct TablesTest : TreeTest {
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

  const auto table = flowTrackerTableSmFactory(source(3), slot, hwStatus, tracker, ftStatus,
                                               FlowTrackingType::software, sim->scheduler());
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
  const auto withoutTables = [this] {
    ftOptionsDataManagerSmFactory("ft1", 7, hwConfig, hwStatus, tracker, ftStatus,
                                  info->ftInfo("ft1"), FlowTrackingType::software, stats,
                                  optionsDataContainerFactory("none"), sim->scheduler());
  };
  EXPECT_DEATH(withoutTables(), "[^a-z]data[^a-z]");
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
