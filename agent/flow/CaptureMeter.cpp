#include "agent/flow/CaptureMeter.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <tuple>
#include <utility>
#include <vector>

#include "platform/UdpPam.h"
#include "platform/linux/OwnPorts.h"

namespace agent::flow {
namespace {
PacketRingOptions ringOptions(const MeterOrders& orders, const RecordPlan& plan) {
  PacketRingOptions options;
  options.direction = orders.direction;
  if (plan.inner()) options.snapLen = PacketRingOptions::tunnelSnapLen;
  return options;
}
constexpr int tickMs = 100;  // how late a record may leave for want of company
constexpr int ringMs = 200;  // how old a packet may be when the ring hands it over
constexpr size_t blocksPerRound = 16;
// Places of the cache whose flows a feed gets between two looks for packets: where none come, what
// takes some 50 us; where packets come, so few that these are not delayed.
constexpr size_t feedIdle = FlowFeed::blockFlows;
constexpr size_t feedBusy = 64;

/// Nobody sets this clock.
int64_t steadyMs() {
  using std::chrono::duration_cast, std::chrono::milliseconds, std::chrono::steady_clock;
  return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}
}  // namespace

CaptureMeter::CaptureMeter(RecordPlanPtr plan, size_t maxFlows, uint64_t seed,
                           const MeterOrders& orders, const platform::NetnsId& netns)
    : FlowMeter(std::move(plan), maxFlows, seed, orders),
      netns_(netns),
      ring_(ringOptions(orders, *plan_)),
      wakeFd_(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {
  if (!wakeFd_) throw platform::ErrnoException(errno, "eventfd");
  counters_.programError = ring_.programError();
  tellCounters();
  orders_ = withFilter(orders);
  start();
}
CaptureMeter::~CaptureMeter() { stop(); }
void CaptureMeter::wake() {
  const uint64_t one = 1;
  [[maybe_unused]] const auto n = write(wakeFd_.get(), &one, sizeof one);
}

MeterOrders CaptureMeter::withFilter(MeterOrders orders) {
  PacketChoice choice{.sampleRate = orders.sampleRate,
                      .expression = orders.expression,
                      .withoutEthernet = orders.withoutEthernet};
  for (const auto& [kernel, exported] : orders.interfaces)  // sorted, as the map is
    choice.interfaces.push_back(kernel);
  if (!filter_ || filter_->error != 0 || filter_->choice != choice)
    filter_ = std::make_shared<PacketFilter>(ring_.filter(std::move(choice)));
  orders.filter = filter_;
  return orders;
}
void CaptureMeter::ordersIs(const MeterOrders& orders) { FlowMeter::ordersIs(withFilter(orders)); }

bool CaptureMeter::filterIs() {
  for (const auto& [kernel, exported] : orders_.interfaces) known_[kernel] = exported;
  try {
    ring_.filterIs(*orders_.filter);
    counters_.filterError = 0;
  } catch (const platform::ErrnoException& e) {
    counters_.filterError = e.code().value();
  }
  return counters_.filterError == 0;
}

void CaptureMeter::promiscuousIs() {
  std::tie(counters_.promiscuousRefused, counters_.promiscuousError) =
      ring_.promiscuousIs(orders_.promiscuous);
}

/// `due`: ports that are no longer the agent's are forgotten.
void CaptureMeter::followOwnPorts(bool due) {
  const uint64_t version = platform::OwnPorts::version();
  if (version == portsVersion_ && !due) return;
  portsVersion_ = version;
  ownPorts_ = orders_.ownExport ? std::vector<uint16_t>() : platform::OwnPorts::of(netns_);
}

size_t CaptureMeter::readBlocks() {
  uint32_t lastKernel = 0;  // no interface has it
  uint32_t lastExported = 0;
  return ring_.read(
      [&](const Packet& packet) {
        if (packet.interface != lastKernel) {
          lastKernel = packet.interface;
          const auto it = known_.find(lastKernel);
          lastExported = it == known_.end() ? 0 : it->second;
        }
        packetIs(packet, lastExported);
      },
      blocksPerRound);
}

void CaptureMeter::run() {
  int64_t ticked = 0;
  uint64_t packets = 0;
  int64_t countedMs = 0;  // the last packet's time, and when it was counted
  int64_t countedAt = 0;
  bool filterDue = true;
  int64_t dueAt = 0;  // the second in which the work of each second was done last
  while (!stopped()) {
    const bool ordered = takeOrders();
    if (ordered || filterDue) filterDue = !filterIs();
    const int64_t second = steadyMs() / 1000;
    const bool due = std::exchange(dueAt, second) != second;
    followOwnPorts(ordered || due);
    if (ordered || due) promiscuousIs();
    const size_t got = readBlocks();
    settle();
    const int64_t now = steadyMs();
    if (packets != cache_.counters().packets) {
      packets = cache_.counters().packets;
      countedMs = cache_.nowMs();
      countedAt = now;
    }
    if (now - ticked >= tickMs) {
      ticked = now;
      // By the clock that stamps the packets, no later than any packet still in the ring.
      if (packets > 0 && now > countedAt + ringMs)
        cache_.nowIs(countedMs + now - countedAt - ringMs);
      queue_.flush();
      counters_.drops = ring_.statistics().dropped;
      tellCounters();
      tellInterfaces();
    }
    feeds_.fill(cache_, got > 0 ? feedBusy : feedIdle);
    if (got > 0) continue;
    pollfd fds[] = {{ring_.fd(), POLLIN, 0}, {wakeFd_.get(), POLLIN, 0}};
    poll(fds, 2, feeds_.sleepMs(tickMs));
    if (fds[1].revents != 0) {
      uint64_t n = 0;
      [[maybe_unused]] const auto read = ::read(wakeFd_.get(), &n, sizeof n);
    }
  }
  takeOrders();
  while (readBlocks() > 0) settle();
  settle();
  counters_.drops = ring_.statistics().dropped;
  ring_.close();  // here, since it holds up who does it
  cache_.waiterIs([this] { return waitForRoom(); });
  cache_.endAll(EndReason::forcedEnd);
}

}  // namespace agent::flow
