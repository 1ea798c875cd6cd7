#include <string.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <span>
#include <utility>

#include "platform/linux/UdpPamSocket.h"

namespace platform {
namespace {

constexpr size_t segmentedLenMax = 65535 - 60 - 8;  // octets of a segmented send: one IP packet
constexpr unsigned unsegmentedMin = 1024;  // datagrams until a refused segmentation is tried again
constexpr size_t unsegmentedMax = 256;     // destinations
constexpr size_t flushMax = 1024;  // datagrams per task or handler once the socket has been full

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
}  // namespace

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

}  // namespace platform
