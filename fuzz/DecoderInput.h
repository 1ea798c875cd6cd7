#pragma once
#include <algorithm>

#include "cli/text/Quoted.h"
#include "cli/wire/decoder/Decoder.h"
#include "platform/Assert.h"

namespace decoder {

/// Stops the program when what the decoder made of a message, or keeps, cannot be.
inline void checkDecoded(const Message& m, const Decoder& decoder, const Limits& limits) {
  const uint8_t* const begin = m.octets.data();
  TARN_ASSERT(!m.error || m.error->offset <= m.octets.size());
  for (const Set& set : m.sets) {
    TARN_ASSERT(set.offset + set.len <= m.octets.size());
    for (size_t i = 0; i < set.recordCount(); ++i)
      for (const Value& v : set.record(i)) {
        TARN_ASSERT(v.octets.data() >= begin + set.offset + 4);
        TARN_ASSERT(v.octets.data() + v.octets.size() <= begin + m.octets.size());
        const std::string text = v.text();
        TARN_ASSERT(cli::validUtf8(text));
        TARN_ASSERT(std::ranges::none_of(text, [](unsigned char c) { return c < 32 || c == 127; }));
      }
  }
  size_t cost = 0;
  for (const auto& [key, stream] : decoder.streams()) {
    size_t own = 0;
    for (const auto& [id, t] : stream.templates) {
      TARN_ASSERT(id == t->id && id >= 256 && t->recordLen > 0);
      own += t->fields.size() + 4;
    }
    TARN_ASSERT(own == stream.cost && own <= limits.costPerStream);
    TARN_ASSERT(stream.gaps.size() <= 32 && stream.lastErrors.size() <= limits.sequenceErrors);
    cost += own;
  }
  TARN_ASSERT(cost == decoder.cost() && cost <= limits.cost);
  TARN_ASSERT(decoder.streams().size() <= limits.streams);
}

}  // namespace decoder
