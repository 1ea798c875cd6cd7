/// Many interfaces, real sockets on loopback with the system's buffers, one process per collector:
/// each must receive every record of a full transmission exactly once.
///
///   scale_tables INTERFACES COLLECTORS [TIMES]
#include <malloc.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "Ipfix/FlowTrackerTemplateSm.h"
#include "Ipfix/IpfixSm.h"
#include "Ipfix/OptionsDataManagerSm.h"
#include "cli/decoder/Decoder.h"
#include "platform/linux/LinuxPlatform.h"
#include "platform/sim/SimPlatform.h"

using namespace platform;
using namespace FlowTracking;

namespace {

constexpr uint16_t intfTable = 65281;
unsigned rounds = 2;  // the tables at the start, and periodic transmissions
constexpr int patienceMs = 20000;

[[noreturn]] void fail(const std::string& what) {
  std::fprintf(stderr, "scale_tables: %s\n", what.c_str());
  std::exit(1);
}

// --- A collector ---

int boundSocket(uint16_t& port) {
  const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof a;
  if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&a), len) != 0 ||
      ::getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len) != 0)
    fail("a collector's socket: " + std::string(std::strerror(errno)));
  port = ntohs(a.sin_port);
  return fd;
}

/// Counts what arrives; says so on `out` after each round, exits 0 when all came exactly once.
[[noreturn]] void collect(int fd, int out, uint32_t interfaces) {
  decoder::Decoder decoder([](uint32_t, uint16_t) { return nullptr; });
  std::vector<uint8_t> times(interfaces + 1);
  uint64_t expected = interfaces + 4;
  uint64_t records = 0;
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
    if (m.error) bad(m.error->stringValue());
    if (!m.countable()) bad("records without their template");
    if (m.sequence.error()) bad(m.sequence.stringValue(m.header->sequence));
    for (const auto& set : m.sets) {
      if (set.id != intfTable) continue;
      for (size_t i = 0; i < set.recordCount(); ++i, ++records) {
        uint32_t index = 0;
        for (const uint8_t o : set.record(i)[0].octets) index = index << 8 | o;
        if (index == 0 || index > interfaces) continue;  // the reserved ones
        if (++times[index] > round) bad("interface " + std::to_string(index) + " came again");
      }
    }
    if (records < expected * round) continue;
    for (uint32_t i = 1; i <= interfaces; ++i)
      if (times[i] != round) bad("interface " + std::to_string(i) + " did not come");
    if (::write(out, ".", 1) != 1) bad("nobody listens");
    ++round;
  }
  ::_exit(0);
}

// --- The agent ---

class Lines final : public TraceSink, public LogSink {
 public:
  bool enabled(int level) const override { return level <= TraceLevel::error; }
  void line(int, std::string_view text) override {
    std::fprintf(stderr, "%.*s\n", static_cast<int>(text.size()), text.data());
  }
  void log(const LogMessage&, std::span<const std::string>) override {}
};

double seconds() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

/// Says how long something took since the last time.
void lap(const char* what) {
  static double last = 0;
  const double before = std::exchange(last, seconds());
  if (before > 0) std::printf("%-58s %8.3f s\n", what, last - before);
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
  if (each < 17) fail("the heap's count is not to be believed");
}

void exportTables(uint32_t interfaces, const std::vector<uint16_t>& ports, int done) {
  Lines lines;
  const auto loop = eventLoopFactory();
  const auto host = linuxPlatform(loop, lines, lines);
  Platform::install(host.get());
  {
    lap("");
    const auto intfs = intfIndexMapFactory();
    for (uint32_t i = 1; i <= interfaces; ++i) {
      const IntfId id("Ethernet" + std::to_string(i));
      intfs->intfIdIs(i, id);
      intfs->intfIndexIs(id, i);
    }
    const auto init = ::Ipfix::ipfixInitSmFactory();
    const auto config = HwFlowTracking::configFactory();
    const auto status = HwFlowTracking::statusFactory();
    const auto tracker = HwFlowTracking::ftConfigFactory("ft", 1);
    const auto exporter = HwFlowTracking::exporterConfigFactory("exp");
    exporter->srcIpAddrIs(IpAddr(INADDR_LOOPBACK));
    for (size_t i = 0; i < ports.size(); ++i)
      exporter->collectorIpAndPortIs("c" + std::to_string(i), {IpAddr(INADDR_LOOPBACK), ports[i]});
    tracker->expConfigIs(exporter);
    config->ftConfigIs(tracker);
    status->ftStatusIs(HwFlowTracking::ftStatusFactory("ft"));
    const auto info = flowTrackingInfoFactory(FlowTrackingType::software);
    using Tarn::Ipfix::CollectorStatistics;
    const auto stats = Tarn::Ipfix::collectorStatisticsFactory(
        simTableFactory(CollectorStatistics::keyLen, CollectorStatistics::valueLen, 64));
    auto infoSm = flowTrackingInfoSmFactory(loop, config, info, init->agentInfo());
    auto templateSm = templateSmFactory(configReqFactory(), config, status, info,
                                        init->elementIdCollection(), stats, loop->taskScheduler());
    auto manager = optionsDataManagerSmFactory(
        config, status, info, intfs, Vrf::VrfIdMap::statusFactory(), stats, loop->taskScheduler());
    lap("start: reactors, and a record per interface");

    size_t heard = 0;
    const auto whenDone = loop->fdWatch(done, 1 /* EPOLLIN */, [&](uint32_t) {
      char buf[64];
      const ssize_t n = ::read(done, buf, sizeof buf);
      if (n <= 0) fail("every collector is gone");
      heard += static_cast<size_t>(n);
    });
    const auto wait = [&](size_t count, const char* what) {
      const double until = seconds() + patienceMs / 1000.0 + 60;
      while (heard < count && seconds() < until) {
        loop->runOnce(Seconds(0.1));
        int st = 0;
        if (::waitpid(-1, &st, WNOHANG) > 0 && (!WIFEXITED(st) || WEXITSTATUS(st) != 0))
          fail("a collector failed");
      }
      if (heard < count) fail(std::string(what) + ": not every collector had it all in time");
      lap(what);
    };
    wait(ports.size(), "the full tables at every collector");

    for (unsigned round = 2; round <= rounds; ++round) {
      tracker->activeIntervalIs(1);  // counts from the end of the last transmission
      loop->runOnce(Seconds(0.1));
      tracker->activeIntervalIs(3600000);
      wait(round * ports.size(), "one periodic transmission at every collector");
    }

    const auto& pam = info->ftInfo("ft")->expInfo("exp")->udpPam4()->counters();
    if (pam.dropped > 0) fail("a datagram was lost on our side");
    manager = nullptr;
    templateSm = nullptr;
    infoSm = nullptr;
  }
  Platform::install(nullptr);
}

}  // namespace

int main(int argc, char** argv) {
  const uint32_t interfaces = argc > 1 ? static_cast<uint32_t>(std::atol(argv[1])) : 100000;
  const int collectors = argc > 2 ? std::atoi(argv[2]) : 8;
  if (argc > 3) rounds = static_cast<unsigned>(std::atoi(argv[3]));
  if (interfaces == 0 || collectors <= 0 || rounds < 1 || rounds > 255)
    fail("usage: scale_tables INTERFACES COLLECTORS [TIMES, 1 to 255]");
  int done[2];
  if (::pipe(done) != 0) fail("pipe");
  std::vector<uint16_t> ports;
  std::vector<pid_t> children;
  for (int i = 0; i < collectors; ++i) {
    const int fd = boundSocket(ports.emplace_back());
    const pid_t pid = ::fork();
    if (pid < 0) fail("fork");
    if (pid == 0) {
      ::close(done[0]);
      collect(fd, done[1], interfaces);
    }
    ::close(fd);
    children.push_back(pid);
  }
  ::close(done[1]);
  recordCost(interfaces);
  exportTables(interfaces, ports, done[0]);
  for (const pid_t pid : children) {
    int st = 0;
    if (::waitpid(pid, &st, 0) == pid && (!WIFEXITED(st) || WEXITSTATUS(st) != 0))
      fail("a collector failed");
  }
  std::printf("%u interfaces, %d collectors: every record exactly once, %u times over\n",
              interfaces, collectors, rounds);
  return 0;
}
