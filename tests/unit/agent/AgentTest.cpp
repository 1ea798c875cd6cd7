#include "agent/Agent.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <array>
#include <filesystem>
#include <fstream>

#include "World.h"
#include "platform/UdpPam.h"
#include "platform/linux/ShmTable.h"

namespace agent {
namespace {
using namespace std::chrono_literals;

/// A datagram socket that only receives.
class Receiver {
 public:
  /// On 127.0.0.1, at a port of the kernel's choice.
  Receiver() : fd_(socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    EXPECT_EQ(bind(fd_, reinterpret_cast<sockaddr*>(&a), len), 0);
    EXPECT_EQ(getsockname(fd_, reinterpret_cast<sockaddr*>(&a), &len), 0);
    port_ = ntohs(a.sin_port);
  }
  explicit Receiver(const std::string& path)
      : fd_(socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    path.copy(a.sun_path, sizeof a.sun_path - 1);
    EXPECT_EQ(bind(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
  }
  ~Receiver() { close(fd_); }
  uint16_t port() const { return port_; }
  /// How many messages came that begin with one of these sets.
  size_t templates() {
    return count([](uint16_t set) { return set < 4; });
  }
  size_t tables() {
    return count([](uint16_t set) { return set >= 256; });
  }
  /// All that came, in order.
  const std::vector<std::string>& all() {
    std::array<char, 65536> buffer;
    for (ssize_t n; (n = recv(fd_, buffer.data(), buffer.size(), 0)) >= 0;)
      all_.emplace_back(buffer.data(), static_cast<size_t>(n));
    return all_;
  }

 private:
  template <class Is>
  size_t count(Is is) {
    size_t n = 0;
    for (const std::string& m : all())
      n += m.size() > 18 && is(static_cast<uint16_t>(uint8_t(m[16]) << 8 | uint8_t(m[17])));
    return n;
  }

  int fd_;
  uint16_t port_ = 0;
  std::vector<std::string> all_;
};

class AgentTest : public World {
 protected:
  void SetUp() override {
    World::SetUp();
    if (IsSkipped()) return;
    run("ip link set lo up");
  }
  void TearDown() override {
    for (const char* name : {"NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID"}) unsetenv(name);
  }

  std::string config(const std::string& collectors, const std::string& interval = "60s") {
    return "[agent]\nstatistics = \"" + statistics + "\"\n" +
           "[tracker.edge]\nid = 7\n[tracker.edge.exporter.main]\nlocal-interface = \"lo\"\n"
           "template-interval = \"" +
           interval + "\"\n" + collectors;
  }
  static std::string collector(const std::string& name, const Receiver& r) {
    return "[tracker.edge.exporter.main.collector." + name +
           "]\naddress = \"127.0.0.1\"\nport = " + std::to_string(r.port()) + "\n";
  }
  void write(const std::string& text) { std::ofstream(file) << text; }
  bool segmentExists() const {
    const int fd = shm_open(statistics.c_str(), O_RDONLY, 0);
    if (fd >= 0) close(fd);
    return fd >= 0;
  }
  static size_t descriptors() {
    namespace fs = std::filesystem;
    return static_cast<size_t>(
        std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator()));
  }

  const std::string statistics = "/tt-" + std::to_string(getpid());
  const std::string file = "/run/tarnflow.toml";
  Heard heard;
};

TEST_F(AgentTest, StartsReloadsAndStops) {
  Receiver one;
  Receiver two;
  const size_t before = descriptors();
  {
    const Ptr<EventLoop> loop = eventLoopFactory();
    Agent agent(loop, heard.log, {.configFile = file});
    write(config(collector("one", one)));
    ASSERT_TRUE(agent.start()) << heard.text;
    EXPECT_TRUE(until(*loop, [&] { return one.templates() == 2 && one.tables() > 0; }))
        << heard.text;
    EXPECT_TRUE(segmentExists());
    EXPECT_EQ(agent.entities().readyExporters(), 1u);

    // An error changes nothing.
    heard.text.clear();
    write(config(collector("one", one) + collector("two", two) + "prot = 1\n"));
    agent.reload();
    EXPECT_EQ(heard.text,
              "<3>/run/tarnflow.toml:14:1: key 'tracker.edge.exporter.main.collector.two.prot': "
              "unknown; did you mean 'port'?\n"
              "<3>not reloaded: /run/tarnflow.toml is not valid; everything runs on as it was "
              "before\n");
    EXPECT_FALSE(until(
        *loop, [&] { return !two.all().empty(); }, 100ms));

    // One collector more: it hears at once, and only it.
    heard.text.clear();
    write(config(collector("one", one) + collector("two", two)));
    agent.reload();
    EXPECT_EQ(heard.text, "<6>reloaded /run/tarnflow.toml: collectors: 1 added\n");
    EXPECT_TRUE(until(*loop, [&] { return two.templates() == 2 && two.tables() > 0; }));
    EXPECT_EQ(one.templates(), 2u);

    // Without trackers it idles; with one of the other kind it works again.
    write("");
    agent.reload();
    EXPECT_TRUE(heard.has("agent.statistics and agent.control take effect at the next start"));
    EXPECT_EQ(agent.entities().readyExporters(), 0u);
    std::string hardware = config(collector("one", one));
    hardware.replace(hardware.find("id = 7"), 6, "id = 8\ntype = \"hardware\"");
    write(hardware);
    agent.reload();
    // No device has told of data templates.
    EXPECT_TRUE(until(*loop, [&] { return one.templates() == 3; }));
    EXPECT_TRUE(heard.has("tracker edge: devices send to "));
    EXPECT_EQ(one.all().back()[15], 8);  // the observation domain id's last octet

    heard.text.clear();
    agent.stop();
    EXPECT_TRUE(heard.text.ends_with("<6>stopped\n")) << heard.text;
    EXPECT_FALSE(segmentExists());
    agent.stop();
    agent.reload();
  }
  EXPECT_EQ(descriptors(), before);
}

TEST_F(AgentTest, DoesNotStart) {
  {
    Agent agent(eventLoopFactory(), heard.log, {.configFile = "/run/nothing.toml"});
    EXPECT_FALSE(agent.start());
    EXPECT_EQ(heard.text,
              "<3>/run/nothing.toml: cannot be read: No such file or directory\n"
              "<3>not started: /run/nothing.toml is not valid\n");
  }
  heard.text.clear();
  write(config(""));
  const auto taken = shmTableFactory(statistics, 8, 8, 1);
  Agent agent(eventLoopFactory(), heard.log, {.configFile = file});
  EXPECT_FALSE(agent.start());
  EXPECT_TRUE(heard.text.starts_with("<3>not started: ")) << heard.text;
  EXPECT_TRUE(heard.has(statistics)) << heard.text;
  EXPECT_TRUE(heard.has(std::to_string(getpid()))) << heard.text;
  EXPECT_TRUE(heard.has("agent.statistics")) << heard.text;
  EXPECT_TRUE(segmentExists());
}

TEST_F(AgentTest, TellsTheServiceManager) {
  Receiver manager("/run/notify");
  setenv("NOTIFY_SOCKET", "/run/notify", 1);
  setenv("WATCHDOG_USEC", "200000", 1);
  const auto has = [&](const std::string& part, size_t from = 0) {
    for (size_t i = from; i < manager.all().size(); ++i)
      if (manager.all()[i].find(part) != std::string::npos) return true;
    return false;
  };
  Receiver one;
  write(config(collector("one", one)));
  const Ptr<EventLoop> loop = eventLoopFactory();
  Agent agent(loop, heard.log, {.configFile = file});
  ASSERT_TRUE(agent.start()) << heard.text;
  EXPECT_FALSE(has("READY=1"));
  ASSERT_TRUE(until(*loop, [&] { return has("READY=1"); }));
  EXPECT_EQ(one.templates(), 2u);  // ready is who has sent its templates
  EXPECT_TRUE(has("STATUS=1 of 1 exporters ready, 1 collectors"));
  const size_t ready = manager.all().size();
  EXPECT_TRUE(until(*loop, [&] { return has("WATCHDOG=1", ready); }));

  const size_t reload = manager.all().size();
  agent.reload();
  EXPECT_TRUE(has("RELOADING=1\nMONOTONIC_USEC=", reload));
  EXPECT_TRUE(has("READY=1", reload));
  run("ip link set lo down");
  EXPECT_TRUE(until(*loop, [&] { return has("STATUS=0 of 1 exporters ready", reload); }));
  agent.stop();
  EXPECT_EQ(manager.all().back(), "STOPPING=1");
}

TEST_F(AgentTest, ExporterInANamespaceThatComesLater) {
  Receiver unused;
  const Ptr<EventLoop> loop = eventLoopFactory();
  Agent agent(loop, heard.log, {.configFile = file});
  const auto ready = [&] { return agent.entities().readyExporters() == 1; };
  write(config(""));
  ASSERT_TRUE(agent.start());
  ASSERT_TRUE(until(*loop, ready));
  const size_t without = descriptors();
  write(config("vrf = \"red\"\n" + collector("one", unused)));
  agent.reload();
  EXPECT_FALSE(until(*loop, ready, 50ms));
  for (int round = 0; round < 3; ++round) {
    run("ip netns add ns-red && ip -n ns-red link set lo up");
    run("ip link add far type veth peer name near netns ns-red");
    ASSERT_TRUE(until(*loop, ready)) << heard.text;
    // Gone, and nothing of ours holds it: the kernel takes the pair of devices away.
    run("ip netns del ns-red");
    ASSERT_TRUE(until(*loop, [&] { return !ready(); })) << heard.text;
    ASSERT_TRUE(until(*loop, [&] { return std::system("ip link show far >/dev/null 2>&1") != 0; }));
  }
  EXPECT_EQ(unused.all().size(), 0u);

  // Back home, the other namespace is only looked at, and kept no longer than it is there.
  run("ip netns add ns-red && ip -n ns-red link set lo up");
  ASSERT_TRUE(until(*loop, ready)) << heard.text;
  EXPECT_GT(descriptors(), without);
  write(config(""));
  agent.reload();
  EXPECT_TRUE(ready());
  EXPECT_EQ(descriptors(), without + 1);
  run("ip netns del ns-red");
  EXPECT_TRUE(until(*loop, [&] { return descriptors() == without; }));
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
