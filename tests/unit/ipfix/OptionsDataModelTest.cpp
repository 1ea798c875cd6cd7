#include <cstdlib>
#include <random>

#include "Ipfix/OptionsDataManagerSm.h"
#include "Receiver.h"

/// Random life of two trackers with three exporters, against a plain model: whatever happens, each
/// collector's picture of the tables is the truth after a full transmission, and the statistics are
/// what arrived. Number of sequences: TARN_SEQUENCES (default 300); first seed: TARN_SEED.
namespace FlowTracking {
namespace {

/// Where a collector is.
using Place = Tarn::Ipfix::CollectorInfo;

constexpr double activeSeconds = 60;

struct ExporterModel {
  std::string tracker;
  std::string name;
  Ptr<HwFlowTracking::ExporterConfig> config;
  std::map<std::string, Place> collectors;

  std::string key(const Place& place) const {
    return (place.addr().isIpv6() ? "udpPam6-" : "udpPam4-") + tracker + "-" + name + " > " +
           place.stringValue();
  }
  bool canSendTo(const Place& place) const {
    return !(place.addr().isIpv6() ? config->srcIp6Addr().isZero() : config->srcIpAddr().isZero());
  }
  void configure(const std::string& collector, const Place& place) {
    if (place.addr().isIpv6()) {
      config->collectorIp6AndPortIs(collector, {place.addr().ip6Addr(), place.port()});
    } else {
      config->collectorIpAndPortIs(collector, {place.addr().ipAddr(), place.port()});
    }
  }
};

class World {
 public:
  explicit World(unsigned seed) : rnd_(seed) {
    Platform::install(sim_.get());
    sim_->wallClockIs(1700000000);
    init_ = ::Ipfix::ipfixInitSmFactory();
    for (const auto& [name, id] : {std::pair("ft1", 7u), std::pair("ft2", 8u)}) {
      auto tracker = HwFlowTracking::ftConfigFactory(name, id);
      tracker->activeIntervalIs(static_cast<uint32_t>(activeSeconds * 1000));
      hwConfig_->ftConfigIs(tracker);
      auto status = HwFlowTracking::ftStatusFactory(name);
      status->activeIntervalIs(Seconds(activeSeconds));
      status->inactiveTimeoutIs(Seconds(15));
      hwStatus_->ftStatusIs(status);
      templateIs_p(*status, 256);
    }
    for (const auto& [tracker, name] :
         {std::pair("ft1", "e1"), std::pair("ft1", "e2"), std::pair("ft2", "e1")}) {
      ExporterModel e{tracker, name, HwFlowTracking::exporterConfigFactory(name), {}};
      e.config->srcIpAddrIs(source4);
      e.config->srcIp6AddrIs(source6);
      hwConfig_->ftConfig(tracker)->expConfigIs(e.config);
      exporters_.push_back(e);
    }
    infoSm_ =
        flowTrackingInfoSmFactory(sim_->schedulerRoot(), hwConfig_, info_, init_->agentInfo());
    templateSm_ = templateSmFactory(configReqFactory(), hwConfig_, hwStatus_, info_,
                                    init_->elementIdCollection(), stats_, sim_->scheduler());
    manager_ = optionsDataManagerSmFactory(hwConfig_, hwStatus_, info_, intfs_, vrfs_, stats_,
                                           sim_->scheduler());
  }
  ~World() {
    manager_ = nullptr;
    templateSm_ = nullptr;
    infoSm_ = nullptr;
    EXPECT_EQ(sim_->openEndpoints(), 0u);
    EXPECT_EQ(stats_->size(), 0u);
    info_ = nullptr;
    Platform::install(nullptr);
  }

  void step() {
    using W = World;
    // clang-format off
    static constexpr void (W::*events[])() = {
        &W::intfIs, &W::intfIs, &W::intfIs, &W::intfDel, &W::intfRename, &W::intfReindex,
        &W::vrfIs, &W::vrfDel, &W::mtuIs, &W::collectorIs, &W::collectorDel, &W::collectorMove,
        &W::sourceChange, &W::templateChange, &W::paramChange, &W::now, &W::later,
        &W::fullTransmission, &W::fullTransmission};
    // clang-format on
    (this->*events[pick(std::size(events))])();
    receive();
  }

  /// Lets everything settle, then compares each picture after one full transmission.
  void fullTransmission() {
    sim_->advance(Seconds(4));  // what is pending would tell of records that are gone
    receive();
    for (auto& [to, picture] : receiver_.pictures()) picture.clear();
    sim_->advance(Seconds(activeSeconds + 0.5));
    receive();
    for (const auto& e : exporters_)
      for (const auto& [name, place] : e.collectors)
        if (e.canSendTo(place)) check(e, place);
  }

 private:
  size_t pick(size_t n) { return rnd_() % n; }
  ExporterModel& anExporter() { return exporters_[pick(exporters_.size())]; }

  void receive() {
    for (const auto& d : sim_->takeSent()) {
      const Seen seen{d};
      for (const auto& e : exporters_) {
        if (d.endpoint.substr(8) != e.tracker + "-" + e.name) continue;
        if (seen.setId() > 255) {
          ASSERT_LE(d.octets.size(), e.config->ipfixMtu() - 48) << d.endpoint;
        }
        ASSERT_EQ(seen.domain(), hwConfig_->ftConfig(e.tracker)->ftId());
      }
      receiver_.take(seen);
      if (testing::Test::HasFatalFailure()) return;
    }
  }

  Picture truth(const std::string& trackerName) const {
    Picture p;
    for (const auto& [id, index] : intfs_->intfIndex())
      p[intfTable][netOctets(index, 4)] = id.stringValue();
    p[intfTable][netOctets(0x80000000, 4)] = "multicast";
    p[intfTable][netOctets(0x40000000, 4)] = "discard";
    p[intfTable][netOctets(0x3fffffff, 4)] = "CPU";
    p[intfTable][netOctets(0, 4)] = "unknown";
    for (const auto& [id, name] : vrfs_->vrf()) p[vrfTable][netOctets(id, 4)] = name.stringValue();
    p[vrfTable][netOctets(0xffffff, 4)] = "";
    const auto status = hwStatus_->ftStatus(trackerName);
    p[trackerTable][netOctets(hwConfig_->ftConfig(trackerName)->ftId(), 4)] =
        trackerName + netOctets(static_cast<uint64_t>(status->activeInterval().count()), 2) +
        netOctets(static_cast<uint64_t>(status->inactiveTimeout().count()), 2) + netOctets(3, 2) +
        netOctets(1, 4) +
        netOctets(status->sampleRate() ? status->sampleRate() : hwStatus_->sampleRate(), 4) +
        netOctets(1, 2);
    for (const auto& [id, t] : status->templateStatus()) {
      uint64_t indicator = 0;
      for (const auto& [position, entry] : t->ftTemplateEntry())
        if (entry.flowKey()) indicator |= uint64_t{1} << position;
      p[flowKeyTable][netOctets(id, 2)] = netOctets(indicator, 8);
    }
    return p;
  }

  void check(const ExporterModel& e, const Place& place) {
    const std::string to = e.key(place);
    Picture found = receiver_.pictures()[to];
    std::erase_if(found, [](const auto& table) { return table.second.empty(); });
    ASSERT_EQ(found, truth(e.tracker)) << to;
    const auto entry = stats_->stats({e.tracker, e.name, place});
    ASSERT_TRUE(entry) << to;
    const auto& count = receiver_.counts()[to];
    EXPECT_EQ(entry->exportedMessageTotalCount(), count.messages) << to;
    EXPECT_EQ(entry->exportedOctetTotalCount(), count.octets) << to;
    EXPECT_EQ(entry->exportedFlowRecordTotalCount(), count.records) << to;
    for (const auto& [set, records] : count.recordsBySet) {
      const auto s = entry->setEntry(Tarn::Ipfix::SetId(set));
      EXPECT_EQ(s.exportedFlowRecordCount(), records) << to << " set " << set;
      EXPECT_EQ(s.exportedTemplateCount(), count.templatesBySet.at(set)) << to << " set " << set;
    }
  }

  // --- What may happen ---

  void now() { sim_->runDue(); }
  void later() { sim_->advance(Seconds(0.3 * static_cast<double>(pick(8)))); }
  std::string freshName() { return "if" + std::string(pick(12), 'x') + std::to_string(++last_); }
  uint32_t freshIndex() { return ++last_; }
  std::vector<IntfId> intfIds() const {
    std::vector<IntfId> ids;
    for (const auto& [id, index] : intfs_->intfIndex()) ids.push_back(id);
    return ids;
  }
  void put(const IntfId& id, uint32_t index) {
    intfs_->intfIdIs(index, id);
    intfs_->intfIndexIs(id, index);
  }
  void take(const IntfId& id) {
    intfs_->intfIdDel(intfs_->intfIndex().at(id));
    intfs_->intfIndexDel(id);
  }
  void intfIs() {
    for (size_t n = 1 + pick(40); n > 0; --n) put(IntfId(freshName()), freshIndex());
  }
  void intfDel() {
    for (const auto& id : intfIds())
      if (pick(3) == 0) take(id);
  }
  void intfRename() {
    for (const auto& id : intfIds()) {
      if (pick(4) != 0) continue;
      const uint32_t index = intfs_->intfIndex().at(id);
      take(id);
      put(IntfId(freshName()), index);
    }
  }
  void intfReindex() {
    for (const auto& id : intfIds())
      if (pick(4) == 0) put(id, freshIndex());
  }
  void vrfIs() {
    vrfs_->vrfIs(static_cast<VrfId>(pick(10)), VrfName("v" + std::to_string(pick(100))));
  }
  void vrfDel() { vrfs_->vrfDel(static_cast<VrfId>(pick(10))); }
  void mtuIs() { anExporter().config->ipfixMtuIs(static_cast<uint32_t>(327 + pick(1200))); }

  Place freshPlace() {
    const auto host = static_cast<uint8_t>(1 + pick(200));
    const auto port = static_cast<uint16_t>(1000 + ++last_ % 60000);
    return pick(2) == 0 ? Place::fromIpAndPort(dst4(host, port))
                        : Place::fromIp6AndPort(dst6(host, port));
  }
  void collectorIs() {
    auto& e = anExporter();
    const std::string name = "c" + std::to_string(++last_);
    e.configure(name, e.collectors[name] = freshPlace());
  }
  void collectorDel() {
    auto& e = anExporter();
    receive();
    if (e.collectors.empty()) return;
    const auto it = std::next(e.collectors.begin(), static_cast<long>(pick(e.collectors.size())));
    receiver_.forget(e.key(it->second));
    e.config->collectorIpAndPortDel(it->first);
    e.config->collectorIp6AndPortDel(it->first);
    e.collectors.erase(it);
  }
  void collectorMove() {
    auto& e = anExporter();
    receive();
    if (e.collectors.empty()) return;
    auto& [name, place] = *e.collectors.begin();
    receiver_.forget(e.key(place));
    place = freshPlace();
    e.configure(name, place);  // first, so that it is the same collector in the other family, too
    if (place.addr().isIpv6()) {
      e.config->collectorIpAndPortDel(name);
    } else {
      e.config->collectorIp6AndPortDel(name);
    }
  }
  void sourceChange() {
    auto& c = *anExporter().config;
    if (pick(2) == 0) {
      c.srcIpAddrIs(c.srcIpAddr().isZero() || pick(3) == 0 ? IpAddr(source4.value() + ++last_)
                                                           : IpAddr());
    } else {
      Ip6Addr::Octets o = source6.octets();
      o[14] = static_cast<uint8_t>(++last_);
      c.srcIp6AddrIs(c.srcIp6Addr().isZero() || pick(3) == 0 ? Ip6Addr(o) : Ip6Addr());
    }
  }
  void templateIs_p(HwFlowTracking::FtStatus& status, TemplateId id) {
    auto t = status.templateStatus(id);
    const bool fresh = !t;
    if (fresh) t = HwFlowTracking::templateStatusFactory(id);
    t->ftTemplateEntryDelAll();
    for (uint32_t position = 0; position < 1 + pick(12); ++position) {
      HwFlowTracking::FtTemplateEntry e(position, ::Ipfix::RecordType(4));
      e.fieldLenIs(1);
      e.flowKeyIs(pick(2) == 0);
      t->ftTemplateEntryIs(e);
    }
    t->genIdIs(t->genId() + 1);
    if (fresh) status.templateStatusIs(t);
  }
  void templateChange() {
    auto& status = *hwStatus_->ftStatus(pick(2) == 0 ? "ft1" : "ft2");
    const auto id = static_cast<TemplateId>(256 + pick(3));
    if (pick(3) == 0 && id != 256) {
      status.templateStatusDel(id);
    } else {
      templateIs_p(status, id);
    }
  }
  void paramChange() {
    auto& status = *hwStatus_->ftStatus(pick(2) == 0 ? "ft1" : "ft2");
    const size_t what = pick(4);
    if (what == 0) status.activeIntervalIs(Seconds(static_cast<double>(1 + pick(1000))));
    if (what == 1) status.inactiveTimeoutIs(Seconds(static_cast<double>(1 + pick(1000))));
    if (what == 2) status.sampleRateIs(static_cast<uint32_t>(pick(3)));
    if (what == 3) hwStatus_->sampleRateIs(static_cast<uint32_t>(1 + pick(5)));
  }

  std::mt19937 rnd_;
  std::unique_ptr<SimPlatform> sim_ = simPlatform();
  Ptr<::Ipfix::IpfixInitSm> init_;
  Ptr<HwFlowTracking::Config> hwConfig_ = HwFlowTracking::configFactory();
  Ptr<HwFlowTracking::Status> hwStatus_ = HwFlowTracking::statusFactory();
  Ptr<FlowTrackingInfo> info_ = flowTrackingInfoFactory(FlowTrackingType::software);
  Ptr<Tarn::Ipfix::CollectorStatistics> stats_ = Tarn::Ipfix::collectorStatisticsFactory(
      simTableFactory(Tarn::Ipfix::CollectorStatistics::keyLen,
                      Tarn::Ipfix::CollectorStatistics::valueLen, 10000));
  Ptr<IntfIndexMap> intfs_ = intfIndexMapFactory();
  Ptr<Vrf::VrfIdMap::Status> vrfs_ = Vrf::VrfIdMap::statusFactory();
  std::vector<ExporterModel> exporters_;
  Ptr<FlowTrackingInfoSm> infoSm_;
  Ptr<TemplateSm> templateSm_;
  Ptr<OptionsDataManagerSm> manager_;
  Receiver receiver_;
  uint32_t last_ = 0;
};

unsigned fromEnvironment(const char* name, unsigned otherwise) {
  const char* text = std::getenv(name);
  return text ? static_cast<unsigned>(std::strtoul(text, nullptr, 10)) : otherwise;
}

TEST(OptionsDataWorldTest, EveryPictureIsTheTruth) {
  const unsigned sequences = fromEnvironment("TARN_SEQUENCES", 300);
  const unsigned first = fromEnvironment("TARN_SEED", std::random_device{}());
  for (unsigned i = 0; i < sequences; ++i) {
    SCOPED_TRACE("TARN_SEED=" + std::to_string(first + i) + " TARN_SEQUENCES=1");
    World world(first + i);
    for (int step = 0; step < 60; ++step) {
      world.step();
      if (HasFailure()) return;
    }
    world.fullTransmission();
    if (HasFailure()) return;
  }
}

}  // namespace
}  // namespace FlowTracking
