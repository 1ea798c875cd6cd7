#include "cli/Counters.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>

#include "cli/Metrics.h"
#include "cli/ToolPlatform.h"
#include "tests/unit/cli/Process.h"

namespace cli {
namespace {

using platform::Ip6Addr;
using platform::IpAddr;
using Tarn::Ipfix::CollectorInfo;
using Tarn::Ipfix::CollectorSetStatisticsEntry;
using Tarn::Ipfix::CollectorStatistics;
using Tarn::Ipfix::CollectorStatisticsEntry;
using Tarn::Ipfix::CollectorStatisticsKey;

CollectorStatisticsEntry entry(const std::string& tracker, const CollectorInfo& collector) {
  CollectorStatisticsEntry e(CollectorStatisticsKey(tracker, "main", collector));
  e.exportedMessageTotalCountIs(3);
  e.exportedFlowRecordTotalCountIs(1ULL << 63);
  e.exportedOctetTotalCountIs(456);
  e.lastSentTimeIs(997.5);
  e.lastTemplateSentTimeIs(400);
  e.setEntryIs(CollectorSetStatisticsEntry(256, 7));
  e.setEntryIs(CollectorSetStatisticsEntry(2, 0, 5));
  return e;
}
const CollectorInfo collector4 = CollectorInfo::fromIpAndPort({IpAddr(0x0a000001), 4739});
const CollectorInfo collector6 = CollectorInfo::fromIp6AndPort(
    {Ip6Addr({0x20, 1, 0xd, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}), 2055});

platform::ShmTableReader::Snapshot snapshotOf(std::vector<CollectorStatisticsEntry> entries) {
  platform::ShmTableReader::Snapshot s;
  s.state = platform::ShmTableReader::Snapshot::State::live;
  s.writerPid = 42;
  s.startTime = 900;
  for (const auto& e : entries) {
    const auto octets = std::as_bytes(std::span(&e, 1));
    s.records.push_back({{}, {octets.begin(), octets.end()}});
  }
  return s;
}

TEST(CountersText, IsSortedEscapedAndAged) {
  auto snapshot = snapshotOf({entry("b\x1b[1m", collector6), entry("a", collector4)});
  snapshot.records.push_back(
      {{}, std::vector<std::byte>(sizeof(CollectorStatisticsEntry), std::byte{0xff})});  // damaged
  Counters c = countersFrom(snapshot, 1000);
  EXPECT_TRUE(showable(c));
  FlowTracking::EndpointRecord endpoint;
  endpoint.key = {"a", "main", false};
  endpoint.sent = 7;
  c.endpoints.push_back(endpoint);
  endpoint.key = {"b\x1b[1m", "main", true};
  endpoint.addRefused(ENETUNREACH, 3);
  endpoint.addRefused(EPERM, 1);
  c.endpoints.push_back(endpoint);
  EXPECT_EQ(countersNote(c, "/tarnflow"), "1 entry could not be read");
  EXPECT_EQ(countersText(c), R"(agent pid 42, counting since 1970-01-01 00:15:00.000Z

tracker     exporter  collector           messages              records  octets  last message  template   data  options
a           main      10.0.0.1:4739              3  9223372036854775808     456          2.5s    10m00s  never    never
"b\x1b[1m"  main      [2001:db8::1]:2055         3  9223372036854775808     456          2.5s    10m00s  never    never

tracker     exporter  collector           set        records  templates
a           main      10.0.0.1:4739       templates        0          5
a           main      10.0.0.1:4739       data 256         7          0
"b\x1b[1m"  main      [2001:db8::1]:2055  templates        0          5
"b\x1b[1m"  main      [2001:db8::1]:2055  data 256         7          0

datagrams that this host did not send, though they are counted above:
tracker     exporter  family  taken  refused  of these  because
"b\x1b[1m"  main      IPv6        7        4         3  Network is unreachable
                                                     1  Operation not permitted
)");
  c.endpoints.pop_back();
  EXPECT_EQ(countersText(c).find("did not send"), std::string::npos);
}

// One octet that is no UTF-8, or a quote too many, would cost a whole scrape. The agent takes no
// such names, but whoever writes the segment could.
TEST(Metrics, WhateverANameHoldsIsOneLabel) {
  Counters c;
  c.state = Counters::State::live;
  c.entries.emplace_back(CollectorStatisticsKey("a\"\\\n\xff", "e", collector4));
  const std::string text = metricsText(c, {}, MetricsFormat::prometheus);
  EXPECT_NE(text.find(R"({tracker="a\"\\\\x0a\\xff",exporter="e",collector="10.0.0.1:4739"} 0)"),
            std::string::npos)
      << text;
}

struct ShowCounters : testing::Test {
  ShowCounters() { platform::Platform::install(&host_); }
  ~ShowCounters() override { platform::Platform::install(nullptr); }
  /// "exit status: output, errors" of `tarnflow show counters`.
  std::string show(const std::vector<std::string>& more = {}) const {
    std::vector<std::string> argv = {TARNFLOW, "show", "counters", "--name", name_};
    argv.insert(argv.end(), more.begin(), more.end());
    Process p(argv);
    const int status = p.wait();
    return std::to_string(status) + ": " + p.rest() + p.errors();
  }
  ToolPlatform host_;
  const std::string name_ = "/tarnflow-test-" + std::to_string(getpid());
};

TEST_F(ShowCounters, OfNoAgentOfOneThatSentNothingAndOfOneThatDid) {
  const std::string absent = "1: tarnflow: no agent runs: there is no statistics table " + name_ +
                             " (/dev/shm" + name_ + ")\n";
  EXPECT_EQ(show(), absent);
  auto stats = Tarn::Ipfix::collectorStatisticsFactory(platform::shmTableFactory(
      name_, CollectorStatistics::keyLen, CollectorStatistics::valueLen, 16));
  EXPECT_NE(show().find("has sent nothing to any collector yet"), std::string::npos);

  stats->statsIs(entry("edge", collector6));
  EXPECT_EQ(show().substr(0, 13), "0: agent pid ");
  const auto json = nlohmann::json::parse(show({"--json"}).substr(3));
  EXPECT_EQ(json["state"], "live");
  EXPECT_EQ(json["writerPid"], getpid());
  ASSERT_EQ(json["entries"].size(), 1U);
  const auto& e = json["entries"][0];
  EXPECT_EQ(e["tracker"], "edge");
  EXPECT_EQ(e["exporter"], "main");
  EXPECT_EQ(e["collectorAddress"], "2001:db8::1");
  EXPECT_EQ(e["collectorPort"], 2055);
  EXPECT_EQ(e["records"], 1ULL << 63);
  EXPECT_EQ(e["lastMessageTime"], 997.5);
  EXPECT_TRUE(e["lastDataTime"].is_null());
  EXPECT_EQ(e["sets"].dump(),
            R"([{"id":2,"records":0,"templates":5},{"id":256,"records":7,"templates":0}])");
  stats = nullptr;
  EXPECT_EQ(show(), absent);
  EXPECT_EQ(show({"--name", "without-slash"}).front(), '2');
  EXPECT_EQ(show({"--watch", "0"}).front(), '2');
}

}  // namespace
}  // namespace cli
