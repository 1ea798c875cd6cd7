#include "cli/wire/Listen.h"

#include <fmt/format.h>
#include <poll.h>

#include <cerrno>
#include <chrono>
#include <stdexcept>
#include <utility>

#include "cli/text/Output.h"
#include "cli/wire/Elements.h"
#include "cli/wire/MessagePrinter.h"
#include "cli/wire/OptionsTables.h"
#include "platform/linux/SignalDescriptor.h"

namespace cli {
namespace {

using Clock = std::chrono::steady_clock;

class Listener {
 public:
  explicit Listener(const ListenOptions& options)
      : options_(options),
        print_(PrintOptions::ofOutput(options.quietData)),
        decoder_(registryLookup()) {}

  int run() {
    // Blocked before the sockets are opened: who sees them open can send a signal and get a
    // summary.
    const platform::Fd signals = platform::signalDescriptor({SIGINT, SIGTERM});
    try {
      UdpReceiver receiver(options_.addresses, options_.port);
      receive(receiver, signals);
    } catch (const std::runtime_error& e) {
      complain("tarnflow listen: {}\n", e.what());
      return 2;
    }
    return flawless(decoder_) ? 0 : 1;
  }

 private:
  void receive(UdpReceiver& receiver, const platform::Fd& signals) {
    const auto start = Clock::now();
    announce(receiver);
    std::vector<pollfd> polled;
    for (const auto& fd : receiver.fds()) polled.push_back({fd.get(), POLLIN, 0});
    polled.push_back({signals.get(), POLLIN, 0});
    while (!done()) {
      int wait = -1;
      if (tablesChanged_) {
        const auto due = std::min(lastChange_ + tablesQuiet, firstChange_ + tablesLate);
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(due - Clock::now());
        if (left.count() <= 0) {
          writeTables();
          continue;
        }
        wait = static_cast<int>(left.count());
      }
      if (options_.seconds) {
        const std::chrono::duration<double> left =
            std::chrono::duration<double>(*options_.seconds) - (Clock::now() - start);
        if (left.count() <= 0) break;
        const int end = static_cast<int>(std::min(left.count(), 3600.0) * 1000) + 1;
        wait = wait < 0 ? end : std::min(wait, end);
      }
      if (poll(polled.data(), polled.size(), wait) < 0 && errno != EINTR)
        throw std::system_error(errno, std::generic_category(), "poll");
      if (polled.back().revents) break;
      for (size_t i = 0; i < receiver.fds().size() && !done(); ++i)
        if (polled[i].revents) drain(receiver, i);
      if (receiver.drops() > drops_) tellDrops(receiver.drops());
    }
    if (options_.tables && tablesChanged_) writeTables();
    const Summary summary{std::chrono::duration<double>(Clock::now() - start).count(),
                          receiver.drops(), decoder_};
    write(options_.json ? jsonLine(summaryJson(summary)) : summaryText(summary));
  }

  bool done() const { return !written_ || (options_.messages && heard_ >= *options_.messages); }

  void drain(UdpReceiver& receiver, size_t socket) {
    // No more than 64 at a time, so that signals and the other sockets get their turn under load.
    for (int n = 0; n < 64 && !done(); ++n) {
      const auto d = receiver.receive(socket);
      if (!d) return;
      ++heard_;
      const auto message = decoder_.decode(d->source.stringValue(), d->octets);
      if (!options_.tables) {
        write(options_.json ? jsonLine(messageJson(*d, message, options_.quietData))
                            : messageText(*d, message, print_));
      } else if (tables_.take(*d, message)) {
        lastChange_ = Clock::now();
        if (!tablesChanged_) firstChange_ = lastChange_;
        tablesChanged_ = true;
      }
    }
  }

  void writeTables() {
    tablesChanged_ = false;
    const double now = utcNow();
    write(options_.json ? jsonLine(tables_.json(decoder_, now))
                        : utcText(now) + '\n' + tables_.text(decoder_, now, tableRowsShown));
  }

  void tellDrops(uint64_t drops) {
    const uint64_t n = drops - std::exchange(drops_, drops);
    if (options_.json) {
      write(jsonLine({{"type", "localDrops"}, {"datagrams", n}}));
    } else {
      write(fmt::format("!! {} datagrams lost here: this host's receive buffer was full\n", n));
    }
  }

  void announce(const UdpReceiver& receiver) {
    if (options_.json) {
      auto sockets = nlohmann::ordered_json::array();
      for (const Endpoint& e : receiver.bound())
        sockets.push_back({{"address", e.address}, {"port", e.port}});
      write(jsonLine({{"type", "listening"}, {"sockets", sockets}}));
      return;
    }
    std::string text = "listening on";
    for (const Endpoint& e : receiver.bound()) text += " " + e.stringValue();
    write(text + '\n');
  }

  /// Writes text that a pipe's reader gets at once, too. Nothing after a failure.
  void write(const std::string& text) {
    written_ = written_ && Output::write(text) && Output::flush();
  }

  // Changed tables are written when nothing changed for `tablesQuiet`, so that what an exporter
  // sends at once is seen at once, but no later than `tablesLate` after the first change.
  static constexpr std::chrono::milliseconds tablesQuiet{300};
  static constexpr std::chrono::milliseconds tablesLate{3000};
  static constexpr size_t tableRowsShown = 200;  // of each table, in text

  const ListenOptions& options_;
  const PrintOptions print_;
  OptionsTables tables_;
  bool tablesChanged_ = false;  // since they were written
  Clock::time_point firstChange_;
  Clock::time_point lastChange_;
  decoder::Decoder decoder_;
  uint64_t heard_ = 0;  // datagrams
  uint64_t drops_ = 0;  // datagrams that this host lost, as far as that was said
  bool written_ = true;
};

}  // namespace

int listen(const ListenOptions& options) { return Listener(options).run(); }

}  // namespace cli
