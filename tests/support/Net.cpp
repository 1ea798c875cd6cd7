#include "tests/support/Net.h"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "platform/linux/Netns.h"

namespace support {
namespace {
[[noreturn]] void fail(const char* what) {
  throw std::runtime_error(std::string(what) + ": " + std::strerror(errno));
}
}  // namespace

bool unshareAsRoot(int namespaces) {
  if (::unshare(namespaces) == 0) return true;
  const std::string uid = std::to_string(::getuid());
  const std::string gid = std::to_string(::getgid());
  if (::unshare(CLONE_NEWUSER | namespaces) != 0) return false;
  std::ofstream("/proc/self/setgroups") << "deny";
  std::ofstream("/proc/self/uid_map") << "0 " + uid + " 1";
  std::ofstream("/proc/self/gid_map") << "0 " + gid + " 1";
  return true;
}

bool sh(const std::string& command) { return std::system(command.c_str()) == 0; }

bool privateNetwork() {
  // The kernel makes the local routes to IPv6 addresses a moment later: until then others may lead
  // there, and what leaves that way is lost.
  static const bool made =
      unshareAsRoot(CLONE_NEWNET) &&
      sh("ip link set lo up"
         " && ip addr add 10.99.0.1/32 dev lo && ip addr add 10.99.0.2/32 dev lo"
         " && ip addr add 2001:db8::1/128 dev lo nodad"
         " && ip addr add 2001:db8::2/128 dev lo nodad"
         " && for i in $(seq 500); do"
         " ip -6 route get 2001:db8::1 2>/dev/null | grep -q ^local"
         " && ip -6 route get 2001:db8::2 2>/dev/null | grep -q ^local && exit 0;"
         " sleep 0.01; done; exit 1");
  return made;
}

PeerNamespace::PeerNamespace() {
  int ready[2];
  if (::pipe2(ready, O_CLOEXEC) != 0) fail("pipe");
  pid_ = ::fork();
  if (pid_ < 0) fail("fork");
  if (pid_ == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    char ok = ::unshare(CLONE_NEWNET) == 0 && support::sh("ip link set lo up") ? 1 : 0;
    if (::write(ready[1], &ok, 1) != 1) ::_exit(1);
    for (;;) ::pause();
  }
  char ok = 0;
  const ssize_t n = ::read(ready[0], &ok, 1);
  ::close(ready[0]);
  ::close(ready[1]);
  if (n != 1 || !ok) fail("unshare");
}
PeerNamespace::~PeerNamespace() {
  ::kill(pid_, SIGKILL);
  ::waitpid(pid_, nullptr, 0);
}
bool PeerNamespace::sh(const std::string& command) const {
  const platform::NetnsScope inside(path());
  return support::sh(command);
}

TempDir::TempDir() {
  char path[] = "/tmp/tt-XXXXXX";
  if (!::mkdtemp(path)) fail("mkdtemp");
  path_ = path;
}
TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

Receiver::Receiver(const platform::IpGenAddr& addr, const std::string& netns, uint16_t port) {
  sockaddr_storage local{};
  socklen_t len = 0;
  const bool v6 = addr.isIpv6();
  {
    const platform::NetnsScope inside(netns);
    fd_ = platform::Fd(::socket(v6 ? AF_INET6 : AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  }
  if (!fd_) fail("socket");
  auto on = [this](int level, int option, int value = 1) {
    if (::setsockopt(fd_.get(), level, option, &value, sizeof value) != 0) fail("setsockopt");
  };
  const int room = 16 << 20;  // a burst waits here until the test reads it
  if (::setsockopt(fd_.get(), SOL_SOCKET, SO_RCVBUFFORCE, &room, sizeof room) != 0)
    on(SOL_SOCKET, SO_RCVBUF, room);
  if (v6) {
    on(IPPROTO_IPV6, IPV6_RECVPKTINFO);
    on(IPPROTO_IPV6, IPV6_RECVTCLASS);
    auto& a = reinterpret_cast<sockaddr_in6&>(local);
    a.sin6_family = AF_INET6;
    a.sin6_port = htons(port);
    std::memcpy(&a.sin6_addr, addr.ip6Addr().octets().data(), 16);
    len = sizeof a;
  } else {
    on(IPPROTO_IP, IP_PKTINFO);
    on(IPPROTO_IP, IP_RECVTOS);
    auto& a = reinterpret_cast<sockaddr_in&>(local);
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = htonl(addr.ipAddr().value());
    len = sizeof a;
  }
  auto* sa = reinterpret_cast<sockaddr*>(&local);
  if (::bind(fd_.get(), sa, len) != 0 || ::getsockname(fd_.get(), sa, &len) != 0) fail("bind");
  port_ = ntohs(reinterpret_cast<sockaddr_in&>(local).sin_port);  // the same place in both families
}

std::optional<Receiver::Datagram> Receiver::next(int timeoutMs) {
  pollfd p{fd_.get(), POLLIN, 0};
  if (::poll(&p, 1, timeoutMs) <= 0) return std::nullopt;
  Datagram d;
  d.octets.resize(65536);
  sockaddr_storage from{};
  iovec iov{d.octets.data(), d.octets.size()};
  alignas(cmsghdr) char control[256];
  msghdr h{};
  h.msg_name = &from;
  h.msg_namelen = sizeof from;
  h.msg_iov = &iov;
  h.msg_iovlen = 1;
  h.msg_control = control;
  h.msg_controllen = sizeof control;
  const ssize_t n = ::recvmsg(fd_.get(), &h, 0);
  if (n < 0) fail("recvmsg");
  d.octets.resize(static_cast<size_t>(n));
  d.srcPort = ntohs(reinterpret_cast<sockaddr_in&>(from).sin_port);
  auto addr6 = [](const in6_addr& a) {
    platform::Ip6Addr::Octets o;
    std::memcpy(o.data(), &a, 16);
    return platform::Ip6Addr(o);
  };
  if (from.ss_family == AF_INET6) {
    d.src = addr6(reinterpret_cast<sockaddr_in6&>(from).sin6_addr);
  } else {
    d.src = platform::IpAddr(ntohl(reinterpret_cast<sockaddr_in&>(from).sin_addr.s_addr));
  }
  for (cmsghdr* c = CMSG_FIRSTHDR(&h); c; c = CMSG_NXTHDR(&h, c)) {
    if (c->cmsg_level == IPPROTO_IP && c->cmsg_type == IP_TOS) {
      d.tos = *CMSG_DATA(c);
    } else if (c->cmsg_level == IPPROTO_IPV6 && c->cmsg_type == IPV6_TCLASS) {
      std::memcpy(&d.tos, CMSG_DATA(c), sizeof d.tos);
    } else if (c->cmsg_level == IPPROTO_IP && c->cmsg_type == IP_PKTINFO) {
      in_pktinfo info;
      std::memcpy(&info, CMSG_DATA(c), sizeof info);
      d.dst = platform::IpAddr(ntohl(info.ipi_addr.s_addr));
    } else if (c->cmsg_level == IPPROTO_IPV6 && c->cmsg_type == IPV6_PKTINFO) {
      in6_pktinfo info;
      std::memcpy(&info, CMSG_DATA(c), sizeof info);
      d.dst = addr6(info.ipi6_addr);
    }
  }
  return d;
}

size_t openFds() {
  size_t n = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
    ++n;
  return n - 1;  // the one that lists them
}

}  // namespace support
