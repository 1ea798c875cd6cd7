#include "platform/linux/UdpPamLinux.h"

#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <utility>

#include "platform/linux/Netns.h"
#include "platform/linux/UdpPamSocket.h"

namespace platform {
namespace {

constexpr size_t segmentsMax = 64;  // per segmented send: UDP_MAX_SEGMENTS of the kernel
constexpr size_t rxMax = 128;       // datagrams per round of the loop
constexpr std::chrono::milliseconds rxShare{2};  // of their handler, per round of the loop
constexpr TaskPriority taskPriority = 2;         // the library's own

Pace paceOf(unsigned burst, std::chrono::duration<double> interval) {
  if (burst == 0) return {};
  return {.perSecond = burst / interval.count(), .burst = double(burst)};
}
}  // namespace

UdpPamLinux::UdpPamLinux(const std::string& name, Ptr<EventLoop> loop, TraceSink& trace,
                         const LinuxPlatformOptions& options)
    : name_(name),
      loop_(std::move(loop)),
      trace_(trace),
      netnsDir_(options.netnsDir),
      queueMax_(std::max<size_t>(options.endpointQueueMax, 1)),
      sendAt_(std::min(TxRoom::batchMax, queueMax_)),
      defaultPace_(paceOf(options.paceBurst, options.paceInterval)),
      segmentsMax_(std::clamp<size_t>(options.segmentsMax, 1, segmentsMax)),
      rxBufferSize_(options.rxBufferSize),
      rest_(loop_->taskScheduler()->timerTask(name + "-tx", taskPriority, [this] { flush(); })),
      endOfTask_(loop_->endHook([this] {
        hooked_ = false;
        flush();
      })),
      rxRest_(loop_->taskScheduler()->timerTask(name + "-rx", taskPriority, [this] {
        const Ptr<UdpPamLinux> hold(this);
        receive();
      })) {}

void UdpPamLinux::open() {
  const std::string& ns = netNs_.stringValue();
  if (ns.find('/') != std::string::npos || ns == "." || ns == "..")
    throw ErrnoException(EINVAL, name_ + ": network namespace " + toQuoted(ns));
  const int family = ipv6En_ ? AF_INET6 : AF_INET;
  auto refuse = [this](const char* what) {
    const int err = errno;  // NOLINT: before anything changes it
    throw ErrnoException(err, name_ + ": " + what);
  };
  Fd socket;
  NetnsId netns;
  {
    const NetnsScope scope(ns.empty() ? std::string() : netnsDir_ + '/' + ns);
    socket = Fd(::socket(family, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, IPPROTO_UDP));
    if (!socket) refuse("socket");
    netns = scope.id();
  }
  auto option = [&](int level, int opt, int value, const char* what) {
    if (::setsockopt(socket.get(), level, opt, &value, sizeof value) != 0) refuse(what);
  };
  option(SOL_SOCKET, SO_PRIORITY, txPrio_, "SO_PRIORITY");
  if (!SendErrors::enable(socket.get(), ipv6En_)) refuse("IP_RECVERR");
  // Messages are sized to the exporter's MTU. One that is too large for the path is refused with
  // EMSGSIZE, and counted, rather than sent in fragments that routers and firewalls lose.
  union {
    sockaddr_in v4;
    sockaddr_in6 v6;
  } local;
  memset(&local, 0, sizeof local);
  socklen_t len = sizeof local.v4;
  if (ipv6En_) {
    option(IPPROTO_IPV6, IPV6_V6ONLY, 1, "IPV6_V6ONLY");
    option(IPPROTO_IPV6, IPV6_MTU_DISCOVER, IPV6_PMTUDISC_DO, "IPV6_MTU_DISCOVER");
    local.v6.sin6_family = AF_INET6;
    local.v6.sin6_port = htons(rxPort_);
    local.v6.sin6_addr = octetsOf(rx6_);
    len = sizeof local.v6;
  } else {
    option(IPPROTO_IP, IP_MTU_DISCOVER, IP_PMTUDISC_DO, "IP_MTU_DISCOVER");
    local.v4.sin_family = AF_INET;
    local.v4.sin_port = htons(rxPort_);
    local.v4.sin_addr.s_addr = htonl(rx4_.value());
  }
  if (::bind(socket.get(), reinterpret_cast<sockaddr*>(&local), len) != 0) refuse("bind");
  if (::getsockname(socket.get(), reinterpret_cast<sockaddr*>(&local), &len) != 0)
    refuse("getsockname");
  // Without a receive handler nobody is told to send here, and what arrives all the same stays in
  // the kernel's bounded buffer.
  watch_ = loop_->fdWatch(socket.get(), 0, [this](uint32_t events) { handleEvents(events); });
  boundPort_ = ntohs(ipv6En_ ? local.v6.sin6_port : local.v4.sin_port);
  ownPort_.emplace(netns, boundPort_);
  socketIpv6_ = ipv6En_;
  socketTos_ = 0;
  wayChanged_ = true;  // the family may be another
  socket_ = std::move(socket);
  socketRxDrops_ = 0;
  ++opening_;
  if (rxHandler_) enlargeRxBuffer();
  watchWhatMatters();
}

void UdpPamLinux::watchWhatMatters() {
  if (!watch_) return;
  watch_->eventsIs((full_ ? uint32_t{EPOLLOUT} : 0u) | (rxHandler_ ? uint32_t{EPOLLIN} : 0u));
}

void UdpPamLinux::handleEvents(uint32_t events) {
  const Ptr<UdpPamLinux> hold(this);  // the receive handler may drop the endpoint
  if (events & EPOLLERR) {
    errors_.drain(socket_.get());
    int err = 0;
    socklen_t n = sizeof err;
    ::getsockopt(socket_.get(), SOL_SOCKET, SO_ERROR, &err, &n);
  }
  if (events & EPOLLOUT) {
    full_ = false;
    watchWhatMatters();
    flush();
  }
  if (events & EPOLLIN) receive();
}

void UdpPamLinux::close() {
  if (!socket_) return;
  full_ = false;
  if (!gone_.empty()) purge();
  closing_ = true;
  while (!queue_.empty() && sendSome()) {
  }
  closing_ = false;
  if (!queue_.empty())
    traceLine("closes with " + std::to_string(queue_.size()) +
              " datagrams in its queue: the socket has no room, they are lost");
  while (!queue_.empty()) {  // still no room
    errors_.drop(EAGAIN);
    popFront();
  }
  rest_->stop();
  rxRest_->stop();
  counters_.rxDropped += rxCount_ - rxAt_;
  rxAt_ = rxCount_ = 0;
  countRxDrops();
  watch_ = nullptr;
  socket_.close();
  ownPort_.reset();
  wayChanged_ = true;
  full_ = false;
  errors_.clear();
  unsegmented_.clear();
  overflow_ = 0;
}

void UdpPamLinux::rxPktHandlerIs(RxPktHandler handler) {
  rxHandler_ = handler ? std::make_shared<const RxPktHandler>(std::move(handler)) : nullptr;
  if (rxHandler_ && !rxRoom_) rxRoom_ = std::make_unique<RxRoom>();
  if (rxHandler_ && socket_) enlargeRxBuffer();
  if (rxHandler_ && rxAt_ < rxCount_) rxRest_->scheduleLowestIs(Seconds(0));
  watchWhatMatters();
}

void UdpPamLinux::enlargeRxBuffer() {
  const int size = rxBufferSize_;
  if (::setsockopt(socket_.get(), SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size) != 0)
    ::setsockopt(socket_.get(), SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
}

/// Hands on what arrived, as much as the share of one round allows. The descriptor reports what is
/// still in the kernel again; `rxRest_` comes back for what was read already.
void UdpPamLinux::receive() {
  const auto end = std::chrono::steady_clock::now() + rxShare;
  const uint64_t opening = opening_;
  for (size_t n = 0; n < rxMax; ++n) {
    // The handler may have taken itself away, closed the endpoint, opened it anew, or dropped it:
    // then the only reference is its caller's.
    const auto handler = rxHandler_;
    if (!handler || !socket_ || opening_ != opening || refs() == 1) break;
    if (rxAt_ == rxCount_ && !readSome()) break;
    const RxRoom& room = *rxRoom_;
    const std::string_view octets(room.octets.get() + rxAt_ * RxRoom::len,
                                  room.msgs[rxAt_].msg_len);
    const Destination sender = destinationOf(room.from[rxAt_]);
    ++rxAt_;
    ++counters_.received;
    counters_.receivedOctets += octets.size();
    (*handler)(octets, sender.addr, sender.port);
    if (std::chrono::steady_clock::now() >= end) break;
  }
  if (rxHandler_ && rxAt_ < rxCount_) rxRest_->scheduleLowestIs(Seconds(0));
  countRxDrops();
}

/// Reads what one call takes. False: nothing is there.
bool UdpPamLinux::readSome() {
  RxRoom& room = *rxRoom_;
  for (auto& m : room.msgs) m.msg_hdr.msg_namelen = sizeof(sockaddr_storage);
  const int n = ::recvmmsg(socket_.get(), room.msgs.data(), RxRoom::batch, MSG_DONTWAIT, nullptr);
  rxAt_ = 0;
  rxCount_ = n > 0 ? static_cast<size_t>(n) : 0;
  return n > 0;
}

/// The kernel's own count is up to date at any time; the one it can attach to datagrams
/// (SO_RXQ_OVFL) leaves out what was dropped behind the last that is read.
void UdpPamLinux::countRxDrops() {
  if (!rxRoom_ || !socket_) return;
  std::array<uint32_t, SK_MEMINFO_VARS> info{};
  socklen_t len = sizeof info;
  if (::getsockopt(socket_.get(), SOL_SOCKET, SO_MEMINFO, info.data(), &len) != 0) return;
  const uint32_t drops = info[SK_MEMINFO_DROPS];
  if (drops != socketRxDrops_ && counters_.rxDropped == 0)
    traceLine("the receive buffer is full: datagrams are lost");
  counters_.rxDropped += drops - socketRxDrops_;  // modulo 2^32
  socketRxDrops_ = drops;
}

Ptr<UdpPam> udpPamLinux(const std::string& name, Ptr<EventLoop> loop, TraceSink& trace,
                        const LinuxPlatformOptions& options) {
  return Ptr<UdpPam>::adopt(new UdpPamLinux(name, std::move(loop), trace, options));
}

}  // namespace platform
