#include "platform/linux/UdpPamLinux.h"

#include <arpa/inet.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <netinet/udp.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <limits>
#include <memory>
#include <optional>

#include "platform/linux/Fd.h"
#include "platform/linux/Netns.h"
#include "platform/linux/Pacer.h"
#include "platform/linux/SendErrors.h"
#include "platform/linux/UdpMessages.h"

namespace platform {
namespace {

constexpr size_t segmentsMax = 64;  // per segmented send: UDP_MAX_SEGMENTS of the kernel
constexpr size_t segmentedLenMax = 65535 - 60 - 8;  // octets of it: one IP packet to the stack
constexpr unsigned unsegmentedMin = 1024;  // datagrams until a refused segmentation is tried again
constexpr size_t flushMax = 1024;  // datagrams per task or handler once the socket has been full
constexpr size_t unsegmentedMax = 256;           // destinations
constexpr size_t rxMax = 128;                    // datagrams per round of the loop
constexpr std::chrono::milliseconds rxShare{2};  // of their handler, per round of the loop
constexpr TaskPriority taskPriority = 2;         // the library's own

Pace paceOf(unsigned burst, std::chrono::duration<double> interval) {
  if (burst == 0) return {};
  return {.perSecond = burst / interval.count(), .burst = double(burst)};
}

/// A limit that was asked for, in bursts that a collector's socket holds, as far as the scheduler's
/// milliseconds allow.
Pace paceOf(const RateLimit& limit) {
  const bool octets = limit.unit == RateLimit::Unit::octets;
  const auto rate = static_cast<double>(limit.perSecond);
  const double few = octets ? 32 * 1400 : 32;
  const double most = octets ? 1 << 20 : 1 << 10;
  return {.perSecond = rate,
          .burst = std::clamp(std::max(rate * 0.001, std::min(rate * 0.004, few)), 1.0, most),
          .octets = octets};
}

class UdpPamLinux final : public UdpPam {
 public:
  UdpPamLinux(const std::string& name, Ptr<EventLoop> loop, TraceSink& trace,
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
  ~UdpPamLinux() override { close(); }

  const std::string& name() const override { return name_; }
  void netNsIs(const NamespaceName& ns) override { netNs_ = ns; }
  void ipv6EnIs(bool on) override { ipv6En_ = on; }
  void txPrioIs(uint8_t prio) override { txPrio_ = prio; }
  void rxIpAddrIs(IpAddr addr) override { rx4_ = addr; }
  void rxIp6AddrIs(const Ip6Addr& addr) override { rx6_ = addr; }
  void rxPortIs(uint16_t port) override { rxPort_ = port; }
  void modeIs(Mode mode) override {
    if (mode == this->mode()) return;
    if (mode == inService) {
      open();
    } else {
      close();
    }
  }
  Mode mode() const override { return socket_ ? inService : outOfService; }
  uint8_t txPrio() const override { return txPrio_; }
  uint16_t rxPort() const override { return socket_ ? boundPort_ : rxPort_; }
  int fd() const override { return socket_.get(); }

  void txSrcIpAddrIs(IpAddr addr) override { addressingIs(src4_, addr); }
  void txSrcIp6AddrIs(const Ip6Addr& addr) override { addressingIs(src6_, addr); }
  void txDstIpAddrIs(IpAddr addr) override { addressingIs(dst4_, addr); }
  void txDstIp6AddrIs(const Ip6Addr& addr) override { addressingIs(dst6_, addr); }
  void txPortIs(uint16_t port) override { addressingIs(txPort_, port); }
  void txTosIs(uint8_t tos) override { addressingIs(tos_, tos); }
  void txRateLimitIs(const RateLimit& limit) override;
  void txPktIs(const Ptr<Pkt>& pkt) override;
  void txDstDel(const IpGenAddr& addr, uint16_t port) override;
  void rxPktHandlerIs(RxPktHandler handler) override;

  const UdpPamCounters& counters() const override { return counters_; }
  AttrRows attrRows() const override {
    using P = UdpPamLinux;
    static constexpr AttrRow rows[] = {
        row<&P::name>("name"),         row<&P::fd>("fd"),
        row<&P::rxPort>("rxPort"),     row<&P::txPrio>("txPrio"),
        row<&P::sent>("sent"),         row<&P::sentOctets>("sentOctets"),
        row<&P::sends>("sends"),       row<&P::dropped>("dropped"),
        row<&P::queued>("queued"),     row<&P::queuedMax>("queuedMax"),
        row<&P::received>("received"), row<&P::rxDropped>("rxDropped")};
    return rows;
  }

 private:
  uint64_t sent() const { return counters_.sent; }
  uint64_t sentOctets() const { return counters_.sentOctets; }
  uint64_t sends() const { return counters_.sends; }
  uint64_t dropped() const { return counters_.dropped; }
  uint64_t queued() const { return counters_.queued; }
  uint64_t queuedMax() const { return counters_.queuedMax; }
  uint64_t received() const { return counters_.received; }
  uint64_t rxDropped() const { return counters_.rxDropped; }

  void open();
  void close();
  void flush();
  bool sendSome(bool moreComes = false);
  void handleEvents(uint32_t events);
  void watchWhatMatters();
  void enlargeRxBuffer();
  void receive();
  bool readSome();
  void countRxDrops();
  void traceLine(const std::string& text) {
    if (trace_.enabled(TraceLevel::error)) trace_.line(TraceLevel::error, name_ + ": " + text);
  }
  [[gnu::noinline]] bool readyFor(const Pkt& pkt);
  [[gnu::noinline]] void arrangeSending();
  template <class T>
  void addressingIs(T& attr, const T& value) {
    if (attr == value) return;
    attr = value;
    wayChanged_ = true;
  }
  const Way& wayOf(const Datagram& d) const { return ways_[d.way - firstWay_]; }
  const Pace& pace() const { return limit_ ? *limit_ : defaultPace_; }
  size_t allowedByPace(size_t most);
  size_t segmentsMaxOf(const Datagram& first) const;
  size_t fill(TxRoom& room, bool moreComes);
  void tosIs(uint8_t tos);
  void purge();
  void popFront(size_t n = 1);
  void taken(size_t n, uint64_t octets);

  const std::string name_;
  const Ptr<EventLoop> loop_;
  TraceSink& trace_;
  const std::string netnsDir_;
  const size_t queueMax_;
  const size_t sendAt_;
  const Pace defaultPace_;
  const size_t segmentsMax_;
  const int rxBufferSize_;

  NamespaceName netNs_;
  bool ipv6En_ = false;
  uint8_t txPrio_ = 0;
  IpAddr rx4_;
  Ip6Addr rx6_;
  uint16_t rxPort_ = 0;

  Fd socket_;
  bool socketIpv6_ = false;
  uint16_t boundPort_ = 0;
  std::unique_ptr<EventLoop::FdWatch> watch_;
  uint8_t socketTos_ = 0;
  bool full_ = false;  // the socket has no room; EPOLLOUT is awaited
  bool closing_ = false;
  std::optional<Pace> limit_;  // in place of the host's own choice
  Pacer pacer_;
  // To these a segmented send was refused: datagrams that go one by one until the next try.
  std::map<Destination, unsigned> unsegmented_;

  IpAddr src4_;
  Ip6Addr src6_;
  IpAddr dst4_;
  Ip6Addr dst6_;
  uint16_t txPort_ = 0;
  uint8_t tos_ = 0;

  bool wayChanged_ = true;  // since the last datagram, or there is no socket

  Ring<Datagram> queue_;
  uint64_t accepted_ = 0;  // datagrams that were ever queued
  // What is not sent any more: to these, of the datagrams up to that number.
  std::map<Destination, uint64_t> gone_;
  Ring<Way> ways_;                   // of those in the queue, and of the last one
  uint32_t firstWay_ = 0;            // the number of the first of them
  std::unique_ptr<TimerTask> rest_;  // goes on where a flush stopped at its bound
  const std::unique_ptr<EventLoop::EndHook> endOfTask_;  // flushes
  bool hooked_ = false;                                  // it is asked for
  UdpPamCounters counters_;
  SendErrors errors_{counters_, [this](const std::string& text) { traceLine(text); }};
  uint64_t overflow_ = 0;  // dropped since the queue was last empty

  std::shared_ptr<const RxPktHandler> rxHandler_;  // shared with the call under way
  std::unique_ptr<RxRoom> rxRoom_;                 // made with the first handler
  size_t rxAt_ = 0;                                // of those in it, the next to hand on
  size_t rxCount_ = 0;                             // how many are in it
  const std::unique_ptr<TimerTask> rxRest_;        // goes on where the share was used up
  uint32_t socketRxDrops_ = 0;                     // the kernel's count for this socket
  uint64_t opening_ = 0;                           // tells one socket from the next
};

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
  {
    const NetnsScope scope(ns.empty() ? std::string() : netnsDir_ + '/' + ns);
    socket = Fd(::socket(family, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, IPPROTO_UDP));
    if (!socket) refuse("socket");
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
  wayChanged_ = true;
  full_ = false;
  errors_.clear();
  unsegmented_.clear();
  overflow_ = 0;
}

/// Whether the next datagram has a way and a place. What is not so each time is in here.
bool UdpPamLinux::readyFor(const Pkt& pkt) {
  if (!socket_) {
    errors_.drop(EBADF);
    return false;
  }
  if (queue_.size() >= queueMax_) {
    errors_.drop(ENOBUFS);
    if (overflow_++ == 0)
      traceLine("queue of " + std::to_string(queueMax_) + " datagrams is full: dropping");
    return false;
  }
  if (!wayChanged_) return true;
  const Destination dst{socketIpv6_ ? IpGenAddr(dst6_) : IpGenAddr(dst4_), txPort_};
  // The kernel would take a zero address for this host itself.
  if (txPort_ == 0 || (socketIpv6_ ? dst6_.isZero() : dst4_.isZero())) {
    errors_.refused(dst, pkt.bytes(), EDESTADDRREQ);
    return false;
  }
  ways_.emplace_back() = {
      .src = socketIpv6_ ? IpGenAddr(src6_) : IpGenAddr(src4_), .dst = dst, .tos = tos_};
  wayChanged_ = false;
  return true;
}

void UdpPamLinux::txPktIs(const Ptr<Pkt>& pkt) {
  if ((wayChanged_ || queue_.size() >= queueMax_) && !readyFor(*pkt)) [[unlikely]]
    return;
  Datagram& d = queue_.emplace_back();
  ++accepted_;
  d.pkt = pkt;
  d.len = pkt->bytes();
  d.way = firstWay_ + static_cast<uint32_t>(ways_.size() - 1);
  if (d.len >= restampLen) [[likely]] {
    memcpy(d.head.data(), pkt->data(), restampLen);
  } else {
    memcpy(d.head.data(), pkt->data(), d.len);
  }
  counters_.queued = queue_.size();
  counters_.queuedMax = std::max(counters_.queuedMax, counters_.queued);
  if (!hooked_ || queue_.size() >= sendAt_) [[unlikely]]
    arrangeSending();
}

/// A full batch gains nothing by waiting, and a long task shall not fill the queue; less than that
/// leaves at its end.
void UdpPamLinux::arrangeSending() {
  if (full_) return;
  if (queue_.size() >= sendAt_) sendSome(true);
  if (hooked_ || queue_.empty()) return;
  hooked_ = true;
  endOfTask_->ask();
}

void UdpPamLinux::txRateLimitIs(const RateLimit& limit) {
  limit_.reset();
  if (limit.unit != RateLimit::Unit::hostsChoice) limit_ = paceOf(limit);
  pacer_ = {};  // credit of another pace, which may have counted something else, is worth nothing
  if (!queue_.empty()) rest_->scheduleLowestIs(Seconds(0));  // a wait at the old pace may be long
}

void UdpPamLinux::txDstDel(const IpGenAddr& addr, uint16_t port) {
  if (queue_.empty()) return;
  gone_[{addr, port}] = accepted_;
  if (std::exchange(hooked_, true)) return;
  endOfTask_->ask();
}

/// One pass over the queue, however many destinations are gone.
void UdpPamLinux::purge() {
  const auto gone = std::exchange(gone_, {});
  uint64_t number = accepted_ - queue_.size();
  Ring<Datagram> kept;
  for (; !queue_.empty(); queue_.pop_front()) {
    Datagram& d = queue_.front();
    const auto to = gone.find(wayOf(d).dst);
    if (++number; to != gone.end() && number <= to->second) {
      errors_.drop(ECANCELED);
    } else {
      kept.emplace_back() = std::move(d);
    }
  }
  queue_ = std::move(kept);
  popFront(0);
}

void UdpPamLinux::flush() {
  if (!gone_.empty()) purge();
  const uint64_t stopAt = counters_.sent + counters_.dropped + flushMax;
  while (!queue_.empty() && sendSome())
    if (counters_.sent + counters_.dropped >= stopAt) break;
  // Where the pace ended it, the task waits already.
  if (!queue_.empty() && !full_ && !rest_->scheduled()) rest_->scheduleIs(Seconds(0));
}

/// Sends the first of the queue in one call, or drops its first datagram when that is refused. A
/// run that could become longer waits for it when `moreComes`. False: the socket has no room, and
/// the watch calls `flush` when it has; or the pace's share is used up, and the task does when
/// there is more.
bool UdpPamLinux::sendSome(bool moreComes) {
  if (full_) return false;
  static thread_local TxRoom room;  // of all endpoints: a thousand of them share a warm one
  const size_t sends = fill(room, moreComes);
  if (sends == 0) return false;
  const int sent =
      ::sendmmsg(socket_.get(), room.msgs.data(), static_cast<unsigned>(sends), MSG_NOSIGNAL);
  if (sent > 0) {
    counters_.sends += static_cast<uint64_t>(sent);
    size_t n = 0;
    uint64_t octets = 0;
    for (const TxSlot& slot : std::span(room.slots).first(static_cast<size_t>(sent))) {
      n += slot.segments;
      octets += slot.octets;
    }
    taken(n, octets);
    return true;
  }
  const int err = errno;
  if (err == EINTR) return true;
  if (err == EAGAIN || err == EWOULDBLOCK) {
    full_ = true;
    watchWhatMatters();
    return false;
  }
  if (errors_.wasOfAnother(socket_.get(), err)) return true;
  const Destination dst = wayOf(queue_.front()).dst;
  const bool segmented = room.slots[0].segments > 1;
  // A queueing discipline that has room for a part of a run drops the rest without a word: while it
  // is full, each datagram goes by itself.
  if (segmented || err == ENOBUFS) {
    if (unsegmented_.size() >= unsegmentedMax) unsegmented_.clear();
    unsegmented_[dst] = unsegmentedMin;
  }
  // The kernel does not say what it disliked in a run: a device that cannot, a path too narrow, a
  // route that is gone. One by one, each datagram gets its own answer.
  if (segmented) return true;
  const uint32_t len = queue_.front().len;
  popFront();
  errors_.refused(dst, len, err);
  return true;
}

/// How many of the first `most` may leave now.
size_t UdpPamLinux::allowedByPace(size_t most) {
  if (pace().perSecond <= 0 || closing_) return most;
  double credit = pacer_.credit(pace(), Pacer::Clock::now());
  size_t n = 0;
  for (; n < most && credit > 0; ++n) credit -= pace().octets ? queue_[n].len : 1;
  return n;
}

/// How many datagrams of its length one segmented send takes.
size_t UdpPamLinux::segmentsMaxOf(const Datagram& first) const {
  if (first.len == 0 || (!unsegmented_.empty() && unsegmented_.contains(wayOf(first).dst)))
    return 1;
  return std::clamp<size_t>(segmentedLenMax / first.len, 1, segmentsMax_);
}

/// Prepares what may leave now, and says how many sends that is. 0: the task goes on later.
size_t UdpPamLinux::fill(TxRoom& room, bool moreComes) {
  const size_t most = allowedByPace(std::min(queue_.size(), TxRoom::batchMax));
  if (most == 0) {
    rest_->scheduleLowestIs(pacer_.wait(pace()));
    return 0;
  }
  const auto queue = queue_.view();
  size_t slots = 0;
  iovec* iov = room.iov.data();
  for (size_t at = 0; at < most; ++slots) {
    const Datagram& first = queue[at];
    const Way& way = wayOf(first);
    if (!socketIpv6_ && way.tos != socketTos_) {
      if (slots > 0) break;
      tosIs(way.tos);
    }
    const size_t longest = segmentsMaxOf(first);
    const Run run = runOf(queue, at, std::min(most, at + longest), iov);
    const size_t segments = run.end - at;
    if (moreComes && slots > 0 && run.open && run.end == queue_.size() && segments < longest) break;
    msghdr& hdr = room.msgs[slots].msg_hdr;
    hdr.msg_iov = iov;
    hdr.msg_iovlen = static_cast<size_t>(run.iov - iov);
    room.slots[slots].address(way, segments, first.len, hdr);
    room.slots[slots].octets = run.octets;
    iov = run.iov;
    at = run.end;
  }
  return slots;
}

/// The socket's IPv4 TOS. As a control message it would come with a priority that the kernel
/// derives from it in place of `txPrio`; as an option it does too, but then the priority can be set
/// again. The datagrams of an exporter share one TOS, so this is no system call per datagram.
void UdpPamLinux::tosIs(uint8_t tos) {
  if (tos == socketTos_) return;
  const int value = tos;
  const int prio = txPrio_;
  ::setsockopt(socket_.get(), IPPROTO_IP, IP_TOS, &value, sizeof value);
  ::setsockopt(socket_.get(), SOL_SOCKET, SO_PRIORITY, &prio, sizeof prio);
  socketTos_ = tos;
}

void UdpPamLinux::popFront(size_t n) {
  queue_.pop_front(n);
  errors_.leftFront();
  counters_.queued = queue_.size();
  for (; ways_.size() > 1 && (queue_.empty() || queue_.front().way != firstWay_); ++firstWay_)
    ways_.pop_front();
  if (queue_.empty() && overflow_ > 0) {
    traceLine("queue is empty again after " + std::to_string(overflow_) + " drops");
    overflow_ = 0;
  }
}

/// The kernel has the first `n` of the queue.
void UdpPamLinux::taken(size_t n, uint64_t octets) {
  if (!unsegmented_.empty() || errors_.failing()) {
    for (size_t i = 0; i < n; ++i) {
      const Destination& dst = wayOf(queue_[i]).dst;
      if (const auto it = unsegmented_.find(dst); it != unsegmented_.end() && --it->second == 0)
        unsegmented_.erase(it);
      errors_.recovered(dst, queue_[i].len);
    }
  }
  popFront(n);
  counters_.sent += n;
  counters_.sentOctets += octets;
  if (pace().perSecond > 0) pacer_.spend(static_cast<double>(pace().octets ? octets : n));
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

}  // namespace

Ptr<UdpPam> udpPamLinux(const std::string& name, Ptr<EventLoop> loop, TraceSink& trace,
                        const LinuxPlatformOptions& options) {
  return Ptr<UdpPam>::adopt(new UdpPamLinux(name, std::move(loop), trace, options));
}

}  // namespace platform
