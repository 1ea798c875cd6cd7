#pragma once
#include <linux/if_packet.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <utility>
#include <vector>

#include "agent/flow/PacketFilter.h"
#include "agent/records/FlowRecords.h"
#include "platform/linux/Fd.h"
#include "platform/linux/Packet.h"

namespace agent::flow {
using platform::LinkLayer;
using platform::Packet;

struct PacketRingOptions {
  uint32_t blockLen = 256 << 10;  ///< a multiple of the page length
  uint32_t blocks = 64;
  /// Octets kept of a packet: what the parser needs, tags and extension headers included.
  uint32_t snapLen = 192;
  /// The same where it looks into tunnels: four VXLAN headers with IPv6, each in the next, and a
  /// TCP header take 372 octets, and one GENEVE header's options up to 252.
  static constexpr uint32_t tunnelSnapLen = 512;
  /// A block is handed over when it is full or this old.
  std::chrono::milliseconds blockTimeout{50};
  /// Rings of one group, in one network namespace, share the packets by flow: every packet goes to
  /// one of them, and all fragments between two addresses to the same. With one ring there is no
  /// group.
  uint16_t fanoutRings = 1;
  uint16_t fanoutGroup = 0;
  /// Rings that this process may have, this one included: their memory is the kernel's, not swapped
  /// and not counted as the process's, 16 MiB each.
  uint32_t ringsMax = 256;
  Direction direction = Direction::ingress;
};

/// Packets as they arrive at, or leave by, interfaces of the network namespace that the calling
/// thread is in, in memory shared with the kernel. On lo every packet leaves and arrives: unless
/// the direction is `both` it is seen once.
///
///   PacketRing ring;                                  // accepts nothing yet
///   ring.filterIs({3, 4}, 1);
///   poll(ring.fd(), POLLIN) ... ring.read([&](const Packet& p) { ... }, 16);
///
/// For one thread. Needs CAP_NET_RAW. Packets that are yet to be cut into segments, and those that
/// the device or the kernel put together, come as one, with lengths beyond the interface's MTU;
/// `Packet::segments` says how many they are.
class PacketRing {
 public:
  using Options = PacketRingOptions;
  /// Throws ErrnoException (EPERM: no CAP_NET_RAW; ENOMEM: no room for the ring; EUSERS: there are
  /// `ringsMax` already; EINVAL: lengths, or the group's id belongs to a group of another kind).
  explicit PacketRing(const Options& options = {});

  /// From now on packets of these interfaces are accepted, one out of `sampleRate` at random, and
  /// no others; of these, what the choice's expression chooses. Takes effect between two packets;
  /// those already in the ring stay. An empty set accepts nothing; 0 is as 1. The rate is exact up
  /// to 1 / 2^33 of it. Throws ErrnoException when the kernel refuses the filter; the one before
  /// then stays.
  void filterIs(const PacketFilter& filter);
  /// Makes what `filterIs` takes, on any thread: here rights to load programs are needed, not
  /// there.
  PacketFilter filter(PacketChoice choice) const;
  void filterIs(std::vector<uint32_t> interfaces, uint32_t sampleRate) {
    filterIs(filter({std::move(interfaces), sampleRate}));
  }

  /// From now on these interfaces take packets for other stations, as far as this ring has a say:
  /// others may ask for them too. That ends with the ring. The kernel forgets it of an interface
  /// that leaves. The value in the map is `Link::arrival`: a changed one means that the index has
  /// a new interface, which is asked again. Those that refuse are asked again by the next call.
  /// Returns the first of them with its errno (ENODEV: it is not there), or zeros.
  std::pair<uint32_t, int> promiscuousIs(const std::map<uint32_t, uint64_t>& interfaces);

  /// Ends the capture, for good, and gives its memory back. As its destructor does; closing a
  /// packet socket takes the kernel some 35 ms, and opening one as much.
  void close();

  /// The kernel's errno when it takes no program of its extended machine (EPERM: no right to load
  /// one; EINVAL, EACCES: it is too old). Then a packet that is several segments counts as one, and
  /// the direction `once` is `ingress`. 0: none of this.
  int programError() const { return programError_; }

  /// Readable when a block is ready.
  int fd() const { return fd_.get(); }

  /// Hands each packet of up to `blocksMax` ready blocks to `onPacket(const Packet&)` and gives the
  /// blocks back; a packet's octets are there during its call only. `onPacket` must not throw.
  /// Returns the number of packets; never waits.
  template <class F>
  size_t read(F&& onPacket, size_t blocksMax);

  struct Statistics {
    uint64_t packets = 0;  ///< that the filter accepted, those dropped included
    uint64_t dropped = 0;  ///< of them, for want of a free block
    uint64_t freezes = 0;  ///< times the ring ran full
  };
  /// Since the ring was made. The kernel counts in 32 bits between two calls: call it at least once
  /// a minute.
  Statistics statistics();

 private:
  struct Unmap {
    size_t len;
    void operator()(uint8_t* at) const noexcept;
  };
  void packetIs(Packet& p, const tpacket3_hdr& h) const;
  /// False: the kernel has no room for the program.
  bool attached(const PacketFilter& filter, bool any);
  bool wanted(uint32_t interface) const;

  /// One of the rings that the process may have.
  struct Share {
    explicit Share(uint32_t most);
    ~Share() { --taken; }
    Share(const Share&) = delete;
    Share& operator=(const Share&) = delete;
    inline static std::atomic<uint32_t> taken{0};
  };

  Options options_;
  Share share_;  // given back after the memory
  platform::Fd fd_;
  std::unique_ptr<uint8_t, Unmap> ring_;
  uint32_t block_ = 0;                // the next to become ready
  std::vector<uint32_t> interfaces_;  // sorted
  std::map<uint32_t, uint64_t> promiscuous_;
  int programError_ = 0;
  bool chooseHere_ = false;  // more interfaces than a filter of the kernel can hold
  Statistics statistics_;
};

template <class F>
size_t PacketRing::read(F&& onPacket, size_t blocksMax) {
  size_t n = 0;
  Packet p;
  for (; blocksMax > 0; --blocksMax) {
    uint8_t* const at = ring_.get() + size_t{block_} * options_.blockLen;
    auto& head = reinterpret_cast<tpacket_block_desc*>(at)->hdr.bh1;
    const std::atomic_ref<uint32_t> status(head.block_status);
    if ((status.load(std::memory_order_acquire) & TP_STATUS_USER) == 0) break;
    const uint8_t* packet = at + head.offset_to_first_pkt;
    for (uint32_t i = 0; i < head.num_pkts; ++i) {
      const auto& h = *reinterpret_cast<const tpacket3_hdr*>(packet);
      packet += h.tp_next_offset;
      packetIs(p, h);
      if (chooseHere_ && !wanted(p.interface)) continue;
      ++n;
      onPacket(static_cast<const Packet&>(p));
    }
    status.store(TP_STATUS_KERNEL, std::memory_order_release);
    block_ = block_ + 1 == options_.blocks ? 0 : block_ + 1;
  }
  return n;
}

}  // namespace agent::flow
