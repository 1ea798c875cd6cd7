#include "platform/linux/SendErrors.h"

#include <linux/errqueue.h>
#include <string.h>

#include <algorithm>
#include <cerrno>

namespace platform {
namespace {

constexpr size_t failingMax = 256;
constexpr size_t drainMax = 64;  // entries of the error queue at a time
/// Sends of one datagram that fail with what may be another's error. Each needs an ICMP message in
/// between, so that no more than one or two are ever needed, unless somebody floods this host.
constexpr unsigned triesMax = 8;
/// Datagrams to one destination that must be taken before a full queueing discipline is told again:
/// at its limit it takes one and drops the next, thousands of times a second.
constexpr uint32_t roomAgain = 1000;

std::string errnoText(int err) {
  const char* name = ::strerrorname_np(err);
  const char* text = ::strerrordesc_np(err);
  return std::string(text ? text : "unknown error") + " (" +
         (name ? name : std::to_string(err).c_str()) + ')';
}

/// The error that came by ICMP; 0: it came from elsewhere, for instance from the kernel itself,
/// which says EMSGSIZE here and as the result of the send.
int icmpErrorOf(msghdr& hdr) {
  for (cmsghdr* c = CMSG_FIRSTHDR(&hdr); c; c = CMSG_NXTHDR(&hdr, c)) {
    const bool v4 = c->cmsg_level == IPPROTO_IP && c->cmsg_type == IP_RECVERR;
    const bool v6 = c->cmsg_level == IPPROTO_IPV6 && c->cmsg_type == IPV6_RECVERR;
    if (!v4 && !v6) continue;
    sock_extended_err e{};
    memcpy(&e, CMSG_DATA(c), sizeof e);
    const bool icmp = e.ee_origin == SO_EE_ORIGIN_ICMP || e.ee_origin == SO_EE_ORIGIN_ICMP6;
    return icmp ? static_cast<int>(e.ee_errno) : 0;
  }
  return 0;
}
}  // namespace

bool SendErrors::enable(int fd, bool ipv6) {
  const int on = 1;
  return ::setsockopt(fd, ipv6 ? IPPROTO_IPV6 : IPPROTO_IP, ipv6 ? IPV6_RECVERR : IP_RECVERR, &on,
                      sizeof on) == 0;
}

bool SendErrors::drain(int fd) {
  bool told = false;
  for (size_t n = 0; n < drainMax; ++n) {
    sockaddr_storage to{};
    alignas(cmsghdr) char control[512];
    msghdr hdr{};
    hdr.msg_name = &to;
    hdr.msg_namelen = sizeof to;
    hdr.msg_control = control;
    hdr.msg_controllen = sizeof control;
    if (::recvmsg(fd, &hdr, MSG_ERRQUEUE | MSG_DONTWAIT) < 0) break;
    const int err = icmpErrorOf(hdr);
    if (err == 0) continue;
    told = true;
    ++counters_.undelivered;
    // Anybody who knows the source port can forge such messages about any destination.
    const Destination dst = destinationOf(to);
    auto& byDst = counters_.undeliveredByDst;
    const auto it = byDst.find({dst.addr, dst.port});
    if (it == byDst.end() && byDst.size() >= failingMax) continue;
    auto& found = it == byDst.end() ? byDst[{dst.addr, dst.port}] : it->second;
    ++found.datagrams;
    found.error = err;
  }
  return told;
}

bool SendErrors::wasOfAnother(int fd, int err) {
  if (err == ENOBUFS || tries_ >= triesMax) return false;
  // The error of a message that found no room in the error queue is not there to be seen.
  const bool told = drain(fd);
  return tries_++ == 0 || told;
}

void SendErrors::drop(int err) {
  ++counters_.dropped;
  ++counters_.dropByErrno[err];
}

void SendErrors::refused(const Destination& dst, uint32_t len, int err) {
  drop(err);
  if (failing_.size() >= failingMax && !failing_.contains(dst)) failing_.erase(failing_.begin());
  auto [it, first] = failing_[dst].try_emplace(err);
  Failure& failure = it->second;
  // Small datagrams passing between large ones that do not are no recovery.
  if (err == EMSGSIZE) failure.minLen = first ? len : std::min(failure.minLen, len);
  if (err == ENOBUFS) failure.left = roomAgain;
  ++failure.count;
  if (!first) return;
  tell_("sending fails: " + errnoText(err) + ", to " + dst.stringValue() +
        (err == ENOBUFS ? ": the queue of the interface drops" : ""));
}

void SendErrors::recovered(const Destination& dst, uint32_t len) {
  const auto to = failing_.find(dst);
  if (to == failing_.end()) return;
  for (auto it = to->second.begin(); it != to->second.end();) {
    auto& [err, failure] = *it;
    if (len < failure.minLen || --failure.left > 0) {
      ++it;
      continue;
    }
    tell_("sends again after " + std::to_string(failure.count) + " failures: " + errnoText(err) +
          ", to " + dst.stringValue());
    it = to->second.erase(it);
  }
  if (to->second.empty()) failing_.erase(to);
}

}  // namespace platform
