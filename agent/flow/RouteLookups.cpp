#include "agent/flow/RouteLookups.h"

#include <libmnl/libmnl.h>
#include <linux/netconf.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <initializer_list>
#include <random>

#include "platform/UdpPam.h"

namespace agent::flow {
namespace {
// Requests per system call. Their answers fit a socket's receive buffer of the usual 208 KiB, of
// which the kernel charges a page for each answer.
constexpr size_t batch = 32;
constexpr size_t requestLen = 96;
constexpr size_t answerLen = 1024;

size_t addressLen(const RouteQuestion& q) { return q.family == AF_INET ? 4 : 16; }

uint64_t randomSeed() {
  std::random_device device;
  return uint64_t{device()} << 32 | device();
}

/// Returns the octets that it wrote.
size_t writeRequest(const RouteQuestion& q, uint32_t seq, char* to) {
  nlmsghdr* const message = mnl_nlmsg_put_header(to);
  message->nlmsg_type = RTM_GETROUTE;
  message->nlmsg_flags = NLM_F_REQUEST;
  message->nlmsg_seq = seq;
  auto& route = *static_cast<rtmsg*>(mnl_nlmsg_put_extra_header(message, sizeof(rtmsg)));
  const size_t len = addressLen(q);
  route.rtm_family = static_cast<uint8_t>(q.family);
  route.rtm_src_len = route.rtm_dst_len = static_cast<uint8_t>(8 * len);
  route.rtm_tos = q.tos & 0xfc;  // the last two bits are ECN, by which nobody routes (RFC 3168)
  mnl_attr_put(message, RTA_SRC, len, q.src.data());
  mnl_attr_put(message, RTA_DST, len, q.dst.data());
  mnl_attr_put_u32(message, RTA_IIF, q.interface);
  return message->nlmsg_len;
}

Route readAnswer(const nlmsghdr& message) {
  Route route;
  if (message.nlmsg_type != RTM_NEWROUTE || message.nlmsg_len < NLMSG_LENGTH(sizeof(rtmsg)))
    return route;
  const auto& header = *static_cast<const rtmsg*>(mnl_nlmsg_get_payload(&message));
  if (header.rtm_type == RTN_LOCAL || header.rtm_type == RTN_BROADCAST) {
    route.to = Route::To::here;
    return route;
  }
  if (header.rtm_type != RTN_UNICAST) return route;
  const size_t len = header.rtm_family == AF_INET ? 4 : 16;
  const auto* attr =
      static_cast<const nlattr*>(mnl_nlmsg_get_payload_offset(&message, sizeof(rtmsg)));
  const auto* const end = static_cast<const char*>(mnl_nlmsg_get_payload_tail(&message));
  for (; mnl_attr_ok(attr, static_cast<int>(end - reinterpret_cast<const char*>(attr)));
       attr = mnl_attr_next(attr)) {
    const uint16_t type = mnl_attr_get_type(attr);
    if (type == RTA_OIF && mnl_attr_get_payload_len(attr) == sizeof(uint32_t)) {
      route.to = Route::To::away;
      route.interface = mnl_attr_get_u32(attr);
    } else if (type == RTA_GATEWAY && mnl_attr_get_payload_len(attr) == len) {
      std::memcpy(route.nextHop.data(), mnl_attr_get_payload(attr), len);
    }
  }
  return route;
}

/// Whether the kernel passes IPv6 packets on, which its answer about a route does not say. True,
/// too, where it gives no answer.
bool forwardsIpv6(int fd, uint32_t seq) {
  alignas(nlmsghdr) std::array<char, answerLen> octets{};
  nlmsghdr* const message = mnl_nlmsg_put_header(octets.data());
  message->nlmsg_type = RTM_GETNETCONF;
  message->nlmsg_flags = NLM_F_REQUEST;
  message->nlmsg_seq = seq;
  static_cast<netconfmsg*>(mnl_nlmsg_put_extra_header(message, sizeof(netconfmsg)))->ncm_family =
      AF_INET6;
  mnl_attr_put_u32(message, NETCONFA_IFINDEX, static_cast<uint32_t>(NETCONFA_IFINDEX_ALL));
  if (send(fd, octets.data(), message->nlmsg_len, 0) < 0) return true;
  bool forwards = true;
  for (ssize_t n; (n = recv(fd, octets.data(), octets.size(), 0)) > 0;) {
    if (!mnl_nlmsg_ok(message, static_cast<int>(n)) || message->nlmsg_seq != seq ||
        message->nlmsg_type != RTM_NEWNETCONF)
      continue;
    const auto take = [](const nlattr* attr, void* to) {
      if (mnl_attr_get_type(attr) == NETCONFA_FORWARDING)
        *static_cast<bool*>(to) = mnl_attr_get_u32(attr) != 0;
      return MNL_CB_OK;
    };
    mnl_attr_parse(message, sizeof(netconfmsg), take, &forwards);
  }
  return forwards;
}

platform::Fd routeSocket() {
  platform::Fd fd(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE));
  if (!fd) throw platform::ErrnoException(errno, "rtnetlink socket");
  // Only a bound socket, which has a port id, receives the kernel's notifications.
  sockaddr_nl self{};
  self.nl_family = AF_NETLINK;
  if (bind(fd.get(), reinterpret_cast<const sockaddr*>(&self), sizeof self) < 0)
    throw platform::ErrnoException(errno, "rtnetlink bind");
  return fd;
}
}  // namespace

RouteLookups::RouteLookups()
    : fd_(routeSocket()),
      news_(routeSocket()),
      kept_(0, Hash{randomSeed()}),
      before_(0, kept_.hash_function()) {
  for (const int group :
       {RTNLGRP_LINK, RTNLGRP_IPV4_IFADDR, RTNLGRP_IPV6_IFADDR, RTNLGRP_IPV4_ROUTE,
        RTNLGRP_IPV6_ROUTE, RTNLGRP_IPV4_RULE, RTNLGRP_IPV6_RULE, RTNLGRP_IPV4_NETCONF,
        RTNLGRP_IPV6_NETCONF, RTNLGRP_NEXTHOP})
    if (setsockopt(news_.get(), SOL_NETLINK, NETLINK_ADD_MEMBERSHIP, &group, sizeof group) < 0 &&
        group != RTNLGRP_NEXTHOP)  // which kernels before 5.3 do not have
      throw platform::ErrnoException(errno, "rtnetlink membership");
}

/// Whether something changed that answers may depend on, or they are too old. Discards all
/// notifications; that the kernel dropped some (ENOBUFS) counts as a change.
bool RouteLookups::changed() {
  bool any = false;
  char octet = 0;
  while (recv(news_.get(), &octet, sizeof octet, 0) >= 0 || errno == ENOBUFS) any = true;
  const auto now = std::chrono::steady_clock::now();
  if (!any && now - since_ < ageMax) return false;
  since_ = now;
  return true;
}

void RouteLookups::ask(std::span<const RouteQuestion> questions, std::span<Route> answers) {
  if (changed()) {
    kept_.clear();
    before_.clear();
  }
  if (kept_.size() >= keptMax / 2) {
    before_.swap(kept_);
    kept_.clear();
  }
  Open all, open;
  for (const RouteQuestion& q : questions) {
    const auto [it, fresh] = kept_.try_emplace(q);
    all.push_back(&*it);
    if (!fresh) continue;
    if (const auto known = before_.find(q); known != before_.end()) {
      it->second = known->second;
    } else {
      open.push_back(&*it);
    }
  }
  for (size_t i = 0; i < open.size(); i += batch)
    askKernel(std::span(open).subspan(i, std::min(batch, open.size() - i)));
  const auto away6 = [](const auto* a) {
    return a->first.family == AF_INET6 && a->second.to == Route::To::away;
  };
  if (std::any_of(open.begin(), open.end(), away6) && !forwardsIpv6(fd_.get(), ++seq_))
    for (auto* a : open)
      if (away6(a)) a->second = {};
  std::transform(all.begin(), all.end(), answers.begin(), [](const auto* a) { return a->second; });
}

/// The kernel answers within `send`: all answers that will come are there when it returns.
void RouteLookups::askKernel(std::span<Kept::value_type* const> open) {
  alignas(nlmsghdr) std::array<char, batch * requestLen> requests{};
  const uint32_t first = seq_ + 1;
  size_t used = 0;
  for (const auto* question : open)
    used += writeRequest(question->first, ++seq_, requests.data() + used);
  asked_ += open.size();
  if (send(fd_.get(), requests.data(), used, 0) < 0) return;
  alignas(nlmsghdr) std::array<std::array<char, answerLen>, batch> octets;
  std::array<iovec, batch> parts{};
  std::array<mmsghdr, batch> messages{};
  for (size_t i = 0; i < batch; ++i) {
    parts[i] = {octets[i].data(), octets[i].size()};
    messages[i].msg_hdr.msg_iov = &parts[i];
    messages[i].msg_hdr.msg_iovlen = 1;
  }
  for (;;) {
    const int n = recvmmsg(fd_.get(), messages.data(), batch, 0, nullptr);
    if (n < 0 && (errno == ENOBUFS || errno == EINTR)) continue;
    if (n <= 0) return;
    for (size_t i = 0; i < static_cast<size_t>(n); ++i) {
      int left = static_cast<int>(messages[i].msg_len);
      const auto& message = *reinterpret_cast<const nlmsghdr*>(octets[i].data());
      if (mnl_nlmsg_ok(&message, left) && message.nlmsg_seq - first < open.size())
        open[message.nlmsg_seq - first]->second = readAnswer(message);
    }
  }
}

}  // namespace agent::flow
