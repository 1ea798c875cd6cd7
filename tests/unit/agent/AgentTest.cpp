#include "agent/Agent.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <fstream>

#include "World.h"

namespace agent {
namespace {
using namespace std::chrono_literals;

// (That it is ready and that it stops is for the system tests.)
TEST_F(World, TheServiceManagerIsToldHoweverBusyItIs) {
  sockaddr_un address{.sun_family = AF_UNIX, .sun_path = "/run/notify"};
  const auto* to = reinterpret_cast<const sockaddr*>(&address);
  const Fd manager(socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  ASSERT_EQ(bind(manager.get(), to, sizeof address), 0);
  setenv("NOTIFY_SOCKET", address.sun_path, 1);
  setenv("WATCHDOG_USEC", "200000", 1);
  setenv("RUNTIME_DIRECTORY", "/run", 1);
  run("ip link set lo up");
  std::ofstream("/run/tarnflow.toml") << "tracker.t.id = 7\n[tracker.t.exporter.e]\n"
                                         "local-interface = \"lo\"\ncollector.c.address = \"::1\"";
  Agent agent(loop, heard.log, {.configFile = "/run/tarnflow.toml"});
  std::string all;
  const auto told = [&](const char* what) {
    all.clear();
    return until([&] {
      char text[4096];
      for (ssize_t n = 0; (n = recv(manager.get(), text, sizeof text, 0)) > 0; all += '\n')
        all.append(text, size_t(n));
      return all.find(what) != all.npos;
    });
  };
  while (sendto(manager.get(), "X", 1, 0, to, sizeof address) == 1) {
  }
  alarm(60);  // ends a test that waits
  ASSERT_TRUE(agent.start()) << heard.text;
  EXPECT_EQ(access("/run/tarnflow.lock", F_OK), 0) << "where nobody else may put one";
  pass(300ms);
  alarm(0);
  EXPECT_TRUE(told("\nREADY=1\nSTATUS=1 of 1 exporters ready, 1 collectors"));
  EXPECT_TRUE(told("WATCHDOG=1"));
  agent.reload();
  EXPECT_TRUE(told("RELOADING=1\nMONOTONIC_USEC="));
  EXPECT_NE(all.find("READY=1"), all.npos);
  run("ip link set lo down");
  EXPECT_TRUE(told("STATUS=0 of 1 exporters ready"));
  agent.stop();
  agent.reload();
  EXPECT_TRUE(told("STOPPING=1\n") && all.ends_with("STOPPING=1\n")) << all;
}

TEST(AgentLog, WaitsForNoReaderOfStandardError) {
  for (const bool pipe : {true, false}) {
    int ends[2];
    ASSERT_EQ(pipe ? ::pipe(ends) : socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    const Fd saved(dup(STDERR_FILENO));
    dup2(ends[1], STDERR_FILENO);
    close(ends[1]);
    alarm(60);  // ends a test that waits
    {
      AgentLog log = AgentLog::standard();
      for (int i = 0; i < 2000; ++i)
        log.tell(Severity::error, std::string(i % 3 == 0 ? 200000 : 300, 'x'));
    }
    alarm(0);
    EXPECT_EQ(fcntl(STDERR_FILENO, F_GETFL) & O_NONBLOCK, 0) << "other processes share it";
    dup2(saved.get(), STDERR_FILENO);
    FILE* const reader = fdopen(ends[0], "r");
    char line[2 * AgentLog::lineMax];
    size_t got = 0;
    while (fgets(line, sizeof line, reader)) {
      const std::string_view text(line);
      got += text.size();
      EXPECT_TRUE(text.ends_with(text.size() < 1000 ? "xxx\n" : "xxx...\n")) << text;
      EXPECT_LE(text.size(), AgentLog::lineMax);
    }
    fclose(reader);
    EXPECT_GT(got, 10000u);
  }
}

TEST(AgentLog, HoldsBackWhatComesTooOftenAndSaysHowMuch) {
  Heard heard;
  AgentLog::Clock::time_point now{};
  heard.log.nowIs([&] { return now; });
  int wakes = 0;
  heard.log.heldHandlerIs([&] { ++wakes; });
  constexpr auto burst = static_cast<ptrdiff_t>(AgentLog::burst);
  /// Of `n` such lines, how many are written.
  const auto written = [&](ptrdiff_t n, const std::function<void(const std::string&)>& say) {
    heard.text.clear();
    for (ptrdiff_t i = 0; i < n; ++i) say(std::to_string(i));
    return std::count(heard.text.begin(), heard.text.end(), '\n');
  };
  const auto flap = [&](const std::string& n) { heard.log.warning("link " + n); };
  EXPECT_EQ(written(burst + 20, flap), burst);
  EXPECT_EQ(wakes, 1);
  now += AgentLog::refill;
  written(2, flap);
  EXPECT_EQ(heard.text,
            "<4>held back within 2 s: 20 lines of one kind, the last: link 69\n<4>link 0\n");
  now += 500ms;
  heard.text.clear();
  heard.log.tellHeld();
  heard.log.tellHeld();
  EXPECT_EQ(heard.text, "<4>held back within 1 s: 1 line: link 1\n");
  // What the operator waits for, and trace levels that were asked for, are not limited. Endpoints
  // differ in their names, not in kind.
  const auto fails = [&](const auto& n) { heard.log.line(0, "pam-" + n + ": sending fails: no"); };
  EXPECT_EQ(written(2 * burst, fails), burst);
  const auto asked = [&](const auto& n) { heard.log.tell(Severity::error, n); };
  EXPECT_EQ(written(2 * burst, asked), 2 * burst);
  heard.log.levelIs(TraceLevel::event);
  const auto traced = [&](const auto&) { heard.log.line(TraceLevel::event, "X::y happened"); };
  EXPECT_EQ(written(2 * burst, traced), 2 * burst);
}

}  // namespace
}  // namespace agent
