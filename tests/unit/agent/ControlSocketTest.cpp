#include "agent/ControlSocket.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>

#include <algorithm>
#include <fstream>
#include <nlohmann/json.hpp>

#include "World.h"
#include "agent/CollectorStates.h"
#include "agent/ControlRequests.h"
#include "tests/support/Net.h"

namespace agent {
namespace {
using namespace std::chrono_literals;
using Json = nlohmann::ordered_json;

const std::string path = "/run/tarn/control.sock";

/// A client that does nothing unless it is told to.
class Client {
 public:
  explicit Client(const std::string& to = path)
      : fd_(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    to.copy(a.sun_path, sizeof a.sun_path - 1);
    connected = connect(fd_.get(), reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
  }
  void send(std::string_view text) {
    EXPECT_EQ(::send(fd_.get(), text.data(), text.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(text.size()));
  }
  void sendsNoMore() { shutdown(fd_.get(), SHUT_WR); }
  /// All that came so far; notes the end.
  const std::string& got() {
    char piece[65536];
    ssize_t n = 0;
    while ((n = recv(fd_.get(), piece, sizeof piece, 0)) > 0) got_.append(piece, size_t(n));
    if (n == 0 || (n < 0 && errno == ECONNRESET)) ended = true;
    return got_;
  }
  bool over() {
    got();
    return ended;
  }
  bool connected = false;
  bool ended = false;

 private:
  Fd fd_;
  std::string got_;
};

class ControlSocketTest : public World {
 protected:
  void listen(const ControlSocket::Limits& limits = {}) {
    control = std::make_unique<ControlSocket>(
        loop, heard.log,
        [this](const ControlPeer& peer, std::string_view line) {
          asked.emplace_back(line);
          last = peer;
          return answer ? answer(line) : '<' + std::string(line) + '>';
        },
        limits);
    ASSERT_TRUE(control->listen(path)) << heard.text;
  }
  bool until(const std::function<bool()>& done, std::chrono::milliseconds limit = 5s) {
    return agent::until(*loop, done, limit);
  }
  void rounds(int n) {
    for (int i = 0; i < n; ++i) loop->runOnce(Seconds(0));
  }

  Ptr<EventLoop> loop = eventLoopFactory();
  Heard heard;
  std::unique_ptr<ControlSocket> control;
  std::vector<std::string> asked;
  ControlPeer last;
  std::function<std::string(std::string_view)> answer;
};

TEST_F(ControlSocketTest, LinesArriveInPiecesOrTogether) {
  listen();
  Client one;
  for (const char c : std::string("abc\r\n")) {
    one.send({&c, 1});
    rounds(2);
  }
  EXPECT_TRUE(until([&] { return one.got() == "<abc>\n"; })) << one.got();

  Client two;
  two.send("1\n\n2\nlast");
  two.sendsNoMore();
  EXPECT_TRUE(until([&] { return two.over(); }));
  EXPECT_EQ(two.got(), "<1>\n<>\n<2>\n<last>\n");
  EXPECT_EQ(control->connections(), 1u);
  EXPECT_EQ(last.uid, geteuid());
  EXPECT_EQ(last.pid, getpid());
  EXPECT_TRUE(last.mayChange);
}

TEST_F(ControlSocketTest, LongLinesAreRefused) {
  listen({.requestMax = 100});
  Client longest;
  longest.send(std::string(100, 'x') + '\n');
  Client tooLong;
  tooLong.send(std::string(101, 'x') + '\n');
  Client endless;
  endless.send(std::string(150, 'x'));
  EXPECT_TRUE(until([&] { return tooLong.over() && endless.over() && !longest.got().empty(); }));
  EXPECT_EQ(asked, std::vector<std::string>{std::string(100, 'x')});
  for (Client* c : {&tooLong, &endless})
    EXPECT_NE(c->got().find("more than 100 octets"), std::string::npos) << c->got();
  EXPECT_EQ(control->connections(), 1u);
}

TEST_F(ControlSocketTest, ConnectionsAreBoundedAndFreedPlacesAreGivenAgain) {
  listen({.connectionsMax = 3});
  std::vector<std::unique_ptr<Client>> clients;
  for (int i = 0; i < 3; ++i) clients.push_back(std::make_unique<Client>());
  ASSERT_TRUE(until([&] { return control->connections() == 3; }));
  Client turnedAway;
  EXPECT_TRUE(until([&] { return turnedAway.over(); }));
  EXPECT_NE(turnedAway.got().find("too many connections"), std::string::npos);
  clients.pop_back();
  ASSERT_TRUE(until([&] { return control->connections() == 2; }));
  Client next;
  next.send("hello\n");
  EXPECT_TRUE(until([&] { return next.got() == "<hello>\n"; }));
}

TEST_F(ControlSocketTest, WhoDoesNotReadIsAskedNoMoreAndLetGo) {
  listen({.patience = 1500ms});
  answer = [](std::string_view) { return std::string(4 << 20, 'x'); };
  Client stuck;
  std::string many;
  for (int i = 0; i < 1000; ++i) many += "again\n";
  stuck.send(many);
  ASSERT_TRUE(until([&] { return !asked.empty(); }));
  until([] { return false; }, 100ms);
  EXPECT_EQ(asked.size(), 1u) << "one answer waits, no more";
  // Others are served meanwhile.
  answer = nullptr;
  Client other;
  other.send("hello\n");
  EXPECT_TRUE(until([&] { return other.got() == "<hello>\n"; }));
  other.send("half a req");
  EXPECT_TRUE(until([&] { return control->connections() == 0; })) << "both took too long";
}

TEST_F(ControlSocketTest, DrippingDoesNotBuyTime) {
  listen({.patience = 1000ms});
  Client slow;
  const auto start = std::chrono::steady_clock::now();
  while (control->connections() == 0) rounds(1);
  while (control->connections() == 1 && std::chrono::steady_clock::now() - start < 4s) {
    slow.send(".");
    until([] { return false; }, 50ms);
  }
  EXPECT_EQ(control->connections(), 0u);
  EXPECT_EQ(slow.got(), "") << "not for the length of its line";
}

TEST_F(ControlSocketTest, OtherWorkHasItsTurnBetweenTwoAnswers) {
  listen();
  int turns = 0;
  std::unique_ptr<TimerTask> task = loop->taskScheduler()->timerTask("other", 2, [&] {
    ++turns;
    task->scheduleIs(Seconds(0));
  });
  task->scheduleIs(Seconds(0));
  std::vector<int> turnsAtAnswer;
  std::vector<std::chrono::steady_clock::time_point> at;
  answer = [&](std::string_view) {
    turnsAtAnswer.push_back(turns);
    at.push_back(std::chrono::steady_clock::now());
    while (std::chrono::steady_clock::now() - at.back() < 3ms) {
    }
    return std::string("done");
  };
  std::vector<std::unique_ptr<Client>> greedy;
  for (int i = 0; i < 8; ++i) {
    greedy.push_back(std::make_unique<Client>());
    greedy.back()->send("a\nb\nc\n");
  }
  ASSERT_TRUE(until([&] { return turnsAtAnswer.size() == 24; }));
  for (size_t i = 1; i < turnsAtAnswer.size(); ++i) {
    EXPECT_GT(turnsAtAnswer[i], turnsAtAnswer[i - 1]) << i;
    EXPECT_GE(at[i] - at[i - 1], 6ms) << "as long as the answer took";
  }
}

TEST_F(ControlSocketTest, AClientThatIsGoneCostsNothing) {
  listen({.connectionsMax = 100});
  for (int i = 0; i < 50; ++i) {
    Client gone;
    gone.send("hello\nagain\nlast");
    rounds(i % 3);
  }
  EXPECT_TRUE(until([&] { return control->connections() == 0; }));
  EXPECT_EQ(asked.size(), 150u) << "what was asked is done, whoever stays for the answer";
  EXPECT_EQ(std::count(asked.begin(), asked.end(), "last"), 50);
  Client here;
  here.send("hello\n");
  EXPECT_TRUE(until([&] { return here.got() == "<hello>\n"; }));
  control.reset();
  EXPECT_NE(access("/run/tarn", F_OK), 0) << "nothing is left behind";
}

TEST_F(ControlSocketTest, OtherUsersMayLookAndHaveTheirShareOfPlaces) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to be somebody else";
  listen({.connectionsMax = 4, .strangersMax = 2});
  int ready[2];
  int done[2];
  ASSERT_EQ(pipe(ready) | pipe(done), 0);
  const pid_t child = fork();
  if (child == 0) {
    if (setresuid(12345, 12345, 12345) != 0) _exit(1);
    std::vector<std::unique_ptr<Client>> all;
    for (int i = 0; i < 4; ++i) all.push_back(std::make_unique<Client>());
    all[0]->send("stranger\n");
    char c = 'r';
    if (write(ready[1], &c, 1) != 1 || read(done[0], &c, 1) != 1) _exit(2);
    _exit(all[0]->got() == "<stranger>\n" && all[3]->over() ? 0 : 3);
  }
  char c = 0;
  ASSERT_EQ(read(ready[0], &c, 1), 1);
  ASSERT_TRUE(until([&] { return asked == std::vector<std::string>{"stranger"}; }));
  EXPECT_EQ(last.uid, 12345u);
  EXPECT_FALSE(last.mayChange);
  EXPECT_EQ(control->connections(), 2u);
  Client root;
  root.send("root\n");
  EXPECT_TRUE(until([&] { return root.got() == "<root>\n"; })) << "strangers cannot shut it out";
  ASSERT_EQ(write(done[1], "d", 1), 1);
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
}

TEST_F(ControlSocketTest, TakesNobodysPlaceAndLeavesNothingBehind) {
  const mode_t mask = umask(077);
  listen();
  umask(mask);
  struct stat directory {};
  ASSERT_EQ(stat("/run/tarn", &directory), 0);
  EXPECT_EQ(directory.st_mode & 0777, 0755u) << "others reach the socket";
  std::ofstream("/run/tarn/file") << "mine";
  const std::pair<std::string, std::string> wrong[] = {
      {path, "is that of a living program (pid " + std::to_string(getpid()) + ")"},
      {"/run/tarn/file", ""},
      {"/run/no/such/directory/x", ""},
      {"/run/" + std::string(150, 'x'), ""}};
  for (const auto& [where, why] : wrong) {
    ControlSocket other(loop, heard.log, [](const ControlPeer&, std::string_view) { return ""; });
    heard.text.clear();
    EXPECT_FALSE(other.listen(where));
    EXPECT_TRUE(heard.has("<4>no control socket: ") && heard.has(why)) << heard.text;
  }
  EXPECT_EQ(access("/run/tarn/file", F_OK), 0);
  struct stat there {};
  ASSERT_EQ(lstat(path.c_str(), &there), 0) << "the second one must not take it away";
  EXPECT_EQ(there.st_mode & 0777, 0666u);
  // A copy of the name keeps a socket without its program: that may be replaced.
  ASSERT_EQ(link(path.c_str(), "/run/tarn/left.sock"), 0);
  control.reset();
  EXPECT_NE(access(path.c_str(), F_OK), 0);
  ASSERT_EQ(rename("/run/tarn/left.sock", path.c_str()), 0);
  listen();
  Client c;
  c.send("hello\n");
  EXPECT_TRUE(until([&] { return c.got() == "<hello>\n"; }));
}

TEST_F(ControlSocketTest, AnswersWhenAllDescriptorsAreTaken) {
#if defined(__SANITIZE_ADDRESS__)
  GTEST_SKIP() << "the sanitizer opens a pipe to look at memory, and takes a refusal for a fault";
#endif
  listen();
  answer = [](std::string_view) {
    return std::string(Fd(open("/dev/null", O_RDONLY)) ? "opened" : "no descriptor");
  };
  Client early[3];
  rlimit limit{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  const rlimit before = limit;
  limit.rlim_cur = support::openFds() + 10;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  std::vector<Fd> taken;
  for (Fd fd(dup(0)); fd; fd = Fd(dup(0))) taken.push_back(std::move(fd));
  for (int round = 0; round < 3; ++round)
    for (Client& c : early) {
      c.send("hello\n");
      EXPECT_TRUE(until([&] { return c.got().ends_with("opened\n"); })) << c.got();
    }
  taken.clear();
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
}

TEST_F(ControlSocketTest, AFileThatWasRemovedIsMadeAgainUnlessAnotherAgentHasThePlace) {
  listen();
  Client before;
  ASSERT_EQ(unlink(path.c_str()), 0);
  heard.text.clear();
  control->restore();
  control->restore();
  EXPECT_EQ(heard.text, "<5>control socket " + path + " was removed: it is made again\n");
  Client after;
  for (Client* c : {&before, &after}) {
    c->send("hello\n");
    EXPECT_TRUE(until([&] { return c->got() == "<hello>\n"; }));
  }
  ASSERT_EQ(unlink(path.c_str()), 0);
  auto other = std::make_unique<ControlSocket>(
      loop, heard.log, [](const ControlPeer&, std::string_view) { return "other"; });
  ASSERT_TRUE(other->listen(path));
  heard.text.clear();
  control->restore();
  control->restore();
  EXPECT_EQ(heard.text.find("is that of a living program"),
            heard.text.rfind("is that of a living program"));
  EXPECT_TRUE(heard.has("is that of a living program")) << heard.text;
  control.reset();
  Client there;
  there.send("hello\n");
  EXPECT_TRUE(until([&] { return there.got() == "other\n"; }));
}

// What is told of collectors, and counted, follows from an endpoint's counters between two looks.
TEST(CollectorStates, WhatAnEndpointTookAndRefused) {
  using Drops = std::map<int, uint64_t>;
  const auto* first = reinterpret_cast<const UdpPam*>(0x1000);
  const auto* second = reinterpret_cast<const UdpPam*>(0x2000);
  struct Step {
    const char* what;
    const UdpPam* pam;
    uint64_t sent;
    Drops drops;
    int refused;
    int partly;
    uint64_t totalSent;
    uint64_t totalRefused;
  };
  CollectorStates::Endpoint e;
  for (const Step& s : std::vector<Step>{
           {"all taken", first, 10, {}, 0, 0, 10, 0},
           {"some refused", first, 15, {{EPERM, 1}, {ENETUNREACH, 4}}, 0, ENETUNREACH, 15, 5},
           {"all refused", first, 15, {{EPERM, 9}, {ENETUNREACH, 4}}, EPERM, 0, 15, 13},
           {"nothing to send", first, 15, {{EPERM, 9}, {ENETUNREACH, 4}}, EPERM, 0, 15, 13},
           {"a new one", second, 2, {{EPERM, 1}}, 0, EPERM, 17, 14},
           {"a new one at its place", second, 0, {{ENETUNREACH, 3}}, ENETUNREACH, 0, 17, 17},
           {"and one that sent more", second, 1, {}, 0, 0, 18, 17}}) {
    UdpPamCounters now;
    now.sent = s.sent;
    now.dropByErrno = s.drops;
    e.follow(s.pam, now);
    EXPECT_EQ(e.refused, s.refused) << s.what;
    EXPECT_EQ(e.partly, s.partly) << s.what;
    EXPECT_EQ(e.total.sent, s.totalSent) << s.what;
    EXPECT_EQ(e.total.refused, s.totalRefused) << s.what;
  }
  for (int err = 1000; err < 1020; ++err) e.total.addRefused(err, 1);
  uint64_t sum = 0;
  for (const auto& c : e.total.causes) sum += c.datagrams;
  EXPECT_EQ(sum, e.total.refused);
  EXPECT_EQ(e.total.causes.back().error, 0u);
}

TEST(ControlRequests, WhatIsAskedWrongly) {
  Heard heard;
  int reloads = 0;
  const Settings settings;
  ControlHost host;
  host.view.settings = [&]() -> const Settings& { return settings; };
  host.roots = [] { return std::vector<StateTree::Root>(); };
  host.reload = [&] {
    ++reloads;
    return ReloadOutcome{.done = true, .summary = "reloaded", .errors = {}, .warnings = {}};
  };
  host.clearCounters = [&] { ++reloads; };
  ControlRequests requests(std::move(host), heard.log);
  const ControlPeer root{.uid = 0, .mayChange = true};
  const ControlPeer other{.uid = 1000, .mayChange = false};
  const auto ask = [&](const ControlPeer& peer, const std::string& line) {
    const std::string text = requests.answer(peer, line);
    EXPECT_EQ(text.find('\n'), std::string::npos);
    return Json::parse(text);
  };
  struct Case {
    ControlPeer peer;
    std::string line;
    std::string code;
    std::string says;
  };
  for (const Case& c : std::vector<Case>{
           {root, "", "badRequest", "one JSON object"},
           {root, "{", "badRequest", "one JSON object"},
           {root, "[\"agent\"]", "badRequest", "one JSON object"},
           {root, std::string(4000, '['), "badRequest", "one JSON object"},
           {root, "{}", "unknownRequest", "reload"},
           {root, "{\"request\":7}", "badRequest", "'request'"},
           {root, "{\"request\":\"x\\u001b\\u0000\"}", "unknownRequest", "x\\x1b\\x00"},
           {root, "{\"request\":\"\xff\"}", "badRequest", "one JSON object"},
           {root, "{\"request\":\"state\",\"paht\":\"x\"}", "badRequest", "path, after"},
           {root, "{\"request\":\"state\",\"path\":[]}", "badRequest", "'path'"},
           {root, "{\"request\":\"state\",\"path\":\"x/%zz/=\"}", "notFound", "'x'"},
           {root, "{\"request\":\"tables\",\"name\":\"x\"}", "notFound", "interfaces, vrfs"},
           {root, "{\"request\":\"collectors\",\"tracker\":\"x\"}", "notFound", "tracker 'x'"},
           {root, "{\"request\":\"logLevel\",\"level\":10}", "badRequest", "0 to 9"},
           {other, "{\"request\":\"reload\"}", "notAllowed", "user 1000"},
           {other, "{\"request\":\"clearCounters\"}", "notAllowed", "user 1000"},
           {other, "{\"request\":\"resend\"}", "notAllowed", "user 1000"},
           {other, "{\"request\":\"logLevel\",\"level\":5}", "notAllowed", "user 1000"}}) {
    const Json answer = ask(c.peer, c.line);
    EXPECT_EQ(answer["ok"], false) << c.line;
    EXPECT_EQ(answer["code"], c.code) << c.line;
    EXPECT_NE(answer["error"].get<std::string>().find(c.says), std::string::npos) << answer;
  }
  EXPECT_EQ(reloads, 0);
  EXPECT_EQ(heard.log.level(), 0);
  EXPECT_EQ(ask(root, "{\"request\":\"reload\",\"id\":[1,\"a\"]}")["id"], Json::parse("[1,\"a\"]"));
  EXPECT_EQ(reloads, 1);
  EXPECT_EQ(ask(other, "{\"request\":\"logLevel\"}")["level"], 0);
  EXPECT_EQ(ask(root, "{\"request\":\"logLevel\",\"level\":\"detail\"}")["level"], 5);
  EXPECT_EQ(heard.log.level(), 5);
}

}  // namespace
}  // namespace agent
