#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/linux/Fd.h"

// The two ends of a live measurement, for scripts/bench-live.
//
//   live_traffic send INTERFACE PCAP SECONDS PACKETS_PER_SECOND
//   live_traffic count INTERFACE
//
// `send` puts the frames of a capture on the wire again and again, at an even pace, and prints how
// many the kernel took. `count` is the least that a program which sees packets can do: it walks a
// ring that is shared with the kernel, and reads of each packet the cache line with the addresses;
// it ends at SIGTERM, and prints how many it saw and how many the kernel had no room for.

namespace {
using platform::Fd;
using Clock = std::chrono::steady_clock;

[[noreturn]] void fail(const char* what) {
  std::perror(what);
  std::exit(1);
}

Fd packetSocket(const char* interface, uint16_t protocol) {
  Fd fd(socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0));
  if (!fd) fail("packet socket");
  sockaddr_ll at{};
  at.sll_family = AF_PACKET;
  at.sll_protocol = htons(protocol);
  at.sll_ifindex = static_cast<int>(if_nametoindex(interface));
  if (at.sll_ifindex == 0 || bind(fd.get(), reinterpret_cast<sockaddr*>(&at), sizeof at) < 0)
    fail(interface);
  return fd;
}
void set(const Fd& fd, int option, const void* value, socklen_t len) {
  if (setsockopt(fd.get(), SOL_PACKET, option, value, len) < 0) fail("setsockopt");
}

int send(const char* interface, const char* file, double seconds, double rate) {
  std::ifstream in(file, std::ios::binary);
  const std::string octets((std::istreambuf_iterator<char>(in)), {});
  std::vector<iovec> frames;
  for (size_t at = 24; at + 16 <= octets.size();) {  // behind the file's header
    uint32_t len = 0;
    std::memcpy(&len, octets.data() + at + 8, sizeof len);
    if (len > octets.size() - at - 16) break;
    frames.push_back({const_cast<char*>(octets.data()) + at + 16, len});
    at += 16 + len;
  }
  if (frames.empty()) fail(file);
  const Fd fd = packetSocket(interface, 0);
  const int one = 1;
  set(fd, PACKET_QDISC_BYPASS, &one, sizeof one);
  constexpr size_t burst = 32;
  std::vector<mmsghdr> messages(burst);
  uint64_t sent = 0;
  size_t next = 0;
  const auto began = Clock::now();
  const auto wanted = static_cast<uint64_t>(seconds * rate);
  while (sent < wanted) {
    const std::chrono::duration<double> due(static_cast<double>(sent) / rate);
    while (Clock::now() - began < due) {
    }
    for (mmsghdr& m : messages) {
      m.msg_hdr.msg_iov = &frames[next];
      m.msg_hdr.msg_iovlen = 1;
      next = next + 1 == frames.size() ? 0 : next + 1;
    }
    const int n = sendmmsg(fd.get(), messages.data(), burst, 0);
    if (n < 0 && errno != ENOBUFS) fail("send");
    sent += static_cast<uint64_t>(std::max(n, 0));
  }
  std::printf("%lu\n", static_cast<unsigned long>(sent));
  return 0;
}

std::atomic<bool> stopped;

int count(const char* interface) {
  std::signal(SIGTERM, [](int) { stopped = true; });
  const Fd fd = packetSocket(interface, ETH_P_ALL);
  const int version = TPACKET_V3;
  set(fd, PACKET_VERSION, &version, sizeof version);
  tpacket_req3 ring{};
  ring.tp_block_size = 256 << 10;
  ring.tp_block_nr = 64;
  ring.tp_frame_size = 2048;
  ring.tp_frame_nr = ring.tp_block_size / ring.tp_frame_size * ring.tp_block_nr;
  ring.tp_retire_blk_tov = 50;  // milliseconds
  set(fd, PACKET_RX_RING, &ring, sizeof ring);
  const size_t len = size_t{ring.tp_block_size} * ring.tp_block_nr;
  auto* const memory = static_cast<char*>(
      mmap(nullptr, len, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_POPULATE, fd.get(), 0));
  if (memory == MAP_FAILED) fail("mmap");
  std::puts("counting");
  std::fflush(stdout);
  uint64_t packets = 0, sum = 0;
  for (uint32_t at = 0; !stopped;) {
    auto* const block =
        reinterpret_cast<tpacket_block_desc*>(memory + size_t{at} * ring.tp_block_size);
    std::atomic_ref<uint32_t> status(block->hdr.bh1.block_status);
    if (!(status.load(std::memory_order_acquire) & TP_STATUS_USER)) {
      pollfd ready{fd.get(), POLLIN, 0};
      poll(&ready, 1, 100);
      continue;
    }
    const char* packet = reinterpret_cast<char*>(block) + block->hdr.bh1.offset_to_first_pkt;
    for (uint32_t i = 0; i < block->hdr.bh1.num_pkts; ++i) {
      const auto* header = reinterpret_cast<const tpacket3_hdr*>(packet);
      uint64_t addresses = 0;
      std::memcpy(&addresses, packet + header->tp_net + 12, sizeof addresses);
      sum += addresses;
      ++packets;
      packet += header->tp_next_offset;
    }
    status.store(TP_STATUS_KERNEL, std::memory_order_release);
    at = (at + 1) % ring.tp_block_nr;
  }
  tpacket_stats_v3 stats{};
  socklen_t statsLen = sizeof stats;
  getsockopt(fd.get(), SOL_PACKET, PACKET_STATISTICS, &stats, &statsLen);
  std::printf("%lu %u %lu\n", static_cast<unsigned long>(packets), stats.tp_drops,
              static_cast<unsigned long>(sum & 1));
  return 0;
}
}  // namespace

int main(int argc, char** argv) {
  const std::string what = argc > 1 ? argv[1] : "";
  if (what == "send" && argc == 6)
    return send(argv[2], argv[3], std::atof(argv[4]), std::atof(argv[5]));
  if (what == "count" && argc == 3) return count(argv[2]);
  std::fprintf(stderr,
               "usage: live_traffic send INTERFACE PCAP SECONDS PACKETS_PER_SECOND\n"
               "       live_traffic count INTERFACE\n");
  return 2;
}
