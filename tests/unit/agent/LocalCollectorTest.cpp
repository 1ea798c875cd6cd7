// What devices send to the local collector, and what of it is passed on.
#include "agent/LocalCollector.h"

#include <gtest/gtest.h>

#include "Ipfix/IpfixSm.h"
#include "agent/FlowExport.h"
#include "platform/sim/SimPlatform.h"
#include "tests/unit/agent/World.h"

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

/// Visits each record of what a local collector passes on.
void each(RecordLens lens, std::string_view records,
          const std::function<void(std::string_view)>& visit) {
  ASSERT_FALSE(lens.empty());
  for (size_t i = 0; !records.empty(); ++i) {
    const size_t len = lens.size() == 1 ? lens[0] : lens[i];
    ASSERT_GT(len, 0u);
    ASSERT_LE(len, records.size());
    visit(records.substr(0, len));
    records.remove_prefix(len);
  }
}

class DecoderTest : public testing::Test {
 protected:
  explicit DecoderTest(LocalCollectorDecoder::Limits limits = {})
      : decoder(registry(),
                {.publish =
                     [this](TemplateId id, const PassedLayout& layout) {
                       EXPECT_FALSE(published.contains(id)) << id << " is published already";
                       published[id] = layout;
                     },
                 .withdraw = [this](TemplateId id) { EXPECT_EQ(published.erase(id), 1u) << id; },
                 .records =
                     [this](TemplateId id, RecordLens lens, std::string_view records) {
                       EXPECT_TRUE(published.contains(id)) << "records before their template";
                       ++calls;
                       each(lens, records, [&](std::string_view r) { passed.emplace_back(id, r); });
                     }},
                limits) {}
  static Ptr<const Ipfix::ElementIdColl> registry() {
    static const auto all = [] {
      static const auto sim = simPlatform();
      Platform::install(sim.get());
      auto made = Ipfix::elementIdCollFactory();
      made->doInitialize();
      Platform::install(nullptr);
      return made;
    }();
    return all;
  }
  /// A device's datagram; streams are told apart by their port.
  void hear(const std::string& datagram, uint16_t port = 1000, uint32_t from = 0x0a000005) {
    // In memory of its own, so that a read behind its end is seen.
    const std::vector<char> octets(datagram.begin(), datagram.end());
    decoder.decode({octets.data(), octets.size()}, IpAddr(from), port);
    if (settles) settle();
  }
  void settle() {
    decoder.settleBegin();
    decoder.settle();
  }
  std::string text() const {
    std::string out;
    for (const auto& [id, layout] : published) {
      out += std::to_string(id) + ':';
      for (const PassedField& f : layout)
        out +=
            ' ' + std::to_string(f.element) + (f.enterprise ? "e/" : "/") + std::to_string(f.len);
      out += '\n';
    }
    return out;
  }
  using Passed = std::vector<std::pair<TemplateId, std::string>>;
  Passed take() { return std::exchange(passed, {}); }
  const LocalCollectorCounters& n() const { return decoder.counters(); }

  std::map<TemplateId, PassedLayout> published;
  Passed passed;
  size_t calls = 0;     // of `records`
  bool settles = true;  // each message's templates are told to the collectors before the next
  LocalCollectorDecoder decoder;
};

// What is unknown is left out at random below; here what is known, with a length that is no
// encoding: addresses and times have one length, numbers a largest one.
TEST_F(DecoderTest, LeavesOutLengthsThatTheElementCannotHave) {
  const std::vector<Field> fields = {{8, 3},           {27, 4}, {56, 5}, {152, 4},
                                     {1, 9},           {2, 0},  {82, 0}, {4, variable},
                                     {1024, 2, 99991}, {6, 1},  {82, 5}};
  hear(message(templates(302, fields) +
               set(302, std::string(25, '-') + counted("tcp") + "--" + "f" + "cable")));
  EXPECT_EQ(text(), "256: 6/1 82/5\n");
  EXPECT_EQ(n().fieldsOfBadLength, 9u);
  EXPECT_EQ(take(), (Passed{{256, "fcable"}}));
}

TEST_F(DecoderTest, RefusesWhatCannotBeDescribed) {
  hear(message(templates(300, {{60, 1}, {7, 2, 1}}) + set(300, "---") +
               templates(301, {{8, 4}, {28, 16}}) + set(301, std::string(40, '-')) +
               templates(302, {{82, 1433}}) + templates(303, {{82, 1432}}) +
               templates(304, {{82, variable}})));
  EXPECT_EQ(text(), "256: 82/1432\n257: 82/65535\n");
  EXPECT_EQ(n().templatesWithoutField + n().templatesMixed + n().templatesTooLarge, 3u);
  EXPECT_EQ(n().recordsOfRefused, 3u);
  hear(message(templates(304, std::vector<Field>(257, {1, 8})) + set(304, "\1a")));
  EXPECT_EQ(n().templatesOverLimit, 1u);
  EXPECT_EQ(n().setsWithoutTemplate, 1u) << "what 304 was is no more";
  hear(message(templates(304, {{82, variable}})));
  // More room: refused ones are taken at their next repetition. Less: the last come off.
  decoder.roomIs(2000);
  hear(message(templates(302, {{82, 1433}})));
  EXPECT_EQ(text(), "256: 82/1432\n257: 82/65535\n258: 82/1433\n");
  decoder.roomIs(16);
  hear(message(templates(305, {{1, 8}, {2, 8}})));
  EXPECT_EQ(text(), "257: 82/65535\n") << "8 octets of template are left, it has 12";
  EXPECT_EQ(n().templatesWithoutRoom, 1u);
}

TEST_F(DecoderTest, MalformedMessagesChangeNothing) {
  const std::string good =
      message(templates(300, {{8, 4}, {82, variable}}) + set(300, "aaaa" + counted("lo")));
  const size_t first = 16;               // the template set
  const size_t second = first + 4 + 12;  // the data set
  struct Row {
    const char* what;
    size_t at;
    std::string octets;
    uint64_t LocalCollectorCounters::*counter;
  };
  using C = LocalCollectorCounters;
  const Row rows[] = {
      {"version 9", 0, be(9, 2), &C::badVersion},
      {"shorter than the header says", 2, be(good.size() + 1, 2), &C::badLength},
      {"longer than the header says", 2, be(good.size() - 1, 2), &C::badLength},
      {"a set without header", first + 2, be(3, 2), &C::badSet},
      {"a set of no length", first + 2, be(0, 2), &C::badSet},
      {"a set beyond the message", second + 2, be(99, 2), &C::badSet},
      {"a set that leaves a rest", second + 2, be(9, 2), &C::badSet},
      {"set id 0", second, be(0, 2), &C::badSet},
      {"set id 4", second, be(4, 2), &C::badSet},
      {"set id 255", second, be(255, 2), &C::badSet},
      {"template id 255", first + 4, be(255, 2), &C::badTemplate},
      {"more fields than the set has", first + 6, be(3, 2), &C::badTemplate},
      {"very many fields", first + 6, be(65535, 2), &C::badTemplate},
      {"an enterprise bit without number", first + 12, be(0x8000 | 82, 2), &C::badTemplate},
      {"a field beyond its record", second + 8, be(3, 1), &C::badRecord},
      {"a long length of nothing", second + 8, be(255, 1), &C::badRecord},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    const uint64_t before = n().*row.counter;
    std::string bad = good;
    hear(bad.replace(row.at, row.octets.size(), row.octets));
    EXPECT_EQ(n().*row.counter, before + 1);
    EXPECT_EQ(decoder.templates(), row.counter == &C::badRecord ? 1u : 0u);
    EXPECT_EQ(decoder.streams(), decoder.templates());
  }
  for (size_t len = 0; len < good.size(); ++len) hear(good.substr(0, len));
  EXPECT_EQ(n().badVersion, 1u + 16u);
  EXPECT_EQ(n().badLength, 2u + good.size() - 16);
  // A template whose records had no length would go on for ever.
  const uint64_t before = n().badTemplate;
  hear(message(templates(301, {{1, 0}, {82, 0}}) + set(301, "aaaa")));
  EXPECT_EQ(n().badTemplate, before + 1);
  hear(message(set(3, templateRecord(302, {{1, 8}}, 0) + templateRecord(303, {{1, 8}}, 1))));
  hear(message(set(3, templateRecord(302, {{1, 8}}, 2))));
  EXPECT_EQ(n().badTemplate, before + 3) << "scopes";
  EXPECT_EQ(decoder.templates(), 1u);
  EXPECT_TRUE(passed.empty());
  // What is right in a message before a fault inside of a set counts.
  hear(message(templates(300, {{82, variable}}) + set(300, counted("a") + "\5b") +
               set(300, counted("c"))));
  EXPECT_EQ(take().size(), 2u);
  EXPECT_EQ(n().badRecord, 3u);
}

// A flood of the smallest records there are costs a few calls per datagram, not one per record.
TEST_F(DecoderTest, SmallRecordsArePassedOnTogether) {
  const std::string empty = counted("");
  const std::string x = counted("x");
  std::string equal, mixed, reduced;
  for (int i = 0; i < 10000; ++i) {
    equal += empty + empty;
    mixed += empty + x;
    reduced += '-' + empty + '-' + x;
  }
  const std::string tooLarge = counted(std::string(1500, 'l'));
  hear(message(templates(300, {{82, variable}}) + templates(301, {{60, 1}, {82, variable}})));
  struct Row {
    uint16_t id;
    std::string content;
    size_t records;
  };
  for (const Row& row : {Row{300, equal, 20000}, Row{300, mixed, 20000}, Row{301, reduced, 20000},
                         Row{300, equal + tooLarge + x, 20001}, Row{301, '-' + tooLarge, 0}}) {
    calls = 0;
    hear(message(set(row.id, row.content)));
    EXPECT_LE(calls, 2u);
    EXPECT_EQ(take().size(), row.records);
  }
  EXPECT_EQ(n().recordsTooLarge, 2u);
}

TEST_F(DecoderTest, EqualLayoutsShareAnIdAndAnIdRests) {
  decoder.holdIs(Seconds(180));
  const std::string one = templates(300, {{8, 4}, {60, 1}, {1, 8}});
  const std::string same = templates(777, {{8, 4}, {1, 8}});  // after the reduction
  hear(message(one), 1);
  hear(message(same), 2);
  hear(message(same, 0, 2), 2);  // another observation domain is another stream
  EXPECT_EQ(text(), "256: 8/4 1/8\n");
  EXPECT_EQ(decoder.streams(), 3u);
  hear(message(set(777, std::string(12, 'a'))), 1);
  EXPECT_EQ(n().setsWithoutTemplate, 1u) << "the other stream's template";
  EXPECT_TRUE(passed.empty());

  // One stream says something else under its id; the others go on.
  hear(message(templates(777, {{8, 4}, {1, 4}}) + set(777, "aaaabbbb")), 2);
  EXPECT_EQ(text(), "256: 8/4 1/8\n257: 8/4 1/4\n");
  EXPECT_EQ(take(), (Passed{{257, "aaaabbbb"}}));
  hear(message(templates(300, {{2, 8}})), 1);
  EXPECT_EQ(text(), "256: 8/4 1/8\n257: 8/4 1/4\n258: 2/8\n");
  hear(message(templates(777, {{4, 1}}), 0, 2), 2);
  EXPECT_EQ(text(), "257: 8/4 1/4\n258: 2/8\n259: 4/1\n");

  // 256 means its old layout or rests.
  decoder.advance(Seconds(179));
  hear(message(templates(301, {{6, 2}})), 1);
  EXPECT_EQ(published.at(260), (PassedLayout{{6, 2, false}}));
  hear(message(templates(302, {{8, 4}, {1, 8}})), 1);
  EXPECT_EQ(published.at(256), (PassedLayout{{8, 4, false}, {1, 8, false}}));
  hear(message(templates(302, {{5, 1}})), 1);
  decoder.advance(Seconds(180));
  hear(message(templates(303, {{7, 2}})), 1);
  EXPECT_EQ(published.at(256), (PassedLayout{{7, 2, false}})) << "free after its rest";

  // A repetition is no news; a withdrawal is nothing at all.
  const auto before = published;
  hear(message(templates(303, {{7, 2}}) + set(2, be(303, 2) + be(0, 2)) +
               set(2, be(2, 2) + be(0, 2)) + set(3, be(3, 2) + be(0, 2))),
       1);
  EXPECT_EQ(published, before);
  EXPECT_EQ(n().withdrawalsIgnored, 3u);
  EXPECT_EQ(n().badTemplate, 0u);
}

TEST_F(DecoderTest, NothingIsWithdrawnBeforeItWasTold) {
  settles = false;
  hear(message(templates(300, {{1, 8}}) + set(300, "12345678") + templates(300, {{2, 8}})));
  EXPECT_EQ(text(), "256: 1/8\n257: 2/8\n") << "a record of 256 is on its way";
  hear(message(templates(301, {{1, 8}}) + templates(302, {{4, 1}}) + templates(302, {{5, 1}})));
  decoder.settle();
  EXPECT_EQ(published.size(), 4u) << "published after the collectors were told";
  settle();
  EXPECT_EQ(text(), "256: 1/8\n257: 2/8\n259: 5/1\n") << "but not what is in use again";
  settle();
  hear(message(templates(300, {{6, 1}})));
  EXPECT_EQ(text(), "256: 1/8\n259: 5/1\n260: 6/1\n");
}

TEST_F(DecoderTest, TemplatesExpireUnlessTheyAreRepeated) {
  hear(message(templates(300, {{1, 8}}) + templates(301, {{2, 8}})), 1);
  hear(message(templates(300, {{1, 8}})), 2);
  for (int i = 0; i < 539; ++i) decoder.advance(Seconds(10));
  hear(message(templates(301, {{2, 8}})), 1);
  decoder.advance(Seconds(10));
  EXPECT_EQ(decoder.templates(), 3u) << "after three times 1800 s, not more";
  decoder.advance(Seconds(10));
  EXPECT_EQ(text(), "257: 2/8\n");
  EXPECT_EQ(decoder.streams(), 1u);
  EXPECT_EQ(n().templatesExpired, 2u);
  hear(message(set(300, "12345678")), 1);
  EXPECT_EQ(n().setsWithoutTemplate, 1u);
  decoder.advance(Seconds(6000));
  EXPECT_EQ(decoder.streams() + decoder.templates() + published.size(), 0u);
}

TEST_F(DecoderTest, SequenceNumbersTellWhatIsMissing) {
  struct Row {
    const char* what;
    uint32_t sequence;
    size_t records;
    const char* seen;  // gaps, records missing, steps back
  };
  const Row rows[] = {
      {"the first", 0xfffffffd, 2, "0 0 0"},
      {"the next", 0xffffffff, 2, "0 0 0"},
      {"over the wrap", 1, 2, "0 0 0"},
      {"a gap", 10, 2, "1 7 0"},
      {"late", 3, 2, "1 7 1"},
      {"goes on after a late one", 12, 2, "1 7 1"},
      {"from the start again", 0, 2, "1 7 2"},
      {"goes on", 2, 2, "1 7 2"},
      {"another gap", 7, 2, "2 10 2"},
      {"many records", 9, 100, "2 10 2"},
      {"after them", 109, 2, "2 10 2"},
      {"of an unknown template: nobody can say how many", 111, 0, "2 10 2"},
      {"so nothing is missed", 150, 2, "2 10 2"},
      {"goes on", 152, 2, "2 10 2"},
      {"a gap once more", 160, 2, "3 16 2"},
      {"a device that counts the message's own records in", 166, 6, "3 16 2"},
      {"and again", 170, 4, "3 16 2"},
      {"and again", 177, 7, "3 16 2"},
      {"a gap of such a device", 190, 7, "4 22 2"},
      {"nobody loses so many", 0x40000000, 2, "4 22 3"},
      {"goes on there", 0x40000002, 2, "4 22 3"},
  };
  hear(message(templates(300, {{1, 8}}), rows[0].sequence));
  for (const Row& row : rows) {
    const std::string data(row.records * 8, 'a');
    hear(message(row.records == 0 ? set(999, "aaaa") : set(300, data), row.sequence));
    EXPECT_EQ(std::to_string(n().sequenceGaps) + ' ' + std::to_string(n().recordsMissing) + ' ' +
                  std::to_string(n().sequenceBack),
              row.seen)
        << row.what << ' ' << row.sequence;
  }
  EXPECT_EQ(n().recordsPassed, n().recordsIn);
}

// Devices that send records all the time, and one hostile sender, who may forge addresses. The
// devices lose nothing, those that start anew or for the first time included.
class HostileTest : public DecoderTest, public testing::WithParamInterface<const char*> {
 protected:
  HostileTest() : DecoderTest(few) {}
  static constexpr LocalCollectorDecoder::Limits few{
      .templates = 256, .templatesPerSender = 64, .fields = 50, .layouts = 256};

  /// A layout of its own per device, and a counter in each record.
  struct Device {
    uint32_t address;
    uint16_t port;
    uint32_t sent = 0;
  };
  static std::vector<Field> layoutOf(const Device& d) {
    return {{1, 8}, {82, static_cast<uint16_t>(d.address & 0xff)}};
  }
  void start(const Device& d) { hear(message(templates(300, layoutOf(d))), d.port, d.address); }
  void sendRecords(Device& d) {
    std::string records;
    for (int i = 0; i < 10; ++i)
      records += be(uint64_t{d.address} << 32 | d.sent++, 8) + std::string(d.address & 0xff, '-');
    hear(message(set(300, records)), d.port, d.address);
  }
  /// The nth datagram of the flood.
  void attack(uint32_t n) {
    const std::string what = GetParam();
    const uint32_t mine = 0x0b000001;
    const uint32_t forged = 0x0c000000 + n;
    const auto i = static_cast<uint16_t>(n);
    const auto large = [&](uint16_t k) {  // with those of three devices, seven fill the room
      return templates(300,
                       std::vector<Field>(k == 6 ? 48 : 49, {236, static_cast<uint16_t>(1 + k)}));
    };
    const auto small = templates(300, {{4, 1}, {5, 1}});
    if (what == "domains") hear(message(small, 0, n), 1, mine);
    if (what == "ports") hear(message(small + set(300, "ab")), i, mine);
    if (what == "templateIds") hear(message(templates(256 + i % 60000, {{4, 1}})), 1, mine);
    if (what == "forgedSenders") hear(message(small), 1, forged);
    if (what == "forgedPorts")
      hear(message(small), static_cast<uint16_t>(9 + i), 0x0a000001 + n % 3);
    if (what == "largeTemplates") hear(message(large(i % 7)), i % 7, mine);
    if (what == "largeOfForged") hear(message(large(i % 7)), 1, 0x0c000000 + n % 7);
    if (what == "largeAndTried")
      hear(message(large(i % 7) + set(300, std::string(400, 'r'))), i % 7, mine);
    if (what == "smallOfForged")
      hear(message(templates(300, {{236, static_cast<uint16_t>(1 + n % 1400)}})), 1, forged);
    if (what == "redefines")
      hear(message(templates(300, {{236, static_cast<uint16_t>(1 + n % 1400)}})), 1, mine);
    if (what == "manyInOne" && n % 20 == 0) {
      std::string all;
      for (uint16_t k = 0; k < 3000; ++k)
        all += templateRecord(256 + k, {{236, static_cast<uint16_t>(1 + (n + k) % 1400)}});
      hear(message(set(2, all)), i, mine);
    }
  }
};

TEST_P(HostileTest, TheOthersLoseNothing) {
  std::vector<Device> devices = {{0x0a000001, 1}, {0x0a000002, 2}, {0x0a000003, 3}};
  for (Device& d : devices) {
    start(d);
    sendRecords(d);
  }
  for (uint32_t n = 0; n < 2000; ++n) {
    attack(n);
    if (n == 700) devices.push_back({0x0a000004, 4});  // one that was not there before
    if (n == 1000) devices[0].port = 7;                // and one that starts anew
    if (n == 700) start(devices[3]);
    if (n == 1000) start(devices[0]);
    if (n % 20 == 1)
      for (Device& d : devices) sendRecords(d);
    if (n % 200 == 0) decoder.advance(Seconds(10));
    ASSERT_LE(decoder.templates(), few.templates);
    ASSERT_LE(decoder.layouts(), few.layouts);
    ASSERT_LE(decoder.publishedLen(), decoder.room());
  }
  std::map<uint32_t, uint32_t> got;  // by device, the records in order
  for (const auto& [id, record] : passed) {
    uint64_t tag = 0;
    for (size_t i = 0; i < 8 && i < record.size(); ++i)
      tag = tag << 8 | static_cast<uint8_t>(record[i]);
    uint32_t& next = got[static_cast<uint32_t>(tag >> 32)];
    if (static_cast<uint32_t>(tag) == next) ++next;
  }
  for (const Device& d : devices) EXPECT_EQ(got[d.address], d.sent) << (d.address & 0xff);
  // What is left of the flood is forgotten in time.
  for (int i = 0; i < 600; ++i) {
    decoder.advance(Seconds(10));
    settle();
  }
  EXPECT_EQ(decoder.streams() + decoder.templates() + published.size() + decoder.layouts(), 0u);
  EXPECT_EQ(decoder.mostTemplates().templates + decoder.mostOctets().octets, 0u);
}
INSTANTIATE_TEST_SUITE_P(By, HostileTest,
                         testing::Values("domains", "ports", "templateIds", "forgedSenders",
                                         "forgedPorts", "largeTemplates", "largeOfForged",
                                         "largeAndTried", "smallOfForged", "redefines",
                                         "manyInOne"),
                         [](const auto& info) { return info.param; });

// Templates, records and repetitions at random, against an oracle that knows what each field is
// worth. (Octets changed at random are the fuzzer's.)
TEST_F(DecoderTest, RandomMessages) {
  Random pick;
  const struct {
    Field field;
    bool kept;
  } known[] = {{{8, 4}, true},
               {{1, 8}, true},
               {{1, 5}, true},
               {{6, 1}, true},
               {{82, variable}, true},
               {{82, 9}, true},
               {{1002, 1, 99991}, true},
               {{236, variable}, true},
               {{60, 1}, false},
               {{8, 2}, false},
               {{33000 & 0x7fff, 7}, false},
               {{371, variable}, false},
               {{1002, 1, 7}, false},
               {{152, 8}, true}};
  std::map<TemplateId, std::vector<size_t>> device;  // what each id is made of
  uint32_t sequence = 0;
  for (int round = 0; round < 3000; ++round) {
    std::string sets;
    std::vector<std::string> expected;
    uint32_t records = 0;
    for (size_t s = 1 + pick(3); s > 0; --s) {
      const auto id = static_cast<TemplateId>(256 + pick(6));
      std::vector<size_t>& made = device[id];
      const bool anew = made.empty() || pick(20) == 0;
      if (anew) {
        made.assign(1, 0);  // always one that is kept
        for (size_t f = pick(8); f > 0; --f) made.push_back(pick(std::size(known)));
        std::shuffle(made.begin(), made.end(), pick.engine());
      }
      if (anew || pick(4) == 0) {
        std::vector<Field> fields;
        for (const size_t f : made) fields.push_back(known[f].field);
        sets += templates(id, fields);
      }
      std::string content;
      for (size_t r = pick(5); r > 0; --r, ++records) {
        std::string kept;
        for (const size_t f : made) {
          const Field& field = known[f].field;
          std::string octets(field.len == variable ? pick(pick(10) == 0 ? 400 : 10) : field.len,
                             '\0');
          for (char& c : octets) c = static_cast<char>(pick(256));
          if (field.len == variable) octets = counted(octets, pick(3) == 0);
          content += octets;
          if (known[f].kept) kept += octets;
        }
        if (kept.size() <= 1432) expected.push_back(kept);
      }
      if (!content.empty()) sets += set(id, content);
    }
    const uint64_t before = n().recordsIn;
    hear(message(sets, sequence));
    sequence += records;
    const auto got = take();
    ASSERT_EQ(got.size(), expected.size()) << round;
    for (size_t i = 0; i < got.size(); ++i) ASSERT_EQ(got[i].second, expected[i]) << round;
    ASSERT_EQ(n().recordsIn - before, records);
    ASSERT_EQ(n().sequenceGaps + n().sequenceBack + n().badRecord + n().badTemplate, 0u) << round;
    if (round % 100 == 99) decoder.advance(Seconds(60));
  }
  EXPECT_GT(n().recordsPassed, 5000u);
}

// --- The whole, on virtual time ---

class CollectorTest : public testing::Test {
 protected:
  CollectorTest() {
    Platform::install(sim.get());
    init = Ipfix::ipfixInitSmFactory();
    tracker->localPortIs(4739);
    exporter->srcIpAddrIs(here);
    tracker->expConfigIs(exporter);
    config->ftConfigIs(tracker);
    status->ftStatusIs(ftStatus);
    network->presentIs(true);
    networks->networkIs(network);
    all = std::make_unique<LocalCollectors>(networks, init->elementIdCollection(), sim->scheduler(),
                                            heard.log, table);
    device->modeIs(UdpPam::inService);
  }
  ~CollectorTest() override {
    all = nullptr;
    device = nullptr;
    EXPECT_EQ(sim->openEndpoints(), 0u);
    init = nullptr;
    Platform::install(nullptr);
  }
  void follow() {
    all->keepOnly(*config);
    all->follow(*config, *status, [this](const std::string& name) {
      return LocalCollectorSink{
          [this, name](TemplateId id, RecordLens lens, std::string_view all) {
            EXPECT_TRUE(ftStatus->templateStatus(id));
            each(lens, all, [&](std::string_view r) {
              passed.push_back(name + ' ' + std::to_string(id) + ' ' + std::string(r));
            });
          },
          [this] { flushed = passed.size(); }, [] {}, [this] { return queued; },
          [this] { return sent; }};
    });
  }
  void send(const std::string& datagram, IpAddr to = here, uint16_t port = 4739,
            IpAddr from = IpAddr(0x0a000063)) {
    device->txSrcIpAddrIs(from);
    device->txDstIpAddrIs(to);
    device->txPortIs(port);
    auto pkt = sim->newPkt(static_cast<uint32_t>(datagram.size()));
    pkt->dataWholeIs();
    std::copy(datagram.begin(), datagram.end(), pkt->at(0, pkt->bytes()));
    device->txPktIs(pkt);
    sim->runDue();
  }
  const LocalCollectorCounters& n() const { return all->collector("edge")->counters(); }

  static constexpr IpAddr here{0x0a000001};
  const std::string example =
      message(templates(300, {{8, 4}, {60, 1}, {1001, 2, 99991}}) + set(300, "aaaa-bb"));
  std::unique_ptr<SimPlatform> sim = simPlatform();
  Heard heard;
  Ptr<Ipfix::IpfixInitSm> init;
  Ptr<HwFlowTracking::Config> config = HwFlowTracking::configFactory();
  Ptr<HwFlowTracking::Status> status = HwFlowTracking::statusFactory();
  Ptr<HwFlowTracking::FtConfig> tracker = HwFlowTracking::ftConfigFactory("edge", 7);
  Ptr<HwFlowTracking::ExporterConfig> exporter = HwFlowTracking::exporterConfigFactory("main");
  Ptr<HwFlowTracking::FtStatus> ftStatus = HwFlowTracking::ftStatusFactory("edge");
  Ptr<NetworkList> networks = networkListFactory();
  Ptr<VrfNetwork> network = vrfNetworkFactory(VrfName(std::string(defaultVrf)));
  Ptr<UdpPam> device = sim->udpPam("device");
  Ptr<SharedTable> table =
      simTableFactory(sizeof(FlowTracking::FlowPathKey), sizeof(FlowTracking::FlowPathRecord), 8);
  std::unique_ptr<LocalCollectors> all;
  FlowExport::Counters sent;
  std::vector<std::string> passed;
  size_t flushed = 0;
  uint64_t queued = 0;
};

TEST_F(CollectorTest, PublishesTemplatesAndPassesRecordsOn) {
  follow();
  EXPECT_TRUE(
      heard.has("tracker edge: devices send to 10.0.0.1:4739 (exporter main, VRF default)"));
  send(example);
  ASSERT_EQ(ftStatus->templateStatus().size(), 1u);
  const auto published = ftStatus->templateStatus(256);
  ASSERT_TRUE(published);
  EXPECT_EQ(published->genId(), 1u);
  std::string fields;
  for (const auto& [position, e] : published->ftTemplateEntry())
    fields += std::to_string(e.fieldId().value()) + (e.enterpriseIe() ? "e/" : "/") +
              std::to_string(e.fieldLen()) + ' ';
  EXPECT_EQ(fields, "8/4 1001e/2 ");
  EXPECT_EQ(passed, (std::vector<std::string>{"edge 256 aaaabb"}));
  EXPECT_EQ(flushed, 0u) << "records gather";
  sim->advance(Seconds(0.1));
  EXPECT_EQ(flushed, 1u);

  // A tracker that goes takes its templates along; one that takes its place starts with none.
  const auto other = HwFlowTracking::ftConfigFactory("edge", 8);
  other->localPortIs(4739);
  other->expConfigIs(exporter);
  config->ftConfigIs(other);
  follow();
  EXPECT_TRUE(ftStatus->templateStatus().empty());
  EXPECT_EQ(sim->openEndpoints(), 2u);
  send(message(set(300, "aaaa-bb")));
  EXPECT_EQ(n().setsWithoutTemplate, 1u);
  config->ftConfigDel("edge");
  follow();
  EXPECT_FALSE(all->collector("edge"));
  EXPECT_EQ(sim->openEndpoints(), 1u);
}

// The device's endpoint stands for the exporter of one tracker after the other.
TEST_F(CollectorTest, RecordsDoNotComeRoundAgain) {
  const std::string names[] = {"edge", "core", "rim"};
  const auto place = [](uint32_t n) { return IpAddr(0x0a000001 + n); };
  std::vector<Ptr<HwFlowTracking::FtConfig>> trackers = {tracker};
  std::vector<Ptr<HwFlowTracking::ExporterConfig>> exporters = {exporter};
  for (uint32_t n = 1; n < 3; ++n) {
    exporters.push_back(HwFlowTracking::exporterConfigFactory("main"));
    exporters[n]->srcIpAddrIs(place(n));
    trackers.push_back(HwFlowTracking::ftConfigFactory(names[n], 7 + n));
    trackers[n]->localPortIs(4739);
    trackers[n]->expConfigIs(exporters[n]);
    config->ftConfigIs(trackers[n]);
    status->ftStatusIs(HwFlowTracking::ftStatusFactory(names[n]));
  }
  follow();
  exporter->rxPort4Is(device->rxPort());
  const auto& core = *all->collector("core");
  send(message(set(300, "aaaa")), here, 4739, here);
  send(message(set(300, "aaaa")), place(1), 4739, here);
  EXPECT_EQ(n().messages, 0u) << "a collector was given the local collector's own address";
  EXPECT_EQ(all->collector("edge")->loopedDatagrams(), 1u);
  EXPECT_EQ(core.counters().messages, 1u) << "from one tracker to another is no loop";
  sim->advance(Seconds(10));
  EXPECT_TRUE(heard.has("1 datagrams of exporters of tracker edge that would come round for ever"));
  exporter->rxPort4Is(static_cast<uint16_t>(device->rxPort() + 1));
  exporters[1]->rxPort4Is(device->rxPort());
  send(message(set(300, "aaaa")), place(1), 4739, place(1));
  EXPECT_EQ(core.loopedDatagrams(), 1u);

  LocalCollectorLoops loops;
  for (uint32_t n = 0; n < 3; ++n) {
    exporters[n]->rxPort4Is(static_cast<uint16_t>(50000 + n));
    loops.exportersAre(names[n], *trackers[n]);
  }
  const auto closed = [&](uint32_t from, uint32_t to) {
    return loops.closedBy(names[to], place(from), static_cast<uint16_t>(50000 + from));
  };
  EXPECT_EQ(closed(0, 1) + closed(1, 2) + closed(0, 2), "") << "a chain is no loop";
  EXPECT_EQ(closed(2, 0), "rim") << "three of them are";
  EXPECT_EQ(closed(1, 0), "core") << "and two";
  EXPECT_EQ(closed(2, 2), "rim") << "and one";
  EXPECT_EQ(loops.closedBy("edge", place(2), 4739), "") << "a device at this address";
  exporters[1]->rxPort4Is(0);
  loops.exportersAre("core", *trackers[1]);
  EXPECT_EQ(closed(2, 0) + closed(1, 0), "") << "who sends to whom is another matter now";
}

// Each record that is not passed on, or passed on and not sent, is in the shared table and told.
TEST_F(CollectorTest, WhatDoesNotLeaveIsCounted) {
  follow();
  send(example);
  send(message(templates(301, {{60, 1}}) + set(301, "abcd")));
  send(message(set(999, "aaaa")));
  send("no message");
  sent.recordsLost = 5;
  sim->advance(Seconds(1));
  const FlowTracking::FlowPathKey key("edge");
  FlowTracking::FlowPathRecord record;
  ASSERT_TRUE(
      table->get(std::as_bytes(std::span(&key, 1)), std::as_writable_bytes(std::span(&record, 1))));
  std::string text;
  for (const auto& field : record.fields())
    if (const uint64_t v = record.*field.value)
      text += std::string(field.name) + ' ' + std::to_string(v) + '\n';
  EXPECT_EQ(text,
            "recordsLost 5\ndeviceMessages 3\ndeviceRecords 5\ndeviceRecordsRefused 4\n"
            "deviceSetsUnknown 1\ndeviceDatagramsBad 1\n");
  config->ftConfigDel("edge");
  follow();
  for (const char* what :
       {"at its end, from devices, not passed on: 1 datagrams that are not IPFIX",
        "4 records of refused templates", "5 records of exporters without a ready collector"})
    EXPECT_TRUE(heard.has(what)) << what;
  EXPECT_EQ(table->size(), 0u);
}

TEST_F(CollectorTest, ReadsNoFasterThanRecordsLeave) {
  follow();
  queued = LocalCollector::queuedMax;
  send(example);
  sim->advance(Seconds(1));
  send(example);
  EXPECT_EQ(n().messages, 2u);
  ++queued;
  send(example);  // enough for now
  EXPECT_EQ(n().messages, 3u);
  for (int i = 0; i < 5; ++i) send(example);
  sim->advance(Seconds(1));
  EXPECT_EQ(n().messages, 3u);
  queued = LocalCollector::queuedMax / 2;
  sim->advance(Seconds(0.01));
  EXPECT_EQ(n().messages, 8u) << "what waited is read";
  // An endpoint that comes meanwhile does not hear earlier either.
  queued = LocalCollector::queuedMax + 1;
  send(example);
  exporter->srcIpAddrIs({});
  sim->advance(Seconds(1));
  exporter->srcIpAddrIs(here);
  sim->advance(Seconds(0.01));
  send(example);
  EXPECT_EQ(n().messages, 9u);
  queued = 0;
  sim->advance(Seconds(0.01));
  EXPECT_EQ(n().messages, 10u);
}

TEST_F(CollectorTest, WhatFitsDependsOnTheSmallestExporter) {
  auto small = HwFlowTracking::exporterConfigFactory("small");
  small->ipfixMtuIs(48 + 20 + 300);
  tracker->expConfigIs(small);
  follow();
  const auto wide = message(templates(300, {{82, 300}}) + templates(301, {{82, 301}}));
  send(wide);
  EXPECT_EQ(ftStatus->templateStatus().size(), 1u);
  small->ipfixMtuIs(1500);
  send(wide);
  EXPECT_EQ(ftStatus->templateStatus().size(), 2u);
  small->ipfixMtuIs(48 + 20 + 300);
  EXPECT_EQ(ftStatus->templateStatus().size(), 1u);
  tracker->expConfigDel("small");
  send(wide);
  EXPECT_EQ(ftStatus->templateStatus().size(), 2u);
}

}  // namespace
}  // namespace agent
