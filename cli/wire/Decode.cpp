#include "cli/wire/Decode.h"

#include <fmt/format.h>

#include <span>
#include <stdexcept>

#include "cli/text/Output.h"
#include "cli/text/Quoted.h"
#include "cli/wire/Datagrams.h"
#include "cli/wire/Elements.h"
#include "cli/wire/MessagePrinter.h"
#include "cli/wire/OptionsTables.h"
#include "platform/linux/CaptureFile.h"

namespace cli {
namespace {
using platform::CaptureFile;

constexpr size_t tableRowsShown = 200;  // of each table, in text

/// The octets of the IPFIX message at the start of `o`, by its version and length (RFC 7011, 3.1);
/// 0: there is none.
size_t messageLen(std::span<const uint8_t> o) {
  constexpr size_t headerLen = 16;
  if (o.size() < headerLen || o[0] != 0 || o[1] != 10) return 0;
  const size_t len = size_t{o[2]} * 256 + o[3];
  return len >= headerLen && len <= o.size() ? len : 0;
}

void warn(const std::string& text) { complain("tarnflow decode: {}\n", shown(text)); }

/// Warns of packets that may have held messages and could not be looked into. True: none.
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

/// Decodes and prints the messages of one capture.
class Decoding {
 public:
  explicit Decoding(const DecodeOptions& options)
      : options_(options),
        print_(PrintOptions::ofOutput(options.quietData)),
        decoder_(registryLookup()) {}

  bool more() const { return written_ && (!options_.messages || messages_ < *options_.messages); }

  void take(const platform::Packet& packet) {
    auto d = datagramIn(packet, counts_);
    if (!d || (options_.port ? d->destination.port != *options_.port : messageLen(d->octets) == 0))
      return;
    const std::string stream = d->source.stringValue() + " > " + d->destination.stringValue();
    // Captured on the sending host, one datagram may hold several: the kernel or the device cuts it
    // up later (UDP segmentation offload). Octets behind a message that are none are decoded as a
    // message of their own, which is malformed.
    auto rest = d->octets;
    do {
      const size_t len = messageLen(rest);
      d->octets = len > 0 ? rest.first(len) : rest;
      rest = rest.subspan(d->octets.size());
      if (messages_++ == 0) first_ = d->time;
      last_ = d->time;
      const auto message = decoder_.decode(stream, d->octets);
      if (options_.tables) {
        tables_.take(*d, message);
      } else {
        written_ =
            Output::write(options_.json ? jsonLine(messageJson(*d, message, options_.quietData))
                                        : messageText(*d, message, print_));
      }
    } while (!rest.empty() && more());
  }

  /// Writes the tables, if they were asked for, and the summary. False: something was wrong or
  /// missing.
  bool end() {
    if (options_.tables)
      Output::write(options_.json ? jsonLine(tables_.json(decoder_, last_))
                                  : tables_.text(decoder_, last_, tableRowsShown));
    const Summary summary{last_ - first_, 0, decoder_};
    Output::write(options_.json ? jsonLine(summaryJson(summary)) : summaryText(summary));
    Output::flush();
    return tellCounts(counts_, options_.file) && flawless(decoder_);
  }
  /// False, with a warning: the capture held no message.
  bool anyMessage() const {
    if (messages_ == 0)
      warn(fmt::format("{}: no IPFIX among {} packets, {} of them whole UDP datagrams{}",
                       options_.file, counts_.packets, counts_.udp,
                       options_.port ? fmt::format("; none went to port {}", *options_.port)
                                     : "; --port N shows what goes to a port, whatever it is"));
    return messages_ > 0;
  }

 private:
  const DecodeOptions& options_;
  const PrintOptions print_;
  decoder::Decoder decoder_;
  OptionsTables tables_;
  DatagramCounts counts_;
  uint64_t messages_ = 0;
  double first_ = 0;
  double last_ = 0;
  bool written_ = true;
};
}  // namespace

int decode(const DecodeOptions& options) {
  std::optional<CaptureFile> file;
  try {
    file.emplace(options.file);
  } catch (const std::runtime_error& e) {
    warn(e.what());
    return 2;
  }
  Decoding decoding(options);
  platform::Packet packet;
  while (decoding.more() && file->next(packet)) decoding.take(packet);
  bool good = decoding.end();
  for (const std::string& warning : file->warnings()) warn(warning);
  if (!file->error().empty()) warn(file->error());
  good &= file->error().empty();
  good &= decoding.anyMessage();
  return good ? 0 : 1;
}

}  // namespace cli
