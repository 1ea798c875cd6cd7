#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <netinet/udp.h>
#include <sys/resource.h>

#include <algorithm>
#include <array>
#include <cstring>

#include "bench/Tree.h"

/// The moment at which everything that is periodic is due: all templates, and all tables.
namespace bench {
namespace {

constexpr uint32_t interfaces = 10000;

/// `changed`: the tables are not as they were, and are built again.
void period(benchmark::State& state) {
  Wire::get();
  rlimit limit{};
  ::getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  ::setrlimit(RLIMIT_NOFILE, &limit);
  Host host(64, state.range(3) != 0 ? LinuxPlatformOptions{}.paceBurst : 0);
  Tree tree(host, interfaces, size_t(state.range(0)), size_t(state.range(1)));
  const auto layout = HwFlowTracking::templateStatusFactory(256);
  for (uint32_t i = 0; i < 12; ++i) {
    HwFlowTracking::FtTemplateEntry e(i, 8);
    e.fieldLenIs(4);
    layout->ftTemplateEntryIs(e);
  }
  tree.status->ftStatus("ft")->templateStatusIs(layout);
  tree.settle();
  const auto templates = tree.templates->ftTemplateSm("ft");
  const auto& tables = tree.manager->ftManagerSm("ft")->exporterSm();
  const uint64_t messages =
      (2 + tree.exporter()->msgCacheSize()) * uint64_t(state.range(0) * state.range(1));
  const uint64_t before = tree.sent();
  uint64_t want = before;
  uint32_t index = 2 * interfaces;
  for (auto _ : state) {
    want += messages;
    if (state.range(2) != 0) tree.intfs->intfIndexIs(IntfId("Ethernet5"), ++index);
    for (const auto& [name, sm] : templates->ftExporterSm()) sm->resend();
    for (const auto& [name, sm] : templates->optTemplateExporterSm()) sm->resend();
    for (const auto& [name, sm] : tables) sm->resend();
    for (int idle = 0; tree.sent() < want && idle < 10000; ++idle)
      host.loop->runOnce(Seconds(0.001));
  }
  tree.settle();
  if (tree.sent() != want) state.SkipWithError("not everything was sent, or too much");
  state.SetItemsProcessed(state.iterations() * int64_t(messages));
  state.counters["messages"] = double(messages);
}

/// The tables' octets, neighbours of one length together: what one call takes, and its datagrams'
/// length.
struct Run {
  std::string octets;
  size_t segment;
};
bool send(int fd, const Run& run, uint16_t port) {
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_addr.s_addr = htonl(Wire::address(true).value());
  to.sin_port = htons(port);
  iovec iov{const_cast<char*>(run.octets.data()), run.octets.size()};
  msghdr m{};
  m.msg_name = &to;
  m.msg_namelen = sizeof to;
  m.msg_iov = &iov;
  m.msg_iovlen = 1;
  alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(uint16_t))> control{};
  m.msg_control = control.data();
  m.msg_controllen = control.size();
  cmsghdr* c = CMSG_FIRSTHDR(&m);
  c->cmsg_level = SOL_UDP;
  c->cmsg_type = UDP_SEGMENT;
  c->cmsg_len = CMSG_LEN(sizeof(uint16_t));
  const auto len = static_cast<uint16_t>(run.segment);
  std::memcpy(CMSG_DATA(c), &len, sizeof len);
  return ::sendmsg(fd, &m, 0) >= 0;
}
/// The same from as many sockets to as many ports, and nothing else.
void barePeriod(benchmark::State& state) {
  Wire::get();
  std::vector<Run> runs;
  uint64_t messages = 0;
  {
    Host host;
    Tree tree(host, interfaces, 1, 1);
    tree.settle();
    for (const auto& m : tree.exporter()->msgCache()) {
      const auto octets = m->message()->pkt(0)->octets();
      if (runs.empty() || runs.back().segment != octets.size() ||
          runs.back().octets.size() + octets.size() > std::min<size_t>(65000, 64 * octets.size()))
        runs.push_back({{}, octets.size()});
      runs.back().octets.append(octets.begin(), octets.end());
      ++messages;
    }
  }
  std::vector<Fd> sockets;
  for (int64_t i = 0; i < state.range(0); ++i)
    sockets.emplace_back(::socket(AF_INET, SOCK_DGRAM, 0));
  for (auto _ : state)
    for (const Fd& fd : sockets)
      for (int64_t c = 0; c < state.range(1); ++c)
        for (const Run& run : runs)
          if (!send(fd.get(), run, uint16_t(firstPort + c))) state.SkipWithError("refused");
  messages *= sockets.size() * uint64_t(state.range(1));
  state.SetItemsProcessed(state.iterations() * int64_t(messages));
  state.counters["messages"] = double(messages);
}
BENCHMARK(period)
    ->ArgNames({"exporters", "collectors", "changed", "paced"})
    ->Args({1000, 4, 0, 0})
    ->Args({1000, 4, 1, 0})
    ->Args({1000, 4, 0, 1})
    ->Args({100, 4, 0, 0})
    ->Args({1, 4, 0, 0})
    ->Unit(benchmark::kMillisecond);
BENCHMARK(barePeriod)
    ->ArgNames({"exporters", "collectors"})
    ->Args({1000, 4})
    ->Args({100, 4})
    ->Args({1, 4})
    ->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace bench
