#pragma once
#include <array>
#include <cstdint>
#include <functional>
#include <utility>
#include <vector>

#include "agent/flow/FlowFeed.h"
#include "agent/flow/FlowTable.h"
#include "agent/flow/PacketParser.h"
#include "agent/flow/RecordPlan.h"
#include "agent/flow/RecordQueue.h"

namespace agent::flow {

/// Why a flow ended unreported.
enum class Loss : uint8_t {
  noCollector,  ///< no collector was ready when the flow had to leave
  queueFull,    ///< the queue of records had no room when the flow had to leave
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
/// when their place is needed for others, or when the cache ends.
///
/// Time is that of the packets. When it goes back by more than `setBackMs` the clock was set: flows
/// from before end as forced at their next packet or look (as ended, after FIN or RST), with the
/// times of the clock as it was. One that cannot be reported then goes on, its times shifted to the
/// new clock. No flow waits for the clock to catch up.
///
/// The standard record has entries and code of its own, every other record those of its plan; all
/// else is the same. A flow whose record has totals stays when it is reported for its length, so
/// that they go on; it ends silently when no packet follows.
///
/// Memory: of the standard record 64 octets for each IPv4 flow under way, 96 for IPv6, of others
/// 80 and more, and 15 to 30 of the index, 45 while it grows; however long flows are held, and
/// whoever chose their keys. At most `maxFlows` are under way. What a flood took goes back to the
/// system, but for two chunks of each FlowTable.
class FlowCache {
 public:
  /// A packet of the standard record, parsed, on its way through the cache.
  struct Sample {
    Parsed parsed;
    uint32_t hash = 0;
    uint32_t place = 0;
    int64_t timeMs = 0;

    uint8_t flags() const { return parsed.tcpFlags; }
    uint32_t octets() const { return parsed.ipOctets; }
    uint32_t packets() const { return parsed.packets; }
  };

  FlowCache(size_t maxFlows, const FlowTimes& times, uint64_t seed, const RecordPlan& plan,
            RecordQueue& queue);

  /// Counts packets in order. A `Sample` is of the standard record, and its packet has no error; a
  /// `PlannedSample` is of any other record, and its packet may be no IP packet. Batches of some
  /// dozens hide the memory's latency.
  void samplesIs(Sample* samples, size_t n) { samplesAre(samples, n); }
  void samplesIs(PlannedSample* samples, size_t n) { samplesAre(samples, n); }
  /// Lets time pass without packets.
  void nowIs(int64_t nowMs);
  int64_t nowMs() const { return nowMs_; }
  /// Reports every flow that there is and forgets it.
  void endAll(EndReason reason);

  /// Writes the flows in the next `places` places, from a table and a place there on, as records of
  /// what was counted so far; both are set to where the next call goes on. False: nothing follows.
  /// A flow that was reported and stays for its totals is left out until its next packet.
  bool feed(size_t& table, size_t& place, size_t places, FlowFeedBlock& to);

  void timesIs(const FlowTimes& v) { times_ = v; }
  void contextIs(RecordContext v) { context_ = std::move(v); }
  /// While set nothing is reported: no collector is ready.
  void holdIs(bool v) { hold_ = v; }
  /// Called when a flow ends and cannot be reported; true: try again, perhaps it can by now.
  /// Without one, flows stay.
  void waiterIs(std::function<bool()> v) { waiter_ = std::move(v); }
  size_t size() const {
    size_t size = ipv4_.size() + ipv6_.size();
    for (const auto& table : planned_) size += table.size();
    return size;
  }
  size_t maxFlows() const { return maxFlows_; }
  const FlowCacheCounters& counters() const { return counters_; }

 private:
  static constexpr int64_t setBackMs = 1000;    // packets may be out of order by so much
  static constexpr int overdueLooks = 1 << 16;  // at a time

  template <class S>
  void samplesAre(S* samples, size_t n);
  /// Calls `visit(table, key)` with where the packet belongs.
  template <class Visit>
  void place(const Sample& s, Visit visit) {
    if (s.parsed.ipv6) {
      visit(ipv6_, s.parsed.key6);
    } else {
      visit(ipv4_, s.parsed.key4);
    }
  }
  template <class Visit>
  void place(const PlannedSample& s, Visit visit) {
    visit(planned_[s.layout], s.key.data());
  }
  template <class Visit>
  void eachTable(Visit visit) {
    visit(ipv4_);
    visit(ipv6_);
    for (auto& table : planned_) visit(table);
  }
  template <class Table, class S>
  void count(Table& table, const typename Table::Key& key, const S& s);
  template <class Table, class S>
  typename Table::Entry& make(Table& table, const typename Table::Key& key, const S& s);
  template <class Table>
  void timeIs(Table& table);
  /// False: it is over, and cannot be reported now.
  template <class Table>
  bool look(Table& table, typename Table::Entry& entry);
  template <class Table>
  void evict(Table& table, typename Table::Entry& entry);
  template <class Table>
  void evictFrom(Table& table);
  template <class Table>
  void lose(const Table& table, const typename Table::Entry& entry);
  template <class Table>
  bool report(Table& table, const typename Table::Entry& entry, EndReason reason);
  /// After the report of a flow that is over: true, it stays.
  template <class Table>
  bool stays(Table& table, typename Table::Entry& entry, EndReason reason);
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
  RecordContext context_;
  bool hold_ = false;
  std::function<bool()> waiter_;
  int64_t nowMs_ = 0;
  FlowTable<StandardFormat<FlowEntry4>> ipv4_;
  FlowTable<StandardFormat<FlowEntry6>> ipv6_;
  std::vector<FlowTable<PlannedFormat>> planned_;  // empty for the standard record
  FlowCacheCounters counters_;
};

}  // namespace agent::flow
