#pragma once
#include <algorithm>
#include <cstdint>
#include <memory>
#include <span>
#include <stdexcept>
#include <string>

#include "agent/flow/PacketParser.h"
#include "platform/Assert.h"
#include "platform/linux/CaptureFile.h"

namespace agent::flow {
using platform::CaptureFile;

inline bool oneLine(const std::string& text) {
  return std::none_of(text.begin(), text.end(), [](char c) {
    return static_cast<unsigned char>(c) < 0x20 || static_cast<unsigned char>(c) == 0x7f;
  });
}

/// Reads a capture to its end and parses its packets. Stops the program when what the reader says
/// cannot be. Returns the number of packets; -1: no capture.
inline long checkCaptureInput(std::span<const uint8_t> input) {
  // A block of its own, so that a read behind its end is seen.
  const std::unique_ptr<uint8_t[]> block(new uint8_t[input.size()]);
  std::copy(input.begin(), input.end(), block.get());
  const uint8_t* const end = block.get() + input.size();
  try {
    CaptureFile file("x", {block.get(), input.size()});
    PacketParser parser(7, 4);
    Packet p;
    long packets = 0;
    while (file.next(p)) {
      ++packets;
      TARN_ASSERT(p.octets >= block.get() && p.octets <= end);
      TARN_ASSERT(p.capLen <= static_cast<size_t>(end - p.octets));
      TARN_ASSERT(p.wireLen >= p.capLen);
      TARN_ASSERT(p.timeNs >= 0 && p.timeNs < int64_t{1} << 62);
      TARN_ASSERT(p.interface >= 1 && p.interface <= file.interfaces());
      (void)file.interfaceName(p.interface);
      Parsed out;
      parser.parse(p, out);
    }
    TARN_ASSERT(!file.next(p));
    TARN_ASSERT(static_cast<size_t>(packets) + file.skipped() <= input.size() / 16);
    TARN_ASSERT(file.error().empty() || file.error().starts_with("x: octet "));
    TARN_ASSERT(oneLine(file.error()));
    const auto warnings = file.warnings();
    TARN_ASSERT(warnings.size() <= 10 && std::all_of(warnings.begin(), warnings.end(), oneLine));
    TARN_ASSERT((file.skipped() > 0) <= !warnings.empty());
    return packets;
  } catch (const std::runtime_error& e) {
    TARN_ASSERT(oneLine(e.what()));
    return -1;
  }
}

}  // namespace agent::flow
