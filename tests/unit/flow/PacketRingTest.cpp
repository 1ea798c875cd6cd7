#include "agent/flow/PacketRing.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <fstream>
#include <map>
#include <set>
#include <tuple>

#include "Frames.h"
#include "platform/UdpPam.h"
#include "tests/unit/agent/World.h"

namespace agent::flow {
namespace {
using namespace std::chrono_literals;

/// UDP whose source port is its mark.
Octets ip(uint32_t mark, size_t len = 50) {
  return Ip4{}(17, udp(static_cast<uint16_t>(mark), 53, len - 28));
}
Octets frame(uint32_t mark) { return ethernet(0x0800, ip(mark)); }

/// What was read of a packet; `packet.octets` is gone.
struct Seen {
  Packet packet;
  Octets octets;
};

/// Sends whole frames out of one device.
class Sender {
 public:
  explicit Sender(const char* device) : fd_(::socket(AF_PACKET, SOCK_RAW, 0)) {
    sockaddr_ll at{};
    at.sll_family = AF_PACKET;
    at.sll_ifindex = static_cast<int>(if_nametoindex(device));
    if (::bind(fd_.get(), reinterpret_cast<const sockaddr*>(&at), sizeof at) != 0)
      throw platform::ErrnoException(errno, "the test's sender");
  }
  void send(const Octets& frame) const {
    EXPECT_EQ(::send(fd_.get(), frame.data(), frame.size(), 0), ssize_t(frame.size()));
  }

 private:
  platform::Fd fd_;
};

/// What the ring hands out until there are `expected` packets (or two seconds passed), and what
/// comes in the two block timeouts after that.
std::vector<Seen> collect(PacketRing& ring, size_t expected) {
  std::vector<Seen> all;
  const auto take = [&](const Packet& p) {
    all.push_back({p, Octets(p.octets, p.octets + p.capLen)});
  };
  const auto end = std::chrono::steady_clock::now() + 2s;
  while (all.size() < expected && std::chrono::steady_clock::now() < end) {
    pollfd ready{ring.fd(), POLLIN, 0};
    ::poll(&ready, 1, 10);
    ring.read(take, 1);
  }
  for (int i = 0; i < 4; ++i) {
    ::poll(nullptr, 0, 10);
    ring.read(take, 1000);
  }
  return all;
}

// Tags, and packets that did not fit, are for the system test of flows.
class PacketRingTest : public agent::World {
 protected:
  void SetUp() override {
    World::SetUp();
    if (IsSkipped()) return;
    // Nobody speaks here but the test.
    for (const char* which : {"all", "default"})
      std::ofstream("/proc/sys/net/ipv6/conf/" + std::string(which) + "/disable_ipv6") << "1";
    run("ip link set lo up");
  }
  /// `name` and `name`-peer, both up, with these interface indexes.
  static void makePair(const std::string& name, unsigned index) {
    run("ip link add index " + std::to_string(index) + " name " + name + " type veth peer name " +
        name + "-peer index " + std::to_string(index + 1));
    run("ip link set dev " + name + " up && ip link set dev " + name + "-peer up");
  }
  /// The device t, which takes packets from the test; nothing: there are no such devices.
  static platform::Fd deviceT(int flags) {
    platform::Fd tun(::open("/dev/net/tun", O_RDWR));
    ifreq request{};
    std::strcpy(request.ifr_name, "t");
    request.ifr_flags = static_cast<short>(flags | IFF_NO_PI);
    if (!tun || ::ioctl(tun.get(), TUNSETIFF, &request) != 0) return {};
    run("ip link set dev t up");
    return tun;
  }
  static PacketRing::Options options() {
    PacketRing::Options o;
    o.blocks = 8;
    o.blockTimeout = 10ms;
    return o;
  }
};

TEST_F(PacketRingTest, DeviceWithoutLinkLayer) {
  const platform::Fd tun = deviceT(IFF_TUN);
  if (!tun) GTEST_SKIP() << "no tun devices";
  PacketRing ring(options());
  ring.filterIs({if_nametoindex("t")}, 1);
  ASSERT_EQ(::write(tun.get(), ip(77).data(), 50), 50);
  const std::vector<Seen> seen = collect(ring, 1);
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(seen[0].packet.link, LinkLayer::raw);
  EXPECT_EQ(seen[0].packet.wireLen, 50u);
  EXPECT_EQ(seen[0].octets, ip(77));
}

/// A virtual machine hands over a packet and the length of its segments, and leaves the counting to
/// others; what its headers say need not be true.
TEST_F(PacketRingTest, SegmentsThatNobodyCounted) {
  const platform::Fd tap = deviceT(IFF_TAP | IFF_VNET_HDR);
  if (!tap) GTEST_SKIP() << "no tap devices";
  PacketRing ring(options());
  if (ring.programError() != 0) GTEST_SKIP() << "no right to load a program";
  ring.filterIs({if_nametoindex("t")}, 1);
  constexpr uint8_t none = 0, tcp4 = 1, tcp6 = 4, udpAny = 5;
  const auto v4 = [](uint8_t protocol, const Octets& rest) { return Ip4{}(protocol, rest); };
  const auto v6 = [](uint8_t protocol, const Octets& rest) { return Ip6{}(protocol, rest); };
  const Octets plain = v4(6, tcp(1, 2, 0x10, 400));
  Octets options4 = tcp(1, 2, 0x10, 412), wrong = plain;
  options4[12] = 0x80;          // 12 octets of the 412 are options
  wrong[2] = 0, wrong[3] = 30;  // a total length without room for the headers
  const std::tuple<uint8_t, Octets, uint32_t> cases[] = {
      {none, plain, 1},
      {tcp4, plain, 4},
      {tcp4, v4(6, options4), 4},
      {tcp4, wrong, 1},
      {tcp6, v6(6, tcp(1, 2, 0x10, 401)), 5},
      {udpAny, v4(17, udp(1, 2, 399)), 4},
      {udpAny, v6(17, udp(1, 2, 301)), 4},
  };
  for (const auto& [kind, packet, segments] : cases) {
    const bool ipv6 = packet[0] >> 4 == 6, udp = kind == udpAny;
    const uint16_t transport = ipv6 ? 54 : 34;
    // struct virtio_net_hdr of linux/virtio_net.h, which C++ does not take: flags (a checksum is
    // needed), kind; octets of headers, of a segment, where the checksum begins and is.
    Octets all{1, kind};
    const uint16_t numbers[] = {transport, uint16_t(kind == none ? 0 : 100), transport,
                                uint16_t(udp ? 6 : 16)};
    const auto* const octets = reinterpret_cast<const uint8_t*>(numbers);
    all.insert(all.end(), octets, octets + sizeof numbers);
    all.add(ethernet(ipv6 ? 0x86dd : 0x0800, packet));
    ASSERT_EQ(::write(tap.get(), all.data(), all.size()), ssize_t(all.size()));
    const std::vector<Seen> seen = collect(ring, 1);
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_EQ(seen[0].packet.segments, segments) << packet.size();
    EXPECT_EQ(seen[0].packet.wireLen, all.size() - 2 - sizeof numbers);
  }
}

/// A ring hears what arrives at the interfaces of its list, and nothing that leaves there: of a
/// pair each packet is counted once.
TEST_F(PacketRingTest, AnyNumberOfInterfaces) {
  // The true index in the midst of others, at both ends of the list, and not in it.
  constexpr uint32_t index = 100000;
  makePair("a", index);
  const Sender to("a-peer"), from("a");
  PacketRing ring(options());
  to.send(frame(1));
  EXPECT_TRUE(collect(ring, 0).empty()) << "without a list";
  const Octets sent = ethernet(0x0800, ip(1, 286));
  Random pick;
  for (const uint32_t n : {1, 2, 8, 9, 17, 100, 300, 1000, 2000, 5000})
    // The last is a row around it, which makes it the middle, where the search branches first.
    for (const uint32_t least : {1u, index - 2 * n, index + 2, index - n / 2}) {
      std::set<uint32_t> set;
      if (least == index - n / 2)
        for (uint32_t i = 0; i < n; ++i) set.insert(least + i);
      while (set.size() < n) set.insert(least + pick(least == 1 ? 200000 : 2 * n));
      set.erase(index + 1);  // the other end of the pair
      for (const bool in : {true, false}) {
        SCOPED_TRACE(std::to_string(n) + " from " + std::to_string(least) + (in ? " in" : ""));
        in ? void(set.insert(index)) : void(set.erase(index));
        ring.filterIs({set.rbegin(), set.rend()}, 1);
        from.send(frame(2));
        to.send(sent);
        const std::vector<Seen> seen = collect(ring, in ? 1 : 0);
        ASSERT_EQ(seen.size(), in ? 1u : 0u);
        for (const Seen& s : seen) {
          EXPECT_EQ(s.octets, Octets(sent.begin(), sent.begin() + 192));
          EXPECT_EQ(std::tie(s.packet.interface, s.packet.wireLen), std::tuple(index, 300u));
          EXPECT_EQ(s.packet.link, LinkLayer::ethernet);
        }
      }
    }
}

TEST_F(PacketRingTest, RingsOfAGroupShareByFlow) {
  makePair("a", 100);
  const Sender sender("a-peer"), back("a");
  PacketRing::Options o = options();
  o.blocks = 64;  // a slow sender's take 10 ms each, however little is in them
  o.fanoutRings = 2;
  o.fanoutGroup = 7;
  PacketRing first(o), second(o);
  o.ringsMax = 2;  // and a third one is refused, whatever group it is of
  EXPECT_THROW(PacketRing{o}, platform::ErrnoException);
  for (PacketRing* r : {&first, &second}) r->filterIs({100, 101}, 1);
  std::map<uint16_t, size_t> counts[2];  // by mark
  size_t all = 0;
  const auto take = [&] {  // before a ring is full: a slow sender fills its blocks with little
    for (int i = 0; i < 2; ++i)
      for (const Seen& s : collect(i == 0 ? first : second, 0)) {
        ++counts[i][static_cast<uint16_t>(s.octets[34] << 8 | s.octets[35])];
        ++all;
      }
  };
  constexpr uint32_t flows = 200;
  for (uint32_t i = 0; i < 3 * flows; ++i) {
    sender.send(frame(i % flows));
    if (i % 100 == 99) take();
  }
  // Two fragments of one packet, which must stay two.
  Octets fragment = frame(1000);
  for (const uint32_t word : {0x2000, 6}) {
    fragment.put16(20, word);
    sender.send(fragment);
  }
  back.send(frame(2000));

  for (int i = 0; i == 0 || (i < 25 && all < 3 * flows + 3); ++i) take();
  for (auto& c : counts) {
    EXPECT_GT(c.size(), 40u);
    for (const auto& [mark, n] : c)
      EXPECT_EQ(n, mark < flows ? 3u : mark == 1000 ? 2u : 1u) << mark;
  }
  EXPECT_EQ(all, 3 * flows + 3);
}

}  // namespace
}  // namespace agent::flow
