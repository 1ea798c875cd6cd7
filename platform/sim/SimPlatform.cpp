#include "platform/sim/SimPlatform.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <deque>
#include <set>

#include "platform/Assert.h"
#include "platform/TimerQueue.h"

namespace platform {
namespace {

using Time = TimerQueue::Time;
constexpr uint16_t firstEphemeralPort = 40000;
constexpr int firstFd = 1000;                // no descriptor: only something to show
constexpr size_t rxQueueMax = 1000;          // datagrams that wait to be read
constexpr size_t rxPerRound = 128;           // datagrams that one round hands over
constexpr TaskPriority rxPriority = 0;       // descriptors come before tasks
constexpr unsigned runsPerInstant = 100000;  // more in one moment is a task that never waits

class SimPam;

class SimPlatformImpl final : public SimPlatform, private TimerQueue::Host {
 public:
  SimPlatformImpl() : tasks_(Ptr<TimerQueue>::adopt(new TimerQueue(*this, Time(1)))) {}
  ~SimPlatformImpl() override { tasks_->hostDel(); }

  // Platform
  Ptr<UdpPam> udpPam(const std::string& name) override;
  const Clock& clock() const override { return clock_; }
  TraceSink& trace() override { return trace_; }
  LogSink& log() override { return log_; }

  // SimPlatform
  void advance(Seconds d) override;
  void runRound() override;
  Ptr<TaskSchedulerRoot> schedulerRoot() override {
    return Ptr<TaskSchedulerRoot>::adopt(new Root(tasks_));
  }
  Ptr<TaskScheduler> scheduler() override { return tasks_; }
  void wallClockIs(double utcSeconds) override { clock_.base = utcSeconds - seconds(now_); }
  void yieldAfterIs(unsigned questions) override { yieldAfter_ = questions; }
  std::vector<SimDatagram> takeSent() override {
    if (!tasks_->running()) checkShared();
    return std::exchange(sent_, {});
  }
  void namespaceIs(const std::string& name, bool exists) override {
    if (exists) {
      namespaces_.insert(name);
    } else {
      namespaces_.erase(name);
    }
  }
  void openErrorIs(int err) override { openError_ = err; }
  void sendErrorIs(int err) override { sendError_ = err; }
  void paceIs(size_t perMs, uint64_t before) override {
    pacePerMs_ = perMs;
    queuedBefore_ = before;
  }
  size_t openEndpoints() const override { return bound_.size(); }
  std::vector<std::string> takeTrace() override { return std::exchange(trace_.lines, {}); }
  std::vector<std::string> takeLog() override { return std::exchange(log_.lines, {}); }
  void traceLevelIs(int level) override { trace_.level = level; }

 private:
  friend class SimPam;
  /// Where a socket is bound: two endpoints cannot share one, nor have the same port when one of
  /// them is bound to any address.
  struct Binding {
    std::string ns;
    uint16_t port = 0;
    IpGenAddr addr;  // never without family
    auto operator<=>(const Binding&) const = default;
    bool any() const { return addr.isIpv6() ? addr.ip6Addr().isZero() : addr.ipAddr().isZero(); }
  };
  bool taken(const Binding& b) const;
  /// Calls `visit` with the endpoints that have this port, of both families, until it is true.
  template <class Visit>
  bool anyAtPort(const std::string& ns, uint16_t port, Visit visit) const {
    for (auto at = bound_.lower_bound(Binding{ns, port, {}});
         at != bound_.end() && at->first.ns == ns && at->first.port == port; ++at)
      if (visit(at->first, *at->second)) return true;
    return false;
  }
  struct Root final : TaskSchedulerRoot {
    explicit Root(Ptr<TaskScheduler> s) : scheduler(std::move(s)) {}
    Ptr<TaskScheduler> taskScheduler() const override { return scheduler; }
    const Ptr<TaskScheduler> scheduler;
  };
  struct SimClock final : Clock {
    explicit SimClock(const SimPlatformImpl& p) : platform(p) {}
    double now() const override { return base + seconds(platform.now_); }
    const SimPlatformImpl& platform;
    double base = 1.7e9;  // 2023-11-14 22:13:20 UTC
  };
  struct Trace final : TraceSink {
    bool enabled(int l) const override { return l <= level; }
    void line(int l, std::string_view text) override {
      if (enabled(l)) lines.emplace_back(text);
    }
    int level = -1;
    std::vector<std::string> lines;
  };
  struct Log final : LogSink {
    void log(const LogMessage& message, std::span<const std::string> args) override {
      lines.push_back(std::string(message.name) + ": " + logText(message, args));
    }
    std::vector<std::string> lines;
  };
  /// A packet that its sender may restamp but not change otherwise.
  struct Shared {
    Ptr<Pkt> pkt;
    std::vector<uint8_t> octets;
  };

  static double seconds(Time t) { return Seconds(t).count(); }
  Time now() const override { return now_; }
  bool shouldYield() const override { return yieldAfter_ > 0 && ++questions_ >= yieldAfter_; }
  void checkShared();

  Time now_{0};
  unsigned yieldAfter_ = 0;
  mutable unsigned questions_ = 0;
  const Ptr<TimerQueue> tasks_;
  SimClock clock_{*this};
  Trace trace_;
  Log log_;
  std::set<std::string> namespaces_;
  std::map<Binding, SimPam*> bound_;
  uint16_t nextPort_ = firstEphemeralPort;
  int nextFd_ = firstFd;
  int openError_ = 0;
  int sendError_ = 0;
  size_t pacePerMs_ = 0;
  uint64_t queuedBefore_ = 0;
  std::vector<SimDatagram> sent_;
  std::vector<Shared> shared_;
};

class SimPam final : public UdpPam {
 public:
  SimPam(SimPlatformImpl& platform, std::string name)
      : platform_(platform),
        name_(std::move(name)),
        rxTask_(platform_.scheduler()->timerTask(name_ + "-rx", rxPriority, [this] { read(); })),
        txTask_(platform_.scheduler()->timerTask(name_ + "-tx", rxPriority, [this] { send(); })) {}
  ~SimPam() override { modeIs(outOfService); }

  const std::string& name() const override { return name_; }
  void netNsIs(const NamespaceName& ns) override { netNs_ = ns; }
  void ipv6EnIs(bool on) override { ipv6En_ = on; }
  void txPrioIs(uint8_t prio) override { txPrio_ = prio; }
  void rxIpAddrIs(IpAddr addr) override { rx4_ = addr; }
  void rxIp6AddrIs(const Ip6Addr& addr) override { rx6_ = addr; }
  void rxPortIs(uint16_t port) override { rxPort_ = port; }
  void modeIs(Mode mode) override;
  Mode mode() const override { return fd_ >= 0 ? inService : outOfService; }
  uint8_t txPrio() const override { return txPrio_; }
  uint16_t rxPort() const override { return fd_ >= 0 ? bound_.port : rxPort_; }
  int fd() const override { return fd_; }

  void txSrcIpAddrIs(IpAddr addr) override { src4_ = addr; }
  void txSrcIp6AddrIs(const Ip6Addr& addr) override { src6_ = addr; }
  void txDstIpAddrIs(IpAddr addr) override { dst4_ = addr; }
  void txDstIp6AddrIs(const Ip6Addr& addr) override { dst6_ = addr; }
  void txPortIs(uint16_t port) override { txPort_ = port; }
  void txTosIs(uint8_t tos) override { tos_ = tos; }
  void txPktIs(const Ptr<Pkt>& pkt) override;
  void txDstDel(const IpGenAddr& addr, uint16_t port) override {
    const auto n = std::erase_if(
        waiting_, [&](const SimDatagram& d) { return d.dst == addr && d.dstPort == port; });
    counters_.dropped += n;
    if (n > 0) counters_.dropByErrno[ECANCELED] += n;
    counters_.queued -= n;
  }
  void rxPktHandlerIs(RxPktHandler handler) override {
    rxHandler_ = std::move(handler);
    readSoon();
  }
  const UdpPamCounters& counters() const override { return counters_; }

 private:
  struct Arrived {
    std::string octets;
    IpGenAddr from;
    uint16_t fromPort;
  };
  void deliver(const SimDatagram& d) const;
  void readSoon() {
    if (rxHandler_ && !arrived_.empty()) rxTask_->scheduleLowestIs(Seconds(0));
  }
  void read();
  void send(SimDatagram d);
  void send();

  SimPlatformImpl& platform_;
  const std::string name_;
  NamespaceName netNs_;
  bool ipv6En_ = false;
  uint8_t txPrio_ = 0;
  IpAddr rx4_;
  Ip6Addr rx6_;
  uint16_t rxPort_ = 0;
  int fd_ = -1;
  SimPlatformImpl::Binding bound_;
  IpAddr src4_;
  Ip6Addr src6_;
  IpAddr dst4_;
  Ip6Addr dst6_;
  uint16_t txPort_ = 0;
  uint8_t tos_ = 0;
  UdpPamCounters counters_;
  RxPktHandler rxHandler_;
  std::deque<Arrived> arrived_;
  std::unique_ptr<TimerTask> rxTask_;
  std::deque<SimDatagram> waiting_;
  std::unique_ptr<TimerTask> txTask_;
};

bool SimPlatformImpl::taken(const Binding& b) const {
  return anyAtPort(b.ns, b.port, [&](const Binding& o, const SimPam&) {
    return o.addr.isIpv6() == b.addr.isIpv6() && (o.addr == b.addr || o.any() || b.any());
  });
}

void SimPam::modeIs(Mode mode) {
  if (mode == this->mode()) return;
  if (mode == outOfService) {
    for (; !waiting_.empty(); waiting_.pop_front()) send(std::move(waiting_.front()));
    counters_.queued = 0;
    platform_.bound_.erase(bound_);
    arrived_.clear();
    fd_ = -1;
    return;
  }
  const std::string& ns = netNs_.stringValue();
  if (platform_.openError_ != 0) throw ErrnoException(platform_.openError_, name_ + ": socket");
  if (!ns.empty() && !platform_.namespaces_.contains(ns))
    throw ErrnoException(ENOENT, "network namespace " + ns);
  SimPlatformImpl::Binding binding{ns, rxPort_, ipv6En_ ? IpGenAddr(rx6_) : IpGenAddr(rx4_)};
  if (rxPort_ == 0) {
    do {
      binding.port = platform_.nextPort_++;
      if (platform_.nextPort_ == 0) platform_.nextPort_ = firstEphemeralPort;
    } while (platform_.taken(binding));
  }
  if (platform_.taken(binding)) throw ErrnoException(EADDRINUSE, name_ + ": bind");
  platform_.bound_.emplace(binding, this);
  bound_ = binding;
  fd_ = platform_.nextFd_++;
}

void SimPam::txPktIs(const Ptr<Pkt>& pkt) {
  int err = platform_.sendError_;
  if (txPort_ == 0 || (bound_.addr.isIpv6() ? dst6_.isZero() : dst4_.isZero())) err = EDESTADDRREQ;
  if (fd_ < 0) err = EBADF;
  if (err != 0) {
    ++counters_.dropped;
    ++counters_.dropByErrno[err];
    return;
  }
  SimDatagram d{.endpoint = name_,
                .src = bound_.addr.isIpv6() ? IpGenAddr(src6_) : IpGenAddr(src4_),
                .dst = bound_.addr.isIpv6() ? IpGenAddr(dst6_) : IpGenAddr(dst4_),
                .srcPort = bound_.port,
                .dstPort = txPort_,
                .tos = tos_,
                .time = 0,
                .octets = {pkt->octets().begin(), pkt->octets().end()}};
  if (bound_.addr.isIpv6() ? src6_.isZero() : src4_.isZero()) d.src = bound_.addr;
  platform_.shared_.push_back({pkt, d.octets});
  if (platform_.pacePerMs_ == 0) return send(std::move(d));
  waiting_.push_back(std::move(d));
  counters_.queued = waiting_.size() + platform_.queuedBefore_;
  txTask_->scheduleLowestIs(Seconds(0.001));
}
void SimPam::send(SimDatagram d) {
  ++counters_.sent;
  counters_.sentOctets += d.octets.size();
  d.time = platform_.clock().now();
  deliver(d);
  platform_.sent_.push_back(std::move(d));
}
void SimPam::send() {
  for (size_t n = 0; (platform_.pacePerMs_ == 0 || n < platform_.pacePerMs_) && !waiting_.empty();
       ++n) {
    send(std::move(waiting_.front()));
    waiting_.pop_front();
  }
  counters_.queued = waiting_.empty() ? 0 : waiting_.size() + platform_.queuedBefore_;
  if (!waiting_.empty()) txTask_->scheduleIs(Seconds(0.001));
}

void SimPam::deliver(const SimDatagram& d) const {
  const auto takes = [&](const auto& binding, SimPam& pam) {
    if (binding.addr.isIpv6() != d.dst.isIpv6() || (!binding.any() && binding.addr != d.dst))
      return false;
    if (pam.arrived_.size() >= rxQueueMax) {
      ++pam.counters_.rxDropped;
    } else {
      pam.arrived_.push_back({{d.octets.begin(), d.octets.end()}, d.src, d.srcPort});
      pam.readSoon();
    }
    return true;
  };
  platform_.anyAtPort(bound_.ns, d.dstPort, takes);
}

void SimPam::read() {
  const Ptr<SimPam> hold(this);
  for (size_t n = 0; n < rxPerRound && rxHandler_ && !arrived_.empty() && refs() > 1; ++n) {
    const Arrived a = std::move(arrived_.front());
    arrived_.pop_front();
    ++counters_.received;
    counters_.receivedOctets += a.octets.size();
    const RxPktHandler handler = rxHandler_;  // it may replace itself
    handler(a.octets, a.from, a.fromPort);
  }
  readSoon();
}

Ptr<UdpPam> SimPlatformImpl::udpPam(const std::string& name) {
  return Ptr<UdpPam>::adopt(new SimPam(*this, name));
}

void SimPlatformImpl::advance(Seconds d) {
  const Time end = now_ + Time(std::llround(d.count() * 1e9));
  unsigned runs = 0;
  auto next = tasks_->nextDue();
  while (next && *next <= end) {
    if (*next > now_) {
      now_ = *next;
      runs = 0;
    }
    tasks_->roundIs(now_);
    for (;;) {
      questions_ = 0;
      if (!tasks_->runNext()) break;
      checkShared();
      TARN_ASSERT_AS(++runs < runsPerInstant, "a task that schedules itself waits at last");
    }
    next = tasks_->nextDue();
  }
  checkShared();
  now_ = std::max(now_, end);
  tasks_->roundIs(now_);
}

void SimPlatformImpl::runRound() {
  tasks_->roundIs(now_);
  questions_ = 0;
  while (tasks_->runNext()) {
    questions_ = 0;
    checkShared();
  }
  checkShared();
}

/// Endpoints share with their senders what follows the first octets until the task is over.
void SimPlatformImpl::checkShared() {
  for (const Shared& s : shared_) {
    TARN_ASSERT_AS(
        s.pkt->bytes() == s.octets.size() &&
            (s.octets.size() <= UdpPam::restampLen ||
             std::memcmp(s.pkt->data() + UdpPam::restampLen, s.octets.data() + UdpPam::restampLen,
                         s.octets.size() - UdpPam::restampLen) == 0),
        "a packet under transmission changes in its first octets only");
  }
  shared_.clear();
}

class SimTable final : public SharedTable {
 public:
  SimTable(size_t keyLen, size_t valueLen, size_t capacity)
      : keyLen_(keyLen), valueLen_(valueLen), capacity_(capacity) {}

  size_t keyLen() const override { return keyLen_; }
  size_t valueLen() const override { return valueLen_; }
  size_t capacity() const override { return capacity_; }
  size_t size() const override { return records_.size(); }
  bool put(Octets key, Octets value) override {
    TARN_ASSERT(key.size() == keyLen_ && value.size() == valueLen_);
    auto it = records_.find(copy(key));
    if (it == records_.end()) {
      if (records_.size() >= capacity_) return false;
      it = records_.emplace(copy(key), Record()).first;
    }
    it->second = copy(value);
    return true;
  }
  bool get(Octets key, std::span<std::byte> value) const override {
    TARN_ASSERT(key.size() == keyLen_ && value.size() == valueLen_);
    auto it = records_.find(copy(key));
    if (it == records_.end()) return false;
    std::copy(it->second.begin(), it->second.end(), value.begin());
    return true;
  }
  bool del(Octets key) override {
    TARN_ASSERT(key.size() == keyLen_);
    return records_.erase(copy(key)) > 0;
  }
  void delAll() override { records_.clear(); }
  void each(const std::function<void(Octets, Octets)>& visit) const override {
    for (const auto& [key, value] : records_) visit(key, value);
  }

 private:
  using Record = std::vector<std::byte>;
  static Record copy(Octets o) { return {o.begin(), o.end()}; }

  const size_t keyLen_;
  const size_t valueLen_;
  const size_t capacity_;
  std::map<Record, Record> records_;
};

}  // namespace

std::unique_ptr<SimPlatform> simPlatform() { return std::make_unique<SimPlatformImpl>(); }

Ptr<SharedTable> simTableFactory(size_t keyLen, size_t valueLen, size_t capacity) {
  return Ptr<SharedTable>::adopt(new SimTable(keyLen, valueLen, capacity));
}

}  // namespace platform
