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
  explicit Manager(const std::string& path)
      : fd_(socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    path.copy(a.sun_path, sizeof a.sun_path - 1);
    EXPECT_EQ(bind(fd_.get(), reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
  }
  /// Messages of somebody else, until there is room for no more.
  static void fill(const std::string& path) {
    const Fd fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    path.copy(a.sun_path, sizeof a.sun_path - 1);
    while (sendto(fd.get(), "X", 1, 0, reinterpret_cast<sockaddr*>(&a), sizeof a) == 1) {
    }
  }
  /// All that came, in order.
  const std::vector<std::string>& all() {
    std::array<char, 4096> buffer;
    for (ssize_t n; (n = recv(fd_.get(), buffer.data(), buffer.size(), 0)) >= 0;)
      all_.emplace_back(buffer.data(), static_cast<size_t>(n));
    return all_;
  }
  bool has(const std::string& part, size_t from = 0) {
    for (size_t i = from; i < all().size(); ++i)
      if (all_[i].find(part) != std::string::npos) return true;
    return false;
  }

 private:
  Fd fd_;
  std::vector<std::string> all_;
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
    Manager::fill("/run/notify");  // a manager that is busy gets everything later, nobody waits
    alarm(60);
    ASSERT_TRUE(agent.start()) << heard.text;
    until(
        *loop, [] { return false; }, 300ms);
    alarm(0);
    EXPECT_FALSE(manager.has("READY=1"));
    ASSERT_TRUE(until(*loop, [&] { return manager.has("READY=1"); }));
    EXPECT_TRUE(manager.has("STATUS=1 of 1 exporters ready, 1 collectors"));
    const size_t ready = manager.all().size();
    EXPECT_TRUE(until(*loop, [&] { return manager.has("WATCHDOG=1", ready); }));

    const size_t reload = manager.all().size();
    agent.reload();
    EXPECT_TRUE(manager.has("RELOADING=1\nMONOTONIC_USEC=", reload));
    EXPECT_TRUE(manager.has("READY=1", reload));
    run("ip link set lo down");
    EXPECT_TRUE(until(*loop, [&] { return manager.has("STATUS=0 of 1 exporters ready", reload); }));
    agent.stop();
    EXPECT_EQ(manager.all().back(), "STOPPING=1");
    agent.stop();
    agent.reload();
  }
  EXPECT_EQ(support::openFds(), before);
}

TEST(AgentLog, LinesOfBothStyles) {
  std::string out;
  const auto output = [&](std::string_view line) { out += line; };
  AgentLog journal(AgentLog::Style::journal, output);
  journal.warning("interface a\nb\x1b[1m");
  journal.line(TraceLevel::event, "not shown");
  journal.levelIs(TraceLevel::event);
  journal.line(TraceLevel::event, "shown");
  journal.line(TraceLevel::detail, "not shown");
  journal.line(TraceLevel::error, "an error");
  EXPECT_EQ(out, "<4>interface a\\nb\\x1b[1m\n<6>shown\n<4>an error\n");

  out.clear();
  AgentLog plain(AgentLog::Style::plain, output);
  plain.info("hello");
  plain.line(TraceLevel::error, "an error");
  ASSERT_EQ(out.size(), 2 * 25 + std::string("info hello\ntrace0 an error\n").size()) << out;
  EXPECT_EQ(out.substr(10, 1), "T");
  EXPECT_EQ(out.substr(23, 13), "Z info hello\n");
  EXPECT_TRUE(out.ends_with("Z trace0 an error\n"));

  EXPECT_EQ(traceLevelFromText("detail"), 5);
  EXPECT_EQ(traceLevelFromText("7"), 7);
  for (const char* bad : {"", "10", "-1", "loud"}) EXPECT_EQ(traceLevelFromText(bad), -1) << bad;
}

TEST(AgentLog, WaitsForNoReaderOfStandardError) {
  struct Case {
    const char* name;
    std::function<int(int*)> make;
  };
  for (const Case& c : {Case{"pipe", [](int* ends) { return pipe2(ends, O_CLOEXEC); }},
                        Case{"socket", [](int* ends) {
                               return socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends);
                             }}}) {
    int ends[2];
    ASSERT_EQ(c.make(ends), 0);
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
      EXPECT_TRUE(line.ends_with(line.size() < 1000 ? "xxx" : "xxx...")) << c.name;
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
  const auto flap = [&](int n) { log.warning("link " + std::to_string(n)); };
  const auto burst = static_cast<int>(AgentLog::burst);
  for (int i = 0; i < burst + 20; ++i) flap(i);
  ASSERT_EQ(out.size(), size_t(burst));
  EXPECT_EQ(wakes, 1);
  // Other kinds are not concerned, and what the operator waits for never is.
  log.info("another");
  const std::array<std::string, 1> args = {"x"};
  log.log(
      {.name = "NAMED", .severity = 6, .format = "%s", .explanation = {}, .recommendedAction = {}},
      args);
  log.line(TraceLevel::error, "udpPam4-a-b: sending fails: no route, to 10.0.0.1:1");
  EXPECT_EQ(out.size(), size_t(burst) + 3);
  for (int i = 0; i < 3 * burst; ++i) log.tell(Severity::error, "of a reload");
  EXPECT_EQ(out.size(), size_t(4 * burst) + 3);
  out.clear();

  now += AgentLog::refill;
  flap(1000);
  flap(1001);
  EXPECT_EQ(out,
            (std::vector<std::string>{
                "held back within 2 s: 20 lines of one kind, the last: link 69\n", "link 1000\n"}));
  out.clear();
  now += std::chrono::milliseconds(500);
  log.tellHeld();
  log.tellHeld();
  EXPECT_EQ(out, std::vector<std::string>{"held back within 1 s: 1 line: link 1001\n"});

  // Endpoints differ in their names, not in kind; trace levels that were asked for are not limited.
  out.clear();
  for (int i = 0; i < 2 * burst; ++i)
    log.line(TraceLevel::error, "udpPam4-a-" + std::to_string(i) + ": sending fails: no route");
  EXPECT_EQ(out.size(), size_t(burst));
  log.levelIs(TraceLevel::event);
  out.clear();
  for (int i = 0; i < 2 * burst; ++i) log.line(TraceLevel::event, "X::y happened");
  EXPECT_EQ(out.size(), size_t(2 * burst));
}

}  // namespace
}  // namespace agent
