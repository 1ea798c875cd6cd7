#include "tests/support/Net.h"

#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "platform/linux/Netns.h"
#include "platform/linux/UdpMessages.h"

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

PeerNamespace::PeerNamespace()
    : holder_(::popen("exec setpriv --pdeathsig KILL unshare --net"
                      " sh -c 'ip link set lo up && echo $$ && exec sleep infinity'",
                      "re")) {
  if (!holder_ || ::fscanf(holder_, "%d", &pid_) != 1) fail("unshare");
}
PeerNamespace::~PeerNamespace() {
  ::kill(pid_, SIGKILL);
  ::pclose(holder_);
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
  on(v6 ? IPPROTO_IPV6 : IPPROTO_IP, v6 ? IPV6_RECVTCLASS : IP_RECVTOS);
  addrinfo numeric{};
  numeric.ai_flags = AI_NUMERICHOST;
  addrinfo* found = nullptr;
  if (::getaddrinfo(addr.stringValue().c_str(), std::to_string(port).c_str(), &numeric, &found) !=
      0)
    fail("getaddrinfo");
  const int bound = ::bind(fd_.get(), found->ai_addr, found->ai_addrlen);
  ::freeaddrinfo(found);
  sockaddr_storage local{};
  socklen_t len = sizeof local;
  if (bound != 0 || ::getsockname(fd_.get(), reinterpret_cast<sockaddr*>(&local), &len) != 0)
    fail("bind");
  port_ = platform::destinationOf(local).port;
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
  const platform::Destination source = platform::destinationOf(from);
  d.src = source.addr;
  d.srcPort = source.port;
  for (cmsghdr* c = CMSG_FIRSTHDR(&h); c; c = CMSG_NXTHDR(&h, c)) {
    if (c->cmsg_level == IPPROTO_IP && c->cmsg_type == IP_TOS) {
      d.tos = *CMSG_DATA(c);
    } else if (c->cmsg_level == IPPROTO_IPV6 && c->cmsg_type == IPV6_TCLASS) {
      std::memcpy(&d.tos, CMSG_DATA(c), sizeof d.tos);
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
