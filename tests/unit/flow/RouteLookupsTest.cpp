#include "agent/flow/RouteLookups.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <net/if.h>

#include <memory>

#include "tests/unit/agent/World.h"

namespace agent::flow {
namespace {

bool forwards6() { return support::sh("test $(sysctl -n net.ipv6.conf.all.forwarding) = 1"); }

struct RouteLookupsTest : World {
  void SetUp() override {
    World::SetUp();
    if (IsSkipped()) return;
    run("ip link set lo up; sysctl -qw net.ipv4.ip_forward=1 net.ipv6.conf.all.forwarding=1");
    for (const std::string n : {"0", "1", "2"})
      run("ip link add d" + n + " up type veth peer name p" + n + " && ip link set p" + n +
          " up && ip addr add 10.1." + n + ".1/24 dev d" + n + " && ip addr add fd01:" + n +
          "::1/64 dev d" + n + " nodad");
  }
  /// Whatever may make another answer right; it may also be refused.
  void change() {
    const bool v6 = pick(2);
    const std::string n = std::to_string(pick(3)), d = std::to_string(pick(3));
    const std::string to = v6 ? "fd02:" + n + "::/32" : "10.2" + n + ".0.0/16";
    const std::string ip = v6 ? "ip -6 " : "ip ";
    const std::string via = (v6 ? "via fd01:" + d + "::2" : "via 10.1." + d + ".2") + " dev d" + d;
    const std::string table = pick(3) == 0 ? " table 100" : "";
    const std::string commands[] = {
        ip + "route replace " + to + ' ' + via + table,
        ip + "route replace " + to + " dev d" + d + table,
        ip + "route replace blackhole " + to + table,
        ip + "route del " + to + table,
        ip + "rule add iif d" + d + " lookup 100",
        ip + "rule del iif d" + d + " lookup 100",
        "ip addr add " + (v6 ? "fd02:" + n + "::9 nodad" : "10.2" + n + ".0.9") + " dev d" + d,
        "ip addr flush dev d2 to 10.0.0.0/8",
        "ip link set d" + d + (pick(2) ? " up" : " down"),
        "sysctl -qw net.ipv6.conf.all.forwarding=" + std::string(forwards6() ? "0" : "1")};
    last = commands[pick(std::size(commands))];
    support::sh(last + " 2>/dev/null");
  }
  RouteQuestion question() {
    RouteQuestion q;
    q.family = pick(2) ? AF_INET : AF_INET6;
    const std::string n = std::to_string(pick(3)), end = std::to_string(8 + pick(2));
    q.interface = if_nametoindex(("d" + n).c_str());
    const std::string to = std::to_string(pick(4));
    const bool v4 = q.family == AF_INET;
    inet_pton(q.family, (v4 ? "10.1." + n + ".7" : "fd01:" + n + "::7").c_str(), q.src.data());
    inet_pton(q.family, (v4 ? "10.2" + to + ".0." + end : "fd02:" + to + "::" + end).c_str(),
              q.dst.data());
    q.tos = static_cast<uint8_t>(pick(256));
    return q;
  }
  Random pick;
  std::string last;
};

std::string text(const Route& route, uint16_t family) {
  if (route.to != Route::To::away) return route.to == Route::To::here ? "here" : "nowhere";
  char hop[INET6_ADDRSTRLEN], name[IF_NAMESIZE] = "?";
  inet_ntop(family, route.nextHop.data(), hop, sizeof hop);
  if_indextoname(route.interface, name);
  return std::string(hop) + " dev " + name;
}
/// What the system's own tool is told.
std::string toolText(const RouteQuestion& q) {
  char src[INET6_ADDRSTRLEN], dst[INET6_ADDRSTRLEN], name[IF_NAMESIZE] = "?", line[512] = "";
  inet_ntop(q.family, q.src.data(), src, sizeof src);
  inet_ntop(q.family, q.dst.data(), dst, sizeof dst);
  if_indextoname(q.interface, name);
  char command[256];
  std::snprintf(command, sizeof command, "ip -o route get %s from %s iif %s tos 0x%02x 2>/dev/null",
                dst, src, name, q.tos & 0xfc);
  const std::unique_ptr<FILE, int (*)(FILE*)> tool(popen(command, "r"), pclose);
  if (!fgets(line, sizeof line, tool.get())) return "nowhere";
  std::istringstream words(line);
  std::string word, hop = q.family == AF_INET ? "0.0.0.0" : "::", device;
  for (words >> word; !word.empty() && words; words >> word) {
    if (word == "local") return "here";
    if (word == "via") words >> hop;
    if (word == "dev") words >> device;
  }
  return device.empty() || (q.family == AF_INET6 && !forwards6()) ? "nowhere"
                                                                  : hop + " dev " + device;
}

TEST_F(RouteLookupsTest, AreThoseOfNow) {
  RouteLookups lookups;
  std::set<std::string> seen;
  int known = 0;
  for (int step = 0; step < 60; ++step) {
    std::vector<RouteQuestion> questions(60);
    for (RouteQuestion& q : questions) q = question();
    // The kernel may complete a change between two questions, so that two answers are right.
    std::vector<Route> before(questions.size()), kept = before, after = before;
    RouteLookups().ask(questions, before);
    lookups.ask(questions, kept);
    const std::string tool[] = {toolText(questions[0]), toolText(questions[1])};
    RouteLookups().ask(questions, after);
    for (size_t i = 0; i < questions.size(); ++i) {
      const auto right =
          testing::AnyOf(text(before[i], questions[i].family), text(after[i], questions[i].family));
      ASSERT_THAT(text(kept[i], questions[i].family), right) << "after " << last;
      if (i < 2) {
        ASSERT_THAT(tool[i], right) << "after " << last;
      }
      seen.insert(text(kept[i], questions[i].family));
    }
    lookups.ask(questions, kept);
    const uint64_t asked = lookups.asked();
    lookups.ask(questions, kept);
    known += lookups.asked() == asked;  // unless the kernel had more to say of the last change
    change();
  }
  EXPECT_GT(known, 30);
  EXPECT_GT(seen.size(), 2u);
}

}  // namespace
}  // namespace agent::flow
