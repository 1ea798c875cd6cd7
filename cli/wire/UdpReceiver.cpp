#include "cli/wire/UdpReceiver.h"

#include <arpa/inet.h>
#include <linux/sock_diag.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/time.h>
#include <time.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <system_error>

namespace cli {
namespace {

constexpr size_t datagramMax = 65535;  // octets
constexpr int bufferWanted =
    8 << 20;  // octets: bursts wait in the kernel while messages are printed

Endpoint endpointOf(const sockaddr_storage& from) {
  char text[INET6_ADDRSTRLEN] = "";
  if (from.ss_family == AF_INET) {
    sockaddr_in a;
    std::memcpy(&a, &from, sizeof a);
    inet_ntop(AF_INET, &a.sin_addr, text, sizeof text);
    return {text, ntohs(a.sin_port)};
  }
  sockaddr_in6 a;
  std::memcpy(&a, &from, sizeof a);
  inet_ntop(AF_INET6, &a.sin6_addr, text, sizeof text);
  Endpoint e{text, ntohs(a.sin6_port)};
  char name[IF_NAMESIZE];
  if (a.sin6_scope_id != 0 && if_indextoname(a.sin6_scope_id, name))
    e.address += std::string("%") + name;
  return e;
}

void set(int fd, int level, int option, int value) {
  // Where the kernel lacks an option, what it would tell is not shown, and the rest is.
  (void)setsockopt(fd, level, option, &value, sizeof value);
}
template <class T>
T valueOf(cmsghdr* c) {
  T v;
  std::memcpy(&v, CMSG_DATA(c), sizeof v);
  return v;
}

}  // namespace

std::string Endpoint::stringValue() const {
  const bool v6 = address.find(':') != std::string::npos;
  return (v6 ? "[" + address + "]" : address) + ":" + std::to_string(port);
}

UdpReceiver::UdpReceiver(const std::vector<std::string>& addresses, uint16_t port)
    : buffer_(datagramMax) {
  // With port 0 the first socket's port may be taken in the other family: try another one.
  constexpr int tries = 16;
  for (int attempt = 1;; ++attempt) {
    try {
      uint16_t use = port;
      const auto open = [&](const std::string& address) {
        open_p(address, use);
        use = bound_.back().port;
      };
      if (!addresses.empty()) {
        for (const auto& a : addresses) open(a);
        return;
      }
      open("0.0.0.0");
      try {
        open("::");
      } catch (const std::system_error& e) {
        if (e.code().value() != EAFNOSUPPORT && e.code().value() != EADDRNOTAVAIL) throw;
      }
      return;
    } catch (const std::system_error& e) {
      fds_.clear();
      bound_.clear();
      if (port != 0 || e.code().value() != EADDRINUSE || attempt == tries) throw;
    }
  }
}
void UdpReceiver::open_p(const std::string& address, uint16_t port) {
  addrinfo hints{};
  hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
  hints.ai_socktype = SOCK_DGRAM;
  addrinfo* found = nullptr;
  if (const int err = getaddrinfo(address.c_str(), std::to_string(port).c_str(), &hints, &found))
    throw std::runtime_error("\"" + address + "\" is no numeric IPv4 or IPv6 address (" +
                             gai_strerror(err) + ")");
  sockaddr_storage local{};
  const socklen_t len = found->ai_addrlen;
  std::memcpy(&local, found->ai_addr, len);
  freeaddrinfo(found);

  const auto refuse = [&](const char* what) {
    const int err = errno;
    throw std::system_error(err, std::generic_category(),
                            std::string(what) + " " + Endpoint{address, port}.stringValue());
  };
  const int fd = socket(local.ss_family, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) refuse("cannot open a socket for");
  fds_.emplace_back(fd);
  if (local.ss_family == AF_INET6) {
    set(fd, IPPROTO_IPV6, IPV6_V6ONLY, 1);
    set(fd, IPPROTO_IPV6, IPV6_RECVTCLASS, 1);
    set(fd, IPPROTO_IPV6, IPV6_RECVPKTINFO, 1);
  } else {
    set(fd, IPPROTO_IP, IP_RECVTOS, 1);
    set(fd, IPPROTO_IP, IP_PKTINFO, 1);
  }
  set(fd, SOL_SOCKET, SO_TIMESTAMPNS, 1);
  set(fd, SOL_SOCKET, SO_RCVBUF, bufferWanted);
  set(fd, SOL_SOCKET, SO_RCVBUFFORCE, bufferWanted);  // beyond the system's limit, for root only
  if (bind(fd, reinterpret_cast<const sockaddr*>(&local), len) != 0) refuse("cannot listen on");
  socklen_t size = sizeof local;
  getsockname(fd, reinterpret_cast<sockaddr*>(&local), &size);
  bound_.push_back(endpointOf(local));
}

std::optional<Datagram> UdpReceiver::receive(size_t socket) {
  sockaddr_storage from{};
  iovec data{buffer_.data(), buffer_.size()};
  alignas(cmsghdr) char control[512];
  msghdr m{};
  m.msg_name = &from;
  m.msg_namelen = sizeof from;
  m.msg_iov = &data;
  m.msg_iovlen = 1;
  m.msg_control = control;
  m.msg_controllen = sizeof control;
  const ssize_t n = recvmsg(fds_[socket].get(), &m, 0);
  if (n < 0) return std::nullopt;

  Datagram d;
  d.octets = std::span(buffer_).first(static_cast<size_t>(n));
  d.source = endpointOf(from);
  d.destination = bound_[socket];
  timespec at{};
  clock_gettime(CLOCK_REALTIME, &at);
  for (cmsghdr* c = CMSG_FIRSTHDR(&m); c; c = CMSG_NXTHDR(&m, c)) {
    char text[INET6_ADDRSTRLEN];
    if (c->cmsg_level == SOL_SOCKET && c->cmsg_type == SO_TIMESTAMPNS) {
      at = valueOf<timespec>(c);
    } else if (c->cmsg_level == IPPROTO_IP && c->cmsg_type == IP_TOS) {
      d.tos = valueOf<uint8_t>(c);
    } else if (c->cmsg_level == IPPROTO_IPV6 && c->cmsg_type == IPV6_TCLASS) {
      d.tos = static_cast<uint8_t>(valueOf<int>(c));
    } else if (c->cmsg_level == IPPROTO_IP && c->cmsg_type == IP_PKTINFO) {
      const auto to = valueOf<in_pktinfo>(c);
      d.destination.address = inet_ntop(AF_INET, &to.ipi_addr, text, sizeof text);
    } else if (c->cmsg_level == IPPROTO_IPV6 && c->cmsg_type == IPV6_PKTINFO) {
      const auto to = valueOf<in6_pktinfo>(c);
      d.destination.address = inet_ntop(AF_INET6, &to.ipi6_addr, text, sizeof text);
    }
  }
  d.time = static_cast<double>(at.tv_sec) + static_cast<double>(at.tv_nsec) * 1e-9;
  return d;
}

uint64_t UdpReceiver::drops() const {
  uint64_t total = 0;
  for (const auto& fd : fds_) {
    uint32_t info[SK_MEMINFO_VARS] = {};
    socklen_t len = sizeof info;
    if (getsockopt(fd.get(), SOL_SOCKET, SO_MEMINFO, info, &len) == 0)
      total += info[SK_MEMINFO_DROPS];
  }
  return total;
}

}  // namespace cli
