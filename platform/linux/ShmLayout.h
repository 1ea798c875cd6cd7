#pragma once
#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <string>

#include "platform/UdpPam.h"

/// The segment as docs/shared-memory.md describes it: a header, then slots of equal length. Writer
/// and reader reach what changes under the other's eyes through 64-bit atomic words only. A word is
/// stored with release and loaded with acquire order, which is what the sequence protocol needs
/// between the sequence and the words it guards, and costs nothing on x86.
namespace platform::shm {

static_assert(std::atomic_ref<uint64_t>::is_always_lock_free, "a lock would live in one process");

inline constexpr char magic[8] = {'T', 'A', 'R', 'N', 'S', 'H', 'M', '\n'};
inline constexpr uint32_t layoutVersion = 1;
inline constexpr uint32_t byteOrderMark = 0x01020304;

enum HeaderState : uint64_t { building = 0, live = 1, closed = 2 };

struct Header {
  char magic[8];
  uint32_t layoutVersion;
  uint32_t byteOrderMark;
  uint64_t generation;
  uint64_t state;
  uint64_t writerPid;
  uint64_t writerStart;  // as `processStart` has it
  uint64_t createdNs;    // UTC
  uint64_t keyLen;
  uint64_t valueLen;
  uint64_t capacity;
  uint64_t slotCount;  // a power of two
  uint64_t slotLen;
  uint64_t slotsOffset;
  uint64_t segmentLen;
  uint64_t reserved0[2];
  uint64_t used;       // on a cache line of their own: these two change
  uint64_t deletions;  // twice the deletions so far; odd while one is under way
  uint64_t reserved1[14];
};
static_assert(sizeof(Header) == 256 && offsetof(Header, used) == 128, "the documented layout");

/// A slot: sequence, tag, key, value; the last two each padded to whole words.
inline constexpr size_t seqOffset = 0;
inline constexpr size_t tagOffset = 8;
inline constexpr size_t keyOffset = 16;
inline constexpr uint64_t tagEmpty = 0;  // any other tag is the key's hash

inline constexpr size_t padded(size_t len, size_t to = 8) { return (len + to - 1) / to * to; }

/// What follows from the lengths that both sides were given.
struct Shape {
  size_t keyLen = 0;
  size_t valueLen = 0;
  size_t capacity = 0;
  size_t slotCount = 0;
  size_t slotLen = 0;
  size_t segmentLen = 0;

  size_t valueOffset() const { return keyOffset + padded(keyLen); }
  /// False when a length is zero or beyond every use (segments are below 4 GiB).
  static bool of(uint64_t keyLen, uint64_t valueLen, uint64_t capacity, Shape& out) {
    constexpr uint64_t most = 1 << 24;
    for (const uint64_t n : {keyLen, valueLen, capacity})
      if (n == 0 || n > most) return false;
    out.keyLen = keyLen;
    out.valueLen = valueLen;
    out.capacity = capacity;
    out.slotCount = 2;
    while (out.slotCount < 2 * capacity) out.slotCount *= 2;  // half empty: searches stay short
    out.slotLen = padded(out.valueOffset() + padded(valueLen), 64);
    out.segmentLen = sizeof(Header) + out.slotCount * out.slotLen;
    return out.segmentLen < uint64_t{1} << 32;
  }
};

inline std::atomic_ref<uint64_t> word(const uint8_t* at) {
  // A reader's mapping is read-only; it only loads.
  return std::atomic_ref<uint64_t>(*reinterpret_cast<uint64_t*>(const_cast<uint8_t*>(at)));
}
inline uint64_t load(const uint8_t* at) { return word(at).load(std::memory_order_acquire); }

/// The tag of a key, never 0; modulo the number of slots, where a search for the key begins.
inline uint64_t hashOf(std::span<const std::byte> key) {
  uint64_t h = key.size();
  for (size_t i = 0; i < key.size(); i += 8) {
    uint64_t w = 0;
    std::memcpy(&w, key.data() + i, std::min<size_t>(8, key.size() - i));
    h = (h ^ w) * 0x9e3779b97f4a7c15;
    h ^= h >> 32;
  }
  return h == tagEmpty ? 1 : h;
}

/// "/dev/shm" + name, once the name is found to be "/x" without a further slash; throws EINVAL.
std::string pathOf(const std::string& name);

/// Start of a process in clock ticks since the machine's boot, whatever time namespace this process
/// is in; 0: no such process (any more), a zombie included. `hidden`: it is there, but this user
/// may not look at it.
uint64_t processStart(uint64_t pid, bool& hidden);
/// Two of those are of one process. Time namespaces make them inexact by a tick.
inline bool sameStart(uint64_t a, uint64_t b) {
  return a != 0 && b != 0 && (a > b ? a - b : b - a) <= 1;
}

}  // namespace platform::shm
