// Endpoints against a real kernel: its refusals, full sockets, namespaces, descriptors.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "platform/linux/LinuxPlatform.h"
#include "tests/support/Net.h"
#include "tests/unit/platform/Sinks.h"

using namespace platform;
using namespace std::chrono_literals;
using support::PeerNamespace;
using support::Receiver;
using support::sh;
using testing::ElementsAre;

namespace {

using Drops = std::map<int, uint64_t>;

class LinuxEndpoint : public testing::TestWithParam<bool> {
 protected:
  void SetUp() override {
    if (!support::privateNetwork()) GTEST_SKIP() << "no network namespace permitted";
    make({.paceBurst = 0});
  }
  void TearDown() override { sh("tc qdisc del dev lo root 2>/dev/null"); }
  /// How fast the loopback is from now on. It takes next to nothing while a test fills the socket,
  /// and more when that is done; so it does not matter how slow the test itself is.
  static bool rate(const std::string& bits, const std::string& limit) {
    return sh("tc qdisc replace dev lo root handle 1: tbf burst 10kb limit " + limit + " rate " +
              bits + " 2>/dev/null");
  }
  void make(LinuxPlatformOptions options) {
    options.netnsDir = dir.path();
    host = linuxPlatform(loop, trace, log, options);
  }
  Ptr<UdpPam> opened(const std::string& name = "pam", const std::string& ns = {}) {
    auto pam = host->udpPam(name);
    pam->netNsIs(NamespaceName(ns));
    pam->ipv6EnIs(ipv6);
    pam->txPrioIs(2);
    pam->modeIs(UdpPam::inService);
    return pam;
  }
  /// One datagram of `len` octets, numbered.
  void send(UdpPam& pam, const std::string& to, uint16_t port, uint32_t len = 100, int n = 0) {
    if (ipv6) {
      pam.txDstIp6AddrIs(*Ip6Addr::fromString(to));
    } else {
      pam.txDstIpAddrIs(*IpAddr::fromString(to));
    }
    pam.txPortIs(port);
    auto pkt = host->newPkt(len);
    pkt->dataWholeIs();
    std::memset(pkt->at(0, len), 0, len);
    std::memcpy(pkt->at(0, sizeof n), &n, sizeof n);
    pam.txPktIs(pkt);
  }
  void settle() { loop->runOnce(0s); }
  /// `n` of them, numbered from `first`.
  void sendAll(UdpPam& pam, const std::string& to, uint16_t port, int n, uint32_t len = 100,
               int first = 0) {
    for (int i = first; i < first + n; ++i) send(pam, to, port, len, i);
  }
  static int number(const Receiver::Datagram& d) {
    int n = -1;
    if (d.octets.size() >= sizeof n) std::memcpy(&n, d.octets.data(), sizeof n);
    return n;
  }
  /// `n` datagrams numbered from `first` came, in order.
  static void arrived(Receiver& sink, int n, int first = 0) {
    for (int i = first; i < first + n; ++i) {
      const auto d = sink.next();
      ASSERT_TRUE(d) << i;
      ASSERT_EQ(number(*d), i);
    }
  }

  const bool ipv6 = GetParam();
  const std::string local = ipv6 ? "2001:db8::1" : "10.99.0.1";
  const std::string nowhere = ipv6 ? "2001:db8:1::1" : "192.0.2.1";  // no route leads there
  const support::TempDir dir;
  Lines trace;
  NoLog log;
  const Ptr<EventLoop> loop = eventLoopFactory();
  std::unique_ptr<Platform> host;
};

TEST_P(LinuxEndpoint, ALongQueueLeavesAtThePaceAndInOrder) {
  make({.netnsDir = {}, .paceBurst = 20, .paceInterval = 80ms});
  auto pam = opened();
  Receiver sink(*IpGenAddr::fromString(local));
  // What comes in place of the host's pace, may count octets.
  const struct {
    const char* limit;
    uint64_t least, most;  // of 100 that leave at once
    std::chrono::milliseconds takes;
  } rows[] = {{"default", 20, 25, 319ms},
              {"none", 100, 100, 0ms},
              {"1 Mbit/s", 1, 99, 70ms},
              {"none", 100, 100, 0ms},  // is not owed to the next one
              {"1000 messages/s", 1, 99, 90ms}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.limit);
    pam->txRateLimitIs(*RateLimit::fromString(row.limit));
    const auto start = std::chrono::steady_clock::now();
    sendAll(*pam, local, sink.port(), 100);
    settle();
    const uint64_t left = 100 - pam->counters().queued;
    EXPECT_TRUE(row.least <= left && left <= row.most) << left;
    while (pam->counters().queued > 0) loop->runOnce(1s);
    const auto took = std::chrono::steady_clock::now() - start;
    EXPECT_GE(took, row.takes);
    EXPECT_LT(took, 4s);
    arrived(sink, 100);
    if (row.takes > 0ms) continue;
    sendAll(*pam, local, 9, 2000);
    while (pam->counters().queued > 0) settle();
  }
}

TEST_P(LinuxEndpoint, CountsWhatTheReceiveBufferDropped) {
  make({.netnsDir = {}, .paceBurst = 0, .rxBufferSize = 20000});
  auto from = opened("from");
  auto to = opened("to");
  uint64_t got = 0;
  to->rxPktHandlerIs([&](std::string_view, const IpGenAddr&, uint16_t) { ++got; });
  for (uint64_t round = 1; round <= 3; ++round) {
    sendAll(*from, local, to->rxPort(), 300, 1000);
    for (int n = 0; n < 100 && got + to->counters().rxDropped < 300 * round; ++n)
      loop->runOnce(10ms);
    EXPECT_EQ(got + to->counters().rxDropped, 300 * round);
  }
  EXPECT_GT(to->counters().rxDropped, 300u);
  EXPECT_GT(got, 3u);
  EXPECT_EQ(to->counters().received, got);
  int told = 0;
  for (const auto& line : trace.all) told += line.find("receive buffer") != line.npos ? 1 : 0;
  EXPECT_EQ(told, 1);
}

TEST_P(LinuxEndpoint, RefusalsWithinThePaceStallNothing) {
  make({.netnsDir = {}, .paceBurst = 32, .paceInterval = 20ms});
  auto pam = opened();
  Receiver sink(*IpGenAddr::fromString(local));
  // One flush then ends at its own bound and the pace's at once: 992 refused, 32 sent.
  sendAll(*pam, local, sink.port(), 32);
  sendAll(*pam, nowhere, 4739, 992);
  sendAll(*pam, local, sink.port(), 100);
  for (int rounds = 0; pam->counters().queued > 0 && rounds < 100; ++rounds) loop->runOnce(100ms);
  EXPECT_EQ(pam->counters().sent, 132u);
  EXPECT_EQ(pam->counters().dropped, 992u);
}

TEST_P(LinuxEndpoint, OneUnreachableCollectorCostsTheOthersNothing) {
  auto pam = opened();
  Receiver sink(*IpGenAddr::fromString(local));
  const auto told = [&](const std::string& what) {
    settle();
    EXPECT_THAT(std::exchange(trace.all, {}),
                ElementsAre("pam: " + what + ": Network is unreachable (ENETUNREACH), to " +
                            (ipv6 ? '[' + nowhere + "]:4739" : nowhere + ":4739")));
  };
  for (int i = 0; i < 100; ++i) {
    send(*pam, nowhere, 4739);
    send(*pam, local, sink.port(), 100, i);
  }
  told("sending fails");  // once, not at each success of the other
  arrived(sink, 100);
  EXPECT_EQ(pam->counters().sent, 100u);
  EXPECT_EQ(pam->counters().dropByErrno, (Drops{{ENETUNREACH, 100}}));
  for (const auto& [verb, what] : {std::pair("add", "sends again after 100 failures"),
                                   std::pair("del", "sending fails")}) {  // a second outage
    ASSERT_TRUE(
        sh((ipv6 ? "ip -6 route " : "ip route ") + std::string(verb) + ' ' + nowhere + " dev lo"));
    send(*pam, nowhere, 4739);
    told(what);
  }
}

// That they arrive as they were is for the random life of EndpointTest.
TEST_P(LinuxEndpoint, NeighboursAlikeLeaveInOneSend) {
  auto pam = opened();
  const IpGenAddr addr = *IpGenAddr::fromString(local);
  const Receiver sinks[] = {Receiver(addr), Receiver(addr)};
  struct Run {
    int sink, n;
    uint32_t len;
    uint8_t tos = 0;
  };
  const struct {
    const char* what;
    std::vector<Run> runs;
    uint64_t sends;
  } rows[] = {
      {"one run", {{0, 40, 1400}}, 1},
      {"a shorter one ends it", {{0, 5, 900}, {0, 6, 800}}, 2},
      {"a longer one does not belong", {{0, 5, 800}, {0, 5, 900}}, 2},
      {"another port", {{0, 5, 800}, {1, 5, 800}, {0, 5, 800}}, 3},
      {"another mark", {{0, 5, 800}, {0, 5, 800, 184}}, 2},
      {"more octets than a packet has", {{0, 50, 1400}}, 2},
      {"more of them than the kernel takes", {{0, 70, 100}}, 2},
      {"nothing but the part that is copied", {{0, 5, 16}, {0, 1, 4}}, 1},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    const uint64_t before = pam->counters().sends;
    for (const Run& run : row.runs) {
      pam->txTosIs(run.tos);
      sendAll(*pam, local, sinks[run.sink].port(), run.n, run.len);
    }
    settle();
    EXPECT_EQ(pam->counters().sends - before, row.sends);
    int priority = -1;
    socklen_t len = sizeof priority;
    ::getsockopt(pam->fd(), SOL_SOCKET, SO_PRIORITY, &priority, &len);
    EXPECT_EQ(priority, 2) << "not what the kernel makes of the mark";
  }
}

/// A path that refuses a run takes its datagrams one by one, and each has its own answer.
TEST_P(LinuxEndpoint, WhatIsTooLargeForThePathIsRefusedByItself) {
  auto pam = opened();
  Receiver sink(*IpGenAddr::fromString(local));
  ASSERT_TRUE(sh("ip link set lo mtu 1400"));
  const uint32_t fits = 1400 - 8 - (ipv6 ? 40 : 20);
  for (int i = 0; i < 10; ++i) send(*pam, local, sink.port(), fits + 1, -1);
  send(*pam, local, sink.port(), fits, 0);  // the run's last, and the only one that fits
  settle();
  send(*pam, local, sink.port(), 500, 1);
  settle();
  EXPECT_EQ(pam->counters().dropByErrno, (Drops{{EMSGSIZE, 10}}));
  EXPECT_EQ(trace.all.size(), 1u) << "a smaller one that passes is no recovery";
  arrived(sink, 2);
  const auto sendsOf = [&](int n) {
    const uint64_t before = pam->counters().sends;
    sendAll(*pam, local, sink.port(), n, 1000);
    settle();
    arrived(sink, n);
    return pam->counters().sends - before;
  };
  EXPECT_EQ(sendsOf(40), 40u) << "not tried again at once";
  for (int i = 0; i < 30; ++i) sendsOf(40);
  EXPECT_EQ(sendsOf(40), 1u) << "but later";
  ASSERT_TRUE(sh("ip link set lo mtu 65536"));
  send(*pam, local, sink.port(), 70000);  // more than UDP can say
  settle();
  EXPECT_EQ(pam->counters().dropByErrno, (Drops{{EMSGSIZE, 11}}));
}

TEST_P(LinuxEndpoint, OpensInItsNamespaceAndComesBackWithoutALeak) {
  PeerNamespace red;
  const size_t fds = support::openFds();
  const std::string home = std::filesystem::read_symlink("/proc/thread-self/ns/net");
  EXPECT_EQ(errorOf([&] { opened("pam", "ns-red"); }), ENOENT);
  std::ofstream(dir.path() + "/ns-red") << "not mounted yet";
  EXPECT_EQ(errorOf([&] { opened("pam", "ns-red"); }), EINVAL);
  EXPECT_EQ(errorOf([&] { opened("pam", "../etc"); }), EINVAL);
  EXPECT_EQ(std::filesystem::read_symlink("/proc/thread-self/ns/net"), home);
  std::filesystem::remove(dir.path() + "/ns-red");
  std::filesystem::create_symlink(red.path(), dir.path() + "/ns-red");

  auto pam = opened("pam", "ns-red");
  EXPECT_EQ(std::filesystem::read_symlink("/proc/thread-self/ns/net"), home);
  const std::string loopback = ipv6 ? "::1" : "127.0.0.1";
  Receiver inside(*IpGenAddr::fromString(loopback), red.path(), 4739);
  send(*pam, loopback, 4739, 100, 1);
  settle();
  EXPECT_TRUE(inside.next());
  pam->modeIs(UdpPam::outOfService);
  EXPECT_EQ(support::openFds(), fds + 1) << "of the receiver";
}

TEST_P(LinuxEndpoint, AFullSocketDelaysAndAFullQueueDropsAndTells) {
  if (!rate("64kbit", "4mb")) GTEST_SKIP() << "the kernel has no tbf";
  make({.netnsDir = {}, .endpointQueueMax = 1000, .paceBurst = 0});
  auto pam = opened();
  Receiver sink(*IpGenAddr::fromString(local));
  const int small = 8192;
  ASSERT_EQ(::setsockopt(pam->fd(), SOL_SOCKET, SO_SNDBUF, &small, sizeof small), 0);
  sendAll(*pam, local, sink.port(), 3000, 400);
  EXPECT_EQ(pam->counters().queued, 1000u);
  const uint64_t dropped = pam->counters().dropped;
  EXPECT_GT(dropped, 1500u);
  EXPECT_EQ(pam->counters().dropByErrno, (Drops{{ENOBUFS, dropped}}));
  EXPECT_THAT(trace.all, ElementsAre("pam: queue of 1000 datagrams is full: dropping"));
  ASSERT_TRUE(rate("20mbit", "4mb"));
  int rounds = 0, last = -1;
  for (uint64_t arrived = dropped; arrived < 3000; ++rounds) {
    loop->runOnce(10ms);
    for (auto d = sink.next(0); d; d = sink.next(0), ++arrived) {
      ASSERT_GT(number(*d), last);
      last = number(*d);
    }
    ASSERT_LT(rounds, 20000) << arrived << " arrived or were dropped";
  }
  EXPECT_FALSE(sink.next(50)) << "each once";
  EXPECT_EQ(pam->counters().sent, 3000 - dropped);
  EXPECT_GT(rounds, 2) << "the loop goes on";
  ASSERT_EQ(trace.all.size(), 2u);
  EXPECT_EQ(trace.all[1], "pam: queue is empty again after " + std::to_string(dropped) + " drops");
}

TEST_P(LinuxEndpoint, WhatIsDroppedOnTheWayOutIsCountedAndWhatNobodyHearsByDestination) {
  if (!rate("64kbit", "20kb")) GTEST_SKIP() << "the kernel has no tbf";
  auto pam = opened();
  Receiver sink(*IpGenAddr::fromString(local));
  for (int i = 0; i < 200; ++i) send(*pam, local, sink.port(), 1000 + i % 2, i);
  settle();
  ASSERT_TRUE(rate("20mbit", "4mb"));
  uint64_t came = 0;
  while (sink.next(1000)) ++came;
  EXPECT_EQ(pam->counters().sent, came);
  EXPECT_EQ(pam->counters().dropByErrno, (Drops{{ENOBUFS, 200 - came}}));
  EXPECT_THAT(trace.all, ElementsAre(testing::EndsWith("the queue of the interface drops")));

  TearDown();  // the loopback is fast again
  // ICMP messages about one collector concern no other, and nothing keeps the loop busy.
  const uint16_t closed = std::make_unique<Receiver>(*IpGenAddr::fromString(local))->port();
  Receiver hears(*IpGenAddr::fromString(local));
  const auto before = pam->counters();
  for (int i = 0; i < 100; ++i) {
    send(*pam, local, closed, 100, i);
    send(*pam, local, hears.port(), 100, i);
    if (i % 10 == 0) settle();
  }
  for (int i = 0; i < 5; ++i) settle();
  arrived(hears, 100);
  EXPECT_EQ(pam->counters().sent - before.sent, 200u);
  EXPECT_EQ(pam->counters().dropped, before.dropped);
  EXPECT_EQ(pam->counters().undeliveredByDst.size(), 1u);
  const auto& undelivered =
      pam->counters().undeliveredByDst.at({*IpGenAddr::fromString(local), closed});
  EXPECT_EQ(undelivered.datagrams, 100u);
  EXPECT_EQ(undelivered.error, ECONNREFUSED);
  pollfd idle{pam->fd(), 0, 0};
  EXPECT_EQ(::poll(&idle, 1, 0), 0);
}

constexpr auto family = [](const auto& info) { return std::string(info.param ? "ipv6" : "ipv4"); };
INSTANTIATE_TEST_SUITE_P(On, LinuxEndpoint, testing::Bool(), family);

}  // namespace
