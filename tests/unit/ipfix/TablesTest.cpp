#include <algorithm>
#include <functional>
#include <regex>
#include <set>

#include "Ipfix/OptionsDataManagerSm.h"
#include "Receiver.h"

/// The four options tables, the store that they fill, and the managers that make them.
namespace FlowTracking {
namespace {

std::string octetsOf(const Ptr<const DataRecord>& r) { return std::string(r->data()); }

/// Runs something at each new version of what it watches.
template <class E>
struct AtVersion final : E::Watcher {
  AtVersion(Ptr<const E> e, std::function<void()> does)
      : E::Watcher(std::move(e)), run(std::move(does)) {}
  void handleVersion() override { run(); }
  std::function<void()> run;
};
using AtUpdate = AtVersion<OptionsDataUpdate>;
using AtSource = AtVersion<OptionsDataSource>;

class TablesTest : public TreeTest {
 protected:
  ~TablesTest() override { manager = nullptr; }
  void makeManager() {
    manager =
        optionsDataManagerSmFactory(hwConfig, hwStatus, info, intfs, vrfs, stats, sim->scheduler());
  }
  Ptr<FlowTrackerTableSm> trackerTableSm() {
    return flowTrackerTableSmFactory(optionsDataSourceFactory("t", 3), slot, hwStatus, tracker,
                                     ftStatus, FlowTrackingType::software, sim->scheduler());
  }
  /// The tracker is neither configured nor does anything of it remain.
  void expectNothingOfTheTracker() {
    EXPECT_FALSE(manager->ftManagerSm("ft1"));
    EXPECT_TRUE(manager->dataContainer().empty());
    EXPECT_FALSE(manager->dataAll()->trackerData("ft1"));
  }

  Ptr<OptionsDataUpdate> slot = optionsDataUpdateFactory(OptionsDataScope::scopeTracker);
  Ptr<IntfIndexMap> intfs = intfIndexMapFactory();
  Ptr<Vrf::VrfIdMap::Status> vrfs = Vrf::VrfIdMap::statusFactory();
  Ptr<OptionsDataManagerSm> manager;
};

// --- The records ---

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
              netOctets(7, 4) +
                  "\x03"
                  "ft1" +
                  netOctets(exported, 2) + netOctets(exported, 2) + netOctets(3, 2) +
                  netOctets(1, 4) + netOctets(16384, 4) + netOctets(1, 2))
        << seconds;
  }
}

TEST_F(TablesTest, FlowKeyBitsAreWidenedAsCollectorsExpect) {
  const auto flowKey = flowKeySmFactory(optionsDataSourceFactory("k", 1), slot, ftStatus);
  struct Row {
    std::vector<uint32_t> keys;
    uint64_t indicator;
  };
  for (const Row& r : {Row{{}, 0}, Row{{0, 1, 2}, 7}, Row{{30}, 0x40000000},
                       Row{{31}, 0xffffffff80000000}, Row{{0, 31}, 0xffffffff80000001},
                       Row{{32}, 1}, Row{{40}, 0x100}, Row{{63}, 0xffffffff80000000}}) {
    auto status = HwFlowTracking::templateStatusFactory(256);
    for (uint32_t position = 0; position < 64; ++position) {
      HwFlowTracking::FtTemplateEntry e(position, ::Ipfix::RecordType(1));
      e.flowKeyIs(std::find(r.keys.begin(), r.keys.end(), position) != r.keys.end());
      status->ftTemplateEntryIs(e);
    }
    ftStatus->templateStatusIs(status);
    EXPECT_EQ(octetsOf(flowKey->makeDataRecord(256)),
              netOctets(256, 2) + netOctets(r.indicator, 8));
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

// --- Changes from inside a notification ---

/// One of the tables with a record per key, and the input that it is kept in step with.
struct Keyed {
  const char* name;
  Ptr<OptionsDataSource> source;
  std::function<size_t()> missing;               ///< records that only the source counts
  std::function<void(uint32_t, uint32_t)> is;    ///< gives a key a value
  std::function<void(uint32_t)> del;             ///< removes a key
  std::function<Ptr<OptionsDataSource>()> anew;  ///< what the table is when it is made now
};
std::multiset<std::string> recordsOf(const Ptr<OptionsDataSource>& source) {
  std::multiset<std::string> all;
  source->eachDataRecord([&](const Ptr<const DataRecord>& r) { all.insert(octetsOf(r)); });
  return all;
}

TEST_F(TablesTest, WatchersMayChangeTheInputAndTheNewestStays) {
  const auto source = [] { return optionsDataSourceFactory("s", 300); };
  const auto intf = [&] { return interfaceTableSmFactory(source(), slot, intfs); };
  const auto vrf = [&] { return vrfTableSmFactory(source(), slot, vrfs); };
  const auto keys = [&] { return flowKeySmFactory(source(), slot, ftStatus); };
  const auto named = [](uint32_t key) { return IntfId("eth" + std::to_string(key)); };
  const auto idOf = [](uint32_t key) { return static_cast<TemplateId>(256 + key); };
  const auto keyed = [](const char* name, const auto& makes, auto is, auto del) {
    const auto sm = makes();
    const auto missing = [sm] { return sm->dataSource()->dataRecords() - sm->dataRecords(); };
    return Keyed{name, sm->dataSource(), missing, is, del, [&] { return makes()->dataSource(); }};
  };
  const auto templateIs = [&](uint32_t k, uint32_t v) {
    auto status = templateOf(idOf(k), {1, 2, 4, 5});
    HwFlowTracking::FtTemplateEntry e(v, 1);
    e.flowKeyIs(true);
    status->ftTemplateEntryIs(e);
    ftStatus->templateStatusIs(status);
  };
  const Keyed tables[] = {
      keyed(
          "interfaces", intf, [&](auto k, auto v) { intfs->intfIndexIs(named(k), v); },
          [&](auto k) { intfs->intfIndexDel(named(k)); }),
      keyed(
          "vrfs", vrf, [&](auto k, auto v) { vrfs->vrfIs(k, VrfName(std::to_string(v))); },
          [&](auto k) { vrfs->vrfDel(k); }),
      keyed("flow keys", keys, templateIs, [&](auto k) { ftStatus->templateStatusDel(idOf(k)); })};
  using Does = void (*)(const Keyed&);
  const std::pair<const char*, Does> deeds[] = {
      {"nothing", [](const Keyed&) {}},
      {"same key", [](const Keyed& t) { t.is(1, 2); }},
      {"same key, twice", [](const Keyed& t) { t.is(1, 2), t.is(1, 3); }},
      {"same key, removed", [](const Keyed& t) { t.del(1); }},
      {"same key, removed and back", [](const Keyed& t) { t.del(1), t.is(1, 1); }},
      {"other key", [](const Keyed& t) { t.is(2, 3); }},
      {"other keys, one removed", [](const Keyed& t) { t.is(3, 3), t.is(2, 2), t.del(3); }},
      {"both, removed", [](const Keyed& t) { t.is(2, 2), t.del(1), t.del(2); }}};
  for (const Keyed& table : tables)
    for (const auto& [deed, does] : deeds)
      for (const bool atSource : {false, true}) {
        SCOPED_TRACE(std::string(table.name) + ": " + deed + (atSource ? ", source" : ", update"));
        bool done = false;
        const size_t reserved = table.missing();
        const auto hear = [&, does = does](bool here) {
          EXPECT_EQ(table.missing(), reserved);
          if (here && !std::exchange(done, true)) does(table);
        };
        {
          const AtUpdate update(slot, [&] { hear(!atSource); });
          const AtSource version(table.source, [&] { hear(atSource); });
          table.is(1, 1);
        }
        EXPECT_TRUE(done);
        EXPECT_EQ(recordsOf(table.source), recordsOf(table.anew()));
        for (const uint32_t key : {1, 2, 3}) table.del(key);
        EXPECT_EQ(table.source->dataRecords(), reserved);
      }
}

TEST_F(TablesTest, AWatcherOfAnUpdateMayRemoveWhatAnnouncedIt) {
  makeReadyTree();
  const std::pair<const char*, std::function<void()>> changes[] = {
      {"flow keys",
       [&] {
         ftStatus->templateStatusIs(templateOf(256, {1, 2, 4}));
       }},
      {"flow keys, generation",
       [&] { ftStatus->templateStatus(256)->genIdIs(ftStatus->templateStatus(256)->genId() + 1); }},
      {"tracker table",
       [&] {
         ftStatus->inactiveTimeoutIs(ftStatus->inactiveTimeout() + Seconds(1));
         sim->advance(Seconds(2.5));
       }},
      {"interfaces", [&] { intfs->intfIndexIs(IntfId("eth0"), 1); }}};
  for (const auto& [what, change] : changes)
    for (const bool all : {false, true}) {
      SCOPED_TRACE(std::string(what) + (all ? ", all" : ", tracker"));
      makeManager();
      const bool global = what == std::string("interfaces");
      const auto data = manager->dataAll()->trackerData("ft1");
      const auto source = global ? manager->dataAll()->globalData()->source("InterfaceTable")
                          : what == std::string("tracker table")
                              ? data->data()->source("FlowTrackerTable")
                              : data->data()->source("FlowKey");
      uint32_t version = 0;
      {
        const AtUpdate gone(global ? manager->dataAll()->globalUpdate() : data->update(), [&] {
          version = source->version();
          if (all) manager = nullptr;
          if (!all) hwConfig->ftConfigDel("ft1");
        });
        change();
      }
      // The table is not touched once its keeper is gone.
      EXPECT_EQ(source->version(), version + (global && !all ? 1 : 0));
      if (!all) expectNothingOfTheTracker();
      manager = nullptr;
      intfs->intfIndexDelAll();
      hwConfig->ftConfigIs(tracker);
    }
}

TEST_F(TablesTest, WhatIsRemovedWhileItIsMadeDoesNotStay) {
  exporter->collectorIpAndPortIs("a", dst4(1));
  makeReadyTree();
  makeManager();
  const auto made = [this] { return manager->ftManagerSm("ft1"); };
  hwConfig->ftConfigDel("ft1");
  expectNothingOfTheTracker();
  // A tracker: a watcher of a source that the host had made before.
  const auto data =
      manager->dataAll()->trackerDataIs("ft1")->dataIs(OptionsDataScope::scopeTracker);
  int heard = 0;
  {
    const AtSource gone(data->sourceIs("FlowKey", FlowKeySm::setId()), [&] {
      ++heard;
      hwConfig->ftConfigDel("ft1");
    });
    hwConfig->ftConfigIs(tracker);
  }
  EXPECT_EQ(heard, 1);
  expectNothingOfTheTracker();
  hwConfig->ftConfigIs(tracker);
  ASSERT_TRUE(made());
  sim->runDue();

  // While an exporter is made: it sends its tables, and so updates statistics, before it is
  // complete.
  struct Gone final : Tarn::Ipfix::CollectorStatistics::Watcher {
    Gone(Ptr<const Tarn::Ipfix::CollectorStatistics> s, std::function<void()> f)
        : Watcher(std::move(s)), does(std::move(f)) {}
    void handleStats(const Tarn::Ipfix::CollectorStatisticsKey&) override {
      if (const auto f = std::exchange(does, nullptr)) f();
    }
    std::function<void()> does;
  };
  const auto makeWhile = [this](std::function<void()> does) {
    manager = nullptr;
    const Gone gone(stats, std::move(does));
    makeManager();
    EXPECT_FALSE(gone.does);
  };
  makeWhile([&] { hwStatus->ftStatusDel("ft1"); });
  expectNothingOfTheTracker();
  hwStatus->ftStatusIs(ftStatus);
  sim->runDue();
  makeWhile([&] { tracker->expConfigDel("exp1"); });
  ASSERT_TRUE(made());
  EXPECT_TRUE(made()->exporterSm().empty());
  tracker->expConfigIs(exporter);
  EXPECT_TRUE(made()->exporterSm("exp1"));
  // Sources cannot be added beneath an exporter.
  EXPECT_DEATH(manager->dataAll()->globalData()->sourceIs("late", 300),
               "data source changed after init!");

  // Of a tracker, its data goes first.
  struct First final : OptionsDataAll::Watcher {
    explicit First(const Ptr<OptionsDataManagerSm>& m) : Watcher(m->dataAll()), manager(*m) {}
    void handleTrackerData(const std::string& name) override {
      complete =
          manager.ftManagerSm(name) && manager.dataContainer(name) && !entity()->trackerData(name);
    }
    const OptionsDataManagerSm& manager;
    bool complete = false;
  } first(manager);
  hwStatus->ftStatusDel("ft1");
  EXPECT_TRUE(first.complete);
  expectNothingOfTheTracker();
}

TEST_F(TablesTest, ATrackersManagerNeedsItsDataAndItsSlot) {
  const auto container = optionsDataContainerFactory("ft1");
  const auto make = [&] {
    return ftOptionsDataManagerSmFactory("ft1", 7, hwConfig, hwStatus, tracker, ftStatus,
                                         flowTrackerInfoFactory("ft1"), FlowTrackingType::software,
                                         stats, container, sim->scheduler());
  };
  EXPECT_DEATH(make(), "assertion failed: \"data\"");
  container->dataIs(optionsDataSourceCollFactory(OptionsDataScope::scopeTracker));
  EXPECT_DEATH(make(), "assertion failed: \"update\"");
  container->updateIs(slot);
  const auto sm = make();
  EXPECT_DEATH(sm->handleInitialized(), "assertion failed: \"!initialized\\(\\)\"");
}

// --- What is announced, and what is traced ---

TEST_F(TablesTest, ATrackersOwnRateHidesTheOneOfAllTrackers) {
  ftStatus->sampleRateIs(5);
  const auto table = trackerTableSm();
  const auto announced = [&] {
    const uint32_t before = slot->version();
    sim->advance(Seconds(2.5));
    return slot->version() - before;
  };
  hwStatus->sampleRateIs(9);
  EXPECT_EQ(announced(), 0u);
  ftStatus->sampleRateIs(0);
  ftStatus->activeIntervalIs(Seconds(2));
  sim->advance(Seconds(1.9));
  ftStatus->inactiveTimeoutIs(Seconds(1));
  EXPECT_EQ(announced(), 1u) << "one for the three";
  EXPECT_EQ(octetsOf(slot->record()).substr(18, 4), netOctets(9, 4));
  hwStatus->sampleRateIs(10);
  EXPECT_EQ(announced(), 1u);
  EXPECT_EQ(table->dataSource()->version(), 3u);
}

TEST_F(TablesTest, EachWatcherOfASlotSeesEachRecordOnce) {
  std::vector<std::string> seen[2];
  const auto note = [&](int watcher) { seen[watcher].push_back(octetsOf(slot->record())); };
  const AtUpdate first(slot, [&] {
    note(0);
    if (slot->version() == 1)
      for (const char* next : {"b", "c"}) slot->addUpdate(300, dataRecordFactory(next));
  });
  const AtUpdate second(slot, [&] { note(1); });
  slot->addUpdate(300, dataRecordFactory("a"));
  EXPECT_EQ(seen[0], (std::vector<std::string>{"a", "b", "c"}));
  EXPECT_EQ(seen[1], seen[0]);
  slot->addUpdate(300, slot->record());
  EXPECT_EQ(slot->version(), 4u) << "the same record again is announced again";
}

TEST_F(TablesTest, TraceLines) {
  const auto traced = [this](const std::function<void()>& does) {
    sim->takeTrace();
    sim->traceLevelIs(TraceLevel::detail);
    does();
    sim->traceLevelIs(-1);
    static const std::regex ours("^FlowKey|^FlowTrackerTable|DataManager|^Interface|^VrfTable");
    std::string lines;
    for (const auto& line : sim->takeTrace())
      if (std::regex_search(line, ours)) lines += line + '\n';
    return lines;
  };
  makeReadyTree();
  ftStatus->activeIntervalIs(Seconds(1800.7));
  ftStatus->inactiveTimeoutIs(Seconds(15));
  const auto keyed = [this](const std::vector<uint32_t>& elements) {
    auto status = templateOf(257, elements);
    for (const uint32_t position : {0, 2}) {
      auto e = status->ftTemplateEntry().at(position);
      e.flowKeyIs(true);
      status->ftTemplateEntryIs(e);
    }
    ftStatus->templateStatusIs(status);
  };
  EXPECT_EQ(traced([&] { makeManager(); }),
            "OptionsDataManagerSm::initIntfTableSm source InterfaceTable, setId: 65281\n"
            "InterfaceTableSm::handleInitialized map count:0\n"
            "OptionsDataManagerSm::initVrfTableSm source VrfTable, setId: 65280\n"
            "VrfTableSm::handleVrfIndexAll map count:0\n"
            "OptionsDataManagerSm::handleTracker for ft1 created\n"
            "FtOptionsDataManagerSm::initFlowKeySm for ft1 source FlowKey, setId: 65282\n"
            "FlowKeySm::handleInitialized for ft1 template count: 1\n"
            "FlowKeySm::handleInitialized for ft1 templateId: 256, record len: 10\n"
            "FtOptionsDataManagerSm::initFlowTrackerTableSm for ft1 source FlowTrackerTable, "
            "setId: 65283\n"
            "FlowTrackerTableSm::handleInitialized for ft1 observationDomainId:7, "
            "observationDomainName:ft1, flowActiveTimeout:1800, flowIdleTimeout:15, "
            "selectorAlgorithm:3, samplingSize:1, samplingPopulation:1, flowTrackingType:1\n"
            "FtOptionsDataManagerSm::handleExpConfig for exp1 for ft1 created\n");
  EXPECT_EQ(traced([&] {
              keyed({8, 12, 1});
              keyed({1, 8, 28});
              ftStatus->templateStatusDel(257);
              intfs->intfIndexIs(IntfId("eth0"), 9);
              intfs->intfIndexDel(IntfId("eth0"));
              vrfs->vrfIs(5, VrfName("red"));
              vrfs->vrfDel(5);
              ftStatus->inactiveTimeoutIs(Seconds(16));
              sim->advance(Seconds(2.5));
              tracker->expConfigDel("exp1");
              hwConfig->ftConfigDel("ft1");
            }),
            "FlowKeySm::makeDataRecord for ft1 TemplateId: 257, Field: 0 is flowKey \n"
            "FlowKeySm::makeDataRecord for ft1 TemplateId: 257, Field: 2 is flowKey \n"
            "FlowKeySm::handleTemplate for ft1 templateId: 257, flowKey: 0x5, record len: 10\n"
            "FlowKeySm::makeDataRecord for ft1 TemplateId: 257, Field: 0 is flowKey \n"
            "FlowKeySm::makeDataRecord for ft1 templateId: 257 AF mismatch at field: 2\n"
            "FlowKeySm::handleTemplate for ft1 templateId: 257, NO record (incomplete template)\n"
            "FlowKeySm::handleTemplate for ft1 templateId: 257, not present\n"
            "InterfaceTableSm::handleIntfId intfId: eth0, index: 9, record len: 9\n"
            "InterfaceTableSm::handleIntfId intfId: eth0, index not present. \n"
            "VrfTableSm::handleVrfIndex vrfIndex: 5, name: red, record len: 8\n"
            "VrfTableSm::handleVrfIndex vrfIndex: 5, name not present. \n"
            "FlowTrackerTableSm::handleParamChange for ft1 (inactiveTimeout) param changed \n"
            "FlowTrackerTableSm::doUpdate for ft1 (65283) record len: 24\n"
            "FtOptionsDataManagerSm::handleExpConfig for exp1 for ft1 deleted\n"
            "OptionsDataManagerSm::handleTracker for ft1 deleted\n");
}

// --- By name ---

TEST_F(TablesTest, EverythingIsListedByName) {
  makeReadyTree();
  makeManager();
  for (uint32_t i = 1; i <= 5; ++i) intfs->intfIndexIs(IntfId("e" + std::to_string(i)), i);
  vrfs->vrfIs(1, VrfName("red"));
  const auto all = manager->dataAll();
  const auto ft = manager->ftManagerSm("ft1");
  // The values and, in brackets, the number of members of a collection or of children.
  const auto listed = [](const Entity& e) {
    std::string text;
    for (const AttrRow& row : e.attrRows()) {
      text += (text.empty() ? "" : " ") + std::string(row.name);
      if (row.get) text += '=' + row.get(e);
      if (!row.each) continue;
      size_t n = 0;
      row.each(e, [&](const std::string&, const Entity*, const std::string&) { ++n; });
      text += '[' + std::to_string(n) + ']';
    }
    return text;
  };
  EXPECT_EQ(listed(*manager),
            "hwConfig=set hwStatus=set flowTrackingInfo=set intfIndexMap=set vrfIdMapStatus=set "
            "collStats=set scheduler=set dataAll[1] intfTableSm[1] vrfTableSm[1] dataContainer[1] "
            "ftManagerSm[1] initialized=True");
  EXPECT_EQ(listed(*ft),
            "ftName='ft1' ftId=7 hwConfig=set hwStatus=set hwFtConfig=set hwFtStatus='ft1' "
            "flowTrackerInfo='ft1' ftrType=software collStats=set dataContainer='ft1' "
            "scheduler=set flowKeySm[1] flowTrackerTableSm[1] exporterSm[1] initialized=True");
  EXPECT_EQ(listed(*manager->intfTableSm()),
            "dataSource='InterfaceTable' dataUpdate=set sourceName='InterfaceTable' "
            "setIdVal=65281 initialized=True setId=65281 intfIndexMap=set dataRecords=5 "
            "dataRecord[5]");
  EXPECT_EQ(listed(*manager->vrfTableSm()),
            "dataSource='VrfTable' dataUpdate=set sourceName='VrfTable' setIdVal=65280 "
            "initialized=True setId=65280 vrfIdMapStatus=set dataRecords=1 dataRecord[1]");
  EXPECT_EQ(listed(*ft->flowKeySm()),
            "dataSource='FlowKey' dataUpdate=set sourceName='FlowKey' setIdVal=65282 "
            "initialized=True setId=65282 hwFtStatus='ft1' dataRecords=1 dataRecord[1]");
  EXPECT_EQ(listed(*ft->flowTrackerTableSm()),
            "dataSource='FlowTrackerTable' dataUpdate=set sourceName='FlowTrackerTable' "
            "setIdVal=65283 initialized=True setId=65283 hwStatus=set hwFtConfig=set "
            "hwFtStatus='ft1' ftrType=software taskScheduler=set updateTask=idle updateDelay=2");
  EXPECT_EQ(listed(*all), "name='optionsDataAll' globalData[1] globalUpdate[1] trackerData[1]");
  EXPECT_EQ(listed(*all->trackerData("ft1")),
            "name='ft1' parent='optionsDataAll' data[1] update[1]");
  EXPECT_EQ(listed(*manager->dataContainer("ft1")), "name='ft1' data[2] update[2]");
  EXPECT_EQ(listed(*all->globalData()), "scope=scopeGlobal source[2]");
  const auto table = all->globalData()->source("InterfaceTable");
  EXPECT_EQ(listed(*table),
            "name='InterfaceTable' dataSetId=65281 dataRecords=9 dataRecord[9] version=6");
  all->globalUpdate()->addUpdate(300, dataRecordFactory("\x01\xab"));
  EXPECT_EQ(listed(*all->globalUpdate()), "scope=scopeGlobal setId=300 record=01ab version=7");

  // Records in parts of two, each once; those of interfaces by their names.
  for (const Entity* e : {static_cast<const Entity*>(table.get()),
                          static_cast<const Entity*>(manager->intfTableSm().get())}) {
    const auto row = *std::find_if(e->attrRows().begin(), e->attrRows().end(),
                                   [](const AttrRow& r) { return r.name == "dataRecord"; });
    std::map<std::string, std::string> found;
    std::string last;
    for (int n = 2; n == 2;) {
      n = 0;
      row.from(*e, found.empty() ? nullptr : &last, true,
               [&](const std::string& key, const Entity*, const std::string& text) {
                 EXPECT_TRUE(found.emplace(last = key, text).second) << key;
                 return ++n < 2;
               });
    }
    EXPECT_EQ(found.size(), e == table.get() ? 9u : 5u);
    EXPECT_EQ(found[e == table.get() ? "6" : "e3"], "00000003026533");
  }
  EXPECT_EQ(manager->intfTableSm()->dataRecord(IntfId("e3")),
            table->dataRecord(manager->intfTableSm()->dataRecord(IntfId("e3"))));
  EXPECT_FALSE(manager->intfTableSm()->dataRecord(IntfId("CPU")));
  EXPECT_FALSE(table->dataRecord(dataRecordFactory("\x01\xab")));
}

TEST_F(TablesTest, TheStoresPartsAreMadeOnceAndKnowTheirParent) {
  const auto scope = OptionsDataScope::scopeTracker;
  const auto all = optionsDataAllFactory();
  const auto ft = all->trackerDataIs("ft1");
  EXPECT_EQ(all->trackerDataIs("ft1"), ft);
  const auto other = all->trackerDataIs("ft2");
  EXPECT_EQ(ft->parent(), all.get());
  const auto data = ft->dataIs(scope);
  EXPECT_EQ(ft->dataIs(scope), data);
  EXPECT_THROW(ft->dataIs(OptionsDataScope::scopeGlobal), ReinstantiationError);
  EXPECT_EQ(ft->updateIs(scope), ft->update());
  EXPECT_EQ(all->globalDataIs(scope), all->globalData());
  EXPECT_EQ(all->globalUpdateIs(scope), all->globalUpdate());
  const auto source = data->sourceIs("s", 300);
  EXPECT_EQ(data->sourceIs("s", 300), source);
  EXPECT_THROW(data->sourceIs("s", 301), ReinstantiationError);
  EXPECT_EQ(source->versionInc(0), 0u);
  EXPECT_EQ(source->versionInc(2), 2u);
  all->trackerDataDel("ft1");
  EXPECT_EQ(ft->parent(), nullptr);
  EXPECT_EQ(other->parent(), all.get());
  all->trackerDataDelAll();
  EXPECT_EQ(other->parent(), nullptr);
  EXPECT_FALSE(trackerOptionsDataFactory("ft3")->parent());
  EXPECT_EQ(valueToStrep(scope), "scopeTracker");
}

}  // namespace
}  // namespace FlowTracking
