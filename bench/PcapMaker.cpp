#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <vector>

// Writes a pcap of 64-octet frames (60 without their check sequence), UDP over IPv4, whose flows
// are drawn at random: the worst case for a flow cache, since nothing follows a packet's neighbour.
//
//   pcap_maker FLOWS PACKETS FILE

namespace {
void put16(uint8_t* at, uint32_t v) {
  at[0] = static_cast<uint8_t>(v >> 8);
  at[1] = static_cast<uint8_t>(v);
}
void put32(uint8_t* at, uint32_t v) {
  put16(at, v >> 16);
  put16(at + 2, v);
}
template <class T>
void append(std::vector<uint8_t>& to, T v) {
  const auto* at = reinterpret_cast<const uint8_t*>(&v);
  to.insert(to.end(), at, at + sizeof v);
}
}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: pcap_maker FLOWS PACKETS FILE\n");
    return 2;
  }
  const auto flows = static_cast<uint32_t>(std::strtoul(argv[1], nullptr, 10));
  const auto packets = static_cast<uint32_t>(std::strtoul(argv[2], nullptr, 10));
  std::FILE* out = std::fopen(argv[3], "wb");
  if (!out || flows == 0) {
    std::perror(argv[3]);
    return 1;
  }
  std::array<uint8_t, 60> frame{};
  frame[5] = 2;
  frame[11] = 1;
  put16(&frame[12], 0x0800);
  frame[14] = 0x45;
  put16(&frame[16], 46);  // IP's total length
  frame[22] = 64;
  frame[23] = 17;
  put16(&frame[38], 26);  // UDP's length
  std::vector<uint8_t> buffer;
  for (const uint32_t v : {0xa1b2c3d4U, 0x00040002U, 0U, 0U, 65535U, 1U}) append(buffer, v);
  std::mt19937 random(1);
  for (uint32_t i = 0; i < packets; ++i) {
    const uint32_t flow = random() % flows;
    put32(&frame[26], 0x0a000000 + flow / 50);
    put32(&frame[30], 0xc0a80000 + flow % 50);
    put16(&frame[34], 1024 + flow % 60000);
    put16(&frame[36], 53);
    const uint64_t us = uint64_t{i} * 2;  // half a million a second
    append(buffer, static_cast<uint32_t>(1'700'000'000 + us / 1'000'000));
    append(buffer, static_cast<uint32_t>(us % 1'000'000));
    append(buffer, uint32_t{60});
    append(buffer, uint32_t{60});
    buffer.insert(buffer.end(), frame.begin(), frame.end());
    if (buffer.size() > 1 << 20 || i + 1 == packets) {
      if (std::fwrite(buffer.data(), 1, buffer.size(), out) != buffer.size()) {
        std::perror(argv[3]);
        return 1;
      }
      buffer.clear();
    }
  }
  return std::fclose(out) == 0 ? 0 : 1;
}
