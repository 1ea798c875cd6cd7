// How a PlannedFormat counts nanoseconds and two-way flows, and what a report leaves of a flow that
// goes on.
#include <algorithm>
#include <limits>
#include <utility>

#include "agent/flow/RecordPlan.h"

namespace agent::flow {
namespace {
// The first time of a direction without a packet: later than any packet's.
constexpr int64_t notYet = std::numeric_limits<int64_t>::max() / 4;

/// As if no packet had been counted, but for the time of the last one.
void reset(PlannedEntry& e) {
  e.octets = e.packets = 0;
  e.firstMs = notYet;
  e.tcpFlags = 0;
  e.leastTtl = UINT8_MAX;
  e.leastOctets = UINT16_MAX;
  e.mostTtl = 0;
  e.mostOctets = 0;
}
}  // namespace

void PlannedFormat::countNanoseconds(Nanoseconds& ns, const Entry& e, const PlannedSample& s) {
  if (s.timeMs < e.firstMs || (s.timeMs == e.firstMs && s.timeNs < ns.first)) ns.first = s.timeNs;
  if (s.timeMs > e.lastMs || (s.timeMs == e.lastMs && s.timeNs > ns.last)) ns.last = s.timeNs;
}

void PlannedFormat::beginBoth(Entry& e, char* cold, const PlannedSample& s) const {
  std::memset(cold, 0, totals_);
  e.turned = s.side.turned != s.side.answer;
  e.sure = s.side.sure;
  Biflow& both = biflow(e);
  reset(both.reverse);
  both.firstMs = notYet;
  both.lastMs = both.reverse.lastMs = -notYet;
  keepOther(e, cold, s);
}

void PlannedFormat::keepOther(Entry& e, char* cold, const PlannedSample& s) const {
  const bool reverse = s.side.turned != e.turned;
  e.begun |= reverse ? 2 : 1;
  auto* to = reinterpret_cast<uint64_t*>(cold) + (reverse ? first_[0].size() : 0);
  for (const Word& w : first_[reverse]) *to++ = s.facts.word[w.index] & w.mask;
}

void PlannedFormat::countEither(Entry& e, const PlannedSample& s) const {
  const bool reverse = s.side.turned != e.turned;
  Biflow& both = biflow(e);
  const int64_t first = std::min(e.firstMs, s.timeMs);
  const int64_t last = std::max(e.lastMs, s.timeMs);
  Entry& own = reverse ? both.reverse : e;
  if (!reverse) {
    e.firstMs = both.firstMs;
    e.lastMs = both.lastMs;
  }
  if (layer2_ > 0) e.words()[layer2_ + reverse] += s.layer2Octets;
  if (nanoseconds_ > 0) countNanoseconds(nanoseconds(e)[reverse], own, s);
  countIn(own, s);
  if (!reverse) {
    both.firstMs = e.firstMs;
    both.lastMs = e.lastMs;
  }
  e.firstMs = first;
  e.lastMs = last;
}

bool PlannedFormat::goOn(Entry& e, char* cold) const {
  if (!hasTotals_ && biflow_ == 0) return false;
  const auto begin = [&](Entry& own, size_t which) {
    uint64_t layer2 = 0;
    if (layer2_ > 0) layer2 = std::exchange(e.words()[layer2_ + which], 0);
    if (hasTotals_) {
      auto* const total = reinterpret_cast<uint64_t*>(cold + totals_) + 3 * which;
      total[0] += own.octets;
      total[1] += layer2;
      total[2] += own.packets;
    }
    reset(own);
  };
  begin(e, 0);
  if (biflow_ > 0) {
    Biflow& both = biflow(e);
    begin(both.reverse, 1);
    both.firstMs = notYet;
    both.lastMs = both.reverse.lastMs = -notYet;
  }
  return true;
}

PlannedFormat::Side PlannedFormat::sideOf(const Entry& e, bool reverse) const {
  const auto* const ns = reinterpret_cast<const Nanoseconds*>(e.words() + nanoseconds_);
  if (biflow_ == 0) return {e, e.firstMs, e.lastMs, *ns};
  const Biflow& both = biflow(e);
  const Entry& own = reverse ? both.reverse : e;
  if (own.packets == 0) return {own, e.firstMs, e.lastMs, ns[!reverse]};
  // The entry's times were shifted when the clock was set back while nothing could be reported.
  const auto within = [&](int64_t ms) { return std::clamp(ms, e.firstMs, e.lastMs); };
  return {own, within(reverse ? own.firstMs : both.firstMs),
          within(reverse ? own.lastMs : both.lastMs), ns[reverse]};
}

}  // namespace agent::flow
