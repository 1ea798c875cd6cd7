// Random and hostile devices.
#include <bit>
#include <set>

#include "tests/unit/agent/Devices.h"

namespace agent {
namespace {

/// Devices at random, and what must become of each field, template, record and sequence number.
/// (Octets changed at random are the fuzzer's.)
class RandomTest : public DecoderTest {
 protected:
  // The first 15 are passed on, 4 are unknown, the rest have a length that no encoding has.
  static constexpr std::array<Field, 29> known = {
      {{8, 4},           {28, 16},        {1, 8},           {1, 5},         {6, 1},
       {152, 8},         {82, 9},         {82, 1400},       {82, variable}, {236, variable},
       {1002, 1, 99991}, {60, 1},         {371, variable},  {130, 4},       {131, 16},
       {32000, 7},       {292, variable}, {1002, 1, 7},     {130, 4, 7},    {8, 3},
       {27, 4},          {56, 5},         {152, 4},         {1, 9},         {2, 0},
       {82, 0},          {4, variable},   {1024, 2, 99991}, {131, 15}}};
  static bool kept(size_t field) { return field < 15; }
  struct Template {
    std::vector<size_t> fields = {};  // of `known`; none: of options
    Seconds learnt = {};
    PassedLayout layout = {};
    bool mixed = false;     // addresses of both families
    bool fixed = true;      // no field of variable length
    uint32_t shortest = 0;  // record
    uint32_t len = 0;       // of what is passed on, without variable fields
    std::string address = {};
  };
  struct Device {
    uint32_t address;
    uint16_t port;
    uint32_t domain;
    std::map<TemplateId, Template> templates = {};
    bool counts = false;  // its next sequence number is known
    uint32_t last = 0;
    uint32_t next = 0;
  };

  void describe(Template& t, uint32_t address) {
    const size_t last = t.fields.empty() ? 0 : (t.fields.back() + 1 + pick(6)) % 7;  // another
    t = {};
    std::set<uint16_t> elements;
    for (size_t n = 1 + pick(8); n > 0; --n) {
      const size_t f = t.fields.emplace_back(n == 1 ? last : pick(known.size()));
      const Field& field = known[f];
      t.fixed = t.fixed && field.len != variable;
      t.shortest += field.len == variable ? 1 : field.len;
      if (!kept(f)) {
        ++(f < 19 ? expected.fieldsUnknown : expected.fieldsOfBadLength);
        continue;
      }
      t.layout.push_back({field.element, field.len, field.pen != 0});
      elements.insert(field.element);
      t.len += field.len == variable ? 0 : field.len;
    }
    if (addresses && !elements.contains(130) && !elements.contains(131)) {
      t.layout.push_back({130, 4, false});
      t.len += 4;
      t.address = be(address, 4);
    }
    t.mixed = elements.contains(8) && elements.contains(28);
    ++expected.templatesLearnt;
    if (refused(t)) ++(t.mixed ? expected.templatesMixed : expected.templatesTooLarge);
  }
  bool refused(const Template& t) const { return t.mixed || t.len > decoder.templates().room(); }
  /// A record; what of it is passed on is added to `passes`.
  std::string record(const Template& t, std::string& passes) {
    std::string made;
    for (const size_t f : t.fields) {
      const uint16_t len = known[f].len;
      std::string octets(len == variable ? pick(pick(10) == 0 ? 900 : 10) : len, '\0');
      for (char& c : octets) c = static_cast<char>(pick(256));
      if (len == variable) octets = counted(octets, pick(3) == 0);
      made += octets;
      if (kept(f)) passes += octets;
    }
    passes += t.address;
    return made;
  }
  void dataSet(const Template& t, TemplateId id) {
    std::string content;
    const uint32_t n = pick(5);
    for (uint32_t r = 0; r < n; ++r) {
      std::string passes;
      content += record(t, passes);
      if (refused(t)) {
        ++expected.recordsOfRefused;
      } else if (passes.size() > decoder.templates().room()) {
        ++expected.recordsTooLarge;
      } else {
        toPass.push_back(passes);
      }
    }
    if (pick(10) == 0) {  // the start of one more: padding, if it is short enough
      std::string passes;
      std::string start = record(t, passes);
      start.resize(pick(start.size()));
      if (n == 0 ? !start.empty() : !t.fixed && start.size() >= t.shortest) {
        ++expected.badRecord;
        countable = false;
      }
      content += start;
    }
    records += n;
    expected.recordsIn += n;
    sets += set(id, content);
  }
  void anySet(Device& d) {
    const auto id = static_cast<TemplateId>(300 + pick(5));
    const uint32_t what = pick(20);
    if (what == 0) {  // over UDP it means nothing
      sets += set(2, be(id, 2) + be(0, 2));
      ++expected.withdrawalsIgnored;
    } else if (what == 1) {
      if (!d.templates.contains(400)) ++expected.optionsTemplates;
      d.templates[400].learnt = now;
      const uint32_t n = pick(4);
      sets += set(3, templateRecord(400, {{149, 4}}, 1)) + set(400, std::string(4 * n, 'o'));
      records += n;
      options += n;
      expected.optionsRecords += n;
    } else if (what < 7) {
      Template& t = d.templates[id];
      if (t.fields.empty() || pick(5) == 0) describe(t, d.address);
      t.learnt = now;
      std::vector<Field> fields;
      for (const size_t f : t.fields) fields.push_back(known[f]);
      sets += templates(id, fields);
    } else if (d.templates.contains(id)) {
      dataSet(d.templates[id], id);
    } else {
      sets += set(id, "of an unknown template");
      ++expected.setsWithoutTemplate;
      countable = false;
    }
  }
  /// A set that is one, with a fault inside: what follows in the same set is lost, and no more.
  void malformedSet() {
    const std::string good = templateRecord(301, {{8, 4}});
    const std::string cut = templateRecord(300, {{8, 4}, {82, 4, 99991}});
    const std::string all[] = {set(2, templateRecord(255, {{8, 4}}) + good),
                               set(2, templateRecord(300, {{8, 0}, {82, 0}}) + good),
                               set(2, cut.substr(0, 4 + pick(12))),
                               set(3, templateRecord(300, {{8, 4}}, 0) + good),
                               set(3, templateRecord(300, {{8, 4}}, 2) + good)};
    ++expected.badTemplate;
    sets += all[pick(std::size(all))];
  }
  /// What is no message as a whole; it changes nothing.
  std::string malformed() {
    const uint32_t what = pick(5);
    const uint16_t id = what == 0 ? std::array{0, 1, 4, 255}[pick(4)] : 300;
    const uint16_t len = what == 1 ? std::array{0, 3, 5, 7, 99}[pick(5)] : 6;
    std::string whole = message(sets + be(id, 2) + be(len, 2) + "aa");
    if (what == 2) whole.resize(pick(whole.size()));
    if (what == 3) whole += 'x';
    if (what == 4) whole[1] = 9;
    const bool version = what == 4 || whole.size() < 16;
    ++(what < 2 ? expected.badSet : version ? expected.badVersion : expected.badLength);
    return whole;
  }
  /// The message's sequence number: mostly the right one, or one that counts its own records in.
  uint32_t sequence(Device& d) {
    const uint32_t own = d.last + records;
    const uint32_t million = 1 << 20;
    const uint32_t numbers[] = {d.next + 1,
                                d.next + million,
                                d.next + million + 1,
                                d.next - 1,
                                d.next - 4095,
                                d.next - 4096,
                                own - options,
                                own,
                                0};
    const uint32_t what = pick(30);
    uint32_t number = what < std::size(numbers) ? numbers[what] : d.next;
    if (!d.counts) number = 0u - pick(1000);
    if (d.templates.empty()) return number;  // the stream is unknown
    const bool right =
        number == d.next || (countable && (number == own || number == own - options));
    if (d.counts && !right) {
      const bool gap = number != 0 && number - d.next <= million;
      ++(gap ? expected.sequenceGaps : expected.sequenceBack);
      if (gap) expected.recordsMissing += number - d.next;
      // A late one says nothing of what comes next.
      if (!gap && number != 0 && d.next - number < 4096) return number;
    }
    d.counts = countable;
    d.last = number;
    d.next = number + records;
    return number;
  }
  void check() {
    using Numbers = std::array<uint64_t, sizeof(LocalCollectorCounters) / sizeof(uint64_t)>;
    expected.recordsPassed += toPass.size();
    ASSERT_EQ(std::bit_cast<Numbers>(n()), std::bit_cast<Numbers>(expected));
    ASSERT_EQ(std::exchange(passed, {}), std::exchange(toPass, {}));
    size_t templates = 0;
    std::set<PassedLayout> wanted;
    for (const Device& d : devices) {
      templates += d.templates.size();
      for (const auto& [id, t] : d.templates)
        if (!t.fields.empty() && !refused(t)) wanted.insert(t.layout);
    }
    ASSERT_EQ(decoder.templates().templates(), templates);
    std::set<PassedLayout> there;
    for (const auto& [id, layout] : published) ASSERT_TRUE(there.insert(layout).second);
    ASSERT_TRUE(std::includes(there.begin(), there.end(), wanted.begin(), wanted.end()));
    ASSERT_TRUE(there.size() == wanted.size() || !untold.empty());
  }

  bool addresses = false;
  Random pick;
  std::vector<Device> devices{{1, 1, 1}, {2, 1, 1}, {1, 2, 1}, {1, 1, 2}};
  LocalCollectorCounters expected;
  std::vector<std::string> toPass;
  // The message that is being made:
  std::string sets;
  uint32_t records = 0;
  uint32_t options = 0;   // of these
  bool countable = true;  // it is known how many records there are
};

TEST_F(RandomTest, EveryRecordTemplateAndNumberIsAccountedFor) {
  static constexpr double times[] = {1, 10, 169, 170, 400, 2000, 5400};
  for (int round = 0; round < 20000 && !HasFatalFailure(); ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    Device& d = devices[pick(devices.size())];
    sets.clear();
    records = options = 0;
    decoder.templates().exporterAddressIs(addresses = pick(2) == 0);
    countable = true;
    for (uint32_t n = pick(4); n > 0; --n) anySet(d);
    if (pick(20) == 0) malformedSet();
    if (pick(20) == 0) hear(malformed(), d.port, d.address);
    ++expected.messages;
    hear(message(sets, sequence(d), d.domain), d.port, d.address);
    if (pick(2) == 0) settle();
    // Refused templates are tried again when there is more room.
    if (pick(30) == 0) {
      decoder.templates().roomIs(700 + 700 * pick(2));
      advance(Seconds(0));
    }
    if (pick(10) == 0) advance(Seconds(times[pick(std::size(times))]));
    for (Device& other : devices) {
      expected.templatesExpired += std::erase_if(other.templates, [this](const auto& t) {
        return now - t.second.learnt > 3 * Seconds(1800);
      });
      other.counts = other.counts && !other.templates.empty();
    }
    check();
  }
  EXPECT_GT(n().recordsPassed, 10000u);
  EXPECT_LT(calls, n().recordsPassed * 2 / 3) << "records go on together";
}

// Devices that send records all the time, and one hostile sender, who may forge addresses. The
// devices lose nothing, those that start anew or for the first time included.
class HostileTest : public DecoderTest, public testing::WithParamInterface<int> {
 protected:
  HostileTest() : DecoderTest(few) {}
  static constexpr LocalCollectorDecoder::Limits few{
      .templates = 256, .templatesPerSender = 64, .fields = 50, .layouts = 256};

  using Device = std::pair<uint32_t, uint16_t>;  // address and port
  /// With a layout of its own per device.
  void start(const Device& d) {
    hear(message(templates(300, {{1, 8}, {82, uint16_t(d.first & 0xff)}})), d.second, d.first);
  }
  void sendRecords(const Device& d) {
    std::string records;
    for (int i = 0; i < 10; ++i)
      records += sent.emplace_back(be(sent.size(), 8) + std::string(d.first & 0xff, '-'));
    hear(message(set(300, records)), d.second, d.first);
  }
  /// The nth datagram of the flood.
  void attack(uint32_t n) {
    const int which = GetParam();
    // Of the last two contents come records or many templates: forged at will, these are like any
    // device's.
    const uint32_t from[] = {0x0b000001, 0x0c000000 + n % 7, 0x0c000000 + n, 0x0a000001 + n % 3};
    const int senders = which / 16 > 4 ? 2 : 4;
    const auto port = static_cast<uint16_t>(which / 4 % 2 ? 9 + n % 7 : 9 + n);
    // With those of three devices, seven fill the room.
    const std::vector<Field> large(n % 7 == 6 ? 48 : 49, {236, uint16_t(1 + n % 7)});
    const std::string small = templates(300, {{4, 1}, {5, 1}});
    std::string many;
    for (uint32_t i = 0; n % 20 == 0 && i < 3000; ++i)
      many += templateRecord(TemplateId(256 + i), {{236, uint16_t(1 + (n + i) % 1400)}});
    const std::string sets[] = {small,
                                small + set(300, "ab"),
                                templates(TemplateId(256 + n), {{4, 1}}),
                                templates(300, {{236, uint16_t(1 + n % 1400)}}),
                                templates(300, large),
                                templates(300, large) + set(300, std::string(400, 'r')),
                                set(2, many)};
    hear(message(sets[which / 16], 0, which / 8 % 2 ? n : 1), port, from[which % senders]);
  }
  std::vector<std::string> sent;
};

TEST_P(HostileTest, TheOthersLoseNothing) {
  std::vector<Device> devices = {{0x0a000001, 1}, {0x0a000002, 2}, {0x0a000003, 3}};
  for (const Device& d : devices) start(d);
  for (uint32_t n = 0; n < 2000; ++n) {
    attack(n);
    if (n == 700) start(devices.emplace_back(0x0a000004, 4));  // was not there before
    if (n == 1000) start(devices[0] = {0x0a000001, 7});        // starts anew
    settle();
    if (n % 20 == 1)
      for (const Device& d : devices) sendRecords(d);
    if (n % 200 == 0) advance(Seconds(10));
    ASSERT_LE(decoder.templates().mostTemplates().templates, few.templatesPerSender);
    ASSERT_LE(decoder.templates().templates(), few.templates);
    ASSERT_LE(decoder.templates().layouts(), few.layouts);
    ASSERT_LE(decoder.templates().publishedLen(), decoder.templates().room());
  }
  const std::set<std::string> all(passed.begin(), passed.end());
  for (const std::string& one : sent) ASSERT_TRUE(all.contains(one));
  // What is left of the flood is forgotten in time.
  for (int i = 0; i < 600; ++i) {
    advance(Seconds(10));
    settle();
  }
  const LocalCollectorTemplates& t = decoder.templates();
  EXPECT_EQ(t.streams() + t.templates() + published.size() + t.layouts(), 0u);
  EXPECT_EQ(t.mostTemplates().templates + t.mostOctets().octets, 0u);
}
// Four kinds of senders, two of ports, two of domains and seven of templates.
INSTANTIATE_TEST_SUITE_P(By, HostileTest, testing::Range(0, 4 * 2 * 2 * 7));

// --- The whole, on virtual time ---

}  // namespace
}  // namespace agent
