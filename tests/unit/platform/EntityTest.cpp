// The entity framework: what a handler may do, keyed changes, access by name.
#include "platform/Entity.h"

#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <random>

#include "platform/FlowTracking.h"
#include "platform/HwFlowTracking.h"
#include "platform/Vrf.h"
#include "platform/VrfStatus.h"

using namespace platform;

namespace {

class Thing final : public Entity {
 public:
  class Watcher : public EntityWatcher<Thing> {
   public:
    using EntityWatcher::EntityWatcher;
    virtual void handleSize() {}
    virtual void handleItem(const std::string&) {}
  };
  static Ptr<Thing> make() { return Ptr<Thing>::adopt(new Thing); }
  ~Thing() override { ++destroyed; }

  uint32_t size() const { return size_; }
  void sizeIs(uint32_t v) { set(size_, v, &Watcher::handleSize); }
  const std::map<std::string, Ptr<Thing>>& item() const { return item_; }
  Ptr<Thing> item(const std::string& name) const { return find(item_, name); }
  void itemIs(const std::string& name, Ptr<Thing> v) {
    put(item_, name, std::move(v), &Watcher::handleItem);
  }
  bool itemDel(const std::string& name) { return del(item_, name, &Watcher::handleItem); }
  void itemDelAll() { delAll(item_, &Watcher::handleItem); }

  static inline int destroyed = 0;

 private:
  uint32_t size_ = 0;
  std::map<std::string, Ptr<Thing>> item_;
};

/// Notes what it hears and then does something, once.
class Spy final : public Thing::Watcher {
 public:
  Spy(Ptr<const Thing> t, std::string name, std::string& log)
      : Watcher(std::move(t)), name_(std::move(name)), log_(log) {}
  void handleSize() override {
    log_ += name_ + std::to_string(entity()->size()) + ' ';
    if (auto act = std::exchange(act_, nullptr)) act();
  }
  void handleItem(const std::string& key) override {
    log_ += name_ + ':' + key + ' ';
    if (auto act = std::exchange(act_, nullptr)) act();
  }
  void actIs(std::function<void()> act) { act_ = std::move(act); }

 private:
  const std::string name_;
  std::string& log_;
  std::function<void()> act_;
};

class Handlers : public testing::Test {
 protected:
  static constexpr int n = 4;
  void SetUp() override { again(); }
  void TearDown() override {
    for (auto& s : spy) s = nullptr;
    thing = nullptr;
  }
  void again() {
    TearDown();
    thing = Thing::make();
    for (int i = 0; i < n; ++i) spy[i] = made(i);
    log.clear();
  }
  std::unique_ptr<Spy> made(int i) {
    return std::make_unique<Spy>(thing, std::string(1, static_cast<char>('a' + i)), log);
  }
  /// "a1 b1 c1 d1 " without those that `heard` says no of.
  static std::string round(
      int value, const std::function<bool(int)>& heard = [](int) { return true; }) {
    std::string out;
    for (int i = 0; i < n; ++i)
      if (heard(i)) out += std::string(1, static_cast<char>('a' + i)) + std::to_string(value) + ' ';
    return out;
  }
  Ptr<Thing> thing;
  std::unique_ptr<Spy> spy[n];
  std::string log;
};

TEST_F(Handlers, EachMayAdd) {
  for (int actor = 0; actor < n; ++actor) {
    again();
    std::vector<std::unique_ptr<Spy>> more;
    // Many, so that the list moves in memory while it is walked.
    spy[actor]->actIs([&] {
      for (int i = 0; i < 100; ++i) more.push_back(std::make_unique<Spy>(thing, "+", log));
    });
    thing->sizeIs(1);
    EXPECT_EQ(log, round(1)) << "a new one starts from the state that is";
    log.clear();
    thing->sizeIs(2);
    EXPECT_EQ(log.substr(0, 12), round(2));
    EXPECT_EQ(log.size(), 12u + 300u);
  }
}

TEST_F(Handlers, EachMayRetargetAny) {
  for (int actor = 0; actor < n; ++actor) {
    for (int victim = 0; victim < n; ++victim) {
      SCOPED_TRACE(std::to_string(actor) + " moves " + std::to_string(victim));
      again();
      auto other = Thing::make();
      spy[actor]->actIs([&] { spy[victim] = std::make_unique<Spy>(other, "z", log); });
      thing->sizeIs(1);
      EXPECT_EQ(log, round(1, [&](int i) { return i <= actor || i != victim; }));
      log.clear();
      other->sizeIs(5);
      EXPECT_EQ(log, "z5 ");
      spy[victim] = made(victim);  // back, as the last
      log.clear();
      thing->sizeIs(2);
      EXPECT_EQ(log, round(2, [&](int i) { return i != victim; }) +
                         std::string(1, static_cast<char>('a' + victim)) + "2 ");
    }
  }
}

TEST_F(Handlers, EachMayRemoveAnyInsideANestedRound) {
  for (int outer = 0; outer < n; ++outer) {
    for (int inner = 0; inner < n; ++inner) {
      for (int victim = 0; victim < n; ++victim) {
        if (inner == outer) continue;
        SCOPED_TRACE(std::to_string(outer) + ' ' + std::to_string(inner) + ' ' +
                     std::to_string(victim));
        again();
        bool nested = false;
        spy[outer]->actIs([&] {
          nested = true;
          if (spy[inner]) spy[inner]->actIs([&] { spy[victim] = nullptr; });
          thing->sizeIs(2);
        });
        thing->sizeIs(1);
        EXPECT_TRUE(nested);
        EXPECT_EQ(log, round(1, [&](int i) { return i <= outer; }) + round(2, [&](int i) {
                         return i <= inner || i != victim;
                       }) + round(2, [&](int i) { return i > outer && i != victim; }));
        log.clear();
        thing->sizeIs(3);
        EXPECT_EQ(log, round(3, [&](int i) { return i != victim; }));
      }
    }
  }
}

TEST_F(Handlers, AnyMayDropTheLastReference) {
  for (int actor = 0; actor < n; ++actor) {
    again();
    const int before = Thing::destroyed;
    spy[actor]->actIs([&] {
      for (auto& s : spy) s = nullptr;
      thing = nullptr;
      EXPECT_EQ(Thing::destroyed, before) << "it lives until the round is over";
    });
    thing->sizeIs(1);
    EXPECT_EQ(Thing::destroyed, before + 1);
    EXPECT_EQ(log, round(1, [&](int i) { return i <= actor; }));
  }
}

TEST_F(Handlers, ARemovedMemberLivesUntilAllHaveHeard) {
  thing->itemIs("x", Thing::make());
  for (const char* how : {"deleted", "replaced", "deleted with all"}) {
    log.clear();
    const Thing* raw = thing->item("x").get();
    const int before = Thing::destroyed;
    uint32_t seen = 99;
    spy[n - 1]->actIs([&] {
      EXPECT_EQ(Thing::destroyed, before);
      seen = raw->size();
    });
    const std::string h = how;
    if (h == "deleted") thing->itemDel("x");
    if (h == "replaced") thing->itemIs("x", Thing::make());
    if (h == "deleted with all") thing->itemDelAll();
    EXPECT_EQ(log, "a:x b:x c:x d:x ");
    EXPECT_EQ(seen, 0u);
    EXPECT_EQ(Thing::destroyed, before + 1);
    thing->itemIs("x", Thing::make());
  }
}

TEST_F(Handlers, TheKeyOutlivesWhatTheCallerPassed) {
  auto key = std::make_unique<std::string>(200, 'k');
  spy[0]->actIs([&] { key = nullptr; });
  thing->itemIs(*key, Thing::make());
  EXPECT_EQ(log, "a:" + std::string(200, 'k') + " b:" + std::string(200, 'k') +
                     " c:" + std::string(200, 'k') + " d:" + std::string(200, 'k') + " ");
  // Deleting by the key inside the entry itself.
  log.clear();
  thing->itemDel(thing->item().begin()->first);
  EXPECT_EQ(log.size(), 4 * 203u);
}

TEST_F(Handlers, DelAllTakesWhatWasThere) {
  for (const char* k : {"1", "2", "3"}) thing->itemIs(k, Thing::make());
  log.clear();
  spy[0]->actIs([&] {  // at "1"
    thing->itemDel("3");
    thing->itemIs("4", Thing::make());
  });
  thing->itemDelAll();
  EXPECT_EQ(thing->item().size(), 1u) << "one that a handler adds stays";
  EXPECT_TRUE(thing->item("4"));
  EXPECT_EQ(log, "a:1 a:3 b:3 c:3 d:3 a:4 b:4 c:4 d:4 b:1 c:1 d:1 a:2 b:2 c:2 d:2 ");
}

TEST(Entity, AgreesWithAMapUnderRandomChanges) {
  for (unsigned seed = 1; seed <= 10; ++seed) {
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    auto thing = Thing::make();
    std::map<std::string, const Thing*> oracle;
    std::vector<std::string> expected;  // what every watcher hears of its time
    struct Listener final : Thing::Watcher {
      Listener(Ptr<const Thing> t, size_t from) : Watcher(std::move(t)), first(from) {}
      void handleItem(const std::string& key) override { heard.push_back(key); }
      size_t first;
      std::vector<std::string> heard;
    };
    std::vector<std::unique_ptr<Listener>> listeners;
    for (int step = 0; step < 2000; ++step) {
      const std::string key = std::to_string(random() % 8);
      switch (random() % 6) {
        case 0:
        case 1: {
          auto v = random() % 4 && oracle.contains(key) ? thing->item(key) : Thing::make();
          if (oracle[key] != v.get()) expected.push_back(key);
          oracle[key] = v.get();
          thing->itemIs(key, v);
          break;
        }
        case 2:
          if (oracle.erase(key)) expected.push_back(key);
          thing->itemDel(key);
          break;
        case 3:
          if (random() % 20) break;
          for (const auto& [k, v] : oracle) expected.push_back(k);
          oracle.clear();
          thing->itemDelAll();
          break;
        case 4:
          listeners.push_back(std::make_unique<Listener>(thing, expected.size()));
          break;
        case 5:
          if (listeners.empty()) break;
          auto& gone = listeners[random() % listeners.size()];
          ASSERT_EQ(gone->heard,
                    std::vector<std::string>(expected.begin() + static_cast<long>(gone->first),
                                             expected.end()));
          std::swap(gone, listeners.back());
          listeners.pop_back();
          break;
      }
      ASSERT_EQ(thing->item().size(), oracle.size());
      for (const auto& [k, v] : oracle) ASSERT_EQ(thing->item(k).get(), v);
    }
  }
}

/// A reactor over a `Thing` that makes a child for each of its items. Whatever it does and hears,
/// the test may change anything meanwhile.
struct Sm;
struct Restless {
  Sm* owner(const Thing* thing) const {
    const auto it = owners.find(thing);
    return it == owners.end() ? nullptr : it->second;
  }
  void act() {
    if (depth < 4 && random() % 3 == 0) change();
  }
  void change();
  std::string key() { return std::to_string(random() % 3); }
  std::mt19937 random;
  int depth = 0;
  Ptr<Thing> thing = Thing::make();
  std::map<const Thing*, Sm*> owners;  // the reactor that was made for it last
  size_t live = 0;
};
struct Sm final : Entity {
  struct ThingSm final : NestedReactor<Thing, Sm> {
    using NestedReactor::NestedReactor;
    void handleSize() override {
      called([] {});
    }
    void handleItem(const std::string& key) override {
      called([&] { sm_.handleItem(key); });
    }
    template <class F>
    void called(F f) {
      EXPECT_FALSE(sm_.retired());
      sm_.host.act();
      if (!sm_.retired()) f();
    }
  };
  Sm(Ptr<Thing> t, Restless& h, ChildMap<Sm>* siblings = nullptr, std::string k = {})
      : host(h), thing(std::move(t)), key(std::move(k)), thingSm(thing, *this) {
    ++host.live;
    host.owners[thing.get()] = this;
    if (siblings) siblings->beingMade(key, *this);
    for (const auto& item : keysOf(thing->item())) handleItem(item);
    host.act();
  }
  void handleItem(const std::string& item) {
    children.reconcile(
        *this, item, [this](const Sm& c) { return !c.unfit && c.thing == thing->item(c.key); },
        [this](const std::string&) { host.act(); },
        [this](const std::string& k) -> Ptr<Sm> {
          host.act();
          const auto child = thing->item(k);
          if (!child || retired()) return {};
          return make<Sm>(child, host, &children, k);
        });
  }
  void handleRetired() override {
    host.act();
    children.delAll();
    host.act();
    if (host.owner(thing.get()) == this) host.owners.erase(thing.get());
    --host.live;
  }
  void check(size_t& seen) const {
    ++seen;
    ASSERT_FALSE(retired());
    ASSERT_EQ(host.owner(thing.get()), this);
    ASSERT_EQ(keysOf(children.all()), keysOf(thing->item()));
    for (const auto& [name, child] : children.all()) {
      ASSERT_EQ(child->thing, thing->item(name));
      ASSERT_NO_FATAL_FAILURE(child->check(seen));
    }
  }
  Restless& host;
  Ptr<Thing> thing;
  std::string key;
  bool unfit = false;
  ThingSm thingSm;
  ChildMap<Sm> children;
};
void Restless::change() {
  ++depth;
  Ptr<Thing> at = thing;
  while (random() % 2 && !at->item().empty()) at = at->item(keysOf(at->item())[0]);
  const std::string k = key();
  switch (random() % 5) {
    case 0: {  // a new one, or one that comes with items of its own
      auto fresh = Thing::make();
      if (random() % 2) fresh->itemIs(key(), Thing::make());
      at->itemIs(k, fresh);
      break;
    }
    case 1:
      at->itemDel(k);
      break;
    case 2:  // away and here again
      if (const auto same = at->item(k)) {
        at->itemDel(k);
        if (!at->item(k)) at->itemIs(k, same);
      }
      break;
    case 3:
      at->sizeIs(at->size() + 1);
      break;
    default:  // another reactor for the same
      if (const Ptr<Sm> sm(owner(at.get())); sm) {
        if (const auto child = sm->children.find(k)) child->unfit = true;
        sm->handleItem(k);
      }
  }
  --depth;
}
TEST(Reactors, AnyHandlerMayLetAnyOfThemGo) {
  for (unsigned seed = 1; seed <= 40; ++seed) {
    SCOPED_TRACE(seed);
    Restless host;
    host.random.seed(seed);
    auto root = make<Sm>(host.thing, host);
    for (int step = 0; step < 300 && !HasFailure(); ++step) {
      SCOPED_TRACE(step);
      host.change();
      size_t seen = 0;
      ASSERT_NO_FATAL_FAILURE(root->check(seen));
      ASSERT_EQ(host.live, seen) << "one is left that nobody wants";
    }
    root = nullptr;
    ASSERT_EQ(host.live, 0u);
  }
}

/// Every entity type that hosts and operators reach by name.
std::map<std::string, Ptr<Entity>> allTypes() {
  using namespace HwFlowTracking;
  auto exporter = exporterConfigFactory("exp1");
  exporter->collectorIpAndPortIs("c4", {*IpAddr::fromString("10.0.0.1"), 4739});
  exporter->collectorIp6AndPortIs("c6", {*Ip6Addr::fromString("2001:db8::1"), 4739});
  auto tracker = ftConfigFactory("ft1", 7);
  tracker->expConfigIs(exporter);
  auto config = configFactory();
  config->ftConfigIs(tracker);
  auto tmpl = templateStatusFactory(256);
  tmpl->ftTemplateEntryIs({0, 8});
  auto ftStatus = ftStatusFactory("ft1");
  ftStatus->templateStatusIs(tmpl);
  auto status = statusFactory();
  status->ftStatusIs(ftStatus);
  auto local = localCollectorConfigFactory();
  local->srcIpIs(IpAddr(1));
  local->destIpIs(IpAddr(1));
  auto vrfs = Ip::allVrfStatusLocalFactory();
  vrfs->vrfIs(VrfName("red"), 1);
  return {{"ExporterConfig", exporter},
          {"FtConfig", tracker},
          {"Config", config},
          {"TemplateStatus", tmpl},
          {"FtStatus", ftStatus},
          {"Status", status},
          {"LocalCollectorConfig", local},
          {"AllVrfStatusLocal", vrfs},
          {"FlowTracking::Config", FlowTracking::configFactory()},
          {"ConfigReq", FlowTracking::configReqFactory()}};
}

TEST(ByName, EveryAttributeReadsBackAndRefusesNonsense) {
  // Another value for each settable attribute, so that the setter is seen to work.
  const std::map<std::string, std::string> other = {{"vrfName", "red"},
                                                    {"dscp", "46"},
                                                    {"ipfixMtu", "9000"},
                                                    {"templateInterval", "999"},
                                                    {"srcIpAddr", "192.0.2.1"},
                                                    {"srcIp6Addr", "2001:db8::9"},
                                                    {"exporter4Ready", "True"},
                                                    {"exporter6Ready", "True"},
                                                    {"rxPort4", "40000"},
                                                    {"rxPort6", "40001"},
                                                    {"activeInterval", "60"},
                                                    {"genId", "3"},
                                                    {"inactiveTimeout", "15.5"},
                                                    {"sampleRate", "1000"},
                                                    {"clearCounters", "1"},
                                                    {"localPort", "4739"},
                                                    {"expName", "'exp1'"},
                                                    {"srcIp", "192.0.2.1"},
                                                    {"srcPort", "4739"},
                                                    {"destIp", "2001:db8::9"},
                                                    {"destPort", "4740"},
                                                    {"dscpValue", "46"},
                                                    {"exporterReady", "True"},
                                                    {"swExport", "True"},
                                                    {"rateLimit", "8000 messages/s"}};
  const std::vector<std::string> nonsense = {"",     "x",     "-1 ",   " 1",  "1 ",
                                             "0x10", "'open", "1e999", "nan", "inf"};
  const std::multimap<std::string, std::string> outOfRange = {
      {"ipfixMtu", "326"},        {"ipfixMtu", "65536"},     {"dscp", "64"},
      {"activeInterval", "-0.1"}, {"inactiveTimeout", "-1"}, {"inactiveTimeout", "65535"}};
  const std::vector<std::string> tooLong = {std::string(101, 'v')};  // all a name can do wrong
  size_t settable = 0;
  for (const auto& [type, e] : allTypes()) {
    EXPECT_FALSE(e->attrRows().empty()) << type;
    std::set<std::string_view> names;
    for (const AttrRow& r : e->attrRows()) {
      SCOPED_TRACE(type + '.' + std::string(r.name));
      EXPECT_TRUE(names.insert(r.name).second) << "twice";
      if (r.each) {
        EXPECT_EQ(e->attrText(r.name), std::nullopt);
        EXPECT_EQ(e->attrTextIs(r.name, "1"), AttrResult::unknownName);
        int members = 0;
        r.each(*e, [&](const std::string& key, const Entity* child, const std::string& text) {
          ++members;
          EXPECT_TRUE(child || !key.empty());
          EXPECT_NE(child == nullptr, text.empty());
        });
        EXPECT_EQ(members, 1);
        continue;
      }
      const auto text = e->attrText(r.name);
      ASSERT_TRUE(text);
      if (!r.set) {
        EXPECT_EQ(e->attrTextIs(r.name, *text), AttrResult::readOnly);
        continue;
      }
      ++settable;
      EXPECT_EQ(e->attrTextIs(r.name, *text), AttrResult::ok) << "its own text";
      EXPECT_EQ(e->attrText(r.name), text);
      ASSERT_TRUE(other.contains(std::string(r.name)));
      const std::string& to = other.at(std::string(r.name));
      EXPECT_EQ(e->attrTextIs(r.name, to), AttrResult::ok);
      EXPECT_EQ(e->attrText(r.name), to);
      EXPECT_NE(to, *text);
      for (const std::string& bad : r.name == "vrfName" ? tooLong : nonsense) {
        if (bad.empty() && (r.name == "srcIp" || r.name == "destIp")) continue;  // no address
        EXPECT_EQ(e->attrTextIs(r.name, bad), AttrResult::badText) << bad;
        EXPECT_EQ(e->attrText(r.name), to) << bad;
      }
      const auto [from, behind] = outOfRange.equal_range(std::string(r.name));
      for (auto it = from; it != behind; ++it)
        EXPECT_EQ(e->attrTextIs(r.name, it->second), AttrResult::badText) << it->second;
    }
    EXPECT_EQ(e->attrText("nosuch"), std::nullopt);
    EXPECT_EQ(e->attrTextIs("nosuch", "1"), AttrResult::unknownName);
    EXPECT_EQ(e->attrRun("nosuch"), AttrResult::unknownName);
  }
  EXPECT_EQ(settable, 28u) << "a new attribute wants a row in the table above";
}

TEST(HwEntities, RefuseWhatNoMessageCanCarry) {
  using namespace HwFlowTracking;
  const std::string longName(nameMax + 1, 'n');
  const auto status = ftStatusFactory(std::string(nameMax, 'n'));
  const std::pair<std::function<void()>, std::string> rows[] = {
      {[] { exporterConfigFactory("e")->ipfixMtuIs(40); },
       "ExporterConfig::ipfixMtu: 40 is not from 327 to 65535 octets"},
      {[] { ftConfigFactory("t", 1)->activeIntervalIs(0); }, "FtConfig::activeInterval: 0"},
      {[&] { status->activeIntervalIs(Seconds(std::nan(""))); }, "FtStatus::activeInterval: nan"},
      {[&] { status->inactiveTimeoutIs(Seconds(-1)); }, "FtStatus::inactiveTimeout: -1"},
      {[] { statusFactory()->sampleRateIs(0); }, "Status::sampleRate: 0"},
      {[] { templateStatusFactory(255); }, "TemplateStatus::templateId: 255"},
      {[] { templateStatusFactory(65281); }, "TemplateStatus::templateId: 65281"},
      {[&] { exporterConfigFactory(longName); }, "ExporterConfig::name: 'nnn"},
      {[&] { ftConfigFactory(longName, 1); }, "FtConfig::ftName: 'nnn"},
      {[&] { ftStatusFactory(longName); }, "FtStatus::name: 'nnn"}};
  for (const auto& [f, text] : rows) {
    try {
      f();
      ADD_FAILURE() << text;
    } catch (const std::range_error& e) {
      EXPECT_TRUE(std::string_view(e.what()).starts_with(text)) << e.what();
    }
  }
  FtTemplateEntry entry(3, 82);
  entry.fieldLenIs(65535);
  entry.flowKeyIs(true);
  const std::string text = entry.stringValue();
  EXPECT_EQ(FtTemplateEntry::fromString(text), entry);
  EXPECT_EQ(FtTemplateEntry::fromString(text.substr(1)), std::nullopt);
}

TEST(HwEntities, LookUpAndDeleteByKey) {
  using namespace HwFlowTracking;
  const auto exporter = exporterConfigFactory("e");
  exporter->collectorIpAndPortIs("c", {IpAddr(1), 4739});
  exporter->collectorIp6AndPortIs("c", {Ip6Addr(), 1});
  EXPECT_EQ(exporter->collectorIpAndPort("c"), (IpAndPort{IpAddr(1), 4739}));
  EXPECT_EQ(exporter->collectorIp6AndPort("d"), Ip6AndPort());
  exporter->collectorIpAndPortDelAll();
  exporter->collectorIp6AndPortDelAll();
  EXPECT_TRUE(exporter->collectorIpAndPort().empty() && exporter->collectorIp6AndPort().empty());
  const auto tracker = ftConfigFactory("t", 7);
  tracker->expConfigIs(exporter);
  tracker->expConfigDelAll();
  EXPECT_FALSE(tracker->expConfig("e"));
  const auto layout = templateStatusFactory(256);
  layout->ftTemplateEntryIs({3, 82});
  EXPECT_EQ(layout->ftTemplateEntry(3).fieldId(), 82u);
  EXPECT_EQ(layout->ftTemplateEntry(4), FtTemplateEntry());
  const auto status = ftStatusFactory("t");
  status->templateStatusIs(layout);
  status->templateStatusDelAll();
  EXPECT_FALSE(status->templateStatus(256));
  const auto ids = Vrf::VrfIdMap::statusFactory();
  ids->vrfIs(7, VrfName("red"));
  EXPECT_EQ(ids->vrf(7), VrfName("red"));
  ids->vrfDelAll();
  EXPECT_TRUE(ids->vrf(7).empty());
  const auto vrfs = Ip::allVrfStatusLocalFactory();
  vrfs->vrfIs(VrfName("red"), 3);
  EXPECT_EQ(vrfs->vrf(VrfName("red")), 3u);
  vrfs->vrfDelAll();
  EXPECT_EQ(vrfs->vrf(VrfName("red")), 0u);
}

}  // namespace
