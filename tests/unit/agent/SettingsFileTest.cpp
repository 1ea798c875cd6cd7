#include "agent/settings/SettingsFile.h"
#include "agent/settings/SettingsKeys.h"

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <regex>

#include "agent/host/Printable.h"
#include "bench/Tree.h"
#include "tests/unit/agent/RandomSettings.h"

namespace agent {
namespace {
using namespace std::chrono_literals;

// Line numbers matter: the table below names them.
const std::string good = R"([agent]
statistics = "/tarn"
control    = "/run/c.sock"

[vrf.red]
id = 10

[tracker.edge]
id               = 7
type             = "hardware"
interfaces       = ["eth*", "red/eth0"]
sample-rate      = 100
active-interval  = "30s"
inactive-timeout = "1500ms"

[tracker.edge.exporter.main]
vrf               = "red"
local-interface   = "eth0"
dscp              = 46
mtu               = 327
template-interval = "1h"

[tracker.edge.exporter.main.collector.one]
address = "10.0.0.1"
port    = 2055

[tracker.edge.exporter.main.collector.two]
address = "2001:db8::1"

[tracker.core]
id = 8
local-port = 2056
)";

/// The good file with something else in place of `from`.
std::string goodBut(const std::string& from, const std::string& to) {
  std::string toml = good;
  const size_t at = toml.find(from);
  if (at == toml.npos) throw std::invalid_argument(from);
  return toml.replace(at, from.size(), to);
}
std::vector<std::string> errorsOf(const std::string& toml) {
  SettingsResult r = parseSettings(toml, "f");
  EXPECT_NE(r.settings.has_value(), !r.errors.empty());
  return r.errors;
}

// The comments of the embedded default state the defaults: uncommented they change nothing.
TEST(SettingsFile, EmbeddedDefaultIsValid) {
  const std::string text(defaultSettingsText());
  const SettingsResult r = parseSettings(text, "default");
  ASSERT_TRUE(r.settings) << r.errors.at(0);
  EXPECT_EQ(describe(count(*r.settings)), "1 tracker, 1 exporter, 2 collectors");
  // Not the id of a VRF, which is an example.
  const std::regex commented("\n# (?!id )([a-z-]+ += )");
  const std::string uncommented = std::regex_replace(text, commented, "\n$1");
  EXPECT_NE(uncommented, text);
  const SettingsResult again = parseSettings(uncommented, "uncommented");
  ASSERT_TRUE(again.settings) << again.errors.at(0);
  EXPECT_EQ(*again.settings, *r.settings);
}

const std::string exp = "key 'tracker.edge.exporter.main.";

TEST(SettingsFile, OneErrorThatNamesPlaceKeyAndValue) {
  struct Row {
    std::string from;  // text of the good file ...
    std::string to;    // ... and what stands in its place
    std::string error;
  };
  const Row rows[] = {
      {"id               = 7", "id = = 7", "f:9:6: not TOML: Error while parsing value"},
      {"id = 8", "id = 7", "f:31:6: key 'tracker.core.id': 7 is not allowed: tracker edge has"},
      {"id = 8\n", "", "f:30:10: key 'tracker.core.id': missing: the observation domain id"},
      {"\"red/eth0\"", "\"red eth0\"", "f:11:20: key 'tracker.edge.interfaces': an array is not"},
      {"\"eth*\", \"red/eth0\"", "\"!lo\", \"!red/*\"",
       "f:11:20: key 'tracker.edge.interfaces': an array is not allowed: a list of exclusions "
       "takes "
       "no interface: one pattern at least says what is tracked, like [\"*\", \"!lo\"]"},
      {"local-interface   = \"eth0\"\n", "", "f:16:24: " + exp + "local-interface': missing: the"},
      {"id = 10", "id = 10\n[vrf.blue]\nid = 10",
       "f:8:6: key 'vrf.blue.id': 10 is not allowed: VRF red has this id"},
      {"\"2001:db8::1\"", "\"10.0.0.1\"\nport = 2055",
       "f:28:11: " + exp + "collector.two.address': \"10.0.0.1\" is not allowed: collector one of"},
      {"local-port = 2056",
       "type = \"hardware\"\nlocal-port = 4739\n[tracker.core.exporter.x]\nvrf = \"red\"\n"
       "local-interface = \"eth0\"",
       "f:33:14: key 'tracker.core.local-port': 4739 is not allowed: devices of tracker edge send"},
      {"sample-rate      = 100", "filter = \"udp and prt 53\"",
       "f:12:10: key 'tracker.edge.filter': \"udp and prt 53\" is not allowed: a filter is an "
       "expression like \"not port 4739\": 'prt' is no word"},
      {"sample-rate      = 100", "filter = \"udp and\"",
       "f:12:10: key 'tracker.edge.filter': \"udp and\" is not allowed: a filter is an expression "
       "like \"not port 4739\": can't parse filter expression: syntax error"},
      {"dscp   ", "dspc   ", "f:19:1: " + exp + "dspc': unknown; did you mean 'dscp'?"},
      {"port    = 2055", "colour = 1",
       "f:25:1: " + exp + "collector.one.colour': unknown; known here: address, port"},
      {"id = 8", "id = 8\nrecord = \"ful\"",
       "f:32:10: key 'tracker.core.record': \"ful\" is not allowed: no record has this name; did "
       "you mean 'full'?"},
      {"id = 8", "id = 8\nrecord = \"layer2\"\nbiflow = true",
       "f:33:10: key 'tracker.core.biflow': true is not allowed: record layer2 has no sourceIPv4"},
      {"[tracker.core]\nid = 8\nlocal-port = 2056", "[tracker]\ncore = 8",
       "f:31:8: key 'tracker.core': 8 is not allowed: each tracker is a table"},
  };
  for (const Row& row : rows) {
    const auto errors = errorsOf(goodBut(row.from, row.to));
    EXPECT_TRUE(errors.size() == 1 && errors[0].starts_with(row.error)) << errors.at(0);
  }
}

TEST(SettingsFile, RecordsThatMakeNoSense) {
  struct Row {
    std::string fields;
    std::string keys;
    std::string error;  // where, and what
    std::string more = {};
  };
  std::string all;  // of IPv4
  for (const RecordField& f : recordFields())
    if ((!(f.kinds & ipv6Packets) || f.kinds & ipv4Packets) && f.element != 82 && f.element != 15)
      all += '"' + std::string(f.name) + "\", ";
  const Row rows[] = {
      {R"("vlanId", "packetDeltaCount")", R"("vlanId")", ""},
      {R"("interfaceName", "packetDeltaCount")", R"("interfaceName")", ""},
      {R"("vlanID", "packetDeltaCount")", R"("vlanID")",
       R"(2:11: key 'record.r.fields': "vlanID" is not allowed: no field has this name; did you mean 'vlanId'?)"},
      {R"("vlanId", "reversePacketDeltaCount", "packetDeltaCount")", R"("vlanId")",
       R"(2:21: key 'record.r.fields': "reversePacketDeltaCount" is not allowed: no field has this)"},
      {R"("vlanId", "tos", "packetDeltaCount")", R"("vlanId")",
       R"(2:21: key 'record.r.fields': "tos" is not allowed: no field has this name; there are octetDelta)"},
      {R"("vlanId", "vlanId", "packetDeltaCount")", R"("vlanId")",
       R"(2:21: key 'record.r.fields': "vlanId" is not allowed: a record has each field once)"},
      {R"("vlanId", "packetDeltaCount")", R"("vlanId", "vlanId")",
       R"(3:19: key 'record.r.keys': "vlanId" is not allowed: a record has each key once)"},
      {R"("vlanId", "packetDeltaCount")", R"("protocolIdentifier")",
       R"(3:9: key 'record.r.keys': "protocolIdentifier" is not allowed: each key is one of the rec)"},
      {R"("vlanId", "packetDeltaCount")", R"("packetDeltaCount")",
       R"(3:9: key 'record.r.keys': "packetDeltaCount" is not allowed: flows cannot be told apart by)"},
      {R"("vlanId", "packetDeltaCount", "sourceIPv4PrefixLength")", R"("vlanId")",
       R"(2:41: key 'record.r.fields': "sourceIPv4PrefixLength" is not allowed: it needs sourceIPv4Add)"},
      {R"("vlanId", "packetDeltaCount", "interfaceName")", R"("vlanId")",
       R"(2:41: key 'record.r.fields': "interfaceName" is not allowed: it needs ingressInterface among)"},
      {R"("vlanId", "packetDeltaCount", "ipNextHopIPv4Address")", R"("vlanId")",
       R"(5:10: key 'tracker.t.egress': missing: record r has ipNextHopIPv4Address, which only "route")"},
      {R"("sourceIPv6Address", "flowLabelIPv6")", R"("sourceIPv6Address")",
       R"(2:10: key 'record.r.fields': an array is not allowed: one field at least is of all IP packets)"},
      {"", R"("vlanId")",
       R"(2:10: key 'record.r.fields': an array is not allowed: it is a list of names)"},
      {R"("vlanId", 7)", R"("vlanId")",
       R"(2:10: key 'record.r.fields': an array is not allowed: it is a)"},
      {R"("vlanId", "packetDeltaCount")", R"("vlanId")",
       R"(4:11: key 'record.r.prefix4': 24 is not allowed: none of the fields is an IPv4 address)",
       "prefix4 = 24"},
      {R"("vlanId", "sourceIPv6Address", "packetDeltaCount")", R"("vlanId")",
       R"(4:11: key 'record.r.prefix6': 0 is not allowed: a prefix of IPv6 addresses is an integer)",
       "prefix6 = 0"},
      // Keys where collectors could not be told of them; more than the smallest messages hold.
      {all, R"("sourceIPv4Address", "destinationIPv4Address", "ethernetType")",
       R"(key 'record.r.fields': "ethernetType" is not allowed: keys are among the first 31 fields)"},
      {all, R"("sourceIPv4Address", "destinationIPv4Address")",
       R"(6:7: key 'tracker.t.exporter.e.mtu': 327 is not allowed: record r of the tracker needs one of 4)",
       "[tracker.t.exporter.e]\nlocal-interface = \"lo\"\nmtu = 327"},
  };
  for (const Row& row : rows) {
    const auto errors = errorsOf("[record.r]\nfields = [" + row.fields + "]\nkeys = [" + row.keys +
                                 "]\n" + row.more + "\n[tracker.t]\nid = 1\nrecord = \"r\"\n");
    EXPECT_EQ(errors.empty(), row.error.empty()) << row.error;
    EXPECT_TRUE(errors.empty() || errors[0].find(row.error) != errors[0].npos) << errors[0];
  }
  EXPECT_TRUE(errorsOf("[record.full]\nfields = [\"packetDeltaCount\"]\nkeys = [\"vlanId\"]\n")[0]
                  .starts_with("f:1:9: key 'record.full': this name is not allowed: a record of"));
}

TEST(SettingsFile, Bounds) {
  const std::string n128(128, 'n');
  struct Row {
    const char* from;
    std::vector<std::string> allowed;
    std::vector<std::string> refused;
  };
  const Row rows[] = {
      {"= 46", {"= 0", "= 63"}, {"= -1", "= 64", "= \"46\"", "= 46.5"}},
      {"\"hardware\"", {"\"software\""}, {"\"Software\"", "1"}},
      {"= 327", {"= 65535"}, {"= 326", "= 65536"}},
      {"\"1h\"", {"\"1s\"", "\"65535s\""}, {"60", "\"999ms\"", "\"65536s\"", "\"15 s\"", "\"\""}},
      {"\"30s\"", {"\"65534000ms\""}, {"\"65535s\"", "\"9223372036854775807h\""}},
      {"\"red/eth0\"", {"\"!eth1\"", "\"\\\\!x\""}, {"\"!\"", "\"!!x\"", "\"\"", "\"!a b\""}},
      {"sample-rate      = 100",
       {"filter = \"\"", "filter = \"not port 4739 and (vlan 10 or ether host 2:0:0:0:0:1)\"",
        "filter = \"host ::1 or net 10.1 or tcp[tcpflags] & tcp-syn != 0\"", "promiscuous = true"},
       {"filter = 7", "filter = \"port\"", "filter = \"host example.org\"",
        "filter = \"ip and arp\"", "filter = \"host 1.2.3.4.5\"", "filter = \"host 1-2\"",
        "filter = \"host dead:beef\"", "filter = \"ip6 protochain 6\"",
        "filter = \"ip proto \\\\tcp\"", "filter = \"port 1\\u0000\"",
        "filter = \"ether[600000]=1\"", "filter = \"ip" + std::string(1000, ' ') + '"',
        "filter = \"" + std::string(990, '(') + '"', "promiscuous = 1"}},
      {"= 100", {"= 1", "= 4294967295"}, {"= 0", "= 4294967296"}},
      {"sample-rate      = 100",
       {"direction = \"both\"", "direction = \"once\"",
        "direction = \"egress\"\nrecord = \"minimal\"", "egress = \"route\"", "tunnel = \"inner\"",
        "biflow = true\nrecord = \"minimal\""},
       {"direction = \"out\"", "direction = 1", "direction = \"both\"\nrecord = \"minimal\"",
        "egress = \"route\"\nrecord = \"minimal\"", "egress = \"route\"\ntunnel = \"inner\"",
        "tunnel = \"both\"", "biflow = 1", "biflow = true\ndirection = \"both\""}},
      {"id               = 7", {"id = 0", "id = 4294967295"}, {"id = -1", "id = 4294967296"}},
      {"id = 10", {"id = 16777214", "id = 1\n[vrf.default]\nid = 99"}, {"id = 16777215", "id = 0"}},
      {"= 2055", {"= 65535"}, {"= 0", "= 65536"}},
      {"= 2056", {"= 0"}, {"= -1", "= 65536"}},
      {"tracker.core", {"tracker." + n128}, {"tracker." + n128 + 'n', "tracker.\"a\\u001bb\""}},
      {"vrf.red]", {}, {"vrf." + std::string(101, 'a') + ']', "vrf.\"a b\"]"}},
      {"= \"eth0\"", {"= \"abcdefghijklmno\""}, {"= \"abcdefghijklmnop\"", "= \"a/b\"", "= \"\""}},
      {"collector.two", {}, {"collector.\"\""}},
      {"\"10.0.0.1\"",
       {"\"a\"", "\"collector-1.example.\"", "\"1_a\"", "\"223.255.255.255\"", "\"240.0.0.1\"",
        "\"::1\"", "\"fd00::1\""},
       {"\"-a\"", "\"a..b\"", "\"a b\"", "\"\"", "\"1.2.3\"", '"' + std::string(64, 'a') + '"',
        "\"0.0.0.0\"", "\"255.255.255.255\"", "\"224.0.0.1\"", "\"239.255.255.255\"", "\"::\"",
        "\"ff02::1\"", "\"::ffff:10.0.0.1\"", "\"fe80::1\""}},
      {"\"/run/c.sock\"", {}, {"\"/" + std::string(107, 'x') + '"', "\"x\""}},
      {"\"/tarn\"", {"\"/t\""}, {"\"tarn\"", "\"/\"", "\"/a/b\"", "\"/..\""}},
  };
  for (const Row& row : rows) {
    for (const std::string& to : row.allowed)
      EXPECT_TRUE(parseSettings(goodBut(row.from, to), "f").settings) << to;
    for (const std::string& to : row.refused)
      EXPECT_EQ(errorsOf(goodBut(row.from, to)).size(), 1u) << to;
  }
}

TEST(SettingsFile, LaterFilesGoBeforeEarlierOnes) {
  const auto with = [](const std::string& second, const std::string& third) {
    return parseSettings({{"a", good}, {"b", second}, {"c", third}});
  };
  const SettingsResult r = with("tracker.edge.sample-rate = 5",
                                "[tracker.edge]\nsample-rate = 6\n[tracker.new]\nid = 9\n");
  ASSERT_TRUE(r.settings) << r.errors.at(0);
  Settings wanted = *parseSettings(good, "f").settings;
  wanted.trackers["edge"].sampleRate = 6;
  wanted.trackers["new"].id = 9;
  EXPECT_EQ(*r.settings, wanted);

  // Places are those of the file that a value, or a header, is in; the whole is what is checked.
  const auto errors = with("[tracker.x]\nid = 3\ndspc = 1\n", "tracker.x.id = 8\n").errors;
  ASSERT_EQ(errors.size(), 2u);
  EXPECT_TRUE(errors[0].starts_with("b:3:1: key 'tracker.x.dspc': unknown")) << errors[0];
  EXPECT_TRUE(errors[1].starts_with("c:1:16: key 'tracker.x.id': 8 is not")) << errors[1];
  EXPECT_EQ(with("=", "[x").errors.size(), 2u) << "each file that is not TOML";
}

// Whatever the settings are, their text gives them again.
TEST(SettingsFile, EffectiveTextReadsBack) {
  RandomSettings random;
  Settings s;
  for (int round = 0; round < 500; ++round) {
    random.mutate(s);
    const std::string text = settingsText(s);
    const SettingsResult again = parseSettings(text, "f");
    ASSERT_TRUE(again.settings) << again.errors.at(0) << '\n' << text;
    ASSERT_EQ(*again.settings, s) << text;
  }
}

// A table that the document lacks is printed as it should be.
TEST(SettingsFile, TheDocumentHasTheTablesOfKeys) {
  std::ifstream in(TARN_SOURCE_DIR "/docs/configuration.md");
  const std::string document(std::istreambuf_iterator<char>(in), {});
  const auto schema = nlohmann::json::parse(settingsSchema());
  EXPECT_NE(document.find(fieldReference()), document.npos) << fieldReference();
  std::string tables;
  const nlohmann::json* table = &schema;
  for (const char* const one :
       {"agent", "vrf.NAME", "record.NAME", "tracker.NAME", ".exporter.NAME", ".collector.NAME"}) {
    tables = *one == '.' ? tables + one : one;
    const std::string expected = settingsReference(tables);
    const size_t at = document.find("\n## `[" + tables + "]`\n");
    EXPECT_EQ(document.substr(document.find("| key |", at), expected.size()), expected) << tables;
    const std::string last = tables.substr(tables.rfind('.', tables.size() - 6) + 1);
    table = &(*one == '.' ? *table : schema)["properties"][last.substr(0, last.find('.'))];
    if (last.ends_with(".NAME")) table = &(*table)["additionalProperties"];
    for (const auto& [key, value] : (*table)["properties"].items())
      EXPECT_TRUE(expected.find("| `" + key + "` |") != expected.npos || value["type"] == "object");
  }
}

TEST(SettingsFile, WhateverItIsTheErrorsAreFewAndShort) {
  std::string steps;
  for (int i = 0; i < 1000000; ++i) steps += "\"a\".";
  EXPECT_EQ(errorsOf("x = 1\n" + steps + "b = 1"),
            std::vector<std::string>{"f:2:260: a key has at most 64 steps"});
  EXPECT_EQ(errorsOf("x = " + std::string(1000000, '[')).size(), 1u);
  const std::string dots(100, '.');  // these are no steps
  EXPECT_EQ(errorsOf("tracker.a.id = 1 # " + dots + "\ntracker.a.interfaces = [\"" + dots + "\\\"" +
                     dots + "\", '" + dots + "']\n"),
            std::vector<std::string>{});
  std::string many = "[tracker.a]\nid = 1\n";
  for (int i = 0; i < 1000; ++i) many += "k" + std::to_string((i * 7919) % 1000) + " = 1\n";
  const auto errors = errorsOf(many);
  ASSERT_EQ(errors.size(), settingsErrorsMax + 1);
  for (size_t i = 0; i < settingsErrorsMax; ++i)
    EXPECT_TRUE(errors[i].starts_with("f:" + std::to_string(3 + i) + ":1: key ")) << errors[i];
  EXPECT_EQ(errors.back(), "and 900 more errors");
  const std::string key(200000, 'k');
  for (const std::string& text : {key + " = 1", "[tracker." + key + "]", key + '.' + key + "=1"})
    for (const std::string& error : errorsOf(text)) EXPECT_LT(error.size(), 1000u) << error;
}

TEST(SettingsFile, FilesOnDisk) {
  const support::TempDir dir;
  const std::string main = dir.path() + "/main.toml";
  const auto read = [&](const std::string& content) {
    std::ofstream(main, std::ios::binary) << content;
    return readSettings(main);
  };
  ASSERT_EQ(::mkfifo(main.c_str(), 0600), 0);
  ::alarm(60);  // ends a test that waits for somebody to write into the pipe
  EXPECT_EQ(readSettings(main).errors,
            std::vector<std::string>{main + ": is not a regular file: a configuration is one"});
  ::alarm(0);
  ::unlink(main.c_str());
  EXPECT_EQ(readSettings(main).errors,
            std::vector<std::string>{main + ": cannot be read: No such file or directory"});
#if !defined(__SANITIZE_ADDRESS__)
  std::string many;
  for (int i = 0; i < 300000; ++i) many += "k" + std::to_string(i) + " = 1\n";
  const int64_t before = bench::residentKib();
  EXPECT_EQ(read(many).errors.size(), settingsErrorsMax + 1);
  EXPECT_LT(bench::residentKib(), before + 12000) << "what it took is given back";
#endif
  EXPECT_TRUE(read("\xef\xbb\xbf[tracker.a]\r\nid = 1\r\n").settings);
  EXPECT_EQ(read("").settings->trackers.size(), 0u);
  EXPECT_EQ(
      read(std::string(settingsFileMax + 1, '#')).errors,
      std::vector<std::string>{main + ": larger than 16777216 octets, the most that is read"});
  EXPECT_EQ(read(good).settings, parseSettings(good, "f").settings);

  const std::string parts = dir.path() + "/main.d/";
  std::filesystem::create_directory(parts);
  const auto part = [&](const std::string& file, const std::string& rate) {
    std::ofstream(parts + file) << "tracker.edge.sample-rate = " << rate;
  };
  for (const char* n : {"16", "11", "18", "2", "10"}) part(n + std::string(".toml"), n);
  part(".3.toml", "3");
  part("4.txt", "4");
  EXPECT_EQ(readSettings(main).settings->trackers.at("edge").sampleRate, 2u);
  part("3.toml", "3\nx = 1");
  EXPECT_TRUE(readSettings(main).errors.at(0).starts_with(parts + "3.toml:2:1:"));
}

TEST(Printable, ControlCharactersAndBrokenUtf8) {
  const std::pair<const char*, const char*> cases[] = {
      {"Zürich 日本 €", "Zürich 日本 €"},
      {"a\nb\tc\\d\x1b[31m\x7f", "a\\nb\\tc\\d\\x1b[31m\\x7f"},
      {"\xc2\x9b[31m", "\\xc2\\x9b[31m"},  // C1: CSI
      {"\u202e\u2066\u200b", "\\xe2\\x80\\xae\\xe2\\x81\\xa6\\xe2\\x80\\x8b"},
      {"\xff\xc0\xaf\xe2\x82", "\\xff\\xc0\\xaf\\xe2\\x82"},
      {"\xed\xa0\x80\xf4\x90\x80\x80", "\\xed\\xa0\\x80\\xf4\\x90\\x80\\x80"}};
  for (const auto& [text, shown] : cases) EXPECT_EQ(printable(text), shown);
  EXPECT_EQ(printable("Zürich", 6), "Zü...");
  EXPECT_EQ(printable("Züric", 6), "Züric");
}

}  // namespace
}  // namespace agent
