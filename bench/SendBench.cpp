#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <netinet/udp.h>
#include <sys/resource.h>

#include <array>
#include <cstring>
#include <map>

#include "Ipfix/FlowTrackerPktTxUtil.h"
#include "bench/Tree.h"

/// What it takes to hand messages to the kernel, beside programs that do nothing else.
namespace bench {
namespace {

constexpr size_t batch = 4096;  // messages per iteration
constexpr size_t segments = 64;

class BareSocket {
 public:
  explicit BareSocket(bool veth) : fd_(::socket(AF_INET, SOCK_DGRAM, 0)) {
    to_.sin_family = AF_INET;
    to_.sin_addr.s_addr = htonl(Wire::address(veth).value());
    to_.sin_port = htons(firstPort);
  }
  int fd() const { return fd_.get(); }
  sockaddr_in& to() { return to_; }

 private:
  Fd fd_;
  sockaddr_in to_{};
};

/// Prepared messages and the best calls for them: runs of one length segmented, many per call.
class Prepared {
 public:
  Prepared(BareSocket& socket, const std::vector<std::string>& messages) {
    struct Run {
      size_t first, n;
    };
    std::vector<Run> runs;
    for (size_t at = 0; at < messages.size();) {
      const size_t len = messages[at].size();
      size_t n = 1;
      while (n < segments && at + n < messages.size() && (n + 1) * len <= 65000 &&
             messages[at + n].size() == len)
        ++n;
      if (n > 1 && n < segments && at + n < messages.size() && messages[at + n].size() < len) ++n;
      runs.push_back({at, n});
      at += n;
    }
    for (const auto& m : messages) iov_.push_back({const_cast<char*>(m.data()), m.size()});
    control_.resize(runs.size());
    for (size_t i = 0; i < runs.size(); ++i) {
      mmsghdr m{};
      m.msg_hdr.msg_name = &socket.to();
      m.msg_hdr.msg_namelen = sizeof socket.to();
      m.msg_hdr.msg_iov = &iov_[runs[i].first];
      m.msg_hdr.msg_iovlen = runs[i].n;
      if (runs[i].n > 1) {
        auto* c = reinterpret_cast<cmsghdr*>(control_[i].octets.data());
        c->cmsg_level = SOL_UDP;
        c->cmsg_type = UDP_SEGMENT;
        c->cmsg_len = CMSG_LEN(sizeof(uint16_t));
        const auto len = static_cast<uint16_t>(messages[runs[i].first].size());
        std::memcpy(CMSG_DATA(c), &len, sizeof len);
        m.msg_hdr.msg_control = control_[i].octets.data();
        m.msg_hdr.msg_controllen = CMSG_SPACE(sizeof(uint16_t));
      }
      msgs_.push_back(m);
    }
  }
  bool send(int fd) {
    for (size_t at = 0; at < msgs_.size();) {
      const int n =
          ::sendmmsg(fd, &msgs_[at], unsigned(std::min<size_t>(1024, msgs_.size() - at)), 0);
      if (n <= 0) return false;
      at += size_t(n);
    }
    return true;
  }

 private:
  struct alignas(cmsghdr) Control {
    std::array<char, CMSG_SPACE(sizeof(uint16_t))> octets;
  };
  std::vector<iovec> iov_;
  std::vector<Control> control_;
  std::vector<mmsghdr> msgs_;
};

// --- Equal messages, as flow records make them ---

void oneCallEach(benchmark::State& state) {
  Wire::get();
  BareSocket socket(state.range(0) != 0);
  const std::string message(payload, 'x');
  for (auto _ : state)
    for (size_t i = 0; i < batch; ++i)
      if (::sendto(socket.fd(), message.data(), message.size(), 0,
                   reinterpret_cast<sockaddr*>(&socket.to()), sizeof socket.to()) < 0)
        state.SkipWithError("refused");
  state.SetItemsProcessed(state.iterations() * int64_t(batch));
}
void bareSegmented(benchmark::State& state) {
  Wire::get();
  BareSocket socket(state.range(0) != 0);
  const std::vector<std::string> messages(batch, std::string(payload, 'x'));
  Prepared prepared(socket, messages);
  for (auto _ : state)
    if (!prepared.send(socket.fd())) state.SkipWithError("refused");
  state.SetItemsProcessed(state.iterations() * int64_t(batch));
}
/// Through the endpoint, each collector in turn getting 64.
void endpoint(benchmark::State& state) {
  Wire::get();
  const bool veth = state.range(0) != 0;
  const auto collectors = static_cast<size_t>(state.range(1));
  Host host(state.range(2) != 0 ? segments : 1);
  const auto pam = host.platform->udpPam("bench");
  pam->txPrioIs(2);
  pam->modeIs(UdpPam::inService);
  pam->txSrcIpAddrIs(Wire::source(veth));
  pam->txDstIpAddrIs(Wire::address(veth));
  const auto packet = host.platform->newPkt(payload);
  packet->dataWholeIs();
  std::memset(packet->at(0, payload), 'x', payload);
  for (auto _ : state) {
    for (size_t i = 0; i < batch; ++i) {
      pam->txPortIs(uint16_t(firstPort + i / 64 % collectors));
      pam->txPktIs(packet);
    }
    while (pam->counters().queued > 0) host.loop->runOnce(Seconds(0));
  }
  if (pam->counters().dropped > 0) state.SkipWithError("refused");
  state.SetItemsProcessed(state.iterations() * int64_t(batch));
}
BENCHMARK(oneCallEach)->ArgName("veth")->Arg(1)->Arg(0);
BENCHMARK(bareSegmented)->ArgName("veth")->Arg(1)->Arg(0);
BENCHMARK(endpoint)
    ->ArgNames({"veth", "collectors", "segmented"})
    ->Args({1, 1, 1})
    ->Args({1, 16, 1})
    ->Args({1, 1, 0})
    ->Args({0, 1, 1})
    ->Args({0, 16, 1});

// --- Full tables ---

std::vector<std::string> octetsOf(const std::vector<Ptr<MessageWrapper>>& messages) {
  std::vector<std::string> out;
  for (const auto& m : messages) {
    const auto octets = m->message()->pkt(0)->octets();
    out.emplace_back(octets.begin(), octets.end());
  }
  return out;
}
void fullTransmission(benchmark::State& state) {
  Wire::get();
  Host host;
  Tree tree(host, uint32_t(state.range(0)), 1, size_t(state.range(1)));
  tree.settle();
  const uint64_t before = tree.sent();
  for (auto _ : state) tree.sendTables();
  const auto messages = int64_t(tree.exporter()->msgCacheSize()) * state.range(1);
  if (int64_t(tree.sent() - before) != state.iterations() * messages)
    state.SkipWithError("not every message was sent");
  state.SetItemsProcessed(state.iterations() * state.range(0) * state.range(1));
  state.counters["messages"] = double(messages);
}
void bareTransmission(benchmark::State& state) {
  Wire::get();
  Host host;
  Tree tree(host, uint32_t(state.range(0)), 1, 1);
  tree.settle();
  BareSocket socket(true);
  const auto messages = octetsOf(tree.exporter()->msgCache());
  Prepared prepared(socket, messages);
  for (auto _ : state)
    if (!prepared.send(socket.fd())) state.SkipWithError("refused");
  state.SetItemsProcessed(state.iterations() * state.range(0));
  state.counters["messages"] = double(messages.size());
}
/// The same messages handed to the endpoint as they are: the calls that are made for each of them,
/// and nothing else of the library.
void endpointTransmission(benchmark::State& state) {
  Wire::get();
  Host host;
  Tree tree(host, uint32_t(state.range(0)), 1, 1);
  tree.settle();
  const auto& messages = tree.exporter()->msgCache();
  const auto pam = tree.pam();
  const uint64_t before = tree.sent();
  for (auto _ : state) {
    for (const auto& m : messages)
      sendPkt4(m->message()->pktHolder_p(), pam, Wire::source(true),
               {Wire::address(true), firstPort}, {});
    while (pam->counters().queued > 0) host.loop->runOnce(Seconds(0));
  }
  if (tree.sent() - before != uint64_t(state.iterations()) * messages.size())
    state.SkipWithError("not every message was sent");
  state.SetItemsProcessed(state.iterations() * state.range(0));
  state.counters["messages"] = double(messages.size());
}
BENCHMARK(fullTransmission)
    ->ArgNames({"records", "collectors"})
    ->Args({100000, 1})
    ->Args({1000000, 1})
    ->Args({100000, 8})
    ->Unit(benchmark::kMillisecond);
BENCHMARK(endpointTransmission)
    ->ArgName("records")
    ->Arg(100000)
    ->Arg(1000000)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(bareTransmission)
    ->ArgName("records")
    ->Arg(100000)
    ->Arg(1000000)
    ->Unit(benchmark::kMillisecond);

// --- Many exporters ---

int64_t openFilesMax() {
  rlimit limit{};
  ::getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  ::setrlimit(RLIMIT_NOFILE, &limit);
  return int64_t(limit.rlim_cur);
}

/// From nothing to every collector having all tables, and what stays in memory.
void startUp(benchmark::State& state) {
  Wire::get();
  openFilesMax();
  int64_t kib = 0;
  for (auto _ : state) {
    const int64_t before = residentKib();
    Host host;
    Tree tree(host, uint32_t(state.range(0)), size_t(state.range(1)), size_t(state.range(2)));
    tree.settle();
    kib = residentKib() - before;
    if (tree.sent() < uint64_t(state.range(1) * state.range(2))) state.SkipWithError("not sent");
  }
  state.counters["MiB"] = double(kib) / 1024;
}
BENCHMARK(startUp)
    ->ArgNames({"interfaces", "exporters", "collectors"})
    ->Args({10000, 1000, 4})
    ->Args({10000, 1, 1})
    ->Unit(benchmark::kMillisecond)
    ->Iterations(1);

/// One interface changes its index: heard, encoded, queued by every exporter; and then sent.
void oneChange(benchmark::State& state) {
  Wire::get();
  openFilesMax();
  Host host;
  Tree tree(host, 10000, size_t(state.range(0)), 1);
  tree.settle();
  for (size_t e = 0; e < size_t(state.range(0)); ++e)
    tree.exporter(e)->updateDataCoalesceTimeIs(1e6);
  uint32_t index = 20000;
  for (auto _ : state) tree.intfs->intfIndexIs(IntfId("Ethernet5"), ++index % 50000 + 20000);
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
/// What the sending of it costs: a datagram of that length from so many sockets.
void bareChangeSent(benchmark::State& state) {
  Wire::get();
  openFilesMax();
  std::vector<std::unique_ptr<BareSocket>> sockets;
  for (int64_t i = 0; i < state.range(0); ++i)
    sockets.push_back(std::make_unique<BareSocket>(true));
  const std::string message(16 + 4 + 4 + 1 + 9, 'x');
  for (auto _ : state)
    for (const auto& s : sockets)
      if (::sendto(s->fd(), message.data(), message.size(), 0,
                   reinterpret_cast<sockaddr*>(&s->to()), sizeof s->to()) < 0)
        state.SkipWithError("refused");
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
void oneChangeSent(benchmark::State& state) {
  Wire::get();
  openFilesMax();
  Host host;
  const auto exporters = size_t(state.range(0));
  Tree tree(host, 10000, exporters, 1);
  tree.settle();
  for (size_t e = 0; e < exporters; ++e) tree.exporter(e)->updateDataCoalesceTimeIs(0);
  const auto last = tree.exporter(exporters - 1)->expInfo()->udpPam4();
  const uint64_t before = tree.sent();
  uint32_t index = 20000;
  for (auto _ : state) {
    tree.intfs->intfIndexIs(IntfId("Ethernet5"), ++index % 50000 + 20000);
    // One round runs all the exporters' tasks.
    for (const uint64_t want = last->counters().sent + 1; last->counters().sent < want;)
      host.loop->runOnce(Seconds(0));
  }
  if (tree.sent() - before != uint64_t(state.iterations()) * exporters)
    state.SkipWithError("not everybody was told");
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(bareChangeSent)
    ->ArgName("exporters")
    ->Arg(1)
    ->Arg(100)
    ->Arg(1000)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(oneChange)->ArgName("exporters")->Arg(1)->Arg(100)->Arg(1000);
BENCHMARK(oneChangeSent)
    ->ArgName("exporters")
    ->Arg(1)
    ->Arg(100)
    ->Arg(1000)
    ->Unit(benchmark::kMicrosecond);

/// Octets for each interface: the host's index map, and what is the library's (records, tables and
/// built messages).
void memoryPerInterface(benchmark::State& state) {
  Wire::get();
  double octets = 0;
  double indexMap = 0;
  for (auto _ : state) {
    Host host;
    const int64_t before = residentKib();
    Tree tree(host, uint32_t(state.range(0)), 1, 1);
    tree.settle();
    const double n = double(state.range(0));
    indexMap = double(tree.residentWithIndexMap - before) * 1024 / n;
    octets = double(residentKib() - tree.residentWithIndexMap) * 1024 / n;
  }
  state.counters["octets"] = octets;
  state.counters["indexMap"] = indexMap;
}
BENCHMARK(memoryPerInterface)->Arg(1000000)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace bench
