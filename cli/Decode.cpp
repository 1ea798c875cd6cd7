#include "cli/Decode.h"

#include <fmt/format.h>

#include <cstdio>
#include <stdexcept>

#include "cli/Datagrams.h"
#include "cli/Elements.h"
#include "cli/Listen.h"
#include "cli/MessagePrinter.h"
#include "cli/OptionsTables.h"
#include "cli/Style.h"
#include "platform/linux/CaptureFile.h"

namespace cli {
namespace {
using platform::CaptureFile;

constexpr size_t tableRowsShown = 200;

/// A version and a length as an IPFIX message of this size has them (RFC 7011, 3.1).
bool looksLikeIpfix(const Datagram& d) {
  const auto& o = d.octets;
  return o.size() >= 16 && o[0] == 0 && o[1] == 10 && size_t{o[2]} * 256 + o[3] == o.size();
}

void warn(const std::string& text) { fmt::print(stderr, "tarnflow decode: {}\n", shown(text)); }

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
  platform::Packet packet;
  while ((!options.messages || messages < *options.messages) && file->next(packet)) {
    const auto d = datagramIn(packet, counts);
    if (!d || (options.port ? d->destination.port != *options.port : !looksLikeIpfix(*d))) continue;
    if (messages++ == 0) first = d->time;
    last = d->time;
    const auto message =
        decoder.decode(d->source.stringValue() + " > " + d->destination.stringValue(), d->octets);
    if (options.tables) {
      tables.take(*d, message);
    } else {
      fmt::print("{}", options.json ? jsonLine(messageJson(*d, message, options.quietData))
                                    : messageText(*d, message, print));
    }
  }
  if (options.tables)
    fmt::print("{}", options.json ? jsonLine(tables.json(decoder, last))
                                  : tables.text(decoder, last, tableRowsShown));
  const Summary summary{last - first, 0, decoder};
  fmt::print("{}", options.json ? jsonLine(summaryJson(summary)) : summaryText(summary));
  std::fflush(stdout);

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
