#include "agent/flow/FlowMeter.h"

#include <algorithm>
#include <chrono>

#include "agent/host/Thread.h"

namespace agent::flow {
namespace {
constexpr auto roomWait = std::chrono::milliseconds(4);  // the endpoints' pace
constexpr size_t fragmentSets = 1024;
}  // namespace

FlowMeter::FlowMeter(RecordPlanPtr plan, size_t maxFlows, uint64_t seed, const MeterOrders& orders)
    : plan_(std::move(plan)),
      orders_(orders),
      queue_(plan_->recordLens()),
      cache_(maxFlows, orders.times, seed, *plan_, queue_),
      parser_(seed, fragmentSets, plan_->mpls()),
      planned_(plan_->standard() ? 0 : batch),
      given_(orders) {
  cache_.contextIs(orders.context);
  cache_.holdIs(orders.hold);
}

void FlowMeter::start() {
  thread_ = startThread([this] {
    try {
      run();
    } catch (const std::exception& e) {  // no memory, most likely
      failure_ = e.what();
    }
    queue_.flush();
    feeds_.end();
    tellCounters();
    done_.store(true, std::memory_order_release);
  });
}
void FlowMeter::endSoon() {
  stop_ = true;
  wake();
}
void FlowMeter::giveUp() {
  abandon_ = true;
  endSoon();
}
void FlowMeter::stop() {
  giveUp();
  if (thread_.joinable()) thread_.join();
}
bool FlowMeter::waitForRoom() {
  if (abandon_) return false;
  std::this_thread::sleep_for(roomWait);
  takeOrders();
  return !abandon_;
}

void FlowMeter::plannedPacketIs(const Packet& packet, uint32_t interface) {
  Parsed& parsed = parsed_;
  parser_.parse(packet, parsed);
  const bool ip = parsed.error == ParseError::none;
  if (ip && mayBeOurs(packet) && isOurs(packet, parsed)) return;
  const bool whole = ip || parsed.error == ParseError::notIp;
  const HostAddresses& host = orders_.context.host;
  PlannedSample& sample = planned_[gathered_];
  bool known = false;
  if (whole && plan_->tunnels()) {
    TunnelFacts tunnel;
    if (ip) tunnel = parser_.lookInside(packet, parsed, plan_->inner());
    known = plan_->sample(packet, parsed, interface, host, sample, tunnel);
  } else if (whole) {
    known = plan_->sample(packet, parsed, interface, host, sample);
  }
  if (!known) {
    ++counters_.errors[static_cast<size_t>(parsed.error)];
  } else {
    interfaces_.count(interface, sample.segments, sample.ipOctets);
    if (++gathered_ == batch) settle();
  }
}

bool FlowMeter::isOurs(const Packet& packet, const Parsed& parsed) const {
  constexpr uint8_t udp = 17;
  const FlowClass& flow = parsed.ipv6 ? parsed.key6.rest : parsed.key4.rest;
  if (flow.protocol != udp || !std::binary_search(ownPorts_.begin(), ownPorts_.end(), flow.srcPort))
    return false;
  const HostAddresses& host = orders_.context.host;
  if (packet.leaves && host.onlyOwnLeave) return true;
  return parsed.ipv6 ? host.has(parsed.key6.src) : host.has(parsed.key4.src);
}

void FlowMeter::ordersIs(const MeterOrders& orders) {
  const std::lock_guard lock(mutex_);
  if (given_ == orders) return;
  given_ = orders;
  fresh_.store(true, std::memory_order_release);
  wake();
}
bool FlowMeter::takeOrders() {
  if (!fresh_.load(std::memory_order_acquire)) return false;
  {
    const std::lock_guard lock(mutex_);
    orders_ = given_;
    fresh_ = false;
  }
  cache_.timesIs(orders_.times);
  cache_.contextIs(orders_.context);
  cache_.holdIs(orders_.hold);
  return true;
}

void FlowMeter::tellCounters() {
  counters_.cache = cache_.counters();
  counters_.active = cache_.size();
  const std::lock_guard lock(mutex_);
  told_ = counters_;
}
void FlowMeter::tellInterfaces() {
  const std::lock_guard lock(mutex_);
  interfaces_.copyTo(interfacesTold_);
}
InterfaceSums::Sums FlowMeter::interfaces() const {
  const std::lock_guard lock(mutex_);
  return interfacesTold_;
}
MeterCounters FlowMeter::counters() const {
  const std::lock_guard lock(mutex_);
  return told_;
}

}  // namespace agent::flow
