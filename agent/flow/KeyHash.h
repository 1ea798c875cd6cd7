#pragma once
#include <bit>
#include <cstdint>
#include <cstring>

namespace agent::flow {

/// A hash for tables whose keys are chosen by whoever sends packets, of words taken two at a time.
/// The seed is part of both factors of every product, before the product is taken: no constant in a
/// packet makes a factor 0, and nobody who does not know the seed can foresee which keys collide.
/// Tables bound the cost of collisions all the same.
class SeededHash {
 public:
  explicit SeededHash(uint64_t seed)
      : first_(seed ^ 0x9e3779b97f4a7c15), second_(std::rotl(seed, 32) ^ 0xd6e8feb86659fd93) {}
  void take(uint64_t a, uint64_t b) {
    const auto product = static_cast<unsigned __int128>(a ^ first_) * (b ^ second_);
    first_ = static_cast<uint64_t>(product) ^ static_cast<uint64_t>(product >> 64);
  }
  uint64_t value() const { return first_ ^ first_ >> 32; }

 private:
  uint64_t first_;
  uint64_t second_;
};

/// Of a key without padding.
template <class Key>
inline uint64_t keyHash(const Key& key, uint64_t seed) {
  static_assert(sizeof(Key) % 4 == 0);
  const auto word = [&key](size_t at) {
    uint64_t w = 0;
    if (at < sizeof(Key))
      std::memcpy(&w, reinterpret_cast<const char*>(&key) + at, at + 8 > sizeof(Key) ? 4 : 8);
    return w;
  };
  SeededHash hash(seed);
  for (size_t at = 0; at < sizeof(Key); at += 16) hash.take(word(at), word(at + 8));
  return hash.value();
}

/// Of `n` words.
inline uint64_t wordsHash(const uint64_t* words, size_t n, uint64_t seed) {
  SeededHash hash(seed);
  for (; n >= 2; n -= 2, words += 2) hash.take(words[0], words[1]);
  if (n > 0) hash.take(words[0], 0);
  return hash.value();
}

}  // namespace agent::flow
