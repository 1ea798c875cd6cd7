#pragma once
#ifdef __SSE2__
#include <emmintrin.h>
#endif

#include <array>
#include <bit>
#include <cstdint>
#include <new>
#include <utility>

#include "agent/flow/Mapping.h"

namespace agent::flow {

/// Leads from the hash of a key to the places, from 1, of the entries that have it. A bucket of one
/// cache line has room for seven; what finds its own bucket full lies in one of the next. Each
/// bucket counts those that went past it, so that a search ends where nobody did.
///
/// Whatever the hashes, a search, `add` and `remove` read `reach` buckets at most, and at most
/// `equalMax` places have the same hash: `inTheWay` names who must go before another one has room.
/// Hashes that are spread evenly never come near these limits.
///
/// Memory: 15 to 30 octets per entry, and half as much again while it grows.
class FlowIndex {
 public:
  static constexpr size_t reach = 32;
  static constexpr int equalMax = 8;

  void prefetch(uint32_t hash) const { __builtin_prefetch(&buckets_[hash & mask_]); }

  /// The first place with this hash for which `same(place)` is true, or 0.
  template <class Same>
  uint32_t find(uint32_t hash, Same same) const {
    size_t at = hash & mask_;
    for (size_t n = 0; n < reach; ++n, at = (at + 1) & mask_) {
      const Bucket& b = buckets_[at];
      for (uint32_t m = matches(b, hash); m != 0; m &= m - 1) {
        const uint32_t place = b.place[static_cast<size_t>(std::countr_zero(m))];
        if (same(place)) return place;
      }
      if (b.passed == 0) break;
    }
    return 0;
  }

  /// The place of an entry that must be removed before one with this hash can be added; 0: none.
  uint32_t inTheWay(uint32_t hash) {
    if (size_ >= growAt_ && !resize(2 * buckets_.size())) growAt_ += growAt_ / 4;
    size_t at = hash & mask_;
    const Bucket& home = buckets_[at];
    if (home.passed == 0 && home.used != allUsed && matches(home, hash) == 0) return 0;
    bool room = false;
    bool more = true;
    int equal = 0;
    for (size_t n = 0; n < reach && (more || !room); ++n, at = (at + 1) & mask_) {
      const Bucket& b = buckets_[at];
      const uint32_t m = matches(b, hash);
      equal += std::popcount(m);
      if (equal >= equalMax) return b.place[static_cast<size_t>(std::countr_zero(m))];
      room = room || b.used != allUsed;
      more = more && b.passed != 0;
    }
    return room ? 0 : home.place[0];
  }

  /// Nobody may be in the way.
  void add(uint32_t hash, uint32_t place) {
    put(buckets_, mask_, hash, place);
    ++size_;
  }

  void remove(uint32_t hash, uint32_t place) {
    --size_;
    for (size_t at = hash & mask_;; at = (at + 1) & mask_) {
      Bucket& b = buckets_[at];
      for (uint32_t m = matches(b, hash); m != 0; m &= m - 1) {
        if (b.place[static_cast<size_t>(std::countr_zero(m))] != place) continue;
        b.used &= ~(m & -m);
        return;
      }
      --b.passed;
    }
  }

  /// Gives back memory that so few entries do not need.
  void shrink() {
    size_t n = buckets_.size();
    while (n > initialBuckets && size_ < maxLoad(n) / 4) n /= 2;
    if (n < buckets_.size()) resize(n);
  }
  void clear() {
    buckets_.forget(0, buckets_.size());
    size_ = 0;
    shrink();
  }

 private:
  static constexpr size_t initialBuckets = 512;
  static constexpr size_t ways = 7;
  static constexpr uint32_t allUsed = (1u << ways) - 1;
  struct alignas(64) Bucket {
    std::array<uint32_t, ways> hash;
    uint32_t passed;  // entries that belong to this bucket or one before it, and lie behind it
    std::array<uint32_t, ways> place;
    uint32_t used;  // a bit for each of the seven
  };
  static_assert(sizeof(Bucket) == 64);

  static size_t maxLoad(size_t buckets) { return buckets * ways * 5 / 8; }
  /// A bit for each entry of the bucket that has the hash.
  static uint32_t matches(const Bucket& b, uint32_t hash) {
#ifdef __SSE2__
    // Two comparisons without a branch; the eighth word is not a hash, and `used` leaves it out.
    const auto* four = reinterpret_cast<const __m128i*>(&b);
    const __m128i wanted = _mm_set1_epi32(static_cast<int>(hash));
    const auto equal = [&](const __m128i* at) {
      return _mm_movemask_ps(_mm_castsi128_ps(_mm_cmpeq_epi32(_mm_load_si128(at), wanted)));
    };
    return static_cast<uint32_t>(equal(four) | equal(four + 1) << 4) & b.used;
#else
    uint32_t m = 0;
    for (uint32_t i = 0; i < ways; ++i) m |= uint32_t{b.hash[i] == hash} << i;
    return m & b.used;
#endif
  }
  static bool put(Mapping<Bucket>& buckets, size_t mask, uint32_t hash, uint32_t place) {
    size_t at = hash & mask;
    size_t n = 0;
    while (n < reach && buckets[at].used == allUsed) ++n, at = (at + 1) & mask;
    if (n == reach) return false;
    Bucket& b = buckets[at];
    const auto i = static_cast<size_t>(std::countr_one(b.used));
    b.used |= 1u << i;
    b.hash[i] = hash;
    b.place[i] = place;
    while (n-- > 0) ++buckets[at = (at - 1) & mask].passed;
    return true;
  }
  /// False: there is no memory, or chosen hashes would not fit; all stays as it was.
  bool resize(size_t n) {
    try {
      Mapping<Bucket> fresh(n);
      for (size_t at = 0; size_ > 0 && at < buckets_.size(); ++at) {
        const Bucket& b = buckets_[at];
        for (uint32_t m = b.used; m != 0; m &= m - 1) {
          const auto i = static_cast<size_t>(std::countr_zero(m));
          if (!put(fresh, n - 1, b.hash[i], b.place[i])) return false;
        }
      }
      buckets_ = std::move(fresh);
    } catch (const std::bad_alloc&) {
      return false;
    }
    mask_ = n - 1;
    growAt_ = maxLoad(n);
    return true;
  }

  Mapping<Bucket> buckets_{initialBuckets};
  size_t mask_ = initialBuckets - 1;
  size_t size_ = 0;
  size_t growAt_ = maxLoad(initialBuckets);
};

}  // namespace agent::flow
