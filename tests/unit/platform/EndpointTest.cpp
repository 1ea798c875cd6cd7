// The UDP endpoint's contract, over both platforms and both families.
#include <gtest/gtest.h>

#include <cerrno>
#include <numeric>
#include <thread>

#include "tests/support/Net.h"
#include "tests/unit/platform/Host.h"
#include "tests/unit/platform/Sinks.h"

using namespace platform;
using namespace std::chrono_literals;

namespace {

struct Kind {
  HostKind host;
  bool ipv6;
};

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
  /// Inside a task; what it sends leaves at its end.
  void inTask(const std::function<void()>& body) {
    auto task = host->scheduler()->timerTask("send", 2, body);
    task->scheduleIs(0s);
    host->pass(1ms);
  }

  const bool ipv6 = GetParam().ipv6;
  std::unique_ptr<Host> host;
};

TEST_P(Endpoint, OpensWithAPortAndClosesWithoutTrace) {
  auto pam = endpoint();
  EXPECT_EQ(pam->mode(), UdpPam::outOfService);
  EXPECT_EQ(pam->rxPort(), 0);
  pam->modeIs(UdpPam::inService);
  const uint16_t port = pam->rxPort();
  const int fd = pam->fd();
  EXPECT_NE(port, 0);
  pam->modeIs(UdpPam::inService);
  EXPECT_EQ(pam->rxPort(), port) << "nothing reopens";
  EXPECT_EQ(pam->fd(), fd);

  auto rival = endpoint();
  rival->rxPortIs(port);
  EXPECT_EQ(errorOf([&] { rival->modeIs(UdpPam::inService); }), EADDRINUSE);
  EXPECT_EQ(rival->mode(), UdpPam::outOfService);
  pam->modeIs(UdpPam::outOfService);
  EXPECT_EQ(pam->rxPort(), 0);
  rival->modeIs(UdpPam::inService);
  EXPECT_EQ(rival->rxPort(), port);
  rival = nullptr;
  pam->rxPortIs(port);
  pam->modeIs(UdpPam::inService);
  EXPECT_EQ(pam->rxPort(), port) << "a destroyed endpoint holds no port";
}

TEST_P(Endpoint, EachDatagramCarriesItsAddressing) {
  auto pam = opened();
  inTask([&] {
    pam->txTosIs(184);
    address(*pam, 0, 1);
    pam->txPktIs(packet(100, 1));
    address(*pam, 1, 2);
    pam->txTosIs(0);
    pam->txPktIs(packet(101, 2));
    pam->txTosIs(252);
    pam->txPktIs(packet(102, 3));
    address(*pam, 0, 0);  // after it, so that nothing of it may stick
    pam->txTosIs(4);
  });
  auto got = host->received(3);
  ASSERT_EQ(got.size(), 3u);
  if (port(0) > port(1)) std::rotate(got.begin(), got.begin() + 2, got.end());
  const struct {
    int src;
    uint8_t tos;
    uint32_t len;
    uint8_t first;
  } want[] = {{1, 184, 100, 1}, {2, 0, 101, 2}, {2, 252, 102, 3}};
  for (size_t i = 0; i < 3; ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(got[i].src, source(want[i].src));
    EXPECT_EQ(got[i].dst, source(1));
    EXPECT_EQ(got[i].srcPort, pam->rxPort());
    EXPECT_EQ(got[i].tos, want[i].tos);
    EXPECT_EQ(got[i].octets.size(), want[i].len);
    EXPECT_EQ(got[i].octets[0], want[i].first);
    EXPECT_EQ(got[i].octets.back(), want[i].first + want[i].len - 1);
  }
  EXPECT_EQ(pam->counters().sent, 3u);
  EXPECT_EQ(pam->counters().sentOctets, 303u);
  EXPECT_EQ(pam->counters().dropped, 0u);
}

TEST_P(Endpoint, TakesTheFirstOctetsOverAtOnce) {
  auto pam = opened();
  address(*pam, 0);
  const std::vector<uint32_t> lens = {0, 1, 15, 16, 17, 1400};
  inTask([&] {
    for (const uint32_t len : lens) {
      auto pkt = packet(len);
      const uint32_t stamped = std::min(len, UdpPam::restampLen);
      for (uint8_t round = 1; round <= 3; ++round) {
        for (uint32_t i = 0; i < stamped; ++i) *pkt->at(i, 1) = round;
        pam->txPktIs(pkt);
      }
      for (uint32_t i = 0; i < stamped; ++i) *pkt->at(i, 1) = 99;
    }
  });
  const auto got = host->received(lens.size() * 3);
  ASSERT_EQ(got.size(), lens.size() * 3);
  for (size_t n = 0; n < got.size(); ++n) {
    ASSERT_EQ(got[n].octets.size(), lens[n / 3]);
    for (size_t i = 0; i < got[n].octets.size(); ++i)
      ASSERT_EQ(got[n].octets[i], i < 16 ? n % 3 + 1 : i & 255) << n << ' ' << i;
  }
}

TEST_P(Endpoint, SendsBeforeItCloses) {
  inTask([&] {
    auto pam = opened();
    address(*pam, 0);
    pam->txPktIs(packet(40, 1));
    pam->modeIs(UdpPam::outOfService);
    pam->modeIs(UdpPam::inService);
    pam->txRateLimitIs({.unit = RateLimit::Unit::messages, .perSecond = 1});
    if (auto* sim = dynamic_cast<SimPlatform*>(&host->platform())) sim->paceIs(1);
    for (uint8_t first = 2; first < 50; ++first) pam->txPktIs(packet(40, first));
    EXPECT_GT(pam->counters().queued, 40u);
    pam = nullptr;  // with its end-of-task work still to come, and an hour's waiting at its pace
  });
  const auto got = host->received(49);
  ASSERT_EQ(got.size(), 49u);
  for (size_t i = 0; i < got.size(); ++i) EXPECT_EQ(got[i].octets[0], i + 1);
}

TEST_P(Endpoint, WhatWaitsForADestinationGoesWithIt) {
  auto pam = opened();
  pam->txRateLimitIs({.unit = RateLimit::Unit::messages, .perSecond = 1});
  if (auto* sim = dynamic_cast<SimPlatform*>(&host->platform())) sim->paceIs(1);
  const auto to = [&](int i, uint8_t first) {
    address(*pam, i);
    pam->txPktIs(packet(40, first));
  };
  inTask([&] {
    for (uint8_t first = 0; first < 50; ++first) to(first % 2, first);
    pam->txDstDel(ipv6 ? IpGenAddr(host->sink6(1).addr) : IpGenAddr(host->sink4(1).addr), port(1));
    to(1, 50);  // another collector at that place
    to(0, 51);
  });
  const auto& drops = pam->counters().dropByErrno;
  const auto cancelled = drops.contains(ECANCELED) ? drops.at(ECANCELED) : 0;
  EXPECT_GE(cancelled, 20u) << "all but what had left";
  pam->modeIs(UdpPam::outOfService);
  const size_t expected = 52 - cancelled;
  const auto got = host->received(expected);
  ASSERT_EQ(got.size(), expected);
  std::vector<int> late;
  for (const auto& d : got) {
    if (d.dstPort == port(0)) continue;
    late.push_back(d.octets[0]);
  }
  EXPECT_EQ(late.back(), 50);
  EXPECT_EQ(late.size(), 26 - cancelled);
}

TEST_P(Endpoint, CountsWhatItCannotSend) {
  auto pam = endpoint();
  address(*pam, 0);
  pam->txPktIs(packet(40));
  EXPECT_EQ(pam->counters().dropByErrno, (std::map<int, uint64_t>{{EBADF, 1}}));
  pam->modeIs(UdpPam::inService);
  pam->txPortIs(0);
  pam->txPktIs(packet(40));
  address(*pam, 0);
  if (ipv6) {
    pam->txDstIp6AddrIs({});
  } else {
    pam->txDstIpAddrIs({});
  }
  pam->txPktIs(packet(40));
  host->pass(1ms);
  EXPECT_EQ(pam->counters().dropByErrno, (std::map<int, uint64_t>{{EBADF, 1}, {EDESTADDRREQ, 2}}));
  EXPECT_EQ(pam->counters().dropped, 3u);
  EXPECT_EQ(pam->counters().sent, 0u);
  EXPECT_TRUE(host->received(0).empty());
  pam->modeIs(UdpPam::outOfService);
  EXPECT_EQ(pam->counters().dropped, 3u) << "counts outlive the socket";
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

TEST_P(EndpointRx, HandsOnWhatArrivesWithItsSender) {
  auto from = opened();
  auto to = listening(1);
  struct Datagram {
    std::string octets;
    IpGenAddr addr;
    uint16_t port;
  };
  std::vector<Datagram> all;
  to->rxPktHandlerIs([&](std::string_view octets, const IpGenAddr& addr, uint16_t port) {
    all.push_back({std::string(octets), addr, port});
  });
  const std::vector<uint32_t> lens = {0, 1, 64, 1400, 60000};
  for (const uint32_t len : lens) send(*from, to->rxPort(), 7, len);
  EXPECT_TRUE(all.empty()) << "only from the loop";
  ASSERT_TRUE(until([&] { return all.size() >= lens.size(); }));
  settle();
  ASSERT_EQ(all.size(), lens.size());
  uint64_t octets = 0;
  for (size_t i = 0; i < lens.size(); ++i) {
    EXPECT_EQ(all[i].octets.size(), lens[i]);
    EXPECT_EQ(all[i].addr, source(2));
    EXPECT_EQ(all[i].port, from->rxPort());
    for (size_t at = 4; at < lens[i]; ++at)
      ASSERT_EQ(static_cast<uint8_t>(all[i].octets[at]), at & 255);
    octets += lens[i];
  }
  EXPECT_EQ(to->counters().received, lens.size());
  EXPECT_EQ(to->counters().receivedOctets, octets);
  EXPECT_EQ(to->counters().rxDropped, 0u);
  EXPECT_EQ(from->counters().received, 0u);
}

TEST_P(EndpointRx, ReadsOnlyWhileThereIsAHandler) {
  auto from = opened();
  auto to = listening(0);
  send(*from, to->rxPort(), 1);
  settle();
  EXPECT_EQ(to->counters().received, 0u);
  to->rxPktHandlerIs(note);
  ASSERT_TRUE(until([&] { return got.size() == 1; })) << "what waits is read then";
  to->rxPktHandlerIs(nullptr);
  send(*from, to->rxPort(), 2);
  settle();
  EXPECT_EQ(got, std::vector<int>{1});
  // Closing forgets what waits; the handler stays.
  to->rxPktHandlerIs(note);
  to->rxPortIs(to->rxPort());
  to->modeIs(UdpPam::outOfService);
  to->modeIs(UdpPam::inService);
  send(*from, to->rxPort(), 3);
  ASSERT_TRUE(until([&] { return got.size() == 2; }));
  settle();
  EXPECT_EQ(got, (std::vector<int>{1, 3}));
}

TEST_P(EndpointRx, AnAddressOfItsOwnHearsOnlyWhatIsSentThere) {
  auto from = opened();
  auto one = listening(1);
  auto two = listening(2, one->rxPort());
  EXPECT_EQ(errorOf([&] { listening(2, one->rxPort()); }), EADDRINUSE);
  EXPECT_EQ(errorOf([&] { listening(0, one->rxPort()); }), EADDRINUSE);
  one->rxPktHandlerIs(note);
  int atTwo = 0;
  two->rxPktHandlerIs([&](std::string_view, const IpGenAddr&, uint16_t) { ++atTwo; });
  send(*from, one->rxPort(), 1, 64, 1);
  send(*from, one->rxPort(), 2, 64, 2);
  send(*from, one->rxPort(), 3, 64, 1);
  ASSERT_TRUE(until([&] { return got.size() == 2 && atTwo == 1; }));
  settle();
  EXPECT_EQ(got, (std::vector<int>{1, 3}));
  EXPECT_EQ(atTwo, 1);
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
  for (int i = 0; i < n; ++i) send(*from, to->rxPort(), i);
  ASSERT_TRUE(until([&] { return got.size() >= n; }));
  settle();
  std::vector<int> want(n);
  std::iota(want.begin(), want.end(), 0);
  EXPECT_EQ(got, want);
  EXPECT_GT(atTask, 0u);
  EXPECT_LT(atTask, static_cast<size_t>(n)) << "the burst held everything else up";
  if (GetParam().host.kernel) {
    EXPECT_LE(atTask, 1u + 128u) << "the slow datagram was a round's share";
  }
}

TEST_P(EndpointRx, TheHandlerMayChangeOrEndItself) {
  auto from = opened();
  auto to = listening(1);
  to->rxPktHandlerIs([&](std::string_view octets, const IpGenAddr&, uint16_t) {
    got.push_back(number(octets));
    if (got.size() == 3) to->rxPktHandlerIs(note);
  });
  for (int i = 0; i < 6; ++i) send(*from, to->rxPort(), i);
  ASSERT_TRUE(until([&] { return got.size() == 6; })) << "a new handler hears the rest";
  EXPECT_EQ(got, (std::vector<int>{0, 1, 2, 3, 4, 5}));

  enum { unset, close, drop };
  for (const int what : {unset, close, drop}) {
    SCOPED_TRACE(what);
    got.clear();
    Ptr<UdpPam> victim = listening(1);
    victim->rxPktHandlerIs([&, what](std::string_view octets, const IpGenAddr&, uint16_t) {
      got.push_back(number(octets));
      if (what == unset) victim->rxPktHandlerIs(nullptr);
      if (what == close) victim->modeIs(UdpPam::outOfService);
      if (what == drop) victim = nullptr;
    });
    const uint16_t port = victim->rxPort();
    for (int i = 0; i < 6; ++i) send(*from, port, i);
    settle();
    EXPECT_EQ(got, std::vector<int>{0});
    if (what != unset) continue;
    victim->rxPktHandlerIs(note);
    ASSERT_TRUE(until([&] { return got.size() == 6; })) << "what was read already waits";
    EXPECT_EQ(victim->counters().rxDropped, 0u);
  }
}

std::vector<Kind> kinds() {
  std::vector<Kind> all;
  for (const HostKind& h : hostKinds)
    for (const bool ipv6 : {false, true}) all.push_back({h, ipv6});
  return all;
}
INSTANTIATE_TEST_SUITE_P(On, Endpoint, testing::ValuesIn(kinds()),
                         [](const auto& info) { return testing::PrintToString(info.param); });

INSTANTIATE_TEST_SUITE_P(On, EndpointRx, testing::ValuesIn(kinds()),
                         [](const auto& info) { return testing::PrintToString(info.param); });

}  // namespace
