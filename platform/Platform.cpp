#include "platform/Platform.h"

namespace platform {
namespace {
Platform* installed = nullptr;
constexpr uint32_t defaultPktSize = 2048;
constexpr uint32_t headRoom = 64;  // a message and a set header, to the next cache line
}  // namespace

Ptr<Pkt> Platform::newPkt() {
  auto pkt = Pkt::ofSize(defaultPktSize);
  pkt->headRoomIs(headRoom);
  return pkt;
}
Ptr<Pkt> Platform::newPkt(uint32_t size) { return Pkt::ofSize(size); }

void Platform::install(Platform* platform) { installed = platform; }
Platform& Platform::current() {
  TARN_ASSERT_AS(installed, "a platform is installed before the first factory call");
  return *installed;
}

TraceSink& traceSink() { return Platform::current().trace(); }

std::ostream& operator<<(std::ostream& out, const HexDump& dump) {
  static constexpr char digits[] = "0123456789abcdef";
  for (size_t i = 0; i < dump.octets.size(); ++i) {
    if (i % 16 == 0)
      out << '\n' << digits[i >> 12 & 15] << digits[i >> 8 & 15] << digits[i >> 4 & 15] << "0: ";
    out << digits[dump.octets[i] >> 4] << digits[dump.octets[i] & 15] << ' ';
  }
  return out;
}

std::string logText(const LogMessage& message, std::span<const std::string> args) {
  std::string out;
  std::string_view rest = message.format;
  size_t next = 0;
  for (size_t at = rest.find("%s"); at != std::string_view::npos; at = rest.find("%s")) {
    out += rest.substr(0, at);
    if (next < args.size()) out += args[next++];
    rest.remove_prefix(at + 2);
  }
  out += rest;
  return out;
}

}  // namespace platform
