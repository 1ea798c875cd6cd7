#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <random>

#include "tests/unit/cli/Octets.h"

namespace decoder {
namespace {

/// What must hold of any message, however hostile.
void expectSane(const Message& m, const Decoder& decoder, const Limits& limits) {
  const uint8_t* begin = m.octets.data();
  const uint8_t* end = begin + m.octets.size();
  if (m.error) {
    EXPECT_LE(m.error->offset, m.octets.size());
  }
  for (const Set& set : m.sets) {
    EXPECT_LE(set.offset + set.len, m.octets.size());
    for (size_t i = 0; i < set.recordCount(); ++i)
      for (const Value& v : set.record(i)) {
        EXPECT_GE(v.octets.data(), begin + set.offset + 4);
        EXPECT_LE(v.octets.data() + v.octets.size(), end);
        const std::string text = v.text();
        EXPECT_TRUE(validUtf8(text));
        EXPECT_TRUE(std::ranges::none_of(text, [](unsigned char c) { return c < 32 || c == 127; }));
      }
  }
  size_t cost = 0;
  for (const auto& [key, stream] : decoder.streams()) {
    size_t own = 0;
    for (const auto& [id, t] : stream.templates) {
      EXPECT_EQ(id, t->id);
      EXPECT_GE(id, 256);
      EXPECT_GT(t->recordLen, 0U);
      own += t->fields.size() + 4;
    }
    EXPECT_EQ(own, stream.cost);
    EXPECT_LE(own, limits.costPerStream);
    EXPECT_LE(stream.gaps.size(), 32U);
    EXPECT_LE(stream.lastErrors.size(), limits.sequenceErrors);
    cost += own;
  }
  EXPECT_EQ(cost, decoder.cost());
  EXPECT_LE(cost, limits.cost);
  EXPECT_LE(decoder.streams().size(), limits.streams);
}

// Any message with a few octets changed is read or refused; TARN_SEED repeats a run.
TEST(Mutation, NeverHarmsTheDecoder) {
  const char* given = std::getenv("TARN_SEED");
  const auto seed = given ? static_cast<unsigned>(std::atoi(given)) : std::random_device{}();
  SCOPED_TRACE("TARN_SEED=" + std::to_string(seed));
  std::cout << "TARN_SEED=" << seed << '\n';
  std::mt19937 random(seed);
  const auto below = [&](size_t n) { return random() % n; };

  Limits limits;
  limits.streams = 4;
  limits.costPerStream = 40;
  limits.cost = 100;
  limits.sequenceErrors = 3;
  Decoder decoder(testElement, limits);
  static constexpr uint16_t corners[] = {0,   1,   2,      3,      4,      255,
                                         256, 257, 0x7fff, 0x8000, 0xfffe, 65535};
  size_t wellFormed = 0;
  constexpr size_t rounds = 20000;
  for (size_t round = 0; round < rounds; ++round) {
    Octets o = rich;
    for (size_t n = 1 + below(6); n > 0; --n) {
      const size_t at = below(o.size() - 1);
      switch (below(5)) {
        case 0:
          o[at] = static_cast<uint8_t>(random());
          break;
        case 1:
          put16(o, at, corners[below(std::size(corners))]);
          break;
        case 2:
          o[at] ^= static_cast<uint8_t>(1U << below(8));
          break;
        case 3:
          o.insert(o.begin() + static_cast<ptrdiff_t>(at), 1 + below(9), uint8_t{0});
          break;
        case 4:
          o.erase(o.begin() + static_cast<ptrdiff_t>(at),
                  o.begin() + static_cast<ptrdiff_t>(at + std::min(o.size() - at - 2, below(9))));
          break;
      }
    }
    if (below(8) != 0 && o.size() >= 16) {  // past the checks of the header, most of the time
      put16(o, 0, 10);
      put16(o, 2, o.size());
      o.shrink_to_fit();
    }
    const Message m = decoder.decode(std::string(1, static_cast<char>('a' + below(6))), o);
    wellFormed += !m.error;
    expectSane(m, decoder, limits);
    if (HasFailure()) FAIL() << "in round " << round;
  }
  // The mutations reach both sides of the decoder.
  EXPECT_GT(wellFormed, rounds / 50);
  EXPECT_LT(wellFormed, rounds);
  EXPECT_GT(decoder.evicted(), 0U);
}

}  // namespace
}  // namespace decoder
