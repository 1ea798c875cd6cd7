#include "cli/wire/decoder/Decoder.h"

#include <gtest/gtest.h>

#include <map>
#include <sstream>
#include <utility>

#include "cli/ToolPlatform.h"
#include "cli/wire/Elements.h"
#include "tests/unit/cli/Octets.h"

namespace decoder {
namespace {

using Texts = std::vector<std::string>;

std::string errorOf(const Message& m) { return m.error ? m.error->stringValue() : ""; }
Texts warningsOf(const Message& m) {
  Texts out;
  for (const Fault& f : m.warnings) out.push_back(f.stringValue());
  return out;
}
/// What became of each template record and each data set.
Texts fateOf(const Message& m) {
  Texts out;
  for (const Set& set : m.sets) {
    for (const TemplateRecord& t : set.templates)
      out.push_back(std::to_string(t.id) + " " + std::string(changeName(t.change)));
    if (set.kind() == Set::Kind::data)
      out.push_back(std::to_string(set.id) + " " +
                    (set.known() ? std::to_string(set.recordCount()) + " read" : "unknown"));
  }
  return out;
}

struct DecoderTest : testing::Test {
  Decoder decoder{testElement};
  Message decode(const std::string& sets, const char* session = "a", uint16_t domain = 7) {
    return decoder.decode(session, message(0, sets, domain));
  }
};

// A right message with one 16-bit field overwritten, and how the error about it begins.
TEST(WrongMessage, IsRefusedWithPlaceFoundAndAllowed) {
  struct Wrong {
    size_t at;
    uint16_t value;
    const char* error;
  };
  const Wrong wrongs[] = {
      {0, 9, "at octet 0: version 9; IPFIX has 10"},
      {2, 119, "at octet 2: message length 119; the datagram has 127 octets"},
      {2, 128, "at octet 2: message length 128; the datagram has 127 octets"},
      {72, 255, "at octet 72: set id 255; allowed are 2, 3 and 256 to 65535"},
      {18, 3, "at octet 18: set length 3; allowed are 4 to 111, the octets left"},
      {121, 9, "at octet 121: set length 9; allowed are 4 to 8, the octets left"},
      {121, 7, "at octet 126: 1 octet behind the last set; a set header has"},
      {20, 255, "at octet 20: template id 255; allowed are 256 to 65535"},
      {22, 9, "at octet 22: field count 9 of template 256; the 28 octets left in the set hold at"},
      {48, 0x8096, "at octet 52: field 1 of template 257 needs an enterprise number of 4 octets"},
      {50, 0, "at octet 44: template 257 has records of 0 octets, which cannot be"},
      {54, 9, "at octet 56: an options template's header has 6 octets; 5 are left in the set"},
      {60, 3, "at octet 60: scope field count 3 of template 65281; allowed are 1 to 2"},
      {84, 0x1365, "at octet 104: flowTrackingType has 2 octets; 1 is left in the"},
      {84, 0xff65, "at octet 87: interfaceName has 25972 octets; 18 are left in"},
      {107, 10, "at octet 114: interfaceName announces a length of 2 octets; 1 is left in the"}};
  for (const Wrong& w : wrongs) {
    SCOPED_TRACE(w.error);
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

TEST_F(DecoderTest, ACutMessageIsAnErrorUnlessItEndsBetweenTwoSets) {
  const std::vector<size_t> whole = {16, 52, 72, 105, 119, 127};
  for (size_t n = 0; n <= rich.size(); ++n) {
    // On the heap and of exactly this size: the sanitizer sees a read behind it.
    Octets cut(rich.begin(), rich.begin() + static_cast<ptrdiff_t>(n));
    EXPECT_EQ(!decoder.decode("a", cut).error, n == rich.size()) << n;
    if (n >= 4) put16(cut, 2, n);
    const Message m = decoder.decode("patched", cut);
    EXPECT_EQ(!m.error, std::ranges::find(whole, n) != whole.end()) << n << ": " << errorOf(m);
    EXPECT_TRUE(!m.error || m.error->offset <= n) << n;
  }
}

TEST_F(DecoderTest, WarnsOfFaultsThatDoNotKeepItFromReading) {
  decode("0002 000c 0103 0001 0052 ffff");
  const char* const odd = "0002 001c 0102 0004 83e9 0002 00018697 0008 0010 001b ffff 0001 0009";
  const std::string field = " of template 258, ";
  const std::pair<const char*, Texts> cases[] = {
      {"0002 000e 0100 0001 0096 0004 0001",
       {"at octet 28: 2 octets left in set 2 after its last record: too short for another, and no "
        "padding, which is zero"}},
      {"0100 0004", {"at octet 16: set 256 is empty"}},
      {"", {"at octet 0: a message without a set"}},
      // Lengths that the types cannot have: said when the template is new, not when it is repeated.
      {odd,
       {"at octet 34: field 2" + field + "sourceIPv4Address, has length 16; ipv4Address has 4",
        "at octet 38: field 3" + field +
            "sourceIPv6Address, has variable length; ipv6Address has 16",
        "at octet 42: field 4" + field + "octetDeltaCount, has length 9; unsigned64 has 1 to 8"}},
      {odd, {}},
      {"0003 0008 0109 0000",
       {"at octet 20: template 265 withdrawn, which is not allowed over UDP (RFC 7011, 8.4)"}},
      {"0103 0007 02 c328", {"at octet 21: interfaceName is not valid UTF-8: \"\\xc3(\""}}};
  for (const auto& [sets, warnings] : cases) EXPECT_EQ(warningsOf(decode(sets)), warnings) << sets;
  std::string empties;
  for (int i = 0; i < 1000; ++i) empties += "0100 0004";
  EXPECT_EQ(decode(empties).warnings.size(), 64U) << "their number is bounded";
}

TEST_F(DecoderTest, TemplatesAreRedefinedWithdrawnAndKeptPerStream) {
  const std::pair<const char*, Texts> steps[] = {
      {"0002 000c 0100 0001 0001 0008", {"256 new"}},
      {"0002 000c 0100 0001 0001 0008", {"256 repeated"}},
      {"0002 000c 0100 0001 0001 0004", {"256 redefined"}},
      // The later definition counts within one message, too: records of 4 octets, then of 8.
      {"0100 000c 00000001 00000002 0002 000c 0100 0001 0002 0008 0100 000c 00000000 00000003",
       {"256 2 read", "256 redefined", "256 1 read"}},
      // The same id as an options template replaces it as well.
      {"0003 0012 0100 0002 0001 0095 0004 012c ffff", {"256 redefined"}},
      {"0100 0009 00000007 00", {"256 1 read"}},
      {"0003 0008 0100 0000", {"256 withdrawn"}},
      {"0100 0009 00000007 00", {"256 unknown"}},
      {"0002 000c 0100 0001 0001 0008 0002 000c 0101 0001 0001 0008", {"256 new", "257 new"}},
      {"0003 0012 0102 0002 0001 0095 0004 012c ffff", {"258 new"}},
      // All plain templates go; one comes back behind that in the same message.
      {"0002 0008 0002 0000 0101 0004 0002 000c 0100 0001 0001 0004",
       {"2 all withdrawn", "257 unknown", "256 new"}},
      {"0101 000c 00000000 00000000 0100 0008 00000000 0102 0009 00000007 00",
       {"257 unknown", "256 1 read", "258 1 read"}}};
  for (const auto& [sets, fate] : steps) EXPECT_EQ(fateOf(decode(sets)), fate) << sets;
  EXPECT_EQ(fateOf(decode("0100 0008 00000000", "b")), Texts{"256 unknown"});
  EXPECT_EQ(fateOf(decode("0100 0008 00000000", "a", 8)), Texts{"256 unknown"});
}

// Messages of one stream, each "sequence number, what is in it, what is said [by how many]": a
// template, one or three data records, an option's record, a set that is unknown or malformed.
TEST(Sequence, IsCheckedAgainstTheRecordsBefore) {
  const std::map<std::string, const char*> sets = {
      {"template", "0002 000c 0101 0001 0096 0004"},
      {"one", "0101 0008 00000001"},
      {"three", "0101 0010 00000001 00000002 00000003"},
      {"option", "0102 0009 00000001 00"},
      {"unknown", "0109 0008 00000001"},
      {"malformed", "0101 0003"}};
  struct Case {
    const char* heard;
    uint64_t errors;
    uint64_t missing;
  };
  const Case cases[] = {
      // Data and options records count, template records do not.
      {"100 template first 0, 100 three ok 0, 103 template ok 0, 103 option ok 0, 104 one ok 0, "
       "105 template ok 0,",
       0, 0},
      {"4294967294 one first 0, 2 one missing 3, 4294967295 three late 4, 3 one ok 0,", 1, 0},
      // Sent twice; then a restart, and what arrives late.
      {"0 three first 0, 0 three back 3, 3 one ok 0,", 1, 0},
      {"0 one first 0, 10 one missing 9, 4 three late 7, 4 three back 7, 7 one ok 0,", 2, 6},
      {"0 one first 0, 10 one missing 9, 4 three late 7, 1 three late 10, 7 three late 4,", 1, 0},
      {"0 one first 0, 10 one missing 9, 0 three back 11, 3 one ok 0, 3 one back 1,", 3, 9},
      // What could not be counted is not held against the next message.
      {"0 one first 0, 1 unknown ok 0, 50 one unchecked 0, 51 one ok 0,", 0, 0},
      {"0 one first 0, 1 malformed ok 0, 2 one unchecked 0, 4 one missing 1,", 1, 1}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.heard);
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
    EXPECT_EQ(s.missing, c.missing);
  }
}

// That the bounds hold is for the fuzzer; here, who makes room.
TEST(Limits, TheStreamUnheardLongestMakesRoom) {
  Decoder small(testElement,
                {.streams = 3, .costPerStream = 12, .cost = 18, .valuesPerMessage = 10});
  const auto hear = [&](const char* session, const std::string& sets) {
    return small.decode(session, message(0, sets));
  };
  const std::string two = "0002 0014 0100 0001 0001 0004 0101 0001 0001 0004";  // costs 10
  const Message refused = hear("a", two + "0002 000c 0102 0001 0001 0004");     // 15, over 12
  EXPECT_EQ(fateOf(refused), (Texts{"256 new", "257 new", "258 not kept"}));
  EXPECT_EQ(warningsOf(refused), Texts{"at octet 40: template 258 is not kept: the stream's 2 "
                                       "templates fill the room it may have"});
  hear("b", two);  // over 18 in all
  EXPECT_FALSE(small.streams().contains({"a", 7}));
  for (const char* session : {"c", "d", "b", "e"}) hear(session, "");  // a fourth stream
  EXPECT_FALSE(small.streams().contains({"c", 7}));
  EXPECT_TRUE(small.streams().contains({"b", 7}));
  EXPECT_EQ(small.evicted(), 2U);
  // Fields of length 0 cost no octet, so their number in all is bounded too.
  const char* const empty = "0002 0014 0100 0003 0001 0000 0002 0000 0004 00010100 0008 01020304";
  EXPECT_EQ(errorOf(hear("f", empty)), "at octet 43: more than 10 values in one message");
}

TEST(ValueText, FollowsTheElementsType) {
  struct Rendering {
    uint16_t id;
    const char* octets;
    const char* text;
    bool fixed = false;
  };
  const Rendering rows[] = {
      {1, "ffffffffffffffff", "18446744073709551615"},
      {1, "010203040506070809", "0x010203040506070809"},  // no unsigned64 has 9 octets
      {27, "20010db8000000000000000000000001", "2001:db8::1"},
      {56, "020a0b0c0d0e", "02:0a:0b:0c:0d:0e"},
      {82, "6574683000000000", "\"eth0\"", true},  // filled up with zeros
      {82, "220a5c1b5b6d", "\"\\\"\\x0a\\\\\\x1b[m\""},
      {82, "c3a9e282ac", "\"\xc3\xa9\xe2\x82\xac\""},  // e with acute, euro
      {82, "e280ae", "\"\\xe2\\x80\\xae\""},           // would turn the writing direction
      {82, "c080eda080f4908080", "\"\\xc0\\x80\\xed\\xa0\\x80\\xf4\\x90\\x80\\x80\""},
      {82, "e09fbf", "\"\\xe0\\x9f\\xbf\""},  // longer than it needs to be
      {152, "0000018c251591cd", "2023-12-01T11:13:39.789Z"},
      {154, "7fffffff00000000", "2104-02-26T09:42:23.000000Z"},
      {154, "8000000000000000", "1968-01-20T03:14:08.000000Z"},
      {154, "e913a5f280000000", "2023-12-01T00:23:14.500000Z"},
      {156, "e913a5f240000001", "2023-12-01T00:23:14.250000000Z"},
      {276, "01", "true"},
      {276, "00", "0x00"},
      {311, "3fe0000000000000", "0.5"},
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

// The library's registry and the list of elements were written apart: they must agree in names and
// in full sizes.
TEST(Elements, RegistryAndIanaListAgree) {
  cli::ToolPlatform host;
  platform::Platform::install(&host);
  auto registry = Ipfix::elementIdCollFactory();
  registry->doInitialize();
  const auto lookup = cli::elementLookup(registry);
  size_t named = 0, lens = 0;  // of all that have one
  for (const auto& [type, e] : registry->elementIdColl()) {
    const auto id = static_cast<uint16_t>(type.value());
    const Element* found = lookup(e.enterpriseIe() ? 99991 : 0, id);
    ASSERT_TRUE(found && found->name == e.str()) << id;
    EXPECT_TRUE(typeAllows(found->type, e.len())) << e.str() << " has " << e.len() << " octets";
    lens += e.len() == variableLen ? 0 : e.len();
    if (e.enterpriseIe() || !ianaElement(id)) continue;
    const bool variable = e.len() == Ipfix::IpfixConst::variableLen();
    EXPECT_EQ(typeAllows(found->type, e.len() + 1), variable) << e.str();
    ++named;
  }
  EXPECT_EQ(named, 48U);  // all but the two that carry a number of the enterprise's range
  EXPECT_EQ(std::pair(registry->elementIdColl().size(), lens), std::pair(size_t{87}, size_t{373}));
  registry = nullptr;
  platform::Platform::install(nullptr);
}

}  // namespace
}  // namespace decoder
