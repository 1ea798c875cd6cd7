#include <gtest/gtest.h>

#include <cerrno>

#include "cli/counters/Counters.h"
#include "cli/counters/Metrics.h"
#include "cli/wire/MessagePrinter.h"
#include "cli/wire/OptionsTables.h"
#include "tests/unit/cli/Octets.h"

namespace cli {
namespace {

using decoder::Octets;
using decoder::rich;
using testing::AssertionResult;

AssertionResult has(const std::string& text, const std::string& part) {
  return (text.find(part) == std::string::npos ? testing::AssertionFailure()
                                               : testing::AssertionSuccess())
         << text;
}

struct OutputTest : testing::Test {
  Datagram datagram(const Octets& o, double time = 1732247552.25) {
    octets_ = o;
    return {octets_, time, {"10.0.0.9", 40001}, {"2001:db8::1", 4739}, uint8_t{185}};
  }
  decoder::Message decode(const Octets& o) { return decoder_.decode("10.0.0.9:40001", o); }
  std::string text(const Octets& o) { return messageText(datagram(o), decode(o), options_); }
  nlohmann::ordered_json json(const Octets& o) {
    return messageJson(datagram(o), decode(o), options_.quietData);
  }
  /// True: the tables changed.
  bool heard(const char* sets, double time = 100) {
    const Octets o = decoder::message(0, sets);
    return tables_.take(datagram(o, time), decode(o));
  }
  Octets octets_;
  decoder::Decoder decoder_{decoder::testElement};
  PrintOptions options_;
  OptionsTables tables_;
};

TEST_F(OutputTest, ShowsARichMessageToPeople) {
  const std::string shown = text(rich);
  for (const char* const part :
       {"2024-11-22 03:52:32.250Z  10.0.0.9:40001 > [2001:db8::1]:4739  domain 7  seq 5  exported ",
        " exported 2024-11-22 03:52:32Z  127 octets  DSCP 46 (EF), ECN 1\n",
        "\n    99991/1001  flowTrackingType          2\n",
        "\n  options template 65281, new: 2 fields, records of at least 5 octets\n",
        "\n         10  ingressInterface         4  scope\n",
        R"(
  data 256, 2 records, 3 octets of padding
    sourceIPv4Address  octetDeltaCount  interfaceName  flowTrackingType
    10.0.0.1                       100  "eth0"                        2
    10.0.0.2                4294967295  ""                          259
  data 65281 (options), 1 record
)"})
    EXPECT_TRUE(has(shown, part));
}

TEST_F(OutputTest, WideRecordsBecomeListsLongValuesAreCutFaultsAreLoud) {
  options_.width = 50;
  (void)text(rich);
  std::string longest, whole;  // the most octets of a short form; and those that fit into 64
  for (int i = 0; i < 127; ++i) {
    longest += "c3a9";
    if (i < 31) whole += "\xc3\xa9";
  }
  struct {
    uint32_t sequence;
    std::string sets, shown;
  } const rows[] = {
      {9, "0100 001f 0a000001 00000064 10 30313233343536373839616263646566 0002",
       "  data 256, 1 record\n"
       "    #1  sourceIPv4Address 10.0.0.1\n"
       "        octetDeltaCount 100\n"
       "        interfaceName \"0123456789abcdef\"\n"
       "        flowTrackingType 2\n"},
      {10, "ff01 0107 00000001 fe" + longest, "\"" + whole + "... (254 octets)"},
      {13, "0101 0008 00000000",
       "\n  !! SEQUENCE ERROR: sequence 13, expected 11: 2 data records missing\n"},
      {14, "0101 0003 00000000", "\n  !! MALFORMED at octet 18: set length 3; allowed are 4 to 8"},
      {14, "0111 0008 00000000",
       "\n  !  data 273, 4 octets: no template of this id heard; sequence not checkable until"}};
  for (const auto& r : rows) EXPECT_TRUE(has(text(decoder::message(r.sequence, r.sets)), r.shown));
  EXPECT_FALSE(flawless(decoder_));
  const std::string said = summaryText({3.5, 2, decoder_});
  EXPECT_TRUE(has(said, "10.0.0.9:40001 domain 7, message 4: sequence 13, expected 11"));
  EXPECT_TRUE(has(said, "2 datagrams lost in this host's receive buffers"));
}

TEST_F(OutputTest, JsonHasStableKeys) {
  const auto j = json(rich);
  const auto keys = [](const nlohmann::ordered_json& object) {
    std::string out;
    for (const auto& [key, value] : object.items()) out += key + ' ';
    return out;
  };
  EXPECT_EQ(keys(j),
            "type time sourceAddress sourcePort destinationAddress destinationPort tos dscp octets "
            "version length exportTime sequence domain sequenceState sequenceExpected recordCount "
            "sets error warnings ");
  EXPECT_EQ(j["sets"][1]["templates"][0]["fields"][0].dump(),
            R"({"name":"ingressInterface","id":10,"enterprise":0,"length":4,"scope":true})");
  EXPECT_EQ(j["sets"][4].dump(),
            R"({"id":257,"offset":119,"length":8,"kind":"data","known":true,"options":false,)"
            R"("recordCount":1,"records":[{"flowStartSeconds":"2024-11-22T03:52:32Z"}]})");
  // The same element twice has two keys; octets that are no UTF-8 do not break the line.
  (void)json(decoder::message(9, "0002 0010 0104 0002 0052 ffff 0052 ffff"));
  const auto twice = json(decoder::message(9, "0104 0008 01 ff 01 62"));
  EXPECT_EQ(jsonLine(twice["sets"][0]["records"][0]),
            "{\"interfaceName\":\"\xef\xbf\xbd\",\"interfaceName#2\":\"b\"}\n");
  EXPECT_EQ(json(decoder::hex("0009"))["error"]["offset"], 0);
}

TEST_F(OutputTest, LaterRecordsOfAScopeTakeTheEarliersPlaceInTheTables) {
  EXPECT_FALSE(heard("0003 0012 ff01 0002 0001 000a 0004 0052 ffff"));
  EXPECT_TRUE(heard("ff01 0016 00000001 04 65746830 00000002 04 65746831"));
  EXPECT_FALSE(heard("ff01 000d 00000001 04 65746830", 108)) << "the same again";
  EXPECT_TRUE(heard("ff01 000d 00000002 04 65746839"));
  EXPECT_EQ(tables_.text(decoder_, 110, 100),
            "10.0.0.9:40001  domain 7\n"
            "  interfaces (2)\n"
            "    ingressInterface  interfaceName  told\n"
            "                   1  \"eth0\"         2 s ago\n"
            "                   2  \"eth9\"         10 s ago\n");
  EXPECT_TRUE(has(tables_.text(decoder_, 110, 1), "and 1 more"));
  EXPECT_EQ(tables_.json(decoder_, 110)["streams"][0]["tables"][0]["rows"][1].dump(),
            R"({"ingressInterface":2,"interfaceName":"eth9","age":10.0})");

  // Another layout under the same id: what was told in the old one means nothing any more.
  heard("0003 0012 ff01 0002 0001 00ea 0004 00ec ffff");
  EXPECT_TRUE(heard("ff01 000c 0000000a 03 726564"));
  EXPECT_TRUE(has(tables_.text(decoder_, 110, 100), "domain 7\n  VRFs (1)\n"));

  // Flow keys are shown by the names of their fields.
  heard("0002 0014 0100 0003 0008 0004 000c 0004 0001 0008");
  heard("0003 0012 ff02 0002 0001 0091 0002 00ad 0008");
  EXPECT_TRUE(heard("ff02 000e 0100 0000000000000003"));
  const std::string names = "sourceIPv4Address, destinationIPv4Address";
  EXPECT_TRUE(has(tables_.text(decoder_, 110, 100), "  " + names + "  "));
  EXPECT_EQ(tables_.json(decoder_, 110)["streams"][0]["tables"][1]["rows"][0]["keys"], names);
}

TEST(CountersText, IsSortedEscapedAndAged) {
  using namespace Tarn::Ipfix;
  platform::ShmTableReader::Snapshot snapshot;
  snapshot.state = platform::ShmTableReader::Snapshot::State::live;
  snapshot.writerPid = 42;
  snapshot.startTime = 900;
  for (const char* tracker : {"b\x1b[1m", "a"}) {
    CollectorStatisticsEntry e(CollectorStatisticsKey(
        tracker, "main", CollectorInfo::fromIpAndPort({platform::IpAddr(0x0a000001), 4739})));
    e.exportedMessageTotalCountIs(3);
    e.exportedFlowRecordTotalCountIs(1ULL << 63);
    e.lastSentTimeIs(997.5);
    e.lastTemplateSentTimeIs(400);
    e.setEntryIs(CollectorSetStatisticsEntry(256, 7));
    e.setEntryIs(CollectorSetStatisticsEntry(2, 0, 5));
    const auto octets = std::as_bytes(std::span(&e, 1));
    snapshot.records.push_back({{}, {octets.begin(), octets.end()}});
  }
  snapshot.records.push_back(
      {{}, std::vector<std::byte>(sizeof(CollectorStatisticsEntry), std::byte{0xff})});  // damaged
  Counters c = countersFrom(snapshot, 1000);
  EXPECT_EQ(countersNote(c, "/tarnflow"), "1 entry could not be read");
  FlowTracking::EndpointRecord endpoint;
  endpoint.key = {"b\x1b[1m", "main", true};
  endpoint.sent = 7;
  endpoint.addRefused(ENETUNREACH, 3);
  endpoint.addRefused(EPERM, 1);
  c.endpoints.push_back(endpoint);
  const std::string shown = countersText(c);
  for (const char* const part :
       {"agent pid 42, counting since 1970-01-01 00:15:00.000Z\n", R"(
tracker     exporter  collector      messages              records  octets  last message  template   data  options
a           main      10.0.0.1:4739         3  9223372036854775808       0          2.5s    10m00s  never    never
"b\x1b[1m"  main )",
        "\na           main      10.0.0.1:4739  data 256         7          0\n",
        R"(
tracker     exporter  family  taken  refused  of these  because
"b\x1b[1m"  main      IPv6        7        4         3  Network is unreachable
                                                     1  Operation not permitted
)"})
    EXPECT_TRUE(has(shown, part));

  // In the metrics an octet that is no UTF-8, or a quote too many, would cost a whole scrape. The
  // agent takes no such names, but whoever writes the segment could.
  c.entries = {CollectorStatisticsEntry(CollectorStatisticsKey("a\"\\\n\xff", "e", {}))};
  EXPECT_TRUE(has(metricsText(c, {}, MetricsFormat::prometheus),
                  R"({tracker="a\"\\\\x0a\\xff",exporter="e",collector=)"));
}

}  // namespace
}  // namespace cli
