#include <cstdlib>
#include <string>

#include "cli/wire/MessagePrinter.h"
#include "fuzz/DecoderInput.h"

// The input is datagrams one after the other, each behind one octet that picks the stream and two
// that give its length: templates of one are used by the next.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  decoder::Limits limits;
  limits.streams = 4;
  limits.costPerStream = 256;
  limits.cost = 512;
  decoder::Decoder decoder(
      [](uint32_t enterprise, uint16_t id) {
        return enterprise == 0 ? decoder::ianaElement(id) : nullptr;
      },
      limits);
  std::span<const uint8_t> rest(data, size);
  while (rest.size() >= 3) {
    const std::string session(1, static_cast<char>('a' + rest[0] % 8));
    size_t len = size_t{rest[1]} << 8 | rest[2];
    rest = rest.subspan(3);
    len = std::min(len, rest.size());
    // A copy of its own, so that a read behind its end is seen.
    const std::vector<uint8_t> octets(rest.begin(), rest.begin() + static_cast<ptrdiff_t>(len));
    rest = rest.subspan(len);

    const decoder::Message m = decoder.decode(session, octets);
    cli::Datagram from{octets, 0, {session, 1}, {"::1", 4739}, uint8_t{0}};
    const std::string text = cli::messageText(from, m, {});
    for (const char c : text)
      if ((static_cast<unsigned char>(c) < 0x20 && c != '\n') || c == 0x7f) std::abort();
    if (cli::jsonLine(cli::messageJson(from, m, false)).back() != '\n') std::abort();
    checkDecoded(m, decoder, limits);
  }
  (void)cli::summaryText({0, 0, decoder});
  return 0;
}
