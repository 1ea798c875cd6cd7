#include "agent/network/Rtnetlink.h"

#include <endian.h>
#include <libmnl/libmnl.h>
#include <linux/if_addr.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <string_view>

#include "platform/UdpPam.h"
#include "platform/linux/Netns.h"

namespace agent {
namespace {
// A dump's part is at most 32 KiB (the kernel's limit); single messages are far smaller.
constexpr size_t bufferLen = 64 << 10;
// Room for bursts, as when a thousand interfaces come at once.
constexpr int receiveBufferLen = 4 << 20;
// Datagrams read before other descriptors get their turn.
constexpr int readsPerTurn = 32;

template <size_t n>
using Attrs = std::array<const nlattr*, n>;

template <size_t n>
bool parseAttrs(const void* at, size_t len, Attrs<n>& attrs) {
  attrs.fill(nullptr);
  const auto each = [](const nlattr* attr, void* data) {
    auto& all = *static_cast<Attrs<n>*>(data);
    const uint16_t type = mnl_attr_get_type(attr);
    if (type < n) all[type] = attr;
    return MNL_CB_OK;
  };
  return mnl_attr_parse_payload(at, len, each, &attrs) == MNL_CB_OK;
}

template <size_t n>
bool parseAttrs(const nlmsghdr& message, size_t headerLen, Attrs<n>& attrs) {
  // Not mnl_attr_parse, which reads up to three octets behind a message of odd length.
  const size_t before = MNL_NLMSG_HDRLEN + MNL_ALIGN(headerLen);
  attrs.fill(nullptr);
  if (message.nlmsg_len < before) return false;
  return parseAttrs(mnl_nlmsg_get_payload_offset(&message, headerLen), message.nlmsg_len - before,
                    attrs);
}

IpGenAddr addressOf(const nlattr* attr, int family) {
  if (!attr) return {};
  const size_t len = mnl_attr_get_payload_len(attr);
  if (family == AF_INET && len == 4) {
    uint32_t value = 0;
    std::memcpy(&value, mnl_attr_get_payload(attr), 4);
    return IpAddr(be32toh(value));
  }
  if (family == AF_INET6 && len == 16) {
    Ip6Addr::Octets octets;
    std::memcpy(octets.data(), mnl_attr_get_payload(attr), 16);
    return Ip6Addr(octets);
  }
  return {};
}

std::string_view textOf(const nlattr* attr) {
  if (!attr) return {};
  const auto* text = static_cast<const char*>(mnl_attr_get_payload(attr));
  return {text, strnlen(text, mnl_attr_get_payload_len(attr))};
}
uint32_t numberOf(const nlattr* attr) {
  return attr && mnl_attr_get_payload_len(attr) == sizeof(uint32_t) ? mnl_attr_get_u32(attr) : 0;
}

LinkRelations relationsOf(const ifinfomsg& info, const Attrs<IFLA_LINK_NETNSID + 1>& attrs) {
  LinkRelations r{.type = info.ifi_type};
  Attrs<IFLA_INFO_SLAVE_KIND + 1> about{};
  if (const nlattr* const all = attrs[IFLA_LINKINFO])
    parseAttrs(mnl_attr_get_payload(all), mnl_attr_get_payload_len(all), about);
  // A port of this kind has a master that its packets do not pass.
  if (textOf(about[IFLA_INFO_SLAVE_KIND]) != "openvswitch") r.master = numberOf(attrs[IFLA_MASTER]);
  // Links of these kinds see packets of the link that IFLA_LINK names. With other kinds it does not
  // carry the same packets: a tunnel wraps them, and a veth's is its other end. With
  // IFLA_LINK_NETNSID the index is one of another namespace.
  static constexpr std::string_view kinds[] = {"vlan",   "macvlan", "macvtap",
                                               "ipvlan", "ipvtap",  "dsa"};
  if (std::find(std::begin(kinds), std::end(kinds), textOf(about[IFLA_INFO_KIND])) !=
          std::end(kinds) &&
      !attrs[IFLA_LINK_NETNSID])
    r.lower = numberOf(attrs[IFLA_LINK]);
  return r;
}

void applyLink(const nlmsghdr& message, VrfNetwork& network) {
  if (message.nlmsg_len < NLMSG_LENGTH(sizeof(ifinfomsg))) return;
  const auto& info = *static_cast<const ifinfomsg*>(mnl_nlmsg_get_payload(&message));
  // Such a message is about the link's role in the family: a DELLINK of AF_BRIDGE says that the
  // link left its bridge, not that it is gone.
  if (info.ifi_family != AF_UNSPEC || info.ifi_index <= 0) return;
  const auto index = static_cast<uint32_t>(info.ifi_index);
  if (message.nlmsg_type == RTM_DELLINK) {
    network.linkDel(index);
    return;
  }
  Attrs<IFLA_LINK_NETNSID + 1> attrs;
  if (!parseAttrs(message, sizeof(ifinfomsg), attrs) || !attrs[IFLA_IFNAME]) return;
  const std::string_view name = textOf(attrs[IFLA_IFNAME]);
  if (name.empty() || name.size() >= IFNAMSIZ) return;
  network.linkIs(index, std::string(name), info.ifi_flags);
  // A message about one property, as wireless devices send them, has no MTU and lacks the rest.
  if (attrs[IFLA_MTU]) network.relationsIs(index, relationsOf(info, attrs));
}

void applyAddress(const nlmsghdr& message, VrfNetwork& network) {
  if (message.nlmsg_len < NLMSG_LENGTH(sizeof(ifaddrmsg))) return;
  const auto& info = *static_cast<const ifaddrmsg*>(mnl_nlmsg_get_payload(&message));
  Attrs<IFA_FLAGS + 1> attrs;
  if (!parseAttrs(message, sizeof(ifaddrmsg), attrs)) return;
  LinkAddress a;
  // IFA_LOCAL is there when the two may differ; IPv6 leaves it out where there is no peer.
  a.peer = addressOf(attrs[IFA_ADDRESS], info.ifa_family);
  a.local = attrs[IFA_LOCAL] ? addressOf(attrs[IFA_LOCAL], info.ifa_family) : a.peer;
  if (a.local.family() == IpGenAddr::Family::none) return;
  a.prefixLen = info.ifa_prefixlen;
  a.scope = info.ifa_scope;
  a.flags = info.ifa_flags;
  if (attrs[IFA_FLAGS] && mnl_attr_get_payload_len(attrs[IFA_FLAGS]) == sizeof(uint32_t))
    a.flags = mnl_attr_get_u32(attrs[IFA_FLAGS]);
  if (message.nlmsg_type == RTM_NEWADDR) {
    network.addressIs(info.ifa_index, a);
  } else {
    network.addressDel(info.ifa_index, a);
  }
}
}  // namespace

void applyRtnetlink(const nlmsghdr& message, VrfNetwork& network) {
  const uint16_t type = message.nlmsg_type;
  if (type == RTM_NEWLINK || type == RTM_DELLINK) applyLink(message, network);
  if (type == RTM_NEWADDR || type == RTM_DELADDR) applyAddress(message, network);
}

RtnetlinkMonitor::RtnetlinkMonitor(EventLoop& loop, Ptr<VrfNetwork> network,
                                   const std::string& path,
                                   std::function<void(const std::string& why)> failed)
    : network_(std::move(network)), failed_(std::move(failed)), buffer_(bufferLen) {
  {
    const NetnsScope inside(path);
    fd_ = Fd(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE));
    if (!fd_) throw ErrnoException(errno, "rtnetlink socket");
    netns_ = inside.id();
  }
  // The forced size needs CAP_NET_ADMIN; without it the system's limit holds.
  if (setsockopt(fd_.get(), SOL_SOCKET, SO_RCVBUFFORCE, &receiveBufferLen,
                 sizeof receiveBufferLen) < 0)
    setsockopt(fd_.get(), SOL_SOCKET, SO_RCVBUF, &receiveBufferLen, sizeof receiveBufferLen);
  sockaddr_nl self{};
  self.nl_family = AF_NETLINK;
  self.nl_groups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR;
  if (bind(fd_.get(), reinterpret_cast<const sockaddr*>(&self), sizeof self) < 0)
    throw ErrnoException(errno, "rtnetlink bind");
  watch_ = loop.fdWatch(fd_.get(), EPOLLIN, [this](uint32_t) { handleReadable(); });
  network_->netnsIs(netns_);
  surveyStart();
}

RtnetlinkMonitor::~RtnetlinkMonitor() {
  if (gone_) *gone_ = true;
}

bool RtnetlinkMonitor::alive() {
  if (survey_ == Survey::none) return true;
  return std::exchange(heard_, false);
}

void RtnetlinkMonitor::request(uint16_t type) {
  std::array<char, 64> buffer{};
  nlmsghdr* message = mnl_nlmsg_put_header(buffer.data());
  message->nlmsg_type = type;
  message->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  message->nlmsg_seq = ++seq_;
  // The extra header stays zero: every family. The kernel takes an ifinfomsg or an ifaddrmsg.
  mnl_nlmsg_put_extra_header(message, type == RTM_GETLINK ? sizeof(ifinfomsg) : sizeof(ifaddrmsg));
  sockaddr_nl kernel{};
  kernel.nl_family = AF_NETLINK;
  if (sendto(fd_.get(), message, message->nlmsg_len, 0, reinterpret_cast<const sockaddr*>(&kernel),
             sizeof kernel) < 0)
    throw ErrnoException(errno, "rtnetlink request");
}

void RtnetlinkMonitor::surveyStart() {
  ++surveys_;
  again_ = false;
  heard_ = true;
  network_->surveyBegin();
  survey_ = Survey::links;
  request(RTM_GETLINK);
}

/// The kernel runs one dump per socket: a second one waits for the end of the first.
void RtnetlinkMonitor::surveyAgain() {
  if (survey_ == Survey::none) {
    surveyStart();
  } else {
    again_ = true;
  }
}

void RtnetlinkMonitor::surveyStepDone() {
  if (again_) {
    surveyStart();
  } else if (survey_ == Survey::links) {
    network_->surveyLinksEnd();
    survey_ = Survey::addresses;
    request(RTM_GETADDR);
  } else {
    network_->surveyAddressesEnd();
    survey_ = Survey::none;
    network_->presentIs(true);
  }
}

void RtnetlinkMonitor::handleMessage(const nlmsghdr& message) {
  // The message answers the dump. Answers to changes that a process asks for carry its sequence
  // number, too, but this one asks for none.
  const bool mine = survey_ != Survey::none && message.nlmsg_seq == seq_;
  if (mine && (message.nlmsg_flags & NLM_F_DUMP_INTR) != 0) again_ = true;
  switch (message.nlmsg_type) {
    case NLMSG_DONE:
      if (mine) surveyStepDone();
      break;
    case NLMSG_ERROR: {
      if (!mine || message.nlmsg_len < NLMSG_LENGTH(sizeof(nlmsgerr))) break;
      const auto& error = *static_cast<const nlmsgerr*>(mnl_nlmsg_get_payload(&message));
      if (error.error != 0) throw ErrnoException(-error.error, "rtnetlink dump");
      break;
    }
    case NLMSG_OVERRUN:
      surveyAgain();
      break;
    default:
      applyRtnetlink(message, *network_);
  }
}

void RtnetlinkMonitor::handleReadable() {
  bool gone = false;
  gone_ = &gone;
  const Ptr<VrfNetwork> network = network_;  // `tell` needs it even if a handler destroys this
  std::string why;
  try {
    for (int reads = 0; reads < readsPerTurn; ++reads) {
      sockaddr_nl from{};
      iovec part{buffer_.data(), buffer_.size()};
      msghdr message{};
      message.msg_name = &from;
      message.msg_namelen = sizeof from;
      message.msg_iov = &part;
      message.msg_iovlen = 1;
      const ssize_t n = recvmsg(fd_.get(), &message, 0);
      if (n < 0) {
        if (errno == EAGAIN || errno == EINTR) break;
        if (errno != ENOBUFS) throw ErrnoException(errno, "rtnetlink receive");
        surveyAgain();  // the kernel dropped messages
        continue;
      }
      if (from.nl_pid != 0) continue;  // not the kernel
      heard_ = true;
      if ((message.msg_flags & MSG_TRUNC) != 0) {
        surveyAgain();
        continue;
      }
      int left = static_cast<int>(n);
      const auto* header = reinterpret_cast<const nlmsghdr*>(buffer_.data());
      while (mnl_nlmsg_ok(header, left)) {
        handleMessage(*header);
        if (gone) return;  // the buffer is gone, too
        header = mnl_nlmsg_next(header, &left);
      }
    }
    network->tell();
  } catch (const ErrnoException& e) {
    why = e.what();
  }
  if (gone) return;
  gone_ = nullptr;
  if (why.empty()) return;
  watch_.reset();  // or the loop would report the error again and again
  failed_(why);    // may destroy this
}

}  // namespace agent
