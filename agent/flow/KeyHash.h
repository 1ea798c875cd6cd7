#pragma once
#include <bit>
#include <cstdint>
#include <cstring>

namespace agent::flow {

/// A hash of a key without padding, for tables whose keys are chosen by whoever sends packets. The
/// seed is part of both factors of every product, before the product is taken: no constant in a
/// packet makes a factor 0, and nobody who does not know the seed can foresee which keys collide.
/// Tables bound the cost of collisions all the same.
template <class Key>
inline uint64_t keyHash(const Key& key, uint64_t seed) {
  static_assert(sizeof(Key) % 4 == 0);
  const auto word = [&key](size_t at) {
    uint64_t w = 0;
    if (at < sizeof(Key))
      std::memcpy(&w, reinterpret_cast<const char*>(&key) + at, at + 8 > sizeof(Key) ? 4 : 8);
    return w;
  };
  const uint64_t second = std::rotl(seed, 32) ^ 0xd6e8feb86659fd93;
  uint64_t h = seed ^ 0x9e3779b97f4a7c15;
  for (size_t at = 0; at < sizeof(Key); at += 16) {
    const auto product = static_cast<unsigned __int128>(word(at) ^ h) * (word(at + 8) ^ second);
    h = static_cast<uint64_t>(product) ^ static_cast<uint64_t>(product >> 64);
  }
  return h ^ h >> 32;
}

}  // namespace agent::flow
