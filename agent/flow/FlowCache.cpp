#include "agent/flow/FlowCache.h"

#include <algorithm>
#include <limits>

namespace agent::flow {

FlowCache::FlowCache(size_t maxFlows, const FlowTimes& times, uint64_t seed, RecordQueue& queue)
    : maxFlows_(maxFlows),
      times_(times),
      queue_(queue),
      ipv4_(maxFlows, {seed}),
      ipv6_(maxFlows, {seed}) {}

template <class Entry>
inline bool FlowCache::outdated(const Entry& e) const {
  return e.lastMs > nowMs_ + setBackMs;
}
template <class Entry>
inline int64_t FlowCache::dueMs(const Entry& e) const {
  if (outdated(e)) return std::numeric_limits<int64_t>::min();
  const int64_t silent =
      e.ending ? std::min(times_.inactiveMs, FlowTable<Entry>::endingMs) : times_.inactiveMs;
  return std::min(e.firstMs + times_.activeMs, e.lastMs + silent);
}
template <class Entry>
EndReason FlowCache::reasonOf(const Entry& e) const {
  if (e.ending) return EndReason::endOfFlow;
  if (outdated(e)) return EndReason::forcedEnd;
  return e.lastMs + times_.inactiveMs < e.firstMs + times_.activeMs ? EndReason::idleTimeout
                                                                    : EndReason::activeTimeout;
}

template <class Entry>
bool FlowCache::report(const Entry& entry, EndReason reason) {
  constexpr bool ipv6 = sizeof(entry.key.src) == 16;
  char* to = nullptr;
  while (hold_ || !(to = queue_.room(ipv6)))
    if (!waiter_ || !waiter_()) return false;
  queue_.written(ipv6, encodeFlow(entry, reason, vrfId_, to));
  ++counters_.expired[static_cast<size_t>(reason)];
  return true;
}

template <class Entry>
void FlowCache::lose(const Entry& entry) {
  ++counters_.lost[static_cast<size_t>(hold_ ? Loss::noCollector : Loss::queueFull)];
  counters_.lostPackets += entry.packets;
}

template <class Table>
bool FlowCache::look(Table& table, typename Table::Entry& entry) {
  if (const int64_t due = dueMs(entry); due > nowMs_) {
    table.dueAt(entry, due);
  } else if (report(entry, reasonOf(entry))) {
    table.remove(entry);
  } else {
    table.overdueIs(entry);
    return false;
  }
  return true;
}

template <class Table>
void FlowCache::timeIs(Table& table) {
  table.advance(nowMs_, [&](auto& entry) { look(table, entry); });
  // The queue bounds how many can be reported at a time; this, how many went on in the meantime.
  for (int looks = 0; looks < overdueLooks && !hold_; ++looks) {
    auto* entry = table.overdue();
    if (!entry || !look(table, *entry)) return;
  }
}

void FlowCache::nowIs(int64_t nowMs) {
  if (nowMs <= nowMs_ && nowMs >= nowMs_ - setBackMs) return;
  const bool back = nowMs < nowMs_;
  nowMs_ = nowMs;
  if (back) {
    ipv4_.setBack(nowMs);
    ipv6_.setBack(nowMs);
  } else {
    timeIs(ipv4_);
    timeIs(ipv6_);
  }
}

template <class Table>
void FlowCache::evict(Table& table, typename Table::Entry& entry) {
  if (!report(entry, EndReason::lackOfResources)) lose(entry);
  table.remove(entry);
}
template <class Table>
void FlowCache::evictFrom(Table& table) {
  evict(table, table.victim([this](const auto& e) { return this->dueMs(e); }));
}

template <class Table>
typename Table::Entry& FlowCache::make(Table& table, const typename Table::Key& key,
                                       const Sample& s) {
  if (size() >= maxFlows_) {
    if (table.size() > 0) {
      evictFrom(table);
    } else if (ipv4_.size() > 0) {
      evictFrom(ipv4_);
    } else {
      evictFrom(ipv6_);
    }
  }
  while (auto* entry = table.inTheWay(s.hash)) evict(table, *entry);
  ++counters_.created;
  auto& entry = table.add(key, s.hash, s.timeMs);
  entry.flowLabelIs(s.parsed.flowLabel);
  table.dueAt(entry, dueMs(entry));
  return entry;
}

template <class Table, class Key>
void FlowCache::count(Table& table, const Key& key, const Sample& s) {
  auto* entry = table.find(key, s.hash, s.place);
  if (entry) {
    // The wheel is a tick late at most; a packet knows exactly that the flow before it is over. A
    // connection that begins anew on the same ports is another flow.
    const bool anew = entry->ending && (s.parsed.tcpFlags & tcpSyn) != 0;
    if (dueMs(*entry) <= s.timeMs || anew) {
      if (report(*entry, reasonOf(*entry))) {
        table.remove(*entry);
        entry = nullptr;
      } else if (outdated(*entry)) {  // it goes on, as long as it was, by the clock as it is now
        entry->firstMs += s.timeMs - entry->lastMs;
        entry->lastMs = s.timeMs;
      }
    }
  }
  if (!entry) entry = &make(table, key, s);
  ++entry->packets;
  entry->octets += s.parsed.ipOctets;
  entry->firstMs = std::min(entry->firstMs, s.timeMs);
  entry->lastMs = std::max(entry->lastMs, s.timeMs);
  entry->tcpFlags |= s.parsed.tcpFlags;
  if ((s.parsed.tcpFlags & (tcpFin | tcpRst)) != 0 && !entry->ending) {
    entry->ending = true;
    table.dueAt(*entry, dueMs(*entry));
  }
}

void FlowCache::samplesIs(Sample* samples, size_t n) {
  for (size_t i = 0; i < n; ++i) {
    Sample& s = samples[i];
    if (s.parsed.ipv6) {
      s.hash = ipv6_.hash(s.parsed.key6);
      ipv6_.prefetchSlot(s.hash);
    } else {
      s.hash = ipv4_.hash(s.parsed.key4);
      ipv4_.prefetchSlot(s.hash);
    }
  }
  for (size_t i = 0; i < n; ++i) {
    Sample& s = samples[i];
    s.place = s.parsed.ipv6 ? ipv6_.prefetchEntry(s.hash) : ipv4_.prefetchEntry(s.hash);
  }
  counters_.packets += n;
  for (size_t i = 0; i < n; ++i) {
    const Sample& s = samples[i];
    counters_.octets += s.parsed.ipOctets;
    if (s.timeMs != nowMs_) nowIs(s.timeMs);
    if (s.parsed.ipv6) {
      count(ipv6_, s.parsed.key6, s);
    } else {
      count(ipv4_, s.parsed.key4, s);
    }
  }
}

void FlowCache::endAll(EndReason reason) {
  const auto end = [&](const auto& entry) {
    if (!report(entry, reason)) lose(entry);
  };
  ipv4_.takeAll(end);
  ipv6_.takeAll(end);
}

}  // namespace agent::flow
