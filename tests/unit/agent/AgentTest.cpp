#include "agent/Agent.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <array>
#include <fstream>
#include <functional>
#include <sstream>

#include "World.h"
#include "platform/linux/Fd.h"
#include "tests/support/Net.h"

namespace agent {
namespace {
using namespace std::chrono_literals;

/// The service manager's end of sd_notify(3).
class Manager {
 public:
  explicit Manager(const std::string& path) {
    address_.sun_family = AF_UNIX;
    path.copy(address_.sun_path, sizeof address_.sun_path - 1);
    EXPECT_EQ(bind(fd_.get(), reinterpret_cast<sockaddr*>(&address_), sizeof address_), 0);
  }
  /// Messages of somebody else, until there is room for no more.
  void fill() {
    const Fd other(socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    while (sendto(other.get(), "X", 1, 0, reinterpret_cast<sockaddr*>(&address_),
                  sizeof address_) == 1) {
    }
  }
  /// What came since the last look, a line each.
  std::string take() {
    std::array<char, 4096> buffer;
    std::string all;
    for (ssize_t n; (n = recv(fd_.get(), buffer.data(), buffer.size(), 0)) >= 0;)
      all.append(buffer.data(), static_cast<size_t>(n)) += '\n';
    return all;
  }

 private:
  const Fd fd_{socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)};
  sockaddr_un address_{};
};

class AgentTest : public World {
 protected:
  void TearDown() override {
    for (const char* name : {"NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID"}) unsetenv(name);
  }
  Heard heard;
};

TEST_F(AgentTest, TellsTheServiceManager) {
  Manager manager("/run/notify");
  setenv("NOTIFY_SOCKET", "/run/notify", 1);
  setenv("WATCHDOG_USEC", "200000", 1);
  run("ip link set lo up");
  std::ofstream("/run/tarnflow.toml") << R"([tracker.edge]
id = 7
[tracker.edge.exporter.main]
local-interface = "lo"
[tracker.edge.exporter.main.collector.one]
address = "127.0.0.1"
)";
  const Ptr<EventLoop> loop = eventLoopFactory();
  const size_t before = support::openFds();
  {
    Agent agent(loop, heard.log, {.configFile = "/run/tarnflow.toml"});
    std::string all;
    const auto told = [&](const char* what) {
      all.clear();
      return until(*loop, [&] { return (all += manager.take()).find(what) != all.npos; });
    };
    manager.fill();  // a manager that is busy gets everything later, nobody waits
    alarm(60);
    ASSERT_TRUE(agent.start()) << heard.text;
    until(
        *loop, [] { return false; }, 300ms);
    alarm(0);
    EXPECT_EQ(manager.take().find("READY=1"), all.npos);
    EXPECT_TRUE(told("READY=1"));
    EXPECT_NE(all.find("STATUS=1 of 1 exporters ready, 1 collectors"), all.npos) << all;
    EXPECT_TRUE(told("WATCHDOG=1"));
    agent.reload();
    EXPECT_TRUE(told("RELOADING=1\nMONOTONIC_USEC="));
    EXPECT_NE(all.find("READY=1"), all.npos);
    run("ip link set lo down");
    EXPECT_TRUE(told("STATUS=0 of 1 exporters ready"));
    agent.stop();
    EXPECT_TRUE(manager.take().ends_with("STOPPING=1\n"));
    agent.stop();
    agent.reload();
  }
  EXPECT_LE(support::openFds(), before + 1) << "the socket to the service manager stays open";
}

TEST(AgentLog, WaitsForNoReaderOfStandardError) {
  for (const bool pipe : {true, false}) {
    int ends[2];
    ASSERT_EQ(
        pipe ? pipe2(ends, O_CLOEXEC) : socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends),
        0);
    const Fd reader(ends[0]);
    Fd writer(ends[1]);
    const Fd saved(dup(STDERR_FILENO));
    dup2(writer.get(), STDERR_FILENO);
    writer.close();
    alarm(60);  // ends a test that waits
    {
      AgentLog log = AgentLog::standard();
      for (int i = 0; i < 2000; ++i)
        log.tell(Severity::error, std::string(i % 3 == 0 ? 200000 : 300, 'x'));
    }
    alarm(0);
    const int flags = fcntl(STDERR_FILENO, F_GETFL);
    dup2(saved.get(), STDERR_FILENO);
    EXPECT_EQ(flags & O_NONBLOCK, 0) << "other processes share it";
    std::string got;
    char piece[65536];
    for (ssize_t n; (n = read(reader.get(), piece, sizeof piece)) > 0;)
      got.append(piece, size_t(n));
    EXPECT_GT(got.size(), 10000u);
    std::istringstream lines(got);
    for (std::string line; std::getline(lines, line);) {
      EXPECT_TRUE(line.ends_with(line.size() < 1000 ? "xxx" : "xxx..."));
      EXPECT_LT(line.size(), AgentLog::lineMax);
    }
  }
}

TEST(AgentLog, HoldsBackWhatComesTooOftenAndSaysHowMuch) {
  std::vector<std::string> out;
  AgentLog log(AgentLog::Style::journal,
               [&](std::string_view line) { out.emplace_back(line.substr(3)); });
  AgentLog::Clock::time_point now{};
  log.nowIs([&] { return now; });
  int wakes = 0;
  log.heldHandlerIs([&] { ++wakes; });
  constexpr auto burst = static_cast<size_t>(AgentLog::burst);
  /// Of `n` such lines, how many are written.
  const auto written = [&](size_t n, const std::function<void(const std::string&)>& say) {
    out.clear();
    for (size_t i = 0; i < n; ++i) say(std::to_string(i));
    return out.size();
  };
  const auto flap = [&](const std::string& n) { log.warning("link " + n); };
  EXPECT_EQ(written(burst + 20, flap), burst);
  EXPECT_EQ(wakes, 1);
  now += AgentLog::refill;
  EXPECT_EQ(written(2, flap), 2u);
  EXPECT_EQ(out[0], "held back within 2 s: 20 lines of one kind, the last: link 69\n");
  EXPECT_EQ(out[1], "link 0\n");
  now += 500ms;
  out.clear();
  log.tellHeld();
  log.tellHeld();
  EXPECT_EQ(out, std::vector<std::string>{"held back within 1 s: 1 line: link 1\n"});
  // Other kinds are not concerned, and what the operator waits for never is. Endpoints differ in
  // their names, not in kind; trace levels that were asked for are not limited.
  const LogMessage named = {
      .name = "NAMED", .severity = 6, .format = "%s", .explanation = {}, .recommendedAction = {}};
  EXPECT_EQ(written(1, [&](const std::string& n) { log.log(named, {&n, 1}); }), 1u);
  EXPECT_EQ(written(3 * burst, [&](const auto& n) { log.tell(Severity::error, n); }), 3 * burst);
  const auto fails = [&](const std::string& n) {
    log.line(TraceLevel::error, "udpPam4-a-" + n + ": sending fails: no route");
  };
  EXPECT_EQ(written(2 * burst, fails), burst);
  log.levelIs(TraceLevel::event);
  EXPECT_EQ(written(2 * burst, [&](const auto&) { log.line(TraceLevel::event, "X::y happened"); }),
            2 * burst);
}

}  // namespace
}  // namespace agent
