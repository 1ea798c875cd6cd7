#include "agent/network/Network.h"

#include <libmnl/libmnl.h>
#include <linux/if_addr.h>
#include <linux/rtnetlink.h>
#include <net/if.h>

#include <fstream>
#include <map>
#include <sstream>

#include "World.h"
#include "agent/network/Networks.h"
#include "platform/UdpPam.h"

namespace agent {
namespace {
using namespace std::chrono_literals;

/// "address" or "address/mark".
LinkAddress address(const std::string& text) {
  static const std::map<std::string, std::pair<uint8_t, uint32_t>> marks = {
      {"", {RT_SCOPE_UNIVERSE, 0}},
      {"link", {RT_SCOPE_LINK, 0}},
      {"host", {RT_SCOPE_HOST, 0}},
      {"secondary", {RT_SCOPE_UNIVERSE, IFA_F_SECONDARY}},
      {"temporary", {RT_SCOPE_UNIVERSE, IFA_F_TEMPORARY}},
      {"tentative", {RT_SCOPE_UNIVERSE, IFA_F_TENTATIVE}},
      {"duplicate", {RT_SCOPE_UNIVERSE, IFA_F_DADFAILED | IFA_F_TENTATIVE}},
      {"deprecated", {RT_SCOPE_UNIVERSE, IFA_F_DEPRECATED}}};
  const size_t end = std::min(text.find('/'), text.size());
  const IpGenAddr a = *IpGenAddr::fromString(text.substr(0, end));
  const auto [scope, flags] = marks.at(end == text.size() ? "" : text.substr(end + 1));
  return {a, a, static_cast<uint8_t>(a.isIpv4() ? 24 : 64), scope, flags};
}

TEST(ChooseSource, Table) {
  constexpr uint32_t up = IFF_UP;
  constexpr uint32_t loop = IFF_UP | IFF_LOOPBACK;
  struct Case {
    uint32_t flags;
    const char* addresses;
    const char* chosen;
    bool current = false;  // 10.0.0.2 and 2001:db8::2 are
  };
  const Case cases[] = {
      {up, "10.0.0.1 10.0.1.1 2001:db8::1 2001:db8::2", "10.0.0.1 2001:db8::1"},
      {0, "10.0.0.1 2001:db8::1", "0.0.0.0 ::"},
      {up, "169.254.0.1/link fe80::1/link", "0.0.0.0 ::"},
      {up, "fe80::1", "0.0.0.0 ::"},
      {up, "10.0.0.1/host", "0.0.0.0 ::"},
      {loop, "127.0.0.1/host ::1/host", "127.0.0.1 ::1"},
      // A router's loopback.
      {loop, "127.0.0.1/host 10.9.9.9 ::1/host 2001:db8::9", "10.9.9.9 2001:db8::9"},
      {up, "10.0.0.2/secondary 10.0.0.1", "10.0.0.1 ::"},
      {up, "2001:db8::2/temporary 2001:db8::1", "0.0.0.0 2001:db8::1"},
      {up, "2001:db8::1/tentative 2001:db8::2/duplicate 2001:db8::3/deprecated 2001:db8::4",
       "0.0.0.0 2001:db8::4"},
      // The current one stays, unless it is gone or no longer usable.
      {up, "10.0.0.1 10.0.0.2/secondary 2001:db8::1 2001:db8::2", "10.0.0.2 2001:db8::2", true},
      {up, "10.0.0.1 10.0.0.2/link 2001:db8::1 2001:db8::2/deprecated", "10.0.0.1 2001:db8::1",
       true},
      {up, "10.0.0.1", "10.0.0.1 ::", true},
  };
  for (const Case& c : cases) {
    Link link;
    link.flags = c.flags;
    std::istringstream addresses(c.addresses);
    for (std::string one; addresses >> one;) link.addresses.push_back(address(one));
    SourceAddresses current;
    if (c.current)
      current = {address("10.0.0.2").local.ipAddr(), address("2001:db8::2").local.ip6Addr()};
    const SourceAddresses found = chooseSource(link, current);
    EXPECT_EQ(found.v4.stringValue() + ' ' + found.v6.stringValue(), c.chosen) << c.addresses;
  }
}

/// A netlink message made for a test.
struct Message {
  alignas(nlmsghdr) std::array<char, 512> octets{};
  nlmsghdr* header = mnl_nlmsg_put_header(octets.data());
};
Message linkMessage(uint16_t type, int index, const char* name, uint8_t family = AF_UNSPEC) {
  Message m;
  m.header->nlmsg_type = type;
  auto* info = static_cast<ifinfomsg*>(mnl_nlmsg_put_extra_header(m.header, sizeof(ifinfomsg)));
  info->ifi_family = family;
  info->ifi_index = index;
  info->ifi_flags = IFF_UP;
  if (name) mnl_attr_put_strz(m.header, IFLA_IFNAME, name);
  return m;
}
Message addressMessage(uint16_t type, uint32_t index, uint32_t addr) {
  Message m;
  m.header->nlmsg_type = type;
  auto* info = static_cast<ifaddrmsg*>(mnl_nlmsg_put_extra_header(m.header, sizeof(ifaddrmsg)));
  info->ifa_family = AF_INET;
  info->ifa_prefixlen = 24;
  info->ifa_index = index;
  mnl_attr_put_u32(m.header, IFA_ADDRESS, htobe32(addr + 8));  // the other end's
  mnl_attr_put_u32(m.header, IFA_LOCAL, htobe32(addr));
  mnl_attr_put_u32(m.header, IFA_FLAGS, IFA_F_NOPREFIXROUTE | IFA_F_SECONDARY);
  return m;
}

TEST(Rtnetlink, MessagesThatMeanSomethingElse) {
  const auto n = vrfNetworkFactory(VrfName("red"));
  applyRtnetlink(*linkMessage(RTM_NEWLINK, 5, "eth0").header, *n);
  ASSERT_NE(n->link("eth0"), nullptr);
  // The link left its bridge; it did not go.
  applyRtnetlink(*linkMessage(RTM_DELLINK, 5, "eth0", AF_BRIDGE).header, *n);
  ASSERT_NE(n->link("eth0"), nullptr);
  applyRtnetlink(*linkMessage(RTM_NEWLINK, 6, nullptr).header, *n);
  applyRtnetlink(*linkMessage(RTM_NEWLINK, 7, "sixteen-octets!!").header, *n);
  applyRtnetlink(*linkMessage(RTM_NEWLINK, -1, "minus").header, *n);
  EXPECT_EQ(n->links().size(), 1u);
  applyRtnetlink(*addressMessage(RTM_NEWADDR, 5, 0x0a000001).header, *n);
  ASSERT_EQ(n->link("eth0")->addresses.size(), 1u);
  EXPECT_EQ(n->link("eth0")->addresses[0].local.stringValue(), "10.0.0.1");
  EXPECT_EQ(n->link("eth0")->addresses[0].flags, uint32_t{IFA_F_NOPREFIXROUTE | IFA_F_SECONDARY});
  applyRtnetlink(*addressMessage(RTM_DELADDR, 5, 0x0a000001).header, *n);
  EXPECT_TRUE(n->link("eth0")->addresses.empty());
}

TEST(Rtnetlink, BrokenMessagesAreHarmless) {
  Random random;
  const auto n = vrfNetworkFactory(VrfName("red"));
  for (int round = 0; round < 20000; ++round) {
    const Message whole = round % 2 == 0 ? linkMessage(RTM_NEWLINK, 5, "eth0")
                                         : addressMessage(RTM_NEWADDR, 5, random(UINT32_MAX));
    // On the heap and no longer than it says, so that the sanitizer sees a read behind the end.
    const uint32_t len = sizeof(nlmsghdr) + random(whole.header->nlmsg_len + 4);
    const auto copy = std::make_unique<char[]>(len);
    std::memcpy(copy.get(), whole.octets.data(), len);
    for (unsigned k = random(4); k > 0 && len > sizeof(nlmsghdr); --k)
      copy[sizeof(nlmsghdr) + random(len - sizeof(nlmsghdr))] = static_cast<char>(random(256));
    auto* header = reinterpret_cast<nlmsghdr*>(copy.get());
    header->nlmsg_len = len;
    applyRtnetlink(*header, *n);
    for (const auto& [index, link] : n->links()) {
      ASSERT_FALSE(link.name.empty());
      ASSERT_LT(link.name.size(), size_t{IFNAMSIZ});
    }
  }
}

// --- Against the kernel ---

TEST_F(World, NamespacesThatNobodyAskedFor) {
  run("ip netns add ns-early && ip netns add 'ns-a blank' && ip netns add ns-default && "
      "ip netns add other && ln -s /nowhere /run/netns/ns-lost && ln -s x /run/netns/ns-void");
  Networks networks(loop, "/run/netns", heard.log);
  std::string names;
  // Sooner than by a look at all namespaces: an event tells.
  const auto become = [&](const std::string& command, const std::string& expected) {
    run(command);
    return until(
        [&] {
          names.clear();
          for (const auto& [vrf, network] : networks.list()->network())
            if (network->present()) names += vrf.stringValue() + ' ';
          return names == expected;
        },
        1500ms);
  };
  EXPECT_TRUE(become("ip netns add ns-late", "default early late ")) << names;
  // Others may ask for it, and stop to: it is the same one all the time.
  const auto late = networks.network(VrfName("late"));
  networks.keepOnly({VrfName("late"), VrfName("never")});
  networks.keepOnly({});
  EXPECT_EQ(networks.list()->network(VrfName("late")), late);
  EXPECT_TRUE(become("ip netns del ns-early", "default late ")) << names;
  EXPECT_TRUE(
      become("ip netns del 'ns-a blank' && ln -sf other /run/netns/ns-lost", "default late lost "))
      << names;
  // What is wrong is said once, and again when it came again.
  const auto said = [&](const std::string& name) {
    size_t n = 0;
    for (size_t at = 0; (at = heard.text.find("/" + name + " is ", at)) != heard.text.npos; ++at)
      ++n;
    return n;
  };
  pass(2200ms);
  EXPECT_EQ(said("ns-a blank"), 1u);
  EXPECT_EQ(said("ns-default"), 1u);
  EXPECT_EQ(said("ns-lost"), 2u) << "it is there, too";
  EXPECT_EQ(said("ns-void"), 1u);
  EXPECT_FALSE(heard.has("other")) << heard.text;
  run("ip netns add 'ns-a blank'");
  EXPECT_TRUE(until([&] { return said("ns-a blank") == 2; })) << heard.text;
}

TEST_F(World, LostMessagesAreMadeUpFor) {
  run("ip link add d0 type veth peer name d1 && ip link add gone type veth peer name gone1 && "
      "ip link set d0 up && ip link set d1 up");
  const auto n = vrfNetworkFactory(VrfName("default"));
  RtnetlinkMonitor monitor(*loop, n, "", [](const std::string& why) { FAIL() << why; });
  ASSERT_TRUE(until([&] { return n->present(); }));
  EXPECT_EQ(monitor.surveys(), 1u);
  const int little = 1;  // the kernel makes it its minimum, some 2 KiB
  ASSERT_EQ(setsockopt(monitor.fd(), SOL_SOCKET, SO_RCVBUF, &little, sizeof little), 0);
  {
    std::ofstream batch("/run/batch");
    for (int i = 0; i < 2000; ++i)
      batch << "addr add 10.1." << i / 250 << '.' << i % 250 + 1 << "/32 dev d0\n";
    for (int i = 0; i < 1999; ++i)
      batch << "addr del 10.1." << i / 250 << '.' << i % 250 + 1 << "/32 dev d0\n";
    batch << "link del gone\n";
  }
  run("ip -batch /run/batch");
  EXPECT_TRUE(until([&] { return !n->link("gone") && monitor.settled(); }));
  EXPECT_GE(monitor.surveys(), 2u);
  ASSERT_NE(n->link("d0"), nullptr);
  ASSERT_EQ(n->link("d0")->addresses.size(), 1u + 1u);  // and a link-local one
  EXPECT_EQ(chooseSource(*n->link("d0"), {}).v4.stringValue(), "10.1.7.250");
  EXPECT_TRUE(n->present());
}

}  // namespace
}  // namespace agent
