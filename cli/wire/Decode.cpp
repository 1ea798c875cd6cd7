#include "cli/wire/Decode.h"

#include <fmt/format.h>

#include <span>
#include <stdexcept>

#include "cli/text/Output.h"
#include "cli/text/Quoted.h"
#include "cli/wire/Datagrams.h"
#include "cli/wire/Elements.h"
#include "cli/wire/Listen.h"
#include "cli/wire/MessagePrinter.h"
#include "cli/wire/OptionsTables.h"
#include "platform/linux/CaptureFile.h"

namespace cli {
namespace {
using platform::CaptureFile;

constexpr size_t tableRowsShown = 200;

/// The octets of the IPFIX message at the start of `o`, by its version and length (RFC 7011, 3.1);
/// 0: there is none.
size_t messageLen(std::span<const uint8_t> o) {
  constexpr size_t headerLen = 16;
  if (o.size() < headerLen || o[0] != 0 || o[1] != 10) return 0;
  const size_t len = size_t{o[2]} * 256 + o[3];
  return len >= headerLen && len <= o.size() ? len : 0;
}

void warn(const std::string& text) { complain("tarnflow decode: {}\n", shown(text)); }

/// False: something was left out that may have held messages.
bool tellCounts(const DatagramCounts& counts, const std::string& file) {
  const auto tell = [&](uint64_t n, const char* one, const char* many) {
    if (n > 0) warn(fmt::format("{}: {} {}", file, n, n == 1 ? one : many));
    return n == 0;
  };
  bool whole = tell(counts.cutShort, "UDP packet was not captured whole: capture with -s 0",
                    "UDP packets were not captured whole: capture with -s 0");
  whole &= tell(counts.fragments, "fragment of a UDP packet, which are not put together",
                "fragments of UDP packets, which are not put together");
  return whole & tell(counts.malformed, "UDP packet with lengths that contradict each other",
                      "UDP packets with lengths that contradict each other");
}
}  // namespace

int decode(const DecodeOptions& options) {
  std::optional<CaptureFile> file;
  try {
    file.emplace(options.file);
  } catch (const std::runtime_error& e) {
    warn(e.what());
    return 2;
  }
  const PrintOptions print = printOptions(options.quietData);
  decoder::Decoder decoder(registryLookup());
  OptionsTables tables;
  DatagramCounts counts;
  uint64_t messages = 0;
  double first = 0;
  double last = 0;
  bool written = true;
  const auto more = [&] { return written && (!options.messages || messages < *options.messages); };
  platform::Packet packet;
  while (more() && file->next(packet)) {
    auto d = datagramIn(packet, counts);
    if (!d || (options.port ? d->destination.port != *options.port : messageLen(d->octets) == 0))
      continue;
    const std::string stream = d->source.stringValue() + " > " + d->destination.stringValue();
    // Captured on the host that sends, a datagram may be several: the kernel, or the device, cuts
    // it up later (UDP segmentation offload). What follows a message and is none is malformed.
    auto rest = d->octets;
    do {
      const size_t len = messageLen(rest);
      d->octets = len > 0 ? rest.first(len) : rest;
      rest = rest.subspan(d->octets.size());
      if (messages++ == 0) first = d->time;
      last = d->time;
      const auto message = decoder.decode(stream, d->octets);
      if (options.tables) {
        tables.take(*d, message);
      } else {
        written = Output::write(options.json ? jsonLine(messageJson(*d, message, options.quietData))
                                             : messageText(*d, message, print));
      }
    } while (!rest.empty() && more());
  }
  if (options.tables)
    Output::write(options.json ? jsonLine(tables.json(decoder, last))
                               : tables.text(decoder, last, tableRowsShown));
  const Summary summary{last - first, 0, decoder};
  Output::write(options.json ? jsonLine(summaryJson(summary)) : summaryText(summary));
  Output::flush();

  bool good = tellCounts(counts, options.file) && flawless(decoder);
  for (const std::string& warning : file->warnings()) warn(warning);
  if (!file->error().empty()) {
    warn(file->error());
    good = false;
  }
  if (messages == 0) {
    warn(fmt::format("{}: no IPFIX among {} packets, {} of them whole UDP datagrams{}",
                     options.file, counts.packets, counts.udp,
                     options.port ? fmt::format("; none went to port {}", *options.port)
                                  : "; --port N shows what goes to a port, whatever it is"));
    good = false;
  }
  return good ? 0 : 1;
}

}  // namespace cli
