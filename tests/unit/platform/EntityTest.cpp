// The entity framework: what a handler may do, keyed changes, access by name.
#include "platform/Entity.h"

#include <gtest/gtest.h>

#include <deque>
#include <map>
#include <optional>
#include <random>
#include <set>

#include "platform/FlowTracking.h"
#include "platform/HwFlowTracking.h"
#include "platform/Reactor.h"
#include "platform/VrfStatus.h"
#include "platform/sim/SimPlatform.h"
#include "tests/support/Random.h"

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
  Thing() { alive.insert(this); }
  ~Thing() override {
    EXPECT_TRUE(retired()) << "its handlers are to answer no more";
    alive.erase(this);
  }

  uint32_t size() const { return size_; }
  void sizeIs(uint32_t v) { set(size_, v, &Watcher::handleSize); }
  const std::map<std::string, Ptr<Thing>>& item() const { return item_; }
  Ptr<Thing> item(const std::string& name) const { return find(item_, name); }
  void itemIs(const std::string& name, Ptr<Thing> v) {
    put(item_, name, std::move(v), &Watcher::handleItem);
  }
  bool itemDel(const std::string& name) { return del(item_, name, &Watcher::handleItem); }
  void itemDelAll() { delAll(item_, &Watcher::handleItem); }

  static inline std::set<const Thing*> alive;

 private:
  uint32_t size_ = 0;
  std::map<std::string, Ptr<Thing>> item_;
};

/// Two entities and their watchers under random changes, which each watcher may answer with others,
/// against the rules that platform/Entity.h gives.
class Rounds {
 public:
  explicit Rounds(unsigned seed) : random_(seed) {}
  void run() {
    for (int step = 0; step < 300 && !testing::Test::HasFailure(); ++step) {
      change();
      size_t reachable = 2 + reactors_.size();
      for (const Side& side : sides_) {
        check(side);
        reachable += side.items.size();
      }
      ASSERT_EQ(Thing::alive.size(), reachable);
    }
  }

 private:
  struct Spy final : Thing::Watcher {
    Spy(Ptr<const Thing> t, Rounds& r, int i)
        : Watcher(std::move(t), r.reactors_.back().get()),
          rounds(r),
          reactor(*r.reactors_.back()),
          id(i) {}
    void handleSize() override { rounds.heard(*this, {}); }
    void handleItem(const std::string& key) override { rounds.heard(*this, key); }
    Rounds& rounds;
    const Thing& reactor;
    const int id;
  };
  /// What an entity should hold.
  struct Side {
    Ptr<Thing> thing = make<Thing>();
    uint32_t size = 0;
    std::map<std::string, const Thing*> items = {};
  };
  /// A change under way: who has yet to hear of `key`, and which keys go next.
  struct Round {
    const Thing* thing;
    std::string key;
    const Thing* removed = nullptr;  // the member that leaves
    std::deque<int> left = {};
    std::deque<std::string> next = {};
  };

  size_t pick(size_t n) { return random_() % n; }
  std::deque<int> watching(const Thing* thing) const {
    std::deque<int> ids;
    for (const auto& [id, spy] : spies_)
      if (spy->entity() == thing) ids.push_back(id);
    return ids;
  }
  bool listens(int id) const {
    const auto spy = spies_.find(id);
    return spy != spies_.end() && !spy->second->reactor.retired();
  }
  static void check(const Side& side) {
    ASSERT_EQ(side.thing->size(), side.size);
    ASSERT_EQ(side.thing->item().size(), side.items.size());
    for (const auto& [key, item] : side.items) ASSERT_EQ(side.thing->item(key).get(), item);
  }
  /// The watcher whose turn it is in the innermost round; 0: all have heard.
  int turn() {
    Round& r = rounds_.back();
    for (;;) {
      while (!r.left.empty() && !listens(r.left.front())) r.left.pop_front();
      if (!r.left.empty()) return r.left.front();
      if (r.next.empty()) return 0;
      r.key = r.next.front();
      r.next.pop_front();
      for (Side& side : sides_)
        if (side.thing.get() == r.thing && side.items.erase(r.key) > 0) r.left = watching(r.thing);
    }
  }
  void heard(const Spy& spy, const std::string& key) {
    ASSERT_FALSE(rounds_.empty());
    ASSERT_EQ(turn(), spy.id);
    const size_t depth = rounds_.size();
    ASSERT_EQ(rounds_.back().key, key);
    rounds_.back().left.pop_front();
    for (const Side& side : sides_) check(side);
    passed_.reset();
    while (depth < 5 && pick(8) == 0) change();
    const Round& r = rounds_.at(depth - 1);
    EXPECT_TRUE(Thing::alive.contains(r.thing)) << "it lives until the round is over";
    EXPECT_TRUE(!r.removed || Thing::alive.contains(r.removed)) << "until all have heard";
  }
  template <class Does>
  void round(Round r, Does does) {
    rounds_.push_back(std::move(r));
    does();
    EXPECT_EQ(turn(), 0) << "one did not hear";
    rounds_.pop_back();
  }
  void change() {
    Side& side = sides_[pick(2)];
    Thing* const thing = side.thing.get();
    const std::string key = std::string(100, 'k') + std::to_string(pick(4));
    const auto old = side.items.find(key);
    Round r{thing, key, old == side.items.end() ? nullptr : old->second};
    switch (pick(10)) {
      case 9:  // those who belong to it hear no more
        reactors_.back()->retire();
        reactors_.push_back(make<Thing>());
        break;
      case 0:  // many, so that the list moves in memory while it is walked
        for (size_t n = pick(20); n > 0; --n, ++last_)
          spies_[last_] = std::make_unique<Spy>(side.thing, *this, last_);
        break;
      case 1:
      case 2:  // the one that is called among them
        std::erase_if(spies_, [this](const auto&) { return pick(4) == 0; });
        break;
      case 3:  // the last reference goes
        std::erase_if(spies_, [&](const auto& spy) { return spy.second->entity() == thing; });
        side = Side();
        break;
      case 4:
        r.key.clear();
        r.removed = nullptr;
        side.size += static_cast<uint32_t>(pick(2));
        if (side.size != thing->size()) r.left = watching(thing);
        round(r, [&, size = side.size] { thing->sizeIs(size); });
        break;
      case 5:
      case 6: {
        auto item = r.removed && pick(4) == 0 ? thing->item(key) : make<Thing>();
        if (item.get() == r.removed) {
          r.removed = nullptr;
        } else {
          r.left = watching(thing);
        }
        side.items[key] = item.get();
        passed_ = key;  // gone before the second hears of it
        round(r, [&] { thing->itemIs(*passed_, std::move(item)); });
        break;
      }
      case 7:
        if (r.removed) r.left = watching(thing);
        side.items.erase(key);
        round(r, [&] { thing->itemDel(r.removed ? thing->item().find(key)->first : key); });
        break;
      default:
        for (const auto& [k, item] : side.items) r.next.push_back(k);
        r.removed = nullptr;
        round(r, [&] { thing->itemDelAll(); });
    }
  }

  std::mt19937 random_;
  int last_ = 1;
  std::vector<Ptr<Thing>> reactors_{make<Thing>()};
  std::map<int, std::unique_ptr<Spy>> spies_;  // in the order of their making
  Side sides_[2];
  std::vector<Round> rounds_;
  std::optional<std::string> passed_;
};

TEST(Entity, AHandlerMayDoAnything) {
  support::eachSeed(60, [](unsigned seed) { Rounds(seed).run(); });
}

/// A reactor that makes a child of each value there is, where making and ending a child may change
/// the values, remove children, or end the reactor itself.
class Parent final : public Entity {
 public:
  struct Child final : Entity {
    Child(Parent& p, int k) : parent(p), key(k), value(p.values[k]) {
      ++parent.alive;
      if (parent.pick(2)) parent.children.beingMade(key, *this);
      parent.change();
    }
    ~Child() override { --parent.alive; }
    void handleRetired() override { parent.change(); }
    Parent& parent;
    const int key;
    const int value;
  };
  Parent(unsigned seed, const Ptr<TaskScheduler>& tasks)
      : random(seed), task(reactorTask(tasks, "parent", 0, *this, &Parent::run)) {
    task->scheduleIs(Seconds(0));
  }
  void run() {
    EXPECT_FALSE(retired());
    change();
    task->scheduleIs(Seconds(1));
  }
  int pick(unsigned n) { return static_cast<int>(random() % n); }
  void change() {
    if (depth == 4 || pick(3) == 0) return;
    ++depth;
    const int key = pick(3);
    switch (pick(6)) {
      case 0:
        children.del(key);
        break;
      case 1:
        if (pick(40) == 0) retire();
        break;
      case 2:
        values.erase(key);
        break;
      default:
        values[key] = pick(5);
    }
    const auto fits = [this](const Child& c) {
      return values.contains(c.key) && values[c.key] == c.value;
    };
    const auto again = [this](int) { change(); };
    children.reconcile(*this, key, fits, again, [this](int k) {
      return values.contains(k) ? make<Child>(*this, k) : Ptr<Child>();
    });
    --depth;
  }
  void handleRetired() override { children.delAll(); }

  std::mt19937 random;
  const std::unique_ptr<TimerTask> task;
  int depth = 0;
  size_t alive = 0;
  std::map<int, int> values;
  ChildMap<Child, int> children;
};

TEST(ChildMap, HasALiveChildOfEachValueWhateverMakingItDoes) {
  support::eachSeed(300, [](unsigned seed) {
    const auto sim = simPlatform();
    const auto parent = make<Parent>(seed, sim->scheduler());
    for (int step = 0; step < 40; ++step) {
      if (!parent->retired()) parent->change();
      sim->advance(Seconds(1));
      ASSERT_EQ(parent->alive, parent->children.all().size());
      for (const auto& [key, child] : parent->children.all()) ASSERT_FALSE(child->retired());
    }
    for (const auto& [key, value] : parent->values) {
      const auto child = parent->children.find(key);
      ASSERT_EQ(bool{child}, !parent->retired());
      ASSERT_TRUE(!child || child->value == value);
    }
    ASSERT_TRUE(!parent->retired() || parent->alive == 0);
  });
}

/// Every entity type that hosts and operators reach by name.
std::vector<Ptr<Entity>> allTypes() {
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
  std::vector<Ptr<Entity>> all{exporter, tracker, config, tmpl, ftStatus, status, local, vrfs};
  all.push_back(FlowTracking::configFactory());
  all.push_back(FlowTracking::configReqFactory());
  return all;
}

TEST(ByName, EveryAttributeReadsBackAndRefusesNonsense) {
  // What can be set takes at least one of these, and shows it as it was given.
  const char* const values[] = {"True",           "46",          "999",    "9000", "15.5",
                                "192.0.2.1",      "2001:db8::9", "'exp1'", "red",  "40000",
                                "8000 messages/s"};
  const std::vector<std::string> nonsense = {"",     "x",     "-1 ",   " 1",  "1 ",
                                             "0x10", "'open", "1e999", "nan", "inf"};
  const std::multimap<std::string_view, std::string> outOfRange = {
      {"ipfixMtu", "326"},        {"ipfixMtu", "65536"},     {"dscp", "64"},
      {"activeInterval", "-0.1"}, {"inactiveTimeout", "-1"}, {"inactiveTimeout", "65535"}};
  const std::vector<std::string> tooLong = {std::string(101, 'v')};  // all a name can do wrong
  for (const auto& e : allTypes()) {
    for (const AttrRow& r : e->attrRows()) {
      SCOPED_TRACE(r.name);
      if (r.each) {
        EXPECT_EQ(e->attrTextIs(r.name, "1"), AttrResult::unknownName);
        int members = 0;
        r.each(*e, [&](const std::string& key, const Entity* child, const std::string& text) {
          members += (child || !key.empty()) && (child != nullptr) == text.empty();
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
      EXPECT_EQ(e->attrTextIs(r.name, *text), AttrResult::ok) << "its own text";
      std::string is = *text;
      for (const char* value : values)
        if (e->attrTextIs(r.name, value) == AttrResult::ok && e->attrText(r.name) == value)
          is = value;
      EXPECT_NE(is, *text);
      std::vector<std::string> refused = r.name == "vrfName" ? tooLong : nonsense;
      const auto [from, behind] = outOfRange.equal_range(r.name);
      for (auto it = from; it != behind; ++it) refused.push_back(it->second);
      for (const std::string& bad : refused) {
        if (bad.empty() && (r.name == "srcIp" || r.name == "destIp")) continue;  // no address
        EXPECT_EQ(e->attrTextIs(r.name, bad), AttrResult::badText) << bad;
        EXPECT_EQ(e->attrText(r.name), is) << bad;
      }
    }
    EXPECT_EQ(e->attrTextIs("nosuch", "1"), AttrResult::unknownName);
    EXPECT_EQ(e->attrRun("nosuch"), AttrResult::unknownName);
  }
}

TEST(HwEntities, RefuseWhatNoMessageCanCarry) {
  using namespace HwFlowTracking;
  const std::string longName(nameMax + 1, 'n');
  const std::function<void()> bad[] = {[] { ftConfigFactory("t", 1)->activeIntervalIs(0); },
                                       [] { statusFactory()->sampleRateIs(0); },
                                       [] { templateStatusFactory(255); },
                                       [] { templateStatusFactory(65281); },
                                       [&] { exporterConfigFactory(longName); },
                                       [&] { ftConfigFactory(longName, 1); },
                                       [&] { ftStatusFactory(longName); }};
  for (const auto& f : bad) EXPECT_THROW(f(), std::range_error);
  EXPECT_EQ(ftStatusFactory(longName.substr(1))->name().size(), nameMax);
  FtTemplateEntry entry(3, 82);
  entry.fieldLenIs(65535);
  entry.flowKeyIs(true);
  EXPECT_EQ(FtTemplateEntry::fromString(entry.stringValue()), entry);
}

}  // namespace
