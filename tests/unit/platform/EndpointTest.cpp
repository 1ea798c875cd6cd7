// The UDP endpoint's contract, over both platforms and both families.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <numeric>
#include <thread>

#include "tests/support/Net.h"
#include "tests/support/Random.h"
#include "tests/unit/platform/Host.h"
#include "tests/unit/platform/Sinks.h"

using namespace platform;
using namespace std::chrono_literals;

namespace {

struct Kind {
  HostKind host;
  bool ipv6;
};

constexpr Kind kinds[] = {
    {hostKinds[0], false}, {hostKinds[0], true}, {hostKinds[1], false}, {hostKinds[1], true}};
std::ostream& operator<<(std::ostream& out, const Kind& k) {
  return out << k.host << (k.ipv6 ? "6" : "4");
}

class Endpoint : public testing::TestWithParam<Kind> {
 protected:
  void SetUp() override {
    if (GetParam().host.kernel && !support::privateNetwork())
      GTEST_SKIP() << "no network namespace permitted";
    host = GetParam().host.make();
  }
  Ptr<UdpPam> endpoint() {
    auto pam = host->platform().udpPam("udpPam-ft1-exp1");
    pam->ipv6EnIs(ipv6);
    pam->txPrioIs(2);
    return pam;
  }
  Ptr<UdpPam> opened() {
    auto pam = endpoint();
    pam->modeIs(UdpPam::inService);
    return pam;
  }
  /// The next datagrams go to sink `i`, from source address `src` (1 or 2; 0: any).
  void address(UdpPam& pam, int i, int src = 0) {
    pam.txPortIs(port(i));
    if (ipv6) {
      pam.txSrcIp6AddrIs(src == 0 ? Ip6Addr() : source(src).ip6Addr());
      pam.txDstIp6AddrIs(host->sink6(i).addr);
    } else {
      pam.txSrcIpAddrIs(src == 0 ? IpAddr() : source(src).ipAddr());
      pam.txDstIpAddrIs(host->sink4(i).addr);
    }
  }
  uint16_t port(int i) { return ipv6 ? host->sink6(i).port : host->sink4(i).port; }
  IpGenAddr source(int i) const {
    return *IpGenAddr::fromString((ipv6 ? "2001:db8::" : "10.99.0.") + std::to_string(i));
  }
  Ptr<Pkt> packet(uint32_t len, uint8_t first = 0) {
    auto pkt = host->platform().newPkt(len);
    pkt->dataWholeIs();
    if (len > 0) std::iota(pkt->at(0, len), pkt->at(0, len) + len, first);
    return pkt;
  }
  /// Next to nothing leaves, or all at once.
  void pace(UdpPam& pam, bool slow) {
    pam.txRateLimitIs({slow ? RateLimit::Unit::messages : RateLimit::Unit::none, 1});
    if (auto* sim = dynamic_cast<SimPlatform*>(&host->platform())) sim->paceIs(slow);
  }
  /// Inside a task; what it sends leaves at its end.
  void inTask(const std::function<void()>& body) {
    auto task = host->scheduler()->timerTask("send", 2, body);
    task->scheduleIs(0s);
    host->pass(1ms);
  }

  const bool ipv6 = GetParam().ipv6;
  std::unique_ptr<Host> host;
};

/// An endpoint's life at random, against what should arrive and be counted.
TEST_P(Endpoint, SendsEachDatagramAsItWasAddressed) {
  support::eachSeed(4, [this](unsigned seed) {
    std::mt19937 random(seed);
    const auto pick = [&](size_t n) { return random() % n; };
    auto pam = endpoint();
    const auto open = [&] { return pam->mode() == UdpPam::inService; };
    SimDatagram next;  // as it is addressed now: source none is any, port 0 is nowhere
    std::vector<SimDatagram> expected;
    std::map<int, uint64_t> drops;
    uint64_t octets = 0;
    const auto send = [&] {
      const uint32_t lens[] = {0, 1, 15, 16, 17, 40, 1400};
      const auto pkt = packet(lens[pick(std::size(lens))]);
      const uint32_t stamped = std::min(pkt->bytes(), UdpPam::restampLen);
      for (uint8_t stamp = 1; stamp <= 3; ++stamp) {
        if (stamped > 0) std::memset(pkt->at(0, stamped), stamp, stamped);
        pam->txPktIs(pkt);
        if (!open() || next.dstPort == 0) {
          ++drops[open() ? EDESTADDRREQ : EBADF];
          continue;
        }
        next.octets.assign(pkt->octets().begin(), pkt->octets().end());
        octets += next.octets.size();
        expected.push_back(next);
      }
      if (stamped > 0) std::memset(pkt->at(0, stamped), 99, stamped);
    };
    const auto change = [&] {
      const size_t what = pick(16);
      if (what == 0) {
        pam->modeIs(UdpPam::outOfService);
        EXPECT_EQ(pam->counters().queued, 0u) << "all leaves before it closes";
      } else if (what < 3) {
        const int fd = open() ? pam->fd() : 0;
        if (fd == 0) pace(*pam, pick(2) == 0);
        pam->modeIs(UdpPam::inService);
        EXPECT_TRUE(fd == 0 || pam->fd() == fd) << "nothing reopens";
        EXPECT_TRUE(next.srcPort == 0 || pam->rxPort() == next.srcPort);
        pam->rxPortIs(next.srcPort = pam->rxPort());
      } else if (what == 3) {
        pam->txTosIs(next.tos = static_cast<uint8_t>(4 * pick(64)));
      } else if (what == 4) {
        pam->txPortIs(next.dstPort = 0);
      } else if (what < 9) {
        const int to = static_cast<int>(pick(2)), from = static_cast<int>(pick(3));
        address(*pam, to, from);
        next.dstPort = port(to);
        next.src = from == 0 ? IpGenAddr() : source(from);
      } else {
        send();
      }
    };
    for (int task = 0; task < 30; ++task) {
      inTask([&] {
        for (int n = 0; n < 15; ++n) change();
      });
      const auto& counters = pam->counters();
      ASSERT_EQ(counters.dropByErrno, drops);
      ASSERT_EQ(counters.sent + counters.queued, expected.size());
      ASSERT_TRUE(counters.queued > 0 || counters.sentOctets == octets);
    }
    pam = nullptr;
    const auto got = host->received(expected.size());
    std::ranges::stable_sort(expected, {}, &SimDatagram::dstPort);
    ASSERT_EQ(got.size(), expected.size());
    for (size_t i = 0; i < got.size(); ++i) {
      SCOPED_TRACE(i);
      ASSERT_TRUE(expected[i].src == IpGenAddr() || got[i].src == expected[i].src);
      ASSERT_EQ(got[i].dst, source(1));
      ASSERT_EQ(got[i].dstPort, expected[i].dstPort);
      ASSERT_EQ(got[i].srcPort, expected[i].srcPort);
      ASSERT_EQ(got[i].tos, expected[i].tos);
      ASSERT_EQ(got[i].octets, expected[i].octets);
    }
  });
}

TEST_P(Endpoint, WhatWaitsForADestinationGoesWithIt) {
  for (const bool closesInTheTask : {false, true}) {
    SCOPED_TRACE(closesInTheTask);
    auto pam = opened();
    pace(*pam, true);
    const auto to = [&](int i, uint8_t first) {
      address(*pam, i);
      pam->txPktIs(packet(40, first));
    };
    inTask([&] {
      for (uint8_t first = 0; first < 50; ++first) to(first % 2, first);
      pam->txDstDel(source(1), port(1));
      to(1, 50);  // another collector at that place
      to(0, 51);
      if (closesInTheTask) pam->modeIs(UdpPam::outOfService);
    });
    const auto& drops = pam->counters().dropByErrno;
    const auto cancelled = drops.contains(ECANCELED) ? drops.at(ECANCELED) : 0;
    EXPECT_GE(cancelled, 20u) << "all but what had left";
    pam->modeIs(UdpPam::outOfService);
    auto got = host->received(52 - cancelled);
    ASSERT_EQ(got.size(), 52 - cancelled);
    std::erase_if(got, [this](const auto& d) { return d.dstPort == port(0); });
    ASSERT_EQ(got.size(), 26 - cancelled);
    EXPECT_EQ(got.back().octets[0], 50);
  }
}

/// Sends numbered datagrams of `len` octets to one place.
class EndpointRx : public Endpoint {
 protected:
  void send(UdpPam& pam, uint16_t port, int n, uint32_t len = 64, int to = 1) {
    if (ipv6) {
      pam.txSrcIp6AddrIs(source(2).ip6Addr());
      pam.txDstIp6AddrIs(source(to).ip6Addr());
    } else {
      pam.txSrcIpAddrIs(source(2).ipAddr());
      pam.txDstIpAddrIs(source(to).ipAddr());
    }
    pam.txPortIs(port);
    auto pkt = packet(len);
    if (len >= sizeof n) std::memcpy(pkt->at(0, sizeof n), &n, sizeof n);
    pam.txPktIs(pkt);
  }
  void sendNumbered(UdpPam& pam, uint16_t port, int n) {
    for (int i = 0; i < n; ++i) send(pam, port, i);
  }
  Ptr<UdpPam> listening(int at, uint16_t port = 0) {
    auto pam = endpoint();
    if (at > 0 && ipv6) pam->rxIp6AddrIs(source(at).ip6Addr());
    if (at > 0 && !ipv6) pam->rxIpAddrIs(source(at).ipAddr());
    pam->rxPortIs(port);
    pam->modeIs(UdpPam::inService);
    return pam;
  }
  static int number(std::string_view octets) {
    int n = -1;
    if (octets.size() >= sizeof n) std::memcpy(&n, octets.data(), sizeof n);
    return n;
  }
  /// Lets time pass until `done`; false when that takes too long.
  bool until(const std::function<bool()>& done) {
    for (int i = 0; i < 3000; ++i) {
      if (done()) return true;
      host->pass(1ms);
    }
    return false;
  }
  /// Time enough for what would arrive.
  void settle() { host->pass(20ms); }

  std::vector<int> got;
  RxPktHandler note = [this](std::string_view octets, const IpGenAddr&, uint16_t) {
    got.push_back(number(octets));
  };
};

TEST_P(EndpointRx, HandsOnWhatArrivesAtItsAddressWithItsSender) {
  auto from = opened();
  auto one = listening(1);
  const uint16_t at = one->rxPort();
  auto two = listening(2, at);
  for (const int same : {0, 2}) EXPECT_EQ(errorOf([&] { listening(same, at); }), EADDRINUSE);
  two = nullptr;
  two = listening(2, at);
  two->rxPktHandlerIs(note);
  std::vector<std::string> all;
  one->rxPktHandlerIs([&](std::string_view octets, const IpGenAddr& addr, uint16_t port) {
    EXPECT_EQ(addr, source(2));
    EXPECT_EQ(port, from->rxPort());
    all.emplace_back(octets);
  });
  const std::vector<uint32_t> lens = {0, 1, 64, 1400, 60000};
  for (const uint32_t len : lens) {
    send(*from, at, 7, len, 1);
    send(*from, at, static_cast<int>(len), 10, 2);
  }
  EXPECT_TRUE(all.empty()) << "only from the loop";
  ASSERT_TRUE(until([&] { return all.size() >= lens.size() && got.size() >= lens.size(); }));
  settle();
  EXPECT_EQ(got, std::vector<int>(lens.begin(), lens.end()));
  ASSERT_EQ(all.size(), lens.size());
  for (size_t i = 0; i < lens.size(); ++i) {
    ASSERT_EQ(all[i].size(), lens[i]);
    for (size_t k = 4; k < lens[i]; ++k) ASSERT_EQ(static_cast<uint8_t>(all[i][k]), k & 255);
  }
  EXPECT_EQ(one->counters().received, lens.size());
  EXPECT_EQ(one->counters().receivedOctets, 61465u);
  EXPECT_EQ(one->counters().rxDropped + from->counters().received, 0u);
}

TEST_P(EndpointRx, ReadsOnlyWhileThereIsAHandler) {
  auto from = opened();
  auto to = listening(0);
  const uint16_t at = to->rxPort();
  send(*from, at, 1);
  settle();
  EXPECT_EQ(to->counters().received, 0u);
  to->rxPktHandlerIs(note);
  ASSERT_TRUE(until([&] { return got.size() == 1; })) << "what waits is read then";
  to->rxPktHandlerIs(nullptr);
  send(*from, at, 2);
  settle();
  // Closing forgets what waits; the handler stays.
  to->rxPktHandlerIs(note);
  to->rxPortIs(at);
  to->modeIs(UdpPam::outOfService);
  to->modeIs(UdpPam::inService);
  send(*from, at, 3);
  ASSERT_TRUE(until([&] { return got.size() == 2; }));
  settle();
  EXPECT_EQ(got, (std::vector<int>{1, 3}));
}

TEST_P(EndpointRx, ABurstIsReadWholeAndInOrderWhileTasksRun) {
  constexpr int n = 900;
  auto from = opened();
  auto to = listening(1);
  size_t atTask = 0;
  auto task = host->scheduler()->timerTask("other", 2, [&] { atTask = got.size(); });
  to->rxPktHandlerIs([&](std::string_view octets, const IpGenAddr&, uint16_t) {
    got.push_back(number(octets));
    if (got.size() > 1) return;
    task->scheduleIs(0s);
    std::this_thread::sleep_for(3ms);  // more than its share
  });
  sendNumbered(*from, to->rxPort(), n);
  ASSERT_TRUE(until([&] { return got.size() >= n; }));
  settle();
  std::vector<int> want(n);
  std::iota(want.begin(), want.end(), 0);
  EXPECT_EQ(got, want);
  EXPECT_GT(atTask, 0u);
  EXPECT_LE(atTask, GetParam().host.kernel ? 1u + 128u : 2u * 128u) << "the burst held all up";
}

TEST_P(EndpointRx, TheHandlerMayChangeOrEndItself) {
  auto from = opened();
  enum { change, unset, close, drop };
  for (const int what : {change, unset, close, drop}) {
    SCOPED_TRACE(what);
    got.clear();
    Ptr<UdpPam> victim = listening(1);
    victim->rxPktHandlerIs([&, what](std::string_view octets, const IpGenAddr&, uint16_t) {
      got.push_back(number(octets));
      if (what == change) victim->rxPktHandlerIs(note);
      if (what == unset) victim->rxPktHandlerIs(nullptr);
      if (what == close) victim->modeIs(UdpPam::outOfService);
      if (what == drop) victim = nullptr;
    });
    sendNumbered(*from, victim->rxPort(), 6);
    settle();
    if (what == unset) victim->rxPktHandlerIs(note);
    if (what == change || what == unset) {
      ASSERT_TRUE(until([&] { return got.size() == 6; })) << "what was read already waits";
      EXPECT_EQ(victim->counters().rxDropped, 0u);
    } else {
      EXPECT_EQ(got, std::vector<int>{0});
    }
  }
}

constexpr auto named = [](const auto& info) { return testing::PrintToString(info.param); };
INSTANTIATE_TEST_SUITE_P(On, Endpoint, testing::ValuesIn(kinds), named);
INSTANTIATE_TEST_SUITE_P(On, EndpointRx, testing::ValuesIn(kinds), named);

}  // namespace
