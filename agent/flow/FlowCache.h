#pragma once
#include <array>
#include <cstdint>
#include <functional>

#include "agent/flow/FlowTable.h"
#include "agent/flow/PacketParser.h"
#include "agent/flow/RecordQueue.h"

namespace agent::flow {

/// Why a flow ended unreported.
enum class Loss : uint8_t {
  noCollector,  ///< the cache was full and no collector was ready
  queueFull,    ///< the cache was full and the queue of records, too
};
inline constexpr size_t losses = 2;

struct FlowCacheCounters {
  uint64_t packets = 0;  ///< that belong to a flow
  uint64_t octets = 0;   ///< of their IP packets
  uint64_t created = 0;
  std::array<uint64_t, endReasons> expired{};  ///< reported, by reason
  std::array<uint64_t, losses> lost{};         ///< flows
  uint64_t lostPackets = 0;                    ///< of lost flows
};

/// The flows under way, bounded. What ends is encoded at once and goes to the queue; when the queue
/// has no room, or nobody could be sent records, flows stay and go on counting: they are lost only
/// when their place is needed for others.
///
/// Time is that of the packets. When it goes back by more than `setBackMs` the clock was set: flows
/// from before then end as forced, each with its next packet or when it was to be looked at, with
/// their times by the clock as it was; no flow waits for the clock to catch up.
///
/// Memory: 64 octets for each IPv4 flow under way, 96 for IPv6, and 15 to 30 of the index, 45 while
/// it grows; however long flows are held, and whoever chose their keys. At most `maxFlows` are
/// under way. What a flood took goes back to the system, but for two chunks of each FlowTable.
class FlowCache {
 public:
  /// A packet, parsed, on its way through the cache.
  struct Sample {
    Parsed parsed;
    uint32_t hash = 0;
    uint32_t place = 0;
    int64_t timeMs = 0;
  };

  FlowCache(size_t maxFlows, const FlowTimes& times, uint64_t seed, RecordQueue& queue);

  /// Counts packets, in order, none of which has an error. Batches of some dozens hide the
  /// memory's latency.
  void samplesIs(Sample* samples, size_t n);
  /// Lets time pass without packets.
  void nowIs(int64_t nowMs);
  int64_t nowMs() const { return nowMs_; }
  /// Reports every flow that there is and forgets it.
  void endAll(EndReason reason);

  void timesIs(const FlowTimes& v) { times_ = v; }
  void vrfIdIs(uint32_t v) { vrfId_ = v; }
  /// While set nothing is reported: no collector is ready.
  void holdIs(bool v) { hold_ = v; }
  /// Called when a flow ends and cannot be reported; true: try again, perhaps it can by now.
  /// Without one, flows stay.
  void waiterIs(std::function<bool()> v) { waiter_ = std::move(v); }
  size_t size() const { return ipv4_.size() + ipv6_.size(); }
  size_t maxFlows() const { return maxFlows_; }
  const FlowCacheCounters& counters() const { return counters_; }

 private:
  static constexpr int64_t setBackMs = 1000;    // packets may be out of order by so much
  static constexpr int overdueLooks = 1 << 16;  // at a time

  template <class Table, class Key>
  void count(Table& table, const Key& key, const Sample& s);
  template <class Table>
  typename Table::Entry& make(Table& table, const typename Table::Key& key, const Sample& s);
  template <class Table>
  void timeIs(Table& table);
  /// False: it is over, and cannot be reported now.
  template <class Table>
  bool look(Table& table, typename Table::Entry& entry);
  template <class Table>
  void evict(Table& table, typename Table::Entry& entry);
  template <class Table>
  void evictFrom(Table& table);
  template <class Entry>
  void lose(const Entry& entry);
  template <class Entry>
  bool report(const Entry& entry, EndReason reason);
  /// It was last seen at a time that is yet to come, by the clock as it is now.
  template <class Entry>
  bool outdated(const Entry& e) const;
  template <class Entry>
  int64_t dueMs(const Entry& e) const;
  template <class Entry>
  EndReason reasonOf(const Entry& e) const;

  size_t maxFlows_;
  FlowTimes times_;
  RecordQueue& queue_;
  uint32_t vrfId_ = 0;
  bool hold_ = false;
  std::function<bool()> waiter_;
  int64_t nowMs_ = 0;
  FlowTable<FlowEntry4> ipv4_;
  FlowTable<FlowEntry6> ipv6_;
  FlowCacheCounters counters_;
};

}  // namespace agent::flow
