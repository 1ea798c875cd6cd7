#include <random>
#include <set>

#include "Ears.h"
#include "tests/support/Random.h"

namespace FlowTracking {
namespace {

using ExpConfig = HwFlowTracking::ExporterConfig;

std::multiset<std::string> recordsOf(const Ptr<OptionsDataSource>& source) {
  std::multiset<std::string> all;
  source->eachDataRecord([&](const Ptr<const DataRecord>& r) { all.emplace(r->data()); });
  return all;
}

/// A host whose handlers change everything again, whatever they hear and while it is heard, and
/// drop any of the library's roots. When all is quiet there is what is configured, and no more.
class Restless : public TreeTest {
 protected:
  Restless() {
    config->swExportIs(true);
    sim->namespaceIs("ns-red", true);
  }
  ~Restless() override { restIs(); }

  void restIs() {
    acts = false;
    ears.clear();
    local = nullptr;
    manager = nullptr;
    templateSm = nullptr;
    infoSm = nullptr;
  }
  void rootsAre() {
    if (!infoSm) makeInfoSm();
    if (!templateSm) makeTemplateSm();
    if (!manager) makeManager();
    if (!local)
      local =
          localCollectorConfigSmFactory("ft1", config, tracker, pams, vrfStatus, sim->scheduler());
  }
  void listen() {
    ears.hear<OnTrackers>(info, 6);
    ears.hear<OnStats>(stats, 6);
    ears.hear<OnLocal>(tracker->localCollectorConfig(), 6);
    ears.hear<OnPams>(pams, 6);
    ears.hearAll(*info);
    if (!manager) return;
    const auto all = manager->dataAll();
    ears.hear<OnUpdate>(all->globalUpdate(), 6);
    for (const auto& [name, source] : all->globalData()->source()) ears.hear<OnSource>(source, 6);
    for (const auto& [name, data] : all->trackerData()) {
      ears.hear<OnUpdate>(data->update(), 6);
      if (!data->data()) continue;
      for (const auto& [n, source] : data->data()->source()) ears.hear<OnSource>(source, 6);
    }
  }
  void act() {
    if (!acts) return;
    listen();
    if (depth < 4 && pick(6) == 0) change();
  }
  size_t pick(size_t n) { return random() % n; }

  Ptr<ExpConfig> newExporter(const std::string& name) {
    auto e = HwFlowTracking::exporterConfigFactory(name);
    if (pick(2)) e->srcIpAddrIs(source4);
    if (pick(2)) e->srcIp6AddrIs(source6);
    if (pick(2)) e->collectorIpAndPortIs("c", dst4(1));
    all.push_back(e);
    ears.hear<OnConfig>(e, 6);
    return e;
  }
  Ptr<HwFlowTracking::FtStatus> newStatus(const std::string& name) {
    const auto status = HwFlowTracking::ftStatusFactory(name);
    status->templateStatusIs(templateOf(256, {8, 12, 1}));
    return status;
  }
  Ptr<HwFlowTracking::FtConfig> newTracker(const std::string& name) {
    if (name == "ft1" && pick(2)) return tracker;
    const auto fresh = HwFlowTracking::ftConfigFactory(name, 7);
    fresh->activeIntervalIs(60000);
    return fresh;
  }
  void change() {
    ++depth;
    const std::string ftName = pick(3) ? "ft1" : "ft2";
    const std::string name = pick(2) ? "a" : "b";
    const std::string c = pick(2) ? "c" : "d";
    const auto ft = hwConfig->ftConfig(ftName);
    const auto e = ft ? ft->expConfig(name) : nullptr;
    const auto status = hwStatus->ftStatus(ftName);
    const auto id = static_cast<uint32_t>(pick(4));
    const size_t what = pick(e ? 20 : 9);
    support::tell("change " + std::to_string(what));
    switch (what) {
      case 0:
        hwConfig->ftConfigIs(newTracker(ftName));
        break;
      case 1:
        if (ft) ft->expConfigIs(newExporter(name));
        break;
      case 2:
        if (pick(3)) break;
        hwConfig->ftConfigDel(ftName);
        if (ft && pick(2)) hwConfig->ftConfigIs(ft);
        break;
      case 3:
        statusChanges = true;
        break;
      case 4:
        if (status && pick(2)) status->templateStatusDel(static_cast<TemplateId>(256 + pick(3)));
        if (status)
          status->templateStatusIs(
              templateOf(static_cast<TemplateId>(256 + pick(3)), {8, id == 3 ? 28 : id / 2 + 1}));
        if (const auto t = status ? status->templateStatus(256) : nullptr)
          t->genIdIs(t->genId() + 1);
        break;
      case 5:
        if (pick(10) == 0) local = nullptr;
        // Who sends to a collector goes before whoever forgets its counters.
        if (pick(5) == 0 && !replacing) {
          manager = nullptr;
          if (pick(2)) templateSm = nullptr;
        }
        if (templateSm && pick(4) == 0) templateSm->optTemplateConfig()->versionInc(1);
        req->clearCountersIs(id);
        break;
      case 6:
        intfs->intfIndexIs(IntfId("eth" + std::to_string(id)), static_cast<uint32_t>(10 + pick(9)));
        intfs->intfIndexDel(IntfId("eth" + std::to_string(pick(4))));
        break;
      case 7:
        vrfs->vrfIs(id, VrfName("v" + std::to_string(pick(3))));
        vrfs->vrfDel(static_cast<VrfId>(pick(4)));
        break;
      case 8:
        vrfStatus->vrfIs(VrfName("default"), 1 + pick(3));
        tracker->localPortIs(pick(2) ? 0 : 4739);
        break;
      case 9:
        ft->expConfigDel(name);
        if (pick(2)) ft->expConfigIs(e);
        break;
      case 10:
      case 11:
        e->srcIpAddrIs(IpAddr(static_cast<uint32_t>(pick(3))));
        break;
      case 12:
        e->srcIp6AddrIs(pick(3) ? source6 : Ip6Addr());
        break;
      case 13:
        e->vrfNameIs(VrfName(pick(3) == 0 ? "default" : pick(2) ? "red" : "refused"));
        break;
      case 14:
      case 15:
        e->collectorIpAndPortIs(c, dst4(static_cast<uint8_t>(1 + pick(4)), pick(4) ? 4739 : 0));
        break;
      case 16:
        e->collectorIpAndPortDel(c);
        break;
      case 17:
        e->collectorIp6AndPortIs("c", dst6(1));
        e->collectorIp6AndPortDel("d");
        break;
      case 18:
        e->templateIntervalIs(20000 + 1000 * id);
        break;
      default:
        e->dscpIs(DscpValue(id));
    }
    --depth;
  }

  /// Not from a handler: whoever replaces the tracker's status while its tables are being made and
  /// sent, or drops the roots meanwhile, finds counters afterwards that nobody owns.
  void changeStatus() {
    replacing = true;
    const std::string name = pick(3) ? "ft1" : "ft2";
    if (pick(2)) hwStatus->ftStatusDel(name);
    if (pick(3)) hwStatus->ftStatusIs(newStatus(name));
    replacing = false;
  }

  static bool opens(const ExpConfig& e) { return e.vrfName().stringValue() != "refused"; }
  void checkLocal() {
    const auto& told = *tracker->localCollectorConfig();
    Ptr<ExpConfig> e;
    for (const auto& [name, exporter] : tracker->expConfig())
      if (!e && !(exporter->srcIpAddr().isZero() && exporter->srcIp6Addr().isZero())) e = exporter;
    if (e && !opens(*e)) e = nullptr;
    const bool four = e && !e->srcIpAddr().isZero();
    ASSERT_EQ(told.exporterReady(), bool{e});
    ASSERT_EQ(bool{pams->udpPam4()}, four);
    ASSERT_EQ(bool{pams->udpPam6()}, e && !four);
    ASSERT_EQ(pams->udpPam4Ready(), four);
    ASSERT_EQ(pams->udpPam6Ready(), e && !four);
    ASSERT_EQ(told.expName(), e ? e->name() : "");
    ASSERT_EQ(told.dscpValue(), e ? e->dscp() : DscpValue());
    if (!e) {
      ASSERT_EQ(told.destIp(), IpGenAddr());
      return;
    }
    const auto& pam = four ? pams->udpPam4() : pams->udpPam6();
    ASSERT_EQ(pam->mode(), UdpPam::inService);
    ASSERT_EQ(pam->rxPort(), told.destPort());
    ASSERT_TRUE(tracker->localPort() == told.destPort() || tracker->localPort() == 0);
    ASSERT_EQ(told.destIp(), four ? IpGenAddr(e->srcIpAddr()) : IpGenAddr(e->srcIp6Addr()));
    ASSERT_EQ(told.srcIp(), told.destIp());
    ASSERT_EQ(told.srcPort(), told.destPort());
    ASSERT_EQ(told.vrfName(), e->vrfName());
  }
  void checkTables() {
    const auto slot = optionsDataUpdateFactory(OptionsDataScope::scopeTracker);
    const auto source = [] { return optionsDataSourceFactory("s", 300); };
    const auto same = [](const auto& sm, const auto& anew) {
      ASSERT_EQ(recordsOf(sm->dataSource()), recordsOf(anew->dataSource()));
      ASSERT_EQ(sm->dataRecords(), anew->dataRecords());
    };
    same(manager->intfTableSm(), interfaceTableSmFactory(source(), slot, intfs));
    same(manager->vrfTableSm(), vrfTableSmFactory(source(), slot, vrfs));
    for (const auto& [name, ft] : hwConfig->ftConfig()) {
      const auto status = hwStatus->ftStatus(name);
      const auto sm = manager->ftManagerSm(name);
      ASSERT_EQ(bool{sm}, bool{status});
      if (!sm) continue;
      ASSERT_EQ(sm->hwFtConfig(), ft);
      ASSERT_TRUE(manager->dataContainer(name) && manager->dataAll()->trackerData(name));
      ASSERT_EQ(keysOf(sm->exporterSm()), keysOf(ft->expConfig()));
      same(sm->flowKeySm(), flowKeySmFactory(source(), slot, status));
    }
    ASSERT_EQ(keysOf(manager->dataContainer()), keysOf(manager->ftManagerSm()));
    ASSERT_EQ(keysOf(manager->dataAll()->trackerData()), keysOf(manager->ftManagerSm()));
  }
  void check() {
    size_t open = tracker->localCollectorConfig()->exporterReady();
    size_t entries = 0;
    std::set<const ExpConfig*> configured;
    std::set<std::string> expected;  // endpoint, destination and set of all that is sent
    ASSERT_EQ(keysOf(info->ftInfo()), keysOf(hwConfig->ftConfig()));
    for (const auto& [ftName, ft] : hwConfig->ftConfig()) {
      const auto sm = infoSm->ftInfoSm(ftName);
      const auto status = hwStatus->ftStatus(ftName);
      ASSERT_EQ(sm->hwFtConfig(), ft);
      ASSERT_EQ(keysOf(info->ftInfo(ftName)->expInfo()), keysOf(ft->expConfig()));
      ASSERT_EQ(bool{templateSm->ftTemplateSm(ftName)}, bool{status});
      for (const auto& [name, e] : ft->expConfig()) {
        const auto expInfo = info->ftInfo(ftName)->expInfo(name);
        ASSERT_EQ(sm->expInfoSm(name)->hwExpConfig(), e);
        ASSERT_EQ(sm->expInfoSm(name)->expInfo(), expInfo);
        ASSERT_EQ(bool{expInfo->udpPam4()}, opens(*e) && !e->srcIpAddr().isZero());
        ASSERT_EQ(bool{expInfo->udpPam6()}, opens(*e) && !e->srcIp6Addr().isZero());
        for (const auto& pam : {expInfo->udpPam4(), expInfo->udpPam6()}) {
          if (!pam) continue;
          ++open;
          ASSERT_EQ(pam->mode(), UdpPam::inService);
        }
        ASSERT_EQ(e->rxPort4(), expInfo->udpPam4() ? expInfo->udpPam4()->rxPort() : 0);
        ASSERT_EQ(e->rxPort6(), expInfo->udpPam6() ? expInfo->udpPam6()->rxPort() : 0);
        for (const auto& [c, collInfo] : expInfo->collInfo())
          ASSERT_TRUE(e->collectorIpAndPort().contains(c) || e->collectorIp6AndPort().contains(c));
        configured.insert(e.get());
        const bool keys = status && manager->ftManagerSm(ftName)->flowKeySm()->dataRecords() > 0;
        const auto sends = [&, ftName = ftName, e = e](const Ptr<UdpPam>& pam,
                                                       const auto& collectors) {
          std::set<std::string> places;
          for (const auto& [c, dst] : collectors) {
            const Tarn::Ipfix::CollectorInfo place(dst.addr, dst.port);
            if (!places.insert(place.stringValue()).second || !status) continue;
            const bool counted = stats->stats({ftName, e->name(), place}).has_value();
            EXPECT_TRUE(counted || !pam) << "its counters are gone";
            entries += counted;
            for (const int set : {2, 3, 65280, 65281, 65282, 65283})
              if (pam && dst.port != 0 && (set != 2 || !status->templateStatus().empty()) &&
                  (set != 65282 || keys))
                expected.insert(pam->name() + " > " + place.stringValue() + ' ' +
                                std::to_string(set));
          }
        };
        sends(expInfo->udpPam4(), e->collectorIpAndPort());
        sends(expInfo->udpPam6(), e->collectorIp6AndPort());
      }
    }
    ASSERT_EQ(sim->openEndpoints(), open);
    ASSERT_EQ(stats->size(), entries) << "counters of a collector that is gone";
    for (const auto& e : all) {
      ASSERT_TRUE(configured.contains(e.get()) || e->rxPort4() + e->rxPort6() == 0);
      ASSERT_EQ(e->exporter4Ready(), e->rxPort4() != 0);
      ASSERT_EQ(e->exporter6Ready(), e->rxPort6() != 0);
    }
    seen();
    sim->advance(Seconds(100));
    for (const auto& [name, ft] : manager->ftManagerSm()) {
      std::set<const MessageWrapper*> first;  // exporters of one tracker share their messages
      for (const auto& [e, sm] : ft->exporterSm())
        if (sm->v4Ready() || sm->v6Ready()) first.insert(sm->msgCache(0).get());
      ASSERT_LE(first.size(), 1u);
    }
    std::set<std::string> sent;
    for (const auto& s : seen())
      for (const uint16_t set : s.setIds())
        sent.insert(s.datagram.endpoint + " > " + s.to() + ' ' + std::to_string(set));
    ASSERT_EQ(sent, expected);
  }

  std::mt19937 random;
  bool acts = true;
  bool statusChanges = false;
  bool replacing = false;
  int depth = 0;
  std::vector<Ptr<ExpConfig>> all;
  Ears ears{[this](size_t) { act(); }};
  Ptr<Config> config = configFactory();
  Ptr<LocalCollectorPams> pams = localCollectorPamsFactory("ft1");
  Ptr<Ip::AllVrfStatusLocal> vrfStatus = Ip::allVrfStatusLocalFactory();
  Ptr<LocalCollectorConfigSm> local;
};

TEST_F(Restless, EndsWithWhatIsConfigured) {
  tracker->activeIntervalIs(60000);
  support::eachSeed(20, [this](unsigned seed) {
    support::eachStep(seed, 200, random, [this] {
      acts = true;
      sim->yieldAfterIs(static_cast<unsigned>(pick(3)));
      rootsAre();
      listen();
      for (size_t n = 1 + pick(5); n > 0; --n) {
        change();
        if (std::exchange(statusChanges, false)) changeStatus();
      }
      if (pick(2)) sim->runDue();
      acts = false;
      rootsAre();
      sim->advance(Seconds(5));
      ASSERT_NO_FATAL_FAILURE(checkLocal());
      ASSERT_NO_FATAL_FAILURE(checkTables());
      ASSERT_NO_FATAL_FAILURE(check());
    });
    restIs();
    for (const auto& e : all) EXPECT_FALSE(e->exporter4Ready() || e->exporter6Ready());
    EXPECT_EQ(stats->size(), 0u);
    all.clear();
    for (const auto& name : keysOf(tracker->expConfig())) tracker->expConfigDel(name);
    hwConfig = HwFlowTracking::configFactory();
    hwStatus = HwFlowTracking::statusFactory();
    info = flowTrackingInfoFactory(FlowTrackingType::software);
  });
}

}  // namespace
}  // namespace FlowTracking
