#pragma once
#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <utility>

#include "agent/flow/FlowIndex.h"
#include "agent/flow/FlowKey.h"
#include "agent/flow/KeyHash.h"
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

inline constexpr int64_t endingMs = 1000;  ///< the last acknowledgements follow a FIN
inline constexpr uint8_t tcpFin = 0x01, tcpSyn = 0x02, tcpRst = 0x04, tcpAck = 0x10;

/// What is known of one flow: one cache line for IPv4, one and a half for IPv6. `next` and `prev`
/// are places, from 1, of entries in the same list of a FlowTable.
struct FlowEntry4 {
  FlowKey4 key;
  uint32_t next;
  uint64_t octets;
  uint64_t packets;
  int64_t firstMs;
  int64_t lastMs;
  uint32_t prev;
  uint16_t list;  ///< that the entry is in
  uint8_t tcpFlags;
  bool used : 1;
  bool ending : 1;  ///< FIN or RST was seen

  static constexpr uint32_t flowLabel = 0;
  void flowLabelIs(uint32_t) {}
};
static_assert(sizeof(FlowEntry4) == 64, "a flow is one cache line");

struct alignas(32) FlowEntry6 {
  FlowKey6 key;
  uint32_t next;
  uint64_t octets;
  uint64_t packets;
  int64_t firstMs;
  int64_t lastMs;
  uint32_t prev;
  uint32_t flowLabel;  ///< of the first packet
  uint16_t list;
  uint8_t tcpFlags;
  bool used : 1;
  bool ending : 1;

  void flowLabelIs(uint32_t v) { flowLabel = v; }
};
static_assert(sizeof(FlowEntry6) == 96, "a flow lies in two cache lines");

/// An entry's list in a FlowTable, and its neighbours there by their places from 1; 0: none.
struct FlowLinks {
  uint32_t& next;
  uint32_t& prev;
  uint16_t& list;
};

/// How a flow table sees its entries: here all of one type that is known when this is compiled. An
/// entry has members `used`, `firstMs` and `lastMs`.
template <class EntryType>
struct FixedFormat {
  using Entry = EntryType;
  using Key = decltype(Entry::key);
  uint64_t seed;

  static constexpr size_t entryLen() { return sizeof(Entry); }
  /// What packets of a flow do not need may lie elsewhere, so that more entries are in the cache.
  static constexpr size_t coldLen() { return 0; }
  static FlowLinks links(Entry& e, char* /*cold*/) { return {e.next, e.prev, e.list}; }
  static const Key& keyOf(const Entry& e) { return e.key; }
  static bool same(const Entry& e, const Key& key) { return e.key == key; }
  static void begin(Entry& e, const Key& key) {
    e = Entry{};
    e.key = key;
  }
  uint32_t hash(const Key& key) const { return static_cast<uint32_t>(keyHash(key, seed)); }
};

/// Entries behind each other, as long as their format says, and in another place their cold parts.
template <class Format>
class EntryArray {
 public:
  using Entry = typename Format::Entry;
  EntryArray(size_t n, const Format& format) : size_(n), format_(format) {
    octets_ = Mapping<char>(n * format.entryLen());
    if (format.coldLen() > 0) cold_ = Mapping<char>(n * format.coldLen());
  }
  size_t size() const { return size_; }
  Entry& operator[](size_t i) { return *reinterpret_cast<Entry*>(&octets_[i * len()]); }
  const Entry& operator[](size_t i) const {
    return *reinterpret_cast<const Entry*>(&octets_[i * len()]);
  }
  size_t indexOf(const Entry& e) const {
    const auto at = static_cast<size_t>(reinterpret_cast<const char*>(&e) - &octets_[0]);
    return len() == 64 ? at / 64 : at / len();  // most are, and are found without a division
  }
  char* coldOf(const Entry& e) {
    return format_.coldLen() > 0 ? &cold_[indexOf(e) * format_.coldLen()] : nullptr;
  }
  void forget(size_t first, size_t n) {
    octets_.forget(first * len(), n * len());
    if (format_.coldLen() > 0) cold_.forget(first * format_.coldLen(), n * format_.coldLen());
  }
  const Format& format() const { return format_; }

 private:
  size_t len() const { return format_.entryLen(); }
  Mapping<char> octets_;
  Mapping<char> cold_;
  size_t size_;
  Format format_;
};

/// The flows of one kind of packets. Entries keep their place while they live; an index leads to
/// them, and a wheel of ticks knows when each is due. A look-up costs two cache misses, and both
/// can be asked for ahead:
///
///   table.prefetchSlot(hash); ... place = table.prefetchEntry(hash);
///   ... table.find(key, hash, place)
///
/// Memory is one entry and 15 to 30 octets of the index for each flow, and nothing else that grows:
/// each entry is in one list at a time, of a tick of the wheel or of those overdue, by links in the
/// entries. Entries lie in 64 chunks at most, of 32,768 at least, the lowest filled first; chunks
/// that are empty go back to the system.
///
/// Times in milliseconds since 1970, from the packets. Not for several threads.
template <class EntryFormat>
class FlowTable {
 public:
  using Format = EntryFormat;
  using Entry = typename Format::Entry;
  using Key = typename Format::Key;
  static constexpr int64_t tickMs = 64;
  static constexpr int64_t ticks = 1024;  ///< 65 s: what is due later is looked at again then

  FlowTable(size_t capacity, const Format& format) : entries_(capacity, format) {
    while (maxChunks << chunkBits_ < capacity) ++chunkBits_;
    clearChunks();
  }

  size_t size() const { return size_; }
  size_t capacity() const { return entries_.size(); }
  bool full() const { return size_ == capacity(); }
  const Format& format() const { return entries_.format(); }
  /// The cold part of an entry, where the format has one.
  char* cold(const Entry& e) { return entries_.coldOf(e); }
  uint32_t hash(const Key& key) const { return format().hash(key); }

  void prefetchSlot(uint32_t hash) const { index_.prefetch(hash); }
  /// Where the entry of this hash most likely is, for `find`; 0: nowhere.
  uint32_t prefetchEntry(uint32_t hash) const {
    const uint32_t place = index_.find(hash, [](uint32_t) { return true; });
    if (place == 0) return 0;
    const auto* entry = reinterpret_cast<const char*>(&entries_[place - 1]);
    for (size_t at = 0; at < format().entryLen(); at += 64) __builtin_prefetch(entry + at, 1);
    return place;
  }

  /// Null: there is none. `place` is what `prefetchEntry` said, perhaps long ago.
  Entry* find(const Key& key, uint32_t hash, uint32_t place = 0) {
    const auto same = [&](uint32_t p) {
      return entries_[p - 1].used && format().same(entries_[p - 1], key);
    };
    if (place == 0 || !same(place)) place = index_.find(hash, same);
    return place == 0 ? nullptr : &entries_[place - 1];
  }

  /// The entry that must be removed before one with this hash can be added, for want of memory or
  /// since too many collide; null: none.
  Entry* inTheWay(uint32_t hash) {
    const uint32_t place = index_.inTheWay(hash);
    return place == 0 ? nullptr : &entries_[place - 1];
  }

  /// A new entry of a key that has none, its counts 0. The table is not full, and no entry is in
  /// the way of the hash. `dueAt` must follow.
  Entry& add(const Key& key, uint32_t hash, int64_t nowMs) {
    const uint32_t place = newPlace();
    Entry& e = entries_[place - 1];
    format().begin(e, key);
    e.firstMs = e.lastMs = nowMs;
    links(e).list = noList;
    e.used = true;
    index_.add(hash, place);
    ++size_;
    return e;
  }

  void remove(Entry& entry) {
    const uint32_t place = placeOf(entry);
    index_.remove(hash(format().keyOf(entry)), place);
    unlink(entry);
    entry.used = false;
    --size_;
    freePlace(place);
  }

  /// Asks the wheel to look at the entry at `whenMs`, or a tick later; it replaces what was asked
  /// before.
  void dueAt(Entry& entry, int64_t whenMs) {
    const int64_t tick = tick_ + ticksUntil(whenMs);
    cursor_ = std::min(cursor_, tick);
    link(entry, static_cast<uint16_t>(tick % ticks));
  }
  /// The entry waits behind those that are overdue already, and for no tick any more.
  void overdueIs(Entry& entry) {
    if (links(entry).list != overdueList) link(entry, overdueList);
  }
  /// The entry that is overdue for longest, or null.
  Entry* overdue() { return at(lists_[overdueList].head); }

  /// Lets time pass: `look(entry)` is called for each entry that became due. It removes the entry,
  /// gives it another time or makes it overdue.
  template <class Look>
  void advance(int64_t nowMs, Look look) {
    int64_t steps = (nowMs - tickBeganMs_) / tickMs;
    tickBeganMs_ += std::max<int64_t>(steps - ticks, 0) * tickMs;  // each list once
    for (steps = std::min(steps, ticks); steps > 0; --steps) {
      ++tick_;
      tickBeganMs_ += tickMs;
      for (Entry* e = at(lists_[static_cast<size_t>(tick_ % ticks)].head); e;) {
        Entry* next = at(links(*e).next);
        __builtin_prefetch(next, 1);
        look(*e);
        e = next;
      }
    }
  }
  /// The clock was set to this earlier time: the wheel goes on from there. Entries are looked at
  /// when as much time has passed as they were to wait.
  void setBack(int64_t nowMs) { tickBeganMs_ = nowMs - nowMs % tickMs; }

  /// Of entries that are overdue or due soonest, one that truly is: `dueOf(entry)` tells its time
  /// in milliseconds. The table is not empty.
  template <class DueOf>
  Entry& victim(DueOf dueOf) {
    for (int tries = 1;; ++tries) {
      Entry* e = overdue();
      int64_t due = tick_ + 1;
      if (!e) {
        due = cursor_ = std::max(cursor_, tick_ + 1);
        while (!(e = at(lists_[static_cast<size_t>(cursor_ % ticks)].head)))
          if (++cursor_ >= tick_ + ticks) cursor_ = tick_ + 1;
        due = cursor_;
      }
      const int64_t dueMs = dueOf(*e);
      if (tries == victimTries || tick_ + ticksUntil(dueMs) <= due) return *e;
      dueAt(*e, dueMs);  // it went on after it was put here
    }
  }

  /// Visits the entries in the next `n` places from `place` on, of those that were ever used.
  /// Returns where the next visit goes on: at `capacity()` or beyond, nothing follows. What is
  /// added or removed between two visits may be missed, or come again in another place.
  template <class Visit>
  size_t visit(size_t place, size_t n, Visit visit) {
    for (size_t c = place >> chunkBits_; c < chunks_.size() && chunks_[c].length > 0; ++c) {
      const size_t first = firstOf(static_cast<uint32_t>(c));
      for (size_t i = std::max(place, first); i < first + chunks_[c].touched; ++i) {
        if (n-- == 0) return i;
        if (entries_[i].used) visit(entries_[i]);
      }
    }
    return capacity();
  }

  /// Visits every entry, in the order of their places, and forgets them all.
  template <class Visit>
  void takeAll(Visit visit) {
    for (uint32_t c = 0; c < chunks_.size(); ++c) {
      for (size_t i = firstOf(c); i < firstOf(c) + chunks_[c].touched; ++i)
        if (entries_[i].used) visit(std::as_const(entries_[i]));
      giveBack(c);
    }
    index_.clear();
    size_ = 0;
    lists_ = {};
    clearChunks();
  }

 private:
  static constexpr size_t maxChunks = 64;
  static constexpr int victimTries = 16;
  static constexpr uint16_t overdueList = ticks;
  static constexpr uint16_t noList = ticks + 1;
  struct List {
    uint32_t head = 0;  // places
    uint32_t tail = 0;
  };
  /// Neighbouring entries: the live ones, `room` places that are not; of these, those that were
  /// removed are linked by `next` from `free`, and those behind the first `touched` were never used
  /// or were given back.
  struct Chunk {
    uint32_t length = 0;
    uint32_t room = 0;
    uint32_t touched = 0;
    uint32_t free = 0;
  };

  FlowLinks links(Entry& e) { return format().links(e, cold(e)); }
  Entry* at(uint32_t place) { return place == 0 ? nullptr : &entries_[place - 1]; }
  uint32_t placeOf(const Entry& e) const { return static_cast<uint32_t>(entries_.indexOf(e)) + 1; }
  int64_t ticksUntil(int64_t ms) const {
    if (ms < tickBeganMs_) return 1;
    return std::min((ms - tickBeganMs_) / tickMs + 1, ticks - 1);
  }

  void link(Entry& e, uint16_t list) {
    unlink(e);
    List& l = lists_[list];
    const uint32_t place = placeOf(e);
    const FlowLinks own = links(e);
    own.list = list;
    own.next = 0;
    own.prev = l.tail;
    (l.tail == 0 ? l.head : links(entries_[l.tail - 1]).next) = place;
    l.tail = place;
  }
  void unlink(Entry& e) {
    const FlowLinks own = links(e);
    if (own.list == noList) return;
    List& l = lists_[own.list];
    (own.prev == 0 ? l.head : links(entries_[own.prev - 1]).next) = own.next;
    (own.next == 0 ? l.tail : links(entries_[own.next - 1]).prev) = own.prev;
  }

  size_t firstOf(uint32_t chunk) const { return size_t{chunk} << chunkBits_; }
  uint32_t newPlace() {
    const auto c = static_cast<uint32_t>(std::countr_zero(roomy_));
    Chunk& chunk = chunks_[c];
    uint32_t place = chunk.free;
    if (place != 0) {
      chunk.free = links(entries_[place - 1]).next;
    } else {
      place = static_cast<uint32_t>(firstOf(c)) + ++chunk.touched;
    }
    if (--chunk.room == 0) roomy_ &= ~(uint64_t{1} << c);
    return place;
  }
  void freePlace(uint32_t place) {
    const uint32_t c = (place - 1) >> chunkBits_;
    Chunk& chunk = chunks_[c];
    links(entries_[place - 1]).next = std::exchange(chunk.free, place);
    roomy_ |= uint64_t{1} << c;
    if (++chunk.room < chunk.length || c == 0) return;
    // Empty chunks stay as long as the flows would not fit half a chunk below them: else memory
    // would come and go all the time.
    for (uint32_t i = 1; i < chunks_.size(); ++i)
      if (chunks_[i].room == chunks_[i].length && size_ + chunks_[0].length / 2 <= firstOf(i))
        giveBack(i);
    index_.shrink();
  }
  void giveBack(uint32_t c) {
    if (chunks_[c].touched == 0) return;
    entries_.forget(firstOf(c), chunks_[c].length);
    chunks_[c].touched = chunks_[c].free = 0;
  }
  void clearChunks() {
    chunks_ = {};
    roomy_ = 0;
    for (uint32_t c = 0; c < maxChunks && firstOf(c) < capacity(); ++c) {
      const size_t length = std::min(capacity() - firstOf(c), size_t{1} << chunkBits_);
      chunks_[c].length = chunks_[c].room = static_cast<uint32_t>(length);
      roomy_ |= uint64_t{1} << c;
    }
  }

  EntryArray<Format> entries_;
  FlowIndex index_;
  size_t size_ = 0;
  uint32_t chunkBits_ = 15;
  std::array<Chunk, maxChunks> chunks_;
  uint64_t roomy_ = 0;  // a bit for each chunk that has a place free
  std::array<List, size_t{ticks} + 1> lists_{};
  int64_t tick_ = 0;         // counts on whatever the clock does; looked at up to here
  int64_t tickBeganMs_ = 0;  // by the clock
  int64_t cursor_ = 0;       // no entry is due before this tick
};

}  // namespace agent::flow
