#pragma once
#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstring>
#include <utility>
#include <vector>

#include "agent/flow/FlowKey.h"
#include "agent/flow/Mapping.h"

namespace agent::flow {

/// flowEndReason, IANA element 136.
enum class EndReason : uint8_t {
  idleTimeout = 1,
  activeTimeout = 2,
  endOfFlow = 3,
  forcedEnd = 4,
  lackOfResources = 5
};
inline constexpr size_t endReasons = 6;  // index by value

struct FlowTimes {
  int64_t activeMs = 60000;    ///< a flow that lasts is reported this often
  int64_t inactiveMs = 15000;  ///< silence after which it is over
  bool operator==(const FlowTimes&) const = default;
};

inline constexpr uint8_t tcpFin = 0x01, tcpSyn = 0x02, tcpRst = 0x04;

/// What is known of one flow: one cache line for IPv4, one and a half for IPv6.
struct FlowEntry4 {
  FlowKey4 key;
  uint32_t hash;
  uint64_t octets;
  uint64_t packets;
  int64_t firstMs;
  int64_t lastMs;
  uint32_t dueTick;  ///< when the wheel looks at it; else the wheel's item is stale
  uint8_t tcpFlags;
  bool used;
  bool ending;  ///< FIN or RST was seen

  static constexpr uint32_t flowLabel = 0;
  void flowLabelIs(uint32_t) {}
};
static_assert(sizeof(FlowEntry4) == 64, "a flow is one cache line");

struct alignas(32) FlowEntry6 {
  FlowKey6 key;
  uint32_t hash;
  uint64_t octets;
  uint64_t packets;
  int64_t firstMs;
  int64_t lastMs;
  uint32_t dueTick;
  uint32_t flowLabel;  ///< of the first packet
  uint8_t tcpFlags;
  bool used;
  bool ending;

  void flowLabelIs(uint32_t v) { flowLabel = v; }
};
static_assert(sizeof(FlowEntry6) == 96, "a flow lies in two cache lines");

/// A keyed 32-bit hash of a flow key: who does not know the seed cannot make keys collide.
template <class Key>
uint32_t flowHash(const Key& key, uint64_t seed) {
  static_assert(sizeof(Key) % 4 == 0);
  const auto mix = [](uint64_t a, uint64_t b) {
    const auto p = static_cast<unsigned __int128>(a) * b;
    return static_cast<uint64_t>(p) ^ static_cast<uint64_t>(p >> 64);
  };
  const auto* at = reinterpret_cast<const char*>(&key);
  uint64_t h = seed;
  size_t i = 0;
  for (; i + 16 <= sizeof(Key); i += 16) {
    uint64_t a = 0;
    uint64_t b = 0;
    std::memcpy(&a, at + i, 8);
    std::memcpy(&b, at + i + 8, 8);
    h = mix(a ^ 0x9e3779b97f4a7c15, b ^ h);
  }
  uint64_t a = 0;
  uint64_t b = 0;
  if constexpr (sizeof(Key) % 16 >= 8) std::memcpy(&a, at + i, 8);
  if constexpr (sizeof(Key) % 8 == 4) std::memcpy(&b, at + sizeof(Key) - 4, 4);
  h = mix(a ^ 0xe7037ed1a0b428db, b ^ h);
  h = mix(h ^ seed, 0x8ebc6af09c88c6e3);
  return static_cast<uint32_t>(h ^ (h >> 32));
}

/// The flows of one address family. Entries keep their place while they live; an index of 8-octet
/// slots, at most half full, leads to them, and a wheel of ticks knows when each is due. A look-up
/// costs two cache misses, and both can be asked for ahead:
///
///   table.prefetchSlot(hash); ... place = table.prefetchEntry(hash);
///   ... table.find(key, hash, place)
///
/// Times in milliseconds since 1970, from the packets. Not for several threads.
template <class EntryType>
class FlowTable {
 public:
  using Entry = EntryType;
  using Key = decltype(Entry::key);
  static constexpr int64_t tickMs = 64;
  static constexpr uint32_t ticks = 1024;    ///< 65 s: what is due later is looked at again then
  static constexpr int64_t endingMs = 1000;  ///< the last acknowledgements follow a FIN

  explicit FlowTable(size_t capacity)
      : entries_(capacity), slots_(initialSlots), mask_(initialSlots - 1), wheel_(ticks) {}

  size_t size() const { return size_; }
  size_t capacity() const { return entries_.size(); }
  bool full() const { return size_ == capacity(); }

  void prefetchSlot(uint32_t hash) const { __builtin_prefetch(&slots_[hash & mask_]); }
  /// Where the entry of this hash most likely is, for `find`; 0: nowhere.
  uint32_t prefetchEntry(uint32_t hash) const {
    size_t i = hash & mask_;
    while (slots_[i].place != 0 && slots_[i].hash != hash) i = (i + 1) & mask_;
    const uint32_t place = slots_[i].place;
    if (place == 0) return 0;
    const auto* entry = reinterpret_cast<const char*>(&entries_[place - 1]);
    __builtin_prefetch(entry, 1);
    if constexpr (sizeof(Entry) > 64) __builtin_prefetch(entry + 64, 1);
    return place;
  }

  /// Null: there is none. `place` is what `prefetchEntry` said, perhaps long ago.
  Entry* find(const Key& key, uint32_t hash, uint32_t place = 0) {
    if (place != 0) {
      Entry& e = entries_[place - 1];
      if (e.used && e.key == key) return &e;
    }
    for (size_t i = hash & mask_; slots_[i].place != 0; i = (i + 1) & mask_) {
      if (slots_[i].hash != hash) continue;
      Entry& e = entries_[slots_[i].place - 1];
      if (e.key == key) return &e;
    }
    return nullptr;
  }

  /// A new entry of a key that has none, its counts 0; the table is not full.
  Entry& add(const Key& key, uint32_t hash, int64_t nowMs) {
    if (2 * (size_ + 1) > slots_.size()) grow();
    uint32_t place = 0;
    if (free_.empty()) {
      place = fresh_++;
    } else {
      place = free_.back();
      free_.pop_back();
    }
    Entry& e = entries_[place];
    e = Entry{};
    e.key = key;
    e.hash = hash;
    e.firstMs = e.lastMs = nowMs;
    e.used = true;
    insert(hash, place + 1);
    ++size_;
    return e;
  }

  void remove(Entry& entry) {
    const auto place = static_cast<uint32_t>(&entry - &entries_[0]);
    size_t i = entry.hash & mask_;
    while (slots_[i].place != place + 1) i = (i + 1) & mask_;
    // What follows moves up, unless it would come to lie before its own home.
    for (size_t next = (i + 1) & mask_; slots_[next].place != 0; next = (next + 1) & mask_) {
      const size_t home = slots_[next].hash & mask_;
      if (((next - home) & mask_) < ((next - i) & mask_)) continue;
      slots_[i] = slots_[next];
      i = next;
    }
    slots_[i] = {};
    entry.used = false;
    free_.push_back(place);
    --size_;
  }

  /// Asks the wheel to look at the entry at `whenMs`, or a tick later; it replaces what was asked
  /// before.
  void dueAt(Entry& entry, int64_t whenMs) {
    int64_t tick = whenMs / tickMs + 1;
    tick = std::clamp(tick, tick_ + 1, tick_ + ticks - 1);
    if (tick < cursor_) cursor_ = tick;
    entry.dueTick = static_cast<uint32_t>(tick);
    wheel_[static_cast<size_t>(tick) % ticks].push_back(
        {static_cast<uint32_t>(&entry - &entries_[0]), entry.dueTick});
  }

  /// Lets time pass: `look(entry)` is called for each entry that became due. It removes the entry
  /// or gives it another time.
  template <class Look>
  void advance(int64_t nowMs, Look look) {
    const int64_t to = nowMs / tickMs;
    if (!started_) tick_ = cursor_ = to;
    started_ = true;
    if (to <= tick_) return;
    if (to - tick_ > ticks) tick_ = to - ticks;  // each slot once
    while (tick_ < to) {
      ++tick_;
      auto& slot = wheel_[static_cast<size_t>(tick_) % ticks];
      if (slot.empty()) continue;
      due_.clear();
      due_.swap(slot);
      for (size_t i = 0; i < due_.size(); ++i) {
        if (i + 8 < due_.size()) __builtin_prefetch(&entries_[due_[i + 8].place], 1);
        if (Entry* e = live(due_[i])) look(*e);
      }
    }
  }

  /// Of entries that are due soonest, one that truly is: `dueOf(entry)` tells its time in
  /// milliseconds. The table is not empty.
  template <class DueOf>
  Entry& victim(DueOf dueOf) {
    cursor_ = std::max(cursor_, tick_ + 1);
    Entry* chosen = nullptr;
    for (int tries = 0; tries < victimTries;) {
      auto& slot = wheel_[static_cast<size_t>(cursor_) % ticks];
      if (slot.empty()) {
        if (++cursor_ >= tick_ + ticks) cursor_ = tick_ + 1;
        continue;
      }
      const Item item = slot.back();
      slot.pop_back();
      Entry* e = live(item);
      if (!e) continue;
      ++tries;
      chosen = e;
      if (dueOf(*e) / tickMs + 1 <= cursor_) break;
      if (tries < victimTries) dueAt(*e, dueOf(*e));  // it went on after it was put here
    }
    return *chosen;
  }

  /// Visits every entry, in the order of their places, and forgets them all. Time may begin anew,
  /// at an earlier moment.
  template <class Visit>
  void takeAll(Visit visit) {
    for (uint32_t place = 0; place < fresh_; ++place) {
      if (!entries_[place].used) continue;
      visit(std::as_const(entries_[place]));
      entries_[place].used = false;
    }
    slots_ = Mapping<Slot>(initialSlots);
    mask_ = initialSlots - 1;
    free_.clear();
    fresh_ = 0;
    size_ = 0;
    for (auto& slot : wheel_) slot.clear();
    started_ = false;
  }

 private:
  static constexpr size_t initialSlots = 4096;
  static constexpr int victimTries = 16;
  struct Slot {
    uint32_t hash;
    uint32_t place;  // the entry's, from 1; 0: free
  };
  struct Item {
    uint32_t place;
    uint32_t tick;
  };

  Entry* live(const Item& item) {
    Entry& e = entries_[item.place];
    return e.used && e.dueTick == item.tick ? &e : nullptr;
  }
  void insert(uint32_t hash, uint32_t place) {
    size_t i = hash & mask_;
    while (slots_[i].place != 0) i = (i + 1) & mask_;
    slots_[i] = {hash, place};
  }
  void grow() {
    Mapping<Slot> old = std::move(slots_);
    slots_ = Mapping<Slot>(2 * old.size());
    mask_ = slots_.size() - 1;
    for (size_t i = 0; i < old.size(); ++i)
      if (old[i].place != 0) insert(old[i].hash, old[i].place);
  }

  Mapping<Entry> entries_;
  Mapping<Slot> slots_;
  size_t mask_;
  std::vector<uint32_t> free_;
  uint32_t fresh_ = 0;  // places from here on were never used
  size_t size_ = 0;
  std::vector<std::vector<Item>> wheel_;
  std::vector<Item> due_;
  bool started_ = false;
  int64_t tick_ = 0;    // looked at up to here
  int64_t cursor_ = 0;  // no entry is due before
};

}  // namespace agent::flow
