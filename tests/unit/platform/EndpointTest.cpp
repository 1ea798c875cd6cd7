// The UDP endpoint's contract, over both platforms and both families.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <deque>
#include <numeric>
#include <random>
#include <thread>

#include "platform/linux/LinuxPlatform.h"
#include "platform/sim/SimPlatform.h"
#include "tests/support/Net.h"
#include "tests/support/Random.h"
#include "tests/unit/platform/Sinks.h"

using namespace platform;
using namespace std::chrono_literals;

namespace {

/// On a kernel or simulated, IPv6 or IPv4.
class Endpoint : public testing::TestWithParam<std::tuple<bool, bool>> {
 protected:
  void SetUp() override {
    if (!kernel) return;
    if (!support::privateNetwork()) GTEST_SKIP() << "no network namespace permitted";
    real = linuxPlatform(loop, trace, log, {.paceBurst = 0});
    for (auto& sink : sinks) sink = std::make_unique<support::Receiver>(source(1));
  }
  Platform& platform() { return kernel ? *real : *sim; }
  Ptr<TaskScheduler> scheduler() { return kernel ? loop->taskScheduler() : sim->scheduler(); }
  /// Lets at least this much time pass; what comes due runs.
  void pass(Seconds d) {
    if (!kernel) return sim->advance(d);
    bool over = false;
    auto end = scheduler()->timerTask("end", 255, [&] { over = true; });
    end->scheduleIs(d);
    while (!over) loop->runOnce(1s);
    loop->runOnce(0s);  // what the last round left
  }
  /// Of one of two sinks at the first address.
  uint16_t port(size_t i) const {
    return kernel ? sinks[i]->port() : static_cast<uint16_t>(4739 + i);
  }
  /// Everything that arrived there, in order per sink; waits until `n` are there, or some seconds.
  std::vector<SimDatagram> received(size_t n) {
    std::vector<SimDatagram> all = sim->takeSent();
    for (int patience = kernel ? 20 : 0; patience > 0 && all.size() < n; --patience)
      for (const auto& sink : sinks)
        while (auto d = sink->next(all.size() < n ? 50 : 0))
          all.push_back({.endpoint = {},
                         .src = d->src,
                         .dst = source(1),  // where it listens
                         .srcPort = d->srcPort,
                         .dstPort = sink->port(),
                         .tos = static_cast<uint8_t>(d->tos),
                         .octets = std::move(d->octets)});
    std::ranges::stable_sort(all, {}, &SimDatagram::dstPort);
    return all;
  }
  Ptr<UdpPam> endpoint() {
    auto pam = platform().udpPam("udpPam-ft1-exp1");
    pam->ipv6EnIs(ipv6);
    pam->txPrioIs(2);
    return pam;
  }
  Ptr<UdpPam> opened() {
    auto pam = endpoint();
    pam->modeIs(UdpPam::inService);
    return pam;
  }
  /// From source address `from` (1 or 2; 0: any) to one of them.
  void address(UdpPam& pam, int to, uint16_t port, int from) {
    const IpGenAddr dst = source(to), src = from == 0 ? IpGenAddr() : source(from);
    pam.txPortIs(port);
    pam.txSrcIpAddrIs(src.ipAddr());
    pam.txDstIpAddrIs(dst.ipAddr());
    pam.txSrcIp6AddrIs(src.ip6Addr());
    pam.txDstIp6AddrIs(dst.ip6Addr());
  }
  IpGenAddr source(int i) const {
    return *IpGenAddr::fromString((ipv6 ? "2001:db8::" : "10.99.0.") + std::to_string(i));
  }
  Ptr<Pkt> packet(uint32_t len, uint8_t first = 0) {
    auto pkt = platform().newPkt(len);
    pkt->dataWholeIs();
    if (len > 0) std::iota(pkt->at(0, len), pkt->at(0, len) + len, first);
    return pkt;
  }
  /// Next to nothing leaves, or all at once.
  void pace(UdpPam& pam, bool slow) {
    pam.txRateLimitIs({slow ? RateLimit::Unit::messages : RateLimit::Unit::none, 1});
    sim->paceIs(slow);
  }
  /// Inside a task; what it sends leaves at its end.
  void inTask(const std::function<void()>& body) {
    auto task = scheduler()->timerTask("send", 2, body);
    task->scheduleIs(0s);
    pass(1ms);
  }

  Ptr<UdpPam> listening(int at, uint16_t port = 0) {
    auto pam = endpoint();
    if (at > 0) pam->rxIpAddrIs(source(at).ipAddr());
    if (at > 0) pam->rxIp6AddrIs(source(at).ip6Addr());
    pam->rxPortIs(port);
    pam->modeIs(UdpPam::inService);
    return pam;
  }
  /// Lets time pass until `done`; false when that takes too long.
  bool until(const std::function<bool()>& done) {
    for (int i = 0; i < 3000 && !done(); ++i) pass(1ms);
    return done();
  }

  const bool kernel = std::get<0>(GetParam());
  const bool ipv6 = std::get<1>(GetParam());
  const std::unique_ptr<SimPlatform> sim = simPlatform();
  Lines trace;
  NoLog log;
  const Ptr<EventLoop> loop = eventLoopFactory();
  std::unique_ptr<Platform> real;
  std::unique_ptr<support::Receiver> sinks[2];
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
      for (uint8_t stamp = 1, last = pick(8) == 0 ? 40 : 3; stamp <= last; ++stamp) {
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
      const size_t what = pick(18);
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
        const int from = static_cast<int>(pick(3));
        address(*pam, 1, next.dstPort = port(pick(2)), from);
        next.src = from == 0 ? IpGenAddr() : source(from);
      } else if (what == 9) {
        const uint16_t to = port(pick(2));
        pam->txDstDel(source(1), to);
        for (size_t i = expected.size(); i-- > pam->counters().sent;) {
          if (expected[i].dstPort != to) continue;
          ++drops[ECANCELED];
          octets -= expected[i].octets.size();
          expected.erase(expected.begin() + static_cast<ptrdiff_t>(i));
        }
      } else if (pam->counters().queued < 60) {  // less than leaves in the middle of a task
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
    const auto got = received(expected.size());
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

/// Endpoints that hear of one port at random, which change or end that inside their handlers too,
/// against what waits for each.
TEST_P(Endpoint, HandsOnWhatArrivesWholeAndInOrder) {
  struct Ear {
    Ptr<UdpPam> pam;
    bool hears = false;
    std::deque<std::string> waits = {};  // in the socket, or read and not handed on yet
    uint64_t received = 0, octets = 0, lost = 0;
  };
  support::eachSeed(8, [this](unsigned seed) {
    std::mt19937 random(seed);
    const auto pick = [&](size_t n) { return random() % n; };
    const auto from = opened();
    Ear ears[2];
    uint16_t at = 0;
    bool inLoop = false;
    std::function<void(Ear&)> change;
    const auto hear = [&](Ear& e) {
      e.hears = true;
      e.pam->rxPktHandlerIs([&](std::string_view octets, const IpGenAddr& addr, uint16_t port) {
        ASSERT_TRUE(inLoop && e.hears && !e.waits.empty() && octets == e.waits.front());
        EXPECT_EQ(addr, source(2));
        EXPECT_EQ(port, from->rxPort());
        e.waits.pop_front();
        ++e.received;
        e.octets += octets.size();
        if (pick(20) == 0) change(e);
      });
    };
    change = [&](Ear& e) {
      const size_t what = pick(4);
      if (what == 0) {
        hear(e);
      } else if (what == 1) {
        e.pam->rxPktHandlerIs(nullptr);
        e.hears = false;
      } else if (what == 2) {  // forgets what waits; the handler stays
        e.pam->rxPortIs(at);
        e.pam->modeIs(UdpPam::outOfService);
        e.pam->modeIs(UdpPam::inService);
        e.lost += std::exchange(e.waits, {}).size();
      } else {
        e = Ear();
      }
    };
    for (int step = 0; step < 50; ++step) {
      for (int i = 0; i < 2; ++i) {
        Ear& e = ears[i];
        if (!e.pam) at = (e.pam = listening(i + 1, at))->rxPort();
        if (pick(3) == 0) e.hears ? change(e) : hear(e);
        if (!e.pam) continue;
        address(*from, i + 1, at, 2);
        for (size_t n = pick(2) * pick(40); n > 0 && (e.hears || e.waits.size() < 40); --n) {
          const uint32_t lens[] = {0, 1, 64, 1400, e.hears ? 60000u : 9u};
          const auto pkt = packet(lens[pick(5)], static_cast<uint8_t>(random()));
          e.waits.emplace_back(pkt->octets().begin(), pkt->octets().end());
          from->txPktIs(pkt);
        }
      }
      for (const int same : {0, 1})
        EXPECT_TRUE(!ears[0].pam || errorOf([&] { listening(same, at); }) == EADDRINUSE);
      inLoop = true;
      ASSERT_TRUE(until([&] {
        return std::ranges::all_of(ears, [](Ear& e) { return !e.hears || e.waits.empty(); });
      }));
      pass(2ms);
      inLoop = false;
      for (const Ear& e : ears) {
        if (!e.pam) continue;
        EXPECT_EQ(e.pam->counters().received, e.received);
        EXPECT_EQ(e.pam->counters().receivedOctets, e.octets);
        EXPECT_LE(e.pam->counters().rxDropped, e.lost);
      }
    }
    EXPECT_EQ(from->counters().received, 0u);
  });
}

TEST_P(Endpoint, ABurstLetsTasksRun) {
  constexpr size_t n = 900;
  auto from = opened();
  auto to = listening(1);
  size_t got = 0, atTask = 0;
  auto task = scheduler()->timerTask("other", 2, [&] { atTask = got; });
  to->rxPktHandlerIs([&](std::string_view, const IpGenAddr&, uint16_t) {
    if (++got > 1) return;
    task->scheduleIs(0s);
    std::this_thread::sleep_for(3ms);  // more than its share
  });
  address(*from, 1, to->rxPort(), 2);
  for (size_t i = 0; i < n; ++i) from->txPktIs(packet(64));
  ASSERT_TRUE(until([&] { return got >= n; }));
  EXPECT_GT(atTask, 0u);
  EXPECT_LE(atTask, kernel ? 1u + 128u : 2u * 128u) << "the burst held all up";
}

constexpr auto named = [](const auto& info) {
  return std::string(std::get<0>(info.param) ? "linux" : "sim") +
         (std::get<1>(info.param) ? '6' : '4');
};
INSTANTIATE_TEST_SUITE_P(On, Endpoint, testing::Combine(testing::Bool(), testing::Bool()), named);

}  // namespace
