#include "agent/control/ControlSocket.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>

#include <fstream>
#include <nlohmann/json.hpp>
#include <tuple>

#include "World.h"
#include "agent/control/ControlDispatcher.h"
#include "agent/exports/CollectorStates.h"

namespace agent {
namespace {
using namespace std::chrono_literals;
using Json = nlohmann::ordered_json;

const sockaddr_un place{AF_UNIX, "/run/tarn/control.sock"};
const std::string path = place.sun_path;

/// A client that does nothing unless it is told to.
class Client {
 public:
  Client() {
    // One that cannot connect gets no answer.
    std::ignore = connect(fd_.get(), reinterpret_cast<const sockaddr*>(&place), sizeof place);
  }
  void send(std::string_view text) {
    EXPECT_EQ(write(fd_.get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
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
  Fd fd_{socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)};
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
  /// Another agent's.
  std::unique_ptr<ControlSocket> other() {
    return std::make_unique<ControlSocket>(
        loop, heard.log, [](const ControlPeer&, std::string_view) { return "other"; });
  }
  /// The client asks, and this is the last it hears.
  testing::AssertionResult answers(Client& c, const std::string& with = "<hello>\n") {
    c.send("hello\n");
    return becomes([&] { return c.got().ends_with(with) ? with : c.got(); }, with);
  }

  std::unique_ptr<ControlSocket> control;
  std::vector<std::string> asked;
  ControlPeer last;
  std::function<std::string(std::string_view)> answer;
};

// What was asked is answered in order, however it arrives, and done when nobody stays for it.
TEST_F(ControlSocketTest, RandomClients) {
  Random pick;
  listen({.requestMax = 100});
  std::vector<std::string> expected;
  enum { tooLong, endsItsLastLine, goesAway, stays };
  for (int round = 0; round < 200 && !HasFailure(); ++round) {
    const uint32_t end = pick(4);
    std::string text;
    std::string answers;
    for (uint32_t n = pick(4); n > 0; --n) {
      const std::string newline = pick(2) ? "\n" : "\r\n";
      expected.emplace_back(pick(2) ? pick(9) : 101 - newline.size(), 'l');
      text += expected.back() + newline;
      answers += '<' + expected.back() + ">\n";
    }
    if (end == tooLong) {
      text += std::string(101, 'x');
      answers += "{\"ok\":false,\"error\":\"the request has more than 100 octets\"}\n";
    } else if (end == endsItsLastLine) {
      text += expected.emplace_back("last");
      answers += "<last>\n";
    }
    answer = nullptr;
    if (end == goesAway) answer = [](std::string_view) { return std::string(1 << 20, 'x'); };
    auto client = std::make_unique<Client>();
    for (size_t at = 0, n = 0; at < text.size(); at += n) {
      n = 1 + pick(pick(2) ? 5 : text.size());
      client->send(text.substr(at, n));
      if (pick(2)) loop->runOnce(Seconds(0));
    }
    if (end == endsItsLastLine) client->sendsNoMore();
    if (end == goesAway) client = nullptr;
    EXPECT_TRUE(becomes([&] { return client ? client->got() : answers; }, answers));
    EXPECT_TRUE(!client || end == stays || until([&] { return client->over(); }));
    client = nullptr;
    until([&] { return control->connections() == 0 && asked.size() == expected.size(); });
    EXPECT_EQ(asked, expected);
  }
  control.reset();
  EXPECT_NE(access("/run/tarn", F_OK), 0) << "nothing is left behind";
}

TEST_F(ControlSocketTest, WhoDoesNotReadOrEndItsLineIsLetGo) {
  listen({.patience = 1500ms});
  answer = [](std::string_view) { return std::string(4 << 20, 'x'); };
  Client stuck;
  std::string many;
  for (int i = 0; i < 1000; ++i) many += "again\n";
  stuck.send(many);
  pass(100ms);
  EXPECT_EQ(asked.size(), 1u) << "one answer waits, no more";
  answer = nullptr;
  Client served;
  EXPECT_TRUE(answers(served));
  served.send("half a req");
  Client dripping;
  pass(100ms);
  for (int i = 0; i < 100 && control->connections() > 0; ++i) {
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
    return "done";
  };
  Client greedy[4];
  for (Client& c : greedy) c.send("a\nb\nc\n");
  ASSERT_TRUE(until([&] { return at.size() == 12; }));
  for (size_t i = 1; i < at.size(); ++i)
    EXPECT_GE(at[i] - at[i - 1], 6ms) << "as long as the answer took";
}

TEST_F(ControlSocketTest, OtherUsersMayLookAndHaveTheirShareOfPlaces) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to be somebody else";
  listen({.connectionsMax = 4, .strangersMax = 2});
  const pid_t child = fork();
  if (child == 0) {
    if (setresuid(12345, 12345, 12345) != 0) _exit(1);
    Client all[4];
    all[0].send("stranger\n");
    while (!all[0].over()) usleep(1000);
    _exit(all[0].got() == "<stranger>\n" && all[3].got().starts_with("{\"ok\":false") ? 0 : 3);
  }
  ASSERT_TRUE(until([&] { return asked == std::vector<std::string>{"stranger"}; }));
  EXPECT_EQ(last.uid, 12345u);
  EXPECT_FALSE(last.mayChange);
  EXPECT_EQ(control->connections(), 2u);
  std::vector<Client> root(3);  // strangers cannot shut it out
  EXPECT_TRUE(answers(root[0]) && answers(root[1]));
  EXPECT_TRUE(last.uid == 0 && last.pid == getpid() && last.mayChange);
  EXPECT_TRUE(until([&] { return root[2].over(); }));
  EXPECT_NE(root[2].got().find("too many connections"), std::string::npos);
  root.erase(root.begin());
  ASSERT_TRUE(until([&] { return control->connections() == 3; }));
  Client inItsPlace;
  EXPECT_TRUE(answers(inItsPlace));
  control.reset();
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
}

TEST_F(ControlSocketTest, TakesNobodysPlace) {
  const mode_t mask = umask(077);
  listen();
  umask(mask);
  std::ofstream("/run/tarn/file") << "mine";
  for (const std::string& where : std::vector<std::string>{
           "/run/tarn/file", "/run/no/such/directory/x", "/run/" + std::string(150, 'x'), path})
    EXPECT_FALSE(other()->listen(where)) << where;
  EXPECT_EQ(std::count(heard.text.begin(), heard.text.end(), '\n'), 4);
  EXPECT_TRUE(heard.has("is that of a living program (pid " + std::to_string(getpid()) + ")"));
  EXPECT_EQ(access("/run/tarn/file", F_OK), 0);
  struct stat there {};
  ASSERT_EQ(lstat(path.c_str(), &there), 0) << "the second one must not take it away";
  EXPECT_EQ(there.st_mode & 0777, 0666u);
  ASSERT_EQ(stat("/run/tarn", &there), 0);
  EXPECT_EQ(there.st_mode & 0777, 0755u) << "others reach the socket";
  // A copy of the name keeps a socket without its program: that may be replaced.
  ASSERT_EQ(link(path.c_str(), "/run/left.sock"), 0);
  control.reset();
  EXPECT_NE(access(path.c_str(), F_OK), 0);
  ASSERT_EQ(rename("/run/left.sock", path.c_str()), 0);
  listen();
  // Somebody removes its file, and another agent takes the place: that one keeps it.
  ASSERT_EQ(unlink(path.c_str()), 0);
  const auto second = other();
  ASSERT_TRUE(second->listen(path));
  heard.text.clear();
  for (int i = 0; i < 2; ++i) control->restore();
  EXPECT_TRUE(heard.has("is that of a living program")) << heard.text;
  EXPECT_EQ(std::count(heard.text.begin(), heard.text.end(), '\n'), 1) << "said once";
  control.reset();
  Client ofTheOther;
  EXPECT_TRUE(answers(ofTheOther, "other\n"));
}

TEST_F(ControlSocketTest, AnswersWhenAllDescriptorsAreTaken) {
#if defined(__SANITIZE_ADDRESS__)
  GTEST_SKIP() << "the sanitizer opens a pipe to look at memory, and takes a refusal for a fault";
#endif
  listen();
  answer = [](std::string_view) {
    return Fd(open("/dev/null", O_RDONLY)) ? "opened" : "no descriptor";
  };
  Client early[3];
  rlimit before{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
  const rlimit limit{support::openFds() + 10, before.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  std::vector<Fd> taken;
  for (Fd fd(dup(0)); fd; fd = Fd(dup(0))) taken.push_back(std::move(fd));
  for (int round = 0; round < 3; ++round)
    for (Client& c : early) EXPECT_TRUE(answers(c, "opened\n"));
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
}

// What is told of collectors, and counted, follows from an endpoint's counters between two looks.
TEST(CollectorStates, WhatAnEndpointTookAndRefused) {
  using Drops = std::map<int, uint64_t>;
  // The reason of all that was refused, or of some of it; sent and refused in all.
  using Found = std::tuple<int, int, uint64_t, uint64_t>;
  CollectorStates::Endpoint e;
  for (const auto& [pam, sent, drops, found] :
       std::vector<std::tuple<uintptr_t, uint64_t, Drops, Found>>{
           {1, 10, {}, {0, 0, 10, 0}},
           {1, 15, {{EPERM, 1}, {ENETUNREACH, 4}}, {0, ENETUNREACH, 15, 5}},
           {1, 15, {{EPERM, 9}, {ENETUNREACH, 4}}, {EPERM, 0, 15, 13}},
           {1, 15, {{EPERM, 9}, {ENETUNREACH, 4}}, {EPERM, 0, 15, 13}},  // nothing to send
           {2, 2, {{EPERM, 1}}, {0, EPERM, 17, 14}},
           {2, 0, {{ENETUNREACH, 3}}, {ENETUNREACH, 0, 17, 17}},  // another at its place
           {2, 1, {}, {0, 0, 18, 17}}}) {                         // and one that sent more
    UdpPamCounters now;
    now.sent = sent;
    now.dropByErrno = drops;
    e.follow(reinterpret_cast<const UdpPam*>(pam), now);
    EXPECT_EQ(Found(e.refused, e.partly, e.total.sent, e.total.refused), found);
  }
  for (int err = 1000; err < 1020; ++err) e.total.addRefused(err, 1);
  for (const auto& c : e.total.causes) e.total.refused -= c.datagrams;
  EXPECT_EQ(e.total.refused + e.total.causes.back().error, 0u) << "the last one has all others";
}

// (Names that are unknown are the system test's.)
TEST(ControlDispatcher, WhatIsAskedWrongly) {
  Heard heard;
  int changes = 0;
  ControlHost host;
  host.reload = [&] {
    ++changes;
    return ReloadOutcome{.done = true, .summary = "reloaded", .errors = {}, .warnings = {}};
  };
  host.clearCounters = [&] { ++changes; };
  ControlDispatcher dispatcher(ControlAnswers(std::move(host), nullptr, 0, heard.log));
  const auto ask = [&](uint32_t uid, const std::string& line) {
    const std::string text = dispatcher.answer({.uid = uid, .mayChange = uid == 0}, line);
    EXPECT_EQ(text.find('\n'), std::string::npos);
    return Json::parse(text);
  };
  struct Case {
    const char* code;
    const char* says;
    std::vector<std::string> lines;
  };
  const Case cases[] = {
      {"badRequest",
       "one JSON object",
       {"", "[\"agent\"]", std::string(4000, '['), "{\"request\":\"\xff\"}"}},
      {"badRequest", "'request'", {R"({"request":7})"}},
      {"badRequest", "path, after", {R"({"request":"state","paht":"x"})"}},
      {"unknownRequest", "reload", {"{}"}},
      {"unknownRequest", "x\\x1b\\x00", {R"({"request":"x\u001b\u0000"})"}},
      {"notAllowed",
       "user 1000",
       {R"({"request":"reload"})", R"({"request":"clearCounters"})", R"({"request":"resend"})",
        R"({"request":"flows"})", R"({"request":"logLevel","level":5})"}}};
  for (const Case& c : cases)
    for (const std::string& line : c.lines) {
      const Json answer = ask(1000, line);
      EXPECT_TRUE(answer["ok"] == false && answer["code"] == c.code) << answer;
      EXPECT_NE(answer["error"].get<std::string>().find(c.says), std::string::npos) << answer;
    }
  EXPECT_EQ(changes + heard.log.level(), 0);
  EXPECT_EQ(ask(0, R"({"request":"reload","id":[1,"a"]})")["id"], Json::parse(R"([1,"a"])"));
  EXPECT_EQ(changes, 1);
  EXPECT_EQ(ask(1000, R"({"request":"logLevel"})")["level"], 0);
}

}  // namespace
}  // namespace agent
