#include "cli/Counters.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include "cli/ToolPlatform.h"
#include "tests/unit/cli/Process.h"

namespace cli {
namespace {

using platform::Ip6Addr;
using platform::IpAddr;
using Tarn::Ipfix::CollectorInfo;
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
  e.setEntryIs({256, {}, 7, 0});
  e.setEntryIs({2, {}, 0, 5});
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
  const Counters c = countersFrom(snapshot, 1000);
  EXPECT_TRUE(showable(c));
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
)");
}

struct ShowCounters : testing::Test {
  ShowCounters() { platform::Platform::install(&host_); }
  ~ShowCounters() override {
    platform::Platform::install(nullptr);
    shm_unlink(name_.c_str());
    shm_unlink((name_ + ".lock").c_str());  // left by a writer that died
  }
  struct Shown {
    int status;
    std::string out;
    std::string err;
  };
  Shown show(std::vector<std::string> more = {}) const {
    std::vector<std::string> argv = {TARNFLOW, "show", "counters", "--name", name_};
    argv.insert(argv.end(), more.begin(), more.end());
    Process p(argv);
    const int status = p.wait();
    return {status, p.rest(), p.errors()};
  }
  platform::Ptr<platform::SharedTable> table() const {
    return platform::shmTableFactory(name_, CollectorStatistics::keyLen,
                                     CollectorStatistics::valueLen, 16);
  }
  ToolPlatform host_;
  const std::string name_ = "/tarnflow-test-" + std::to_string(getpid());
};

TEST_F(ShowCounters, ALivingAgentsAndThenNone) {
  const Shown absent = show();
  EXPECT_EQ(absent.status, 1);
  EXPECT_EQ(absent.out, "");
  EXPECT_EQ(absent.err, "tarnflow: no agent runs: there is no statistics table " + name_ +
                            " (/dev/shm" + name_ + ")\n");
  {
    const auto stats = Tarn::Ipfix::collectorStatisticsFactory(table());
    const Shown empty = show();
    EXPECT_EQ(empty.status, 1);
    EXPECT_NE(empty.err.find("has sent nothing to any collector yet"), std::string::npos);

    stats->statsIs(entry("edge", collector6));
    const Shown live = show();
    EXPECT_EQ(live.status, 0);
    EXPECT_EQ(live.err, "");
    EXPECT_NE(live.out.find("[2001:db8::1]:2055"), std::string::npos);
    const auto json = nlohmann::json::parse(show({"--json"}).out);
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

    // A watcher sees the change, and ends at once when told to.
    Process watch({TARNFLOW, "show", "counters", "--name", name_, "--json", "--watch", "0.05"});
    EXPECT_EQ(nlohmann::json::parse(watch.line().value())["entries"].size(), 1U);
    stats->statsIs(entry("other", collector6));
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (nlohmann::json::parse(watch.line().value())["entries"].size() != 2)
      ASSERT_LT(std::chrono::steady_clock::now(), deadline);
    watch.signal(SIGINT);
    EXPECT_EQ(watch.wait(), 0);
  }
  EXPECT_EQ(show().status, 1);
}

TEST_F(ShowCounters, WrongUsage) {
  EXPECT_EQ(Process({TARNFLOW, "show", "counters", "--name", "tarnflow"}).wait(), 2);
  EXPECT_EQ(Process({TARNFLOW, "show", "counters", "--watch", "0"}).wait(), 2);
  EXPECT_EQ(Process({TARNFLOW, "show"}).wait(), 2);
  EXPECT_EQ(Process({TARNFLOW, "--version"}).wait(), 0);
}

}  // namespace
}  // namespace cli
