#include <algorithm>
#include <set>

#include "Tree.h"

namespace FlowTracking {
namespace {

using TemplateTest = TreeTest;

constexpr uint16_t dataSet = 2;
constexpr uint16_t optionsSet = 3;
using Counts = std::map<std::string, std::map<uint16_t, int>>;
const std::map<uint16_t, int> oneOfEach{{dataSet, 1}, {optionsSet, 1}};

TEST_F(TemplateTest, TemplatesToTheOctet) {
  ftStatus->templateStatusIs(templateOf(257, {8, 1001, 82}));
  makeReadyTree();
  exporter->dscpIs(DscpValue(46));
  exporter->collectorIpAndPortIs("c", dst4(1));
  auto all = seen();
  const auto it = std::find_if(all.begin(), all.end(), [](auto& s) { return s.setId() == 2; });
  ASSERT_NE(it, all.end());
  const std::vector<uint8_t> expected{
      0x00, 0x0a, 0x00, 0x38, 0x65, 0x53, 0xf1, 0x00, 0,    0,    0,    0,
      0,    0,    0,    7,                                                     // 1700000000, 0, 7
      0x00, 0x02, 0x00, 0x28,                                                  //
      0x01, 0x00, 0x00, 0x03, 0x00, 0x08, 0x00, 0x04, 0x00, 0x0c, 0x00, 0x04,  // 256
      0x00, 0x01, 0x00, 0x08,                                                  //
      0x01, 0x01, 0x00, 0x03, 0x00, 0x08, 0x00, 0x04,                          // 257
      0x83, 0xe9, 0x00, 0x02, 0x00, 0x01, 0x86, 0x97, 0x00, 0x52, 0xff, 0xff};
  EXPECT_EQ(it->datagram.octets, expected);
  EXPECT_EQ(it->datagram.tos, 184);
  EXPECT_EQ(it->datagram.src, IpGenAddr(source4));
  EXPECT_EQ(it->datagram.srcPort, exporter->rxPort4());
  EXPECT_EQ(it->to(), "10.0.0.1:4739");
  EXPECT_EQ(ftExporter()->getFtTemplateLength(), 36u);

  // Of the options templates the one that has everything; their order in the set is free.
  const std::vector<uint8_t> trackerTable{
      0xff, 3, 0,  8, 0, 1, 0,  149, 0, 4, 1,  44, 0xff, 0xff, 0,    36, 0, 2, 0, 37,   0,
      2,    1, 48, 0, 2, 1, 53, 0,   4, 1, 54, 0,  4,    0x83, 0xe9, 0,  2, 0, 1, 0x86, 0x97};
  const auto options = std::find_if(all.begin(), all.end(), [](auto& s) { return s.setId() == 3; });
  ASSERT_NE(options, all.end());
  const auto& o = options->datagram.octets;
  EXPECT_NE(std::search(o.begin(), o.end(), trackerTable.begin(), trackerTable.end()), o.end());
  EXPECT_EQ(o.size(), 16u + 4 + 14 + 14 + 14 + 42);
}

TEST_F(TemplateTest, EveryWholeSecondsOfTheInterval) {
  makeReadyTree();
  exporter->collectorIpAndPortIs("c", dst4(1));
  seen();
  struct Row {
    uint32_t ms;
    double wait;
    int expected;
  };
  for (const Row& r : {Row{30000, 90.5, 3}, Row{1500, 10.5, 10}, Row{1000, 10.5, 10}}) {
    exporter->templateIntervalIs(r.ms + 500000);  // away, so that the next is a change
    exporter->templateIntervalIs(r.ms);
    EXPECT_GE(seenCounts()["10.0.0.1:4739"][dataSet], 1) << "a change sends at once";
    sim->advance(Seconds(r.wait));
    EXPECT_EQ(seenCounts()["10.0.0.1:4739"][dataSet], r.expected) << r.ms;
  }
  // Below a second the task is due again at once: one message per round of the scheduler.
  exporter->templateIntervalIs(999);
  seen();
  EXPECT_TRUE(ftExporter()->periodicTemplateTxTask()->scheduled());
  for (int round = 0; round < 5; ++round) {
    sim->runRound();
    EXPECT_EQ(seenCounts()["10.0.0.1:4739"][dataSet], 1);
  }
}

TEST_F(TemplateTest, ANewEndpointStartsWithTheTemplates) {
  makeReadyTree();
  sim->namespaceIs("ns-red", true);
  exporter->collectorIpAndPortIs("a", dst4(1));
  exporter->collectorIp6AndPortIs("b", dst6(1));
  seen();
  exporter->srcIpAddrIs(IpAddr(0xc0000202));
  auto all = seen();
  ASSERT_EQ(all.size(), 2u) << "only IPv4";
  for (const auto& s : all) {
    EXPECT_EQ(s.datagram.src, IpGenAddr(IpAddr(0xc0000202)));
    EXPECT_EQ(s.datagram.srcPort, exporter->rxPort4());
  }
  exporter->vrfNameIs(VrfName("red"));
  EXPECT_EQ(seenCounts(),
            (Counts{{"10.0.0.1:4739", oneOfEach}, {"[2001:db8::1]:4739", oneOfEach}}));

  const uint16_t port = expInfo()->rxPort4();
  expInfo()->rxPort4Is(0);
  expInfo()->rxPort4Is(port);
  EXPECT_EQ(seenCounts(), (Counts{{"10.0.0.1:4739", oneOfEach}})) << "ready again, same endpoint";

  exporter->srcIpAddrIs(IpAddr());
  sim->advance(Seconds(31));
  EXPECT_EQ(seenCounts(), (Counts{{"[2001:db8::1]:4739", oneOfEach}}));
  exporter->srcIp6AddrIs(Ip6Addr());
  EXPECT_FALSE(ftExporter()->periodicTemplateTxTask()->scheduled());
  sim->advance(Seconds(100));
  EXPECT_TRUE(seen().empty());
  exporter->srcIpAddrIs(source4);
  EXPECT_EQ(seenCounts(), (Counts{{"10.0.0.1:4739", oneOfEach}}));
}

TEST_F(TemplateTest, FollowsTheTrackersTemplates) {
  makeReadyTree();
  exporter->collectorIpAndPortIs("a", dst4(1));
  seen();
  const auto dataOnly = Counts{{"10.0.0.1:4739", {{dataSet, 1}}}};

  ftStatus->templateStatus(256)->ftTemplateEntryIs(
      HwFlowTracking::FtTemplateEntry(7, ::Ipfix::RecordType(2)));
  sim->runDue();
  EXPECT_TRUE(seen().empty()) << "only the generation tells";
  ftStatus->templateStatus(256)->genIdIs(2);
  ftStatus->templateStatusIs(templateOf(300, {27, 28}));
  sim->runDue();
  auto all = seen();
  ASSERT_EQ(all.size(), 1u) << "two changes, one message";
  EXPECT_EQ(all[0].field16(22), 4) << "field count of 256";
  EXPECT_EQ(all[0].field16(40), 300);

  const auto replaced = templateOf(300, {27});  // the same id, another object
  ftStatus->templateStatusIs(replaced);
  sim->runDue();
  EXPECT_EQ(seenCounts(), dataOnly);
  replaced->genIdIs(9);
  sim->runDue();
  EXPECT_EQ(seenCounts(), dataOnly) << "the new object is the one that is watched";

  ftStatus->templateStatusDel(256);
  ftStatus->templateStatusDel(300);
  sim->runDue();
  EXPECT_EQ(ftExporter()->templatePktMsgLen(), 0);
  exporter->collectorIpAndPortIs("b", dst4(2));
  sim->advance(Seconds(30));
  EXPECT_EQ(seenCounts(),
            (Counts{{"10.0.0.1:4739", {{optionsSet, 1}}}, {"10.0.0.2:4739", {{optionsSet, 2}}}}))
      << "options templates go on";
  ftStatus->templateStatusIs(templateOf(256, {8}));
  sim->runDue();
  EXPECT_EQ(seenCounts(),
            (Counts{{"10.0.0.1:4739", {{dataSet, 1}}}, {"10.0.0.2:4739", {{dataSet, 1}}}}));

  templateSm->optTemplateConfig()->versionInc(1);
  sim->runDue();
  EXPECT_EQ(seenCounts(),
            (Counts{{"10.0.0.1:4739", {{optionsSet, 1}}}, {"10.0.0.2:4739", {{optionsSet, 1}}}}));
}

TEST_F(TemplateTest, CountersAreClearedAndForgottenWithTheExporter) {
  makeReadyTree();
  exporter->collectorIpAndPortIs("a", dst4(1));
  exporter->collectorIp6AndPortIs("b", dst6(1));
  sim->advance(Seconds(60));
  auto entry = statsOf(dst4(1));
  ASSERT_TRUE(entry);
  EXPECT_EQ(entry->exportedMessageTotalCount(), 6u);
  EXPECT_EQ(entry->setEntry(Tarn::Ipfix::SetId(3)).exportedTemplateCount(), 12u);
  EXPECT_EQ(entry->lastTemplateSentTime(), sim->clock().now());
  EXPECT_EQ(entry->lastOptionsDataSentTime(), 0);

  req->clearCountersIs(1);
  entry = statsOf(dst4(1));
  EXPECT_EQ(entry->exportedMessageTotalCount(), 0u);
  EXPECT_EQ(entry->setEntry(Tarn::Ipfix::SetId(3)).exportedTemplateCount(), 0u);
  EXPECT_EQ(entry->lastClearedTime(), sim->clock().now());

  // An entry whose slots are all taken by other sets still counts the message.
  for (uint16_t id = 500; entry->setEntryCount() < 20; ++id)
    entry->setEntryIs(Tarn::Ipfix::CollectorSetStatisticsEntry(id, 1));
  entry->setEntryDel(Tarn::Ipfix::SetId(2));
  entry->setEntryIs(Tarn::Ipfix::CollectorSetStatisticsEntry(999));
  stats->statsIs(*entry);
  sim->advance(Seconds(30));
  EXPECT_EQ(statsOf(dst4(1))->exportedMessageTotalCount(), 2u);

  tracker->expConfigDel("exp1");
  EXPECT_EQ(stats->size(), 0u);
  sim->advance(Seconds(100));
  EXPECT_EQ(stats->size(), 0u);
}

TEST_F(TemplateTest, EveryAttributeIsThereByNameAndByKey) {
  makeReadyTree();
  exporter->collectorIpAndPortIs("a", dst4(1));
  const auto ft = templateSm->ftTemplateSm("ft1");
  const auto config = templateSm->optTemplateConfig();
  const std::string base =
      "expName ftName ftId hwExpConfig expInfo collStats taskScheduler templatePktMsgLen "
      "templatePktTemplateCount templateReady templateLen collectorIpAndPort collectorIp6AndPort "
      "exportTimeU32 templateTxCount periodicTemplateTxTask sending4_p sending6_p "
      "templateCreationTask initialized resend ";
  const std::pair<const Entity*, std::string> rows[] = {
      {templateSm.get(),
       "flowTrackingConfigReq hwConfig hwStatus flowTrackingInfo optTemplateConfig ftTemplateSm "
       "initialized "},
      {ft.get(), "hwFtConfig hwFtStatus ftInfo ftExporterSm optTemplateExporterSm initialized "},
      {ftExporter().get(), base + "hwFtStatus elementIdColl templateStatus "},
      {ft->optTemplateExporterSm("exp1").get(), base + "optTemplateConfig "},
      {config.get(), "templateEntry version "},
      {config->templateEntry("IntfTable").get(), "name templateId scopeField field "}};
  for (const auto& [entity, expected] : rows) {
    std::string names;
    for (const AttrRow& r : entity->attrRows()) {
      names += std::string(r.name) + ' ';
      if (!r.each) continue;
      int members = 0;
      r.each(*entity, [&](const auto&...) { ++members; });
      EXPECT_EQ(members == 0, r.name == "collectorIp6AndPort") << r.name;
    }
    EXPECT_EQ(names, expected);
  }
  EXPECT_EQ(ftExporter()->attrText("periodicTemplateTxTask"),
            "'ftExporterSm-PeriodicTxTask-ft1-exp1, scheduled'");
  EXPECT_EQ(ft->optTemplateExporterSm("exp1")->attrText("templateCreationTask"),
            "'optionsTemplateExporterSm-TemplateCreationTask-ft1-exp1'");
  EXPECT_EQ(ftExporter()->templateStatus(256)->getTemplateLength(), ftExporter()->templateLen(256));
  EXPECT_FALSE(ftExporter()->templateStatus(300));
  EXPECT_EQ(ftExporter()->collectorIpAndPort("a"), dst4(1));

  const auto table = config->templateEntry("FlowTrackerTable");
  EXPECT_EQ(table->scopeField(0).fieldId(), ::Ipfix::RecordType(149));
  EXPECT_EQ(table->field(6).fieldId(), ::Ipfix::RecordType(1001));
  EXPECT_EQ(table->field(7), HwFlowTracking::FtTemplateEntry());
  EXPECT_EQ(getTemplateEntryLength(*table), 42u);
  table->fieldDel(6);
  EXPECT_EQ(getTemplateEntryLength(*table), 34u);
}

TEST_F(TemplateTest, ACollectorThatChangesTheFamilyKeepsItsExportTime) {
  makeReadyTree();
  exporter->collectorIpAndPortIs("a", dst4(1));
  sim->advance(Seconds(5));
  exporter->collectorIp6AndPortIs("a", dst6(1));
  exporter->collectorIpAndPortDel("a");
  EXPECT_EQ(ftExporter()->exportTimeU32("a"), 1700000005u);
  EXPECT_EQ(ftExporter()->collectorIp6AndPort("a"), dst6(1));
  exporter->collectorIp6AndPortDel("a");
  EXPECT_EQ(ftExporter()->exportTimeU32("a"), 0u);
}

TEST_F(TemplateTest, TemplatesThatNoDatagramHoldsAreRefusedForThatReason) {
  makeReadyTree();
  exporter->collectorIpAndPortIs("a", dst4(1));
  const auto reasons = [&] {
    seen();
    sim->traceLevelIs(TraceLevel::detail);
    sim->runDue();
    sim->traceLevelIs(-1);
    auto lines = sim->takeTrace();
    std::erase_if(lines, [](const std::string& l) {
      return l.find(" octets") == l.npos && l.find("Returning") == l.npos;
    });
    return lines;
  };
  using Lines = std::vector<std::string>;
  ftStatus->templateStatusIs(templateOf(300, std::vector<uint32_t>(16370, 8)));
  EXPECT_EQ(reasons(), Lines{"FtExporterSm::handleTemplateCreationTask for ft1 for exp1 Returning "
                             "because the templates take 65500 octets and a datagram has room for "
                             "65487"});
  EXPECT_FALSE(ftExporter()->templateReady());
  ftStatus->templateStatusIs(templateOf(300, std::vector<uint32_t>(16366, 8)));
  EXPECT_EQ(reasons(), Lines());
  EXPECT_EQ(ftExporter()->templatePktMsgLen(), 65504);
  ftStatus->templateStatusDel(300);
  ftStatus->templateStatusDel(256);
  EXPECT_EQ(reasons(), Lines{"FtExporterSm::handleTemplateCreationTask for ft1 for exp1 Returning "
                             "because no flow group configured."});
}

/// Whatever a watcher does at whichever notification of whatever change: nothing that is gone is
/// touched, made again or sent to, and what is there afterwards is served. Run under ASan, too.
struct World : TreeTest {
  using TreeTest::exporter, TreeTest::ftStatus, TreeTest::hwConfig, TreeTest::hwStatus;
  using TreeTest::req, TreeTest::sim, TreeTest::templateSm, TreeTest::tracker;
  void TestBody() override {}

  struct Step {
    const char* name;
    void (*run)(World& w);
  };
  /// Runs a step at the nth notification.
  struct Actor {
    World& w;
    const Step& step;
    int left;
    void notified() {
      if (--left == 0) step.run(w);
    }
  };
  struct StatsWatcher final : Tarn::Ipfix::CollectorStatistics::Watcher {
    StatsWatcher(World& w, Actor& a) : Watcher(w.stats), actor(a) {}
    void handleStats(const Tarn::Ipfix::CollectorStatisticsKey&) override { actor.notified(); }
    Actor& actor;
  };
  struct MarkWatcher final : CollectorInfo::Watcher {
    MarkWatcher(const Ptr<CollectorInfo>& info, Actor& a) : Watcher(info), actor(a) {}
    void handleOptTemplateSent() override { actor.notified(); }
    Actor& actor;
  };

  /// False: the change makes fewer than `nth` notifications.
  bool run(const Step& change, const Step& step, int nth) {
    makeReadyTree();
    exporter->collectorIpAndPortIs("a", dst4(1));
    exporter->collectorIp6AndPortIs("b", dst6(1));
    exporter->collectorIpAndPortIs("c", dst4(3));
    const auto info = expInfo();
    Actor actor{*this, step, nth};
    std::vector<std::unique_ptr<MarkWatcher>> marks;
    for (const auto& [name, collector] : info->collInfo()) {
      collector->optTemplateSentIs(false);
      marks.push_back(std::make_unique<MarkWatcher>(collector, actor));
    }
    auto watcher = std::make_unique<StatsWatcher>(*this, actor);
    change.run(*this);
    sim->runDue();
    marks.clear();
    watcher = nullptr;
    check(*info);
    return actor.left <= 0;
  }
  void check(const ExporterInfo& info) {
    const auto config = tracker->expConfig("exp1");
    const auto ft = templateSm ? templateSm->ftTemplateSm("ft1") : nullptr;
    const bool served = ft && ft->ftExporterSm("exp1") && ft->optTemplateExporterSm("exp1");
    std::set<std::string> sources;  // of those, the ones with an endpoint
    size_t entries = 0;
    if (served && config) {
      for (const auto& [name, dst] : config->collectorIpAndPort()) {
        entries += statsOf(dst).has_value();
        if (!config->srcIpAddr().isZero()) sources.insert(dst.stringValue());
      }
      for (const auto& [name, dst] : config->collectorIp6AndPort()) {
        entries += statsOf(dst).has_value();
        if (!config->srcIp6Addr().isZero()) sources.insert(dst.stringValue());
      }
    }
    EXPECT_EQ(stats->size(), entries) << "counters of a collector that is gone";
    for (const auto& [name, collector] : info.collInfo())
      EXPECT_TRUE(config == exporter && (config->collectorIpAndPort().contains(name) ||
                                         config->collectorIp6AndPort().contains(name)))
          << name << " came back";
    seen();
    sim->advance(Seconds(100));
    std::set<std::string> sentTo;
    for (const auto& s : seen()) sentTo.insert(s.to());
    EXPECT_EQ(sentTo, sources);
  }
};

TEST(TemplateHandlers, MayChangeAnythingAtAnyNotification) {
  using Step = World::Step;
  const Step changes[] = {
      {"new templates", [](World& w) { w.ftStatus->templateStatus(256)->genIdIs(9); }},
      {"new options", [](World& w) { w.templateSm->optTemplateConfig()->versionInc(1); }},
      {"the period", [](World& w) { w.sim->advance(Seconds(30)); }},
      {"interval", [](World& w) { w.exporter->templateIntervalIs(20000); }},
      {"clear", [](World& w) { w.req->clearCountersIs(1); }},
      {"new collector", [](World& w) { w.exporter->collectorIpAndPortIs("d", dst4(4)); }},
      {"moved collector", [](World& w) { w.exporter->collectorIpAndPortIs("a", dst4(9)); }},
      {"collector gone", [](World& w) { w.exporter->collectorIpAndPortDel("a"); }},
      {"new source", [](World& w) { w.exporter->srcIpAddrIs(IpAddr(0xc0000202)); }},
      {"exporter gone", [](World& w) { w.tracker->expConfigDel("exp1"); }},
      {"root dropped", [](World& w) { w.templateSm = nullptr; }},
  };
  const Step steps[] = {
      {"drops the root", [](World& w) { w.templateSm = nullptr; }},
      {"removes the exporter", [](World& w) { w.tracker->expConfigDel("exp1"); }},
      {"replaces the exporter",
       [](World& w) { w.tracker->expConfigIs(HwFlowTracking::exporterConfigFactory("exp1")); }},
      {"removes the tracker", [](World& w) { w.hwConfig->ftConfigDel("ft1"); }},
      {"replaces the status",
       [](World& w) { w.hwStatus->ftStatusIs(HwFlowTracking::ftStatusFactory("ft1")); }},
      {"removes collectors",
       [](World& w) {
         for (const char* name : {"a", "c", "d"}) w.exporter->collectorIpAndPortDel(name);
         w.exporter->collectorIp6AndPortDel("b");
       }},
      {"takes the sources",
       [](World& w) {
         w.exporter->srcIpAddrIs(IpAddr());
         w.exporter->srcIp6AddrIs(Ip6Addr());
       }},
      {"configures",
       [](World& w) {
         w.exporter->collectorIpAndPortIs("e", dst4(5));
         w.exporter->templateIntervalIs(40000);
       }},
  };
  for (const Step& change : changes)
    for (const Step& step : steps)
      for (int nth = 1;; ++nth) {
        SCOPED_TRACE(std::string(change.name) + ": notification " + std::to_string(nth) + ' ' +
                     step.name);
        if (!World().run(change, step, nth)) break;
      }
}

using TemplateDeathTest = TemplateTest;
TEST_F(TemplateDeathTest, WhatTheRegistryDoesNotKnowStopsTheProgram) {
  makeReadyTree();
  exporter->collectorIpAndPortIs("a", dst4(1));
  auto unknown = HwFlowTracking::templateStatusFactory(300);
  unknown->ftTemplateEntryIs(HwFlowTracking::FtTemplateEntry(0, ::Ipfix::RecordType(3)));
  EXPECT_DEATH(
      {
        ftStatus->templateStatusIs(unknown);
        sim->runDue();
      },
      "elementIdColl\\(\\)->elementIdCollHas\\( te->fieldId\\(\\) \\)\", file "
      ".*Ipfix/FlowTrackerTemplateSm");
  HwFlowTracking::FtTemplateEntry wrong(0, ::Ipfix::RecordType(8));
  wrong.enterpriseIeIs(true);
  unknown->ftTemplateEntryIs(wrong);
  EXPECT_DEATH(
      {
        ftStatus->templateStatusIs(unknown);
        sim->runDue();
      },
      "te->enterpriseIe\\(\\) == elementIdColl\\(\\)");
}

}  // namespace
}  // namespace FlowTracking
