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
#include <tuple>

#include "World.h"
#include "agent/CollectorStates.h"
#include "agent/ControlRequests.h"
#include "tests/support/Net.h"

namespace agent {
namespace {
using namespace std::chrono_literals;
using namespace std::string_literals;
using Json = nlohmann::ordered_json;

const std::string path = "/run/tarn/control.sock";

/// A client that does nothing unless it is told to.
class Client {
 public:
  Client() : fd_(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    path.copy(a.sun_path, sizeof a.sun_path - 1);
    // One that cannot connect gets no answer.
    std::ignore = connect(fd_.get(), reinterpret_cast<sockaddr*>(&a), sizeof a);
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
    ended_ = ended_ || n == 0 || errno == ECONNRESET;
    return got_;
  }
  bool over() {
    got();
    return ended_;
  }

 private:
  Fd fd_;
  std::string got_;
  bool ended_ = false;
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
  void pass(std::chrono::milliseconds time) {
    until([] { return false; }, time);
  }
  /// The client asks, and this is the last it hears.
  testing::AssertionResult answers(Client& c, const std::string& with = "<hello>\n") {
    c.send("hello\n");
    if (until([&] { return c.got().ends_with(with); })) return testing::AssertionSuccess();
    return testing::AssertionFailure() << c.got();
  }

  Ptr<EventLoop> loop = eventLoopFactory();
  Heard heard;
  std::unique_ptr<ControlSocket> control;
  std::vector<std::string> asked;
  ControlPeer last;
  std::function<std::string(std::string_view)> answer;
};

TEST_F(ControlSocketTest, LinesArriveInPiecesOrTogetherAndNotTooLong) {
  listen({.requestMax = 100});
  Client one;
  for (const char c : std::string("abc\r\n")) {
    one.send({&c, 1});
    loop->runOnce(Seconds(0));
  }
  EXPECT_TRUE(until([&] { return one.got() == "<abc>\n"; })) << one.got();
  Client two;
  const std::string longest(100, 'x');
  two.send("1\n\n2\n" + longest + "\nlast");
  two.sendsNoMore();
  EXPECT_TRUE(until([&] { return two.over(); }));
  EXPECT_EQ(two.got(), "<1>\n<>\n<2>\n<" + longest + ">\n<last>\n");
  EXPECT_EQ(control->connections(), 1u);
  EXPECT_EQ(last.uid, geteuid());
  EXPECT_EQ(last.pid, getpid());
  EXPECT_TRUE(last.mayChange);
  asked.clear();
  Client tooLong;
  tooLong.send(longest + "x\n");
  Client endless;
  endless.send(longest + longest);
  EXPECT_TRUE(until([&] { return tooLong.over() && endless.over(); }));
  EXPECT_TRUE(asked.empty());
  for (Client* c : {&tooLong, &endless})
    EXPECT_NE(c->got().find("more than 100 octets"), std::string::npos) << c->got();
}

TEST_F(ControlSocketTest, WhoDoesNotReadOrEndItsLineIsLetGo) {
  listen({.patience = 1500ms});
  answer = [](std::string_view) { return std::string(4 << 20, 'x'); };
  Client stuck;
  std::string many;
  for (int i = 0; i < 1000; ++i) many += "again\n";
  stuck.send(many);
  ASSERT_TRUE(until([&] { return !asked.empty(); }));
  pass(100ms);
  EXPECT_EQ(asked.size(), 1u) << "one answer waits, no more";
  // Others are served meanwhile.
  answer = nullptr;
  Client other;
  EXPECT_TRUE(answers(other));
  other.send("half a req");
  Client dripping;
  pass(100ms);
  const auto start = std::chrono::steady_clock::now();
  while (control->connections() > 0 && std::chrono::steady_clock::now() - start < 5s) {
    dripping.send(".");
    pass(50ms);
  }
  EXPECT_EQ(control->connections(), 0u);
  EXPECT_EQ(dripping.got(), "") << "not for the length of its line";
}

TEST_F(ControlSocketTest, OtherWorkHasItsTurnBetweenTwoAnswers) {
  listen();
  std::vector<std::chrono::steady_clock::time_point> at;
  answer = [&](std::string_view) {
    at.push_back(std::chrono::steady_clock::now());
    while (std::chrono::steady_clock::now() - at.back() < 3ms) {
    }
    return std::string("done");
  };
  Client greedy[4];
  for (Client& c : greedy) c.send("a\nb\nc\n");
  ASSERT_TRUE(until([&] { return at.size() == 12; }));
  for (size_t i = 1; i < at.size(); ++i)
    EXPECT_GE(at[i] - at[i - 1], 6ms) << "as long as the answer took";
}

TEST_F(ControlSocketTest, AClientThatIsGoneCostsNothing) {
  listen({.connectionsMax = 100});
  for (int i = 0; i < 50; ++i) {
    Client gone;
    gone.send("hello\nagain\nlast");
    for (int n = i % 3; n > 0; --n) loop->runOnce(Seconds(0));
  }
  EXPECT_TRUE(until([&] { return control->connections() == 0; }));
  EXPECT_EQ(asked.size(), 150u) << "what was asked is done, whoever stays for the answer";
  EXPECT_EQ(std::count(asked.begin(), asked.end(), "last"), 50);
  Client here;
  EXPECT_TRUE(answers(here));
  control.reset();
  EXPECT_NE(access("/run/tarn", F_OK), 0) << "nothing is left behind";
}

TEST_F(ControlSocketTest, OtherUsersMayLookAndHaveTheirShareOfPlaces) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to be somebody else";
  listen({.connectionsMax = 4, .strangersMax = 2});
  int done[2];
  ASSERT_EQ(pipe(done), 0);
  const pid_t child = fork();
  if (child == 0) {
    if (setresuid(12345, 12345, 12345) != 0) _exit(1);
    Client all[4];
    all[0].send("stranger\n");
    char c = 0;
    if (read(done[0], &c, 1) != 1) _exit(2);
    _exit(all[0].got() == "<stranger>\n" && all[3].over() ? 0 : 3);
  }
  ASSERT_TRUE(until([&] { return asked == std::vector<std::string>{"stranger"}; }));
  EXPECT_EQ(last.uid, 12345u);
  EXPECT_FALSE(last.mayChange);
  EXPECT_EQ(control->connections(), 2u);
  auto root = std::make_unique<Client>();
  EXPECT_TRUE(answers(*root)) << "strangers cannot shut it out";
  Client fourth;
  EXPECT_TRUE(answers(fourth));
  Client turnedAway;
  EXPECT_TRUE(until([&] { return turnedAway.over(); }));
  EXPECT_NE(turnedAway.got().find("too many connections"), std::string::npos);
  root = nullptr;
  ASSERT_TRUE(until([&] { return control->connections() == 3; }));
  Client inItsPlace;
  EXPECT_TRUE(answers(inItsPlace));
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
  for (const std::string& where :
       {"/run/tarn/file"s, "/run/no/such/directory/x"s, "/run/" + std::string(150, 'x'), path}) {
    ControlSocket other(loop, heard.log, [](const ControlPeer&, std::string_view) { return ""; });
    heard.text.clear();
    EXPECT_FALSE(other.listen(where));
    EXPECT_TRUE(heard.has("<4>no control socket: ")) << heard.text;
  }
  EXPECT_TRUE(heard.has("is that of a living program (pid " + std::to_string(getpid()) + ")"));
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
  EXPECT_TRUE(answers(c));
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
  rlimit before{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
  rlimit limit = before;
  limit.rlim_cur = support::openFds() + 10;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  std::vector<Fd> taken;
  for (Fd fd(dup(0)); fd; fd = Fd(dup(0))) taken.push_back(std::move(fd));
  for (int round = 0; round < 3; ++round)
    for (Client& c : early) EXPECT_TRUE(answers(c, "opened\n"));
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
  for (Client* c : {&before, &after}) EXPECT_TRUE(answers(*c));
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
  EXPECT_TRUE(answers(there, "other\n"));
}

// What is told of collectors, and counted, follows from an endpoint's counters between two looks.
TEST(CollectorStates, WhatAnEndpointTookAndRefused) {
  const auto* first = reinterpret_cast<const UdpPam*>(0x1000);
  const auto* second = reinterpret_cast<const UdpPam*>(0x2000);
  struct Step {
    const UdpPam* pam;
    uint64_t sent;
    std::map<int, uint64_t> drops;
    std::vector<uint64_t> found;  // all refused for, some refused for, sent and refused in all
  };
  CollectorStates::Endpoint e;
  for (const Step& s : std::vector<Step>{
           {first, 10, {}, {0, 0, 10, 0}},
           {first, 15, {{EPERM, 1}, {ENETUNREACH, 4}}, {0, ENETUNREACH, 15, 5}},
           {first, 15, {{EPERM, 9}, {ENETUNREACH, 4}}, {EPERM, 0, 15, 13}},
           {first, 15, {{EPERM, 9}, {ENETUNREACH, 4}}, {EPERM, 0, 15, 13}},  // nothing to send
           {second, 2, {{EPERM, 1}}, {0, EPERM, 17, 14}},
           {second, 0, {{ENETUNREACH, 3}}, {ENETUNREACH, 0, 17, 17}},  // another at its place
           {second, 1, {}, {0, 0, 18, 17}}}) {                         // and one that sent more
    UdpPamCounters now;
    now.sent = s.sent;
    now.dropByErrno = s.drops;
    e.follow(s.pam, now);
    const auto refused = static_cast<uint64_t>(e.refused);
    const auto partly = static_cast<uint64_t>(e.partly);
    EXPECT_EQ((std::vector<uint64_t>{refused, partly, e.total.sent, e.total.refused}), s.found);
  }
  for (int err = 1000; err < 1020; ++err) e.total.addRefused(err, 1);
  uint64_t sum = 0;
  for (const auto& c : e.total.causes) sum += c.datagrams;
  EXPECT_EQ(sum, e.total.refused);
  EXPECT_EQ(e.total.causes.back().error, 0u);
}

TEST(ControlRequests, WhatIsAskedWrongly) {
  Heard heard;
  int changes = 0;
  const Settings settings;
  ControlHost host;
  host.view.settings = [&]() -> const Settings& { return settings; };
  host.roots = [] { return std::vector<StateTree::Root>(); };
  host.reload = [&] {
    ++changes;
    return ReloadOutcome{.done = true, .summary = "reloaded", .errors = {}, .warnings = {}};
  };
  host.clearCounters = [&] { ++changes; };
  ControlRequests requests(std::move(host), heard.log);
  const auto ask = [&](uint32_t uid, const std::string& line) {
    const std::string text = requests.answer({.uid = uid, .mayChange = uid == 0}, line);
    EXPECT_EQ(text.find('\n'), std::string::npos);
    return Json::parse(text);
  };
  struct Case {
    std::string line;
    const char* code;
    const char* says;
    uint32_t uid = 0;
  };
  const Case cases[] = {{"", "badRequest", "one JSON object"},
                        {"[\"agent\"]", "badRequest", "one JSON object"},
                        {std::string(4000, '['), "badRequest", "one JSON object"},
                        {"{\"request\":\"\xff\"}", "badRequest", "one JSON object"},
                        {"{}", "unknownRequest", "reload"},
                        {R"({"request":7})", "badRequest", "'request'"},
                        {R"({"request":"x\u001b\u0000"})", "unknownRequest", "x\\x1b\\x00"},
                        {R"({"request":"state","paht":"x"})", "badRequest", "path, after"},
                        {R"({"request":"state","path":[]})", "badRequest", "'path'"},
                        {R"({"request":"state","path":"x/%zz/="})", "notFound", "'x'"},
                        {R"({"request":"tables","name":"x"})", "notFound", "interfaces, vrfs"},
                        {R"({"request":"collectors","tracker":"x"})", "notFound", "tracker 'x'"},
                        {R"({"request":"logLevel","level":10})", "badRequest", "0 to 9"},
                        {R"({"request":"logLevel","level":5})", "notAllowed", "user 1000", 1000},
                        {R"({"request":"reload"})", "notAllowed", "user 1000", 1000},
                        {R"({"request":"clearCounters"})", "notAllowed", "user 1000", 1000},
                        {R"({"request":"resend"})", "notAllowed", "user 1000", 1000}};
  for (const Case& c : cases) {
    const Json answer = ask(c.uid, c.line);
    EXPECT_EQ(answer["ok"], false) << c.line;
    EXPECT_EQ(answer["code"], c.code) << c.line;
    EXPECT_NE(answer["error"].get<std::string>().find(c.says), std::string::npos) << answer;
  }
  EXPECT_EQ(changes, 0);
  EXPECT_EQ(heard.log.level(), 0);
  EXPECT_EQ(ask(0, R"({"request":"reload","id":[1,"a"]})")["id"], Json::parse(R"([1,"a"])"));
  EXPECT_EQ(changes, 1);
  EXPECT_EQ(ask(1000, R"({"request":"logLevel"})")["level"], 0);
  EXPECT_EQ(ask(0, R"({"request":"logLevel","level":"detail"})")["level"], 5);
  EXPECT_EQ(heard.log.level(), 5);
}

}  // namespace
}  // namespace agent
