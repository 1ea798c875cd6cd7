#include "agent/flow/PacketRing.h"

#include <arpa/inet.h>
#include <linux/filter.h>
#include <linux/if_ether.h>
#include <net/if_arp.h>
#include <sys/mman.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>

#include "platform/UdpPam.h"

namespace agent::flow {
namespace {
using Program = std::vector<sock_filter>;

// Of linux/if_packet.h since 5.9. The group has a hook of its own, so the socket's option is not
// enough.
constexpr int fanoutIgnoreOutgoing = 0x4000;
// The kernel wants frames in a block, though blocks of this version hold packets of any length.
constexpr uint32_t frameLen = 2048;

/// False: the program is too long for the kernel.
bool attach(int fd, Program& program) {
  if (program.size() > BPF_MAXINSNS) return false;
  const sock_fprog all{static_cast<uint16_t>(program.size()), program.data()};
  if (::setsockopt(fd, SOL_SOCKET, SO_ATTACH_FILTER, &all, sizeof all) == 0) return true;
  // Beyond what net.core.optmem_max allows a socket.
  if (errno == ENOMEM) return false;
  throw platform::ErrnoException(errno, "the packet socket refused its filter");
}

template <class T>
void optionIs(int fd, int option, const T& value, const std::string& problem) {
  if (::setsockopt(fd, SOL_PACKET, option, &value, sizeof value) != 0)
    throw platform::ErrnoException(errno, problem);
}
}  // namespace

void PacketRing::Unmap::operator()(uint8_t* at) const noexcept { ::munmap(at, len); }

PacketRing::Share::Share(uint32_t most) {
  if (++taken <= most) return;
  --taken;
  throw platform::ErrnoException(EUSERS,
                                 "all " + std::to_string(most) +
                                     " captures are in use, one for each tracker and VRF: "
                                     "track interfaces of fewer VRFs, or with fewer trackers");
}

PacketRing::PacketRing(const Options& options) : options_(options), share_(options.ringsMax) {
  // Without a protocol it hears nothing until it is bound.
  fd_ = platform::Fd(::socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0));
  if (!fd_)
    throw platform::ErrnoException(errno, errno == EPERM ? "a packet socket needs CAP_NET_RAW"
                                                         : "cannot open a packet socket");
  const int fd = fd_.get();
  Program nothing{{BPF_RET | BPF_K, 0, 0, 0}};
  if (!attach(fd, nothing))
    throw platform::ErrnoException(ENOMEM, "the packet socket refused its filter");
  optionIs(fd, PACKET_VERSION, int{TPACKET_V3}, "the kernel has no receive ring of version 3");
  programError_ = extendedFilter({}, options_.direction, options_.snapLen).error;
  if (programError_ == ENOMEM || programError_ == EAGAIN || programError_ == EINTR)
    throw platform::ErrnoException(programError_, "the kernel cannot load the packet filter now");
  if (programError_ != 0 && options_.direction == Direction::once)
    options_.direction = Direction::ingress;
  if (options_.direction == Direction::ingress)
    optionIs(fd, PACKET_IGNORE_OUTGOING, int{1}, "the kernel cannot leave out outgoing packets");

  tpacket_req3 request{};
  request.tp_block_size = options.blockLen;
  request.tp_block_nr = options.blocks;
  request.tp_frame_size = frameLen;
  request.tp_frame_nr = options.blockLen / frameLen * options.blocks;
  request.tp_retire_blk_tov = static_cast<unsigned>(options.blockTimeout.count());
  optionIs(fd, PACKET_RX_RING, request,
           "cannot make a receive ring of " + std::to_string(options.blocks) + " blocks of " +
               std::to_string(options.blockLen) + " octets");
  const size_t len = size_t{options.blockLen} * options.blocks;
  void* at = ::mmap(nullptr, len, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  if (at == MAP_FAILED) throw platform::ErrnoException(errno, "cannot map the receive ring");
  ring_ = {static_cast<uint8_t*>(at), Unmap{len}};

  sockaddr_ll any{};
  any.sll_family = AF_PACKET;
  any.sll_protocol = htons(ETH_P_ALL);
  if (::bind(fd, reinterpret_cast<const sockaddr*>(&any), sizeof any) != 0)
    throw platform::ErrnoException(errno, "cannot bind the packet socket");
  if (options.fanoutRings > 1) {
    // Not PACKET_FANOUT_FLAG_DEFRAG: it would put fragments together, and one packet be counted
    // where several came. The hash leaves out the ports of fragments, so they meet anyway.
    uint32_t kind = PACKET_FANOUT_HASH;
    if (options_.direction == Direction::ingress) kind |= fanoutIgnoreOutgoing;
    const uint32_t group = options.fanoutGroup | kind << 16;
    optionIs(fd, PACKET_FANOUT, group,
             "cannot join the packet group " + std::to_string(options.fanoutGroup));
  }
}

void PacketRing::close() {
  ring_.reset();
  fd_.close();
}

std::pair<uint32_t, int> PacketRing::promiscuousIs(const std::map<uint32_t, uint64_t>& interfaces) {
  const auto request = [this](int option, uint32_t interface) {
    packet_mreq one{};
    one.mr_ifindex = static_cast<int>(interface);
    one.mr_type = PACKET_MR_PROMISC;
    return ::setsockopt(fd_.get(), SOL_PACKET, option, &one, sizeof one) == 0 ? 0 : errno;
  };
  std::erase_if(promiscuous_, [&](const auto& had) {
    const auto now = interfaces.find(had.first);
    if (now != interfaces.end() && now->second == had.second) return false;
    request(PACKET_DROP_MEMBERSHIP, had.first);  // fails where the interface is gone
    return true;
  });
  std::pair<uint32_t, int> refused{};
  for (const auto& [interface, arrival] : interfaces) {
    if (promiscuous_.contains(interface)) continue;
    const int error = request(PACKET_ADD_MEMBERSHIP, interface);
    if (error == 0) promiscuous_.emplace(interface, arrival);
    if (error != 0 && refused.second == 0) refused = {interface, error};
  }
  return refused;
}

PacketFilter PacketRing::filter(PacketChoice choice) const {
  std::vector<uint32_t>& interfaces = choice.interfaces;
  std::sort(interfaces.begin(), interfaces.end());
  interfaces.erase(std::unique(interfaces.begin(), interfaces.end()), interfaces.end());
  if (programError_ != 0) return {.choice = std::move(choice)};
  return extendedFilter(std::move(choice), options_.direction, options_.snapLen);
}

bool PacketRing::attached(const PacketFilter& filter, bool any) {
  if (programError_ != 0) {
    Program program = classicFilter(filter.choice, options_.direction, options_.snapLen, any);
    return attach(fd_.get(), program);
  }
  const platform::Fd& program = any ? filter.anyInterface : filter.program;
  const int fd = program.get();
  return program && ::setsockopt(fd_.get(), SOL_SOCKET, SO_ATTACH_BPF, &fd, sizeof fd) == 0;
}

void PacketRing::filterIs(const PacketFilter& filter) {
  if (filter.error != 0) errno = filter.error;
  const bool all = filter.error == 0 && attached(filter, false);
  if (!all && (filter.error != 0 || !attached(filter, true)))
    throw platform::ErrnoException(errno, "the packet socket refused its filter");
  chooseHere_ = !all;
  interfaces_ = filter.choice.interfaces;
}

bool PacketRing::wanted(uint32_t interface) const {
  return std::binary_search(interfaces_.begin(), interfaces_.end(), interface);
}

void PacketRing::packetIs(Packet& p, const tpacket3_hdr& h) const {
  const auto* at = reinterpret_cast<const uint8_t*>(&h);
  const auto& from = *reinterpret_cast<const sockaddr_ll*>(at + TPACKET_ALIGN(sizeof h));
  p.timeNs = int64_t{h.tp_sec} * 1'000'000'000 + h.tp_nsec;
  p.interface = static_cast<uint32_t>(from.sll_ifindex);
  p.segments = segmentsOf(h.tp_snaplen, options_.snapLen);
  p.leaves = from.sll_pkttype == PACKET_OUTGOING;
  p.hasVlan = (h.tp_status & TP_STATUS_VLAN_VALID) != 0;
  p.vlanTci = p.hasVlan ? static_cast<uint16_t>(h.hv1.tp_vlan_tci) : 0;
  if (from.sll_hatype == ARPHRD_ETHER || from.sll_hatype == ARPHRD_LOOPBACK) {
    p.link = LinkLayer::ethernet;
    p.octets = at + h.tp_mac;
    p.capLen = h.tp_snaplen;
    p.wireLen = h.tp_len;
    return;
  }
  // Whatever the device puts before it, the kernel knows where the network header is and whose.
  p.link = LinkLayer::raw;
  const uint32_t before = std::min<uint32_t>(h.tp_net - h.tp_mac, h.tp_snaplen);
  p.octets = at + h.tp_mac + before;
  p.capLen = h.tp_snaplen - before;
  p.wireLen = h.tp_len - before;
  if (from.sll_protocol != htons(ETH_P_IP) && from.sll_protocol != htons(ETH_P_IPV6)) {
    // Its first octet could look like a version of IP.
    static constexpr uint8_t notIp = 0;
    p.octets = &notIp;
    p.capLen = 1;
  }
}

PacketRing::Statistics PacketRing::statistics() {
  tpacket_stats_v3 now{};  // and from zero again
  socklen_t len = sizeof now;
  if (::getsockopt(fd_.get(), SOL_PACKET, PACKET_STATISTICS, &now, &len) == 0) {
    statistics_.packets += now.tp_packets;
    statistics_.dropped += now.tp_drops;
    statistics_.freezes += now.tp_freeze_q_cnt;
  }
  return statistics_;
}

}  // namespace agent::flow
