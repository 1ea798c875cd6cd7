#include "cli/decoder/Decoder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <sstream>
#include <utility>

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

TEST_F(DecoderTest, ReadsEverySetOfARichMessage) {
  const Message m = decode(rich);
  ASSERT_EQ(errorOf(m), "");
  EXPECT_EQ(warningsOf(m), Texts{});
  EXPECT_EQ(m.header->exportTime, 0x67400000U);
  EXPECT_EQ(m.header->sequence, 5U);
  EXPECT_EQ(m.header->domain, 7U);
  ASSERT_EQ(m.sets.size(), 5U);
  EXPECT_EQ(m.recordCount(), 4U);

  const auto& templates = m.sets[0].templates;
  ASSERT_EQ(templates.size(), 2U);
  EXPECT_EQ(templates[1].offset, 44U);
  const Template& t = *templates[0].definition;
  EXPECT_EQ(t.id, 256);
  EXPECT_FALSE(t.options());
  EXPECT_TRUE(t.variable());
  EXPECT_EQ(t.recordLen, 4U + 4 + 1 + 2);
  ASSERT_EQ(t.fields.size(), 4U);
  EXPECT_EQ(t.fields[2].name(), "interfaceName");
  EXPECT_TRUE(t.fields[2].variable());
  EXPECT_EQ(t.fields[3].id, 1001);
  EXPECT_EQ(t.fields[3].enterprise, 99991U);
  EXPECT_EQ(t.fields[3].len, 2);

  const Template& options = *m.sets[1].templates.at(0).definition;
  EXPECT_EQ(m.sets[1].kind(), Set::Kind::optionsTemplates);
  EXPECT_EQ(options.scopeCount, 1);
  EXPECT_TRUE(options.fields[0].scope);
  EXPECT_FALSE(options.fields[1].scope);
  EXPECT_EQ(m.sets[1].padding, 2U);

  EXPECT_EQ(m.sets[2].padding, 3U);
  ASSERT_EQ(m.sets[2].recordCount(), 2U);
  EXPECT_EQ(recordText(m.sets[2], 0), (Texts{"sourceIPv4Address 10.0.0.1", "octetDeltaCount 100",
                                             "interfaceName \"eth0\"", "flowTrackingType 2"}));
  EXPECT_EQ(recordText(m.sets[2], 1),
            (Texts{"sourceIPv4Address 10.0.0.2", "octetDeltaCount 4294967295", "interfaceName \"\"",
                   "flowTrackingType 259"}));
  EXPECT_EQ(recordText(m.sets[3], 0), (Texts{"ingressInterface 3", "interfaceName \"lo0\""}));
  EXPECT_EQ(recordText(m.sets[4], 0), (Texts{"flowStartSeconds 2024-11-22T03:52:32Z"}));

  // The second time the same templates are repetitions, and the sequence goes
  // on by 4 records.
  Octets next = rich;
  put32(next, 8, 9);
  const Message again = decode(next);
  EXPECT_EQ(again.sequence.state, State::ok);
  for (const auto& r : again.sets[0].templates) EXPECT_EQ(r.change, Change::repeated);
  EXPECT_EQ(stream().dataRecords, 8U);
  EXPECT_EQ(stream().templateRecords, 6U);
}

// A right message with one 16-bit field overwritten, and what is said about it.
struct Wrong {
  const char* name;
  size_t at;
  uint16_t value;
  const char* error;
};
void PrintTo(const Wrong& w, std::ostream* out) { *out << w.name; }
class WrongMessage : public testing::TestWithParam<Wrong> {};
TEST_P(WrongMessage, IsRefusedWithPlaceFoundAndAllowed) {
  const Wrong& w = GetParam();
  Octets o = rich;
  put16(o, w.at, w.value);
  Decoder decoder(testElement);
  const Message m = decoder.decode("a", o);
  EXPECT_EQ(errorOf(m), w.error);
  for (const auto& [key, stream] : decoder.streams()) {
    EXPECT_TRUE(stream.templates.empty()) << "learnt from a malformed message";
    EXPECT_EQ(stream.dataRecords, 0U);
    EXPECT_EQ(stream.malformed, 1U);
  }
}
INSTANTIATE_TEST_SUITE_P(
    Rich, WrongMessage,
    testing::Values(
        Wrong{"version", 0, 9, "at octet 0: version 9; IPFIX has 10"},
        Wrong{"longer", 2, 128, "at octet 2: message length 128; the datagram has 127 octets"},
        Wrong{"shorter", 2, 119, "at octet 2: message length 119; the datagram has 127 octets"},
        Wrong{"setId0", 16, 0, "at octet 16: set id 0; allowed are 2, 3 and 256 to 65535"},
        Wrong{"setId255", 72, 255, "at octet 72: set id 255; allowed are 2, 3 and 256 to 65535"},
        Wrong{"setLen3", 18, 3,
              "at octet 18: set length 3; allowed are 4 to 111, the octets "
              "left in the message"},
        Wrong{"setLenOver", 121, 9,
              "at octet 121: set length 9; allowed are 4 to 8, the octets left "
              "in the message"},
        Wrong{"behindLastSet", 121, 7,
              "at octet 126: 1 octet behind the last set; a set header has 4"},
        Wrong{"templateId255", 20, 255, "at octet 20: template id 255; allowed are 256 to 65535"},
        Wrong{"templateIdIsSetId", 20, 2, "at octet 20: template id 2; allowed are 256 to 65535"},
        Wrong{"fieldCountOver", 22, 9,
              "at octet 22: field count 9 of template 256; the 28 octets left "
              "in the set hold at "
              "most 7 field specifiers"},
        Wrong{"fieldsCut", 22, 7,
              "at octet 52: field 7 of template 256 needs a specifier of 4 "
              "octets; none is left in "
              "the set"},
        Wrong{"enterpriseCut", 48, 0x8096,
              "at octet 52: field 1 of template 257 needs an enterprise number "
              "of 4 octets; none "
              "is left in the set"},
        Wrong{"emptyRecords", 50, 0,
              "at octet 44: template 257 has records of 0 octets, which cannot "
              "be counted"},
        Wrong{"optionsHeaderCut", 54, 8,
              "at octet 56: an options template's header has 6 octets; 4 are "
              "left in the set"},
        Wrong{"optionsHeaderCutLater", 54, 9,
              "at octet 56: an options template's header has 6 octets; 5 are "
              "left in the set"},
        Wrong{"scope0", 60, 0,
              "at octet 60: scope field count 0 of template 65281; allowed are "
              "1 to 2, the field "
              "count"},
        Wrong{"scope3", 60, 3,
              "at octet 60: scope field count 3 of template 65281; allowed are "
              "1 to 2, the field "
              "count"},
        Wrong{"nameOver", 84, 0x1565,
              "at octet 85: interfaceName has 21 octets; 20 are left in the set"},
        Wrong{"nameEatsNext", 84, 0x1365,
              "at octet 104: flowTrackingType has 2 octets; 1 is left in the "
              "set"},
        Wrong{"longNameOver", 84, 0xff65,
              "at octet 87: interfaceName has 25972 octets; 18 are left in the "
              "set"},
        Wrong{"longLengthCut", 107, 10,
              "at octet 114: interfaceName announces a length of 2 octets; 1 "
              "is left in the set"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(DecoderTest, ACutMessageIsAlwaysAnErrorAndNeverReadBeyondItsEnd) {
  const std::vector<size_t> whole = {16, 52, 72, 105, 119, 127};  // between two sets
  for (size_t n = 0; n < rich.size(); ++n) {
    // On the heap and of exactly this size: the sanitizer sees a read behind
    // it.
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
  // Padding that is not zero; an empty set; a message without a set.
  EXPECT_EQ(warningsOf(decode(message(0, "0002 000e 0100 0001 0096 0004 0001"))),
            (Texts{"at octet 28: 2 octets left in set 2 after its last record: too "
                   "short for "
                   "another, and no padding, which is zero"}));
  EXPECT_EQ(warningsOf(decode(message(0, "0100 0004"))), Texts{"at octet 16: set 256 is empty"});
  EXPECT_EQ(warningsOf(decode(message(0, ""))), Texts{"at octet 0: a message without a set"});
  // Lengths that the types cannot have: said when the template is new, not at
  // each repetition.
  const Octets odd =
      message(0, "0002 001c 0102 0004 83e9 0002 00018697 0008 0010 001b ffff 0001 0009");
  EXPECT_EQ(warningsOf(decode(odd)),
            (Texts{"at octet 34: field 2 of template 258, sourceIPv4Address, "
                   "has length 16; "
                   "ipv4Address has 4",
                   "at octet 38: field 3 of template 258, sourceIPv6Address, "
                   "has variable length; "
                   "ipv6Address has 16",
                   "at octet 42: field 4 of template 258, octetDeltaCount, has "
                   "length 9; "
                   "unsigned64 has 1 to 8"}));
  EXPECT_EQ(warningsOf(decode(odd)), Texts{});
  // A name that is not text.
  decode(message(0, "0002 000c 0103 0001 0052 ffff"));
  EXPECT_EQ(warningsOf(decode(message(0, "0103 0007 02 c328"))),
            Texts{"at octet 21: interfaceName is not valid UTF-8: \"\\xc3(\""});
  // However many there are, they are bounded.
  std::string empties;
  for (int i = 0; i < 1000; ++i) empties += "0100 0004";
  EXPECT_EQ(decode(message(0, empties)).warnings.size(), 64U);
}

TEST_F(DecoderTest, VariableLengthsAtTheirBounds) {
  decode(message(0, "0002 000c 0103 0001 0052 ffff"));
  for (const size_t n : {0, 1, 254, 255, 256, 65500}) {
    for (const bool longForm : {false, true}) {
      if (!longForm && n > 254) continue;
      Octets o = message(0, "0103 0000");
      if (longForm)
        o.insert(o.end(), {255, 0, 0});
      else
        o.push_back(static_cast<uint8_t>(n));
      if (longForm) put16(o, 21, n);
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
  const Message m =
      decode(message(0,
                     "0100 000c 00000001 00000002 0002 000c 0100 0001 0002 0008 0100 000c "
                     "00000000 00000003"));
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
  EXPECT_EQ(warningsOf(gone), Texts{"at octet 20: template 256 withdrawn, "
                                    "which is not allowed over UDP (RFC 7011, "
                                    "8.4)"});
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
       "100 template first 0, 100 three ok 0, 103 template ok 0, 103 option ok "
       "0, 104 one ok 0, "
       "105 template ok 0,",
       0, 0},
      {"wraps", "4294967294 three first 0, 1 one ok 0, 2 template ok 0,", 0, 0},
      {"gap over the wrap",
       "4294967294 one first 0, 2 one missing 3, 4294967295 three late 4, 3 "
       "one ok 0,",
       1, 0},
      {"numbered after the records", "1 one first 0, 4 three missing 2, 8 one missing 1,", 2, 3},
      {"template counted", "0 template first 0, 1 one missing 1,", 1, 1},
      {"sent twice", "0 three first 0, 0 three back 3, 3 one ok 0,", 1, 0},
      {"restart", "5000 three first 0, 0 template back 5003, 0 one ok 0,", 1, 0},
      {"part of a gap arrives late",
       "0 one first 0, 10 one missing 9, 4 three late 7, 4 three back 7, 7 one "
       "ok 0,",
       2, 6},
      {"more than the gap holds is not late", "0 one first 0, 3 one missing 2, 1 three back 3,", 2,
       2},
      {"gaps end with a restart",
       "0 one first 0, 10 one missing 9, 0 three back 11, 3 one ok 0, 3 one "
       "back 1,",
       3, 9},
      {"unknown template", "0 one first 0, 1 unknown ok 0, 50 one unchecked 0, 51 one ok 0,", 0, 0},
      {"malformed", "0 one first 0, 1 malformed ok 0, 2 one unchecked 0, 4 one missing 1,", 1, 1}};
  for (const SequenceCase& c : cases) {
    SCOPED_TRACE(c.name);
    Decoder decoder(testElement);
    std::string learns =
        "0002 000c 0101 0001 0096 0004 0003 0012 0102 0002 "
        "0001 000a 0004 0052 ffff";
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
  EXPECT_EQ(errorOf(small.decode("f", message(0,
                                              "0002 0014 0100 0003 0001 0000 0002 0000 0004 0001"
                                              "0100 0008 01020304"))),
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

}  // namespace
}  // namespace decoder
