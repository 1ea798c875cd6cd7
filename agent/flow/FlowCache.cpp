#include "agent/flow/FlowCache.h"

#include <algorithm>
#include <limits>

namespace agent::flow {

FlowCache::FlowCache(size_t maxFlows, const FlowTimes& times, uint64_t seed, const RecordPlan& plan,
                     RecordQueue& queue)
    : maxFlows_(maxFlows),
      times_(times),
      queue_(queue),
      ipv4_(plan.standard() ? maxFlows : 1, {seed}),
      ipv6_(plan.standard() ? maxFlows : 1, {seed}) {
  if (plan.standard()) return;
  for (PlannedFormat format : plan.formats()) {
    format.seedIs(seed);
    planned_.emplace_back(maxFlows, format);
  }
}

template <class Entry>
inline bool FlowCache::outdated(const Entry& e) const {
  return e.lastMs > nowMs_ + setBackMs;
}
template <class Entry>
inline int64_t FlowCache::dueMs(const Entry& e) const {
  if (outdated(e)) return std::numeric_limits<int64_t>::min();
  const int64_t silent = e.ending ? std::min(times_.inactiveMs, endingMs) : times_.inactiveMs;
  return std::min(e.firstMs + times_.activeMs, e.lastMs + silent);
}
template <class Entry>
EndReason FlowCache::reasonOf(const Entry& e) const {
  if (e.ending) return EndReason::endOfFlow;
  if (outdated(e)) return EndReason::forcedEnd;
  return e.lastMs + times_.inactiveMs < e.firstMs + times_.activeMs ? EndReason::idleTimeout
                                                                    : EndReason::activeTimeout;
}

template <class Table>
bool FlowCache::report(Table& table, const typename Table::Entry& entry, EndReason reason) {
  const auto& format = table.format();
  if (format.silent(entry)) return true;
  char* to = nullptr;
  while (hold_ || !(to = queue_.room(format.place())))
    if (!waiter_ || !waiter_()) return false;
  queue_.written(format.place(), format.encode(entry, table.cold(entry), reason, context_, to));
  ++counters_.expired[static_cast<size_t>(reason)];
  return true;
}

template <class Table>
bool FlowCache::stays(Table& table, typename Table::Entry& entry, EndReason reason) {
  if (reason != EndReason::activeTimeout || !table.format().goOn(entry, table.cold(entry)) ||
      dueMs(entry) <= nowMs_)
    return false;
  // Its next packet moves it in no wheel: the look comes in time for either end.
  table.dueAt(entry, nowMs_ + std::min(times_.activeMs, times_.inactiveMs));
  return true;
}

template <class Table>
void FlowCache::lose(const Table& table, const typename Table::Entry& entry) {
  ++counters_.lost[static_cast<size_t>(hold_ ? Loss::noCollector : Loss::queueFull)];
  counters_.lostPackets += table.format().packets(entry);
}

template <class Table>
bool FlowCache::look(Table& table, typename Table::Entry& entry) {
  if (const int64_t due = dueMs(entry); due > nowMs_) {
    table.dueAt(entry, due);
  } else if (const EndReason reason = reasonOf(entry); report(table, entry, reason)) {
    if (!stays(table, entry, reason)) table.remove(entry);
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
  eachTable([&](auto& table) {
    if (back) {
      table.setBack(nowMs);
    } else {
      this->timeIs(table);
    }
  });
}

template <class Table>
void FlowCache::evict(Table& table, typename Table::Entry& entry) {
  if (!report(table, entry, EndReason::lackOfResources)) lose(table, entry);
  table.remove(entry);
}
template <class Table>
void FlowCache::evictFrom(Table& table) {
  evict(table, table.victim([this](const auto& e) { return this->dueMs(e); }));
}

template <class Table, class S>
typename Table::Entry& FlowCache::make(Table& table, const typename Table::Key& key, const S& s) {
  if (size() >= maxFlows_) {
    bool evicted = table.size() > 0;
    if (evicted) evictFrom(table);
    eachTable([&](auto& other) {
      if (evicted || other.size() == 0) return;
      this->evictFrom(other);
      evicted = true;
    });
  }
  while (auto* entry = table.inTheWay(s.hash)) evict(table, *entry);
  ++counters_.created;
  auto& entry = table.add(key, s.hash, s.timeMs);
  table.format().keep(entry, table.cold(entry), s);
  table.dueAt(entry, dueMs(entry));
  return entry;
}

template <class Table, class S>
void FlowCache::count(Table& table, const typename Table::Key& key, const S& s) {
  auto* entry = table.find(key, s.hash, s.place);
  if (entry) {
    // The wheel is a tick late at most; a packet knows exactly that the flow before it is over. A
    // connection that begins anew on the same ports is another flow.
    const bool anew = entry->ending && (s.flags() & tcpSyn) != 0;
    if (dueMs(*entry) <= s.timeMs || anew) {
      const EndReason reason = reasonOf(*entry);
      if (report(table, *entry, reason)) {
        if (!stays(table, *entry, reason)) {
          table.remove(*entry);
          entry = nullptr;
        }
      } else if (outdated(*entry)) {  // it goes on, as long as it was, by the clock as it is now
        entry->firstMs += s.timeMs - entry->lastMs;
        entry->lastMs = s.timeMs;
      }
    }
  }
  if (!entry) {
    entry = &make(table, key, s);
  } else if (table.format().lacks(*entry, s)) {
    table.format().keepOther(*entry, table.cold(*entry), s);
  }
  table.format().count(*entry, s);
  if (table.format().ends(*entry, s) && !entry->ending) {
    entry->ending = true;
    table.dueAt(*entry, dueMs(*entry));
  }
}

template <class S>
void FlowCache::samplesAre(S* samples, size_t n) {
  uint64_t packets = 0;
  uint64_t octets = 0;
  for (size_t i = 0; i < n; ++i)
    place(samples[i], [&s = samples[i]](auto& table, const auto& key) {
      s.hash = table.hash(key);
      table.prefetchSlot(s.hash);
    });
  for (size_t i = 0; i < n; ++i)
    place(samples[i],
          [&s = samples[i]](auto& table, const auto&) { s.place = table.prefetchEntry(s.hash); });
  for (size_t i = 0; i < n; ++i) {
    const S& s = samples[i];
    packets += s.packets();
    octets += s.octets();
    if (s.timeMs != nowMs_) nowIs(s.timeMs);
    place(s, [&](auto& table, const auto& key) { this->count(table, key, s); });
  }
  counters_.packets += packets;
  counters_.octets += octets;
}
template void FlowCache::samplesAre(Sample* samples, size_t n);
template void FlowCache::samplesAre(PlannedSample* samples, size_t n);

bool FlowCache::feed(size_t& table, size_t& place, size_t places, FlowFeedBlock& to) {
  to.used = 0;
  to.nowMs = nowMs_;
  size_t i = 0;
  const size_t wanted = table;
  eachTable([&](auto& each) {
    if (i++ != wanted) return;
    const auto& format = each.format();
    to.place = format.place();
    place = each.visit(place, places, [&](const auto& e) {
      if (format.silent(e)) return;
      to.used += format.encode(e, each.cold(e), EndReason::forcedEnd, context_,
                               to.octets.data() + to.used);
    });
    if (place < each.capacity()) return;
    ++table;
    place = 0;
  });
  return table < i;
}

void FlowCache::endAll(EndReason reason) {
  eachTable([&](auto& table) {
    table.takeAll([&](const auto& entry) {
      if (!this->report(table, entry, reason)) this->lose(table, entry);
    });
  });
}

}  // namespace agent::flow
