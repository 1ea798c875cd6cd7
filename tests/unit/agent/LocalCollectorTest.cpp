// What devices send to the local collector, and what of it is passed on.
#include "agent/device/LocalCollector.h"

#include <bit>
#include <set>

#include "agent/records/FlowExport.h"
#include "tests/unit/agent/World.h"
#include "tests/unit/ipfix/Tree.h"

namespace agent {
namespace {
using FlowTracking::TemplateId;

std::string be(uint64_t v, size_t n) {
  std::string out;
  for (size_t i = n; i-- > 0;) out += static_cast<char>(v >> (8 * i));
  return out;
}
/// One field as a device describes it; `pen` 0: IANA's.
struct Field {
  uint16_t element;
  uint16_t len;
  uint32_t pen = 0;
};
constexpr uint16_t variable = 65535;

std::string templateRecord(TemplateId id, const std::vector<Field>& fields, int scopes = -1) {
  std::string out = be(id, 2) + be(fields.size(), 2);
  if (scopes >= 0) out += be(static_cast<uint64_t>(scopes), 2);
  for (const Field& f : fields) {
    out += be(f.element | (f.pen ? 0x8000u : 0u), 2) + be(f.len, 2);
    if (f.pen) out += be(f.pen, 4);
  }
  return out;
}
std::string set(uint16_t id, const std::string& content) {
  return be(id, 2) + be(content.size() + 4, 2) + content;
}
std::string message(const std::string& sets, uint32_t sequence = 0, uint32_t domain = 1) {
  return be(10, 2) + be(16 + sets.size(), 2) + be(1700000000, 4) + be(sequence, 4) + be(domain, 4) +
         sets;
}
std::string templates(TemplateId id, const std::vector<Field>& fields) {
  return set(2, templateRecord(id, fields));
}

/// A variable-length field's octets (RFC 7011, 7).
std::string counted(const std::string& octets, bool longForm = false) {
  const bool three = longForm || octets.size() >= 255;
  return (three ? '\xff' + be(octets.size(), 2) : be(octets.size(), 1)) + octets;
}

/// Takes what a local collector passes on.
class PassedTest : public FlowTracking::TreeTest {
 protected:
  void pass(RecordLens lens, std::string_view records) {
    ++calls;
    ASSERT_FALSE(lens.empty());
    for (size_t i = 0; !records.empty(); ++i) {
      const size_t len = lens.size() == 1 ? lens[0] : lens[i];
      ASSERT_TRUE(len > 0 && len <= records.size());
      passed.emplace_back(records.substr(0, len));
      records.remove_prefix(len);
    }
  }
  std::vector<std::string> passed;
  size_t calls = 0;
};

/// A decoder, every word of which is checked: an id is published once, the lowest that is free,
/// rests before it means anything else, and is withdrawn only after the collectors were told of it.
class DecoderTest : public PassedTest {
 protected:
  explicit DecoderTest(LocalCollectorDecoder::Limits limits = {})
      : decoder(init->elementIdCollection(),
                {.publish = [this](TemplateId id, const PassedLayout& l) { publish(id, l); },
                 .withdraw = [this](TemplateId id) { withdraw(id); },
                 .records =
                     [this](TemplateId id, RecordLens lens, std::string_view records) {
                       EXPECT_TRUE(published.contains(id)) << "records before their template";
                       pass(lens, records);
                     }},
                limits) {
    addIanaElements(*init->elementIdCollection());
    decoder.templates().holdIs(hold);
  }
  void publish(TemplateId id, const PassedLayout& layout) {
    TemplateId expected = 256;
    while (published.contains(expected) || resting.contains(expected)) ++expected;
    for (const auto& [rests, meant] : resting)
      if (meant.first == layout) expected = rests;
    EXPECT_EQ(id, expected);
    resting.erase(id);
    published[id] = layout;
    untold.insert(id);
  }
  void withdraw(TemplateId id) {
    EXPECT_FALSE(untold.contains(id)) << "records of it may wait behind it";
    resting[id] = {published.at(id), now};
    published.erase(id);
  }
  void hear(const std::string& datagram, uint16_t port = 1000, uint32_t from = 0x0a000005) {
    // In memory of its own, so that a read behind its end is seen.
    const std::vector<char> octets(datagram.begin(), datagram.end());
    decoder.decode({octets.data(), octets.size()}, IpAddr(from), port);
  }
  void settle() {
    untold.clear();
    decoder.templates().settle();
  }
  void advance(Seconds d) {
    now += d;
    decoder.templates().advance(d);
    std::erase_if(resting, [this](const auto& r) { return now - r.second.second >= hold; });
  }
  const LocalCollectorCounters& n() const { return decoder.counters(); }

  static constexpr Seconds hold{170};
  Seconds now{};
  std::map<TemplateId, PassedLayout> published;
  std::map<TemplateId, std::pair<PassedLayout, Seconds>> resting;  // what it meant, since when
  std::set<TemplateId> untold;                                     // of the published
  LocalCollectorDecoder decoder;
};

TEST_F(DecoderTest, WhatThereIsNoRoomForWaits) {
  hear(message(templates(300, {{1, 8}}) + templates(301, {{82, variable}}) +
               templates(302, {{6, 1}}) + templates(302, std::vector<Field>(257, {1, 8})) +
               set(302, "x")));
  EXPECT_EQ(n().templatesOverLimit, 1u);
  EXPECT_EQ(n().setsWithoutTemplate, 1u) << "what 302 was is no more";
  settle();
  decoder.templates().roomIs(15);
  hear(message(templates(303, {{1, 8}, {2, 8}})));
  EXPECT_EQ(n().templatesWithoutRoom + n().templatesTooLarge, 1u);
  EXPECT_TRUE(published.contains(256) && published.size() == 1) << "the last come off";
}

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

class CollectorTest : public PassedTest {
 protected:
  CollectorTest() {
    tracker->localPortIs(4739);
    exporter->srcIpAddrIs(here);
    tracker->expConfigIs(exporter);
    hwConfig->ftConfigIs(tracker);
    hwStatus->ftStatusIs(ftStatus);
    network->presentIs(true);
    networks->networkIs(network);
    follow();
    device->modeIs(UdpPam::inService);
  }
  void follow() {
    all->keepOnly(*hwConfig);
    all->follow(*hwConfig, *hwStatus, [this](const std::string& /*name*/) {
      return LocalCollectorSink{[this](TemplateId id, RecordLens lens, std::string_view octets) {
                                  EXPECT_TRUE(ftStatus->templateStatus(id));
                                  pass(lens, octets);
                                },
                                [this] {
                                  flushed = passed.size();
                                  EXPECT_EQ(tellings, 0)
                                      << "a template is withdrawn that nobody was told of";
                                },
                                [] {},
                                [this] { return tellings == 0 || --tellings == 0; },
                                [this] { return queued; },
                                [this] { return sent; }};
    });
  }
  void send(const std::string& datagram, IpAddr from = IpAddr(0x0a000063)) {
    device->txSrcIpAddrIs(from);
    device->txDstIpAddrIs(here);
    device->txPortIs(4739);
    auto pkt = sim->newPkt(static_cast<uint32_t>(datagram.size()));
    pkt->dataWholeIs();
    std::copy(datagram.begin(), datagram.end(), pkt->at(0, pkt->bytes()));
    device->txPktIs(pkt);
    sim->runDue();
  }
  const LocalCollectorCounters& n() const { return all->collector("ft1")->counters(); }

  static constexpr IpAddr here{0x0a000001};
  const std::string example =
      message(templates(300, {{8, 4}, {60, 1}, {1001, 2, 99991}}) + set(300, "aaaa-bb"));
  Heard heard;
  Ptr<NetworkList> networks = networkListFactory();
  Ptr<VrfNetwork> network = vrfNetworkFactory(VrfName(std::string(defaultVrf)));
  Ptr<UdpPam> device = sim->udpPam("device");
  Ptr<SharedTable> table =
      simTableFactory(sizeof(FlowTracking::FlowPathKey), sizeof(FlowTracking::FlowPathRecord), 8);
  std::unique_ptr<LocalCollectors> all = std::make_unique<LocalCollectors>(
      networks, init->elementIdCollection(), sim->scheduler(), heard.log, table);
  FlowExport::Counters sent;
  size_t flushed = 0;
  uint64_t queued = 0;
  int tellings = 0;  // rounds until the collectors have been told
};

TEST_F(CollectorTest, TemplatesComeAndGoWithTheirRecords) {
  send(example);
  EXPECT_EQ(passed, std::vector<std::string>{"aaaabb"});
  EXPECT_EQ(flushed, 0u) << "records gather";
  sim->advance(Seconds(0.1));
  EXPECT_EQ(flushed, 1u);
  send(message(set(300, "aaaa-bb") + templates(300, {{6, 1}})));
  EXPECT_EQ(flushed, 2u) << "records leave before their template is withdrawn";
  tellings = 3;
  send(message(templates(301, {{82, 9}}) + set(301, "interface") + templates(301, {{6, 1}})));
  EXPECT_EQ(flushed, 3u);
  EXPECT_EQ(ftStatus->templateStatus().size(), 1u);

  // What fits depends on the smallest exporter, whichever that is.
  const auto small = HwFlowTracking::exporterConfigFactory("a");
  const auto fit = [this] {
    send(message(templates(300, {{82, 300}}) + templates(301, {{82, 301}})));
    return ftStatus->templateStatus().size();
  };
  tracker->expConfigIs(small);
  for (const uint32_t mtu : {1500, 48 + 20 + 300, 1500, 48 + 20 + 300}) {
    small->ipfixMtuIs(mtu);
    EXPECT_EQ(fit(), mtu == 1500 ? 2u : 1u);
  }
  tracker->expConfigDel("a");
  EXPECT_EQ(fit(), 2u);

  // A tracker that goes takes its templates along; one that takes its place starts with none.
  const auto other = HwFlowTracking::ftConfigFactory("ft1", 8);
  other->localPortIs(4739);
  other->expConfigIs(exporter);
  hwConfig->ftConfigIs(other);
  follow();
  EXPECT_TRUE(ftStatus->templateStatus().empty());
  send(message(set(300, "aaaa-bb")));
  EXPECT_EQ(n().setsWithoutTemplate, 1u);
}

// Each record that is not passed on, or passed on and not sent, is in the shared table and told.
TEST_F(CollectorTest, WhatDoesNotLeaveIsCounted) {
  send(example);
  send(message(templates(301, {{60, 1}}) + set(301, "abcd") + set(999, "aaaa")));
  send("no message");
  // The device's endpoint stands for the tracker's exporter: its records would come round again.
  exporter->rxPort4Is(device->rxPort());
  send(message(set(300, "aaaa")), here);
  exporter->rxPort4Is(static_cast<uint16_t>(device->rxPort() + 1));
  send(message({}), here);  // a device at this address
  sent.recordsLost = 5;
  sim->advance(Seconds(1));
  const FlowTracking::FlowPathKey key("ft1");
  FlowTracking::FlowPathRecord r;
  ASSERT_TRUE(
      table->get(std::as_bytes(std::span(&key, 1)), std::as_writable_bytes(std::span(&r, 1))));
  EXPECT_EQ((std::array{r.recordsLost, r.deviceMessages, r.deviceRecords, r.deviceRecordsRefused,
                        r.deviceSetsUnknown, r.deviceDatagramsBad, r.deviceDatagramsLooped}),
            (std::array<uint64_t, 7>{5, 3, 5, 4, 1, 1, 1}));
  hwConfig->ftConfigDel("ft1");
  follow();
  EXPECT_TRUE(heard.has("1 datagrams of exporters of tracker ft1 that would come round for ever"));
  EXPECT_EQ(table->size(), 0u);
}

TEST_F(CollectorTest, ReadsNoFasterThanRecordsLeave) {
  // Sends so many, and returns how many were read in all a second later.
  const auto read = [this](int count, uint64_t waiting) {
    queued = waiting;
    for (int i = 0; i < count; ++i) send(example);
    sim->advance(Seconds(1));
    return n().messages;
  };
  constexpr uint64_t most = LocalCollector::queuedMax;
  EXPECT_EQ(read(2, most), 2u);
  EXPECT_EQ(read(6, most + 1), 3u) << "enough for now";
  EXPECT_EQ(read(0, most / 2 + 1), 3u);
  EXPECT_EQ(read(0, most / 2), 8u) << "what waited is read";
  // An endpoint that comes meanwhile does not hear earlier either.
  EXPECT_EQ(read(1, most + 1), 9u);
  exporter->srcIpAddrIs({});
  sim->advance(Seconds(1));
  exporter->srcIpAddrIs(here);
  sim->advance(Seconds(0.01));
  EXPECT_EQ(read(1, most + 1), 9u);
  EXPECT_EQ(read(0, 0), 10u);
}

TEST(LocalCollectorLoops, AreFoundHoweverLong) {
  Random pick;
  LocalCollectorLoops loops;
  std::map<uint32_t, std::set<uint32_t>> hears;  // directly or not
  for (int round = 0; round < 3000; ++round) {
    const uint32_t to = round < 6 ? round : pick(6);
    const std::string name = std::to_string(to);
    if (round < 6 || pick(50) == 0) {  // its exporter is there anew: all may be different now
      const auto config = HwFlowTracking::ftConfigFactory(name, to);
      const auto exporter = HwFlowTracking::exporterConfigFactory("main");
      exporter->srcIpAddrIs(IpAddr(1 + to));
      exporter->rxPort4Is(static_cast<uint16_t>(1 + to));
      config->expConfigIs(exporter);
      loops.exportersAre(name, *config);
      hears.clear();
      continue;
    }
    const uint32_t from = pick(6);
    const bool closes = from == to || hears[from].contains(to);
    if (!closes)
      for (uint32_t n = 0; n < 6; ++n)
        if (n == to || hears[n].contains(to)) {
          hears[n].insert(from);
          hears[n].insert(hears[from].begin(), hears[from].end());
        }
    const IpAddr address(1 + from);
    ASSERT_EQ(loops.closedBy(name, address, static_cast<uint16_t>(1 + from)),
              closes ? std::to_string(from) : "");
    ASSERT_EQ(loops.closedBy(name, address, 4739), "") << "a device there";
  }
}

}  // namespace
}  // namespace agent
