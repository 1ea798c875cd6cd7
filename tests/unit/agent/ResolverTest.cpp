#include "agent/network/Resolver.h"

#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <netinet/in.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <fstream>

#include "World.h"
#include "agent/host/Capabilities.h"
#include "tests/unit/platform/Sinks.h"

namespace agent {
namespace {
using namespace std::chrono_literals;

// The system's lookups, answered from a file of the test's own, or by a name server that does not
// answer: it takes a second for each of its names.
TEST_F(World, DeadHostsDoNotKeepOthersWaiting) {
  /// At once, over what was there: nobody reads a file that is half written.
  const auto fileIs = [](std::string lines) {
    lines.resize(4096, '\n');
    const Fd file(::open("/run/hosts", O_RDWR | O_CREAT | O_CLOEXEC, 0644));
    ASSERT_EQ(::pwrite(file.get(), lines.data(), lines.size(), 0), 4096);
  };
  std::string lines = "224.0.0.1 group\n192.0.2.99 good\n";
  std::set<std::string> hosts = {"group"};
  for (int i = 1; i <= 60; ++i) {
    lines += "192.0.2." + std::to_string(i) + " h" + std::to_string(i) + '\n';
    hosts.insert({'h' + std::to_string(i), "dead" + std::to_string(i)});
  }
  fileIs(lines);
  std::ofstream("/run/nsswitch.conf") << "hosts: files dns\n";
  std::ofstream("/run/resolv.conf") << "nameserver 127.0.0.1\noptions timeout:1 attempts:1\n";
  run("for f in nsswitch.conf resolv.conf hosts; do mount --bind /run/$f /etc/$f || exit; done");
  run("ip link set lo up");
  const Fd silent(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  const sockaddr_in port53{
      .sin_family = AF_INET, .sin_port = htons(53), .sin_addr = {}, .sin_zero = {}};
  ASSERT_EQ(::bind(silent.get(), reinterpret_cast<const sockaddr*>(&port53), sizeof port53), 0);

  int changes = 0;
  auto resolver = std::make_unique<Resolver>(loop, heard.log, [&] { ++changes; });
  const auto found = [&](const std::string& host) {
    const auto* all = resolver->addresses(host);
    return all && all->size() == 1 ? all->at(0).stringValue() : "";
  };
  resolver->hostsAre(hosts, 1h);
  resolver->hostsAre({}, 1h);
  resolver->hostsAre(hosts, 1h);  // while the first lookups are under way
  run("test $(grep -h CapPrm /proc/$PPID/task/*/status | grep -vc 00000$) = 1");  // no lookup's
  for (const std::string& host : hosts) {
    const bool there = host[0] == 'h';
    EXPECT_TRUE(
        until([&] { return !(there ? found(host) : resolver->problem(host)).empty(); }, 30s));
    EXPECT_EQ(found(host), there ? "192.0.2." + host.substr(1) : "");
  }
  EXPECT_EQ(resolver->problem("group"), "its address 224.0.0.1 is a multicast address");
  resolver->lookUpAll();
  pass(50ms);
  hosts.insert("good");
  resolver->hostsAre(hosts, 1h);
  EXPECT_TRUE(until([&] { return found("good") == "192.0.2.99"; }, 800ms))
      << "not even one of the dead";
  EXPECT_EQ(changes, 61);
  // What was found stays when it is found no more.
  fileIs("");
  resolver->lookUpAll();
  EXPECT_TRUE(until([&] { return !resolver->problem("h1").empty(); }, 30s));
  EXPECT_EQ(found("h1"), "192.0.2.1");
  resolver->lookUpAll();
  loop->runOnce(Seconds(0));
  resolver = nullptr;
  loop->runOnce(Seconds(0.05));
}

// As where a filter of system calls lacks the one that gives capabilities up.
TEST_F(World, NothingRunsWithCapabilitiesThatItCannotGiveUp) {
  sock_filter refuse[] = {BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
                          BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_capset, 0, 1),
                          BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EPERM),
                          BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW)};
  const sock_fprog filter{4, refuse};
  const auto right = [&] {
    prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter);
    Resolver resolver(loop, heard.log, [] {});
    resolver.hostsAre({"host"}, 1h);
    return errorOf(keepNeededCapabilities) == EPERM &&
           until([&] { return heard.has("cannot be looked up: a thread cannot give up its"); });
  };
  EXPECT_EXIT(_exit(right() ? 0 : 1), testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace agent
