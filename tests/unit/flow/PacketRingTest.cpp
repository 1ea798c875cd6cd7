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
#include "agent/settings/PacketExpression.h"
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

/// Random expressions, and packets that they may be about.
struct Language {
  Random& pick;

  std::string number() {
    static const char* const all[] = {"0", "1", "6", "17", "53", "80", "0x45", "0x8100", "2048"};
    return pick(3) ? all[pick(9)] : std::to_string(pick(300));
  }
  std::string value(unsigned depth) {
    static const char* const layers[] = {"ether", "ether", "ip", "tcp", "udp", "ip6"};
    static const char* const operators[] = {"+", "-", "*", "/", "%", "&", "|", "^", "<<", ">>"};
    static const char* const widths[] = {"", ":2", ":4"};
    if (depth == 0 || pick(4) == 0) return pick(6) ? number() : "len";
    if (pick(2))
      return std::string(layers[pick(6)]) + "[" +
             (pick(3) ? std::to_string(pick(24)) : value(depth - 1)) + widths[pick(3)] + "]";
    return "(" + value(depth - 1) + " " + operators[pick(10)] + " " + value(depth - 1) + ")";
  }
  std::string expression(unsigned depth) {
    static const char* const atoms[] = {"ip",
                                        "ip6",
                                        "arp",
                                        "tcp",
                                        "udp",
                                        "vlan",
                                        "vlan 10",
                                        "port 53",
                                        "src port 80",
                                        "portrange 50-90",
                                        "host 10.1.2.3",
                                        "dst net 192.0.2.0/24",
                                        "host 2001:db8::1",
                                        "ether host 2:0:0:0:0:2",
                                        "ether proto 0x0800",
                                        "less 60",
                                        "multicast",
                                        "mpls",
                                        "tcp[tcpflags] & tcp-syn != 0"};
    static const char* const relations[] = {"=", "!=", "<", ">", "<=", ">="};
    switch (depth == 0 ? pick(2) : pick(6)) {
      case 0:
        return atoms[pick(19)];
      case 1:
        return value(2) + " " + relations[pick(6)] + " " + value(1);
      case 2:
        return "not (" + expression(depth - 1) + ")";
      default:
        return "(" + expression(depth - 1) + (pick(2) ? " and " : " or ") + expression(depth - 1) +
               ")";
    }
  }
  Octets ipPacket() {
    const uint16_t ports[] = {53, 80, uint16_t(pick(100))};
    const Octets body = pick(2) ? udp(ports[pick(3)], ports[pick(3)], pick(60))
                                : tcp(ports[pick(3)], 80, uint8_t(pick(64)), pick(30));
    const uint8_t protocol = pick(8) ? (body.size() > 20 && body[12] == 0x50 ? 6 : 17) : 50;
    if (pick(3) == 0) return Ip6{}(protocol, body);
    return Ip4{.fragment = uint16_t(pick(4) ? 0 : 3), .optionsLen = 4 * pick(3)}(protocol, body);
  }
  Octets frame() {
    Octets packet = ipPacket();
    if (pick(6) == 0) packet.resize(2 + pick(static_cast<uint32_t>(packet.size() - 1)));
    const uint16_t type = pick(8) == 0 ? 0x0806 : packet[0] >> 4 == 6 ? 0x86dd : 0x0800;
    const auto tci = static_cast<uint16_t>(pick(2) ? 10 : pick(0x10000));
    if (pick(3)) return ethernet(type, packet);
    if (pick(2)) return tagged(pick(4) ? 0x8100 : 0x88a8, tci, type, packet);
    return tagged(0x88a8, 7, 0x8100, Octets{}.u16(tci).u16(type).add(packet));
  }
};

/// What arrives at a socket of the test's own, with this program or without one.
class Tap {
 public:
  Tap() : fd_(::socket(AF_PACKET, SOCK_RAW | SOCK_NONBLOCK, htons(ETH_P_ALL))) {
    const int on = 1;
    ::setsockopt(fd_.get(), SOL_PACKET, PACKET_IGNORE_OUTGOING, &on, sizeof on);
  }
  void extended(int program) {
    ASSERT_EQ(::setsockopt(fd_.get(), SOL_SOCKET, SO_ATTACH_BPF, &program, sizeof program), 0);
  }
  void classic(std::vector<sock_filter> program) {
    const sock_fprog all{static_cast<uint16_t>(program.size()), program.data()};
    ASSERT_EQ(::setsockopt(fd_.get(), SOL_SOCKET, SO_ATTACH_FILTER, &all, sizeof all), 0);
  }
  /// Without the tag of Ethernet, by interface.
  std::vector<std::pair<int, Octets>> take() {
    std::vector<std::pair<int, Octets>> all;
    Octets room(2000);
    sockaddr_ll from{};
    socklen_t len = sizeof from;
    for (ssize_t n = 0; (n = ::recvfrom(fd_.get(), room.data(), room.size(), 0,
                                        reinterpret_cast<sockaddr*>(&from), &len)) >= 0;)
      if (from.sll_ifindex != 101)
        all.push_back({from.sll_ifindex, {room.begin(), room.begin() + n}});
    return all;
  }

 private:
  platform::Fd fd_;
};

/// The kernel takes exactly the packets that the expression chooses as they were on the wire; a
/// program of the classic machine sees them without the tag that was taken off.
TEST_F(PacketRingTest, ExpressionsMeanWhatTheyMeanInACapture) {
  makePair("a", 100);
  const platform::Fd tun = deviceT(IFF_TUN);
  if (!tun) GTEST_SKIP() << "no tun devices";
  const Sender to("a-peer");
  const int raw = static_cast<int>(if_nametoindex("t"));
  const Octets last = ethernet(0x88b5, Octets{}.fill(50, 7));
  Random pick;
  Language language{pick};
  Tap whole, extended, classic;
  size_t chosen = 0, refused = 0;
  for (int round = 0; round < 1000; ++round) {
    PacketChoice choice{{100, static_cast<uint32_t>(raw)}, 1, language.expression(3), {}};
    choice.withoutEthernet = {static_cast<uint32_t>(raw)};
    const auto programs = {compilePacketExpression(choice.expression, LinkLayer::ethernet),
                           compilePacketExpression(choice.expression, LinkLayer::raw)};
    if (!programs.begin()->problem.empty()) continue;
    SCOPED_TRACE(choice.expression);
    const PacketFilter filter = extendedFilter(choice, Direction::ingress, 192);
    if (filter.error == EPERM) GTEST_SKIP() << "no right to load a program";
    ASSERT_EQ(filter.error, 0);
    extended.extended(filter.program.get());
    classic.classic(classicFilter(choice, Direction::ingress, 192, false));
    std::vector<std::pair<int, Octets>> wanted, wantedUntagged;
    for (int i = 0; i < 30; ++i) {
      const bool onTun = pick(4) == 0;
      const Octets wire = onTun ? language.ipPacket() : language.frame();
      Octets octets = wire;
      if (!onTun && (wire[12] == 0x81 || wire[12] == 0x88))
        octets.erase(octets.begin() + 12, octets.begin() + 16);
      const LinkLayer link = onTun ? LinkLayer::raw : LinkLayer::ethernet;
      const auto& program = programs.begin()[onTun].code;
      const auto is = [&](const Octets& o) {
        return !program.empty() && chooses(program, Boxed(o, link).packet);
      };
      onTun ? void(::write(tun.get(), wire.data(), wire.size())) : to.send(wire);
      if (is(wire)) wanted.push_back({onTun ? raw : 100, octets});
      if (is(octets)) wantedUntagged.push_back({onTun ? raw : 100, octets});
      ++(is(wire) ? chosen : refused);
    }
    to.send(last);
    std::vector<std::pair<int, Octets>> all;
    const auto end = std::chrono::steady_clock::now() + 2s;
    while ((all.empty() || all.back().second != last) && std::chrono::steady_clock::now() < end)
      for (auto& one : whole.take()) all.push_back(std::move(one));
    ASSERT_EQ(all.size(), 31u);
    const auto without = [&](Tap& tap) {
      auto got = tap.take();
      std::erase_if(got, [&](const auto& one) { return one.second == last; });
      return got;
    };
    ASSERT_EQ(without(extended), wanted);
    const auto fallback = without(classic);
    // Of a shift by 32 and more the kernel's classic machine takes the remainder.
    const auto has = [&](const char* text) {
      return choice.expression.find(text) != choice.expression.npos;
    };
    if (!has("<<") && !has(">>")) {
      ASSERT_EQ(fallback, wantedUntagged);
    }
  }
  EXPECT_GT(chosen, 3000u);
  EXPECT_GT(refused, 3000u);
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
