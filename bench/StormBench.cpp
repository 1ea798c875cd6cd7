#include <benchmark/benchmark.h>
#include <netinet/in.h>

#include <algorithm>
#include <chrono>
#include <map>

#include "bench/Tree.h"

/// A million changes of interfaces in a second, from the index map to the wire.
namespace bench {
namespace {

constexpr uint32_t changes = 1000000;
constexpr size_t maxMsg = 1452;
constexpr size_t headers = 16 + 4;

std::vector<IntfId> names(size_t n) {
  std::vector<IntfId> all;
  for (size_t i = 1; i <= n; ++i) all.emplace_back("Ethernet" + std::to_string(i));
  return all;
}

/// Each change when it is due, in the order of the names, again and again. `behind`: milliseconds
/// by which the kernel had the last full message too late. What is no full message by then waits
/// for the coalescing time.
void storm(benchmark::State& state) {
  using Clock = std::chrono::steady_clock;
  Wire::get();
  Host host(64, state.range(1) != 0 ? LinuxPlatformOptions{}.paceBurst : 0);
  const auto interfaces = names(size_t(state.range(0)));
  Tree tree(host, uint32_t(interfaces.size()), 1, 1);
  const auto waitingFor = [&](auto condition) {
    while (condition() || tree.pam()->counters().queued > 0) host.loop->runOnce(Seconds(0.001));
  };
  tree.settle();
  waitingFor([&] { return tree.exporter()->transmissions() > 0; });
  uint32_t index = 2 * changes;
  const UdpPamCounters before = tree.pam()->counters();
  double behind = 0;
  for (auto _ : state) {
    const auto began = Clock::now();
    const auto passed = [&] { return Seconds(Clock::now() - began).count(); };
    for (uint32_t n = 0; n < changes;) {
      const auto due = uint32_t(std::min<double>(changes, passed() * changes));
      for (; n < due; ++n) tree.intfs->intfIndexIs(interfaces[n % interfaces.size()], ++index);
      host.loop->runOnce(Seconds(0.001));
    }
    waitingFor([&] { return tree.exporter()->updateQueueBytes() >= maxMsg - headers; });
    behind = (passed() - 1) * 1e3;
    waitingFor([&] { return tree.exporter()->updateQueueBytes() > 0; });
  }
  const UdpPamCounters& now = tree.pam()->counters();
  uint64_t octets = 0;  // of the records: index, length octet, name
  for (uint32_t n = 0; n < changes; ++n)
    octets += 5 + interfaces[n % interfaces.size()].stringValue().size();
  const uint64_t messages = now.sent - before.sent;
  if (now.sentOctets - before.sentOctets !=
      messages * headers + octets * uint64_t(state.iterations()))
    state.SkipWithError("not each change left once");
  state.SetItemsProcessed(state.iterations() * changes);
  state.counters["messages"] = double(messages) / double(state.iterations());
  state.counters["behind"] = behind;
}
/// A map, a message filled with the records, a call for each that is full; without a pause.
void bareStorm(benchmark::State& state) {
  Wire::get();
  const auto interfaces = names(size_t(state.range(0)));
  std::map<IntfId, uint32_t> map;
  for (const IntfId& i : interfaces) map.emplace(i, 0);
  const Fd fd(::socket(AF_INET, SOCK_DGRAM, 0));
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_addr.s_addr = htonl(Wire::address(true).value());
  to.sin_port = htons(firstPort);
  std::string message(headers, '\0');
  uint32_t index = 2 * changes;
  for (auto _ : state)
    for (uint32_t n = 0; n < changes; ++n) {
      const auto interface = map.find(interfaces[n % interfaces.size()]);
      interface->second = ++index;
      const std::string& name = interface->first.stringValue();
      if (message.size() + 5 + name.size() > maxMsg) {
        if (::sendto(fd.get(), message.data(), message.size(), 0, reinterpret_cast<sockaddr*>(&to),
                     sizeof to) < 0)
          state.SkipWithError("refused");
        message.resize(headers);
      }
      message.append(reinterpret_cast<const char*>(&index), sizeof index);
      message.push_back(char(name.size()));
      message.append(name);
    }
  state.SetItemsProcessed(state.iterations() * changes);
}
BENCHMARK(storm)
    ->ArgNames({"interfaces", "paced"})
    ->Args({1, 0})
    ->Args({1000000, 0})
    ->Args({1, 1})
    ->Args({1000000, 1})
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(bareStorm)
    ->ArgName("interfaces")
    ->Arg(1)
    ->Arg(1000000)
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace bench
