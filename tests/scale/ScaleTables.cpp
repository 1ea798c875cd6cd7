/// Many interfaces, real sockets on loopback with the system's buffers, one thread per collector:
/// each must receive every record of a full transmission exactly once.
///
///   scale_tables INTERFACES COLLECTORS [TIMES]
#include <malloc.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "bench/Tree.h"
#include "cli/wire/decoder/Decoder.h"

using namespace platform;
using namespace FlowTracking;

namespace {

constexpr uint16_t intfTable = 65281;
constexpr int patienceMs = 60000;
std::atomic<size_t> roundsHeard{0};  // of all collectors

[[noreturn]] void fail(const std::string& what) {
  std::fprintf(stderr, "scale_tables: %s\n", what.c_str());
  std::_Exit(1);
}

int boundSocket(uint16_t& port) {
  const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof a;
  auto* const sa = reinterpret_cast<sockaddr*>(&a);
  if (::bind(fd, sa, len) != 0 || ::getsockname(fd, sa, &len) != 0) fail("a collector's socket");
  port = ntohs(a.sin_port);
  return fd;
}

/// A collector: returns when all came exactly once in each round.
void collect(int fd, uint32_t interfaces, unsigned rounds) {
  decoder::Decoder decoder([](uint32_t, uint16_t) { return nullptr; });
  std::vector<uint8_t> times(interfaces + 1);
  size_t records = 0;
  std::vector<uint8_t> buf(65536);
  const auto bad = [&](const std::string& what) {
    fail("collector: " + what + " after " + std::to_string(records) + " records");
  };
  for (unsigned round = 1; round <= rounds;) {
    pollfd p{fd, POLLIN, 0};
    if (::poll(&p, 1, patienceMs) <= 0) bad("nothing more came");
    const ssize_t n = ::recv(fd, buf.data(), buf.size(), 0);
    if (n <= 0) bad("receiving failed");
    const auto m = decoder.decode("exporter", {buf.data(), static_cast<size_t>(n)});
    if (!m.countable()) bad(m.error ? m.error->stringValue() : "records without their template");
    if (m.sequence.error()) bad(m.sequence.stringValue(m.header->sequence));
    for (const auto& set : m.sets) {
      if (set.id != intfTable) continue;
      for (size_t i = 0; i < set.recordCount(); ++i) {
        uint32_t index = 0;
        for (const uint8_t o : set.record(i)[0].octets) index = index << 8 | o;
        if (index == 0 || index > interfaces) continue;  // those that every host has
        if (++times[index] > round) bad("interface " + std::to_string(index) + " came again");
        if (++records % interfaces == 0) {
          ++round;
          ++roundsHeard;
        }
      }
    }
  }
}

/// What a record of 17 octets costs with all that holds it in its source: at most 96 octets of
/// heap.
void recordCost(uint32_t n) {
  const auto heap = [] {
    const auto m = ::mallinfo2();
    return m.uordblks + m.hblkhd;  // large blocks are mapped
  };
  const size_t before = heap();
  const auto source = optionsDataSourceFactory("s", 300);
  for (uint32_t i = 0; i < n; ++i)
    source->dataRecordIs(dataRecordFactory(std::string_view("seventeen octets!", 17)));
  const double each = static_cast<double>(heap() - before) / n;
  std::printf("a record of 17 octets in its source: %.1f octets of heap\n", each);
  if (each > 96) fail("a record costs more than 96 octets");
}

void exportTables(uint32_t interfaces, const std::vector<uint16_t>& ports, unsigned rounds) {
  bench::Host host(64, LinuxPlatformOptions{}.paceBurst);
  const bench::Tree tree(host, interfaces, 1, 0, false);
  const auto tracker = tree.config->ftConfig("ft");
  for (const uint16_t port : ports)
    tracker->expConfig("e0")->collectorIpAndPortIs(std::to_string(port),
                                                   {IpAddr(INADDR_LOOPBACK), port});
  for (unsigned round = 1;; ++round) {  // a collector that misses something ends all this
    while (roundsHeard < round * ports.size()) host.loop->runOnce(Seconds(0.1));
    if (round == rounds) break;
    tracker->activeIntervalIs(1);  // counts from the end of the last transmission
    host.loop->runOnce(Seconds(0.1));
    tracker->activeIntervalIs(3600000);
  }
  if (tree.pam()->counters().dropped > 0) fail("a datagram was lost on our side");
}

}  // namespace

int main(int argc, char** argv) {
  const uint32_t interfaces = argc > 1 ? static_cast<uint32_t>(std::atol(argv[1])) : 100000;
  const int collectors = argc > 2 ? std::atoi(argv[2]) : 8;
  // The tables at the start, and periodic transmissions.
  const auto rounds = argc > 3 ? static_cast<unsigned>(std::atoi(argv[3])) : 2;
  if (interfaces == 0 || collectors <= 0 || rounds < 1 || rounds > 255)
    fail("usage: scale_tables INTERFACES COLLECTORS [TIMES, 1 to 255]");
  recordCost(interfaces);
  std::vector<uint16_t> ports;
  std::vector<std::jthread> threads;
  for (int i = 0; i < collectors; ++i) {
    const int fd = boundSocket(ports.emplace_back());
    threads.emplace_back(collect, fd, interfaces, rounds);
  }
  exportTables(interfaces, ports, rounds);
  std::printf("%u interfaces, %d collectors: every record exactly once, %u times over\n",
              interfaces, collectors, rounds);
  return 0;
}
