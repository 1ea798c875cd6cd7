#pragma once
#include <array>
#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "agent/flow/FlowCache.h"
#include "agent/flow/FlowFeeds.h"
#include "agent/flow/InterfaceSums.h"
#include "agent/flow/PacketParser.h"
#include "agent/flow/RecordQueue.h"

namespace agent::flow {

struct PacketFilter;

/// What a meter is to do; changes while it runs.
struct MeterOrders {
  FlowTimes times;
  uint32_t sampleRate = 1;
  RecordContext context;
  Direction direction = Direction::ingress;  ///< as it was when the meter was made
  bool ownExport = false;                    ///< count what the agent itself sends
  bool hold = true;                          ///< no collector is ready
  /// The captured interfaces by the kernel's index, with the index that is exported.
  std::map<uint32_t, uint32_t> interfaces;
  std::vector<uint32_t> withoutEthernet;  ///< those without an Ethernet header; sorted
  /// Those that are to take packets for other stations, with their `Link::arrival`.
  std::map<uint32_t, uint64_t> promiscuous;
  std::string expression;  ///< chooses packets; empty: all
  /// For these interfaces, this rate and expression, made by a meter that captures.
  std::shared_ptr<const PacketFilter> filter;
  bool operator==(const MeterOrders&) const = default;
};

struct MeterCounters {
  FlowCacheCounters cache;
  uint64_t drops = 0;  ///< packets that reached the capture, and the kernel had no room for
  std::array<uint64_t, parseErrors> errors{};
  size_t active = 0;
  int programError = 0;      ///< errno: see PacketRing::programError
  int filterError = 0;       ///< errno: what chooses the packets was refused, and is tried again
  int promiscuousError = 0;  ///< errno: an interface refuses packets for other stations
  uint32_t promiscuousRefused = 0;  ///< the kernel's index of that interface
};

/// Turns packets into flows and flows into records, on a thread of its own. The agent's thread
/// gives orders, reads the counters and takes the records from `queue`.
class FlowMeter {
 public:
  using RecordPlanPtr = std::shared_ptr<const RecordPlan>;
  FlowMeter(RecordPlanPtr plan, size_t maxFlows, uint64_t seed, const MeterOrders& orders);
  virtual ~FlowMeter() = default;
  FlowMeter(const FlowMeter&) = delete;
  FlowMeter& operator=(const FlowMeter&) = delete;

  // The agent's thread.
  virtual void ordersIs(const MeterOrders& orders);
  MeterCounters counters() const;
  /// What was counted in flows of each interface, by its exported index.
  InterfaceSums::Sums interfaces() const;
  /// Writes the flows under way to `feed`, which ends behind the last one, or with the thread.
  void feedIs(FlowFeedPtr feed) {
    feeds_.add(std::move(feed));
    wake();
  }
  RecordQueue& queue() { return queue_; }
  /// What its records are.
  const RecordPlanPtr& plan() const { return plan_; }
  /// The thread is over: what it had to say is in the queue and the counters.
  bool done() const { return done_.load(std::memory_order_acquire); }
  /// Tells the thread to report the flows under way and to end; returns at once. The thread waits
  /// for room in the queue and for orders without `hold`: take its blocks until it is `done` and
  /// the queue is empty.
  void endSoon();
  /// As `endSoon`, but the thread waits for nothing: flows whose records find no room in the queue,
  /// or that no collector is ready for, are lost and counted.
  void giveUp();
  /// `giveUp`, and waits for the thread.
  void stop();
  /// Once `done`: what ended the thread before its time; empty: nothing.
  const std::string& failure() const { return failure_; }

 protected:
  static constexpr size_t batch = 64;

  void start();            ///< by the subclass, when it is complete
  virtual void run() = 0;  ///< the thread; ends when `stopped`
  virtual void wake() {}

  // For the thread.
  bool stopped() const { return stop_.load(std::memory_order_relaxed); }
  /// True when there were new ones; `orders_` has them.
  bool takeOrders();
  /// False: nobody will make room.
  bool waitForRoom();
  void packetIs(const Packet& packet, uint32_t interface) {
    if (!plan_->standard()) return plannedPacketIs(packet, interface);
    auto& sample = samples_[gathered_];
    parser_.parse(packet, sample.parsed);
    if (sample.parsed.error != ParseError::none) {
      ++counters_.errors[static_cast<size_t>(sample.parsed.error)];
      return;
    }
    if (mayBeOurs(packet) && isOurs(packet, sample.parsed)) return;
    FlowClass& flow = sample.parsed.ipv6 ? sample.parsed.key6.rest : sample.parsed.key4.rest;
    flow.interface = interface;
    if (packet.leaves) flow.vlanId |= FlowClass::leaving;
    interfaces_.count(interface, sample.parsed.packets, sample.parsed.ipOctets);
    sample.timeMs = packet.timeNs / 1000000;
    if (++gathered_ == batch) settle();
  }
  /// Counts what has gathered in the batch.
  void settle() {
    if (plan_->standard()) {
      cache_.samplesIs(samples_.data(), gathered_);
    } else {
      cache_.samplesIs(planned_.data(), gathered_);
    }
    gathered_ = 0;
  }
  void tellCounters();
  void tellInterfaces();  ///< allocates memory

  /// UDP ports, sorted, from which the agent itself sends in the network of the packets: those are
  /// not counted. Of a file it has none.
  std::vector<uint16_t> ownPorts_;

  const RecordPlanPtr plan_;
  MeterOrders orders_;
  RecordQueue queue_;
  FlowCache cache_;
  MeterCounters counters_;
  InterfaceSums interfaces_;
  FlowFeeds feeds_;

 private:
  static constexpr uint32_t loopback = 1;  // the index of lo in every namespace

  void plannedPacketIs(const Packet& packet, uint32_t interface);
  /// Only where it leaves, or comes back at once, a packet is known to be this machine's.
  bool mayBeOurs(const Packet& p) const {
    return !ownPorts_.empty() && (p.leaves || p.interface == loopback);
  }
  bool isOurs(const Packet& packet, const Parsed& parsed) const;

  PacketParser parser_;
  std::array<FlowCache::Sample, batch> samples_;
  std::vector<PlannedSample> planned_;  // a batch, unless the record is standard
  Parsed parsed_;                       // of the last packet; to clear it for each takes time
  size_t gathered_ = 0;

  std::atomic<bool> stop_{false};
  std::atomic<bool> abandon_{false};
  std::atomic<bool> done_{false};
  std::string failure_;       // the thread's until `done_`
  mutable std::mutex mutex_;  // guards what follows
  MeterOrders given_;
  std::atomic<bool> fresh_{false};
  MeterCounters told_;
  InterfaceSums::Sums interfacesTold_;

  std::thread thread_;
};

}  // namespace agent::flow
