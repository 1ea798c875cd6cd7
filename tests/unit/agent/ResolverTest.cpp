#include "agent/Resolver.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>

#include "World.h"
#include "platform/linux/Fd.h"

namespace agent {
namespace {
using namespace std::chrono_literals;

/// The system's lookups answered from a file of the test's own.
class ResolverTest : public World {
 protected:
  void SetUp() override {
    World::SetUp();
    if (IsSkipped()) return;
    std::ofstream("/run/nsswitch.conf") << "hosts: files\n";
    hostsAre("");
    run("mount --bind /run/nsswitch.conf /etc/nsswitch.conf");
    run("mount --bind /run/hosts /etc/hosts");
  }
  /// At once, over what was there: nobody reads a file that is half written.
  static void hostsAre(std::string lines) {
    lines.resize(4096, '\n');
    const platform::Fd file(::open("/run/hosts", O_RDWR | O_CREAT | O_CLOEXEC, 0644));
    ASSERT_EQ(::pwrite(file.get(), lines.data(), lines.size(), 0), 4096);
  }
  std::string found(const std::string& host) const {
    std::string out;
    if (const auto* all = resolver->addresses(host))
      for (const IpGenAddr& a : *all) out += a.stringValue() + ' ';
    return out;
  }
  testing::AssertionResult resolves(const std::string& host, const std::string& addresses) {
    return becomes([&] { return found(host); }, addresses);
  }
  int changes = 0;
  std::unique_ptr<Resolver> resolver =
      std::make_unique<Resolver>(loop, heard.log, [this] { ++changes; });
};

// A name server that does not answer takes a second for each of its names.
TEST_F(ResolverTest, DeadHostsDoNotKeepOthersWaiting) {
  std::ofstream("/run/nsswitch.conf") << "hosts: files dns\n";
  std::ofstream("/run/resolv.conf") << "nameserver 127.0.0.1\noptions timeout:1 attempts:1\n";
  run("mount --bind /run/resolv.conf /etc/resolv.conf && ip link set lo up");
  const platform::Fd silent(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  sockaddr_in port53{.sin_family = AF_INET, .sin_port = htons(53), .sin_addr = {}, .sin_zero = {}};
  ASSERT_EQ(::bind(silent.get(), reinterpret_cast<sockaddr*>(&port53), sizeof port53), 0);
  hostsAre("192.0.2.1 good\n192.0.2.2 removed\n");
  std::set<std::string> hosts;
  for (int i = 0; i < 60; ++i) hosts.insert("dead" + std::to_string(i) + ".test");
  resolver->hostsAre(hosts, 1h);
  ASSERT_TRUE(until(
      [&] {
        return std::all_of(hosts.begin(), hosts.end(),
                           [&](const auto& h) { return !resolver->problem(h).empty(); });
      },
      30s));
  resolver->lookUpAll();
  loop->runOnce(Seconds(0));
  hosts.insert("good");
  const auto start = std::chrono::steady_clock::now();
  resolver->hostsAre(hosts, 1h);
  ASSERT_TRUE(resolves("good", "192.0.2.1 "));
  EXPECT_LT(std::chrono::steady_clock::now() - start, 900ms) << "not even one of the dead";
}

TEST_F(ResolverTest, ManyHostsAndNoneAfterTheEnd) {
  std::string lines;
  std::set<std::string> hosts;
  for (int i = 1; i <= 100; ++i) {
    lines += "192.0.2." + std::to_string(i) + " h" + std::to_string(i) + '\n';
    hosts.insert('h' + std::to_string(i));
  }
  hostsAre(lines + "224.0.0.1 group\n");
  hosts.insert("group");
  resolver->hostsAre(hosts, 1h);
  resolver->hostsAre({}, 1h);
  resolver->hostsAre(hosts, 1h);  // while the first lookups are under way
  for (const std::string& host : hosts)
    ASSERT_TRUE(resolves(host, host == "group" ? "" : "192.0.2." + host.substr(1) + ' '));
  EXPECT_TRUE(until([&] {
    return resolver->problem("group") == "its address 224.0.0.1 is a multicast address";
  }));
  // What was found stays when it is found no more.
  hostsAre("");
  resolver->lookUpAll();
  EXPECT_TRUE(until([&] { return !resolver->problem("h1").empty(); }));
  EXPECT_EQ(found("h1"), "192.0.2.1 ");
  EXPECT_EQ(changes, 100);
  resolver->lookUpAll();
  loop->runOnce(Seconds(0));
  resolver = nullptr;
  loop->runOnce(Seconds(0.05));
}

}  // namespace
}  // namespace agent
