#include <algorithm>
#include <cerrno>
#include <functional>

#include "Ears.h"
#include "OptionsDataModel.h"
#include "tests/support/Random.h"

/// Random life of two trackers with three exporters, against a plain model: whatever happens, each
/// collector's picture of the tables is the truth after a full transmission, and the statistics are
/// what arrived. Number of sequences: TARN_SEQUENCES (default 300); first seed: TARN_SEED.
namespace FlowTracking {
namespace {

class World : private OptionsDataModel {
 public:
  explicit World(unsigned seed) : OptionsDataModel(seed), activeSeconds(pick(4) != 0 ? 60 : 1.2) {
    pace();
    meddles_ = false;  // nobody answers before all is there
    std::function<void()> parts[] = {
        [this] { makeInfoSm(); },
        [this] { makeTemplateSm(); },
        [this] { makeManager(); },
        [this] { hwStatus->ftStatusIs(freshStatus("ft1")); },
        [this] { hwStatus->ftStatusIs(freshStatus("ft2")); },
        [this] { trackerIs("ft1"); },
        [this] { trackerIs("ft2"); },
    };
    std::ranges::shuffle(parts, rnd_);
    for (const auto& part : parts) part();
    meddles_ = true;
    ears_.hear<OnStats>(stats, 300);
    ears_.hear<OnUpdate>(manager->dataAll()->globalUpdate(), 100);
  }
  ~World() {
    meddles_ = false;
    ears_.clear();
    manager = nullptr;
    templateSm = nullptr;
    EXPECT_EQ(stats->size(), 0u);
  }

  std::mt19937& random() { return rnd_; }
  void step() {
    using W = World;
    // clang-format off
    static constexpr void (*events[])(W&) = {
        does<&W::intfIs>, does<&W::intfIs>, does<&W::intfIs>, does<&W::intfChange>,
        does<&W::intfChange>, does<&W::intfChange>, does<&W::vrfIs>, does<&W::vrfDel>,
        does<&W::mtuIs>, does<&W::collectorIs>, does<&W::anyCollectorDel>,
        does<&W::anyExporterDel>, does<&W::collectorMove>, does<&W::sourceChange>,
        does<&W::templateChange>, does<&W::paramChange>, does<&W::now>, does<&W::later>, does<&W::fullTransmission>,
        does<&W::fullTransmission>, does<&W::exporterChange>, does<&W::vrfChange>,
        does<&W::refusal>, does<&W::trackerChange>, does<&W::intervalChange>, does<&W::soon>,
        does<&W::soon>, does<&W::coalescing>, does<&W::flap>, does<&W::flap>};
    // clang-format on
    for (auto& e : exporters_) e.mtuBefore = e.config->ipfixMtu();
    events[pick(std::size(events))](*this);
    receive();
    ears_.hearAll(*info);
  }

  /// Lets everything settle, then compares each picture after one full transmission.
  void fullTransmission() {
    sim->openErrorIs(0);
    sim->namespaceIs("ns-red", true);
    meddles_ = false;
    for (const std::string name : {"ft1", "ft2"}) {
      if (!hwConfig->ftConfig(name)) trackerIs(name);
      if (!hwStatus->ftStatus(name)) hwStatus->ftStatusIs(freshStatus(name));
      hwConfig->ftConfig(name)->activeIntervalIs(static_cast<uint32_t>(activeSeconds * 1000));
    }
    sim->advance(Seconds(4));  // what is pending would tell of records that are gone
    receive();
    quiet();
    for (auto& [to, picture] : receiver_.pictures()) picture.clear();
    const auto before = templates();
    // Meanwhile others join; that is no reason to leave those out.
    for (double rest = activeSeconds + 0.5; rest > 0; rest -= 0.05) {
      if (pick(static_cast<size_t>(activeSeconds * 5) + 2) == 0) collectorIs();
      sim->advance(Seconds(std::min(rest, 0.05)));
    }
    sim->paceIs(0);  // nothing is on its way when the counters are read
    sim->advance(Seconds(0.002));
    receive();
    pace();
    meddles_ = true;
    const auto after = templates();
    each([&](ExporterModel& e, const Place& place) {
      const auto had = before.find(e.key(place));
      if (had == before.end()) return;
      check(e, place);
      const auto periods =
          static_cast<uint64_t>((activeSeconds + 0.502) * 1000) / e.config->templateInterval();
      for (const uint16_t set : {2, 3}) {
        const uint64_t each = set == 3 ? 4 : hwStatus->ftStatus(e.tracker)->templateStatus().size();
        const uint64_t n = (after.at(e.key(place)).at(set) - had->second.at(set)) / each;
        EXPECT_TRUE(n == periods || n == periods + 1) << e.key(place) << ' ' << set << ' ' << n;
      }
    });
  }

 private:
  // --- What may happen ---

  template <void (World::*event)()>
  static void does(World& w) {
    support::tell(__PRETTY_FUNCTION__);
    (w.*event)();
  }
  void pace() { sim->paceIs(pick(4), 255); }  // each datagram fills the endpoint
  void now() { sim->runDue(); }
  void soon() { sim->advance(Seconds(0.001 * static_cast<double>(pick(10)))); }
  void coalescing() {
    const auto& e = anExporter();
    const auto tracker = manager->ftManagerSm(e.tracker);
    if (const auto sm = tracker ? tracker->exporterSm(e.name) : nullptr)
      sm->updateDataCoalesceTimeIs(0.005 * static_cast<double>(pick(3)));
  }
  void later() { sim->advance(Seconds(0.3 * static_cast<double>(pick(8)))); }
  std::string freshName() { return "if" + std::string(pick(12), 'x') + std::to_string(++last_); }
  uint32_t freshIndex() { return ++last_; }
  void put(const IntfId& id, uint32_t index) {
    intfs->intfIdIs(index, id);
    intfs->intfIndexIs(id, index);
  }
  void take(const IntfId& id) {
    if (!intfs->intfIndex().contains(id)) return;
    intfs->intfIdDel(intfs->intfIndex().at(id));
    intfs->intfIndexDel(id);
  }
  void intfIs() {
    for (size_t n = pick(20) == 0 ? 500 : 1 + pick(40); n > 0; --n)
      put(IntfId(freshName()), freshIndex());
  }
  void intfChange() { intfsAre(pick(3)); }
  /// Removes some (0), or gives them other names (1) or indices (2).
  void intfsAre(size_t what) {
    for (const auto& id : keysOf(intfs->intfIndex())) {
      if (pick(4) != 0 || !intfs->intfIndex().contains(id)) continue;
      const uint32_t index = intfs->intfIndex().at(id);
      if (what < 2) take(id);
      if (what > 0) put(what == 1 ? IntfId(freshName()) : id, what == 1 ? index : freshIndex());
    }
  }
  void vrfIs() {
    vrfs->vrfIs(static_cast<VrfId>(pick(10)), VrfName("v" + std::to_string(pick(100))));
  }
  void vrfDel() { vrfs->vrfDel(static_cast<VrfId>(pick(10))); }
  void mtuIs() {
    auto& e = anExporter();
    e.config->ipfixMtuIs(static_cast<uint32_t>(327 + pick(1200)));
    for (auto& [key, most] : e.mtuMost) most = std::max(most, e.config->ipfixMtu());
  }
  void placed(ExporterModel& e, const Place& place) {
    // Who joins inside a notification may be sent the message that is being handed round.
    e.mtuMost[e.key(place)] = std::max(e.config->ipfixMtu(), meddles_ ? 0 : e.mtuBefore);
  }

  Place freshPlace() {
    const auto host = static_cast<uint8_t>(1 + pick(200));
    const auto port = static_cast<uint16_t>(1000 + ++last_ % 60000);
    return pick(2) == 0 ? Place::fromIpAndPort(dst4(host, port))
                        : Place::fromIp6AndPort(dst6(host, port));
  }
  void collectorIs() {
    auto& e = anExporter();
    if (!attached(e)) exporterIs(e);
    if (!attached(e)) return;
    std::pair<std::string, Place> fresh("c" + std::to_string(++last_), freshPlace());
    if (!e.left.empty() && pick(2) == 0) {
      fresh = e.left.back();
      e.left.pop_back();
      receive();
      gone_.erase(e.key(fresh.second));
      receiver_.startAnew(e.key(fresh.second));
    }
    const auto [name, place] = fresh;
    e.collectors[name] = place;
    placed(e, place);
    e.configure(name, place);
  }
  void anyCollectorDel() { collectorDel(anExporter()); }
  // What a deed changes in the model it changes there first: it is no sooner said than somebody
  // answers with another.
  void collectorDel(ExporterModel& e) {
    receive();
    if (e.collectors.empty()) return;
    const auto [name, place] =
        *std::next(e.collectors.begin(), static_cast<long>(pick(e.collectors.size())));
    receiver_.forget(e.key(place));
    e.collectors.erase(name);
    const auto config = e.config;
    const unsigned answersBefore = answers_;
    config->collectorIpAndPortDel(name);
    config->collectorIp6AndPortDel(name);
    // An exporter that ends in between does not hear of it: what waits in its endpoint leaves.
    if (!meddles_ || answers_ != answersBefore) return;
    gone_[e.key(place)] = sim->clock().now();
    e.left.emplace_back(name, place);
  }
  void collectorMove() {
    auto& e = anExporter();
    receive();
    if (e.collectors.empty()) return;
    const std::string name = e.collectors.begin()->first;
    receiver_.forget(e.key(e.collectors[name]));
    const Place place = e.collectors[name] = freshPlace();
    placed(e, place);
    const auto config = e.config;
    e.configure(name, place);  // first, so that it is the same collector in the other family, too
    if (!e.collectors.contains(name) || e.collectors[name] != place) return;
    if (place.addr().isIpv6()) {
      config->collectorIpAndPortDel(name);
    } else {
      config->collectorIp6AndPortDel(name);
    }
  }
  void exporterIs(ExporterModel& e) {
    if (e.config && attached(e)) exporterDel(e);
    const auto tracker = hwConfig->ftConfig(e.tracker);
    if (!tracker) return;
    e.config = HwFlowTracking::exporterConfigFactory(e.name);
    e.config->srcIpAddrIs(source4);
    e.config->srcIp6AddrIs(source6);
    e.config->templateIntervalIs(static_cast<uint32_t>(1000 * (1 + pick(30))));
    const bool first = pick(2) == 0;
    if (first) ears_.hear<OnConfig>(e.config, 10);
    tracker->expConfigIs(e.config);
    if (!first) ears_.hear<OnConfig>(e.config, 10);
  }
  void exporterDel(ExporterModel& e) {
    while (attached(e)) hwConfig->ftConfig(e.tracker)->expConfigDel(e.name);  // anew by an answer
    forget(e);
    e.collectors.clear();
  }
  /// Its sessions are over: with its endpoints all has left that waited in them.
  void forget(const ExporterModel& e) {
    receive();
    for (const auto& [name, place] : e.collectors) receiver_.forget(e.key(place));
  }
  Ptr<HwFlowTracking::FtConfig> freshTracker(const std::string& name) const {
    auto tracker = HwFlowTracking::ftConfigFactory(name, domainOf(name));
    tracker->activeIntervalIs(static_cast<uint32_t>(activeSeconds * 1000));
    return tracker;
  }
  Ptr<HwFlowTracking::FtStatus> freshStatus(const std::string& name) {
    auto status = HwFlowTracking::ftStatusFactory(name);
    status->activeIntervalIs(Seconds(activeSeconds));
    status->inactiveTimeoutIs(Seconds(15));
    templateIs_p(*status, 256);
    return status;
  }
  void trackerIs(const std::string& name) {
    hwConfig->ftConfigIs(freshTracker(name));
    for (auto& e : exporters_)
      if (e.tracker == name) exporterIs(e);
  }
  /// The configuration or the status goes, and comes back: another one, the same, or later.
  void trackerChange() {
    const std::string name = pick(2) == 0 ? "ft1" : "ft2";
    const auto config = hwConfig->ftConfig(name);
    size_t what = pick(4);
    // Who is telling at this moment holds an endpoint: what waits in it leaves later on, and the
    // model could not tell it from the sessions that would begin anew.
    if (what == 2 && !meddles_) what = 1;
    if (what == 3 && config) {  // the sessions go on, the counters do not
      const bool meddles = std::exchange(meddles_, false);  // nobody adds one meanwhile
      for (auto& e : exporters_)
        while (e.tracker == name && !e.collectors.empty()) collectorDel(e);
      hwStatus->ftStatusDel(name);
      meddles_ = meddles;
      if (pick(2) == 0) hwStatus->ftStatusIs(freshStatus(name));
      return;
    }
    // Nobody answers with other sessions before the model has forgotten those that it will keep.
    const bool meddles = std::exchange(meddles_, meddles_ && what != 2);
    hwConfig->ftConfigDel(name);
    for (auto& e : exporters_) {
      if (e.tracker != name || attached(e)) continue;  // an answer has made it anew
      forget(e);
      if (what != 2 || !config) e.collectors.clear();
    }
    meddles_ = meddles;
    if (what == 1 && !hwConfig->ftConfig(name)) trackerIs(name);
    if (what == 2 && config) hwConfig->ftConfigIs(config);
  }
  void intervalChange() {
    if (const auto tracker = hwConfig->ftConfig(pick(2) == 0 ? "ft1" : "ft2"))
      tracker->activeIntervalIs(static_cast<uint32_t>(400 + pick(100000)));
  }

  void anyExporterDel() { exporterDel(anExporter()); }
  void exporterChange() {
    auto& e = anExporter();
    exporterDel(e);
    if (meddles_ && pick(2) == 0) later();  // no time passes inside a notification
    exporterIs(e);
  }
  void vrfChange() {
    if (pick(2) == 0) sim->namespaceIs("ns-red", pick(2) == 0);
    anExporter().config->vrfNameIs(VrfName(pick(2) == 0 ? "default" : "red"));
  }
  void refusal() { sim->openErrorIs(pick(2) == 0 ? 0 : EMFILE); }
  void meddle(size_t often) {
    if (!meddles_ || pick(often) != 0) return;
    meddles_ = false;
    ++answers_;
    using W = World;
    static constexpr void (*answers[])(W&) = {
        does<&W::anyExporterDel>, does<&W::exporterChange>,  does<&W::sourceChange>,
        does<&W::vrfChange>,      does<&W::anyCollectorDel>, does<&W::collectorIs>,
        does<&W::collectorMove>,  does<&W::trackerChange>,   does<&W::mtuIs>,
        does<&W::intfChange>,     does<&W::intfChange>,      does<&W::templateChange>,
        does<&W::intervalChange>, does<&W::paramChange>};
    answers[pick(std::size(answers))](*this);
    meddles_ = true;
  }
  void sourceChange() {
    auto& c = *anExporter().config;
    // Nobody answers while one endpoint takes another's place: what waits in the old one arrives
    // behind what the new one sends, from another port, which the model does not tell apart.
    const bool meddles = std::exchange(meddles_, false);
    if (pick(2) == 0) {
      c.srcIpAddrIs(c.srcIpAddr().isZero() || pick(3) == 0 ? IpAddr(source4.value() + ++last_)
                                                           : IpAddr());
    } else {
      Ip6Addr::Octets o = source6.octets();
      o[14] = static_cast<uint8_t>(++last_);
      c.srcIp6AddrIs(c.srcIp6Addr().isZero() || pick(3) == 0 ? Ip6Addr(o) : Ip6Addr());
    }
    meddles_ = meddles;
  }
  /// Not ready for a moment, in which something changes, and which nobody answers.
  void flap() {
    const bool meddles = std::exchange(meddles_, false);
    const auto config = anExporter().config;
    const IpAddr four = config->srcIpAddr();
    const Ip6Addr six = config->srcIp6Addr();
    intfsAre(1);
    soon();
    config->srcIpAddrIs({});
    config->srcIp6AddrIs({});
    intfsAre(1);
    sim->runRound();
    config->srcIpAddrIs(four);
    config->srcIp6AddrIs(six);
    meddles_ = meddles;
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
    const auto found = hwStatus->ftStatus(pick(2) == 0 ? "ft1" : "ft2");
    if (!found) return;
    auto& status = *found;
    const auto id = static_cast<TemplateId>(256 + pick(3));
    if (pick(3) == 0 && id != 256) {
      status.templateStatusDel(id);
    } else {
      templateIs_p(status, id);
    }
  }
  void paramChange() {
    const auto found = hwStatus->ftStatus(pick(2) == 0 ? "ft1" : "ft2");
    if (!found) return;
    auto& status = *found;
    const size_t what = pick(4);
    if (what == 0) status.activeIntervalIs(Seconds(static_cast<double>(1 + pick(1000))));
    if (what == 1) status.inactiveTimeoutIs(Seconds(static_cast<double>(1 + pick(1000))));
    if (what == 2) status.sampleRateIs(static_cast<uint32_t>(pick(3)));
    if (what == 3) hwStatus->sampleRateIs(static_cast<uint32_t>(1 + pick(5)));
  }

  const double activeSeconds;
  uint32_t last_ = 0;
  unsigned answers_ = 0;
  bool meddles_ = true;
  Ears ears_{[this](size_t often) { meddle(often); }};
};

TEST(OptionsDataWorldTest, EveryPictureIsTheTruth) {
  support::eachSeed(support::fromEnvironment("TARN_SEQUENCES", 300), [](unsigned seed) {
    World world(seed);
    support::eachStep(seed, 60, world.random(), [&] { world.step(); });
    if (!testing::Test::HasFailure()) world.fullTransmission();
  });
}

}  // namespace
}  // namespace FlowTracking
