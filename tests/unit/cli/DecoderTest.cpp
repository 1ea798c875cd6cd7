#include "cli/decoder/Decoder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <random>
#include <sstream>
#include <utility>

#include "fuzz/DecoderInput.h"
#include "tests/unit/cli/Octets.h"

namespace decoder {
namespace {

using Change = TemplateRecord::Change;
using State = SequenceCheck::State;

std::string errorOf(const Message& m) { return m.error ? m.error->stringValue() : ""; }
std::vector<std::string> warningsOf(const Message& m) {
  std::vector<std::string> out;
  for (const Fault& f : m.warnings) out.push_back(f.stringValue());
  return out;
}
std::vector<std::string> recordText(const Set& set, size_t i) {
  std::vector<std::string> out;
  for (const Value& v : set.record(i)) out.push_back(v.field->name() + " " + v.text());
  return out;
}
using Texts = std::vector<std::string>;

struct DecoderTest : testing::Test {
  Decoder decoder{testElement};
  Message decode(const Octets& o, std::string_view session = "a") {
    return decoder.decode(session, o);
  }
  const Stream& stream(const std::string& session = "a", uint32_t domain = 7) {
    return decoder.streams().at({session, domain});
  }
};

// What a rich message holds is looked at in PrinterTest.
TEST_F(DecoderTest, TheSecondTimeTemplatesAreRepetitions) {
  EXPECT_EQ(decode(rich).recordCount(), 4U);
  Octets next = rich;
  put32(next, 8, 9);  // 5, and the 4 records
  const Message again = decode(next);
  EXPECT_EQ(again.sequence.state, State::ok);
  for (const auto& r : again.sets[0].templates) EXPECT_EQ(r.change, Change::repeated);
  EXPECT_EQ(stream().dataRecords, 8U);
  EXPECT_EQ(stream().templateRecords, 6U);
}

// A right message with one 16-bit field overwritten, and what is said about it.
TEST(WrongMessage, IsRefusedWithPlaceFoundAndAllowed) {
  struct Wrong {
    const char* name;
    size_t at;
    uint16_t value;
    const char* error;  // begins so
  };
  const Wrong wrongs[] = {
      {"version", 0, 9, "at octet 0: version 9; IPFIX has 10"},
      {"longer", 2, 128, "at octet 2: message length 128; the datagram has 127 octets"},
      {"shorter", 2, 119, "at octet 2: message length 119; the datagram has 127 octets"},
      {"set id 0", 16, 0, "at octet 16: set id 0; allowed are 2, 3 and 256 to 65535"},
      {"set id 255", 72, 255, "at octet 72: set id 255; allowed are 2, 3 and 256 to 65535"},
      {"set length 3", 18, 3, "at octet 18: set length 3; allowed are 4 to 111, the octets left"},
      {"set too long", 121, 9, "at octet 121: set length 9; allowed are 4 to 8, the octets left"},
      {"behind the last set", 121, 7,
       "at octet 126: 1 octet behind the last set; a set header has"},
      {"template id", 20, 255, "at octet 20: template id 255; allowed are 256 to 65535"},
      {"template id of a set", 20, 2, "at octet 20: template id 2; allowed are 256 to 65535"},
      {"field count over", 22, 9,
       "at octet 22: field count 9 of template 256; the 28 octets left in the set hold at most 7"},
      {"fields cut", 22, 7,
       "at octet 52: field 7 of template 256 needs a specifier of 4 octets; none is left"},
      {"enterprise cut", 48, 0x8096,
       "at octet 52: field 1 of template 257 needs an enterprise number of 4 octets; none is left"},
      {"empty records", 50, 0,
       "at octet 44: template 257 has records of 0 octets, which cannot be"},
      {"options header cut", 54, 8,
       "at octet 56: an options template's header has 6 octets; 4 are left in the set"},
      {"options header cut later", 54, 9,
       "at octet 56: an options template's header has 6 octets; 5 are left in the set"},
      {"no scope", 60, 0, "at octet 60: scope field count 0 of template 65281; allowed are 1 to 2"},
      {"scope over", 60, 3,
       "at octet 60: scope field count 3 of template 65281; allowed are 1 to 2"},
      {"name over", 84, 0x1565, "at octet 85: interfaceName has 21 octets; 20 are left in the set"},
      {"name eats next", 84, 0x1365,
       "at octet 104: flowTrackingType has 2 octets; 1 is left in the"},
      {"long name over", 84, 0xff65, "at octet 87: interfaceName has 25972 octets; 18 are left in"},
      {"long length cut", 107, 10,
       "at octet 114: interfaceName announces a length of 2 octets; 1 is left in the set"}};
  for (const Wrong& w : wrongs) {
    SCOPED_TRACE(w.name);
    Octets o = rich;
    put16(o, w.at, w.value);
    Decoder decoder(testElement);
    const std::string error = errorOf(decoder.decode("a", o));
    EXPECT_TRUE(error.starts_with(w.error)) << error;
    for (const auto& [key, stream] : decoder.streams()) {
      EXPECT_TRUE(stream.templates.empty()) << "learnt from a malformed message";
      EXPECT_EQ(stream.dataRecords, 0U);
      EXPECT_EQ(stream.malformed, 1U);
    }
  }
}

TEST_F(DecoderTest, ACutMessageIsAlwaysAnErrorAndNeverReadBeyondItsEnd) {
  const std::vector<size_t> whole = {16, 52, 72, 105, 119, 127};  // between two sets
  for (size_t n = 0; n < rich.size(); ++n) {
    // On the heap and of exactly this size: the sanitizer sees a read behind it.
    const Octets cut(rich.begin(), rich.begin() + static_cast<ptrdiff_t>(n));
    EXPECT_TRUE(decode(cut).error) << n;
    if (n < 16) continue;
    Octets patched = cut;
    put16(patched, 2, n);
    const Message m = decode(patched, "patched");
    EXPECT_EQ(!m.error, std::ranges::find(whole, n) != whole.end()) << n << ": " << errorOf(m);
    if (m.error) {
      EXPECT_LE(m.error->offset, n);
    }
  }
  EXPECT_EQ(errorOf(decode(Octets(15))),
            "at octet 0: a message of 15 octets; its header alone has 16");
}

TEST_F(DecoderTest, WarnsOfFaultsThatDoNotKeepItFromReading) {
  decode(message(0, "0002 000c 0103 0001 0052 ffff"));
  const char* const odd = "0002 001c 0102 0004 83e9 0002 00018697 0008 0010 001b ffff 0001 0009";
  const std::pair<const char*, Texts> cases[] = {
      {"0002 000e 0100 0001 0096 0004 0001",
       {"at octet 28: 2 octets left in set 2 after its last record: too short for another, and no "
        "padding, which is zero"}},
      {"0100 0004", {"at octet 16: set 256 is empty"}},
      {"", {"at octet 0: a message without a set"}},
      // Lengths that the types cannot have: said when the template is new, not when it is repeated.
      {odd,
       {"at octet 34: field 2 of template 258, sourceIPv4Address, has length 16; ipv4Address has 4",
        "at octet 38: field 3 of template 258, sourceIPv6Address, has variable length; ipv6Address "
        "has 16",
        "at octet 42: field 4 of template 258, octetDeltaCount, has length 9; unsigned64 has 1 to "
        "8"}},
      {odd, {}},
      {"0103 0007 02 c328", {"at octet 21: interfaceName is not valid UTF-8: \"\\xc3(\""}}};
  for (const auto& [sets, warnings] : cases)
    EXPECT_EQ(warningsOf(decode(message(0, sets))), warnings) << sets;
  std::string empties;
  for (int i = 0; i < 1000; ++i) empties += "0100 0004";
  EXPECT_EQ(decode(message(0, empties)).warnings.size(), 64U) << "their number is bounded";
}

TEST_F(DecoderTest, VariableLengthsAtTheirBounds) {
  decode(message(0, "0002 000c 0103 0001 0052 ffff"));
  for (const size_t n : {0, 1, 254, 255, 256, 65500}) {
    for (const bool longForm : {false, true}) {
      if (!longForm && n > 254) continue;
      Octets o = message(0, longForm ? "0103 0000 ff 0000" : "0103 0000 00");
      longForm ? put16(o, 21, n) : void(o[20] = static_cast<uint8_t>(n));
      o.insert(o.end(), n, 'x');
      put16(o, 18, o.size() - 16);
      put16(o, 2, o.size());
      const Message m = decode(o);
      ASSERT_EQ(errorOf(m), "") << n;
      ASSERT_EQ(m.sets[0].recordCount(), 1U) << n;
      EXPECT_EQ(m.sets[0].values[0].stringValue(), std::string(n, 'x'));
    }
  }
}

TEST_F(DecoderTest, TemplatesAreRedefinedWithdrawnAndKeptPerStream) {
  const auto change = [&](const Message& m) { return m.sets.at(0).templates.at(0).change; };
  EXPECT_EQ(change(decode(message(0, "0002 000c 0100 0001 0001 0008"))), Change::added);
  EXPECT_EQ(change(decode(message(0, "0002 000c 0100 0001 0001 0004"))), Change::redefined);
  // The later definition counts, within one message too: the first data set has
  // records of 4 octets, the second of 8.
  const Message m = decode(message(
      0, "0100 000c 00000001 00000002 0002 000c 0100 0001 0002 0008 0100 000c 00000000 00000003"));
  EXPECT_EQ(m.sets[0].recordCount(), 2U);
  EXPECT_EQ(recordText(m.sets[2], 0), Texts{"packetDeltaCount 3"});
  // The same id as an options template replaces it as well.
  EXPECT_EQ(change(decode(message(3, "0003 0012 0100 0002 0001 0095 0004 012c ffff"))),
            Change::redefined);
  EXPECT_EQ(stream().templates.size(), 1U);

  // Another session and another domain know nothing of it.
  const Octets data = message(3, "0100 0009 00000007 00");
  EXPECT_FALSE(decode(data, "b").sets[0].known());
  Octets otherDomain = data;
  put32(otherDomain, 12, 8);
  EXPECT_FALSE(decode(otherDomain).sets[0].known());
  EXPECT_TRUE(decode(data).sets[0].known());

  // Withdrawn: one, then all of a kind.
  const Message gone = decode(message(4, "0003 0008 0100 0000"));
  EXPECT_EQ(change(gone), Change::withdrawn);
  EXPECT_EQ(
      warningsOf(gone),
      Texts{"at octet 20: template 256 withdrawn, which is not allowed over UDP (RFC 7011, 8.4)"});
  EXPECT_FALSE(decode(message(4, "0100 0009 00000007 00")).sets[0].known());
  decode(message(4, "0002 000c 0100 0001 0001 0008 0002 000c 0101 0001 0001 0008"));
  decode(message(4, "0003 0012 0102 0002 0001 0095 0004 012c ffff"));
  // All plain templates go, one comes back behind that in the same message.
  const Message all =
      decode(message(4, "0002 0008 0002 0000 0101 0004 0002 000c 0100 0001 0001 0004"));
  EXPECT_EQ(change(all), Change::withdrawnAll);
  EXPECT_FALSE(all.sets[1].known());
  EXPECT_EQ(all.sets[2].templates[0].change, Change::added);
  std::vector<int> left;
  for (const auto& [id, t] : stream().templates) left.push_back(id);
  EXPECT_EQ(left, (std::vector<int>{256, 258}));
}

// Messages of one stream, each "sequence number, what is in it, what is said
// [by how many]": a template, one or three data records, an option's record, a
// set that is unknown or malformed.
struct SequenceCase {
  const char* name;
  const char* heard;
  uint64_t errors;
  uint64_t missing;
};
TEST(Sequence, IsCheckedAgainstTheRecordsBefore) {
  const std::map<std::string, const char*> sets = {
      {"template", "0002 000c 0101 0001 0096 0004"},
      {"one", "0101 0008 00000001"},
      {"three", "0101 0010 00000001 00000002 00000003"},
      {"option", "0102 0009 00000001 00"},
      {"unknown", "0109 0008 00000001"},
      {"malformed", "0101 0003"}};
  const SequenceCase cases[] = {
      {"data and options count, templates do not",
       "100 template first 0, 100 three ok 0, 103 template ok 0, 103 option ok 0, 104 one ok 0, "
       "105 template ok 0,",
       0, 0},
      {"wraps", "4294967294 three first 0, 1 one ok 0, 2 template ok 0,", 0, 0},
      {"gap over the wrap",
       "4294967294 one first 0, 2 one missing 3, 4294967295 three late 4, 3 one ok 0,", 1, 0},
      {"numbered after the records", "1 one first 0, 4 three missing 2, 8 one missing 1,", 2, 3},
      {"template counted", "0 template first 0, 1 one missing 1,", 1, 1},
      {"sent twice", "0 three first 0, 0 three back 3, 3 one ok 0,", 1, 0},
      {"restart", "5000 three first 0, 0 template back 5003, 0 one ok 0,", 1, 0},
      {"part of a gap arrives late",
       "0 one first 0, 10 one missing 9, 4 three late 7, 4 three back 7, 7 one ok 0,", 2, 6},
      {"more than the gap holds is not late", "0 one first 0, 3 one missing 2, 1 three back 3,", 2,
       2},
      {"gaps end with a restart",
       "0 one first 0, 10 one missing 9, 0 three back 11, 3 one ok 0, 3 one back 1,", 3, 9},
      {"unknown template", "0 one first 0, 1 unknown ok 0, 50 one unchecked 0, 51 one ok 0,", 0, 0},
      {"malformed", "0 one first 0, 1 malformed ok 0, 2 one unchecked 0, 4 one missing 1,", 1, 1}};
  for (const SequenceCase& c : cases) {
    SCOPED_TRACE(c.name);
    Decoder decoder(testElement);
    std::string learns =
        "0002 000c 0101 0001 0096 0004 0003 0012 0102 0002 0001 000a 0004 0052 ffff";
    std::istringstream heard(c.heard);
    uint32_t sequence = 0, distance = 0;
    char comma = 0;
    for (std::string what, state; heard >> sequence >> what >> state >> distance >> comma;) {
      const Message m =
          decoder.decode("a", message(sequence, std::exchange(learns, "") + sets.at(what)));
      EXPECT_EQ(sequenceStateName(m.sequence.state), state) << sequence;
      EXPECT_EQ(m.sequence.distance, distance) << sequence;
    }
    const Stream& s = decoder.streams().at({"a", 7});
    EXPECT_EQ(s.sequenceErrors, c.errors);
    EXPECT_EQ(s.lastErrors.size(), c.errors);
    EXPECT_EQ(s.missing, c.missing);
  }
}

TEST_F(DecoderTest, MemoryIsBounded) {
  Limits limits;
  limits.streams = 3;
  limits.costPerStream = 12;
  limits.cost = 18;
  limits.valuesPerMessage = 10;
  Decoder small(testElement, limits);
  const char* const one = "0002 000c 0100 0001 0001 0004";    // costs 5
  const char* const two = "0002 000c 0101 0001 0001 0004";    // 5
  const char* const three = "0002 000c 0102 0001 0001 0004";  // 5: over the stream's 12
  small.decode("a", message(0, one));
  small.decode("a", message(0, two));
  const Message refused = small.decode("a", message(0, three));
  EXPECT_EQ(refused.sets[0].templates[0].change, Change::refused);
  EXPECT_EQ(warningsOf(refused), Texts{"at octet 20: template 258 is not kept: the stream's 2 "
                                       "templates fill the room it may have"});
  EXPECT_EQ(small.cost(), 10U);
  // b's second template would be over 18 in all: a, not heard for longest, is
  // forgotten.
  small.decode("b", message(0, one));
  small.decode("b", message(0, two));
  EXPECT_EQ(small.evicted(), 1U);
  EXPECT_FALSE(small.streams().contains({"a", 7}));
  EXPECT_EQ(small.cost(), 10U);
  // A fourth stream takes the place of the one unheard longest.
  small.decode("c", message(0, ""));
  small.decode("d", message(0, ""));
  small.decode("b", message(0, ""));
  small.decode("e", message(0, ""));
  EXPECT_EQ(small.streams().size(), 3U);
  EXPECT_FALSE(small.streams().contains({"c", 7}));
  // Fields of length 0 cost no octet, so their number in all is bounded too.
  EXPECT_EQ(
      errorOf(small.decode(
          "f", message(0, "0002 0014 0100 0003 0001 0000 0002 0000 0004 00010100 0008 01020304"))),
      "at octet 43: more than 10 values in one message");
}

struct Rendering {
  uint16_t id;
  const char* octets;
  const char* text;
  bool fixed = false;
};
TEST(ValueText, FollowsTheElementsType) {
  const Rendering rows[] = {
      {1, "ffffffffffffffff", "18446744073709551615"},
      {1, "0102", "258"},
      {1, "010203040506070809", "0x010203040506070809"},  // no unsigned64 has 9 octets
      {4, "06", "6"},
      {6, "0012", "0x0012"},
      {173, "ffffffff80000001", "0xffffffff80000001"},
      {8, "c0000201", "192.0.2.1"},
      {8, "c00002", "0xc00002"},
      {27, "20010db8000000000000000000000001", "2001:db8::1"},
      {56, "020a0b0c0d0e", "02:0a:0b:0c:0d:0e"},
      {82, "", "\"\""},
      {82, "65746830", "\"eth0\""},
      {82, "6574683000000000", "\"eth0\"", true},  // filled up with zeros
      {82, "6574683000", "\"eth0\\x00\""},
      {82, "2 20a5c1b5b6d", "\"\\\"\\x0a\\\\\\x1b[m\""},
      {82, "c3a9e282ac", "\"\xc3\xa9\xe2\x82\xac\""},  // e with acute, euro
      {82, "e280ae", "\"\\xe2\\x80\\xae\""},           // would turn the writing direction
      {82, "c080eda080f4908080", "\"\\xc0\\x80\\xed\\xa0\\x80\\xf4\\x90\\x80\\x80\""},
      {150, "00000000", "1970-01-01T00:00:00Z"},
      {150, "ffffffff", "2106-02-07T06:28:15Z"},
      {152, "0000018c251591cd", "2023-12-01T11:13:39.789Z"},
      {152, "ffffffffffffffff", "18446744073709551 s after 1970"},
      {154, "e913a5f280000000", "2023-12-01T00:23:14.500000Z"},
      {156, "e913a5f240000001", "2023-12-01T00:23:14.250000000Z"},
      {156, "0000000000000000", "2036-02-07T06:28:16.000000000Z"},
      {154, "7fffffff00000000", "2104-02-26T09:42:23.000000Z"},
      {154, "8000000000000000", "1968-01-20T03:14:08.000000Z"},
      {276, "01", "true"},
      {276, "02", "false"},
      {276, "00", "0x00"},
      {311, "3fe0000000000000", "0.5"},
      {311, "3e800000", "0.25"},
      {210, "", "(none)"},
      {210, "0001fe", "0x0001fe"},
      {9999, "0a0b", "0x0a0b"},
  };
  for (const Rendering& r : rows) {
    const Octets octets = hex(r.octets);
    const Field f{r.id, r.fixed ? static_cast<uint16_t>(octets.size()) : variableLen, 0, false,
                  ianaElement(r.id)};
    EXPECT_EQ((Value{&f, octets}.text()), r.text) << r.id << " " << r.octets;
  }
  const Element negative{"negative", Type::signed32};
  const Field f{1, 3, 1, false, &negative};
  EXPECT_EQ((Value{&f, hex("fffffe")}.text()), "-2");
  EXPECT_EQ((Field{77, 4, 0, false, nullptr}.name()), "ie77");
  EXPECT_EQ((Field{77, 4, 99991, false, nullptr}.name()), "ie99991/77");
}

// Any message with a few octets changed is read or refused; TARN_SEED repeats a run.
TEST(Mutation, NeverHarmsTheDecoder) {
  const char* given = std::getenv("TARN_SEED");
  const auto seed = given ? static_cast<unsigned>(std::atoi(given)) : std::random_device{}();
  std::cout << "TARN_SEED=" << seed << '\n';
  std::mt19937 random(seed);
  const auto below = [&](size_t n) { return random() % n; };

  Limits limits;
  limits.streams = 4;
  limits.costPerStream = 40;
  limits.cost = 100;
  limits.sequenceErrors = 3;
  Decoder decoder(testElement, limits);
  static constexpr uint16_t corners[] = {0,   1,   2,      3,      4,      255,
                                         256, 257, 0x7fff, 0x8000, 0xfffe, 65535};
  size_t wellFormed = 0;
  constexpr size_t rounds = 20000;
  for (size_t round = 0; round < rounds; ++round) {
    Octets o = rich;
    for (size_t n = 1 + below(6); n > 0; --n) {
      const size_t at = below(o.size() - 1);
      switch (below(4)) {
        case 0:
          o[at] = static_cast<uint8_t>(random());
          break;
        case 1:
          put16(o, at, corners[below(std::size(corners))]);
          break;
        case 2:
          o.insert(o.begin() + static_cast<ptrdiff_t>(at), 1 + below(9), uint8_t{0});
          break;
        case 3:
          o.erase(o.begin() + static_cast<ptrdiff_t>(at),
                  o.begin() + static_cast<ptrdiff_t>(at + std::min(o.size() - at - 2, below(9))));
          break;
      }
    }
    if (below(8) != 0 && o.size() >= 16) {  // past the checks of the header, most of the time
      put16(o, 0, 10);
      put16(o, 2, o.size());
      o.shrink_to_fit();
    }
    const Message m = decoder.decode(std::string(1, static_cast<char>('a' + below(6))), o);
    wellFormed += !m.error;
    checkDecoded(m, decoder, limits);
  }
  // The mutations reach both sides of the decoder.
  EXPECT_GT(wellFormed, rounds / 50);
  EXPECT_LT(wellFormed, rounds);
  EXPECT_GT(decoder.evicted(), 0U);
}

}  // namespace
}  // namespace decoder
